// An authenticated bounce through serviceCommand against the simulator, and
// the forced cache refresh on its own, alternating. serviceCommand forces a
// refresh itself before it sends the command, so the refresh's share of the
// round trip tells how much of a service command is spent re-reading the
// cluster.
#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_common.h"
#include "support/sim.h"
#include "tovapi/libtovapi.h"

namespace bench {

namespace {

void BM_ServiceCommand(benchmark::State& state, Sizes sizes) {
  tov1::tovDebug.setDebugLevel(0);
  std::unique_ptr<simtest::SimProcess> sim = startSimulator(state, sizes);
  if (!sim) return;
  const std::string host = "127.0.0.1";
  const std::string port = sim->portStr();
  const std::vector<std::string> auth =
      tov1::tovAuth.genObject("admin", "secret", "");
  if (tov1::tovCache.refreshCache(host, port, false) != 0) {
    state.SkipWithError("initial cache refresh failed");
    return;
  }

  auto bounce = [&]() -> double {
    const auto start = Clock::now();
    const int rc = tov1::tovNet.serviceCommand(host, port, "B", auth, 0, 3, "");
    const double ns = nanosSince(start);
    return rc == 0 ? ns : -1.0;
  };
  auto refresh = [&]() -> double {
    const auto start = Clock::now();
    const int rc = tov1::tovCache.refreshCache(host, port, true);
    const double ns = nanosSince(start);
    return rc == 0 ? ns : -1.0;
  };

  std::vector<double> calls, refreshes;
  bool bounceFirst = true;
  for (auto _ : state) {
    const auto [b, r] = alternately(
        bounceFirst, [&] { return bounce(); }, [&] { return refresh(); });
    if (b < 0 || r < 0) {
      state.SkipWithError(b < 0 ? "serviceCommand failed"
                                : "forced cache refresh failed");
      break;
    }
    calls.push_back(b);
    refreshes.push_back(r);
    state.SetIterationTime(b / 1e9);
  }
  sim->stop();
  if (calls.empty()) return;

  const double callMed = median(calls), refreshMed = median(refreshes);
  state.counters["svccmd_med_us"] = callMed / 1e3;
  state.counters["svccmd_p90_us"] = percentile(calls, 90) / 1e3;
  state.counters["refresh_med_us"] = refreshMed / 1e3;
  state.counters["refresh_p90_us"] = percentile(refreshes, 90) / 1e3;
  state.counters["refresh_share"] = refreshMed / callMed;
}

}  // namespace

void registerServiceCommand(const Sizes& sizes) {
  benchmark::RegisterBenchmark("servicecommand/bounce", BM_ServiceCommand,
                               sizes)
      ->Iterations(sizes.serviceCalls)
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond);
}

}  // namespace bench
