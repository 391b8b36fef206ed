// The clusters as Prometheus metrics: one snapshot written in the text
// exposition format, the exporter's own series, and the scrapes that take
// the snapshots.
#ifndef TOOLS_TOVEXPORTER_METRICS_H
#define TOOLS_TOVEXPORTER_METRICS_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "common/deadline.h"
#include "common/snapshot.h"
#include "targets.h"

namespace tovexporter {

// A label value as the text format requires: backslash, double quote and
// line feed escaped, bytes that are not UTF-8 replaced by U+FFFD.
std::string labelValue(const std::string& raw);

// One scrape of a cluster: tov_up, the cluster's series when it was read,
// and how long the scrape took. `snapshot` is null when no entry node gave
// the cluster information. No label set appears twice in a family, whatever
// the snapshot holds: the first one wins.
std::string clusterExposition(const tovtools::Snapshot* snapshot,
                              double seconds);

// What the exporter counts for one target over its life.
struct Totals {
  std::uint64_t scrapes = 0;
  std::uint64_t exchanges = 0;
  // (code, name) of what ended an attempt to read the cluster information.
  std::map<std::pair<std::string, std::string>, std::uint64_t> errors;
  std::uint64_t lastUse = 0;  // which scrape of any target used it last
};

struct BuildInfo {
  std::string version;
  std::string revision;
};

// The exporter's own series: its build, and the counters of each target
// it remembers, by target name.
std::string ownExposition(const BuildInfo& build,
                          const std::map<std::string, Totals>& totals);

// Counters are kept for this many targets at most, so that requests for
// ever new targets cannot grow the exporter without bound: a new target
// beyond them takes the place of the one scraped longest ago.
constexpr std::size_t kMaxTargets = 256;

// Takes the snapshots for the scrapes. The library keeps its state per
// process, so one snapshot is taken at a time: a scrape of the target whose
// snapshot is being taken waits for it and serves it, so a burst of scrapes
// costs one snapshot; a scrape of another target waits for its turn. Either
// waits no longer than its own deadline.
class Scraper {
 public:
  // The counters of `pinned` (the cluster of /metrics) are never forgotten.
  explicit Scraper(std::string pinned = {}) : pinned_(std::move(pinned)) {}

  // The target's exposition for a scrape that may take `deadline` seconds
  // (0: no limit) from now.
  std::string scrape(const Target& target, double deadline);

  // The exporter's own series as they stand.
  std::string own(const BuildInfo& build);

 private:
  using Clock = std::chrono::steady_clock;
  struct Flight {
    std::string target;
    bool done = false;
    std::string text;
  };

  std::string take(const Target& target, tovtools::Deadline& deadline,
                   Clock::time_point begun);
  Totals& totalsOf(const std::string& target);  // with mu_ held

  std::string pinned_;
  std::mutex mu_;
  std::condition_variable turn_;
  std::shared_ptr<Flight> current_;  // the snapshot being taken, if any
  std::map<std::string, Totals> totals_;
  std::uint64_t uses_ = 0;
};

}  // namespace tovexporter

#endif  // TOOLS_TOVEXPORTER_METRICS_H
