// Diagnostics object: result codes, debug level, where lines go and how they
// look, and the log file.
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture.h"
#include "tovapi/libtovapi.h"

namespace {

constexpr int kCodeCount = tov1::TOV_ERR_COUNT;
constexpr int kDbgLvl = tov1::TOV_CLI_DBGLVL;

using tov1::Debug;
using tov1::tov_error_enum;
using tov1::tovDebug;

class DebugTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tovDebug.setDebugLevel(0);
    Debug::useColour = false;
  }
  DiagState restore_;
};

TEST_F(DebugTest, SetErrorRecordsCodeAndReturnsItNegated) {
  for (int code = 0; code <= kCodeCount; ++code) {
    SCOPED_TRACE(code);
    int result = tovDebug.setError(static_cast<tov_error_enum>(code));
    EXPECT_EQ(result, -code);
    EXPECT_EQ(tovDebug.getError(), code);
    if (code != 0) {
      EXPECT_LT(result, 0);
    }
  }
}

TEST_F(DebugTest, DebugLevelAcceptsZeroToThreeOnly) {
  for (unsigned level : {0u, 1u, 2u, 3u}) {
    EXPECT_EQ(tovDebug.setDebugLevel(level), 0);
    EXPECT_EQ(tovDebug.getDebugLevel(), static_cast<int>(level));
  }
  tovDebug.setDebugLevel(2);
  for (unsigned level : {4u, 100u, UINT_MAX}) {
    SCOPED_TRACE(level);
    tovDebug.setError(tov1::TOV_OK);
    EXPECT_EQ(tovDebug.setDebugLevel(level), -kDbgLvl);
    EXPECT_EQ(tovDebug.getError(), kDbgLvl);
    EXPECT_EQ(tovDebug.getDebugLevel(), 2);
  }
}

TEST_F(DebugTest, WriteShowsLinesOnlyAboveLevelZero) {
  for (unsigned level = 0; level <= 3; ++level) {
    SCOPED_TRACE(level);
    tovDebug.setDebugLevel(level);
    std::ostringstream os;
    os << "TOVNet::connectTimeout(): called" << std::endl;
    CerrCapture cap;
    tovDebug.write(os);
    EXPECT_EQ(cap.text(),
              level == 0 ? "" : "TOVNet::connectTimeout(): called\n");
  }
}

TEST_F(DebugTest, WriteReadsBothKindsOfStringStreamAndEndsTheLine) {
  tovDebug.setDebugLevel(1);
  std::stringstream ss;
  ss << "from a stringstream\n";
  std::ostringstream unterminated;
  unterminated << "no newline";
  std::ostringstream empty;
  std::ostream notAStringStream(nullptr);
  notAStringStream << "lost";

  CerrCapture cap;
  tovDebug.write(ss);
  tovDebug.write(unterminated);
  tovDebug.write(empty);
  tovDebug.write(notAStringStream);
  EXPECT_EQ(cap.text(), "from a stringstream\nno newline\n");
}

TEST_F(DebugTest, ErrorAndExceptAreShownAtLevelZeroAsLocationColonText) {
  struct Case {
    std::string location, message, expected;
  };
  const std::vector<Case> cases = {
      {"TOVNet::validateHost()", "empty host\n",
       "TOVNet::validateHost(): empty host\n"},
      {"TOVNet::tovcomms()", "no newline", "TOVNet::tovcomms(): no newline\n"},
      {"", "bare text\n", "bare text\n"},
      {"X::y()", "", "X::y(): \n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.location + "|" + c.message);
    std::ostringstream os;
    os << c.message;
    CerrCapture cap;
    tovDebug.error(c.location, os);
    EXPECT_EQ(cap.text(), c.expected);
  }
  std::runtime_error e("boom");
  CerrCapture cap;
  tovDebug.except("TOVNet::serviceCommand()", e);
  EXPECT_EQ(cap.text(), "TOVNet::serviceCommand(): boom\n");
}

TEST_F(DebugTest, ColourWrapsErrorAndWarningPrefixesOnly) {
  struct Case {
    char kind;
    std::string coloured;
  };
  const std::vector<Case> cases = {
      {'E', "\033[31mLoc():\033[0m "},
      {'W', "\033[33mLoc():\033[0m "},
      {'T', "Loc(): "},
      {'?', "Loc(): "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.kind);
    Debug::useColour = false;
    EXPECT_EQ(tovDebug.getTraceStr(c.kind, "Loc()"), "Loc(): ");
    Debug::useColour = true;
    EXPECT_EQ(tovDebug.getTraceStr(c.kind, "Loc()"), c.coloured);
    EXPECT_EQ(tovDebug.getTraceStr(c.kind, ""), "");
  }

  std::ostringstream os;
  os << "failed\n";
  CerrCapture cap;
  tovDebug.error("Loc()", os);
  EXPECT_EQ(cap.text(), "\033[31mLoc():\033[0m failed\n");
}

TEST_F(DebugTest, ErrorStringsAreDistinctAndNonEmpty) {
  std::set<std::string> seen;
  for (int code = 0; code < kCodeCount; ++code) {
    SCOPED_TRACE(code);
    std::string text =
        tovDebug.tovErrorString(static_cast<tov_error_enum>(code));
    EXPECT_FALSE(text.empty());
    EXPECT_TRUE(seen.insert(text).second) << "duplicate: " << text;
  }
  EXPECT_EQ(tovDebug.tovErrorString(tov1::TOV_OK), "success");
  EXPECT_EQ(tovDebug.tovErrorString(tov1::TOV_SOCK_TIMEOUT), "network timeout");
  EXPECT_EQ(tovDebug.tovErrorString(static_cast<tov_error_enum>(56)),
            "reserved");
  EXPECT_EQ(seen.count(tovDebug.tovErrorString(tov1::TOV_ERR_COUNT)), 0u);
  EXPECT_EQ(tovDebug.tovErrorString(static_cast<tov_error_enum>(91)),
            "unknown result code 91");
  EXPECT_EQ(tovDebug.tovErrorString(static_cast<tov_error_enum>(UINT32_MAX)),
            "unknown result code 4294967295");
}

// The log is opened when a Debug object is constructed, so these tests build
// their own object after setting TOVAPI_LOG.
class DebugLogTest : public DebugTest {
 protected:
  void SetUp() override {
    DebugTest::SetUp();
    path_ = ::testing::TempDir() + "collab_diag_log_" +
            std::to_string(getpid()) + ".log";
    std::remove(path_.c_str());
  }
  void TearDown() override {
    unsetenv("TOVAPI_LOG");
    std::remove(path_.c_str());
  }
  std::vector<std::string> logLines() {
    std::ifstream in(path_);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
  }
  std::string path_;
};

TEST_F(DebugLogTest, ShownLinesAreAppendedUncolouredWithTimestamp) {
  {
    std::ofstream earlier(path_);
    earlier << "kept\n";
  }
  setenv("TOVAPI_LOG", path_.c_str(), 1);
  Debug local;
  std::ostringstream hidden, trace, failure;
  hidden << "hidden at level 0\n";
  trace << "Part::op(): called\n";
  failure << "went wrong\n";
  Debug::useColour = true;
  {
    CerrCapture cap;
    local.write(hidden);
    tovDebug.setDebugLevel(1);
    local.write(trace);
    local.error("Part::op()", failure);
  }

  std::vector<std::string> lines = logLines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "kept");
  const std::string stamp = R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d )";
  EXPECT_TRUE(std::regex_match(lines[1],
                               std::regex(stamp + R"(T Part::op\(\): called)")))
      << lines[1];
  EXPECT_TRUE(std::regex_match(
      lines[2], std::regex(stamp + R"(E Part::op\(\): went wrong)")))
      << lines[2];
}

TEST_F(DebugLogTest, UnopenableLogIsReportedAndIgnored) {
  setenv("TOVAPI_LOG", "/nonexistent-dir-for-tovapi/x.log", 1);
  CerrCapture cap;
  Debug local;
  EXPECT_NE(cap.text().find("/nonexistent-dir-for-tovapi/x.log"),
            std::string::npos);
  std::ostringstream os;
  os << "still shown\n";
  local.error("Here()", os);
  EXPECT_NE(cap.text().find("Here(): still shown\n"), std::string::npos);
}

}  // namespace
