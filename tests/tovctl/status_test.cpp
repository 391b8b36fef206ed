// `tovctl status` and `tovctl check` against a degraded simulated cluster:
// two nodes answer, one is silent, and there is a service in every state.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "run_tool.h"
#include "support/net_helpers.h"
#include "support/sim.h"

namespace {

using nlohmann::json;
using testing::HasSubstr;
using tovctltest::linesOf;
using tovctltest::Outcome;
using tovctltest::runTovctl;

const char* const kDegraded = R"({
  "cluster": {"name": "shop", "poll_time": 1},
  "nodes": [{"name": "alpha", "address": "127.0.0.1"},
            {"name": "beta", "address": "127.0.0.2"},
            {"name": "gamma", "address": "127.0.0.7", "silent": true}],
  "services": [
    {"name": "web", "state": "running", "mode": "auto", "node": "alpha"},
    {"name": "db", "state": "stopped", "mode": "manual"},
    {"name": "queue", "state": "starting", "mode": "auto", "node": "beta"},
    {"name": "cache", "state": "stopping", "mode": "auto", "node": "beta"},
    {"name": "mail", "state": "broken", "mode": "auto", "blocked": true}]
})";

const char* const kSummary =
    "3 nodes: 2 answering, 1 silent; 5 services: 1 running, 1 stopped, "
    "1 starting, 1 stopping, 1 broken, 1 blocked";

class StatusTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    simtest::SimOptions o;
    o.configJson = kDegraded;
    o.listen = {"127.0.0.1", "127.0.0.2"};
    o.maxLifetimeSec = 120;
    sim_ = new simtest::SimProcess(o);
  }
  static void TearDownTestSuite() {
    delete sim_;
    sim_ = nullptr;
  }
  static Outcome tool(std::vector<std::string> args) {
    args.insert(args.begin(), {"-p", sim_->portStr(), "--deadline", "8"});
    return runTovctl(args);
  }
  static simtest::SimProcess* sim_;
};
simtest::SimProcess* StatusTest::sim_ = nullptr;

TEST_F(StatusTest, ScreenShowsNodesServicesAndTheSummary) {
  const Outcome r = tool({"status"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  const std::vector<std::string> lines = linesOf(r.out);
  ASSERT_FALSE(lines.empty());
  EXPECT_THAT(lines.front(), HasSubstr("Cluster shop"));
  EXPECT_EQ(lines.back(), kSummary);
  const std::regex silent(R"(^gamma +127\.0\.0\.7 +silent +[0-9.]+ s +\S)");
  const std::regex broken(R"(^4 +mail +broken +auto +yes +-$)");
  bool sawSilent = false, sawBroken = false;
  for (const std::string& l : lines) {
    sawSilent = sawSilent || std::regex_search(l, silent);
    sawBroken = sawBroken || std::regex_search(l, broken);
  }
  EXPECT_TRUE(sawSilent && sawBroken) << r.out;
}

TEST_F(StatusTest, JsonCarriesEveryNodeAndService) {
  const Outcome r = tool({"--json", "status"});
  ASSERT_EQ(r.status, 0) << r.err;
  const json j = json::parse(r.out);
  EXPECT_EQ(j["cluster"]["name"], "shop");
  EXPECT_EQ(j["summary"]["text"], kSummary);
  ASSERT_EQ(j["nodes"].size(), 3u);
  EXPECT_EQ(j["nodes"][0]["answers"], true);
  EXPECT_EQ(j["nodes"][2]["answers"], false);
  EXPECT_EQ(j["nodes"][2]["code"], 69);  // refused: TOV_SOCK_CONNECT
  std::vector<std::string> states;
  for (const json& s : j["services"]) states.push_back(s["state"]);
  EXPECT_THAT(states, testing::ElementsAre("running", "stopped", "starting",
                                           "stopping", "broken"));
  // The information exchange, then a probe of every other node: the node
  // asked has just answered.
  EXPECT_EQ(j["exchanges"], 3);
}

// The check's first line: "TOVCLUSTER STATE - text | perfdata", each
// performance value as 'label'=value[UOM];[warn];[crit];[min];[max].
TEST_F(StatusTest, CheckFollowsTheMonitoringPluginConventions) {
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string state;
  };
  const std::string closed = std::to_string(testsupport::closedPort());
  const std::vector<Case> cases{
      {{"check"}, 1, "WARNING"},
      {{"check", "-w", "1,4"}, 0, "OK"},
      {{"check", "-w", "1,4", "-c", "0"}, 2, "CRITICAL"},
      {{"check", "-c", "~:0,@4:5"}, 2, "CRITICAL"},
      {{"check", "-w", "2:,0"}, 1, "WARNING"},
      {{"check", "-w", "5:1"}, 3, "UNKNOWN"},
      {{"check", "-w", "x"}, 3, "UNKNOWN"},
      {{"check", "--frobnicate"}, 3, "UNKNOWN"},
      {{"check", "--deadline", "0.001"}, 3, "UNKNOWN"},
      {{"-p", closed, "check"}, 2, "CRITICAL"},  // nothing listens there
  };
  const std::regex perf(R"(^[a-z_]+=[0-9.]+s?;[^;]*;[^;]*;0;[0-9.]*$)");
  for (const Case& c : cases) {
    const bool unreachable = c.args[0] == "-p";
    const Outcome r = unreachable ? runTovctl(c.args) : tool(c.args);
    const std::string what = testing::PrintToString(c.args);
    EXPECT_EQ(r.status, c.status) << what << "\n" << r.out << r.err;
    EXPECT_EQ(r.err, "") << what;
    const std::vector<std::string> lines = linesOf(r.out);
    ASSERT_FALSE(lines.empty()) << what;
    EXPECT_EQ(lines[0].rfind("TOVCLUSTER " + c.state + " - ", 0), 0u)
        << what << ": " << lines[0];
    const std::size_t bar = lines[0].find(" | ");
    if (c.status == 3 || unreachable) {
      EXPECT_EQ(bar, std::string::npos) << lines[0];
      continue;
    }
    ASSERT_NE(bar, std::string::npos) << lines[0];
    EXPECT_THAT(lines[0], HasSubstr(kSummary));
    std::istringstream data(lines[0].substr(bar + 3));
    std::string item;
    std::vector<std::string> labels;
    while (data >> item) {
      EXPECT_TRUE(std::regex_match(item, perf)) << item;
      labels.push_back(item.substr(0, item.find('=')));
    }
    EXPECT_THAT(labels,
                testing::IsSupersetOf({"nodes_answering", "services_running",
                                       "services_stopped", "services_blocked",
                                       "services_broken", "time"}));
    EXPECT_THAT(lines[0], HasSubstr("nodes_answering=2;;;0;3"));
    // Long text names every silent node and service not running.
    EXPECT_EQ(lines.size(), 1u + 1u + 4u) << r.out;
  }
}

}  // namespace
