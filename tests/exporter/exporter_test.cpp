// tovexporter as Prometheus sees it: valid, true to the cluster, scraped by a
// real server for two clusters at once, never held past its deadline by a
// node that stalls or by the snapshot of another cluster, and never a series
// twice whatever the daemon sends.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <fstream>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "support/exporter.h"
#include "support/loopback_server.h"
#include "support/net_helpers.h"
#include "support/sim.h"
#include "tovexporter/http.h"
#include "tovexporter/metrics.h"
#include "tovexporter/scraper.h"
#include "tovexporter/targets.h"

namespace {

using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;
using namespace testsupport;

const char* const kPromtool = "/usr/bin/promtool";
const char* const kPrometheus = "/usr/bin/prometheus";
const std::string kFffd = "\xEF\xBF\xBD";  // what replaces bytes not UTF-8
const std::string kBuildInfo = "tov_exporter_build_info{version=\"" +
                               std::string(TOVEXPORTER_VERSION) +
                               "\",revision=\"" TOVEXPORTER_REVISION "\"} 1";

// Series (name and labels) that appear more than once.
Lines repeatedSeries(const std::string& body) {
  std::istringstream in(body);
  std::set<std::string> seen;
  Lines twice;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    const std::string series = line.substr(0, line.rfind(' '));
    if (!seen.insert(series).second) twice.push_back(series);
  }
  return twice;
}

// A one-node cluster on `address`, its service web running there.
std::string clusterJson(const std::string& name, const std::string& address) {
  return R"({"cluster": {"name": ")" + name + R"(", "poll_time": 1},
    "nodes": [{"name": "n1", "address": ")" +
         address + R"("}],
    "services": [{"name": "web", "state": "running", "mode": "auto",
                  "node": "n1"}]})";
}

// Simulators and one exporter, which reads the clusters file clusters.toml
// of the test's directory (empty unless the test writes it).
class ExporterTest : public testing::Test {
 protected:
  void SetUp() override { std::ofstream(dir_.file("clusters.toml")); }

  std::string path(const std::string& name) const { return dir_.file(name); }

  simtest::SimProcess& startSim(const std::string& config,
                                const std::string& address = "127.0.95.1",
                                int port = 0, Lines extra = {}) {
    sims_.push_back(simtest::startSim(extra, config, {address}, port));
    return *sims_.back();
  }

  // `env`: variables to set for it, as NAME=VALUE.
  void startExporter(const Lines& args, const Lines& env = {}) {
    exporter_ = std::make_unique<Exporter>(args, env, "127.0.0.1:0",
                                           path("clusters.toml"));
    ASSERT_GT(exporter_->port(), 0) << exporter_->log();
    port_ = exporter_->port();
  }

  Scrape get(const std::string& target, const std::string& timeout = "") {
    return scrape(port_, target, timeout);
  }

  void expectPromtoolAccepts(const std::string& body) {
    EXPECT_EQ(repeatedSeries(body), Lines{});
    if (access(kPromtool, X_OK) != 0) GTEST_SKIP() << kPromtool << " missing";
    RunOptions in;
    in.input = body;
    const Outcome check = runProgram(kPromtool, {"check", "metrics"}, in);
    EXPECT_EQ(check.status, 0) << check.out << check.err;
  }

  TempDir dir_;
  std::vector<std::unique_ptr<simtest::SimProcess>> sims_;
  std::unique_ptr<Exporter> exporter_;
  int port_ = 0;
};

// A cluster and the lines its scrape shows ('!': not). A simulator answers on
// 127.0.95.1; with kDegraded, one on 127.0.95.2 takes requests, never answers.
struct Row {
  const char* name;
  std::string config;
  Lines hosts;  // -H, in this order
  Lines expect;
  const char* header = "";  // Prometheus's scrape timeout, "" for none
};
void PrintTo(const Row& row, std::ostream* os) { *os << row.name; }

const char* const kDegraded = R"({
  "cluster": {"name": "degraded", "poll_time": 1},
  "nodes": [{"name": "n1", "address": "127.0.95.1"},
            {"name": "n2", "address": "127.0.95.2"}],
  "services": [
    {"name": "web", "state": "running", "mode": "auto", "node": "n1"},
    {"name": "db", "state": "stopped", "mode": "manual"},
    {"name": "mail", "state": "broken", "mode": "manual"},
    {"name": "batch", "state": "stopped", "mode": "manual", "blocked": true}]
})";

// Quotes, backslashes, a terminal escape and bytes that are not UTF-8 (a
// stray 0xFF, a cut two-byte character, a lone Latin-1 one).
const char* const kHostile = R"({
  "cluster": {"name": "clu\\x22ster\\\\x\\xff", "poll_time": 1},
  "nodes": [{"name": "no\\x22de\\\\1\\xe9", "address": "127.0.95.1"}],
  "services": [
    {"name": "a\\x22b", "state": "running", "mode": "auto"},
    {"name": "c\\\\d\\xc3", "state": "broken", "mode": "manual"},
    {"name": "e\\x1b[2J", "state": "stopped", "mode": "manual"}]
})";

const std::string kNode = R"(node="no\"de\\1)" + kFffd + '"';
// Without the information: no series of the cluster, only the exporter's.
const Lines kTimedOut = {
    "tov_up 0",
    R"(tov_scrape_errors_total{*,code="deadline",name="deadline"} 1)",
    "!tov_cluster_", "!tov_node_", "!tov_service_"};

const std::vector<Row> kRows = {
    {"SecondHostAnswers",
     simtest::defaultConfigJson(),
     {"127.0.95.9", "127.0.95.1"},
     {"tov_up 1", R"(tov_cluster_info{cluster="testcluster",*} 1)",
      R"(tov_cluster_info{*,host="127.0.95.1"} 1)",
      R"(!tov_scrape_errors_total{*code="deadline",name="deadline"} 1)",
      R"(tov_scrape_errors_total{*,code="69",name="TOV_SOCK_CONNECT"} 1)",
      R"(tov_service_state{service="db",index="1",state="stopped"} 1)"}},
    {"DegradedWithAStalledNode",
     kDegraded,
     {"127.0.95.1"},
     {"tov_up 1", R"(tov_node_up{node="n1",address="127.0.95.1"} 1)",
      R"(tov_node_up{node="n2",address="127.0.95.2"} 0)",
      // Its probe is ended at the probe limit, well before the deadline.
      R"(tov_node_probe_duration_seconds{node="n2",address="127.0.95.2"} 2.5)",
      R"(tov_service_state{service="mail",index="2",state="broken"} 1)",
      R"(tov_service_blocked{service="batch",index="3"} 1)",
      R"(tov_service_mode{service="db",index="1",mode="manual"} 1)",
      R"(tov_service_node_info{service="web",index="0",node="n1"} 1)",
      R"(!tov_service_node_info{service="mail")"}},
    {"HostileNames",
     kHostile,
     {"127.0.95.1"},
     {"tov_up 1",
      R"(tov_cluster_info{cluster="clu\"ster\\x)" + kFffd + "\",*} 1",
      "tov_node_up{" + kNode + R"(,address="127.0.95.1"} 1)",
      R"(tov_service_state{service="a\"b",index="0",state="running"} 1)",
      R"(tov_service_state{service="c\\d)" + kFffd +
          R"(",index="1",state="broken"} 1)",
      "tov_service_state{service=\"e\x1b[2J\",index=\"2\",state=\"stopped\"} 1",
      R"(tov_service_node_info{service="a\"b",index="0",)" + kNode + "} 1"}},
    {"AskedNodeStalls", kDegraded, {"127.0.95.2"}, kTimedOut},
    // The header's 2 s, less a margin, instead of --deadline 10.
    {"ScrapeTimeoutHeader", kDegraded, {"127.0.95.2"}, kTimedOut, "2"},
};

class Exposition : public ExporterTest,
                   public testing::WithParamInterface<Row> {};

// A scrape held past its deadline (4 s; 10 s with a header) would end at the
// client's 15 s read timeout instead; its bound leaves room for a busy host.
TEST_P(Exposition, PromtoolAcceptsItAndItShowsTheClusterInTime) {
  const Row& row = GetParam();
  simtest::SimProcess& sim = startSim(row.config);
  if (row.config == kDegraded) {
    startSim(row.config, "127.0.95.2", sim.port(), {"--reply-delay", "600000"});
  }
  Lines args{"-p", sim.portStr(), "--deadline", *row.header ? "10" : "4"};
  for (const std::string& h : row.hosts) args.insert(args.end(), {"-H", h});
  startExporter(args);
  const Scrape res = get("/metrics", row.header);
  EXPECT_LE(res.seconds, *row.header ? 6 : 12);
  ASSERT_EQ(res.status, 200);
  EXPECT_EQ(res.contentType, "text/plain; version=0.0.4; charset=utf-8");
  expectLines(res.body, row.expect);
  expectLines(res.body, {kBuildInfo});
  expectPromtoolAccepts(res.body);
}

INSTANTIATE_TEST_SUITE_P(Clusters, Exposition, testing::ValuesIn(kRows),
                         [](const testing::TestParamInfo<Row>& info) {
                           return std::string(info.param.name);
                         });

// Daemon records are lines: no line feed reaches the exporter through them.
TEST(LabelValue, EscapesWhatWouldEndTheValueOnly) {
  EXPECT_EQ(tovexporter::labelValue("a\nb\r\"c\\d\xff"),
            "a\\nb\r\\\"c\\\\d" + kFffd);
}

// A query's parameters as a browser or Prometheus encodes them.
TEST(QueryParams, DecodedWithPlusAsASpace) {
  const std::pair<const char*, const char*> cases[] = {
      {"target=x%41y&b=1", "b=1;target=xAy;"},
      {"a=%7e+%2C%2c", "a=~ ,,;"},
      {"k%3D=v%3d&k%3d", "k==v=;k==;"},
      {"a=%4&b=%zz&c=%", "a=%4;b=%zz;c=%;"},
      {"&=x&&a==b&", "a==b;"},
      {"", ""},
  };
  for (const auto& [query, want] : cases) {
    std::string got;
    for (const auto& [k, v] : tovexporter::queryParams(query)) {
      got += k + "=" + v + ";";
    }
    EXPECT_EQ(got, want) << query;
  }
}

// What a /probe request names: the target it gives, or why it is refused
// ('!': the refusal says this). A named cluster keeps its own settings.
// (What the exporter answers to a /probe: ProbeServesTheClusterItIsAskedFor.)
TEST(ProbeTarget, EntryNodesOrANamedClusterElseAReason) {
  using tovexporter::Target;
  const tovexporter::Defaults d;  // port 1195, timeout 3, deadline 10
  tovtools::ClusterConfig prod;
  prod.name = "prod";
  prod.hosts = {"h1", "h2:9"};
  prod.port = 7;
  prod.timeout = 1.5;
  std::map<std::string, Target> named;
  std::string why;
  ASSERT_TRUE(tovexporter::clusterTarget(prod, d, named["prod"], why)) << why;
  std::string many = "h";
  for (unsigned i = 0; i < tovtools::kMaxNodes; ++i) many += ",h";
  const std::pair<std::multimap<std::string, std::string>, std::string>
      cases[] = {
          {{{"target", "[::1]"}, {"target", "a.example:2"}},
           "[::1]:1195,a.example:2"},
          {{{"target", "::1,b_1-x.y:65535"}, {"module", "x"}},
           "[::1]:1195,b_1-x.y:65535"},
          {{{"cluster", "prod"}}, "prod"},
          {{{"target", ""}}, "!the host is empty"},
          {{{"target", "a,,b"}}, "!the host is empty"},
          {{{"target", "a\x1b[2J"}}, "!a\\x1b[2J"},  // shown, not obeyed
          {{{"target", "a:65536"}}, "!from 1 to 65535"},
          {{{"target", many}}, "!more than 256 entry nodes"},
          {{{"cluster", "prod"}, {"cluster", "prod"}}, "!one cluster"},
          {{{"cluster", "prod"}, {"target", "a"}}, "!not both"},
      };
  for (const auto& [params, want] : cases) {
    SCOPED_TRACE(want);
    Target t;
    const bool ok = tovexporter::probeTarget(params, d, named, t, why);
    if (want[0] == '!') {
      EXPECT_FALSE(ok);
      EXPECT_NE(why.find(want.substr(1)), std::string::npos) << why;
      EXPECT_EQ(why.find_first_of("\n\x1b"), std::string::npos) << why;
      continue;
    }
    ASSERT_TRUE(ok) << why;
    EXPECT_EQ(t.name, want);
    const bool isProd = want == "prod";
    EXPECT_EQ(t.entries.size(),
              isProd ? 2u : 1u + std::count(want.begin(), want.end(), ','));
    EXPECT_EQ(t.entries.back().port,
              isProd ? "9" : want.substr(want.rfind(':') + 1));
    EXPECT_EQ(t.entries.front().port, isProd ? "7" : t.entries.front().port);
    EXPECT_EQ(t.timeout, isProd ? 1.5 : 3);
    EXPECT_EQ(t.deadline, 10);
  }
  // Options given on the command line win over the cluster's own keys.
  tovexporter::Defaults given = d;
  given.portGiven = given.timeoutGiven = true;
  Target t;
  ASSERT_TRUE(tovexporter::clusterTarget(prod, given, t, why)) << why;
  EXPECT_EQ(t.name, "prod");
  EXPECT_EQ(t.entries.front().port, "1195");
  EXPECT_EQ(t.timeout, 3);
}

// A daemon that repeats node and service records and names two nodes alike
// but for bytes that are not UTF-8: every series once, as promtool wants.
// The snapshot keeps the first of repeated records; only names made alike
// by the writer's own escaping could still give a series twice.
TEST_F(ExporterTest, RepeatedRecordsNeverRepeatASeries) {
  const std::string at = " 127.0.95.3 4\n";
  looptest::Script daemon;
  daemon.reply =
      "Cn cluster information\n"
      "C dup 4 2 9f3c 17 1700000000 512 1 1700000100 0 n1 test\n"
      "N n1" +
      at + "N n1" + at + "N n\xff" + at + "N n\xfe" + at +
      "S 0 web running auto 0 n1\nS 0 web stopped manual 0 -\n"
      "S 1 web stopped weird 0 -\nV 1.0 2.2\n";
  looptest::LoopbackServer server({daemon}, "127.0.95.3");
  startExporter({"-H", "127.0.95.3:" + server.portStr()});
  const Scrape res = get("/metrics");
  ASSERT_EQ(res.status, 200);
  expectLines(
      res.body,
      {"tov_up 1", "tov_duplicate_records 2",
       "tov_node_up{node=\"n" + kFffd + "\",address=\"127.0.95.3\"} 1",
       R"(tov_service_state{service="web",index="0",state="running"} 1)",
       R"(tov_service_mode{service="web",index="0",mode="auto"} 1)",
       R"(tov_service_mode{service="web",index="1",mode="weird"} 1)",
       R"(tov_service_mode{service="web",index="1",mode="auto"} 0)",
       "tov_scrape_duration_seconds *"});
  expectPromtoolAccepts(res.body);
}

// One exporter: alpha by its entry nodes, beta by name or by entry node;
// what names no target is a 400 of one line. /metrics serves the cluster
// TOV_CLUSTER names, and counters per target for kMaxTargets targets at
// most, never dropping that cluster's.
TEST_F(ExporterTest, ProbeServesTheClusterItIsAskedFor) {
  simtest::SimProcess& alpha = startSim(clusterJson("alpha", "127.0.95.1"));
  simtest::SimProcess& beta =
      startSim(clusterJson("beta", "127.0.95.2"), "127.0.95.2");
  std::ofstream(path("clusters.toml"))
      << "[clusters.beta]\nhosts = [\"127.0.95.2:" << beta.portStr() << "\"]\n";
  startExporter({"-p", alpha.portStr()}, {"TOV_CLUSTER=beta"});
  const std::string a = "127.0.95.1:" + alpha.portStr();
  const std::string refused = "127.0.95.9:" + alpha.portStr();
  const std::pair<std::string, Lines> cases[] = {
      {"target=127.0.95.1",
       {"tov_up 1", R"(tov_cluster_info{cluster="alpha",*)"}},
      {"target=127.0.95.2:" + beta.portStr(),
       {"tov_up 1", R"(tov_cluster_info{cluster="beta",*)"}},
      {"target=127.0.95.9&target=" + a,
       {"tov_up 1",
        R"(tov_cluster_info{cluster="alpha",*,host="127.0.95.1"} 1)"}},
      {"target=127.0.95.9," + a, {"tov_up 1"}},
      {"cluster=beta", {"tov_up 1", R"(tov_cluster_info{cluster="beta",*)"}},
      {"target=bad%20host",
       {"400 bad entry node \"bad host\": not a host name or address"}},
      {"cluster=prod", {"400 unknown cluster \"prod\""}},
      {"", {"400 missing parameter: target=HOST[:PORT] or cluster=NAME"}},
  };
  for (const auto& [query, want] : cases) {
    SCOPED_TRACE(query);
    const Scrape res = get("/probe?" + query);
    if (res.status == 400) {
      EXPECT_EQ("400 " + res.body, want[0] + "\n");
      continue;
    }
    EXPECT_EQ(res.status, 200);
    expectLines(res.body, want);
    expectLines(res.body, {"!tov_scrapes_total", "!tov_exporter_build_info"});
  }
  std::string metrics = get("/metrics").body;
  expectLines(metrics,
              {"tov_up 1", R"(tov_cluster_info{cluster="beta",*)", kBuildInfo,
               "tov_scrapes_total{target=\"" + a + "\"} 1",
               R"(tov_scrapes_total{target="beta"} 2)",
               "tov_scrapes_total{target=\"" + refused + "," + a + "\"} 2",
               "tov_scrape_errors_total{target=\"" + refused + "," + a +
                   R"(",code="69",name="TOV_SOCK_CONNECT"} 2)",
               R"(!tov_scrapes_total{target="bad)"});

  const int first = 20000;
  const int n = static_cast<int>(tovexporter::kMaxTargets) + 10;
  for (int i = 0; i < n; ++i) {
    get("/probe?target=127.0.95.9:" + std::to_string(first + i));
  }
  metrics = get("/metrics").body;
  std::size_t kept = 0;
  for (std::size_t at = 0;
       (at = metrics.find("\ntov_scrapes_total{", at)) != std::string::npos;
       ++at) {
    ++kept;
  }
  EXPECT_EQ(kept, tovexporter::kMaxTargets);
  expectLines(metrics, {"tov_scrapes_total{target=\"127.0.95.9:" +
                            std::to_string(first + n - 1) + "\"} 1",
                        "!tov_scrapes_total{target=\"127.0.95.9:" +
                            std::to_string(first) + "\"}",
                        "!tov_scrapes_total{target=\"" + a + "\"}",
                        R"(tov_scrapes_total{target="beta"} 3)"});
}

// Snapshots of different clusters are taken at once: a cluster whose entry
// node stalls holds only its own scrapes, which share its snapshot and end
// by their deadline (2 s: the header's 2.5 less the margin); another
// cluster is answered meanwhile. A named cluster's own deadline bounds its
// scrapes.
TEST_F(ExporterTest, AStalledClusterHoldsOnlyItsOwnScrapes) {
  simtest::SimProcess& sim = startSim(clusterJson("alpha", "127.0.95.1"));
  startSim(clusterJson("stalls", "127.0.95.2"), "127.0.95.2", sim.port(),
           {"--reply-delay", "600000"});
  std::ofstream(path("clusters.toml"))
      << "[clusters.stalls]\nhosts = [\"127.0.95.2\"]\ndeadline = 1\n";
  startExporter({"-p", sim.portStr()});
  const auto within = [&](const std::string& target, const char* timeout,
                          double& took) {
    const Scrape res = get("/probe?" + target, timeout);
    took = res.seconds;
    return res.body;
  };
  const Lines notRead = {"tov_up 0", "!tov_cluster_", "!tov_node_"};
  std::string stalled[2];
  double stalledTook[2] = {0, 0};
  std::vector<std::thread> scrapes;
  for (int i = 0; i < 2; ++i) {
    scrapes.emplace_back([&, i] {
      stalled[i] = within("target=127.0.95.2", "2.5", stalledTook[i]);
    });
  }
  double took = 0;
  const std::string other = within("target=127.0.95.1", "2", took);
  for (std::thread& t : scrapes) t.join();
  expectLines(other, {"tov_up 1"});
  EXPECT_LT(took, 1);  // not held by the stalled snapshot
  for (int i = 0; i < 2; ++i) {
    expectLines(stalled[i], notRead);
    EXPECT_GE(stalledTook[i], 1.9);
    EXPECT_LE(stalledTook[i], 2.5);
  }
  const std::string metrics = get("/metrics").body;
  expectLines(metrics, {R"(tov_scrapes_total{target="127.0.95.2:*} 1)",
                        R"(tov_scrapes_total{target="127.0.95.1:*} 1)",
                        R"(!tov_scrape_errors_total{target="127.0.95.1:)"});
  // One for the snapshot, and one more if the second scrape's own deadline
  // came before the snapshot's end.
  EXPECT_TRUE(std::regex_search(
      metrics, std::regex(R"(\ntov_scrape_errors_total\{target="127\.0\.95\.2:)"
                          R"(\d+",code="deadline",name="deadline"\} [12]\n)")))
      << metrics;
  expectLines(within("cluster=stalls", "10", took), notRead);
  EXPECT_GE(took, 0.9);
  EXPECT_LE(took, 1.5);  // 1 s, not --deadline's 10
}

// The scraper with a taker of its own: each snapshot takes 200 ms (that of
// "stuck" until it is stopped); "overrun" overruns, "lost" brings nothing,
// the others a snapshot with one failed attempt and three exchanges.
class ScraperTest : public testing::Test {
 protected:
  tovexporter::Taken take(const tovexporter::Target& t,
                          const std::atomic<bool>& stop) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      ++taken_[t.name];
    }
    const auto end = Clock::now() +
                     std::chrono::milliseconds(t.name == "stuck" ? 60000 : 200);
    while (!stop && Clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    tovexporter::Taken r;
    r.overran = t.name == "overrun";
    if (t.name != "overrun" && t.name != "lost") {
      r.snapshot.emplace();
      r.snapshot->exchanges = 3;
      r.snapshot->entries = {{"h1", "1", 69}, {"h2", "1", 0}};
    }
    return r;
  }
  tovexporter::Taker taker() {
    return [this](const tovexporter::Target& t,
                  std::optional<tovexporter::Clock::time_point>,
                  const std::atomic<bool>& stop) { return take(t, stop); };
  }
  // A scrape of `target`; its answer and when it came go to answers_[label].
  void ask(tovexporter::Scraper& scraper, const std::string& label,
           const std::string& target, double deadline) {
    tovexporter::Target t;
    t.name = target;
    const auto begun = Clock::now();
    scraper.scrape(t, deadline, [this, label, begun](const std::string& text) {
      answers_[label] = {
          std::chrono::duration<double>(Clock::now() - begun).count(), text};
    });
  }
  void runUntil(std::size_t n) {
    for (int i = 0; i < 500 && answers_.size() < n; ++i) {
      io_.run_one_for(std::chrono::milliseconds(10));
    }
    ASSERT_EQ(answers_.size(), n);
  }
  void expectAnswer(const std::string& label, double at, bool up) {
    SCOPED_TRACE(label);
    EXPECT_GE(answers_[label].first, at - 0.01);
    EXPECT_LT(answers_[label].first, at + 0.15);
    expectLines(answers_[label].second, {up ? "tov_up 1" : "tov_up 0"});
  }

  boost::asio::io_context io_;
  std::mutex mu_;
  std::map<std::string, int> taken_;
  std::map<std::string, std::pair<double, std::string>> answers_;
};

// With one slot: scrapes of one target share one snapshot, a scrape of
// another waits for the slot no longer than its deadline, a snapshot that
// overran or never came is tov_up 0, and the counters say so.
TEST_F(ScraperTest, SharesSnapshotsAndQueuesForASlotWithinEachDeadline) {
  tovexporter::Scraper scraper(io_, taker(), "", 1);
  ask(scraper, "a1", "a", 5);
  ask(scraper, "a2", "a", 5);
  ask(scraper, "b", "b", 5);
  ask(scraper, "c", "c", 0.1);
  ask(scraper, "overrun", "overrun", 5);
  ask(scraper, "lost", "lost", 0);
  runUntil(6);
  expectAnswer("a1", 0.2, true);
  expectAnswer("a2", 0.2, true);
  expectAnswer("c", 0.1, false);
  expectAnswer("b", 0.4, true);
  expectAnswer("overrun", 0.6, false);
  expectAnswer("lost", 0.8, false);
  EXPECT_EQ(taken_, (std::map<std::string, int>{
                        {"a", 1}, {"b", 1}, {"overrun", 1}, {"lost", 1}}));
  const std::string own = scraper.own({"v", "r"});
  SCOPED_TRACE(own);
  expectLines(
      own, {R"(tov_scrapes_total{target="a"} 1)",
            R"(tov_exchanges_total{target="a"} 3)",
            R"(tov_scrape_errors_total{target="a",code="69",)"
            R"(name="TOV_SOCK_CONNECT"} 1)",
            R"(tov_scrapes_total{target="c"} 0)",
            R"(tov_scrape_errors_total{target="c",code="deadline",*} 1)",
            R"(tov_scrape_errors_total{target="overrun",code="deadline",*} 1)",
            R"(tov_scrapes_total{target="lost"} 1)",
            R"(!tov_scrape_errors_total{target="lost")"});
}

// A taker that never returns holds only its own scrape, answered at its
// deadline and the grace; the scraper's end stops it.
TEST_F(ScraperTest, AStuckSnapshotHoldsOnlyItsOwnScrape) {
  {
    tovexporter::Scraper scraper(io_, taker(), "", 2);
    ask(scraper, "stuck", "stuck", 0.2);
    ask(scraper, "b", "b", 5);
    runUntil(2);
  }
  expectAnswer("b", 0.2, true);
  expectAnswer("stuck", 0.2 + tovexporter::kAnswerGrace, false);
}

// What keeps the exporter from starting: status 2 and what is wrong, in one
// line where the exporter words it (CLI11 adds a hint of its own). The
// password options are gone: the exporter needs no password.
TEST_F(ExporterTest, StartUpProblemsEndItWithStatusTwo) {
  const std::string good = path("clusters.toml");
  std::ofstream(good) << "[clusters.beta]\nhosts = [\"127.0.95.2\"]\n";
  std::ofstream(path("bad.toml"))
      << "[clusters.beta]\nhosts = [\"h\"]\nx = 1\n";
  struct Case {
    Lines env, args;
    std::string says;
  };
  const Case cases[] = {
      {{}, {"-u", "admin"}, "The following arguments were not expected"},
      {{}, {"--password-file", good}, "--password-file"},
      {{}, {"-H", "127.0.95.1", "--cluster", "beta"}, "excludes"},
      {{}, {"--cluster", "prod"}, good + ": no cluster \"prod\"; it has beta"},
      {{"TOV_CLUSTER=prod"}, {}, "no cluster \"prod\""},
      {{}, {"--config", path("none.toml")}, path("none.toml")},
      {{"TOV_CONFIG=" + path("bad.toml")}, {}, path("bad.toml") + ":3:1: "},
      // With -H, TOV_CLUSTER is not read.
      {{"TOV_CLUSTER=prod"}, {"-H", "a b"}, "-H: bad entry node"},
      {{}, {"--listen", "127.0.0.1"}, "--listen: \"127.0.0.1\" is not"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.says);
    RunOptions opts;
    opts.env = c.env;  // the first of a name is the one read
    opts.env.push_back("TOV_CONFIG=" + good);
    Lines args = c.args;
    if (std::find(args.begin(), args.end(), "--listen") == args.end()) {
      args.insert(args.end(), {"--listen", "127.0.0.1:0"});
    }
    const Outcome r = runProgram(TOVEXPORTER_PATH, args, opts);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    const bool ours = r.err.rfind("tovexporter: ", 0) == 0;
    EXPECT_EQ(linesOf(r.err).size(), ours ? 1u : 2u) << r.err;
  }
}

std::string replaceAll(std::string text, const std::string& from,
                       const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos;
       at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// examples/prometheus.yml with this test's ports and a 1 s interval: a real
// Prometheus scrapes alpha by its entry node and beta by name through one
// exporter, each cluster an instance of its own, and the exporter's own
// /metrics.
TEST_F(ExporterTest, PrometheusScrapesTwoClustersThroughOneExporter) {
  if (access(kPrometheus, X_OK) != 0) GTEST_SKIP() << kPrometheus << " missing";
  simtest::SimProcess& alpha = startSim(clusterJson("alpha", "127.0.95.1"));
  simtest::SimProcess& beta =
      startSim(clusterJson("beta", "127.0.95.2"), "127.0.95.2");
  std::ofstream(path("clusters.toml"))
      << "[clusters.beta]\nhosts = [\"127.0.95.2:" << beta.portStr() << "\"]\n";
  startExporter({});
  const std::string a = "127.0.95.1:" + alpha.portStr();
  const std::string exporter = "127.0.0.1:" + std::to_string(port_);
  std::string yml = readFile(TOVAPI_EXAMPLES "/prometheus.yml");
  for (const auto& [from, to] :
       std::vector<std::pair<std::string, std::string>>{
           {"15s", "1s"},
           {"scrape_timeout: 10s", "scrape_timeout: 1s"},
           {"\"192.0.2.11:1195\"", "\"" + a + "\""},
           {"[\"prod\"]", "[\"beta\"]"},
           {"127.0.0.1:9795", exporter}}) {
    ASSERT_NE(yml.find(from), std::string::npos) << from;
    yml = replaceAll(yml, from, to);
  }
  std::ofstream(path("prometheus.yml")) << yml;
  std::filesystem::copy_file(TOVAPI_EXAMPLES "/tovexporter-alerts.yml",
                             path("tovexporter-alerts.yml"));
  const int webPort = testsupport::closedPort();
  Child prometheus({kPrometheus, "--config.file=" + path("prometheus.yml"),
                    "--storage.tsdb.path=" + path("tsdb"),
                    "--web.listen-address=127.0.0.1:" + std::to_string(webPort),
                    "--log.level=warn"},
                   path("prometheus.log"));
  httplib::Client api("127.0.0.1", webPort);
  api.set_connection_timeout(1, 0);
  api.set_read_timeout(5, 0);
  using Map = std::map<std::string, std::string>;
  // The series of `q` by their label `key`: their value, or label `label`.
  const auto series = [&](const std::string& q, const std::string& key,
                          const std::string& label = "") {
    Map out;
    const auto res = api.Get("/api/v1/query", httplib::Params{{"query", q}},
                             httplib::Headers{});
    const auto j = nlohmann::json::parse(res ? res->body : "", nullptr, false);
    if (j.is_discarded() || !j.contains("data")) return out;
    for (const auto& r : j["data"]["result"]) {
      out[r["metric"].value(key, "")] = label.empty()
                                            ? r["value"][1].get<std::string>()
                                            : r["metric"].value(label, "");
    }
    return out;
  };
  const auto promLog = [&] { return readFile(path("prometheus.log")); };

  // Polls, not sleeps: a slow start only makes the wait longer. The
  // exporter's own /metrics has counters of their own for each target.
  ASSERT_TRUE(pollFor(90, [&] {
    return (series(R"(tov_up{job="tovcluster"})", "instance") ==
                Map{{a, "1"}, {"beta", "1"}} &&
            series(R"(tov_cluster_info{job="tovcluster"})", "instance",
                   "cluster") == Map{{a, "alpha"}, {"beta", "beta"}} &&
            series(R"(up{job="tovexporter"})", "instance") ==
                Map{{exporter, "1"}} &&
            series("tov_exporter_build_info", "job") ==
                Map{{"tovexporter", "1"}} &&
            series("tov_scrapes_total > bool 0", "target") ==
                Map{{a, "1"}, {"beta", "1"}}) ||
           !prometheus.running();
  })) << promLog();
  EXPECT_TRUE(prometheus.running()) << promLog();
}

}  // namespace
