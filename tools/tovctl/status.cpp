#include "status.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <iostream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>

#include "codes.h"
#include "common/text.h"
#include "report.h"

namespace tovctl {

namespace {

using tovtools::NodeStatus;
using tovtools::ServiceStatus;
using tovtools::Snapshot;

std::string localTime(double unixSeconds) {
  const std::time_t t = static_cast<std::time_t>(unixSeconds);
  std::tm tm{};
  char buf[32];
  if (localtime_r(&t, &tm) == nullptr ||
      std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm) == 0) {
    return std::to_string(static_cast<long long>(unixSeconds));
  }
  return buf;
}

std::string fixed(double seconds, int digits) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.*f", digits, seconds);
  return buf;
}

// A service that should run and does not: broken, or not running although
// the daemon is to keep it running.
bool serviceProblem(const ServiceStatus& v) {
  return v.state == "broken" || (v.state != "running" && v.mode == "auto");
}

// Adds a table's lines: the heading, then one line per row with its tone
// and whether it changed. Changed rows are marked in a column of their own
// when there is an earlier snapshot to compare with.
void addTable(std::vector<ScreenLine>& out, Row heading,
              const std::vector<Row>& rows, const std::vector<Tone>& tones,
              const std::vector<bool>& changed, bool marks) {
  std::vector<Row> all{heading};
  all.insert(all.end(), rows.begin(), rows.end());
  if (marks) {
    all[0].insert(all[0].begin(), " ");
    for (std::size_t i = 0; i < rows.size(); ++i) {
      all[i + 1].insert(all[i + 1].begin(), changed[i] ? "*" : " ");
    }
  }
  const std::vector<std::string> lines = tableLines(all);
  out.push_back({lines[0], Tone::Heading, false});
  for (std::size_t i = 0; i < rows.size(); ++i) {
    out.push_back({lines[i + 1], tones[i], marks && changed[i]});
  }
}

bool sameNode(const NodeStatus& a, const NodeStatus& b) {
  return a.answers == b.answers && a.address == b.address;
}

bool sameService(const ServiceStatus& a, const ServiceStatus& b) {
  return a.state == b.state && a.mode == b.mode && a.blocked == b.blocked &&
         a.node == b.node && a.name == b.name;
}

template <typename T, typename Key, typename Same>
std::vector<bool> changesOf(const std::vector<T>& now,
                            const std::vector<T>* was, Key key, Same same) {
  std::vector<bool> out(now.size(), false);
  if (was == nullptr) return out;
  std::map<decltype(key(now.front())), const T*> earlier;
  for (const T& item : *was) earlier.emplace(key(item), &item);
  for (std::size_t i = 0; i < now.size(); ++i) {
    const auto it = earlier.find(key(now[i]));
    out[i] = it == earlier.end() || !same(now[i], *it->second);
  }
  return out;
}

bool colourOnStdout(const Options& o) {
  const char* term = std::getenv("TERM");
  return !o.noColour && stdoutIsTerminal() &&
         std::getenv("NO_COLOR") == nullptr &&
         !(term != nullptr && std::string(term) == "dumb");
}

std::string painted(const ScreenLine& l, bool colour) {
  if (!colour || l.text.empty()) return l.text;
  const char* sgr = "";
  switch (l.tone) {
    case Tone::Heading:
      sgr = "1";
      break;
    case Tone::Good:
      sgr = "32";
      break;
    case Tone::Problem:
      sgr = "31";
      break;
    case Tone::Plain:
      return l.text;
  }
  return std::string("\033[") + sgr + "m" + l.text + "\033[0m";
}

// The nodes and services worth naming in the check's long output.
std::vector<std::string> problemLines(const Snapshot& s) {
  std::vector<std::string> out;
  for (const NodeStatus& n : s.nodes) {
    if (!n.answers) {
      out.push_back("node " + n.name + " (" + n.address +
                    ") is silent: " + n.reason);
    }
  }
  for (const ServiceStatus& v : s.services) {
    if (v.state != "running") {
      out.push_back("service " + std::to_string(v.index) + " (" + v.name +
                    ") is " + v.state + (v.blocked ? ", blocked" : ""));
    }
  }
  return out;
}

}  // namespace

std::vector<ScreenLine> statusScreen(const Snapshot& now,
                                     const Snapshot* before) {
  const tovtools::ClusterRecord& c = now.cluster;
  std::vector<ScreenLine> out;
  std::string head = "Cluster " + c.name;
  if (!c.serial.empty()) head += ", serial " + c.serial;
  head += ", CRC " + c.crc + ", poll time " + std::to_string(c.pollTime) + " s";
  out.push_back({shown(head), Tone::Heading, false});
  out.push_back({"Configuration of " + std::to_string(c.configSize) +
                     " byte(s) modified " + localTime(c.lastModified) +
                     "; daemon started " + localTime(c.startTime),
                 Tone::Plain, false});
  out.push_back({shown("Taken " + localTime(now.takenAt) + " through " +
                       hostPortLabel(now.host, now.port) + " in " +
                       fixed(now.seconds, 2) + " s"),
                 Tone::Plain, false});
  out.push_back({"", Tone::Plain, false});

  const bool marks = before != nullptr;
  std::vector<Row> rows;
  std::vector<Tone> tones;
  for (const NodeStatus& n : now.nodes) {
    rows.push_back({n.name, n.address, n.answers ? "answering" : "silent",
                    fixed(n.seconds, 3) + " s", n.reason});
    tones.push_back(n.answers ? Tone::Plain : Tone::Problem);
  }
  addTable(out, {"NODE", "ADDRESS", "STATE", "PROBE", "DETAIL"}, rows, tones,
           changesOf(
               now.nodes, before ? &before->nodes : nullptr,
               [](const NodeStatus& n) { return n.name; }, sameNode),
           marks);
  out.push_back({"", Tone::Plain, false});

  rows.clear();
  tones.clear();
  for (const ServiceStatus& v : now.services) {
    rows.push_back({std::to_string(v.index), v.name, v.state, v.mode,
                    v.blocked ? "yes" : "no", v.node.empty() ? "-" : v.node});
    tones.push_back(serviceProblem(v) ? Tone::Problem : Tone::Plain);
  }
  addTable(out, {"INDEX", "SERVICE", "STATE", "MODE", "BLOCKED", "NODE"}, rows,
           tones,
           changesOf(
               now.services, before ? &before->services : nullptr,
               [](const ServiceStatus& v) { return v.index; }, sameService),
           marks);
  out.push_back({"", Tone::Plain, false});

  bool trouble = false;
  for (const NodeStatus& n : now.nodes) trouble = trouble || !n.answers;
  for (const ServiceStatus& v : now.services) {
    trouble = trouble || serviceProblem(v);
  }
  out.push_back({tovtools::summaryText(tovtools::countsOf(now)),
                 trouble ? Tone::Problem : Tone::Good, false});
  return out;
}

tovtools::Snapshot snapshotOf(const Options& o,
                              const std::function<void()>& overrun) {
  Session session(o, o.host);
  tovtools::Deadline deadline(o.deadline);
  // A name lookup that no signal ends still ends the program.
  deadline.onOverrun(std::chrono::milliseconds(500), overrun);
  tovtools::SnapshotOptions so;
  so.host = session.host();
  so.port = session.port();
  QuietLibrary quiet;
  return tovtools::takeSnapshot(so, deadline);
}

tovtools::Snapshot snapshotOf(const Options& o) {
  const std::string what =
      "status of " + hostPortLabel(o.host, std::to_string(o.port));
  const double seconds = o.deadline;
  return snapshotOf(o, [what, seconds] {
    std::_Exit(reportDeadline(
        what, seconds,
        "the library was blocked in a call that did not give up (a name "
        "lookup?); stopping"));
  });
}

int cmdStatus(const Options& o, const StatusOptions& st) {
  if (st.watch) return watchStatus(o, st);
  const Snapshot snap = snapshotOf(o);
  const std::string label = hostPortLabel(snap.host, snap.port);
  const std::string what = "status of the cluster through " + label;
  if (snap.expired) {
    return reportDeadline(what, o.deadline,
                          "awaiting the cluster information from " + label);
  }
  if (snap.code != 0) return reportFailure(what, snap.code);
  if (o.json) {
    std::cout << tovtools::jsonText(tovtools::snapshotJson(snap)) << std::endl;
    return kExitOk;
  }
  const bool colour = colourOnStdout(o);
  for (const ScreenLine& l : statusScreen(snap, nullptr)) {
    std::cout << painted(l, colour) << '\n';
  }
  std::cout.flush();
  return kExitOk;
}

// ---- check --------------------------------------------------------------

namespace {

constexpr int kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3;
const char* const kStateWords[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};

[[noreturn]] void checkExit(int state, const std::string& text) {
  std::cout << "TOVCLUSTER " << kStateWords[state] << " - " << text
            << std::endl;
  throw ExitNow{state};
}

}  // namespace

bool CheckRange::parse(const std::string& given, CheckRange& r,
                       std::string& why) {
  r = CheckRange{};
  r.text = given;
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
  if (t.empty() || given == "@") {
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

int cmdCheck(const Options& o, const CheckOptions& c) {
  const Snapshot snap = snapshotOf(o, [&o] {
    std::cout << "TOVCLUSTER UNKNOWN - deadline of "
              << tovtools::secondsText(o.deadline)
              << " s expired: the library was blocked in a call that did not "
                 "give up (a name lookup?)"
              << std::endl;
    std::_Exit(kUnknown);
  });
  const std::string label = hostPortLabel(snap.host, snap.port);
  if (snap.expired || snap.cut) {
    checkExit(kUnknown, "deadline of " + tovtools::secondsText(o.deadline) +
                            " s expired while " +
                            (snap.expired ? "awaiting the cluster information "
                                            "from " +
                                                label
                                          : "probing the nodes"));
  }
  if (snap.code != 0) {
    checkExit(kCritical, "cannot reach the cluster through " + label + ": " +
                             codeText(snap.code) + " (" + codeName(snap.code) +
                             ")");
  }
  const tovtools::SnapshotCounts n = tovtools::countsOf(snap);
  int state = kOk;
  auto judge = [&state](double v, const CheckRange* warn,
                        const CheckRange* crit) {
    if (crit != nullptr && crit->alerts(v)) {
      state = std::max(state, kCritical);
    } else if (warn != nullptr && warn->alerts(v)) {
      state = std::max(state, kWarning);
    }
  };
  judge(n.silent, c.warnSilent ? &*c.warnSilent : nullptr,
        c.critSilent ? &*c.critSilent : nullptr);
  judge(n.notRunning(), c.warnDown ? &*c.warnDown : nullptr,
        c.critDown ? &*c.critDown : nullptr);

  // Performance data: 'label'=value[UOM];[warn];[crit];[min];[max]
  auto range = [](const std::optional<CheckRange>& r) {
    return r ? r->text : std::string();
  };
  auto perf = [](const std::string& name, unsigned v, unsigned max,
                 const std::string& w = "", const std::string& cr = "") {
    return name + "=" + std::to_string(v) + ";" + w + ";" + cr + ";0;" +
           std::to_string(max);
  };
  const std::string data =
      perf("nodes_answering", n.answering, n.nodes) + " " +
      perf("nodes_silent", n.silent, n.nodes, range(c.warnSilent),
           range(c.critSilent)) +
      " " + perf("services_running", n.running, n.services) + " " +
      perf("services_not_running", n.notRunning(), n.services,
           range(c.warnDown), range(c.critDown)) +
      " " + perf("services_stopped", n.stopped, n.services) + " " +
      perf("services_blocked", n.blocked, n.services) + " " +
      perf("services_broken", n.broken, n.services) +
      " time=" + fixed(snap.seconds, 3) + "s;;;0;" +
      (o.deadline > 0 ? tovtools::secondsText(o.deadline) : "");
  // Daemon text goes on one line whatever it holds; '|' would start the
  // performance data early.
  std::string name = tovtools::escapeControls(snap.cluster.name, false);
  for (char& ch : name) {
    if (ch == '|') ch = '/';
  }
  std::cout << "TOVCLUSTER " << kStateWords[state] << " - cluster " << name
            << ": " << tovtools::summaryText(n) << " | " << data << '\n';
  for (std::string line : problemLines(snap)) {
    line = tovtools::escapeControls(line, false);
    for (char& ch : line) {
      if (ch == '|') ch = '/';
    }
    std::cout << line << '\n';
  }
  std::cout.flush();
  return state;
}

}  // namespace tovctl
