// `tovctl check` as a monitoring system runs it: verdicts, thresholds per
// count, ignored services, the -v levels, an entry node that does not
// answer (its help: command_line_test.cpp).
#include <algorithm>
#include <regex>

#include "tovctl_fixture.h"

namespace {

using namespace tovctltest;

std::string esc(const std::string& text) {
  return std::regex_replace(text, std::regex(R"([.^$|()\[\]{}*+?\\])"), "\\$&");
}

const std::string kAll = esc(kSummary);
// The performance data of any thresholds; rows that check them spell it out.
const std::string kAnyPerf = "nodes_answering=[^|\n]* time=[0-9.]+s;;;0;8";

// The one line of a check that could not run.
std::string unknown(const std::string& text) {
  return "TOVCLUSTER UNKNOWN - " + text + "[^\n]*\n";
}

// The status line alone, through the simulator ({at}).
std::string line(const std::string& state, const std::string& text = kAll,
                 const std::string& perf = kAnyPerf) {
  return "TOVCLUSTER " + state + " - cluster shop via \\{at\\}: " + text +
         " \\| " + perf + "\n";
}

// Nagios shows the text before the performance data as it is, but turns
// ';' into ':'; '|' would start the performance data and a control
// character would end the line or reach the operator's terminal.
void expectPlainText(const std::string& out) {
  const std::vector<std::string> lines = linesOf(out);
  for (std::size_t i = 0; i < lines.size(); ++i) {
    std::string text = lines[i];
    if (i == 0 && text.find(" | ") != std::string::npos) {
      text.erase(text.find(" | "));
    }
    EXPECT_EQ(text.find_first_of(";|"), std::string::npos) << text;
    EXPECT_TRUE(std::none_of(text.begin(), text.end(), [](char ch) {
      return (ch >= 0 && ch < 0x20) || ch == 0x7f;
    })) << text;
  }
}

const std::string kNoMail =
    esc("3 nodes (2 answering, 1 silent), 4 services (1 running, 1 stopped, 1 "
        "starting, 1 stopping), 1 ignored");
const std::string kNoMailPerf =
    "nodes_answering=2;;;0;3 nodes_silent=1;0;;0;3 services_running=1;;;0;4 "
    "services_not_running=3;0;;0;4 services_stopped=1;;;0;4 "
    "services_blocked=0;;;0;4 services_broken=0;0;0;0;4 "
    "services_ignored=1;;;0;5 time=[0-9.]+s;;;0;8";
// With no threshold given, and with -w 1,4,1 -c 0,4,2:.
const std::string kPerf =
    "nodes_answering=2;;;0;3 nodes_silent=1;0;;0;3 services_running=1;;;0;5 "
    "services_not_running=4;0;;0;5 services_stopped=1;;;0;5 "
    "services_blocked=1;;;0;5 services_broken=1;0;0;0;5 "
    "services_ignored=0;;;0;5 time=[0-9.]+s;;;0;8";
const std::string kPerfRanges =
    "nodes_answering=2;;;0;3 nodes_silent=1;1;0;0;3 services_running=1;;;0;5 "
    "services_not_running=4;4;4;0;5 services_stopped=1;;;0;5 "
    "services_blocked=1;;;0;5 services_broken=1;1;2:;0;5 "
    "services_ignored=0;;;0;5 time=[0-9.]+s;;;0;8";
const std::string kAutoOnly =
    esc("3 nodes (2 answering, 1 silent), 4 services (1 running, 1 starting, 1 "
        "stopping, 1 broken, 1 blocked), 1 ignored");
const std::string kAutoNoMail =
    esc("3 nodes (2 answering, 1 silent), 3 services (1 running, 1 starting, 1 "
        "stopping), 2 ignored");
const std::string kConfig =
    "warning thresholds: silent nodes 0, services not running 0, services "
    "broken 0\ncritical thresholds: silent nodes none, services not running "
    "none, services broken 0\n";
const std::string kProblems =
    "node gamma \\(127\\.0\\.0\\.7\\) is silent: cannot connect[^\n]*\n"
    "service 1 \\(db\\) is stopped\nservice 2 \\(queue\\) is starting\n"
    "service 3 \\(cache\\) is stopping\nservice 4 \\(mail\\) is broken, "
    "blocked\n";
const std::string kEveryNodeAndService =
    "node alpha \\(127\\.0\\.0\\.1\\) answers \\([0-9.]+ s\\)\n"
    "node beta \\(127\\.0\\.0\\.2\\) answers \\([0-9.]+ s\\)\n"
    "node gamma \\(127\\.0\\.0\\.7\\) is silent: cannot connect[^\n]*\n"
    "service 0 \\(web\\) is running, auto mode, on alpha\n"
    "service 1 \\(db\\) is stopped, manual mode, on -\n"
    "service 2 \\(queue\\) is starting, auto mode, on beta\n"
    "service 3 \\(cache\\) is stopping, auto mode, on beta\n"
    "service 4 \\(mail\\) is broken, blocked, auto mode, on -, ignored "
    "\\(--ignore-service m\\*\\)\n";
const std::string kVerbose =
    " - silent: gamma - broken: mail - not running: db, queue, cache";
const std::string kEntry = "entry node \\{at\\} answered \\([0-9.]+ s\\)\n";

TEST_F(Tovctl, CheckFollowsTheMonitoringPluginConventions) {
  sim_ = startSim({}, kDegraded, {"127.0.0.1", "127.0.0.2"});
  const std::string in = esc("--ignore-service mail leaves out mail\n");
  struct Row {
    Args args;
    int status;
    std::string want;  // the whole output; {at} is the simulator's address
  };
  const std::vector<Row> rows{
      // Any broken service is CRITICAL, the rest a WARNING.
      {{}, 2, line("CRITICAL", kAll, kPerf)},
      {{"--ignore-service", "mail"}, 1, line("WARNING", kNoMail, kNoMailPerf)},
      {{"--ignore-service", "ma*"}, 1, line("WARNING", kNoMail, kNoMailPerf)},
      {{"--ignore-service", "4"}, 1, line("WARNING", kNoMail, kNoMailPerf)},
      {{"--ignore-service", "m"}, 2, line("CRITICAL")},
      {{"--auto-only"}, 2, line("CRITICAL", kAutoOnly)},
      {{"--auto-only", "--ignore-service", "mail", "-w", ",2"},
       1,
       line("WARNING", kAutoNoMail)},
      {{"--auto-only", "--ignore-service", "mail", "-w", "1,2"},
       0,
       line("OK", kAutoNoMail)},
      // Counts of 1 silent, 4 not running, 1 broken against each range.
      {{"-w", "1,4,1", "-c", ",,~:"}, 0, line("OK")},
      {{"-w", "0,4,1", "-c", ",,~:"}, 1, line("WARNING")},
      {{"-w", "1,3,1", "-c", ",,~:"}, 1, line("WARNING")},
      {{"-w", "1,5:,1", "-c", ",,~:"}, 1, line("WARNING")},
      {{"-w", "1,4,0", "-c", ",,~:"}, 1, line("WARNING")},
      {{"-w", "1,4,@1:5", "-c", ",,~:"}, 1, line("WARNING")},
      {{"-w", "4", "-c", ",,~:"}, 0, line("OK")},
      {{"-w", "1", "-c", ",,~:"}, 1, line("WARNING")},
      {{"-c", "4"}, 1, line("WARNING")},
      {{"-w", "1,4,1", "-c", "1,4,1"}, 0, line("OK")},
      {{"-w", "1,4,1", "-c", "1,4"}, 2, line("CRITICAL")},
      {{"-w", "1,4,1", "-c", "1,3,1"}, 2, line("CRITICAL")},
      {{"-w", "1,4,1", "-c", "0,4,2:"}, 2, line("CRITICAL", kAll, kPerfRanges)},
      // Everything it can say about a bad command line is one line.
      {{"-w", "2:1"}, 3, unknown("-w 2:1: the start ")},
      {{"-w", "x"}, 3, unknown("-w x: \"x\" is not a range")},
      {{"-w", "1,2,3,4"}, 3, unknown("-w 1,2,3,4: at most ")},
      {{"-c", "1;2|\x01"},
       3,
       unknown(R"(-c 1,2/\\x01: "1,2/\\x01" is not a range)")},
      {{"--ignore-service", ""}, 3, unknown("--ignore-service")},
      {{"--verbose=-1"}, 3, unknown("--verbose")},
      {{"--frobnicate"}, 3, unknown("usage: ")},
      {{"--deadline", "0.001"}, 3, unknown("deadline of ")},
      // Only when no entry node answers is the cluster out of reach.
      {{"-H", "127.0.0.7", "-H", "127.0.0.8"},
       2,
       "TOVCLUSTER CRITICAL - cannot reach the cluster through "
       "127\\.0\\.0\\.7:[0-9]+ \\(cannot connect[^)]*\\), "
       "127\\.0\\.0\\.8:[0-9]+ "
       "\\(cannot connect[^)]*\\)\n"},
      // The -v levels.
      {{"--verbose=1"}, 2, line("CRITICAL", kAll + kVerbose)},
      {{"-vv"},
       2,
       line("CRITICAL", kAll + kVerbose) + kEntry + kConfig +
           "no service ignored\ndeadline: 8 s, snapshot taken in [0-9.]+ s\n" +
           kProblems},
      {{"-vvvv", "--ignore-service", "m*", "-c", ",,~:"},
       1,
       line("WARNING", kNoMail + " - silent: gamma - not running: db, "
                                 "queue, cache") +
           kEntry +
           "warning thresholds: [^\n]*\ncritical thresholds: silent nodes "
           "none, services not running none, services broken ~:\n" +
           esc("--ignore-service m* leaves out mail\n") + "deadline: [^\n]*\n" +
           kEveryNodeAndService},
      {{"-v", "-v", "-H", "127.0.0.7", "-H", "127.0.0.1", "--auto-only",
        "--ignore-service", "mail", "--ignore-service", "x*"},
       1,
       line("WARNING",
            kAutoNoMail + " - silent: gamma - not running: queue, cache") +
           "entry node 127\\.0\\.0\\.7:[0-9]+ did not answer: cannot "
           "connect[^\n]*\n" +
           kEntry + kConfig + in +
           esc("--ignore-service x* leaves out no service\n"
               "--auto-only leaves out db\n") +
           "deadline: [^\n]*\nnode gamma \\(127\\.0\\.0\\.7\\) is silent: as "
           "entry node: cannot connect[^\n]*\nservice 2 \\(queue\\) is "
           "starting\nservice 3 \\(cache\\) is stopping\n"},
      {{"-vv", "-H", "127.0.0.7", "--ignore-service", "mail"},
       2,
       "TOVCLUSTER CRITICAL - cannot reach the cluster through "
       "127\\.0\\.0\\.7:[0-9]+ \\([^)]*\\)\nentry node 127\\.0\\.0\\.7:[0-9]+ "
       "did not answer: [^\n]*\n" +
           kConfig + "--ignore-service mail\ndeadline: [^\n]*\n"},
  };
  const std::vector<Outcome> got = atOnce(rows.size(), [&](std::size_t i) {
    Args args{"check"};
    args.insert(args.end(), rows[i].args.begin(), rows[i].args.end());
    if (std::find(args.begin(), args.end(), "--deadline") == args.end()) {
      args.insert(args.begin(), {"--deadline", "8"});
    }
    return tool(args);
  });
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(testing::PrintToString(rows[i].args));
    const Outcome& r = got[i];
    EXPECT_EQ(r.status, rows[i].status) << r.out;
    EXPECT_EQ(r.err, "");
    const std::string want = std::regex_replace(
        rows[i].want, std::regex(R"(\\\{at\\\})"), esc(at()));
    EXPECT_TRUE(std::regex_match(r.out, std::regex(want)))
        << "output:\n"
        << r.out << "pattern:\n"
        << want;
    expectPlainText(r.out);
  }
}

// 256 nodes, 255 of them silent, still give a status line of reasonable
// length: five names and how many more.
TEST_F(Tovctl, CheckNamesFiveOfAListOnItsStatusLine) {
  std::string nodes = R"({"name": "n1", "address": "127.0.0.1"})";
  for (int i = 2; i <= 256; ++i) {
    nodes += R"(, {"name": "n)" + std::to_string(i) +
             R"(", "address": "127.0.)" + std::to_string(1 + i / 250) + "." +
             std::to_string(i % 250 + 1) + R"(", "silent": true})";
  }
  sim_ = startSim({}, R"({"cluster": {"name": "big"}, "nodes": [)" + nodes +
                          R"(], "services": [{"name": "web", "state": "running",
                        "mode": "auto", "node": "n1"}]})");
  const Outcome r = tool({"check", "-v"});
  EXPECT_EQ(r.status, 1) << r.err;
  const std::vector<std::string> lines = linesOf(r.out);
  ASSERT_EQ(lines.size(), 1u) << r.out;
  EXPECT_THAT(lines[0], HasSubstr(": 256 nodes (1 answering, 255 silent), 1 "
                                  "service (1 running) - silent: n2, n3, n4, "
                                  "n5, n6 and 250 more | "));
  EXPECT_LT(lines[0].find(" | "), 200u);
}

}  // namespace
