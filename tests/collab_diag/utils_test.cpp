// String and time utilities of namespace tovUtils.
#include <climits>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "tovapi/libtovapi.h"

namespace {

using Strings = std::vector<std::string>;

TEST(VecToStr, JoinsWithCommaAndBlank) {
  EXPECT_EQ(tovUtils::vectostr(Strings{"a", "b", "c"}), "a, b, c");
  EXPECT_EQ(tovUtils::vectostr(Strings{}), "");
  EXPECT_EQ(tovUtils::vectostr(Strings{"only"}), "only");
  EXPECT_EQ(tovUtils::vectostr(Strings{"", ""}), ", ");
  EXPECT_EQ(tovUtils::vectostr(std::vector<int>{1, 2}), "1, 2");
}

TEST(Tokenizer, SplitsAtAnyDelimiterWithoutEmptyPieces) {
  struct Case {
    std::string text, delims;
    Strings pieces;
  };
  const std::vector<Case> cases = {
      {"a b c", " ", {"a", "b", "c"}},
      {"  a   b  ", " ", {"a", "b"}},
      {"C|one|two\nN|n1\n\n", "|\n", {"C", "one", "two", "N", "n1"}},
      {"word", " ", {"word"}},
      {"", " ", {}},
      {"|||", "|", {}},
      {"a b", "", {"a b"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    Strings out;
    tovUtils::tokenizer(c.text, out, c.delims);
    EXPECT_EQ(out, c.pieces);
  }
}

TEST(Tokenizer, AppendsToWhatIsAlreadyThere) {
  Strings out{"kept"};
  tovUtils::tokenizer("x\ny\n", out, "\n");
  tovUtils::tokenizer("z", out, "\n");
  EXPECT_EQ(out, (Strings{"kept", "x", "y", "z"}));
}

TEST(StringToChar, CopiesEveryByteAndTerminates) {
  const std::string cases[] = {std::string("ab\0cd", 5), "", "plain text"};
  for (const std::string& s : cases) {
    char* copy = tovUtils::stringToChar(s);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(std::memcmp(copy, s.data(), s.size()), 0);
    EXPECT_EQ(copy[s.size()], '\0');
    delete[] copy;
  }
}

TEST(StringToInt, ParsesDecimalTextAndClamps) {
  struct Case {
    std::string text;
    int value;
  };
  const std::vector<Case> cases = {
      {"0", 0},
      {"42", 42},
      {"0042", 42},
      {"  -7", -7},
      {"+15", 15},
      {"\t 3", 3},
      {"12abc", 12},
      {"3 4", 3},
      {"abc", 0},
      {"", 0},
      {"-", 0},
      {"- 5", 0},
      {"2147483647", INT_MAX},
      {"2147483648", INT_MAX},
      {"99999999999999999999999", INT_MAX},
      {"-2147483648", INT_MIN},
      {"-2147483649", INT_MIN},
      {"-99999999999999999999999", INT_MIN},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(tovUtils::stringToInt(c.text), c.value);
  }
}

TEST(IntToString, PlainOrZeroPadded) {
  struct Case {
    int n;
    unsigned width;
    std::string text;
  };
  const std::vector<Case> cases = {
      {0, 0, "0"},         {42, 0, "42"},
      {-12, 0, "-12"},     {INT_MIN, 0, "-2147483648"},
      {7, 3, "007"},       {-5, 3, "-05"},
      {12345, 3, "12345"}, {0, 1, "0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.n);
    EXPECT_EQ(tovUtils::intToString(c.n, c.width), c.text);
  }
  EXPECT_EQ(tovUtils::intToString(1, UINT_MAX).size(), 255u);
}

TEST(GetTimeStr, LocalTimeOrNotAvailable) {
  const time_t t = 1700000000;
  struct tm parts;
  ASSERT_NE(localtime_r(&t, &parts), nullptr);
  char expected[64];
  ASSERT_GT(
      std::strftime(expected, sizeof expected, "%Y-%m-%d %H:%M:%S", &parts),
      0u);
  EXPECT_EQ(tovUtils::getTimeStr(t), expected);
  EXPECT_EQ(tovUtils::getTimeStr(0), "<n/a>");
  EXPECT_EQ(tovUtils::getTimeStr(-1), "<n/a>");
}

TEST(PrintClassMsg, SpeaksOnlyAtLevelThree) {
  DiagState restore;
  for (unsigned level = 0; level <= 3; ++level) {
    SCOPED_TRACE(level);
    tov1::tovDebug.setDebugLevel(level);
    CerrCapture cap;
    tovUtils::printClassMsg("TOVNet", false);
    tovUtils::printClassMsg("TOVNet", true);
    EXPECT_EQ(cap.text(), level == 3 ? "TOVNet: object created\n"
                                       "TOVNet: object destroyed\n"
                                     : "");
  }
}

}  // namespace
