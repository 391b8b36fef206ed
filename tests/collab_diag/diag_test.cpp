// Diagnostics (result codes, debug level, how lines are shown, the log file,
// the blanking of remembered secrets) and the string and time helpers.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "support/stream_capture.h"
#include "tovapi/internal_secrets.h"
#include "tovapi/libtovapi.h"

namespace {

using namespace tov1;
using Capture = testsupport::StreamCapture;
using Strings = std::vector<std::string>;

std::string red(const std::string& location) {
  return "\033[31m" + location + ":\033[0m ";
}
std::string yellow(const std::string& location) {
  return "\033[33m" + location + ":\033[0m ";
}

// Starts quiet and uncoloured; leaves the settings as it found them.
class DebugTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tovDebug.setDebugLevel(0);
    Debug::useColour = false;
  }
  void TearDown() override {
    tovDebug.setDebugLevel(level_);
    Debug::useColour = colour_;
  }
  const unsigned level_ = static_cast<unsigned>(tovDebug.getDebugLevel());
  const bool colour_ = Debug::useColour;
};

TEST_F(DebugTest, ResultCodesTheirTextsAndDebugLevels) {
  std::set<std::string> texts;
  for (int code = 0; code <= static_cast<int>(TOV_ERR_COUNT); ++code) {
    const auto c = static_cast<tov_error_enum>(code);
    EXPECT_EQ(tovDebug.setError(c), -code);
    EXPECT_EQ(tovDebug.getError(), code);
    const std::string text = tovDebug.tovErrorString(c);
    EXPECT_TRUE(!text.empty() && texts.insert(text).second) << code << text;
  }
  EXPECT_EQ(tovDebug.tovErrorString(TOV_OK), "success");
  EXPECT_EQ(tovDebug.tovErrorString(TOV_SOCK_TIMEOUT), "network timeout");
  EXPECT_EQ(tovDebug.tovErrorString(static_cast<tov_error_enum>(91)),
            "unknown result code 91");
  EXPECT_EQ(tovDebug.tovErrorString(static_cast<tov_error_enum>(UINT32_MAX)),
            "unknown result code 4294967295");
  for (unsigned level : {0u, 1u, 2u, 3u}) {
    EXPECT_EQ(tovDebug.setDebugLevel(level), 0);
    EXPECT_EQ(tovDebug.getDebugLevel(), static_cast<int>(level));
  }
  for (unsigned level : {4u, 100u, UINT_MAX}) {
    tovDebug.setError(TOV_OK);
    EXPECT_EQ(tovDebug.setDebugLevel(level), -static_cast<int>(TOV_CLI_DBGLVL));
    EXPECT_EQ(tovDebug.getError(), TOV_CLI_DBGLVL) << level;
    EXPECT_EQ(tovDebug.getDebugLevel(), 3) << "the level is kept";
  }
}

// Traces show from level 1 on; either kind of string stream carries them,
// and each ends with a line feed. Objects announce themselves at level 3.
TEST_F(DebugTest, TracesShowFromLevelOne) {
  for (unsigned level = 0; level <= 3; ++level) {
    tovDebug.setDebugLevel(level);
    std::stringstream ss("from a stringstream\n");
    std::ostringstream unterminated("no newline"), empty;
    std::ostream notAStringStream(nullptr);
    std::ostream* const streams[] = {&ss, &unterminated, &empty,
                                     &notAStringStream};
    Capture cap;
    for (std::ostream* os : streams) tovDebug.write(*os);
    tovUtils::printClassMsg("TOVNet", false);
    tovUtils::printClassMsg("TOVNet", true);
    EXPECT_EQ(cap.text(), std::string(level > 0 ? "from a stringstream\n"
                                                  "no newline\n"
                                                : "") +
                              (level == 3 ? "TOVNet: object created\n"
                                            "TOVNet: object destroyed\n"
                                          : ""))
        << level;
  }
}

// Errors show at level 0; colour marks only errors' and warnings' location.
TEST_F(DebugTest, ErrorsShowAtLevelZeroAsLocationColonText) {
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"TOVNet::validateHost()", "empty host\n",
       "TOVNet::validateHost(): empty host\n"},
      {"TOVNet::tovcomms()", "no newline", "TOVNet::tovcomms(): no newline\n"},
      {"", "bare text\n", "bare text\n"},
      {"X::y()", "", "X::y(): \n"}};
  for (const auto& [location, message, shown] : cases) {
    std::ostringstream os(message);
    Capture cap;
    tovDebug.error(location, os);
    EXPECT_EQ(cap.text(), shown) << location << "|" << message;
  }
  std::runtime_error e("boom");
  Capture cap;
  tovDebug.except("TOVNet::serviceCommand()", e);
  EXPECT_EQ(cap.text(), "TOVNet::serviceCommand(): boom\n");

  const std::pair<char, std::string> prefixes[] = {{'E', red("Loc()")},
                                                   {'W', yellow("Loc()")},
                                                   {'T', "Loc(): "},
                                                   {'?', "Loc(): "}};
  for (const auto& [kind, coloured] : prefixes) {
    Debug::useColour = false;
    EXPECT_EQ(tovDebug.getTraceStr(kind, "Loc()"), "Loc(): ") << kind;
    Debug::useColour = true;
    EXPECT_EQ(tovDebug.getTraceStr(kind, "Loc()"), coloured) << kind;
    EXPECT_EQ(tovDebug.getTraceStr(kind, ""), "") << kind;
  }
}

TEST(Secrets, TheLatestDistinctValuesAreKept) {
  secrets::forgetAll();
  EXPECT_FALSE(secrets::any());
  auto value = [](int i) { return "secret-value-" + std::to_string(1000 + i); };
  for (int i = 0; i <= static_cast<int>(secrets::kCapacity); ++i) {
    secrets::remember(value(i));
    secrets::remember(value(1));  // refreshed: outlives value(0)
  }
  std::string text = value(0) + " " + value(1) + " " + value(64);
  EXPECT_TRUE(secrets::redact(text));
  EXPECT_EQ(text, value(0) + " <redacted> <redacted>");
  secrets::forgetAll();
  EXPECT_FALSE(secrets::redact(text));
}

// A Debug object opens the log named by TOVAPI_LOG when it is made.
class DebugLog : public DebugTest {
 protected:
  void SetUp() override {
    DebugTest::SetUp();
    std::remove(path_.c_str());
    setenv("TOVAPI_LOG", path_.c_str(), 1);
  }
  void TearDown() override {
    unsetenv("TOVAPI_LOG");
    unsetenv("TOVAPI_SHOW_SECRETS");
    secrets::forgetAll();
    std::remove(path_.c_str());
    DebugTest::TearDown();
  }
  // The log's lines without the time stamp that each line must start with.
  Strings logged() const {
    static const std::regex stamped(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d (.*))");
    std::ifstream in(path_);
    Strings texts;
    std::smatch m;
    for (std::string line; std::getline(in, line);) {
      texts.push_back(std::regex_match(line, m, stamped) ? m[1].str()
                                                         : "unstamped " + line);
    }
    return texts;
  }
  const std::string path_ =
      ::testing::TempDir() + "collab_diag_" + std::to_string(getpid()) + ".log";
};

// Shown lines are appended uncoloured and time-stamped. They name hosts and
// show requests: the file is the owner's alone, is not inherited, and one
// that others may open is reported.
TEST_F(DebugLog, LinesAreAppendedToAFileOfTheOwnersAlone) {
  const mode_t oldMask = umask(0);
  const std::pair<int, std::string> cases[] = {
      // -1: no file yet
      {-1, ""},
      {0600, ""},
      {0644, "readable by others (mode 0644)"},
      {0620, "writable by others (mode 0620)"}};
  for (const auto& [existing, warning] : cases) {
    SCOPED_TRACE(existing);
    std::remove(path_.c_str());
    if (existing >= 0) {
      const int fd = open(path_.c_str(), O_CREAT | O_WRONLY, 0600);
      ASSERT_EQ(write(fd, "kept\n", 5), 5);
      ASSERT_EQ(fchmod(fd, static_cast<mode_t>(existing)), 0);
      close(fd);
    }
    Debug::useColour = true;
    Capture cap;
    Debug local;
    std::ostringstream hidden("hidden at level 0\n"), trace("Net::op(): up\n"),
        failure("went wrong\n");
    local.write(hidden);
    tovDebug.setDebugLevel(1);
    local.write(trace);
    local.error("Net::op()", failure);
    tovDebug.setDebugLevel(0);

    struct stat st {};
    ASSERT_EQ(stat(path_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, existing < 0 ? 0600u : existing);
    for (int fd = 0; fd < 1024; ++fd) {  // programs started later
      struct stat same {};
      const bool log = fstat(fd, &same) == 0 && same.st_ino == st.st_ino &&
                       same.st_dev == st.st_dev;
      EXPECT_TRUE(!log || (fcntl(fd, F_GETFD) & FD_CLOEXEC)) << "inherited";
    }
    const std::string reported =
        warning.empty() ? ""
                        : yellow("Debug::_initialChecks()") + "log file \"" +
                              path_ + "\" named by TOVAPI_LOG is " + warning +
                              "; its lines may show host names and requests\n";
    EXPECT_EQ(cap.text(),
              reported + "Net::op(): up\n" + red("Net::op()") + "went wrong\n");
    Strings expected{"T Net::op(): up", "E Net::op(): went wrong"};
    if (existing >= 0) expected.insert(expected.begin(), "unstamped kept");
    EXPECT_EQ(logged(), expected);
  }
  umask(oldMask);

  setenv("TOVAPI_LOG", "/nonexistent-dir-for-tovapi/x.log", 1);
  Capture cap;
  Debug local;
  std::ostringstream os("still shown\n");
  local.error("Here()", os);
  EXPECT_EQ(cap.text(), red("Debug::_initialChecks()") +
                            "cannot open log file \"/nonexistent-dir-for-"
                            "tovapi/x.log\" named by TOVAPI_LOG [" +
                            std::strerror(ENOENT) + "]\n" + red("Here()") +
                            "still shown\n");
}

// Anyone who reads a remembered password digest can command the daemon.
TEST_F(DebugLog, RememberedSecretsAreBlankedOnScreenAndInTheLog) {
  const std::string digest =
      "2bb80d537b1da3e38bd30361aa855686bde0eacd7162fef6a25fe97bf527a25b";
  secrets::remember(digest);
  secrets::remember("admin");  // too short to be blanked
  Debug local;
  // Debug level, TOVAPI_SHOW_SECRETS (nullptr: unset), blanked.
  const std::tuple<unsigned, const char*, bool> cases[] = {
      {1, nullptr, true}, {2, nullptr, true}, {3, nullptr, true},
      {3, "yes", true},   {3, "1", false},
  };
  for (const auto& [level, show, blanked] : cases) {
    SCOPED_TRACE(std::to_string(level) + "/" + (show ? show : "unset"));
    show ? setenv("TOVAPI_SHOW_SECRETS", show, 1)
         : unsetenv("TOVAPI_SHOW_SECRETS");
    tovDebug.setDebugLevel(level);
    std::ofstream(path_, std::ios::trunc).flush();  // the log only appends
    std::ostringstream trace("authvec  = admin, " + digest + "\n"),
        failure("key " + digest + digest + "\n");
    std::runtime_error e("digest " + digest);
    Capture cap;
    local.write(trace);
    local.error("Auth()", failure);
    local.except("Auth()", e);

    const std::string d = blanked ? secrets::kRedacted : digest;
    EXPECT_EQ(cap.text(), "authvec  = admin, " + d + "\nAuth(): key " + d + d +
                              "\nAuth(): digest " + d + "\n");
    EXPECT_EQ(logged(),
              (Strings{"T authvec  = admin, " + d, "E Auth(): key " + d + d,
                       "E Auth(): digest " + d}));
  }
}

// Pieces are appended; runs of delimiters give no empty pieces.
TEST(Strings, JoinAndSplit) {
  EXPECT_EQ(tovUtils::vectostr(Strings{"a", "b", "c"}), "a, b, c");
  EXPECT_EQ(tovUtils::vectostr(Strings{}), "");
  EXPECT_EQ(tovUtils::vectostr(Strings{"", ""}), ", ");
  EXPECT_EQ(tovUtils::vectostr(std::vector<int>{1, 2}), "1, 2");
  const std::tuple<std::string, std::string, Strings> cases[] = {
      {"a b c", " ", {"a", "b", "c"}},
      {"  a   b  ", " ", {"a", "b"}},
      {"C|one|two\nN|n1\n\n", "|\n", {"C", "one", "two", "N", "n1"}},
      {"", " ", {}},
      {"|||", "|", {}},
      {"a b", "", {"a b"}},
  };
  for (const auto& [text, delims, pieces] : cases) {
    Strings out{"kept"};
    tovUtils::tokenizer(text, out, delims);
    EXPECT_EQ(Strings(out.begin() + 1, out.end()), pieces) << text;
    EXPECT_EQ(out[0], "kept");
  }
}

TEST(StringToChar, CopiesEveryByteAndTerminates) {
  for (const std::string& s : {std::string("ab\0cd", 5), std::string()}) {
    char* copy = tovUtils::stringToChar(s);
    EXPECT_EQ(std::memcmp(copy, s.data(), s.size()), 0);
    EXPECT_EQ(copy[s.size()], '\0');
    delete[] copy;
  }
}

TEST(StringToInt, ParsesLeadingDecimalAndClamps) {
  const std::pair<std::string, int> cases[] = {
      {"0042", 42},
      {"  -7", -7},
      {"+15", 15},
      {"\t 3", 3},
      {"12abc", 12},
      {"", 0},
      {"- 5", 0},
      {"2147483647", INT_MAX},
      {"2147483648", INT_MAX},
      {"99999999999999999999999", INT_MAX},
      {"-2147483648", INT_MIN},
      {"-2147483649", INT_MIN},
      {"-99999999999999999999999", INT_MIN},
  };
  for (const auto& [text, value] : cases) {
    EXPECT_EQ(tovUtils::stringToInt(text), value) << text;
  }
}

TEST(IntToString, PlainOrZeroPadded) {
  const std::tuple<int, unsigned, std::string> cases[] = {
      {0, 0, "0"},    {-12, 0, "-12"},
      {7, 3, "007"},  {INT_MIN, 0, "-2147483648"},
      {-5, 3, "-05"}, {12345, 3, "12345"},
  };
  for (const auto& [n, width, text] : cases) {
    EXPECT_EQ(tovUtils::intToString(n, width), text) << n << "/" << width;
  }
  EXPECT_EQ(tovUtils::intToString(1, UINT_MAX).size(), 255u);
}

TEST(GetTimeStr, LocalTimeOrNotAvailable) {
  setenv("TZ", "UTC", 1);
  tzset();
  EXPECT_EQ(tovUtils::getTimeStr(1700000000), "2023-11-14 22:13:20");
  EXPECT_EQ(tovUtils::getTimeStr(0), "<n/a>");
  EXPECT_EQ(tovUtils::getTimeStr(-1), "<n/a>");
}

}  // namespace
