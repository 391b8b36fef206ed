// Shared pieces of the benchmarks: run sizes, timing and order statistics,
// and the minimal socket client that serves as the baseline.
#ifndef BENCH_BENCH_COMMON_H
#define BENCH_BENCH_COMMON_H

#include <netinet/in.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/sim.h"

namespace bench {

// How much work each benchmark does; --quick shrinks everything for a smoke
// run whose figures are not meant to be quoted.
struct Sizes {
  bool quick = false;
  int exchanges = 10000;     // pairs of exchanges
  int replyPairs1M = 200;    // pairs of 1 MiB fetches
  int replyPairs16M = 30;    // pairs of 16 MiB fetches
  int discoveryPairs = 50;   // pairs of 1,000 and 10,000-answer reports
  int serviceCalls = 1000;   // pairs of serviceCommand + forced refresh
  int snapshotPairs = 500;   // snapshots, each with an exchange and a probe
  int simLifetimeSec = 900;  // upper bound for every server started
};

Sizes makeSizes(bool quick);

void registerExchange(const Sizes& sizes);
void registerReply(const Sizes& sizes);
void registerDiscovery(const Sizes& sizes);
void registerServiceCommand(const Sizes& sizes);
void registerSnapshot(const Sizes& sizes);

using Clock = std::chrono::steady_clock;

inline double nanosSince(Clock::time_point start) {
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count();
}

// CPU time of the calling thread, in nanoseconds. For pure computation it
// is the fairer clock on a shared machine: a long call is preempted by other
// processes far more often than a short one, which wall time would count.
double threadCpuNanos();

// Median (mean of the two middle values for an even count) and nearest-rank
// percentile; both 0 for an empty list.
double median(std::vector<double> values);
double percentile(std::vector<double> values, double p);

// Runs `a` and `b` once each, alternating from call to call which goes
// first, so that changes in the machine's load hit both alike.
template <typename A, typename B>
auto alternately(bool& aFirst, A a, B b) {
  std::pair<decltype(a()), decltype(b())> results{};
  if (aFirst) {
    results.first = a();
    results.second = b();
  } else {
    results.second = b();
    results.first = a();
  }
  aFirst = !aFirst;
  return results;
}

// The simulator with the default test cluster, for one benchmark; null (and
// the benchmark marked as skipped) when it does not start.
std::unique_ptr<simtest::SimProcess> startSimulator(benchmark::State& state,
                                                    const Sizes& sizes);

// 127.0.0.1:port.
sockaddr_in loopbackAddress(int port);

// The baseline client: connect, one receive of the 8-byte salt, one send of
// `frame` (its NUL included in `frameLen`), then receive with an 8 KiB buffer
// into `reply` until the peer closes. False on any socket failure.
bool rawExchange(const sockaddr_in& addr, const char* frame,
                 std::size_t frameLen, std::string& reply);

}  // namespace bench

#endif  // BENCH_BENCH_COMMON_H
