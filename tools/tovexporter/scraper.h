// The scrapes: which snapshot each one is answered from, and by when.
//
// Each snapshot is taken by a Taker on a thread of its own (the exporter's
// runs it in a child process that can be killed); everything else happens
// on the I/O thread, which never waits: a scrape is answered through its
// callback when its snapshot is there, or at its deadline.
#ifndef TOOLS_TOVEXPORTER_SCRAPER_H
#define TOOLS_TOVEXPORTER_SCRAPER_H

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "common/snapshot.h"
#include "metrics.h"
#include "targets.h"

namespace tovexporter {

using Clock = std::chrono::steady_clock;

// What one snapshot brought.
struct Taken {
  std::optional<tovtools::Snapshot> snapshot;  // none when it was not had
  bool overran = false;  // still running at its deadline, and ended then
};

// Takes a snapshot of `target` to be done by `end` (none: no deadline), on
// a thread of its own; gives up at once, with nothing, when `stop` is set.
using Taker = std::function<Taken(const Target& target,
                                  std::optional<Clock::time_point> end,
                                  const std::atomic<bool>& stop)>;

// Snapshots taken at once, each of another target: each is a process with
// a worker for every node it probes.
constexpr std::size_t kMaxSnapshots = 8;
// How long after its deadline the scrape that began a snapshot is answered
// at the latest: time for the snapshot to end by its own deadline, or to
// be killed, and be read.
constexpr double kAnswerGrace = 0.4;

// A scrape of a target whose snapshot is being taken waits for that one and
// is answered from it, so a burst of scrapes costs the cluster one
// snapshot; a scrape of another target starts its own, up to `slots` at
// once, and beyond that waits for a slot. Whatever it waits for, it waits
// no longer than its own deadline, and is then answered with tov_up 0 and a
// deadline error.
class Scraper {
 public:
  using Done = std::function<void(const std::string& exposition)>;

  // The counters of `pinned` (the cluster of /metrics) are never forgotten.
  Scraper(boost::asio::io_context& io, Taker taker, std::string pinned = {},
          std::size_t slots = kMaxSnapshots);
  // Stops the snapshots still being taken and waits for their threads.
  ~Scraper();
  Scraper(const Scraper&) = delete;
  Scraper& operator=(const Scraper&) = delete;

  // Answers a scrape of `target` that may take `deadline` seconds from now
  // (0: no limit) through `done`, on the I/O thread.
  void scrape(const Target& target, double deadline, Done done);

  // The exporter's own series as they stand.
  std::string own(const BuildInfo& build);

 private:
  struct Waiter;
  struct Flight;
  struct Queued;

  void start(const Target& target, const std::shared_ptr<Waiter>& w);
  void join(Flight& f, const std::shared_ptr<Waiter>& w);
  void arm(const std::shared_ptr<Waiter>& w,
           std::optional<Clock::time_point> at);
  void giveUp(const std::shared_ptr<Waiter>& w);
  void finish(const std::shared_ptr<Flight>& f, Taken taken);
  void startQueued();
  Totals& totalsOf(const std::string& target);

  boost::asio::io_context& io_;
  Taker taker_;
  std::string pinned_;
  std::size_t slots_;
  std::map<std::string, std::shared_ptr<Flight>> flights_;  // by target
  std::deque<Queued> queue_;  // scrapes waiting for a slot
  std::map<std::string, Totals> totals_;
  std::uint64_t uses_ = 0;
};

}  // namespace tovexporter

#endif  // TOOLS_TOVEXPORTER_SCRAPER_H
