// Each snapshot in a child process of its own: the exporter runs its own
// program again (/proc/self/exe) in a hidden mode that reads the target on
// standard input and writes the snapshot as JSON on standard output.
//
// The process can be killed wherever it stands, with the probe workers it
// forks: a name lookup that is never answered (no signal cuts it short), a
// daemon that stalls, a snapshot that runs out of memory all end with it,
// by the scrape's deadline. It holds none of the exporter's descriptors,
// the listening socket least of all, and keeps the library's per-process
// state to itself, so snapshots of several clusters run at once.
#ifndef TOOLS_TOVEXPORTER_SNAPSHOTS_H
#define TOOLS_TOVEXPORTER_SNAPSHOTS_H

#include <atomic>
#include <optional>

#include "scraper.h"
#include "targets.h"

namespace tovexporter {

// The first argument that selects the hidden mode.
constexpr const char* kSnapshotMode = "--snapshot-child";
// A child still running this long after its deadline is killed.
constexpr double kKillGrace = 0.25;

// A Taker: the snapshot of `target` from a child process, with the
// library's debug level `debug`; what the child writes on standard error
// goes to the exporter's.
Taken takeInChild(const Target& target, std::optional<Clock::time_point> end,
                  const std::atomic<bool>& stop, unsigned debug);

// The hidden mode itself; the exit status.
int snapshotChild();

}  // namespace tovexporter

#endif  // TOOLS_TOVEXPORTER_SNAPSHOTS_H
