// Diagnostics object: result codes, debug level, where lines go and how they
// look, and the log file.
#include <fcntl.h>
#include <sys/stat.h>
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
#include "tovapi/internal_secrets.h"
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
    unsetenv("TOVAPI_SHOW_SECRETS");
    tov1::secrets::forgetAll();
    std::remove(path_.c_str());
  }
  // Log lines without their time stamps.
  std::vector<std::string> loggedTexts() {
    std::vector<std::string> texts;
    for (const std::string& line : logLines()) texts.push_back(line.substr(20));
    return texts;
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

// The authentication helper remembers the password digests it produces;
// anyone who reads one can command the daemon.
TEST_F(DebugLogTest, RememberedSecretsAreBlankedInShownAndLoggedLines) {
  const std::string digest =
      "2bb80d537b1da3e38bd30361aa855686bde0eacd7162fef6a25fe97bf527a25b";
  tov1::secrets::remember(digest);
  tov1::secrets::remember("admin");  // too short to be blanked
  setenv("TOVAPI_LOG", path_.c_str(), 1);
  Debug local;
  const struct {
    unsigned level;
    const char* showSecrets;  // TOVAPI_SHOW_SECRETS, nullptr: unset
    bool blanked;
  } cases[] = {
      {1, nullptr, true}, {2, nullptr, true}, {3, nullptr, true},
      {3, "yes", true},   {3, "1", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.level) + "/" +
                 (c.showSecrets ? c.showSecrets : "unset"));
    if (c.showSecrets)
      setenv("TOVAPI_SHOW_SECRETS", c.showSecrets, 1);
    else
      unsetenv("TOVAPI_SHOW_SECRETS");
    tovDebug.setDebugLevel(c.level);
    std::ofstream(path_, std::ios::trunc).flush();  // the log appends

    std::ostringstream trace, failure;
    trace << "authvec  = admin, " << digest << "\n";
    failure << "key " << digest << digest << "\n";
    std::runtime_error e("digest " + digest);
    CerrCapture cap;
    local.write(trace);
    local.error("Auth()", failure);
    local.except("Auth()", e);

    const std::string d = c.blanked ? tov1::secrets::kRedacted : digest;
    EXPECT_EQ(cap.text(), "authvec  = admin, " + d + "\nAuth(): key " + d + d +
                              "\nAuth(): digest " + d + "\n");
    EXPECT_EQ(loggedTexts(),
              (std::vector<std::string>{"T authvec  = admin, " + d,
                                        "E Auth(): key " + d + d,
                                        "E Auth(): digest " + d}));
  }
}

TEST(Secrets, TheLatestDistinctValuesAreKept) {
  tov1::secrets::forgetAll();
  EXPECT_FALSE(tov1::secrets::any());
  auto value = [](int i) { return "secret-value-" + std::to_string(1000 + i); };
  for (int i = 0; i <= static_cast<int>(tov1::secrets::kCapacity); ++i) {
    tov1::secrets::remember(value(i));
    tov1::secrets::remember(value(1));  // refreshed: outlives value(0)
  }
  std::string text = value(0) + " " + value(1) + " " + value(64);
  EXPECT_TRUE(tov1::secrets::redact(text));
  EXPECT_EQ(text, value(0) + " <redacted> <redacted>");
  tov1::secrets::forgetAll();
  EXPECT_FALSE(tov1::secrets::redact(text));
}

// Whether every descriptor of this process open on `file` is close-on-exec.
bool logClosedOnExec(const struct stat& file) {
  bool seen = false;
  for (int fd = 0; fd < 1024; ++fd) {
    struct stat st {};
    if (fstat(fd, &st) != 0 || st.st_ino != file.st_ino ||
        st.st_dev != file.st_dev)
      continue;
    seen = true;
    if ((fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) return false;
  }
  return seen;
}

// Log lines name hosts and show requests: the file is the owner's alone.
TEST_F(DebugLogTest, LogIsCreatedForTheOwnerAndAnOpenOneIsReported) {
  const mode_t oldMask = umask(0);
  const struct {
    int existing;  // -1: no file yet
    mode_t after;
    const char* warning;  // nullptr: none
  } cases[] = {
      {-1, 0600, nullptr},
      {0600, 0600, nullptr},
      {0644, 0644, "is readable by others (mode 0644)"},
      {0620, 0620, "is writable by others (mode 0620)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.existing);
    std::remove(path_.c_str());
    if (c.existing >= 0) {
      const int fd = open(path_.c_str(), O_CREAT | O_WRONLY, 0600);
      ASSERT_GE(fd, 0);
      ASSERT_EQ(fchmod(fd, static_cast<mode_t>(c.existing)), 0);
      close(fd);
    }
    setenv("TOVAPI_LOG", path_.c_str(), 1);
    CerrCapture cap;
    Debug local;
    std::ostringstream os;
    os << "still logged\n";
    local.error("Here()", os);

    struct stat st {};
    ASSERT_EQ(stat(path_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, c.after);
    EXPECT_TRUE(logClosedOnExec(st)) << "programs started later inherit it";
    if (c.warning) {
      EXPECT_EQ(cap.text().find("Debug::_initialChecks(): log file \"" + path_ +
                                "\" named by TOVAPI_LOG " + c.warning),
                0u)
          << cap.text();
    } else {
      EXPECT_EQ(cap.text(), "Here(): still logged\n");
    }
    EXPECT_EQ(loggedTexts(),
              std::vector<std::string>{"E Here(): still logged"});
  }
  umask(oldMask);
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
