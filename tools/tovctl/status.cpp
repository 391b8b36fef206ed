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

using tovtools::serviceProblem;

// Adds a table's lines: the heading, then one line per row with its tone
// and whether it changed. The first column marks changed rows; it is there
// (blank) without an earlier snapshot too, so that columns never shift.
void addTable(std::vector<ScreenLine>& out, Row heading,
              const std::vector<Row>& rows, const std::vector<Tone>& tones,
              const std::vector<bool>& changed) {
  std::vector<Row> all{heading};
  all.insert(all.end(), rows.begin(), rows.end());
  all[0].insert(all[0].begin(), " ");
  for (std::size_t i = 0; i < rows.size(); ++i) {
    all[i + 1].insert(all[i + 1].begin(), changed[i] ? "*" : " ");
  }
  const std::vector<std::string> lines = tableLines(all);
  out.push_back({lines[0], Tone::Heading, false});
  for (std::size_t i = 0; i < rows.size(); ++i) {
    out.push_back({lines[i + 1], tones[i], changed[i]});
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

std::vector<ScreenLine> clusterLines(const Snapshot& now) {
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
  const std::string skipped = entriesSkipped(now);
  out.push_back(
      {shown("Taken " + localTime(now.takenAt) + " through " +
             hostPortLabel(now.host, now.port) + " in " +
             tovtools::fixedSeconds(now.seconds, 2) + " s" +
             (skipped.empty() ? "" : " (did not answer: " + skipped + ")")),
       Tone::Plain, false});
  return out;
}

void addServices(std::vector<ScreenLine>& out, const Snapshot& now,
                 const Snapshot* before, const std::vector<std::size_t>& at) {
  const std::vector<bool> changed = changesOf(
      now.services, before ? &before->services : nullptr,
      [](const ServiceStatus& v) { return v.index; }, sameService);
  std::vector<Row> rows;
  std::vector<Tone> tones;
  std::vector<bool> marks;
  for (const std::size_t i : at) {
    const ServiceStatus& v = now.services[i];
    rows.push_back({std::to_string(v.index), v.name, v.state, v.mode,
                    v.blocked ? "yes" : "no", v.node.empty() ? "-" : v.node});
    tones.push_back(serviceProblem(v) ? Tone::Problem : Tone::Plain);
    marks.push_back(changed[i]);
  }
  addTable(out, {"INDEX", "SERVICE", "STATE", "MODE", "BLOCKED", "NODE"}, rows,
           tones, marks);
}

void addNodes(std::vector<ScreenLine>& out, const Snapshot& now,
              const Snapshot* before, const std::vector<std::size_t>& at) {
  const std::vector<bool> changed = changesOf(
      now.nodes, before ? &before->nodes : nullptr,
      [](const NodeStatus& n) { return n.name; }, sameNode);
  std::vector<Row> rows;
  std::vector<Tone> tones;
  std::vector<bool> marks;
  for (const std::size_t i : at) {
    const NodeStatus& n = now.nodes[i];
    rows.push_back({n.name, n.address, n.answers ? "answering" : "silent",
                    tovtools::fixedSeconds(n.seconds, 3) + " s", n.reason});
    tones.push_back(n.answers ? Tone::Plain : Tone::Problem);
    marks.push_back(changed[i]);
  }
  addTable(out, {"NODE", "ADDRESS", "STATE", "PROBE", "DETAIL"}, rows, tones,
           marks);
}

}  // namespace

std::vector<ScreenLine> StatusScreen::lines() const {
  std::vector<ScreenLine> out = body;
  out.push_back({"", Tone::Plain, false});
  out.insert(out.end(), summary.begin(), summary.end());
  return out;
}

StatusScreen statusScreen(const Snapshot& now, const Snapshot* before,
                          const StatusFilter& filter) {
  StatusScreen screen;
  screen.body = clusterLines(now);
  const ShownRows rows = shownRows(now, filter);
  screen.body.push_back({"", Tone::Plain, false});
  addServices(screen.body, now, before, rows.services);
  screen.body.push_back({"", Tone::Plain, false});
  addNodes(screen.body, now, before, rows.nodes);

  // The summary counts the whole cluster, whatever the filter shows.
  bool trouble = false;
  for (const NodeStatus& n : now.nodes) trouble = trouble || !n.answers;
  for (const ServiceStatus& v : now.services) {
    trouble = trouble || serviceProblem(v);
  }
  screen.summary.push_back({tovtools::summaryText(tovtools::countsOf(now)),
                            trouble ? Tone::Problem : Tone::Good, false});
  const std::string narrowed = shownText(now, rows, filter);
  if (!narrowed.empty()) {
    screen.summary.push_back({shown(narrowed), Tone::Plain, false});
  }
  return screen;
}

tovtools::Snapshot snapshotOf(const Options& o,
                              const std::function<void()>& overrun) {
  tovtools::Deadline deadline(o.deadline);
  // A name lookup that no signal ends still ends the program.
  deadline.onOverrun(std::chrono::milliseconds(500), overrun);
  tovtools::SnapshotOptions so;
  so.entries = o.entries;
  if (so.entries.empty()) so.entries.push_back({"127.0.0.1", "1195"});
  QuietLibrary quiet;
  return tovtools::takeSnapshot(so, deadline);
}

std::string entriesSkipped(const Snapshot& s) {
  std::string out;
  for (std::size_t i = 0; i + 1 < s.entries.size(); ++i) {
    const tovtools::EntryAttempt& a = s.entries[i];
    out += (out.empty() ? "" : ", ") + hostPortLabel(a.host, a.port) + " (" +
           a.reason() + ")";
  }
  return out;
}

tovtools::Snapshot snapshotOf(const Options& o) {
  const std::string what =
      "status of " +
      (o.entries.empty()
           ? std::string("127.0.0.1:1195")
           : hostPortLabel(o.entries.front().host, o.entries.front().port));
  const double seconds = o.deadline;
  setActivity(what);
  return snapshotOf(o, [seconds] { exitOnOverrun(seconds); });
}

int cmdStatus(const Options& o, const StatusOptions& st) {
  if (st.watch) return watchStatus(o, st);
  const Snapshot snap = snapshotOf(o);
  const std::string label = hostPortLabel(snap.host, snap.port);
  const std::string what = "status of the cluster through " + label;
  const std::string skipped = entriesSkipped(snap);
  const std::string note =
      skipped.empty() ? "" : "entry node " + skipped + " did not answer either";
  if (snap.expired) {
    return reportDeadline(what, o.deadline,
                          "awaiting the cluster information from " + label +
                              (note.empty() ? "" : "; " + note));
  }
  if (snap.code != 0) return reportFailure(what, snap.code, note);
  if (o.json) {
    std::cout << tovtools::jsonText(statusJson(snap, st.filter)) << std::endl;
    return kExitOk;
  }
  const bool colour = colourOnStdout(o);
  for (const ScreenLine& l : statusScreen(snap, nullptr, st.filter).lines()) {
    std::cout << painted(l, colour) << '\n';
  }
  std::cout.flush();
  return kExitOk;
}

}  // namespace tovctl
