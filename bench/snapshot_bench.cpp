// One status snapshot of a healthy three-node cluster (the simulator serving
// 127.0.0.1-3), against what it has to do at the least: one information
// exchange and one node probe. The snapshot probes its nodes in parallel
// worker processes, so ideally it costs one exchange plus one probe; what it
// costs beyond that is the price of the workers.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "bench_common.h"
#include "common/deadline.h"
#include "common/snapshot.h"
#include "support/sim.h"
#include "tovapi/libtovapi.h"

namespace bench {

namespace {

const char* const kNodes[] = {"127.0.0.1", "127.0.0.2", "127.0.0.3"};

std::string threeNodeConfig() {
  std::string nodes, listen;
  for (std::size_t i = 0; i < 3; ++i) {
    const std::string sep = i == 0 ? "" : ", ";
    nodes += sep + "{\"name\": \"node" + std::to_string(i + 1) +
             "\", \"address\": \"" + kNodes[i] + "\"}";
    listen += sep + "\"" + kNodes[i] + "\"";
  }
  return "{\"cluster\": {\"name\": \"benchcluster\", \"poll_time\": 1},\n"
         " \"listen\": [" +
         listen + "],\n \"nodes\": [" + nodes +
         "],\n"
         " \"services\": [{\"name\": \"web\", \"state\": \"running\", "
         "\"mode\": \"auto\"},\n"
         "  {\"name\": \"db\", \"state\": \"stopped\", \"mode\": "
         "\"manual\"}]}\n";
}

struct SnapshotTime {
  double ns = -1.0;         // the whole snapshot; -1 when it was not healthy
  double slowestProbe = 0;  // the slowest probe as its worker timed it
};

void BM_SnapshotHealthy(benchmark::State& state, Sizes sizes) {
  tov1::tovDebug.setDebugLevel(0);
  simtest::SimOptions opts;
  opts.configJson = threeNodeConfig();
  opts.listen.assign(std::begin(kNodes), std::end(kNodes));
  opts.maxLifetimeSec = sizes.simLifetimeSec;
  std::unique_ptr<simtest::SimProcess> sim;
  try {
    sim = std::make_unique<simtest::SimProcess>(opts);
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
    return;
  }
  const std::string host = kNodes[0];
  const std::string port = sim->portStr();

  // As `tovctl status` takes it: default options, its default deadline.
  auto snapshot = [&]() -> SnapshotTime {
    tovtools::SnapshotOptions so;
    so.entries.push_back({host, port});
    tovtools::Deadline deadline(30);
    const auto start = Clock::now();
    const tovtools::Snapshot s = tovtools::takeSnapshot(so, deadline);
    SnapshotTime t;
    const double ns = nanosSince(start);
    const tovtools::SnapshotCounts c = tovtools::countsOf(s);
    if (!s.ok() || c.nodes != 3 || c.answering != 3) return t;
    t.ns = ns;
    for (const tovtools::NodeStatus& n : s.nodes)
      t.slowestProbe = std::max(t.slowestProbe, n.seconds * 1e9);
    return t;
  };
  // What `tovctl services` costs: one forced information exchange.
  auto exchange = [&]() -> double {
    const auto start = Clock::now();
    const int rc = tov1::tovCache.refreshCache(host, port, true);
    const double ns = nanosSince(start);
    return rc == 0 ? ns : -1.0;
  };
  // One probe of another node, with a cold cache as a worker has it (the
  // probe would otherwise answer from the cache without asking).
  auto probe = [&]() -> double {
    tov1::tovCache.clearCache();
    const auto start = Clock::now();
    const int rc = tov1::tovNet.testNode(kNodes[1], port);
    const double ns = nanosSince(start);
    return rc == 0 ? ns : -1.0;
  };

  std::vector<double> snaps, slowest, exchanges, probes, sums;
  bool snapshotFirst = true;
  bool exchangeFirst = true;
  for (auto _ : state) {
    const auto [s, pair] = alternately(
        snapshotFirst, [&] { return snapshot(); },
        [&] {
          return alternately(
              exchangeFirst, [&] { return exchange(); },
              [&] { return probe(); });
        });
    if (s.ns < 0 || pair.first < 0 || pair.second < 0) {
      state.SkipWithError(s.ns < 0         ? "snapshot not healthy"
                          : pair.first < 0 ? "information exchange failed"
                                           : "node probe failed");
      break;
    }
    snaps.push_back(s.ns);
    slowest.push_back(s.slowestProbe);
    exchanges.push_back(pair.first);
    probes.push_back(pair.second);
    sums.push_back(pair.first + pair.second);
    state.SetIterationTime(s.ns / 1e9);
  }
  sim->stop();
  if (snaps.empty()) return;

  const double snapMed = median(snaps), sumMed = median(sums);
  state.counters["snapshot_med_us"] = snapMed / 1e3;
  state.counters["snapshot_p90_us"] = percentile(snaps, 90) / 1e3;
  state.counters["worker_probe_med_us"] = median(slowest) / 1e3;
  state.counters["exchange_med_us"] = median(exchanges) / 1e3;
  state.counters["probe_med_us"] = median(probes) / 1e3;
  state.counters["exchange_probe_med_us"] = sumMed / 1e3;
  state.counters["ratio"] = snapMed / sumMed;
}

}  // namespace

void registerSnapshot(const Sizes& sizes) {
  benchmark::RegisterBenchmark("snapshot/healthy3", BM_SnapshotHealthy, sizes)
      ->Iterations(sizes.snapshotPairs)
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond);
}

}  // namespace bench
