#include "check.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "codes.h"
#include "common/text.h"
#include "filter.h"
#include "status.h"

namespace tovctl {

namespace {

// A threshold in the Monitoring Plugins range syntax: "10" (alert outside
// 0..10), "10:" (below 10), "~:10" (above 10), "10:20", "@10:20" (alert
// inside), "~:" (never).
struct CheckRange {
  std::string text;
  bool inside = false;
  double low = 0;
  double high = 0;
  static bool parse(const std::string& text, CheckRange& out, std::string& why);
  bool alerts(double value) const;
};

// The check's command line as read, before it is checked.
struct CheckArgs {
  std::string warning;              // SILENT[,DOWN[,BROKEN]]
  std::string critical;             // the same
  std::vector<std::string> ignore;  // --ignore-service, as given
  bool autoOnly = false;
  int verbose = 0;  // -v repeated, or --verbose=N
};

constexpr int kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3;
const char* const kStateWords[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
constexpr int kMaxVerbose = 3;
// Names per list on the status line from -v on: a cluster of 256 silent
// nodes must still fit a status line.
constexpr std::size_t kNamesShown = 5;

// The counts judged, in the order -w and -c give their ranges.
enum Count { kSilent, kDown, kBroken, kCounts };
const char* const kCountNames[kCounts] = {
    "silent nodes", "services not running", "services broken"};
using Ranges = std::array<std::optional<CheckRange>, kCounts>;

struct CheckOptions {
  Ranges warn, crit;
  std::vector<std::string> ignore;
  bool autoOnly = false;
  int verbose = 0;
};

using tovtools::NodeStatus;
using tovtools::ServiceStatus;
using tovtools::Snapshot;

std::string joined(const std::vector<std::string>& parts,
                   const std::string& sep = ", ") {
  std::string out;
  for (const std::string& p : parts) out += (out.empty() ? "" : sep) + p;
  return out;
}

// Text a monitoring system shows as it is: control characters escaped,
// ';' (Nagios turns it into ':') and '|' (the performance data would start
// there) replaced.
std::string plain(const std::string& text) {
  std::string out = tovtools::escapeControls(text, false);
  for (char& ch : out) {
    if (ch == '\t') ch = ' ';
    if (ch == ';') ch = ',';
    if (ch == '|') ch = '/';
  }
  return out;
}

// The status line, with performance data when there is any, then the long
// text. Returns the state.
int verdict(int state, const std::string& text, const std::string& perf,
            const std::vector<std::string>& lines) {
  std::cout << "TOVCLUSTER " << kStateWords[state] << " - " << plain(text);
  if (!perf.empty()) std::cout << " | " << perf;
  std::cout << '\n';
  for (const std::string& line : lines) std::cout << plain(line) << '\n';
  std::cout.flush();
  return state;
}

std::string serviceName(const ServiceStatus& v) {
  return v.name.empty() ? std::to_string(v.index) : v.name;
}

bool manual(const ServiceStatus& v, const CheckOptions& c) {
  return c.autoOnly && v.mode != "auto";
}

// Why the check leaves a service out of its judgement; "" when it does not.
std::string leftOut(const ServiceStatus& v, const CheckOptions& c) {
  for (const std::string& p : c.ignore) {
    if (serviceMatches(p, v)) return "ignored (--ignore-service " + p + ")";
  }
  if (manual(v, c)) {
    return "left out (--auto-only, " +
           (v.mode.empty() ? std::string("no") : v.mode) + " mode)";
  }
  return "";
}

struct Judgement {
  Snapshot judged;  // the snapshot with the services judged only
  tovtools::SnapshotCounts n;
  std::vector<std::string> why;  // per service of the snapshot: leftOut()
  unsigned ignored = 0;
  std::array<unsigned, kCounts> values{};
  int state = kOk;
};

Judgement judge(const Snapshot& s, const CheckOptions& c) {
  Judgement j;
  j.judged = s;
  j.judged.services.clear();
  for (const ServiceStatus& v : s.services) {
    j.why.push_back(leftOut(v, c));
    if (j.why.back().empty()) {
      j.judged.services.push_back(v);
    } else {
      ++j.ignored;
    }
  }
  j.n = tovtools::countsOf(j.judged);
  j.values = {j.n.silent, j.n.notRunning(), j.n.broken};
  for (int i = 0; i < kCounts; ++i) {
    if (c.crit[i] && c.crit[i]->alerts(j.values[i])) {
      j.state = std::max(j.state, kCritical);
    } else if (c.warn[i] && c.warn[i]->alerts(j.values[i])) {
      j.state = std::max(j.state, kWarning);
    }
  }
  return j;
}

// "a, b, c, d, e and 7 more"
std::string capped(const std::vector<std::string>& names) {
  std::vector<std::string> shown(
      names.begin(), names.begin() + std::min(names.size(), kNamesShown));
  std::string out = joined(shown);
  if (names.size() > shown.size()) {
    out += " and " + std::to_string(names.size() - shown.size()) + " more";
  }
  return out;
}

// " - silent: gamma - broken: mail - not running: db, queue", for -v.
std::string failingNames(const Snapshot& judged) {
  std::vector<std::string> silent, broken, down;
  for (const NodeStatus& n : judged.nodes) {
    if (!n.answers) silent.push_back(n.name);
  }
  for (const ServiceStatus& v : judged.services) {
    if (v.state == "broken") {
      broken.push_back(serviceName(v));
    } else if (v.state != "running") {
      down.push_back(serviceName(v));
    }
  }
  std::string out;
  if (!silent.empty()) out += " - silent: " + capped(silent);
  if (!broken.empty()) out += " - broken: " + capped(broken);
  if (!down.empty()) out += " - not running: " + capped(down);
  return out;
}

std::string rangesText(const Ranges& r) {
  std::vector<std::string> parts;
  for (int i = 0; i < kCounts; ++i) {
    parts.push_back(std::string(kCountNames[i]) + " " +
                    (r[i] ? r[i]->text : std::string("none")));
  }
  return joined(parts);
}

// What the check was told and how the entry nodes did, for -vv.
std::vector<std::string> configLines(const Snapshot& s, const CheckOptions& c,
                                     double deadline) {
  std::vector<std::string> out;
  for (const tovtools::EntryAttempt& a : s.entries) {
    out.push_back(
        "entry node " + hostPortLabel(a.host, a.port) +
        (a.answered() ? " answered" : " did not answer: " + a.reason()) + " (" +
        tovtools::fixedSeconds(a.seconds, 3) + " s)");
  }
  out.push_back("warning thresholds: " + rangesText(c.warn));
  out.push_back("critical thresholds: " + rangesText(c.crit));
  auto leaves = [&s](const std::string& what, auto test) {
    if (!s.ok()) return what;  // no service list to match
    std::vector<std::string> names;
    for (const ServiceStatus& v : s.services) {
      if (test(v)) names.push_back(serviceName(v));
    }
    return what + " leaves out " +
           (names.empty() ? std::string("no service") : joined(names));
  };
  for (const std::string& p : c.ignore) {
    out.push_back(leaves("--ignore-service " + p, [&p](const ServiceStatus& v) {
      return serviceMatches(p, v);
    }));
  }
  if (c.autoOnly) {
    out.push_back(leaves(
        "--auto-only", [&c](const ServiceStatus& v) { return manual(v, c); }));
  }
  if (c.ignore.empty() && !c.autoOnly) out.push_back("no service ignored");
  out.push_back("deadline: " +
                (deadline > 0 ? tovtools::secondsText(deadline) + " s"
                              : std::string("none")) +
                ", snapshot taken in " + tovtools::fixedSeconds(s.seconds, 3) +
                " s");
  return out;
}

// The silent nodes and the services judged that do not run, for -vv.
std::vector<std::string> problemLines(const Snapshot& judged) {
  std::vector<std::string> out;
  for (const NodeStatus& n : judged.nodes) {
    if (!n.answers) {
      out.push_back("node " + n.name + " (" + n.address +
                    ") is silent: " + n.reason);
    }
  }
  for (const ServiceStatus& v : judged.services) {
    if (v.state != "running") {
      out.push_back("service " + std::to_string(v.index) + " (" + v.name +
                    ") is " + v.state + (v.blocked ? ", blocked" : ""));
    }
  }
  return out;
}

// Every node and every service, for -vvv.
std::vector<std::string> detailLines(const Snapshot& s, const Judgement& j) {
  std::vector<std::string> out;
  for (const NodeStatus& n : s.nodes) {
    out.push_back("node " + n.name + " (" + n.address + ") " +
                  (n.answers ? "answers" : "is silent: " + n.reason) + " (" +
                  tovtools::fixedSeconds(n.seconds, 3) + " s)");
  }
  for (std::size_t i = 0; i < s.services.size(); ++i) {
    const ServiceStatus& v = s.services[i];
    out.push_back("service " + std::to_string(v.index) + " (" + v.name +
                  ") is " + v.state + (v.blocked ? ", blocked" : "") + ", " +
                  (v.mode.empty() ? "no" : v.mode) + " mode, on " +
                  (v.node.empty() ? "-" : v.node) +
                  (j.why[i].empty() ? "" : ", " + j.why[i]));
  }
  return out;
}

// 'label'=value[UOM];[warn];[crit];[min];[max]
std::string perfData(const Judgement& j, const CheckOptions& c,
                     const Snapshot& s, double deadline) {
  const tovtools::SnapshotCounts& n = j.n;
  auto item = [](const std::string& label, unsigned v, unsigned max,
                 const std::optional<CheckRange>& w = std::nullopt,
                 const std::optional<CheckRange>& cr = std::nullopt) {
    return label + "=" + std::to_string(v) + ";" + (w ? w->text : "") + ";" +
           (cr ? cr->text : "") + ";0;" + std::to_string(max) + " ";
  };
  return item("nodes_answering", n.answering, n.nodes) +
         item("nodes_silent", n.silent, n.nodes, c.warn[kSilent],
              c.crit[kSilent]) +
         item("services_running", n.running, n.services) +
         item("services_not_running", n.notRunning(), n.services, c.warn[kDown],
              c.crit[kDown]) +
         item("services_stopped", n.stopped, n.services) +
         item("services_blocked", n.blocked, n.services) +
         item("services_broken", n.broken, n.services, c.warn[kBroken],
              c.crit[kBroken]) +
         item("services_ignored", j.ignored,
              static_cast<unsigned>(s.services.size())) +
         "time=" + tovtools::fixedSeconds(s.seconds, 3) + "s;;;0;" +
         (deadline > 0 ? tovtools::secondsText(deadline) : "");
}

// "a:1195 (cannot connect), b:1195 (no answer before the deadline)"
std::string entriesTried(const Snapshot& s) {
  std::vector<std::string> parts;
  for (const tovtools::EntryAttempt& a : s.entries) {
    parts.push_back(hostPortLabel(a.host, a.port) + " (" + a.reason() + ")");
  }
  if (parts.empty()) {
    parts.push_back(hostPortLabel(s.host, s.port) + " (" + codeText(s.code) +
                    ")");
  }
  return joined(parts);
}

int cmdCheck(const Options& o, const CheckOptions& c) {
  const Snapshot snap = snapshotOf(o, [&o] {
    verdict(kUnknown,
            "deadline of " + tovtools::secondsText(o.deadline) +
                " s expired: the library was blocked in a call that did not "
                "give up (a name lookup?)",
            "", {});
    std::_Exit(kUnknown);
  });
  const std::string label = hostPortLabel(snap.host, snap.port);
  std::vector<std::string> lines;
  if (c.verbose >= 2) lines = configLines(snap, c, o.deadline);
  if (snap.expired || snap.cut) {
    return verdict(
        kUnknown,
        "deadline of " + tovtools::secondsText(o.deadline) +
            " s expired while " +
            (snap.expired ? "awaiting the cluster information from " + label
                          : "probing the nodes"),
        "", lines);
  }
  if (snap.code != 0) {
    return verdict(kCritical,
                   "cannot reach the cluster through " + entriesTried(snap), "",
                   lines);
  }
  const Judgement j = judge(snap, c);
  std::string text = "cluster " + snap.cluster.name + " via " + label + ": " +
                     tovtools::summaryText(j.n);
  if (j.ignored > 0) text += ", " + std::to_string(j.ignored) + " ignored";
  if (c.verbose >= 1) text += failingNames(j.judged);
  std::vector<std::string> more =
      c.verbose >= 3 ? detailLines(snap, j) : problemLines(j.judged);
  if (c.verbose >= 2) lines.insert(lines.end(), more.begin(), more.end());
  return verdict(j.state, text, perfData(j, c, snap, o.deadline), lines);
}

// "-w 0" sets every threshold, "-w 0,2" silent nodes and services not
// running apart, "-w ,,1" only services broken; an empty one keeps its
// default.
bool splitThresholds(const std::string& given, Ranges& out, std::string& why) {
  if (given.empty()) return true;
  std::vector<std::string> parts;
  std::size_t from = 0;
  for (std::size_t comma; (comma = given.find(',', from)) != given.npos;
       from = comma + 1) {
    parts.push_back(given.substr(from, comma - from));
  }
  parts.push_back(given.substr(from));
  if (parts.size() > kCounts) {
    why =
        "at most three ranges: silent nodes, services not running, "
        "services broken";
    return false;
  }
  if (parts.size() == 1) parts.assign(kCounts, parts[0]);
  for (std::size_t i = 0; i < parts.size(); ++i) {
    CheckRange r;
    if (parts[i].empty()) continue;
    if (!CheckRange::parse(parts[i], r, why)) return false;
    out[i] = r;
  }
  return true;
}

// The command line checked; "" when it is good, else why not.
std::string checkOptionsOf(const CheckArgs& a, CheckOptions& c) {
  std::string why;
  CheckRange zero;
  CheckRange::parse("0", zero, why);
  c.warn = {zero, zero, zero};
  c.crit = {std::nullopt, std::nullopt, zero};
  if (!splitThresholds(a.warning, c.warn, why)) {
    return "-w " + a.warning + ": " + why;
  }
  if (!splitThresholds(a.critical, c.crit, why)) {
    return "-c " + a.critical + ": " + why;
  }
  for (const std::string& p : a.ignore) {
    if (p.empty()) return "--ignore-service: an empty name";
  }
  if (a.verbose < 0) return "--verbose: a level from 0 to 3";
  c.ignore = a.ignore;
  c.autoOnly = a.autoOnly;
  c.verbose = std::min(a.verbose, kMaxVerbose);
  return "";
}

bool CheckRange::parse(const std::string& given, CheckRange& r,
                       std::string& why) {
  r = CheckRange{};
  r.text = given;
  // Only what the syntax needs: the text goes into the performance data.
  if (given.find_first_not_of("0123456789.+-eE:~@") != given.npos) {
    why = "\"" + given + "\" is not a range (N, N:, ~:N, M:N or @M:N)";
    return false;
  }
  std::string t = given;
  if (!t.empty() && t[0] == '@') {
    r.inside = true;
    t.erase(0, 1);
  }
  auto value = [&why](const std::string& s, double& out) {
    char* end = nullptr;
    out = std::strtod(s.c_str(), &end);
    if (s.empty() || *end != '\0' || !std::isfinite(out)) {
      why = "\"" + s + "\" is not a number";
      return false;
    }
    return true;
  };
  const std::size_t colon = t.find(':');
  const std::string start =
      colon == std::string::npos ? "" : t.substr(0, colon);
  const std::string end = colon == std::string::npos ? t : t.substr(colon + 1);
  if (t.empty()) {
    why = "empty range";
    return false;
  }
  if (start == "~") {
    r.low = -std::numeric_limits<double>::infinity();
  } else if (!start.empty() && !value(start, r.low)) {
    return false;
  }
  if (colon != std::string::npos && end.empty()) {
    r.high = std::numeric_limits<double>::infinity();
  } else if (!value(end, r.high)) {
    return false;
  }
  if (r.low > r.high) {
    why = "the start of \"" + given + "\" is above its end";
    return false;
  }
  return true;
}

bool CheckRange::alerts(double v) const {
  const bool within = v >= low && v <= high;
  return inside ? within : !within;
}

// "TOVCLUSTER UNKNOWN - <message>" on standard output, its first line only;
// returns 3.
int checkUnknown(const std::string& message) {
  std::string text = message;
  if (text.rfind("tovctl: ", 0) == 0) text.erase(0, 8);
  while (!text.empty() && text.back() == '\n') text.pop_back();
  const std::size_t nl = text.find('\n');
  if (nl != std::string::npos) text.erase(nl);
  return verdict(kUnknown, text, "", {});
}

// The check as the command line gives it.
int runCheck(Options& o, const CheckArgs& args) {
  o.json = false;
  if (o.given.count("--deadline") == 0) o.deadline = 10;
  try {
    std::string refused;
    {
      StreamCapture err(std::cerr, true);
      try {
        applyGlobals(o);
      } catch (const ExitNow&) {
        refused = err.text();
      }
    }
    if (!refused.empty()) return checkUnknown(refused);
    CheckOptions c;
    const std::string bad = checkOptionsOf(args, c);
    if (!bad.empty()) return checkUnknown(bad);
    return cmdCheck(o, c);
  } catch (const ExitNow& e) {
    return e.status;
  } catch (const std::exception& e) {
    return checkUnknown(std::string("unexpected error: ") + e.what());
  }
}

const char* const kCheckFooter =
    "\nRanges (Monitoring Plugins syntax): N alerts outside 0..N, N: below "
    "N,\n~:N above N, M:N outside M..N, @M:N inside M..N, ~: never.\n"
    "-w and -c take SILENT[,DOWN[,BROKEN]]: silent nodes, services not "
    "running\n(broken ones included), services broken. One range applies "
    "to all three,\nan empty one keeps its default: -w 0,0,0 -c ,,0 (any "
    "broken service is\nCRITICAL). -c ,,~: turns that off.\n"
    "\nExit status:\n"
    "  0  OK        no count outside its range\n"
    "  1  WARNING   a count outside its -w range\n"
    "  2  CRITICAL  a count outside its -c range, or no entry node (-H) "
    "answers\n"
    "  3  UNKNOWN   bad command line or range, or the deadline (10 s "
    "unless\n"
    "               --deadline is given) ended the snapshot\n"
    "Everything goes to standard output, nothing to standard error.\n";

}  // namespace

void addCheckCommand(CommandTable& table) {
  auto args = std::make_shared<CheckArgs>();
  CLI::App* check = table.addOwn(
      "check", "a check for monitoring systems (status 0 OK to 3 UNKNOWN)",
      [args, &o = table.o] { return runCheck(o, *args); },
      [](const std::string& why) { return checkUnknown("usage: " + why); });
  // A subcommand starts with its parent's footer: tovctl's exit statuses.
  check->footer(kCheckFooter);
  check
      ->add_option("-w,--warning", args->warning,
                   "WARNING outside these ranges of silent nodes, services "
                   "not running and services broken (default 0,0,0)")
      ->type_name("SILENT[,DOWN[,BROKEN]]");
  check
      ->add_option("-c,--critical", args->critical,
                   "CRITICAL outside these ranges (default ,,0: any broken "
                   "service; ,,~: never)")
      ->type_name("SILENT[,DOWN[,BROKEN]]");
  check
      ->add_option("--ignore-service", args->ignore,
                   "leave this service out of the verdict and the service "
                   "counts: a name, a number or a shell pattern such as "
                   "'mail*'; repeatable")
      ->type_name("NAME")
      ->allow_extra_args(false);
  check->add_flag("--auto-only", args->autoOnly,
                  "judge only services in automatic mode; the others count "
                  "as ignored");
  check->add_flag("-v,--verbose", args->verbose,
                  "-v names what is wrong on the status line, -vv adds the "
                  "thresholds, entry nodes, ignored services and deadline, "
                  "-vvv every node and service; or --verbose=N (0-3)");
}

}  // namespace tovctl
