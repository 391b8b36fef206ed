// A status snapshot of a 64-node cluster of which half never answers, against
// probing the same nodes one after the other. The cluster lives in a network
// namespace of its own: the 32 answering nodes are addresses on a veth served
// by one simulator, the 32 others are routed into a veth whose peer is down
// and that does no ARP, so a SYN vanishes without a trace and every probe of
// such a node waits out the library's whole connect timeout. Not refused, not
// unreachable: silent, the worst case for a snapshot.
//
// Not a Google Benchmark: it forks into a namespace, and one sequential run
// takes over a minute. The snapshot is taken several times (half of the runs
// before the sequential run, half after) and its median reported.
//
// Usage: snapshot_blackhole [--runs N] [--quick]
// --quick takes two snapshots and leaves out the sequential run.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/deadline.h"
#include "common/snapshot.h"
#include "netns/netns_lab.h"
#include "support/sim.h"
#include "tovapi/libtovapi.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kHalf = 32;
// The library's node probe gives a node this long to connect and to send
// its salt.
constexpr double kProbeTimeout = 2.0;
constexpr double kGoal = 1.5;  // snapshot / probe timeout
// A blackholed probe that ends sooner than this did not wait for the
// timeout: something answered (a refusal, an unreachable route).
constexpr double kShortestSilentProbe = 0.95 * kProbeTimeout;

struct Options {
  int runs = 5;
  bool quick = false;
};

struct Node {
  std::string name;
  std::string address;
  bool answers = false;
};

double secondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return (v[(v.size() - 1) / 2] + v[v.size() / 2]) / 2;
}

std::string answeringAddress(int i) { return "198.18.0." + std::to_string(i); }
std::string silentAddress(int i) { return "198.18.1." + std::to_string(i); }

// Odd nodes answer, even ones are blackholed, so that neither half is
// probed first.
std::vector<Node> clusterNodes() {
  std::vector<Node> nodes;
  for (int i = 1; i <= kHalf; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "node%02d", 2 * i - 1);
    nodes.push_back({name, answeringAddress(i), true});
    std::snprintf(name, sizeof name, "node%02d", 2 * i);
    nodes.push_back({name, silentAddress(i), false});
  }
  return nodes;
}

std::string configJson(const std::vector<Node>& nodes) {
  std::string list;
  for (const Node& n : nodes) {
    list += std::string(list.empty() ? "" : ",\n  ") + "{\"name\": \"" +
            n.name + "\", \"address\": \"" + n.address + "\"}";
  }
  return "{\"cluster\": {\"name\": \"halfdark\", \"poll_time\": 1},\n"
         " \"nodes\": [\n  " +
         list +
         "],\n"
         " \"services\": [{\"name\": \"web\", \"state\": \"running\", "
         "\"mode\": \"auto\", \"node\": \"node01\"}]}\n";
}

std::vector<std::string> namespaceSetup() {
  std::vector<std::string> setup{"link add tva0 type veth peer name tva1",
                                 "link set tva1 up", "link set tva0 up"};
  for (int i = 1; i <= kHalf; ++i)
    setup.push_back("addr add " + answeringAddress(i) + "/24 dev tva0");
  // No ARP and a peer that is down: packets routed here are dropped without
  // any error coming back.
  setup.insert(setup.end(), {"link add tvb0 type veth peer name tvb1",
                             "link set tvb0 arp off", "link set tvb0 up",
                             "route add " + silentAddress(0) + "/24 dev tvb0"});
  return setup;
}

struct Probe {
  int rc = 0;
  double seconds = 0;
};

// One probe as the sequential baseline and the workers make it: with a cold
// cache, or the probe would answer from what an earlier one cached.
Probe probe(const std::string& address, const std::string& port) {
  tov1::tovCache.clearCache();
  const auto start = Clock::now();
  const int rc = tov1::tovNet.testNode(address, port);
  return {rc, secondsSince(start)};
}

std::string reasonOf(int rc) {
  return tov1::tovDebug.tovErrorString(
      static_cast<tov1::tov_error_enum>(rc < 0 ? -rc : rc));
}

// A probe result that says the setup is not what it should be, or "".
std::string misfit(const Node& n, const Probe& p) {
  if (n.answers && p.rc != 0)
    return n.address + " should answer but: " + reasonOf(p.rc);
  if (!n.answers && p.rc == 0) return n.address + " should be silent";
  if (!n.answers && p.seconds < kShortestSilentProbe) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "%s gave up after %.3f s (%s): something answered instead "
                  "of the connect timing out",
                  n.address.c_str(), p.seconds, reasonOf(p.rc).c_str());
    return text;
  }
  return "";
}

struct SnapshotRun {
  double seconds = 0;
  unsigned answering = 0, silent = 0, overdue = 0;
  double slowestSilent = 0;
};

bool takeOne(const std::vector<Node>& nodes, const std::string& port,
             SnapshotRun& run) {
  tovtools::SnapshotOptions so;
  so.entries.push_back({nodes.front().address, port});
  // As `tovctl status` takes it: default options, its default deadline.
  tovtools::Deadline deadline(30);
  const auto start = Clock::now();
  const tovtools::Snapshot s = tovtools::takeSnapshot(so, deadline);
  run.seconds = secondsSince(start);
  if (!s.ok() || s.cut || s.nodes.size() != nodes.size()) {
    std::fprintf(stderr, "snapshot failed: %s\n",
                 s.ok() ? "wrong node list" : reasonOf(s.code).c_str());
    return false;
  }
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    const tovtools::NodeStatus& n = s.nodes[i];
    if (n.address != nodes[i].address || n.answers != nodes[i].answers) {
      std::fprintf(stderr, "snapshot: %s %s\n", n.address.c_str(),
                   n.answers ? "answered" : "was silent");
      return false;
    }
    if (n.answers) {
      ++run.answering;
    } else {
      ++run.silent;
      if (n.overdue) ++run.overdue;
      run.slowestSilent = std::max(run.slowestSilent, n.seconds);
    }
  }
  return true;
}

// Runs inside the namespace; prints the report on standard output and its
// progress on standard error.
int measure(const Options& o, int lifetimeSec) {
  tov1::tovDebug.setDebugLevel(0);
  const std::vector<Node> nodes = clusterNodes();
  simtest::SimOptions sim;
  sim.configJson = configJson(nodes);
  sim.listen.clear();
  for (const Node& n : nodes)
    if (n.answers) sim.listen.push_back(n.address);
  sim.maxLifetimeSec = lifetimeSec;
  std::unique_ptr<simtest::SimProcess> daemon;
  try {
    daemon = std::make_unique<simtest::SimProcess>(sim);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "the simulator did not start: %s\n", e.what());
    return 1;
  }
  const std::string port = daemon->portStr();

  // The setup, checked before anything is measured.
  const Probe answering = probe(nodes[0].address, port);
  const Probe silent = probe(nodes[1].address, port);
  for (const std::string& why :
       {misfit(nodes[0], answering), misfit(nodes[1], silent)}) {
    if (!why.empty()) {
      std::fprintf(stderr, "setup: %s\n", why.c_str());
      return 1;
    }
  }
  std::printf("one probe alone: blackholed %.3f s (%s), answering %.2f ms\n",
              silent.seconds, reasonOf(silent.rc).c_str(),
              answering.seconds * 1e3);

  std::vector<SnapshotRun> runs;
  auto snapshots = [&](int count) {
    for (int i = 0; i < count; ++i) {
      SnapshotRun run;
      std::fprintf(stderr, "snapshot %zu of %d\n", runs.size() + 1, o.runs);
      if (!takeOne(nodes, port, run)) return false;
      runs.push_back(run);
    }
    return true;
  };

  if (!snapshots((o.runs + 1) / 2)) return 1;

  double sequential = 0;
  std::vector<double> silentTimes, answeringTimes;
  if (!o.quick) {
    std::fprintf(stderr, "sequential probes of %zu nodes, about %.0f s\n",
                 nodes.size(), kHalf * kProbeTimeout);
    const auto start = Clock::now();
    // The same work as a snapshot, without workers.
    const int info =
        tov1::tovCache.refreshCache(nodes.front().address, port, true);
    if (info != 0) {
      std::fprintf(stderr, "information exchange failed: %s\n",
                   reasonOf(info).c_str());
      return 1;
    }
    for (const Node& n : nodes) {
      const Probe p = probe(n.address, port);
      const std::string why = misfit(n, p);
      if (!why.empty()) {
        std::fprintf(stderr, "sequential: %s\n", why.c_str());
        return 1;
      }
      (n.answers ? answeringTimes : silentTimes).push_back(p.seconds);
    }
    sequential = secondsSince(start);
  }

  if (!snapshots(o.runs - (o.runs + 1) / 2)) return 1;
  daemon->stop();

  std::vector<double> times;
  std::string list;
  unsigned overdue = 0;
  double slowestSilent = 0;
  for (const SnapshotRun& r : runs) {
    times.push_back(r.seconds);
    char t[16];
    std::snprintf(t, sizeof t, "%s%.3f", list.empty() ? "" : " ", r.seconds);
    list += t;
    overdue += r.overdue;
    slowestSilent = std::max(slowestSilent, r.slowestSilent);
  }
  const double snap = median(times);
  std::printf(
      "snapshot of %zu nodes (%d answering, %d blackholed), %zu runs: "
      "median %.3f s, min %.3f s, max %.3f s\n",
      nodes.size(), kHalf, kHalf, runs.size(), snap,
      *std::min_element(times.begin(), times.end()),
      *std::max_element(times.begin(), times.end()));
  std::printf("  runs (s): %s\n", list.c_str());
  std::printf(
      "  every run: %d answering, %d silent; slowest silent probe %.3f s, "
      "%u cut off by the probe limit\n",
      kHalf, kHalf, slowestSilent, overdue);
  if (o.quick) {
    std::printf("sequential probes: left out (--quick)\n");
  } else {
    std::printf(
        "sequential probes (information exchange, then one node after the "
        "other): %.3f s\n  blackholed: median %.3f s each (min %.3f, max "
        "%.3f); answering: median %.2f ms each\n",
        sequential, median(silentTimes),
        *std::min_element(silentTimes.begin(), silentTimes.end()),
        *std::max_element(silentTimes.begin(), silentTimes.end()),
        median(answeringTimes) * 1e3);
    std::printf("ratio snapshot/sequential: %.4f (%.1f times faster)\n",
                snap / sequential, sequential / snap);
  }
  const double ratio = snap / kProbeTimeout;
  std::printf("ratio snapshot/probe-timeout: %.3f (timeout %.0f s)\n", ratio,
              kProbeTimeout);
  if (o.quick) std::printf("quick run: the figures are indicative only\n");
  std::printf("goal snapshot-64-blackholed: %.3f (limit %.2f) %s\n", ratio,
              kGoal, ratio <= kGoal ? "met" : "missed");
  std::fflush(stdout);
  return 0;
}

bool parse(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--quick") == 0) {
      o.quick = true;
    } else if (std::strcmp(argv[i], "--runs") == 0 && i + 1 < argc) {
      char* end = nullptr;
      const long n = std::strtol(argv[++i], &end, 10);
      if (*end != '\0' || n < 1 || n > 20) return false;
      o.runs = static_cast<int>(n);
    } else {
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  const char* q = std::getenv("TOVAPI_BENCH_QUICK");
  if (q != nullptr && *q != '\0' && std::strcmp(q, "0") != 0) o.quick = true;
  if (!parse(argc, argv, o)) {
    std::fprintf(stderr, "usage: %s [--runs 1..20] [--quick]\n", argv[0]);
    return 2;
  }
  if (o.quick && o.runs == Options().runs) o.runs = 2;

  netnstest::NetnsLab lab;
  std::string why;
  if (!lab.available(&why)) {
    std::printf("snapshot-64-blackholed: skipped: %s\n", why.c_str());
    return 0;
  }
  // Bounds for the whole run and for the simulator in it: the sequential run
  // is one probe timeout per blackholed node, a snapshot a little more than
  // one probe limit.
  const int limitSec =
      30 + (o.quick ? 0 : static_cast<int>(kHalf * kProbeTimeout) + 10) +
      5 * o.runs;
  std::fflush(stdout);
  const netnstest::Outcome outcome = netnstest::runIsolated(
      namespaceSetup(), [&] { return measure(o, limitSec + 10); }, limitSec);
  std::fputs(outcome.output.c_str(), stdout);
  if (outcome.status == 77) {
    std::printf(
        "snapshot-64-blackholed: skipped: the namespace could not be set up "
        "(veth interfaces unavailable?)\n");
    return 0;
  }
  if (outcome.status != 0) {
    std::printf("snapshot-64-blackholed: could not run (status %d)\n",
                outcome.status);
    return 1;
  }
  return 0;
}
