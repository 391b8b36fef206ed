// Fetching a large reply through the library, next to a plain receive loop
// with the same 8 KiB buffer appending to a std::string, both against the same
// loopback server. Besides the time, the heap bytes the client side holds at
// its peak are counted (the server thread's allocations are not).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "alloc_counter.h"
#include "bench_common.h"
#include "reply_server.h"
#include "tovapi/libtovapi.h"

namespace bench {

namespace {

struct Sample {
  double ns = -1.0;
  std::size_t peak = 0;
};

void BM_Reply(benchmark::State& state, Sizes sizes) {
  tov1::tovDebug.setDebugLevel(0);
  const std::size_t size = static_cast<std::size_t>(state.range(0));
  std::unique_ptr<benchsrv::ReplyServer> server;
  try {
    server = std::make_unique<benchsrv::ReplyServer>(benchsrv::makeReply(size),
                                                     sizes.simLifetimeSec);
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
    return;
  }
  const std::string host = "127.0.0.1";
  const std::string port = server->portStr();
  const sockaddr_in addr = loopbackAddress(server->port());
  static const char frame[] = "V 0\n";
  const std::string& expected = server->reply();

  auto viaLibrary = [&]() -> Sample {
    Sample s;
    char* buffer = nullptr;
    int rc = 0;
    {
      benchalloc::Scope scope;
      const auto start = Clock::now();
      rc = tov1::tovNet.tovcomms(buffer, host, port, "V 0", {}, "");
      s.ns = nanosSince(start);
      s.peak = scope.peak();
    }
    const bool ok = rc == 0 && buffer != nullptr &&
                    std::strlen(buffer) == size &&
                    std::memcmp(buffer, expected.data(), size) == 0;
    delete[] buffer;
    if (!ok) s.ns = -1.0;
    return s;
  };
  auto viaRecvLoop = [&]() -> Sample {
    Sample s;
    bool ok = false;
    {
      benchalloc::Scope scope;
      std::string reply;
      const auto start = Clock::now();
      ok = rawExchange(addr, frame, sizeof frame, reply);
      s.ns = nanosSince(start);
      s.peak = scope.peak();
      ok = ok && reply == expected;
    }
    if (!ok) s.ns = -1.0;
    return s;
  };

  std::vector<double> lib, raw;
  std::size_t libPeak = 0, rawPeak = 0;
  bool libFirst = true;
  for (auto _ : state) {
    const auto [l, r] = alternately(
        libFirst, [&] { return viaLibrary(); }, [&] { return viaRecvLoop(); });
    if (l.ns < 0 || r.ns < 0) {
      state.SkipWithError(l.ns < 0 ? "tovcomms fetch failed or was wrong"
                                   : "recv loop fetch failed or was wrong");
      break;
    }
    lib.push_back(l.ns);
    raw.push_back(r.ns);
    libPeak = std::max(libPeak, l.peak);
    rawPeak = std::max(rawPeak, r.peak);
    state.SetIterationTime((l.ns + r.ns) / 1e9);
  }
  if (lib.empty()) return;

  const double libMed = median(lib), rawMed = median(raw);
  const double mib = static_cast<double>(size) / (1024.0 * 1024.0);
  state.counters["tovcomms_med_ms"] = libMed / 1e6;
  state.counters["raw_med_ms"] = rawMed / 1e6;
  state.counters["tovcomms_MiB/s"] = mib / (libMed / 1e9);
  state.counters["raw_MiB/s"] = mib / (rawMed / 1e9);
  state.counters["ratio"] = libMed / rawMed;
  state.counters["tovcomms_peak_x"] =
      static_cast<double>(libPeak) / static_cast<double>(size);
  state.counters["tovcomms_peak_bytes"] = benchmark::Counter(
      static_cast<double>(libPeak), benchmark::Counter::kDefaults,
      benchmark::Counter::kIs1024);
  state.counters["raw_peak_x"] =
      static_cast<double>(rawPeak) / static_cast<double>(size);
}

}  // namespace

void registerReply(const Sizes& sizes) {
  benchmark::RegisterBenchmark("reply/tovcomms_vs_recv", BM_Reply, sizes)
      ->Arg(1 << 20)
      ->Iterations(sizes.replyPairs1M)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  // No goal for 1.5 MiB: it shows how the accumulator's growth by doubling
  // weighs on a size that is not a power of two.
  benchmark::RegisterBenchmark("reply/tovcomms_vs_recv", BM_Reply, sizes)
      ->Arg(3 << 19)
      ->Iterations(sizes.replyPairs1M)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("reply/tovcomms_vs_recv", BM_Reply, sizes)
      ->Arg(16 << 20)
      ->Iterations(sizes.replyPairs16M)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
}

}  // namespace bench
