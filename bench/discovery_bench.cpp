// The processing half of cluster discovery over the pooled lines of many
// synthetic answers, printed to a stream that discards everything, for 1,000
// and 10,000 answers in both layouts; the growth from one size to the other
// shows whether the duplicate rule or the grouping turned quadratic.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include "bench_common.h"
#include "tovapi/internal_discovery.h"
#include "tovapi/libtovapi.h"

namespace bench {

namespace {

class NullBuffer : public std::streambuf {
 protected:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

std::string crcOf(unsigned k) {
  // Multiplication by an odd constant is a bijection modulo 2^32: distinct
  // answers get distinct CRCs.
  char text[9];
  std::snprintf(
      text, sizeof text, "%08x",
      static_cast<unsigned>(static_cast<std::uint32_t>(k) * 2654435761u));
  return text;
}

// The lines of `count` answers as the collection pools them: each answer is a
// 13-field cluster line and two or three node lines. Every 7th answer comes
// from a bootstrap machine; every 10th repeats the CRC of an earlier
// configured cluster, as a second node of that cluster would.
std::vector<std::string> pooledAnswers(unsigned count) {
  std::vector<std::string> lines;
  lines.reserve(count * 4u);
  for (unsigned k = 0; k < count; ++k) {
    const unsigned bootstrap = k % 7 == 3 ? 1 : 0;
    unsigned crcSource = k;
    if (k % 10 == 9) {
      crcSource = k - 9;  // k - 9 is a multiple of 10, never bootstrap-only
      while (crcSource % 7 == 3) crcSource -= 10;
    }
    const unsigned nodes = 2 + k % 2;
    const std::string serial = k % 5 == 0 ? "-1" : std::to_string(1000 + k);
    char line[256];
    std::snprintf(line, sizeof line,
                  "C cluster%u %u 3 %s %s %u %u 1 %u %u node%u_1 "
                  "bench_machine_%u",
                  crcSource, nodes, crcOf(crcSource).c_str(), serial.c_str(),
                  1700000000u + k, 700u + k % 300, 1700000100u + k, bootstrap,
                  k, k);
    lines.emplace_back(line);
    for (unsigned n = 1; n <= nodes; ++n) {
      std::snprintf(line, sizeof line, "N node%u_%u 10.%u.%u.%u 4", k, n,
                    (k >> 16) & 255u, (k >> 8) & 255u, (k & 255u) ^ n);
      lines.emplace_back(line);
    }
  }
  return lines;
}

// The CPU time of one report over `lines`, taken on a second call right after
// an untimed one, so that both sizes are measured with their data in cache.
double warmReport(const std::vector<std::string>& lines, bool labelled,
                  std::ostream& out, unsigned& printed) {
  tov1::discovery::reportAnswers(lines, tov1::tov_discover_all, labelled, out);
  const double start = threadCpuNanos();
  printed = tov1::discovery::reportAnswers(lines, tov1::tov_discover_all,
                                           labelled, out);
  const double ns = threadCpuNanos() - start;
  benchmark::DoNotOptimize(printed);
  return ns;
}

// 1,000 and 10,000 answers alternate within each iteration (and which comes
// first alternates too), so a change in the machine's load hits both sizes.
void BM_Discovery(benchmark::State& state, bool labelled) {
  tov1::tovDebug.setDebugLevel(0);
  const std::vector<std::string> small = pooledAnswers(1000);
  const std::vector<std::string> large = pooledAnswers(10000);
  NullBuffer sink;
  std::ostream out(&sink);
  std::vector<double> smallNs, largeNs;
  unsigned smallPrinted = 0, largePrinted = 0;
  bool smallFirst = true;
  for (auto _ : state) {
    const auto [s, l] = alternately(
        smallFirst,
        [&] { return warmReport(small, labelled, out, smallPrinted); },
        [&] { return warmReport(large, labelled, out, largePrinted); });
    smallNs.push_back(s);
    largeNs.push_back(l);
    state.SetIterationTime((s + l) / 1e9);
  }
  const double smallMed = median(smallNs), largeMed = median(largeNs);
  state.counters["printed_1000"] = smallPrinted;
  state.counters["printed_10000"] = largePrinted;
  state.counters["t1000_med_ms"] = smallMed / 1e6;
  state.counters["t10000_med_ms"] = largeMed / 1e6;
  state.counters["us_per_answer_1000"] = smallMed / 1e3 / 1000;
  state.counters["us_per_answer_10000"] = largeMed / 1e3 / 10000;
  state.counters["ratio"] = smallMed > 0 ? largeMed / smallMed : 0.0;
}

}  // namespace

void registerDiscovery(const Sizes& sizes) {
  benchmark::RegisterBenchmark("discovery/labelled", BM_Discovery, true)
      ->Iterations(sizes.discoveryPairs)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("discovery/raw", BM_Discovery, false)
      ->Iterations(sizes.discoveryPairs)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
}

}  // namespace bench
