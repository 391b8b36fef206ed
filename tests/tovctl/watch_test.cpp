// `status` and its live view on big and degraded clusters: problems first,
// the filters in every output form, the change-marker column from the first
// frame on, and the live view's pinned summary and scrolling, seen through a
// terminal emulator (tmux) at 256 nodes in 80x24.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <thread>

#include "tovctl_fixture.h"

namespace {

using namespace tovctltest;
using Names = std::vector<std::string>;

// Field `field` (counted after the marker column) of each row of the table
// whose heading holds `heading`, up to the blank line after it. The marker
// column is blank from the first frame on, so that a later "*" shifts
// nothing.
Names column(const std::string& text, const std::string& heading,
             std::size_t field) {
  Names out;
  bool in = false;
  for (const std::string& line : linesOf(text)) {
    if (!in && (in = line.find(heading) != std::string::npos)) {
      EXPECT_EQ(line.rfind("   ", 0), 0u) << line;
    }
    if (line.find(heading) != std::string::npos || !in) continue;
    if (line.empty() || line == "\r") break;  // a terminal's line end
    EXPECT_EQ(line.rfind("   ", 0), 0u) << line;
    std::istringstream words(line);
    std::string word;
    for (std::size_t i = 0; i <= field; ++i) words >> word;
    out.push_back(word);
  }
  return out;
}

// `names` in the order `all` has them.
Names inOrderOf(Names names, const Names& all) {
  const auto at = [&all](const std::string& n) {
    return std::find(all.begin(), all.end(), n) - all.begin();
  };
  std::sort(names.begin(), names.end(),
            [&at](const std::string& a, const std::string& b) {
              return at(a) < at(b);
            });
  return names;
}

Names jsonNames(const json& list) {
  Names out;
  for (const json& item : list) out.push_back(item.at("name"));
  return out;
}

TEST_F(Tovctl, FiltersShowTheSameRowsProblemsFirstInEveryForm) {
  sim_ = startSim({}, kDegraded, {"127.0.0.1", "127.0.0.2"});
  const Names allNodes{"alpha", "beta", "gamma"};
  const Names allServices{"web", "db", "queue", "cache", "mail"};
  const Names problems{"queue", "cache", "mail"};
  struct Case {
    Args args;
    Names nodes, services;  // as the tables show them
    std::string shown;      // the line under the summary
  };
  const std::vector<Case> cases{
      {{},
       {"gamma", "alpha", "beta"},
       {"queue", "cache", "mail", "web", "db"},
       ""},
      {{"--problems"},
       {"gamma"},
       problems,
       "showing 1 of 3 nodes and 3 of 5 services: --problems"},
      {{"--node", "a*", "--node", "127.0.0.2"},  // by name or address
       {"alpha", "beta"},
       {"queue", "cache", "mail", "web", "db"},
       "showing 2 of 3 nodes and 5 of 5 services: --node a* --node "
       "127.0.0.2"},
      {{"--service", "m*", "--service", "0"},
       {"gamma", "alpha", "beta"},
       {"mail", "web"},
       "showing 3 of 3 nodes and 2 of 5 services: --service m* --service 0"},
      {{"--service", "[13]", "--problems", "--node", "?amma"},
       {"gamma"},
       {"cache"},
       "showing 1 of 3 nodes and 1 of 5 services: --problems --node ?amma "
       "--service [13]"},
      {{"--node", "nosuch", "--service", "db*x"},
       {},
       {},
       "showing 0 of 3 nodes and 0 of 5 services: --node nosuch --service "
       "db*x"},
  };
  const std::vector<Args> forms{
      {"status"},
      {"--json", "status"},
      {"status", "--watch", "--count", "1"},
      {"--json", "status", "--watch", "--count", "1"}};
  const std::vector<Outcome> runs =
      atOnce(cases.size() * forms.size(), [&](std::size_t i) {
        Args args = forms[i % forms.size()];
        const Args& filter = cases[i / forms.size()].args;
        args.insert(args.end(), filter.begin(), filter.end());
        args.insert(args.begin(), {"--deadline", "8"});
        return tool(args);
      });
  for (std::size_t i = 0; i < runs.size(); ++i) {
    const Case& c = cases[i / forms.size()];
    const Outcome& r = runs[i];
    SCOPED_TRACE(testing::PrintToString(forms[i % forms.size()]) + " " +
                 testing::PrintToString(c.args));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    if (forms[i % forms.size()][0] != "--json") {
      EXPECT_EQ(column(r.out, "ADDRESS", 0), c.nodes) << r.out;
      EXPECT_EQ(column(r.out, "INDEX", 1), c.services) << r.out;
      // The summary counts the whole cluster; the filter's line follows.
      Names tail{kSummary};
      if (!c.shown.empty()) tail.push_back(c.shown);
      const Names lines = linesOf(r.out);
      EXPECT_EQ(
          Names(lines.end() - std::min(lines.size(), tail.size()), lines.end()),
          tail);
      continue;
    }
    const json j = json::parse(r.out);
    EXPECT_EQ(jsonNames(j["nodes"]), inOrderOf(c.nodes, allNodes));
    EXPECT_EQ(jsonNames(j["services"]), inOrderOf(c.services, allServices));
    EXPECT_EQ(j["summary"]["text"], kSummary);
    expectFields(j["filter"], R"({"/nodes_shown": )" +
                                  std::to_string(c.nodes.size()) +
                                  R"(, "/services_shown": )" +
                                  std::to_string(c.services.size()) + "}");
    EXPECT_EQ(j["filter"]["problems"],
              std::count(c.args.begin(), c.args.end(), "--problems") > 0);
    for (const json& v : j["services"]) {
      const bool problem = std::count(problems.begin(), problems.end(),
                                      v["name"].get<std::string>()) > 0;
      EXPECT_EQ(v["problem"], problem) << v;
    }
  }
  // The patterns come back as given, each kind on its own.
  const json j = json::parse(runs[4 * forms.size() + 1].out);
  EXPECT_EQ(j["filter"]["node_patterns"], json({"?amma"}));
  EXPECT_EQ(j["filter"]["service_patterns"], json({"[13]"}));
  // The whole cluster: a silent node and a blocked service as they show;
  // the information, then a probe of each other node (node 2 refuses).
  EXPECT_THAT(runs[0].out,
              testing::ContainsRegex(
                  "\n   4 +mail +broken +auto +yes +-\n(.|\n)*"
                  "\n   gamma +127\\.0\\.0\\.7 +silent +[0-9.]+ s +[^ ]"));
  expectFields(json::parse(runs[1].out), R"({"/cluster/name": "shop",
      "/exchanges": 3, "/nodes/0/answers": true, "/nodes/2/answers": false,
      "/nodes/2/code": 69, "/services/0/state": "running",
      "/services/1/state": "stopped", "/services/2/state": "starting",
      "/services/3/state": "stopping", "/services/4/state": "broken"})");
}

TEST_F(Tovctl, ADumbTerminalHasTheMarkerColumnFromTheFirstFrame) {
  const Outcome r = tool({"status", "--watch", "--count", "1"},
                         atTerminal("", "", "TERM=dumb"));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(column(r.out, "ADDRESS", 0), Names{"node1"}) << r.out;
  EXPECT_EQ(column(r.out, "INDEX", 1), (Names{"web", "db"})) << r.out;
}

TEST_F(Tovctl, WatchOnATerminalShowsAChangeAndLeavesOnQ) {
  // vt100 repeats no character by a sequence: a line comes as it shows.
  Outcome stop;
  RunOptions ro = atTerminal("", "", "TERM=vt100");
  const auto stopWeb = [&] { stop = tool(admin({"stop", "web"})); };
  ro.steps = {{"web", stopWeb, ""}, {"web      stopped", nullptr, "q"}};
  const Outcome r = tool({"status", "--watch", "--interval", "0.5"}, ro);
  EXPECT_EQ(stop.status, 0) << stop.err;
  EXPECT_EQ(r.status, 0) << "the view did not leave on q:\n" << r.out;
  EXPECT_TRUE(r.echoOn) << "the terminal was left without echo";
  EXPECT_THAT(r.out, HasSubstr("testcluster"));
  EXPECT_THAT(r.out, testing::ContainsRegex(R"(\*\s+0\s+web\s+stopped)"))
      << "the stopped service is not marked as changed";
}

TEST_F(Tovctl, WatchOffATerminalPrintsCountSnapshotsAsTextOrJsonLines) {
  const Args watch{"status", "--watch", "--count", "2", "--interval", "0.2"};
  const Outcome r = tool(watch);
  EXPECT_GE(r.seconds, 0.2) << "no interval between the snapshots";
  EXPECT_THAT(linesOf(r.out),
              testing::Contains(StartsWith("Cluster testcluster")).Times(2));
  EXPECT_THAT(r.out, HasSubstr("\n\nCluster testcluster")) << "no blank line";
  Args asJson = watch;
  asJson.insert(asJson.begin(), "--json");
  const std::vector<std::string> lines = linesOf(tool(asJson).out);
  ASSERT_EQ(lines.size(), 2u);
  for (const std::string& line : lines) {
    expectFields(json::parse(line),
                 R"({"/code": 0, "/services/0/name": "web"})");
  }
}

// A terminal emulator of its own (tmux on a private socket) running one
// command in a window of a given size; its server ends with the command, and
// at the latest when this goes.
class Emulator {
 public:
  Emulator(const std::string& socket, const std::string& command, int columns,
           int rows)
      : socket_(socket) {
    run("new-session -d -x " + std::to_string(columns) + " -y " +
        std::to_string(rows) + " '" + command + "'");
  }
  ~Emulator() {
    run("kill-server 2>/dev/null");
    std::remove(socket_.c_str());
  }
  Emulator(const Emulator&) = delete;
  Emulator& operator=(const Emulator&) = delete;

  static bool available() { return std::system("tmux -V >/dev/null") == 0; }

  std::string run(const std::string& args) const {
    std::string out;
    FILE* p =
        popen(("tmux -S " + socket_ + " -f /dev/null " + args).c_str(), "r");
    if (p == nullptr) return out;
    char buf[4096];
    for (std::size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) {
      out.append(buf, n);
    }
    pclose(p);
    return out;
  }

  // The screen once `ok` holds for it, or as it is after `seconds`.
  template <class Ok>
  Names once(Ok ok, double seconds = 20) const {
    const auto end = std::chrono::steady_clock::now() +
                     std::chrono::duration<double>(seconds);
    for (;;) {
      const Names s = linesOf(run("capture-pane -p"));
      if (ok(s) || std::chrono::steady_clock::now() > end) return s;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }

 private:
  std::string socket_;
};

// The last line of a screen, the position and the keys.
bool showsPosition(const Names& s, const std::string& position) {
  return !s.empty() && s.back().rfind(position + "  ", 0) == 0;
}

TEST_F(Tovctl, LiveViewOf256NodesIn80x24PinsTheSummaryAndScrolls) {
  if (!Emulator::available()) {
    GTEST_SKIP() << "tmux is missing (scripts/install-deps.sh installs it)";
  }
  // node1..node256 on 127.0.1.1..127.0.2.0, node200 deep in the list silent.
  sim_ = startSim({"--nodes", "256", "--silent", "node200"},
                  R"({"cluster": {"name": "big", "poll_time": 1},
                    "services": [{"name": "web", "state": "running"},
                                 {"name": "mail", "state": "broken"}]})",
                  {});
  const std::string summary =
      "256 nodes (255 answering, 1 silent), 2 services (1 running, 1 broken)";
  const std::string exitFile = pw("watch-status");
  Emulator term(pw("tmux"),
                "timeout --foreground -s INT 60 " + std::string(TOVCTL_PATH) +
                    " -H 127.0.1.1 -p " + sim_->portStr() +
                    " status --watch --interval 2; echo $? > " + exitFile,
                80, 24);
  const auto shows = [&term](const std::string& position) {
    return term.once(
        [&](const Names& s) { return showsPosition(s, position); });
  };
  // 3 cluster lines, 2 services and 256 nodes, 2 headings, 2 blank lines.
  Names s = shows("lines 1-21 of 265");
  ASSERT_TRUE(showsPosition(s, "lines 1-21 of 265"))
      << testing::PrintToString(s);
  ASSERT_EQ(s.size(), 24u);
  EXPECT_THAT(s[0], StartsWith("snapshot of "));
  EXPECT_EQ(s[1], summary);
  EXPECT_THAT(s[2], StartsWith("Cluster big"));
  EXPECT_THAT(s[7], testing::MatchesRegex(" +1 +mail +broken .*"));
  EXPECT_THAT(s[11],
              testing::MatchesRegex(" +node200 +127\\.0\\.1\\.200 +silent .*"));
  EXPECT_THAT(s[12], StartsWith("   node1 "));

  // Each key, and where it leads: the first line of the body and the last.
  const std::vector<std::pair<std::string, std::string>> keys{
      {"NPage", "lines 22-42"}, {"j", "lines 23-43"},
      {"Down", "lines 24-44"},  {"Up", "lines 23-43"},
      {"k", "lines 22-42"},     {"PPage", "lines 1-21"},
      {"Space", "lines 22-42"}, {"b", "lines 1-21"},
      {"End", "lines 245-265"}, {"Home", "lines 1-21"},
      {"k", "lines 1-21"},      {"j", "lines 2-22"},
      {"G", "lines 245-265"},   {"Space", "lines 245-265"}};
  for (const auto& [key, position] : keys) {
    SCOPED_TRACE(key);
    term.run("send-keys " + key);
    s = shows(position + " of 265");
    ASSERT_TRUE(showsPosition(s, position + " of 265"))
        << testing::PrintToString(s);
    EXPECT_EQ(s[1], summary);
  }
  EXPECT_THAT(s[2], StartsWith("   node236 "));
  EXPECT_THAT(
      s[22], testing::MatchesRegex(" +node256 +127\\.0\\.2\\.0 +answering .*"));

  // The next snapshot keeps the place; a smaller window keeps the summary.
  const std::string taken = s[0];
  s = term.once([&](const Names& s) { return !s.empty() && s[0] != taken; });
  EXPECT_NE(s[0], taken) << "no second snapshot";
  EXPECT_TRUE(showsPosition(s, "lines 245-265 of 265"))
      << testing::PrintToString(s);
  // The first line shown stays; the last page is one line long now.
  term.run("resize-window -x 80 -y 4");
  s = shows("lines 245-245 of 265");
  ASSERT_EQ(s.size(), 4u) << testing::PrintToString(s);
  EXPECT_THAT(s[0], StartsWith("snapshot of "));
  EXPECT_EQ(s[1], summary);
  term.run("send-keys End");
  EXPECT_TRUE(
      showsPosition(shows("lines 265-265 of 265"), "lines 265-265 of 265"));
  term.run("resize-window -x 80 -y 1");
  EXPECT_EQ(term.once([&](const Names& s) { return s == Names{summary}; }),
            Names{summary});
  // One row for the body: the line goes there, not the position.
  term.run("resize-window -x 80 -y 3");
  s = term.once([](const Names& s) {
    return s.size() == 3 && s[0].rfind("snapshot of ", 0) == 0;
  });
  ASSERT_EQ(s.size(), 3u);
  EXPECT_THAT(s[2], StartsWith("   node256 "));
  // Larger again: the last page is longer, so it begins further up.
  term.run("resize-window -x 80 -y 24");
  EXPECT_TRUE(
      showsPosition(shows("lines 245-265 of 265"), "lines 245-265 of 265"));
  term.run("send-keys q");
  std::string status;
  for (int i = 0; i < 100 && status.empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::ifstream(exitFile) >> status;
  }
  EXPECT_EQ(status, "0") << "the view did not leave on q";
}

}  // namespace
