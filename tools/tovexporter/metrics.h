// The cluster as Prometheus metrics: one snapshot written in the text
// exposition format, and the scrapes that take the snapshots.
#ifndef TOOLS_TOVEXPORTER_METRICS_H
#define TOOLS_TOVEXPORTER_METRICS_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "common/snapshot.h"

namespace tovexporter {

// A label value as the text format requires: backslash, double quote and
// line feed escaped, bytes that are not UTF-8 replaced by U+FFFD.
std::string labelValue(const std::string& raw);

// What the exporter counts over its life.
struct Totals {
  std::uint64_t scrapes = 0;
  std::uint64_t exchanges = 0;
  // (code, name) of what ended an attempt to read the cluster information.
  std::map<std::pair<std::string, std::string>, std::uint64_t> errors;
};

// One scrape's exposition. `snapshot` is null when no node gave the
// cluster information: then only `tov_up 0` and the exporter's own series.
std::string exposition(const tovtools::Snapshot* snapshot, double seconds,
                       const Totals& totals);

struct Target {
  std::string host;
  std::string port;
};

// Takes the snapshots for the scrapes. The library keeps its state per
// process, so one snapshot is taken at a time; a scrape that arrives while
// one is being taken waits for it and serves it, so a burst of scrapes
// costs one snapshot.
class Scraper {
 public:
  explicit Scraper(std::vector<Target> targets)
      : targets_(std::move(targets)) {}

  // The exposition for a scrape that may take `deadline` seconds.
  std::string scrape(double deadline);

 private:
  std::string take(double deadline);

  std::vector<Target> targets_;
  std::mutex mu_;
  std::condition_variable done_;
  bool busy_ = false;
  std::uint64_t generation_ = 0;
  std::string last_;
  Totals totals_;
};

}  // namespace tovexporter

#endif  // TOOLS_TOVEXPORTER_METRICS_H
