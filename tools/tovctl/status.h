// The cluster at a glance: `status` (one snapshot as a screen or as JSON)
// and its live view (`status --watch`).
#ifndef TOOLS_TOVCTL_STATUS_H
#define TOOLS_TOVCTL_STATUS_H

#include <functional>
#include <string>
#include <vector>

#include "common/snapshot.h"
#include "filter.h"
#include "session.h"

namespace tovctl {

// How a line of the status screen is shown on a terminal.
enum class Tone { Plain, Heading, Good, Problem };

struct ScreenLine {
  std::string text;  // daemon text already escaped where it is shown
  Tone tone = Tone::Plain;
  bool changed = false;  // differs from the previous snapshot
};

// The status screen of a snapshot, problems first and narrowed by a
// filter. Every table has a first column that marks with "*" the rows that
// differ from `before` (blank without it), so that columns never shift.
struct StatusScreen {
  // The cluster lines, the service table and the node table, a blank line
  // between them. The short table comes first: at hundreds of nodes the
  // services would otherwise be pages away.
  std::vector<ScreenLine> body;
  // The summary of the whole cluster, then what a filter shows.
  std::vector<ScreenLine> summary;

  // As `status` prints it: the body, a blank line, the summary lines.
  std::vector<ScreenLine> lines() const;
};

StatusScreen statusScreen(const tovtools::Snapshot& now,
                          const tovtools::Snapshot* before,
                          const StatusFilter& filter);

// A snapshot of the cluster that -H names, within a deadline of its own
// (--deadline). A call that no signal ends (a name lookup) runs `overrun`
// half a second after the deadline; by default it reports and exits.
tovtools::Snapshot snapshotOf(const Options& o,
                              const std::function<void()>& overrun);
tovtools::Snapshot snapshotOf(const Options& o);

// The entry nodes asked before the one that answered (or before the last
// one asked), each with why it did not answer: "a:1195 (cannot connect)";
// "" when the first answered.
std::string entriesSkipped(const tovtools::Snapshot& s);

struct StatusOptions {
  bool watch = false;
  double interval = 0;  // 0: the cluster's poll time
  unsigned count = 0;   // snapshots before the live view ends; 0: no limit
  StatusFilter filter;
};

int cmdStatus(const Options& o, const StatusOptions& s);

// The live view; cmdStatus hands over to it for --watch.
int watchStatus(const Options& o, const StatusOptions& s);

}  // namespace tovctl

#endif  // TOOLS_TOVCTL_STATUS_H
