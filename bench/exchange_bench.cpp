// One request exchange ("V 0", no authentication) through the library against
// the simulator, next to the same exchange done by a minimal socket client
// against the same simulator. The two alternate iteration by iteration, and
// which goes first alternates too, so drift in the simulator or the machine
// hits both alike.
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

bool isVersionReply(const char* reply) {
  return reply != nullptr && reply[0] == 'V' && reply[1] == 'n';
}

void BM_Exchange(benchmark::State& state, Sizes sizes) {
  tov1::tovDebug.setDebugLevel(0);
  std::unique_ptr<simtest::SimProcess> sim = startSimulator(state, sizes);
  if (!sim) return;
  const std::string host = "127.0.0.1";
  const std::string port = sim->portStr();
  const sockaddr_in addr = loopbackAddress(sim->port());
  static const char frame[] = "V 0\n";  // the literal's NUL ends the frame

  auto viaLibrary = [&]() -> double {
    char* buffer = nullptr;
    const auto start = Clock::now();
    const int rc = tov1::tovNet.tovcomms(buffer, host, port, "V 0", {}, "");
    const double ns = nanosSince(start);
    const bool ok = rc == 0 && isVersionReply(buffer);
    delete[] buffer;
    return ok ? ns : -1.0;
  };
  auto viaRawSocket = [&]() -> double {
    std::string reply;
    const auto start = Clock::now();
    const bool sent = rawExchange(addr, frame, sizeof frame, reply);
    const double ns = nanosSince(start);
    return sent && isVersionReply(reply.c_str()) ? ns : -1.0;
  };

  std::vector<double> lib, raw;
  lib.reserve(static_cast<std::size_t>(state.max_iterations));
  raw.reserve(static_cast<std::size_t>(state.max_iterations));
  bool libFirst = true;
  for (auto _ : state) {
    const auto [l, r] = alternately(
        libFirst, [&] { return viaLibrary(); }, [&] { return viaRawSocket(); });
    if (l < 0 || r < 0) {
      state.SkipWithError(l < 0 ? "tovcomms exchange failed"
                                : "raw socket exchange failed");
      break;
    }
    lib.push_back(l);
    raw.push_back(r);
    state.SetIterationTime((l + r) / 1e9);
  }
  sim->stop();
  if (lib.empty()) return;

  const double libMed = median(lib), rawMed = median(raw);
  state.counters["tovcomms_med_us"] = libMed / 1e3;
  state.counters["tovcomms_p90_us"] = percentile(lib, 90) / 1e3;
  state.counters["raw_med_us"] = rawMed / 1e3;
  state.counters["raw_p90_us"] = percentile(raw, 90) / 1e3;
  state.counters["ratio"] = libMed / rawMed;
}

}  // namespace

void registerExchange(const Sizes& sizes) {
  benchmark::RegisterBenchmark("exchange/tovcomms_vs_raw", BM_Exchange, sizes)
      ->Iterations(sizes.exchanges)
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond);
}

}  // namespace bench
