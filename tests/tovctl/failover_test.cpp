// Several entry nodes: one that refuses, is blackholed, stays mute or stalls
// after its salt hands over to the next within the command's deadline, and
// every output says which node answered.
#include <regex>

#include "netns/netns_lab.h"
#include "tovctl_fixture.h"

namespace {

using namespace tovctltest;

constexpr double kDeadline = 6;  // as the runs below give it

// alpha answers, beta is listed but mute; both on the simulator's port.
const char* const kPair = R"({
  "cluster": {"name": "pair", "poll_time": 1},
  "nodes": [{"name": "alpha", "address": "127.0.0.1"},
            {"name": "beta", "address": "127.0.0.2", "silent": "mute"}],
  "services": [
    {"name": "web", "state": "running", "mode": "auto", "node": "alpha"}],
  "users": [{"user": "admin", "password": "secret"}]})";

struct Command {
  Args args;
  int status;
  std::string out;  // a regex the whole of standard output must match
};

// What each row runs: {first} is the entry node that lets it down, {port}
// the simulator's port; the second entry node, 127.0.0.1, answers.
std::vector<Command> commands() {
  const std::string through = "through 127\\.0\\.0\\.1:{port}";
  return {
      {{"status"},
       0,
       "(.|\n)*Taken [-0-9: ]+ " + through +
           " in [0-9.]+ s \\(did not answer: {first} \\([^)]+\\)+\n(.|\n)*"},
      {{"--json", "status"}, 0, "(.|\n)*\"answered\": true(.|\n)*"},
      {{"check"},
       1,
       "TOVCLUSTER WARNING - (.|\n)*127\\.0\\.0\\.1:{port}(.|\n)*"},
      {{"services"}, 0, "INDEX +NAME(.|\n)*web +running(.|\n)*"},
      {{"bounce", "web"},
       0,
       "ok: bounce of service 0 \\(web\\) on " +
           std::string("127\\.0\\.0\\.1:{port}\n")},
  };
}

std::string filled(std::string text, const std::string& first,
                   const std::string& port) {
  text =
      std::regex_replace(text, std::regex("\\{first\\}"),
                         std::regex_replace(first, std::regex("\\."), "\\."));
  return std::regex_replace(text, std::regex("\\{port\\}"), port);
}

class Failover : public Tovctl {
 protected:
  void SetUp() override {
    sim_ = startSim({}, kPair, {"127.0.0.1", "127.0.0.2"});
  }

  Outcome run(const std::string& first, const Command& c) {
    Args args{"-t", "1",   "--deadline", "6",
              "-H", first, "-H",         "127.0.0.1:" + sim_->portStr()};
    args = admin(args);
    args.insert(args.end(), c.args.begin(), c.args.end());
    return runTovctl(args);
  }

  // The row's commands against `first`, all at once: threads started here
  // share this thread's network.
  void expectHandOver(const std::string& first) {
    const std::vector<Command> cs = commands();
    const std::vector<Outcome> got =
        atOnce(cs.size(), [&](std::size_t i) { return run(first, cs[i]); });
    for (std::size_t i = 0; i < cs.size(); ++i) {
      SCOPED_TRACE(first + ": " + testing::PrintToString(cs[i].args));
      EXPECT_EQ(got[i].status, cs[i].status) << got[i].err;
      EXPECT_THAT(got[i].out, testing::MatchesRegex(
                                  filled(cs[i].out, first, sim_->portStr())));
      EXPECT_LT(got[i].seconds, kDeadline) << "past the deadline";
      // The status header and the check say it; the others warn, once.
      const bool warns = i >= 3;
      EXPECT_EQ(linesOf(got[i].err).size(), warns ? 1u : 0u) << got[i].err;
      if (warns) {
        EXPECT_THAT(got[i].err,
                    HasSubstr("warning: entry node " + first + " ("));
      }
    }
  }
};

TEST_F(Failover, TheNextEntryNodeAnswersWhenTheFirstRefusesIsMuteOrStalls) {
  // Salt, then silence: the reply to the information request never comes.
  const auto stalls = startSim({"--reply-delay", "60000"},
                               simtest::defaultConfigJson(), {"127.0.0.4"});
  const std::vector<std::string> firsts{
      "127.0.0.1:" + std::to_string(closedPort()),  // refuses
      "127.0.0.2:" + sim_->portStr(),               // mute
      "127.0.0.4:" + stalls->portStr(),             // stalls
  };
  std::vector<std::future<void>> rows;
  for (const std::string& first : firsts) {
    rows.push_back(std::async(std::launch::async,
                              [this, first] { expectHandOver(first); }));
  }
  for (auto& r : rows) r.get();
}

TEST_F(Failover, TheNextEntryNodeAnswersWhenTheFirstIsBlackholed) {
  sim_.reset();
  netnstest::PrivateNetwork net;
  if (!net.ready()) GTEST_SKIP() << "a private network needs root and iproute2";
  // Started inside the private network, as every run below.
  sim_ = startSim({}, kPair, {"127.0.0.1", "127.0.0.2"});
  expectHandOver(std::string(netnstest::PrivateNetwork::kBlackhole) + ":" +
                 sim_->portStr());
  sim_.reset();
  EXPECT_TRUE(net.leave());
}

// (The check's line for it: check_test.cpp.)
TEST_F(Failover, NoEntryNodeAnswering) {
  const std::string a = "127.0.0.1:" + std::to_string(closedPort());
  const std::string b = "127.0.0.2:" + std::to_string(closedPort());
  const Outcome s = runTovctl({"-t", "1", "-H", a, "-H", b, "status"});
  EXPECT_EQ(s.status, 69);
  expectOneErrorLine(s, "status of the cluster through " + b +
                            " failed: cannot connect (TOV_SOCK_CONNECT, code "
                            "69); entry node " +
                            a + " (cannot connect) did not answer either");
  const Outcome j =
      runTovctl({"-t", "1", "-H", a, "-H", b, "--json", "services"});
  EXPECT_EQ(j.status, 69);
  expectFields(json::parse(j.out),
               R"({"/error/host": "127.0.0.2", "/error/code": 69})");
  EXPECT_THAT(j.err, HasSubstr("asked last: " + b + "; before it, " + a));
}

// A named cluster stands for the options the command line does not give;
// the command line wins over the environment, which wins over the file.
TEST_F(Failover, NamedClustersFillInWhatTheCommandLineLeavesOut) {
  const std::string file = pw("clusters.toml");
  std::ofstream(file) << "[clusters.pair]\nhosts = [\"127.0.0.2\", "
                         "\"127.0.0.1\"]\nport = "
                      << sim_->portStr()
                      << "\nuser = \"admin\"\npassword_file = \"good\"\n"
                         "timeout = 1\n[clusters.none]\nhosts = "
                         "[\"127.0.0.1:1\"]\n";
  const std::string env = "TOV_CONFIG=" + file, mute = "entry node 127.0.0.2:";
  struct Case {
    std::string args;
    Args env;
    int status;
    std::string err;  // a fragment of the one line on standard error
  };
  const std::vector<Case> cases{
      // The file's entry nodes, port, user and password: the first is mute.
      {"--config " + file + " --cluster pair bounce web", {}, 0, mute},
      {"--cluster pair services", {env}, 0, mute},
      {"services", {env, "TOV_CLUSTER=pair"}, 0, mute},
      // -H wins over the file, --cluster over TOV_CLUSTER.
      {"--cluster pair -H 127.0.0.1 services", {env}, 0, ""},
      {"--cluster none services",
       {env, "TOV_CLUSTER=pair"},
       69,
       "127.0.0.1:1 failed: cannot connect"},
      {"--cluster nope services",
       {env},
       kUsage,
       "cluster nope: " + file + ": no cluster \"nope\"; it has none, pair"},
      {"--config " + file + " services",
       {},
       kUsage,
       "--config " + file + ": name a cluster of it with --cluster NAME"},
      {"--config " + pw("missing") + " --cluster pair services",
       {},
       kUsage,
       "cluster pair: "},
  };
  const std::vector<Outcome> got = atOnce(cases.size(), [&](std::size_t i) {
    RunOptions ro;
    ro.env = cases[i].env;
    return runTovctl(testsupport::words(cases[i].args), ro);
  });
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(cases[i].args);
    EXPECT_EQ(got[i].status, cases[i].status) << got[i].err;
    if (cases[i].err.empty()) {
      EXPECT_EQ(got[i].err, "");
    } else {
      expectOneErrorLine(got[i], cases[i].err);
    }
  }
}

}  // namespace
