#include "check.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <limits>

#include "codes.h"
#include "common/text.h"
#include "status.h"

namespace tovctl {

namespace {

// A check speaks to a monitoring system, not to a person: every way it can
// end is one status line on standard output and a status of 0 to 3.
constexpr int kOk = 0, kWarning = 1, kCritical = 2, kUnknown = 3;
const char* const kStateWords[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};

std::string fixed(double seconds, int digits) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.*f", digits, seconds);
  return buf;
}

using tovtools::NodeStatus;
using tovtools::ServiceStatus;
using tovtools::Snapshot;

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

namespace {

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

int checkUnknown(const std::string& message) {
  std::string text = message;
  if (text.rfind("tovctl: ", 0) == 0) text.erase(0, 8);
  while (!text.empty() && text.back() == '\n') text.pop_back();
  const std::size_t nl = text.find('\n');
  if (nl != std::string::npos) text.erase(nl);
  std::cout << "TOVCLUSTER UNKNOWN - " << text << std::endl;
  return kUnknown;
}

namespace {

// "-w 0" sets both thresholds, "-w 0,2" silent nodes and services apart,
// "-w ,2" only the second.
bool splitThresholds(const std::string& given,
                     std::optional<CheckRange>& silent,
                     std::optional<CheckRange>& down, std::string& why) {
  if (given.empty()) return true;
  const std::size_t comma = given.find(',');
  const std::string first = given.substr(0, comma);
  const std::string second =
      comma == std::string::npos ? first : given.substr(comma + 1);
  if (second.find(',') != std::string::npos) {
    why = "at most two ranges";
    return false;
  }
  CheckRange r;
  if (!first.empty()) {
    if (!CheckRange::parse(first, r, why)) return false;
    silent = r;
  }
  if (!second.empty()) {
    if (!CheckRange::parse(second, r, why)) return false;
    down = r;
  }
  return true;
}

}  // namespace

int runCheck(Options& o, bool deadlineGiven, const std::string& warning,
             const std::string& critical) {
  o.json = false;
  if (!deadlineGiven) o.deadline = 10;
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
    CheckRange zero;
    std::string why;
    CheckRange::parse("0", zero, why);
    c.warnSilent = zero;
    c.warnDown = zero;
    if (!splitThresholds(warning, c.warnSilent, c.warnDown, why)) {
      return checkUnknown("-w " + warning + ": " + why);
    }
    if (!splitThresholds(critical, c.critSilent, c.critDown, why)) {
      return checkUnknown("-c " + critical + ": " + why);
    }
    return cmdCheck(o, c);
  } catch (const ExitNow& e) {
    return e.status;
  } catch (const std::exception& e) {
    return checkUnknown(std::string("unexpected error: ") + e.what());
  }
}

}  // namespace tovctl
