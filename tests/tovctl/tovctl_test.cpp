// tovctl run as a user runs it, against the simulator on loopback (`status`
// and its live view: watch_test.cpp).
#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <regex>

#include "tovctl_fixture.h"

namespace {

using namespace tovctltest;

TEST_F(Tovctl, AddressesHelpAndCodes) {
  const std::string port = std::to_string(testsupport::closedPort());
  const std::string list = "tovctl: reading the service list from [::1]:";
  struct Case {
    Args args;
    int status;
    std::string text;  // the start of the output (all of it if it ends a
                       // line), or of the error line
  };
  const std::vector<Case> cases{
      {{"-H", at(), "-p", "1", "probe"}, 0, at() + " answers"},
      {{"-p", "1", "probe", at()}, 0, at() + " answers"},
      {{"-H", "[::1]:" + port, "services"}, 69, list + port + " failed: "},
      {{"-H", "[::1]", "-p", port, "services"}, 69, list + port},
      {{"help"}, 0, "tovctl - control the tovmon daemons"},
      {{"help", "bounce"}, 0, "stop the service and start it again"},
      {{"codes", "22"}, 0, "22  TOV_COMMS_FAIL  daemon refused or failed"},
      {{"codes", "TOV_SOCK_TIMEOUT"}, 0, "78  TOV_SOCK_TIMEOUT"},
      // The one code without a name: no call reports it, so it is unexpected.
      {{"codes", "56"},
       0,
       "56  -  reserved\ntovctl exits with status 99 when the library "
       "reports this code.\n"},
      {{"resolve", "127.0.0.1"}, 0, "127.0.0.1\n"},
      {{"family", "::1"}, 0, "6\n"},
      {{"family", "127.0.0.1"}, 0, "4\n"},
      {{"resolve", testsupport::kUnresolvable}, 74, "tovctl: "},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    const Outcome r = runTovctl(c.args);
    EXPECT_EQ(r.status, c.status) << r.err;
    EXPECT_THAT(c.status == 0 ? r.out : r.err, StartsWith(c.text));
    if (c.status != 0) {
      EXPECT_EQ(r.out, "");
      expectOneErrorLine(r, c.text);
    } else if (c.text.back() == '\n') {
      EXPECT_EQ(r.out, c.text);
    }
  }
  // Code 56 has no name in the listings either.
  EXPECT_THAT(runTovctl({"codes"}).out, HasSubstr("\n  56  -  "));
  EXPECT_EQ(json::parse(runTovctl({"--json", "codes"}).out)["codes"][56],
            json::parse(R"({"code": 56, "name": null, "text": "reserved"})"));
  // Above level 0, the library's diagnostics come before the one line.
  const Outcome loud = runTovctl({"-d", "1", "-p", port, "version"});
  EXPECT_EQ(loud.status, 69);
  EXPECT_GT(linesOf(loud.err).size(), 1u) << loud.err;
  EXPECT_THAT(linesOf(loud.err).back(), StartsWith("tovctl: "));
}

// Also as --json: scripts get one document, for wrong command lines too.
TEST_F(Tovctl, ErrorsExitWithTheirStatusAndChangeNothing) {
  struct Case {
    Args args;
    std::string line;  // a fragment of the one line on standard error
    int status = kUsage;
  };
  const std::vector<Case> cases{
      {{"--bogus", "services"}, "--bogus"},
      {{"-d", "4", "services"}, "--debug"},
      {{"-a", "0", "services"}, "--attempts"},
      {{"-4", "-6", "services"}, "excludes"},
      {{"bounce"}, "service is required"},
      {{"maintenance", "web", "sideways"}, "sideways"},
      {{"--password-file", pw("good"), "services"}, "needs a user"},
      {admin({"stop", "web"}, "missing"), "cannot read password file"},
      {admin({"stop", "web"}, "open"),
       "can be read by others (mode 0644); make it private with: chmod 600"},
      {{"-u", "admin", "stop", "web"}, "standard input is not a terminal"},
      {admin({"bounce", "mail"}),
       "no service named \"mail\" on " + at() + " (services: web, db)"},
      {{"send", ""}, "request line is empty"},
      {{"send", "V 0\nV 1"}, "must be one line"},
      {{"log", ""}, "message is empty"},
      {{}, "subcommand is required"},
      {{"bouce", "web"}, "unknown command \"bouce\"; did you mean \"bounce\"?"},
      {{"-H", "h", "frobnicate"}, "unknown command \"frobnicate\" ("},
      {{"help", "stpo"}, "did you mean \"stop\"?"},
      {{"-H", "[::1", "services"}, "is not [ADDRESS] or [ADDRESS]:PORT"},
      {{"-H", "[::1]x", "services"}, "is not [ADDRESS] or [ADDRESS]:PORT"},
      {{"-H", "node1:99999", "services"}, "is not a number from 1 to 65535"},
      {{"halt"},
       "halt of the daemon on " + at() +
           " needs --yes: there is no terminal to confirm on"},
      {{"codes", "TOV_NO_SUCH"}, "no result code \"TOV_NO_SUCH\""},
      {{"status", "--interval", "2"}, "--interval requires --watch"},
      {{"status", "--count", "2"}, "--count requires --watch"},
      // One daemon only: not every node of the cluster.
      {{"-H", "127.0.0.1", "-H", "127.0.0.2", "--yes", "halt"},
       "exactly one -H"},
      {{"-H", "127.0.0.1", "-H", "127.0.0.2", "--yes", "shutdown"},
       "give exactly one -H"},
      {admin({"check-password"}, "bad"), "(TOV_COMMS_FAIL, code 22)", 22},
      {{"stop", "web"}, "-u USER", 22},
      {admin({"stop", "db"}), "(TOV_COMMS_ALREADY, code 20)", 20},
      {admin({"bounce", "2"}), "(TOV_SVC_INVALID, code 81)", 81},
  };
  for (const Case& c : cases) {
    for (const bool asJson : {false, true}) {
      SCOPED_TRACE(testing::PrintToString(c.args) + (asJson ? " json" : ""));
      Args args = c.args;
      if (asJson) args.insert(args.begin(), "--json");
      expectFailure(tool(args), c.status, c.line, asJson);
    }
  }
  EXPECT_EQ(services()[0]["state"], "running");
}

TEST_F(Tovctl, CommandsOnAHealthyCluster) {
  EXPECT_EQ(tool({"services"}).out,
            "INDEX  NAME  STATE    MODE    BLOCKED  NODE\n"
            "0      web   running  auto    no       node1\n"
            "1      db    stopped  manual  no       -\n");
  const Outcome r = tool(admin({"stop", "web"}));
  EXPECT_EQ(r.out, "ok: stop of service 0 (web) on " + at() + "\n") << r.err;
  expectFields(services(), R"({"/0/state": "stopped", "/0/mode": "manual",
                               "/0/node": null})");
  EXPECT_EQ(tool(admin({"start", "web"})).status, 0);
  expectFields(services(), R"({"/0/state": "running", "/0/mode": "auto",
                               "/0/node": "node1", "/1/blocked": false})");
  expectFields(json::parse(tool(admin({"--json", "bounce", "web"})).out),
               R"({"/command": "bounce", "/service/index": 0,
                   "/service/name": "web"})");
  EXPECT_EQ(tool(admin({"block", "1"})).status, 0);
  EXPECT_EQ(services()[1]["blocked"], true);
  EXPECT_THAT(tool(admin({"log", "-s", "db", "disk", "replaced"})).out,
              HasSubstr(": Y 1 disk replaced\n"));
  EXPECT_EQ(tool(admin({"check-password"})).status, 0);
  // Serial -1 means none.
  expectFields(json::parse(tool({"info", "--json"}).out), R"({
      "/cluster/name": "testcluster", "/cluster/service_count": 2,
      "/cluster/poll_time": 1, "/cluster/serial": null,
      "/cluster/bootstrap": false, "/nodes/0/address": "127.0.0.1",
      "/nodes/0/family": 4, "/nodes/1/address": null,
      "/daemon/protocol": "2.2"})");
  EXPECT_THAT(tool({"version"}).out,
              testing::MatchesRegex("daemon version .*, protocol 2\\.2\n"));
  EXPECT_THAT(tool({"send", "V 0"}).out,
              testing::AllOf(StartsWith("Vn "), HasSubstr("\nV ")));
  // A refused raw request still shows the reply, then the one error line.
  const Outcome refused = tool({"send", "A 0"});
  EXPECT_EQ(refused.status, 19);
  EXPECT_EQ(refused.out, "Au unknown request\n");
  expectOneErrorLine(refused, "the daemon says \"unknown request\"");
}

// Each case has a daemon of its own; all run at once, with a deadline of
// 2 s. (The fault matrix has bounce and send against such daemons.)
TEST_F(Tovctl, MisbehavingDaemonsEndInOneErrorLine) {
  struct Case {
    Args sim, args;
    int status;
    std::string text;  // for the deadline: what the line says was awaited
  };
  const Args busy{"--busy",     "1000000",        "--poll-time",
                  "2147483647", "--fault-letter", "V"};
  const std::string reply = "awaiting the reply from ";
  const std::string retry = "waiting to retry the busy daemon at ";
  const std::vector<Case> cases{
      {{"--reply-delay", "600000"}, {"probe"}, kLate, reply},
      // -a 2 waits the poll time (a minute at most) between the attempts.
      {busy, {"-a", "1", "version"}, 26, "busy (TOV_COMMS_BUSY, code 26)"},
      {busy, {"-a", "2", "version"}, kLate, retry},
  };
  std::vector<std::unique_ptr<simtest::SimProcess>> sims;
  for (const Case& c : cases) sims.push_back(startSim(c.sim));
  const std::vector<Outcome> outcomes = atOnce(cases.size(), [&](size_t i) {
    Args args = admin({"-p", sims[i]->portStr(), "--json", "--deadline", "2"});
    args.insert(args.end(), cases[i].args.begin(), cases[i].args.end());
    return runTovctl(args);
  });
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    const Outcome& r = outcomes[i];
    SCOPED_TRACE(testing::PrintToString(c.args));
    EXPECT_EQ(r.status, c.status) << r.err;
    const bool late = c.status == kLate;
    const std::string at = "127.0.0.1:" + sims[i]->portStr();
    expectOneErrorLine(
        r, late ? " failed: deadline of 2 s expired while " + c.text + at
                : c.text);
    json e = json::parse(r.out)["error"];
    EXPECT_EQ(json({e["exit_status"], e["host"], e["port"]}),
              json({c.status, "127.0.0.1", sims[i]->port()}));
    EXPECT_EQ(json({e["code"], e["deadline"]}),
              late ? json({nullptr, 2}) : json({c.status, nullptr}));
    // Several times the deadline, for a busy host.
    EXPECT_TRUE(!late || r.seconds < 6) << r.seconds;
  }
}

// Every path that asks a busy daemon again (the library's service command
// and the tool's own requests), one attempt short of the last and one past
// it, and the raw request that never asks again. Poll time 0: no waiting.
TEST_F(Tovctl, BusyDaemonsAreAskedAgainUpToTheAttempts) {
  struct Case {
    int busy;  // requests the daemon answers busy
    Args args;
    int status;
    std::string text;  // the start of the output, or of the error's detail
  };
  const std::string still = "; still busy after 3 attempt(s) (-a N)";
  const std::vector<Case> cases{
      {2, {"bounce", "web"}, 0, "ok: bounce of service 0 (web)"},
      {3, {"bounce", "web"}, 26, still},
      {2, {"version"}, 0, "daemon version "},
      {3, {"version"}, 26, still},
      {1, {"send", "V 0"}, 26, "; the daemon says \"daemon busy\""},
  };
  std::vector<std::unique_ptr<simtest::SimProcess>> sims;
  for (const Case& c : cases) {
    sims.push_back(
        startSim({"--busy", std::to_string(c.busy), "--poll-time", "0"}));
  }
  const std::vector<Outcome> outcomes = atOnce(cases.size(), [&](size_t i) {
    Args args = admin({"-p", sims[i]->portStr(), "-a", "3"});
    args.insert(args.end(), cases[i].args.begin(), cases[i].args.end());
    return runTovctl(args);
  });
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(testing::PrintToString(cases[i].args));
    const Outcome& r = outcomes[i];
    EXPECT_EQ(r.status, cases[i].status) << r.err;
    if (cases[i].status == 0) {
      EXPECT_THAT(r.out, StartsWith(cases[i].text));
    } else {
      expectOneErrorLine(r, "(TOV_COMMS_BUSY, code 26)" + cases[i].text);
    }
  }
}

TEST_F(Tovctl, DiscoveryKeepsAllButTheMalformedAnswer) {
  // One probe, three answers: the node's own, one whose node line is short,
  // and one with bytes that are not text. Only the second is lost.
  const std::string bad =
      "C broken 1 0 deadbeef -1 0 0 1 0 0 m1 d1\nN shortnode";
  const std::string odd =
      "C caf\xe9\x1b[2J 1 0 cafecafe -1 0 0 1 0 0 m2 d2\nN n2 127.0.3.9 4";
  try {
    sim_ = startSim(
        {"--udp-answer", "-", "--udp-answer", bad, "--udp-answer", odd},
        simtest::defaultConfigJson(), {"127.0.3.2"}, 0, 1195);
  } catch (const std::exception& e) {
    GTEST_SKIP() << "UDP port 1195 on 127.0.3.2 is not available: " << e.what();
  }
  const std::vector<std::string> runs{"", "", "--json", "--raw",
                                      "--json --clusters"};
  const std::vector<Outcome> r = atOnce(runs.size(), [&](size_t i) {
    return runTovctl(testsupport::words("discover 127.0.3.2 " + runs[i]),
                     i == 1 ? atTerminal() : RunOptions{});
  });
  for (const Outcome& each : r) EXPECT_EQ(each.status, 0) << each.err;
  EXPECT_EQ(linesOf(r[0].err),
            Args{"tovctl: warning: skipped the answer from 127.0.3.2: node "
                 "line 1 of cluster broken has 2 field(s), at least 3 needed"});
  EXPECT_THAT(r[0].out,
              testing::AllOf(HasSubstr(" Cluster Name : testcluster\n"),
                             HasSubstr(" Cluster Name : caf\xe9\x1b[2J\n"),
                             HasSubstr("  [1] n2 [127.0.3.9]"),
                             HasSubstr(" Found 2 cluster(s)\n")));
  EXPECT_THAT(r[1].out, HasSubstr(" Cluster Name : caf\\xe9\\x1b[2J"));
  EXPECT_EQ(r[1].out.find("\x1b["), std::string::npos) << "raw escape shown";
  expectFields(json::parse(r[2].out), R"({"/count": 2,
      "/clusters/1/name": "caf\ufffd\u001b[2J",
      "/clusters/1/sender": "127.0.3.2", "/skipped/0/sender": "127.0.3.2"})");
  // The library's raw report: every line as it came, the short one too.
  EXPECT_THAT(r[3].out, testing::AllOf(HasSubstr("\n\n" + bad + "\n"),
                                       HasSubstr("\n\n" + odd + "\n"),
                                       HasSubstr(" Found 3 cluster(s)\n")));
  expectFields(json::parse(r[4].out), R"({"/mode": "clusters",
      "/clusters/0/nodes/0/name": "node1"})");
}

// A 256-node cluster's answer in four datagrams of 64 node lines, as a
// daemon splits an answer too long for one, then a bootstrap machine's in
// the last: every node line is shown with the cluster line it follows, as
// the library groups them (its raw report, --raw).
TEST_F(Tovctl, DiscoveryShowsAClusterSplitOverDatagramsWhole) {
  const std::string head = "C big 256 2 cafe01 -1 0 0 1 0 0 m1 d1";
  std::string all = head, listed;
  Args sim{"--udp-answer", head};
  for (int i = 1; i <= 256; ++i) {
    const std::string name = "node" + std::to_string(i);
    const std::string addr =
        "10.0." + std::to_string(i / 100) + "." + std::to_string(i % 100);
    const std::string line = "N " + name + " " + addr + " 4";
    all += "\n" + line;
    listed += "\n  [" + std::to_string(i) + "] " + name + " [" + addr + "]";
    std::string& datagram = sim.back();
    datagram += (i % 64 == 1 && i > 1 ? "" : "\n") + line;
    if (i % 64 == 0 && i < 256) sim.insert(sim.end(), {"--udp-answer", ""});
  }
  sim.back() += "\nC boot 1 0 b007 -1 0 0 1 0 1 m2 d2\nN lone 10.9.9.9 4";
  try {
    sim_ = startSim(sim, simtest::defaultConfigJson(), {"127.0.3.3"}, 0, 1195);
  } catch (const std::exception& e) {
    GTEST_SKIP() << "UDP port 1195 on 127.0.3.3 is not available: " << e.what();
  }
  const std::vector<std::string> runs{"", "--json", "--raw"};
  const std::vector<Outcome> r = atOnce(runs.size(), [&](size_t i) {
    return runTovctl(testsupport::words("discover 127.0.3.3 " + runs[i]));
  });
  for (const Outcome& each : r) {
    EXPECT_EQ(each.status, 0) << each.err;
    EXPECT_EQ(each.err, "");
  }
  EXPECT_THAT(r[0].out,
              HasSubstr(" Number of Nodes     : 256\n" + listed + "\n\n"));
  EXPECT_THAT(r[0].out, HasSubstr(" Found 2 cluster(s)\n"));
  const json doc = json::parse(r[1].out);
  ASSERT_EQ(doc["clusters"].size(), 2u) << r[1].out;
  EXPECT_EQ(doc["clusters"][0]["nodes"].size(), 256u);
  expectFields(doc, R"({"/clusters/0/nodes/255/name": "node256",
      "/clusters/0/sender": "127.0.3.3", "/clusters/1/nodes/0/name": "lone",
      "/skipped_count": 0, "/dropped": 0})");
  EXPECT_THAT(r[2].out, HasSubstr("\n\n" + all + "\n\nC boot"));
}

TEST_F(Tovctl, DaemonTextNeverDrivesTheTerminal) {
  // What a terminal acts on (title, screen clear, DEL, the C1 CSI) and bytes
  // not UTF-8 (Latin-1, an encoded surrogate). The simulator decodes \xNN.
  sim_ = startSim({}, R"({
    "cluster": {"name": "evil\\x1b]0;pwned\\x07\\x7f\\xc2\\x9b\\xed\\xa0\\x80",
                "poll_time": 1},
    "services": [
      {"name": "caf\\xe9", "state": "running", "mode": "auto"},
      {"name": "db\\x1b[2J", "state": "stopped", "mode": "manual"}]})");
  EXPECT_THAT(tool({"services"}).out,
              testing::AllOf(HasSubstr("caf\xe9 "), HasSubstr("db\x1b[2J ")));
  // At a terminal: escaped, the columns still lined up.
  EXPECT_THAT(tool({"services"}, atTerminal()).out,
              testing::AllOf(HasSubstr("0      caf\\xe9    running"),
                             HasSubstr("1      db\\x1b[2J  stopped")));
  const std::string info = tool({"info"}, atTerminal()).out;
  EXPECT_THAT(
      info, HasSubstr("evil\\x1b]0;pwned\\x07\\x7f\\xc2\\x9b\\xed\\xa0\\x80"));
  EXPECT_EQ(info.find_first_of("\x1b\x07\x7f"), std::string::npos) << info;
  // JSON never fails on bytes: the Latin-1 byte becomes U+FFFD.
  expectFields(services(), R"({"/0/name": "caf\ufffd",
                               "/1/name": "db\u001b[2J"})");
  // A daemon's text in an error line is escaped too: one line, always.
  const Outcome r = tool({"bounce", "nosuch"});
  EXPECT_EQ(r.status, kUsage);
  expectOneErrorLine(r, "(services: caf\\xe9, db\\x1b[2J)");
}

TEST_F(Tovctl, SecretsStayHiddenUnlessAskedFor) {
  RunOptions logged;
  logged.env = {"TOVAPI_LOG=" + pw("log")};
  Outcome r = tool(admin({"-d", "3", "bounce", "web"}), logged);
  EXPECT_EQ(r.status, 0) << r.err;
  std::ifstream in(pw("log"));
  const std::string log((std::istreambuf_iterator<char>(in)), {});
  for (const std::string& shown : {r.err, log}) {
    EXPECT_THAT(shown, HasSubstr("<redacted>"));
    EXPECT_THAT(shown, testing::Not(HasSubstr(kDigest)));
  }
  struct stat st {};
  ASSERT_EQ(stat(pw("log").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  r = tool(admin({"--show-secrets", "-d", "3", "bounce", "web"}));
  EXPECT_EQ(r.status, 0);
  EXPECT_THAT(r.err,
              testing::AllOf(HasSubstr(kDigest),
                             HasSubstr("tovctl: warning: --show-secrets")));
}

TEST_F(Tovctl, TerminalPromptsEndCleanly) {
  struct Case {
    Args args;
    std::string prompt, type;
    int status;  // -1: ended by SIGINT
    std::string shows;
  };
  const Args noFile{"-u", "admin", "bounce", "web"};
  const std::string asked = "Password for admin";
  const std::vector<Case> cases{
      {noFile, asked, "\x03", -1, ""},
      {noFile, asked, "\n", kUsage, "no password for user admin"},
      {admin({"halt"}), "[y/N]", "n\n", 9, "not confirmed, nothing was sent"},
      {admin({"shutdown"}), "[y/N]", "y\n", 0, "ok: shutdown of the daemon"},
  };
  for (const Case& c : cases) {
    sim_ = startSim();
    SCOPED_TRACE(c.args.back() + " answered " + c.type);
    const Outcome r = tool(c.args, atTerminal(c.prompt, c.type));
    EXPECT_EQ(r.status, c.status) << r.out;
    EXPECT_EQ(r.signal, c.status < 0 ? SIGINT : 0);
    EXPECT_TRUE(r.echoOn) << "the terminal was left without echo";
    EXPECT_THAT(r.out, HasSubstr(c.shows));
    EXPECT_TRUE(c.status == 0 || sim_->running()) << "nothing was sent";
  }
}

TEST_F(Tovctl, StatusShowsNodesServicesAndTheSummary) {
  sim_ = startSim({}, kDegraded, {"127.0.0.1", "127.0.0.2"});
  const Outcome r = tool({"--deadline", "8", "status"});
  EXPECT_EQ(r.err, "");
  EXPECT_THAT(
      r.out,
      testing::MatchesRegex(
          "Cluster shop.*\n   4 +mail +broken +auto +yes +-\n.*"
          "\n   gamma +127\\.0\\.0\\.7 +silent +[0-9.]+ s +[^ ].*\n\n" +
          std::regex_replace(kSummary, std::regex("[()]"), "\\$&") + "\n"));
  // The information, then a probe of each other node; node 2 refuses (69).
  json j = json::parse(tool({"--json", "--deadline", "8", "status"}).out);
  EXPECT_EQ(j["summary"]["text"], kSummary);
  expectFields(j, R"({"/cluster/name": "shop", "/exchanges": 3,
      "/nodes/0/answers": true, "/nodes/2/answers": false, "/nodes/2/code": 69,
      "/services/0/state": "running", "/services/1/state": "stopped",
      "/services/2/state": "starting", "/services/3/state": "stopping",
      "/services/4/state": "broken", "/services/5/state": null})");
}

}  // namespace

// On a terminal the summary is red while any node is silent or any service
// in trouble, green otherwise; problem rows are red.
TEST_F(Tovctl, StatusColoursTroubleRedAndHealthGreen) {
  const std::string node = R"({"name": "alpha", "address": "127.0.0.1"})";
  const std::string web =
      R"("services": [{"name": "web", "state": "running", "mode": "auto",
                       "node": "alpha"}]})";
  const std::string silent =
      R"(, {"name": "gamma", "address": "127.0.0.7", "silent": true})";
  const std::pair<std::string, std::vector<std::string>> cases[] = {
      {node, {"\033[32m1 node (1 answering), 1 service (1 running)\033[0m"}},
      {node + silent,
       {"\033[31m2 nodes (1 answering, 1 silent), 1 service (1 running)",
        "\033[31m   gamma "}},
  };
  for (const auto& [nodes, want] : cases) {
    sim_ = startSim(
        {}, R"({"cluster": {"name": "c"}, "nodes": [)" + nodes + "], " + web);
    const Outcome r = tool({"status"}, atTerminal("", "", "TERM=xterm"));
    for (const std::string& w : want) EXPECT_THAT(r.out, HasSubstr(w));
  }
}
