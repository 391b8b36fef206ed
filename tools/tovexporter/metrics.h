// The clusters as Prometheus metrics: one snapshot written in the text
// exposition format, and the exporter's own series.
#ifndef TOOLS_TOVEXPORTER_METRICS_H
#define TOOLS_TOVEXPORTER_METRICS_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "common/snapshot.h"

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

}  // namespace tovexporter

#endif  // TOOLS_TOVEXPORTER_METRICS_H
