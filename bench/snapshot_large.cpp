// Status snapshots of clusters full of nodes that never answer, in a network
// namespace of the program's own.
//
// 64 nodes, half of them blackholed: the snapshot in process, against the
// probe timeout and against probing the same nodes one after the other.
//
// 256 nodes, the largest cluster a daemon allows, of which only the entry
// node answers and the other 255 are
//   blackholed: routed into a veth whose peer is down and that does no ARP,
//               so a SYN vanishes and the connect times out;
//   mute:       the simulator accepts and never sends the salt;
//   stalling:   a second simulator sends the salt, reads the request and
//               holds the reply for an hour, so only the probe limit ends
//               the probe.
// For each kind: the built `tovctl status` and `tovctl check` as whole
// processes with their default options, and the snapshot in process, as
// ratios to the snapshot's probe limit. Against them, in the same run: one
// probe alone, `tovctl --version` as a process, and forking as many
// processes as a snapshot starts workers.
//
// Not a Google Benchmark: it forks into a namespace, and one sequential run
// takes over a minute.
//
// Usage: snapshot_large [--runs N] [--quick]
// --quick measures everything once and leaves out the sequential run.
#include <sys/wait.h>
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
#include "tovctl/run_tool.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kHalf = 32;   // of the 64-node cluster: answering, blackholed
constexpr int kDark = 255;  // of the 256-node cluster: all but the entry
// The library's node probe gives a node this long to connect and to send
// its salt.
constexpr double kProbeTimeout = 2.0;
constexpr double kGoal = 1.5;  // times the probe timeout or limit
// A silent probe that ends sooner than this did not wait for the timeout:
// something answered (a refusal, an unreachable route).
constexpr double kShortestSilentProbe = 0.95 * kProbeTimeout;
// Entry node of the 256-node clusters, on the namespace's own loopback.
const char* const kEntry = "127.0.0.1";
// An hour, the simulator's longest delay: the reply never comes in time.
const char* const kStallMs = "3600000";
// A tovctl run that has not ended after this long is killed. `status` has a
// 30 s deadline of its own, `check` 10 s.
constexpr int kToolLimitSec = 40;

struct Options {
  int runs = 5;
  bool quick = false;
};

struct Node {
  std::string name;
  std::string address;
  bool answers = false;
  bool mute = false;
};

double secondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return (v[(v.size() - 1) / 2] + v[v.size() / 2]) / 2;
}

std::string spread(const std::vector<double>& v, const char* unit = "s",
                   double scale = 1) {
  if (v.empty()) return "none";
  char text[128];
  std::snprintf(text, sizeof text, "median %.3f %s, min %.3f %s, max %.3f %s",
                median(v) * scale, unit,
                *std::min_element(v.begin(), v.end()) * scale, unit,
                *std::max_element(v.begin(), v.end()) * scale, unit);
  return text;
}

std::string listed(const std::vector<double>& v) {
  std::string out;
  for (double x : v) {
    char t[24];
    std::snprintf(t, sizeof t, "%s%.3f", out.empty() ? "" : " ", x);
    out += t;
  }
  return out;
}

std::size_t occurrences(const std::string& text, const std::string& what) {
  std::size_t n = 0;
  for (std::size_t at = text.find(what); at != std::string::npos;
       at = text.find(what, at + what.size())) {
    ++n;
  }
  return n;
}

std::string goalLine(const std::string& name, double ratio, bool met) {
  char text[160];
  std::snprintf(text, sizeof text, "goal %s: %.3f (limit %.2f) %s",
                name.c_str(), ratio, kGoal, met ? "met" : "missed");
  return text;
}

std::string answeringAddress(int i) { return "198.18.0." + std::to_string(i); }
std::string blackholedAddress(int i) { return "198.18.1." + std::to_string(i); }

std::string configJson(const std::string& cluster,
                       const std::vector<Node>& nodes) {
  std::string list;
  for (const Node& n : nodes) {
    list += std::string(list.empty() ? "" : ",\n  ") + "{\"name\": \"" +
            n.name + "\", \"address\": \"" + n.address + "\"" +
            (n.mute ? ", \"silent\": \"mute\"}" : "}");
  }
  return "{\"cluster\": {\"name\": \"" + cluster +
         "\", \"poll_time\": 1},\n"
         " \"nodes\": [\n  " +
         list +
         "],\n"
         " \"services\": [{\"name\": \"web\", \"state\": \"running\", "
         "\"mode\": \"auto\", \"node\": \"" +
         nodes.front().name + "\"}]}\n";
}

std::vector<std::string> namespaceSetup() {
  std::vector<std::string> setup{"link add tva0 type veth peer name tva1",
                                 "link set tva1 up", "link set tva0 up"};
  for (int i = 1; i <= kHalf; ++i)
    setup.push_back("addr add " + answeringAddress(i) + "/24 dev tva0");
  // No ARP and a peer that is down: packets routed here are dropped without
  // any error coming back. Mute and stalling nodes live on the namespace's
  // loopback (127.0.2.0/24, 127.0.3.0/24), which needs no setup.
  setup.insert(setup.end(),
               {"link add tvb0 type veth peer name tvb1",
                "link set tvb0 arp off", "link set tvb0 up",
                "route add " + blackholedAddress(0) + "/24 dev tvb0"});
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
                  "of the probe timing out",
                  n.address.c_str(), p.seconds, reasonOf(p.rc).c_str());
    return text;
  }
  return "";
}

struct SnapshotRun {
  double seconds = 0;
  unsigned silent = 0, overdue = 0;
  double slowestSilent = 0, quickestSilent = 1e9;
};

// One snapshot as `tovctl status` takes it (default options, its 30 s
// deadline) through the first node; "" when it lists every node as it
// should, else what is wrong.
std::string takeOne(const std::vector<Node>& nodes, const std::string& port,
                    SnapshotRun& run) {
  tovtools::SnapshotOptions so;
  so.entries.push_back({nodes.front().address, port});
  tovtools::Deadline deadline(30);
  const auto start = Clock::now();
  const tovtools::Snapshot s = tovtools::takeSnapshot(so, deadline);
  run.seconds = secondsSince(start);
  if (!s.ok()) return "snapshot failed: " + reasonOf(s.code);
  if (s.cut) return "the deadline cut the snapshot short";
  if (s.nodes.size() != nodes.size()) return "wrong node list";
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    const tovtools::NodeStatus& n = s.nodes[i];
    if (n.address != nodes[i].address || n.answers != nodes[i].answers) {
      return "snapshot: " + n.address + (n.answers ? " answered" : " silent");
    }
    if (n.answers) continue;
    ++run.silent;
    if (n.overdue) ++run.overdue;
    run.slowestSilent = std::max(run.slowestSilent, n.seconds);
    run.quickestSilent = std::min(run.quickestSilent, n.seconds);
  }
  return "";
}

// Whether the silent nodes of a snapshot failed as their kind does: a
// stalling probe is ended by the probe limit, any other by the library's
// own timeout, not sooner. "" when they did.
std::string silentMisfit(const SnapshotRun& r, bool stalling) {
  char text[160] = "";
  if (stalling && r.overdue != r.silent) {
    std::snprintf(text, sizeof text,
                  "only %u of %u stalling probes were ended by the probe "
                  "limit",
                  r.overdue, r.silent);
  } else if (!stalling && r.overdue > 0) {
    std::snprintf(text, sizeof text,
                  "%u probes were ended by the probe limit instead of the "
                  "library's timeout",
                  r.overdue);
  } else if (!stalling && r.quickestSilent < kShortestSilentProbe) {
    std::snprintf(text, sizeof text,
                  "a silent probe ended after %.3f s: something answered",
                  r.quickestSilent);
  }
  return text;
}

// ---- What a snapshot costs besides its probes -------------------------

// Forks `n` children that end at once and reaps them: the process cost of
// a snapshot's workers, without their probes.
double forkCost(int n) {
  std::fflush(nullptr);
  const auto start = Clock::now();
  std::vector<pid_t> children;
  for (int i = 0; i < n; ++i) {
    const pid_t pid = fork();
    if (pid == 0) _exit(0);
    if (pid > 0) children.push_back(pid);
  }
  for (pid_t pid : children) {
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
  }
  return secondsSince(start);
}

void baselines(const Options& o) {
  std::vector<double> version, forks;
  for (int i = 0; i < std::max(o.runs, 3); ++i) {
    tovctltest::RunOptions ro;
    ro.limitSec = 10;
    version.push_back(tovctltest::runTovctl({"--version"}, ro).seconds);
    forks.push_back(forkCost(kDark));
  }
  std::printf("tovctl --version as a process: %s\n",
              spread(version, "ms", 1e3).c_str());
  std::printf("fork, exit and reap of %d processes at once: %s\n", kDark,
              spread(forks, "ms", 1e3).c_str());
}

// ---- 64 nodes, half of them blackholed --------------------------------

// Odd nodes answer, even ones are blackholed, so that neither half is
// probed first.
std::vector<Node> halfDarkNodes() {
  std::vector<Node> nodes;
  for (int i = 1; i <= kHalf; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "node%02d", 2 * i - 1);
    nodes.push_back({name, answeringAddress(i), true, false});
    std::snprintf(name, sizeof name, "node%02d", 2 * i);
    nodes.push_back({name, blackholedAddress(i), false, false});
  }
  return nodes;
}

struct Sequential {
  double seconds = 0;
  std::vector<double> silent, answering;
};

// The same work as a snapshot, without workers: the information exchange,
// then every node in turn.
bool sequentialRun(const std::vector<Node>& nodes, const std::string& port,
                   Sequential& seq) {
  std::fprintf(stderr, "sequential probes of %zu nodes, about %.0f s\n",
               nodes.size(), kHalf * kProbeTimeout);
  const auto start = Clock::now();
  const int info =
      tov1::tovCache.refreshCache(nodes.front().address, port, true);
  if (info != 0) {
    std::fprintf(stderr, "information exchange failed: %s\n",
                 reasonOf(info).c_str());
    return false;
  }
  for (const Node& n : nodes) {
    const Probe p = probe(n.address, port);
    const std::string why = misfit(n, p);
    if (!why.empty()) {
      std::fprintf(stderr, "sequential: %s\n", why.c_str());
      return false;
    }
    (n.answers ? seq.answering : seq.silent).push_back(p.seconds);
  }
  seq.seconds = secondsSince(start);
  return true;
}

// `count` snapshots of the 64-node cluster, each checked.
bool halfDarkSnapshots(const std::vector<Node>& nodes, const std::string& port,
                       int count, int total, std::vector<SnapshotRun>& runs) {
  for (int i = 0; i < count; ++i) {
    std::fprintf(stderr, "64 nodes: snapshot %zu of %d\n", runs.size() + 1,
                 total);
    SnapshotRun run;
    std::string why = takeOne(nodes, port, run);
    if (why.empty()) why = silentMisfit(run, false);
    if (!why.empty()) {
      std::fprintf(stderr, "%s\n", why.c_str());
      return false;
    }
    runs.push_back(run);
  }
  return true;
}

void halfDarkReport(const std::vector<SnapshotRun>& runs, const Sequential& seq,
                    bool quick, std::vector<std::string>& goals) {
  std::vector<double> times;
  double slowest = 0;
  unsigned overdue = 0;
  for (const SnapshotRun& r : runs) {
    times.push_back(r.seconds);
    slowest = std::max(slowest, r.slowestSilent);
    overdue += r.overdue;
  }
  const double snap = median(times);
  std::printf(
      "snapshot of 64 nodes (%d answering, %d blackholed), runs: %zu, "
      "%s\n  runs (s): %s\n",
      kHalf, kHalf, runs.size(), spread(times).c_str(), listed(times).c_str());
  std::printf(
      "  every run: %d answering, %d silent; slowest silent probe "
      "%.3f s, %u cut off by the probe limit\n",
      kHalf, kHalf, slowest, overdue);
  if (quick) {
    std::printf("sequential probes: left out (--quick)\n");
  } else {
    std::printf(
        "sequential probes (information exchange, then one node after the "
        "other): %.3f s\n  blackholed: %s each; answering: median %.2f ms "
        "each\n",
        seq.seconds, spread(seq.silent).c_str(), median(seq.answering) * 1e3);
    std::printf("ratio snapshot/sequential: %.4f (%.1f times faster)\n",
                snap / seq.seconds, seq.seconds / snap);
  }
  const double ratio = snap / kProbeTimeout;
  std::printf("ratio snapshot/probe-timeout: %.3f (timeout %.0f s)\n", ratio,
              kProbeTimeout);
  goals.push_back(goalLine("snapshot-64-blackholed", ratio, ratio <= kGoal));
}

bool halfDark(const Options& o, int lifetimeSec,
              std::vector<std::string>& goals) {
  const std::vector<Node> nodes = halfDarkNodes();
  simtest::SimOptions sim;
  sim.configJson = configJson("halfdark", nodes);
  sim.listen.clear();
  for (const Node& n : nodes)
    if (n.answers) sim.listen.push_back(n.address);
  sim.maxLifetimeSec = lifetimeSec;
  simtest::SimProcess daemon(sim);
  const std::string port = daemon.portStr();

  // The setup, checked before anything is measured.
  const Probe answering = probe(nodes[0].address, port);
  const Probe silent = probe(nodes[1].address, port);
  for (const std::string& why :
       {misfit(nodes[0], answering), misfit(nodes[1], silent)}) {
    if (!why.empty()) {
      std::fprintf(stderr, "setup: %s\n", why.c_str());
      return false;
    }
  }
  std::printf("one probe alone: blackholed %.3f s (%s), answering %.2f ms\n",
              silent.seconds, reasonOf(silent.rc).c_str(),
              answering.seconds * 1e3);

  // Half of the snapshots before the sequential run, half after.
  std::vector<SnapshotRun> runs;
  const int before = (o.runs + 1) / 2;
  Sequential seq;
  if (!halfDarkSnapshots(nodes, port, before, o.runs, runs) ||
      (!o.quick && !sequentialRun(nodes, port, seq)) ||
      !halfDarkSnapshots(nodes, port, o.runs - before, o.runs, runs)) {
    return false;
  }
  daemon.stop();
  halfDarkReport(runs, seq, o.quick, goals);
  return true;
}

// ---- 256 nodes, 255 of them silent ------------------------------------

struct Kind {
  const char* name;
  const char* what;
  const char* net;  // the silent nodes' addresses: net + 1..255
  bool mute;
  bool stalling;
};

const Kind kKinds[] = {
    {"blackholed", "routed into a veth whose peer is down, no ARP", "198.18.1.",
     false, false},
    {"mute", "the simulator accepts and never sends the salt", "127.0.2.", true,
     false},
    {"stalling",
     "a second simulator sends the salt and holds the reply for an hour",
     "127.0.3.", false, true}};

std::vector<Node> largeNodes(const Kind& k) {
  std::vector<Node> nodes{{"node001", kEntry, true, false}};
  for (int i = 1; i <= kDark; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "node%03d", i + 1);
    nodes.push_back({name, k.net + std::to_string(i), false, k.mute});
  }
  return nodes;
}

// A 256-node cluster of one kind: the simulators that serve it, and after
// each measurement a look at them that the silent nodes behaved as that
// kind.
class DarkCluster {
 public:
  DarkCluster(const Kind& k, int lifetimeSec)
      : kind_(k), nodes_(largeNodes(k)) {
    simtest::SimOptions entry;
    entry.configJson = configJson(std::string("dark-") + k.name, nodes_);
    entry.maxLifetimeSec = lifetimeSec;
    // A mute node is the simulator's own: it listens there and holds every
    // connection. Otherwise it serves the entry node alone.
    if (k.mute) entry.listen.clear();
    entry_ = std::make_unique<simtest::SimProcess>(entry);
    port_ = entry_->portStr();
    if (k.stalling) {
      stallOpts_ = entry;
      stallOpts_.port = entry_->port();
      stallOpts_.listen.clear();
      for (std::size_t i = 1; i < nodes_.size(); ++i)
        stallOpts_.listen.push_back(nodes_[i].address);
      stallOpts_.extraArgs = {"--reply-delay", kStallMs};
    }
  }

  const std::vector<Node>& nodes() const { return nodes_; }
  const std::string& port() const { return port_; }

  // Before each measurement. A stalling cluster gets a fresh second
  // simulator: it notices a client leaving only after the delay, so the
  // connections of the measurement before would still hold its 256
  // connection threads, and new ones would wait in the listen backlog
  // without a salt, as at a mute node.
  void prepare() {
    if (kind_.stalling) {
      stall_.reset();
      stall_ = std::make_unique<simtest::SimProcess>(stallOpts_);
    }
    if (kind_.mute) muteSeen_ = mutedConnections();
  }

  // After each: "" when exactly `probes` silent nodes were asked as their
  // kind answers (a mute node held the connection, a stalling node read
  // the request), else why not.
  std::string verify(std::size_t probes) {
    std::size_t seen = probes;
    if (kind_.stalling && stall_) {
      stall_->stop();
      seen = occurrences(stall_->log(), std::string("-> ") + kind_.net);
    } else if (kind_.mute) {
      seen = mutedConnections() - muteSeen_;
    }
    if (seen == probes) return "";
    return std::to_string(seen) + " " + kind_.name + " exchanges in the " +
           "simulator's log, " + std::to_string(probes) + " expected";
  }

 private:
  std::size_t mutedConnections() const {
    return occurrences(entry_->log(), "held without a salt (mute node)");
  }

  const Kind& kind_;
  std::vector<Node> nodes_;
  std::string port_;
  std::unique_ptr<simtest::SimProcess> entry_, stall_;
  simtest::SimOptions stallOpts_;
  std::size_t muteSeen_ = 0;
};

struct KindFigures {
  std::vector<double> snapshot, status, check;
  // Per snapshot in process: its time beyond its slowest probe (entry
  // exchange, starting the workers, ending them).
  std::vector<double> outside;
  std::vector<int> checkStatus;
  unsigned overdue = 0;
  double slowestSilent = 0;
  std::vector<std::string> findings;  // tovctl runs that ended otherwise
  Probe alone;
  bool probedAlone = false;
};

// One run of `tovctl <command>` with its defaults through the entry node;
// its time goes to `times`, an outcome other than expected to findings.
void runTool(const std::string& command, const std::string& port,
             std::vector<double>& times, KindFigures& f) {
  tovctltest::RunOptions ro;
  ro.limitSec = kToolLimitSec;
  const tovctltest::Outcome out =
      tovctltest::runTovctl({command, "-H", kEntry, "-p", port}, ro);
  times.push_back(out.seconds);
  bool expected = false;
  if (command == "check") {
    f.checkStatus.push_back(out.status);
    expected =
        (out.status == 1 || out.status == 2) &&
        out.out.find(std::to_string(kDark) + " silent") != std::string::npos;
  } else {
    expected = out.status == 0 &&
               out.out.find("256 nodes (1 answering, " + std::to_string(kDark) +
                            " silent)") != std::string::npos;
  }
  if (expected) return;
  const std::vector<std::string> lines =
      tovctltest::linesOf(out.err.empty() ? out.out : out.err);
  char text[64];
  std::snprintf(text, sizeof text,
                "%s after %.3f s, exit status %d: ", command.c_str(),
                out.seconds, out.status);
  f.findings.push_back(
      text + (lines.empty() ? std::string("no output") : lines.front()));
}

// Measurement `which` (0 in process, 1 status, 2 check) on the cluster;
// false when the cluster did not behave as its kind.
bool measureOnce(int which, const Kind& k, DarkCluster& c, KindFigures& f) {
  static const char* const names[] = {"snapshot in process", "tovctl status",
                                      "tovctl check"};
  std::fprintf(stderr, "256 nodes, %s: %s\n", k.name, names[which]);
  c.prepare();
  std::string why;
  const std::size_t findings = f.findings.size();
  if (which == 0) {
    SnapshotRun run;
    why = takeOne(c.nodes(), c.port(), run);
    if (why.empty()) why = silentMisfit(run, k.stalling);
    f.snapshot.push_back(run.seconds);
    f.outside.push_back(run.seconds - run.slowestSilent);
    f.overdue += run.overdue;
    f.slowestSilent = std::max(f.slowestSilent, run.slowestSilent);
  } else {
    runTool(which == 1 ? "status" : "check", c.port(),
            which == 1 ? f.status : f.check, f);
  }
  if (why.empty()) why = c.verify(kDark);
  if (why.empty()) return true;
  // A tovctl run that ended early may not have asked every node: a finding
  // about tovctl, not a broken setup.
  if (f.findings.size() > findings) {
    f.findings.back() += " (" + why + ")";
    return true;
  }
  std::fprintf(stderr, "%s, %s: %s\n", k.name, names[which], why.c_str());
  return false;
}

bool measureKind(const Kind& k, const Options& o, int lifetimeSec,
                 KindFigures& f) {
  std::unique_ptr<DarkCluster> cluster;
  try {
    cluster = std::make_unique<DarkCluster>(k, lifetimeSec);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "the simulator did not start: %s\n", e.what());
    return false;
  }
  // A stalling probe alone would wait for its reply for ever: only the
  // snapshot's probe limit ends it.
  if (!k.stalling) {
    cluster->prepare();
    f.alone = probe(cluster->nodes()[1].address, cluster->port());
    f.probedAlone = true;
    const std::string why = misfit(cluster->nodes()[1], f.alone);
    const std::string seen = why.empty() ? cluster->verify(1) : why;
    if (!seen.empty()) {
      std::fprintf(stderr, "setup: %s\n", seen.c_str());
      return false;
    }
  }
  // The three alternate, and which goes first rotates from run to run.
  for (int i = 0; i < o.runs; ++i) {
    for (int m = 0; m < 3; ++m) {
      if (!measureOnce((i + m) % 3, k, *cluster, f)) return false;
    }
  }
  return true;
}

void kindReport(const Kind& k, const KindFigures& f, double limit,
                std::vector<std::string>& goals) {
  std::printf("256 nodes, 1 answering, %d %s (%s), runs: %zu\n", kDark, k.name,
              k.what, f.status.size());
  if (f.probedAlone) {
    std::printf("  one probe alone: %.3f s (%s)\n", f.alone.seconds,
                reasonOf(f.alone.rc).c_str());
  } else {
    std::printf(
        "  one probe alone: never ends (the probe limit, %.1f s, "
        "ends it in a snapshot)\n",
        limit);
  }
  std::printf(
      "  snapshot in process: %s, ratio %.3f\n    runs (s): %s\n"
      "    beyond its slowest probe: median %.1f ms; slowest silent probe "
      "%.3f s, %u of %zu cut off by the probe limit\n",
      spread(f.snapshot).c_str(), median(f.snapshot) / limit,
      listed(f.snapshot).c_str(), median(f.outside) * 1e3, f.slowestSilent,
      f.overdue, kDark * f.snapshot.size());
  std::printf("  tovctl status: %s, ratio %.3f\n    runs (s): %s\n",
              spread(f.status).c_str(), median(f.status) / limit,
              listed(f.status).c_str());
  std::string statuses;
  bool statusOk = true;
  for (int st : f.checkStatus) {
    statuses += (statuses.empty() ? "" : " ") + std::to_string(st);
    statusOk = statusOk && (st == 1 || st == 2);
  }
  std::printf(
      "  tovctl check: %s, ratio %.3f, exit status %s\n"
      "    runs (s): %s\n",
      spread(f.check).c_str(), median(f.check) / limit, statuses.c_str(),
      listed(f.check).c_str());
  for (const std::string& line : f.findings)
    std::printf("  unexpected: %s\n", line.c_str());
  bool statusRuns = true;
  for (const std::string& line : f.findings)
    statusRuns = statusRuns && line.rfind("status", 0) != 0;
  const double status = median(f.status) / limit;
  const double check = median(f.check) / limit;
  goals.push_back(goalLine(std::string("status-256-") + k.name, status,
                           status <= kGoal && statusRuns));
  goals.push_back(goalLine(std::string("check-256-") + k.name, check,
                           check <= kGoal && statusOk));
}

// Runs inside the namespace; prints the report on standard output and its
// progress on standard error.
int measure(const Options& o, int lifetimeSec) {
  tov1::tovDebug.setDebugLevel(0);
  const double limit = tovtools::SnapshotOptions().probeLimit;
  std::vector<std::string> goals;
  baselines(o);
  try {
    if (!halfDark(o, lifetimeSec, goals)) return 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "the simulator did not start: %s\n", e.what());
    return 1;
  }
  std::printf("probe limit of a snapshot: %.1f s; ratios below are to it\n",
              limit);
  for (const Kind& k : kKinds) {
    KindFigures f;
    if (!measureKind(k, o, lifetimeSec, f)) return 1;
    kindReport(k, f, limit, goals);
    std::fflush(stdout);
  }
  if (o.quick) std::printf("quick run: the figures are indicative only\n");
  for (const std::string& g : goals) std::printf("%s\n", g.c_str());
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
  if (o.quick && o.runs == Options().runs) o.runs = 1;

  netnstest::NetnsLab lab;
  std::string why;
  if (!lab.available(&why)) {
    std::printf("snapshot-large: skipped: %s\n", why.c_str());
    return 0;
  }
  // Bounds for the whole run and for the simulators in it: the sequential
  // run is one probe timeout per blackholed node; a run of the 256-node
  // clusters is nine measurements of about one probe limit each, plus the
  // stalling simulator's restarts.
  const int limitSec = 60 + (o.quick ? 0 : 80) + 60 * o.runs;
  std::fflush(stdout);
  const netnstest::Outcome outcome = netnstest::runIsolated(
      namespaceSetup(), [&] { return measure(o, limitSec + 10); }, limitSec);
  std::fputs(outcome.output.c_str(), stdout);
  if (outcome.status == 77) {
    std::printf(
        "snapshot-large: skipped: the namespace could not be set up (veth "
        "interfaces unavailable?)\n");
    return 0;
  }
  if (outcome.status != 0) {
    std::printf("snapshot-large: could not run (status %d)\n", outcome.status);
    return 1;
  }
  return 0;
}
