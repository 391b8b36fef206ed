// tovexporter as Prometheus sees it: valid, true to the cluster, scraped by a
// real server, and never held past its deadline by a node that stalls.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include "support/net_helpers.h"
#include "support/sim.h"
#include "tovexporter/metrics.h"

namespace {

using Clock = std::chrono::steady_clock;
using Lines = std::vector<std::string>;

const char* const kPromtool = "/usr/bin/promtool";
const char* const kPrometheus = "/usr/bin/prometheus";
const std::string kFffd = "\xEF\xBF\xBD";  // what replaces bytes not UTF-8

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Polls `done` until it holds or `seconds` have passed.
bool pollFor(double seconds, const std::function<bool()>& done) {
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

// A program logging to a file; stop() ends it, the kernel if the test dies.
class Child {
 public:
  Child(Lines args, const std::string& log,
        const std::string& input = "/dev/null") {
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    const int in = open(input.c_str(), O_RDONLY);
    const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (getppid() != parent || in < 0 || out < 0) _exit(127);
    for (const int fd : {0, 1, 2}) dup2(fd == 0 ? in : out, fd);
    execv(argv[0], argv.data());
    _exit(127);
  }
  ~Child() { stop(); }

  bool running() {
    int st = 0;
    if (pid_ <= 0 || waitpid(pid_, &st, WNOHANG) != pid_) return pid_ > 0;
    status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    pid_ = -1;
    return false;
  }
  // Waits up to `seconds` for it to end, then stop()s it.
  int wait(double seconds) {
    pollFor(seconds, [this] { return !running(); });
    return stop();
  }
  // SIGTERM, then SIGKILL after 5 s: the exit status, -1 after a signal.
  int stop() {
    for (const int sig : {SIGTERM, SIGKILL}) {
      if (running()) kill(pid_, sig);
      pollFor(5, [this] { return !running(); });
    }
    return status_;
  }

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

// Whether a line begins with `want`, or with its part before '*' and ends
// with its part after.
bool hasLine(const std::string& body, const std::string& want) {
  std::string re =
      std::regex_replace(want, std::regex(R"([.^$|()[\]{}+?\\])"), R"(\$&)");
  const std::size_t star = re.find('*');
  if (star != std::string::npos) re.replace(star, 1, "[^\n]*") += "\n";
  return std::regex_search("\n" + body + "\n", std::regex("\n" + re));
}

// Lines the exposition must have; those marked '!' it must not have.
void expectLines(const std::string& body, const Lines& want) {
  for (const std::string& w : want) {
    const bool absent = w[0] == '!';
    EXPECT_EQ(hasLine(body, w.substr(absent ? 1 : 0)), !absent)
        << (absent ? "a line that must not be there: " : "missing: ") << w;
  }
}

// Simulators and one exporter, files in a temporary directory. The exporter
// must end with status 0 on SIGTERM and remove its ready file.
class ExporterTest : public testing::Test {
 protected:
  void SetUp() override {
    char templ[] = "/tmp/tovexporter-test-XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    dir_ = templ;
  }
  void TearDown() override {
    if (exporter_) {
      EXPECT_EQ(exporter_->stop(), 0) << readFile(path("exporter.log"));
      EXPECT_FALSE(std::filesystem::exists(path("exporter.port")));
    }
    std::filesystem::remove_all(dir_);
  }

  std::string path(const std::string& name) const { return dir_ + "/" + name; }

  simtest::SimProcess& startSim(const std::string& config,
                                const std::string& address = "127.0.95.1",
                                int port = 0, Lines extra = {}) {
    simtest::SimOptions o;
    o.configJson = config;
    o.listen = {address};
    o.port = port;
    o.extraArgs = std::move(extra);
    o.maxLifetimeSec = 60;
    sims_.push_back(std::make_unique<simtest::SimProcess>(o));
    return *sims_.back();
  }

  void startExporter(Lines args) {
    args.insert(args.begin(), {TOVEXPORTER_PATH, "--listen", "127.0.0.1:0",
                               "--ready-file", path("exporter.port")});
    exporter_ = std::make_unique<Child>(args, path("exporter.log"));
    std::string ready;
    pollFor(30, [&] {
      ready = readFile(path("exporter.port"));
      return (!ready.empty() && ready.back() == '\n') || !exporter_->running();
    });
    ASSERT_FALSE(ready.empty()) << readFile(path("exporter.log"));
    port_ = std::stoi(ready);
  }

  httplib::Result get(const std::string& target,
                      const httplib::Headers& headers = {}) {
    httplib::Client client("127.0.0.1", port_);
    client.set_read_timeout(15, 0);
    return client.Get(target, headers);
  }

  std::string dir_;
  std::vector<std::unique_ptr<simtest::SimProcess>> sims_;
  std::unique_ptr<Child> exporter_;
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
const Lines kTimedOut = {"tov_up 0",
                         R"(tov_scrape_errors_total{code="deadline",*} 1)",
                         "!tov_cluster_", "!tov_node_", "!tov_service_"};

const std::vector<Row> kRows = {
    {"Healthy",
     R"({"cluster": {"name": "healthy", "poll_time": 1},
         "nodes": [{"name": "n1", "address": "127.0.95.1"}],
         "services": [{"name": "web", "state": "running", "mode": "auto",
                       "node": "n1"}]})",
     {"127.0.95.1"},
     {"tov_up 1", R"(tov_node_up{node="n1",address="127.0.95.1"} 1)",
      R"(tov_service_state{service="web",index="0",state="running"} 1)",
      "!tov_scrape_errors_total{"}},
    {"SecondHostAnswers",
     simtest::defaultConfigJson(),
     {"127.0.95.9", "127.0.95.1"},
     {"tov_up 1", R"(tov_cluster_info{cluster="testcluster",*} 1)",
      R"(tov_cluster_info{*,host="127.0.95.1"} 1)",
      R"(!tov_scrape_errors_total{code="deadline")",
      "tov_scrape_errors_total{*} 1",
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
  httplib::Headers headers;
  if (*row.header)
    headers = {{"X-Prometheus-Scrape-Timeout-Seconds", row.header}};
  const auto begun = Clock::now();
  const auto res = get("/metrics", headers);
  EXPECT_LE(std::chrono::duration<double>(Clock::now() - begun).count(),
            *row.header ? 6 : 12);
  ASSERT_TRUE(res && res->status == 200);
  EXPECT_EQ(res->get_header_value("Content-Type"),
            "text/plain; version=0.0.4; charset=utf-8");
  SCOPED_TRACE(res->body);
  expectLines(res->body, row.expect);
  EXPECT_EQ(get("/")->status, 200);
  EXPECT_EQ(get("/nothing")->status, 404);

  if (access(kPromtool, X_OK) != 0) GTEST_SKIP() << kPromtool << " missing";
  std::ofstream(path("scrape.prom"), std::ios::binary) << res->body;
  Child check({kPromtool, "check", "metrics"}, path("promtool.log"),
              path("scrape.prom"));
  EXPECT_EQ(check.wait(60), 0) << readFile(path("promtool.log"));
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

TEST_F(ExporterTest, PrometheusScrapesItAndSeesAServiceStop) {
  if (access(kPrometheus, X_OK) != 0) GTEST_SKIP() << kPrometheus << " missing";
  simtest::SimProcess& sim = startSim(simtest::defaultConfigJson());
  startExporter({"-H", "127.0.95.1", "-p", sim.portStr()});
  std::ofstream(path("prometheus.yml"))
      << "global: {scrape_interval: 1s, scrape_timeout: 1s}\n"
         "scrape_configs:\n"
         "  - job_name: tov\n"
         "    static_configs: [{targets: ['127.0.0.1:"
      << port_ << "']}]\n";
  const int webPort = testsupport::closedPort();
  Child prometheus({kPrometheus, "--config.file=" + path("prometheus.yml"),
                    "--storage.tsdb.path=" + path("tsdb"),
                    "--web.listen-address=127.0.0.1:" + std::to_string(webPort),
                    "--log.level=warn"},
                   path("prometheus.log"));
  httplib::Client api("127.0.0.1", webPort);
  api.set_connection_timeout(1, 0);
  api.set_read_timeout(5, 0);
  const auto query = [&](const std::string& q) {
    const httplib::Params params{{"query", q}};
    const auto res = api.Get("/api/v1/query", params, httplib::Headers{});
    const auto j = nlohmann::json::parse(res ? res->body : "", nullptr, false);
    if (j.is_discarded() || j["data"]["result"].empty()) return std::nan("");
    return std::stod(j["data"]["result"][0]["value"][1].get<std::string>());
  };
  const auto promLog = [&] { return readFile(path("prometheus.log")); };

  // Polls, not sleeps: a slow start only makes the wait longer.
  ASSERT_TRUE(pollFor(90, [&] {
    return query("count_over_time(tov_up[1m])") >= 2 || !prometheus.running();
  }));
  ASSERT_TRUE(prometheus.running()) << promLog();
  EXPECT_EQ(query("tov_up"), 1) << promLog();
  EXPECT_EQ(query(R"(tov_service_state{service="web",state="running"})"), 1);

  std::ofstream(path("pw")) << "secret\n";  // given on standard input
  Child tovctl({TOVCTL_PATH, "-H", "127.0.95.1", "-p", sim.portStr(), "-u",
                "admin", "--password-file", "-", "stop", "web"},
               path("tovctl.log"), path("pw"));
  ASSERT_EQ(tovctl.wait(30), 0) << readFile(path("tovctl.log"));
  EXPECT_TRUE(pollFor(60, [&] {
    return query(R"(tov_service_state{service="web",state="stopped"})") == 1;
  })) << promLog();
}

}  // namespace
