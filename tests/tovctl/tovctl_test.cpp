// tovctl run as a user runs it, against the simulator on loopback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "run_tool.h"
#include "support/net_helpers.h"
#include "support/sim.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;
using tovctltest::linesOf;
using tovctltest::Outcome;
using tovctltest::runTovctl;

constexpr int kUsage = 100;

using testsupport::closedPort;

// Failures must be reported in exactly one line on standard error.
void expectOneErrorLine(const Outcome& r, const std::string& fragment) {
  const std::vector<std::string> lines = linesOf(r.err);
  ASSERT_EQ(lines.size(), 1u) << "stderr:\n" << r.err;
  EXPECT_THAT(lines[0], StartsWith("tovctl: "));
  EXPECT_THAT(lines[0], HasSubstr(fragment));
}

class TovctlTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    char templ[] = "/tmp/tovctl-test-XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    dir_ = templ;
    goodPw_ = dir_ + "/good";
    badPw_ = dir_ + "/bad";
    std::ofstream(goodPw_) << "secret\n";
    std::ofstream(badPw_) << "not-the-password\n";
    // tovctl refuses a password file that others may read.
    chmod(goodPw_.c_str(), 0600);
    chmod(badPw_.c_str(), 0600);
  }
  static void TearDownTestSuite() {
    std::remove(goodPw_.c_str());
    std::remove(badPw_.c_str());
    rmdir(dir_.c_str());
  }

  void startSim(std::vector<std::string> extra = {}) {
    simtest::SimOptions o;
    o.configJson = simtest::defaultConfigJson();
    o.extraArgs = std::move(extra);
    o.maxLifetimeSec = 60;
    sim_ = std::make_unique<simtest::SimProcess>(o);
  }

  // tovctl aimed at the simulator, with the given extra global options.
  Outcome tool(std::vector<std::string> args) {
    std::vector<std::string> full{"-p", sim_->portStr()};
    full.insert(full.end(), args.begin(), args.end());
    return runTovctl(full);
  }
  Outcome admin(std::vector<std::string> args) {
    std::vector<std::string> full{"-u", "admin", "--password-file", goodPw_};
    full.insert(full.end(), args.begin(), args.end());
    return tool(full);
  }

  json servicesJson() {
    const Outcome r = tool({"--json", "services"});
    EXPECT_EQ(r.status, 0) << r.err;
    return json::parse(r.out)["services"];
  }

  static std::string dir_;
  static std::string goodPw_;
  static std::string badPw_;
  std::unique_ptr<simtest::SimProcess> sim_;
};

std::string TovctlTest::dir_;
std::string TovctlTest::goodPw_;
std::string TovctlTest::badPw_;

TEST_F(TovctlTest, RefusedConnectionExitsWithTheConnectCode) {
  const int port = closedPort();
  const Outcome r = runTovctl({"-p", std::to_string(port), "services"});
  EXPECT_EQ(r.status, 69);
  EXPECT_EQ(r.out, "");
  expectOneErrorLine(r, "127.0.0.1:" + std::to_string(port) +
                            " failed: cannot connect (TOV_SOCK_CONNECT, "
                            "code 69)");
}

TEST_F(TovctlTest, LibraryDiagnosticsAppearOnlyAboveLevelZero) {
  const int port = closedPort();
  const Outcome quiet = runTovctl({"-p", std::to_string(port), "version"});
  const Outcome loud =
      runTovctl({"-d", "1", "-p", std::to_string(port), "version"});
  EXPECT_EQ(linesOf(quiet.err).size(), 1u) << quiet.err;
  EXPECT_EQ(loud.status, 69);
  EXPECT_GT(linesOf(loud.err).size(), 1u) << loud.err;
  EXPECT_THAT(linesOf(loud.err).back(), StartsWith("tovctl: "));
}

TEST_F(TovctlTest, LateSaltBeyondTheTimeoutIsANetworkTimeout) {
  startSim({"--late-salt", "3000"});
  const Outcome r = tool({"-t", "0.2", "services"});
  EXPECT_EQ(r.status, 78);
  expectOneErrorLine(r, "network timeout (TOV_SOCK_TIMEOUT, code 78)");
}

TEST_F(TovctlTest, WrongOrMissingPasswordIsRefusedAndChangesNothing) {
  startSim();
  const Outcome wrong =
      tool({"-u", "admin", "--password-file", badPw_, "--json", "stop", "web"});
  EXPECT_EQ(wrong.status, 22);
  const json error = json::parse(wrong.out)["error"];
  EXPECT_EQ(error["code"], 22);
  EXPECT_EQ(error["name"], "TOV_COMMS_FAIL");
  EXPECT_EQ(error["exit_status"], 22);
  EXPECT_EQ(error["port"], sim_->port());
  expectOneErrorLine(
      wrong,
      "stop of service 0 (web) on 127.0.0.1:" + sim_->portStr() +
          " failed: daemon refused or failed the request (TOV_COMMS_FAIL, "
          "code 22); check user admin");

  const Outcome anonymous = tool({"stop", "web"});
  EXPECT_EQ(anonymous.status, 22);
  expectOneErrorLine(anonymous, "-u USER");

  EXPECT_EQ(servicesJson()[0]["state"], "running");
}

TEST_F(TovctlTest, UsageErrorsExitWithTheirOwnStatus) {
  startSim();
  const std::string open = dir_ + "/open";
  std::ofstream(open) << "secret\n";
  chmod(open.c_str(), 0644);
  struct Case {
    std::vector<std::string> args;
    std::string line;  // a fragment of the one line on standard error
  };
  const std::vector<Case> cases{
      {{"--bogus", "services"}, "--bogus"},
      {{"-d", "4", "services"}, "--debug"},
      {{"-a", "0", "services"}, "--attempts"},
      {{"-4", "-6", "services"}, "excludes"},
      {{"bounce"}, "service is required"},
      {{"maintenance", "web", "sideways"}, "sideways"},
      {{"--password-file", goodPw_, "services"}, "needs a user"},
      {{"-u", "admin", "--password-file", dir_ + "/missing", "stop", "web"},
       "cannot read password file"},
      {{"-u", "admin", "--password-file", open, "stop", "web"},
       "can be read by others (mode 0644); make it private with: chmod 600"},
      {{"-u", "admin", "stop", "web"}, "standard input is not a terminal"},
      {{"send", ""}, "request line is empty"},
      {{"send", "V 0\nV 1"}, "must be one line"},
      {{"log", ""}, "message is empty"},
      {{}, "subcommand is required"},
      {{"bouce", "web"}, "unknown command \"bouce\"; did you mean \"bounce\"?"},
      {{"-H", "h", "frobnicate"}, "unknown command \"frobnicate\" ("},
      {{"help", "stpo"}, "did you mean \"stop\"?"},
      {{"-t", "nan", "services"}, "\"nan\" is not a number of seconds"},
      {{"-t", "inf", "services"}, "\"inf\" is not a number of seconds"},
      {{"--deadline", "-1", "services"}, "\"-1\" is not a number of seconds"},
      {{"-H", "[::1", "services"}, "is not [ADDRESS] or [ADDRESS]:PORT"},
      {{"-H", "node1:99999", "services"}, "is not a number from 1 to 65535"},
      {{"halt"},
       "halt of the daemon on 127.0.0.1:" + sim_->portStr() +
           " needs --yes: there is no terminal to confirm on"},
      {{"codes", "TOV_NO_SUCH"}, "no result code \"TOV_NO_SUCH\""},
  };
  for (const Case& c : cases) {
    std::string shown;
    for (const auto& a : c.args) shown += " [" + a + "]";
    for (const bool asJson : {false, true}) {
      std::vector<std::string> args = c.args;
      if (asJson) args.insert(args.begin(), "--json");
      const Outcome r = tool(args);
      EXPECT_EQ(r.status, kUsage) << shown << "\n" << r.err;
      expectOneErrorLine(r, c.line);
      if (!asJson) {
        EXPECT_EQ(r.out, "") << shown;
        continue;
      }
      // Scripts get one document, also for a command line they got wrong.
      const json error = json::parse(r.out)["error"];
      EXPECT_EQ(error["exit_status"], kUsage) << shown;
      EXPECT_EQ("tovctl: " + error["message"].get<std::string>(),
                linesOf(r.err).at(0));
    }
  }
  EXPECT_EQ(servicesJson()[0]["state"], "running") << "halt was not sent";
}

TEST_F(TovctlTest, HostPortHelpAndCodes) {
  startSim();
  const std::string refused = std::to_string(closedPort());
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string text;  // the start of standard output, or the error line
  };
  const std::vector<Case> cases{
      {{"-H", "127.0.0.1:" + sim_->portStr(), "-p", "1", "probe"},
       0,
       "127.0.0.1:" + sim_->portStr() + " answers"},
      {{"-p", "1", "probe", "127.0.0.1:" + sim_->portStr()},
       0,
       "127.0.0.1:" + sim_->portStr() + " answers"},
      {{"-H", "[::1]:" + refused, "services"},
       69,
       "tovctl: reading the service list from [::1]:" + refused +
           " failed: cannot connect"},
      {{"-H", "[::1]", "-p", refused, "services"},
       69,
       "tovctl: reading the service list from [::1]:" + refused},
      {{"help"}, 0, "tovctl - control the tovmon daemons"},
      {{"help", "bounce"}, 0, "stop the service and start it again"},
      {{"codes", "22"},
       0,
       "22  TOV_COMMS_FAIL  daemon refused or failed the request\n"},
      {{"codes", "TOV_SOCK_TIMEOUT"}, 0, "78  TOV_SOCK_TIMEOUT"},
  };
  for (const Case& c : cases) {
    const Outcome r = runTovctl(c.args);
    EXPECT_EQ(r.status, c.status) << c.args.back() << "\n" << r.err;
    EXPECT_THAT(c.status == 0 ? r.out : r.err, StartsWith(c.text));
  }
}

TEST_F(TovctlTest, UnknownServiceNameIsAUsageErrorListingTheNames) {
  startSim();
  const Outcome r = admin({"bounce", "mail"});
  EXPECT_EQ(r.status, kUsage);
  expectOneErrorLine(r, "no service named \"mail\" on 127.0.0.1:" +
                            sim_->portStr() + " (services: web, db)");
}

TEST_F(TovctlTest, ServiceNumberBeyondTheClusterIsRefusedByTheLibrary) {
  startSim();
  const Outcome r = admin({"bounce", "2"});
  EXPECT_EQ(r.status, 81);
  expectOneErrorLine(r, "(TOV_SVC_INVALID, code 81)");
}

TEST_F(TovctlTest, StopStartAndBounceByNameChangeTheServiceState) {
  startSim();
  Outcome r = admin({"stop", "web"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "ok: stop of service 0 (web) on 127.0.0.1:" +
                       sim_->portStr() + "\n");
  json web = servicesJson()[0];
  EXPECT_EQ(web["state"], "stopped");
  EXPECT_EQ(web["mode"], "manual");
  EXPECT_TRUE(web["node"].is_null());

  r = admin({"stop", "web"});
  EXPECT_EQ(r.status, 20) << "already stopped";
  expectOneErrorLine(r, "(TOV_COMMS_ALREADY, code 20)");

  r = admin({"start", "web"});
  ASSERT_EQ(r.status, 0) << r.err;
  web = servicesJson()[0];
  EXPECT_EQ(web["state"], "running");
  EXPECT_EQ(web["mode"], "auto");
  EXPECT_EQ(web["node"], "node1");

  r = admin({"--json", "bounce", "web"});
  ASSERT_EQ(r.status, 0) << r.err;
  const json out = json::parse(r.out);
  EXPECT_EQ(out["command"], "bounce");
  EXPECT_EQ(out["service"]["index"], 0);
  EXPECT_EQ(out["service"]["name"], "web");

  r = admin({"block", "1"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(servicesJson()[1]["blocked"], true);
}

TEST_F(TovctlTest, ServicesTableShowsEveryColumn) {
  startSim();
  const Outcome r = tool({"services"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out,
            "INDEX  NAME  STATE    MODE    BLOCKED  NODE\n"
            "0      web   running  auto    no       node1\n"
            "1      db    stopped  manual  no       -\n");
}

TEST_F(TovctlTest, InfoJsonHoldsTheClusterRecordAndNodes) {
  startSim();
  const Outcome r = tool({"info", "--json"});
  ASSERT_EQ(r.status, 0) << r.err;
  const json j = json::parse(r.out);
  EXPECT_EQ(j["cluster"]["name"], "testcluster");
  EXPECT_EQ(j["cluster"]["service_count"], 2);
  EXPECT_EQ(j["cluster"]["poll_time"], 1);
  EXPECT_TRUE(j["cluster"]["serial"].is_null()) << "serial -1 means none";
  EXPECT_EQ(j["cluster"]["bootstrap"], false);
  ASSERT_EQ(j["nodes"].size(), 1u);
  EXPECT_EQ(j["nodes"][0]["address"], "127.0.0.1");
  EXPECT_EQ(j["nodes"][0]["family"], 4);
  EXPECT_EQ(j["daemon"]["protocol"], "2.2");
}

TEST_F(TovctlTest, VersionAndRawRequest) {
  startSim();
  Outcome r = tool({"version"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, StartsWith("daemon version "));
  EXPECT_THAT(r.out, HasSubstr(", protocol 2.2\n"));

  r = tool({"send", "V 0"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, StartsWith("Vn "));
  EXPECT_THAT(r.out, HasSubstr("\nV "));

  // A refused raw request still shows the reply, then the one error line.
  r = tool({"send", "A 0"});
  EXPECT_EQ(r.status, 19);
  EXPECT_EQ(r.out, "Au unknown request\n");
  expectOneErrorLine(r, "the daemon says \"unknown request\"");
}

TEST_F(TovctlTest, LogEchoesTheRequestLine) {
  startSim();
  const Outcome r = admin({"log", "-s", "db", "disk", "replaced"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr(": Y 1 disk replaced\n"));
}

TEST_F(TovctlTest, BusyDaemonIsRetriedOnlyAsOftenAsAllowed) {
  startSim({"--busy", "1", "--fault-letter", "V"});
  Outcome r = tool({"-a", "1", "version"});
  EXPECT_EQ(r.status, 26);
  expectOneErrorLine(r, "daemon busy (TOV_COMMS_BUSY, code 26)");
  // The one busy answer is used up: the next request goes through.
  r = tool({"-a", "1", "version"});
  EXPECT_EQ(r.status, 0) << r.err;
}

TEST_F(TovctlTest, CheckPasswordAndProbe) {
  startSim();
  Outcome r = admin({"check-password"});
  EXPECT_EQ(r.status, 0) << r.err;
  r = tool({"-u", "admin", "--password-file", badPw_, "check-password"});
  EXPECT_EQ(r.status, 22);
  r = tool({"probe"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("answers (cluster testcluster)"));
}

TEST_F(TovctlTest, CodesListsEveryCodeOnceWithDistinctTexts) {
  Outcome r = runTovctl({"codes"});
  ASSERT_EQ(r.status, 0);
  EXPECT_THAT(r.out, HasSubstr("\n  22  TOV_COMMS_FAIL "));
  EXPECT_THAT(r.out, HasSubstr("\n  56  -  "));
  EXPECT_THAT(r.out, HasSubstr("100    usage error"));

  r = runTovctl({"--json", "codes"});
  ASSERT_EQ(r.status, 0);
  const json j = json::parse(r.out);
  ASSERT_EQ(j["codes"].size(), 90u);
  std::set<std::string> texts;
  for (std::size_t c = 0; c < 90; ++c) {
    EXPECT_EQ(j["codes"][c]["code"], c);
    texts.insert(j["codes"][c]["text"].get<std::string>());
  }
  EXPECT_EQ(texts.size(), 90u);
  EXPECT_TRUE(j["codes"][56]["name"].is_null());
  EXPECT_EQ(j["exit_status"]["usage"], kUsage);
}

TEST_F(TovctlTest, AddressesWithoutADaemon) {
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;
  };
  const std::vector<Case> cases{
      {{"resolve", "127.0.0.1"}, 0, "127.0.0.1\n"},
      {{"family", "::1"}, 0, "6\n"},
      {{"family", "127.0.0.1"}, 0, "4\n"},
      {{"resolve", "bad..host"}, 74, ""},
  };
  for (const Case& c : cases) {
    const Outcome r = runTovctl(c.args);
    EXPECT_EQ(r.status, c.status) << c.args[1] << "\n" << r.err;
    EXPECT_EQ(r.out, c.out) << c.args[1];
  }
}

TEST_F(TovctlTest, DiscoverAtOneLoopbackHost) {
  simtest::SimOptions o;
  o.configJson = simtest::defaultConfigJson();
  o.listen = {"127.0.3.1"};
  o.udpPort = 1195;
  o.maxLifetimeSec = 30;
  std::unique_ptr<simtest::SimProcess> sim;
  try {
    sim = std::make_unique<simtest::SimProcess>(o);
  } catch (const std::exception& e) {
    GTEST_SKIP() << "UDP port 1195 on 127.0.3.1 is not available: " << e.what();
  }
  const Outcome r =
      runTovctl({"--json", "discover", "--clusters", "127.0.3.1"});
  ASSERT_EQ(r.status, 0) << r.err;
  const json j = json::parse(r.out);
  EXPECT_EQ(j["mode"], "clusters");
  ASSERT_EQ(j["count"], 1);
  EXPECT_EQ(j["clusters"][0]["name"], "testcluster");
  EXPECT_EQ(j["clusters"][0]["nodes"][0]["name"], "node1");
}

}  // namespace
