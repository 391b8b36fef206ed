// tovctl against daemons and answers that misbehave on purpose, and at a
// terminal: every command ends by its deadline, what the network sends never
// drives the terminal or breaks the output, and secrets stay hidden.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "run_tool.h"
#include "support/sim.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using tovctltest::linesOf;
using tovctltest::Outcome;
using tovctltest::RunOptions;
using tovctltest::runTovctl;

constexpr int kDeadlineStatus = 98;
constexpr double kDeadline = 2;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// A cluster whose names carry what a terminal would act on (a title change,
// a screen clear) and a byte that is not UTF-8. The simulator decodes \xNN.
const char* const kHostileConfig = R"({
  "cluster": {"name": "evil\\x1b]0;pwned\\x07", "poll_time": 1},
  "services": [
    {"name": "caf\\xe9", "state": "running", "mode": "auto"},
    {"name": "db\\x1b[2J", "state": "stopped", "mode": "manual"}],
  "users": [{"user": "admin", "password": "secret"}]
})";

class Hostile : public testing::Test {
 protected:
  void SetUp() override {
    char templ[] = "/tmp/tovctl-hostile-XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    dir_ = templ;
    password_ = dir_ + "/pw";
    std::ofstream(password_) << "secret\n";
    chmod(password_.c_str(), 0600);
  }
  void TearDown() override {
    sim_.reset();
    for (const char* f : {"/pw", "/log"}) std::remove((dir_ + f).c_str());
    rmdir(dir_.c_str());
  }

  void startSim(std::vector<std::string> extra,
                std::string config = simtest::defaultConfigJson()) {
    simtest::SimOptions o;
    o.configJson = std::move(config);
    o.extraArgs = std::move(extra);
    o.maxLifetimeSec = 60;
    sim_ = std::make_unique<simtest::SimProcess>(o);
  }
  std::string at() const { return "127.0.0.1:" + sim_->portStr(); }

  Outcome tool(std::vector<std::string> args, RunOptions opts = {}) {
    args.insert(args.begin(), {"-p", sim_->portStr()});
    return runTovctl(args, opts);
  }
  std::vector<std::string> admin() const {
    return {"-u", "admin", "--password-file", password_};
  }

  std::string dir_;
  std::string password_;
  std::unique_ptr<simtest::SimProcess> sim_;
};

// At a terminal, without colour: no escape sequence of tovctl's own.
RunOptions atTerminal(const std::string& waitFor = "",
                      const std::string& type = "") {
  RunOptions o;
  o.terminal = true;
  o.waitFor = waitFor;
  o.type = type;
  o.env = {"NO_COLOR=1"};
  o.limitSec = 10;
  return o;
}

std::string sha256Hex(const std::string& text) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned length = 0;
  EVP_Digest(text.data(), text.size(), md, &length, EVP_sha256(), nullptr);
  std::ostringstream hex;
  for (unsigned i = 0; i < length; ++i) {
    static const char kDigits[] = "0123456789abcdef";
    hex << kDigits[md[i] >> 4] << kDigits[md[i] & 15];
  }
  return hex.str();
}

TEST_F(Hostile, EveryWaitEndsByTheDeadline) {
  struct Case {
    std::vector<std::string> sim;
    std::vector<std::string> args;
    std::string waiting;  // what the line says was awaited
  };
  const std::vector<std::string> stall{"--reply-delay", "600000"};
  const std::vector<std::string> dribble{"--pad-to", "4000",          "--chunk",
                                         "1",        "--chunk-pause", "1000"};
  const std::vector<Case> cases{
      {stall, {"probe"}, "awaiting the reply from "},
      {stall, {"services"}, "awaiting the reply from "},
      {stall, {"send", "V 0"}, "awaiting the reply from "},
      {dribble, {"info"}, "awaiting the reply from "},
      // The cache keeps the retry's wait to a minute; the deadline ends it.
      {{"--busy", "1000000", "--poll-time", "2147483647"},
       {"-a", "1", "bounce", "web"},
       "waiting to retry the busy daemon at "},
  };
  for (const Case& c : cases) {
    startSim(c.sim);
    std::vector<std::string> args = admin();
    args.insert(args.end(), {"--json", "--deadline", "2"});
    args.insert(args.end(), c.args.begin(), c.args.end());
    const Outcome r = tool(args);
    SCOPED_TRACE(c.args.back());
    EXPECT_EQ(r.status, kDeadlineStatus) << r.err;
    EXPECT_LT(r.seconds, kDeadline + 1);
    const std::vector<std::string> lines = linesOf(r.err);
    ASSERT_EQ(lines.size(), 1u) << r.err;
    EXPECT_THAT(lines[0], HasSubstr(" failed: deadline of 2 s expired while " +
                                    c.waiting + at()));
    const json doc = json::parse(r.out, nullptr, false);
    ASSERT_TRUE(doc.is_object()) << r.out;
    const json error = doc["error"];
    EXPECT_EQ(error["exit_status"], kDeadlineStatus);
    EXPECT_EQ(error["deadline"], kDeadline);
    EXPECT_EQ(error["host"], "127.0.0.1");
  }
}

TEST_F(Hostile, DiscoverySkipsOnlyTheMalformedAnswer) {
  // One probe, three answers: the node's own, one whose node line is short,
  // and one with bytes that are not text. Only the second is lost.
  const std::string bad =
      "C broken 1 0 deadbeef -1 0 0 1 0 0 m1 d1\\nN shortnode";
  const std::string odd =
      "C caf\\xe9\\x1b[2J 1 0 cafecafe -1 0 0 1 0 0 m2 d2\\nN n2 127.0.3.9 4";
  simtest::SimOptions o;
  o.configJson = simtest::defaultConfigJson();
  o.listen = {"127.0.3.2"};
  o.udpPort = 1195;
  o.maxLifetimeSec = 60;
  o.extraArgs = {"--udp-answer", "-", "--udp-answer", bad, "--udp-answer", odd};
  try {
    sim_ = std::make_unique<simtest::SimProcess>(o);
  } catch (const std::exception& e) {
    GTEST_SKIP() << "UDP port 1195 on 127.0.3.2 is not available: " << e.what();
  }
  const std::string warning =
      "tovctl: warning: skipped the answer from 127.0.3.2: node line 1 of "
      "cluster broken has 2 field(s), at least 3 needed";

  Outcome r = runTovctl({"discover", "127.0.3.2"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(linesOf(r.err), std::vector<std::string>{warning});
  EXPECT_THAT(r.out, HasSubstr(" Cluster Name : testcluster\n"));
  EXPECT_THAT(r.out, HasSubstr(" Cluster Name : caf\xe9\x1b[2J\n"));
  EXPECT_THAT(r.out, HasSubstr("  [1] n2 [127.0.3.9]"));
  EXPECT_THAT(r.out, HasSubstr(" Found 2 cluster(s)\n"));

  r = runTovctl({"discover", "127.0.3.2"}, atTerminal());
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.out, HasSubstr(" Cluster Name : caf\\xe9\\x1b[2J"));
  EXPECT_EQ(r.out.find("\x1b["), std::string::npos) << "raw escape shown";

  r = runTovctl({"--json", "discover", "127.0.3.2"});
  EXPECT_EQ(r.status, 0);
  const json j = json::parse(r.out);
  EXPECT_EQ(j["count"], 2);
  EXPECT_EQ(j["clusters"][1]["name"], "caf\xEF\xBF\xBD\x1b[2J");
  EXPECT_EQ(j["clusters"][1]["sender"], "127.0.3.2");
  EXPECT_EQ(j["skipped"][0]["sender"], "127.0.3.2");

  // The library's raw report: every line as it came, the short one too.
  r = runTovctl({"discover", "--raw", "127.0.3.2"});
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.out, HasSubstr("\n\nC broken 1 0 deadbeef -1 0 0 1 0 0 m1 d1\n"
                               "N shortnode\n"));
  EXPECT_THAT(r.out, HasSubstr("\n\nC caf\xe9\x1b[2J 1 0 cafecafe -1 0 0 1 0 "
                               "0 m2 d2\nN n2 127.0.3.9 4\n"));
  EXPECT_THAT(r.out, HasSubstr(" Found 3 cluster(s)\n"));
}

TEST_F(Hostile, DaemonTextNeverDrivesTheTerminal) {
  startSim({}, kHostileConfig);
  // Piped: the exact bytes.
  Outcome r = tool({"services"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("caf\xe9 "));
  EXPECT_THAT(r.out, HasSubstr("db\x1b[2J "));

  // At a terminal: escaped, and the columns still line up.
  r = tool({"services"}, atTerminal());
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.out, HasSubstr("0      caf\\xe9    running"));
  EXPECT_THAT(r.out, HasSubstr("1      db\\x1b[2J  stopped"));
  r = tool({"info"}, atTerminal());
  EXPECT_THAT(r.out, HasSubstr("evil\\x1b]0;pwned\\x07"));
  EXPECT_EQ(r.out.find('\x1b'), std::string::npos) << r.out;
  EXPECT_EQ(r.out.find('\x07'), std::string::npos);

  // JSON never fails on bytes: the Latin-1 byte becomes U+FFFD.
  r = tool({"--json", "services"});
  ASSERT_EQ(r.status, 0) << r.err;
  const json j = json::parse(r.out);
  EXPECT_EQ(j["services"][0]["name"], "caf\xEF\xBF\xBD");
  EXPECT_EQ(j["services"][1]["name"], "db\x1b[2J");

  // A daemon's text in an error line is escaped too: one line, always.
  r = tool({"bounce", "nosuch"});
  EXPECT_EQ(r.status, 100);
  EXPECT_EQ(linesOf(r.err).size(), 1u);
  EXPECT_THAT(r.err, HasSubstr("(services: caf\\xe9, db\\x1b[2J)"));
}

TEST_F(Hostile, ProbeSurvivesAnExceptionInTheRefresh) {
  if (kSanitized) {
    GTEST_SKIP() << "an address-space limit cannot be combined with the "
                    "sanitizers' shadow memory";
  }
  // An information reply too large for the memory the probe may use: the
  // refresh throws std::bad_alloc out of the probe.
  startSim({"--pad-to", "100000000"});
  for (const char* level : {"0", "1", "3"}) {
    RunOptions limited;
    limited.addressSpaceKb = 250000;
    const Outcome r = tool({"-d", level, "probe"}, limited);
    SCOPED_TRACE(level);
    EXPECT_EQ(r.status, 39) << r.err;
    EXPECT_EQ(r.signal, 0);
    ASSERT_FALSE(r.err.empty());
    // At level 3 the library's objects still say goodbye after it.
    EXPECT_THAT(linesOf(r.err),
                testing::Contains(
                    StartsWith("tovctl: probe of " + at() +
                               " failed: exception while collecting cluster "
                               "information (TOV_EXCEPT_ALLINFO, code 39); "
                               "reading the cluster information threw: ")));
  }
}

TEST_F(Hostile, SecretsStayHiddenUnlessAskedFor) {
  startSim({});
  const std::string digest = sha256Hex("secret");
  const std::string log = dir_ + "/log";
  std::vector<std::string> args = admin();
  args.insert(args.end(), {"-d", "3", "bounce", "web"});
  RunOptions logged;
  logged.env = {"TOVAPI_LOG=" + log};
  Outcome r = tool(args, logged);
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.err, HasSubstr("<redacted>"));
  EXPECT_THAT(r.err, Not(HasSubstr(digest)));
  std::ifstream in(log);
  const std::string text((std::istreambuf_iterator<char>(in)),
                         std::istreambuf_iterator<char>());
  EXPECT_THAT(text, HasSubstr("<redacted>"));
  EXPECT_THAT(text, Not(HasSubstr(digest)));
  struct stat st {};
  ASSERT_EQ(stat(log.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  args.insert(args.begin(), "--show-secrets");
  r = tool(args);
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.err, HasSubstr(digest));
  EXPECT_THAT(r.err, HasSubstr("tovctl: warning: --show-secrets"));
}

TEST_F(Hostile, TerminalPromptsEndCleanly) {
  struct Case {
    std::vector<std::string> args;
    std::string prompt;
    std::string type;
    int status;  // -1: ended by SIGINT
    std::string shows;
  };
  const std::vector<Case> cases{
      {{"-u", "admin", "bounce", "web"}, "Password for admin", "\x03", -1, ""},
      {{"-u", "admin", "bounce", "web"},
       "Password for admin",
       "\n",
       100,
       "no password for user admin"},
      {{"--password-file", "PW", "-u", "admin", "halt"},
       "[y/N]",
       "n\n",
       9,
       "not confirmed, nothing was sent"},
      {{"--password-file", "PW", "-u", "admin", "shutdown"},
       "[y/N]",
       "y\n",
       0,
       "ok: shutdown of the daemon"},
  };
  for (const Case& c : cases) {
    startSim({});
    std::vector<std::string> args = c.args;
    for (std::string& a : args) {
      if (a == "PW") a = password_;
    }
    const Outcome r = tool(args, atTerminal(c.prompt, c.type));
    SCOPED_TRACE(c.args.back() + " answered " + c.type);
    EXPECT_EQ(r.status, c.status) << r.out;
    if (c.status < 0) {
      EXPECT_EQ(r.signal, SIGINT);
    }
    EXPECT_TRUE(r.echoOn) << "the terminal was left without echo";
    EXPECT_THAT(r.out, HasSubstr(c.shows));
    if (c.status != 0) {
      EXPECT_TRUE(sim_->running()) << "nothing was sent";
    }
  }
}

}  // namespace
