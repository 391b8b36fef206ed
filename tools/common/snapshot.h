// One picture of a whole cluster, taken through the first of its entry
// nodes that answers: the cluster record, every node with whether its daemon
// answers, and every service. `tovctl status`, its live view, `tovctl check`
// and the exporter all show the same picture.
//
// The library keeps its state per process and its node probe swaps the
// process's standard error stream, so the nodes are probed in worker
// processes, all at once up to the largest cluster a daemon allows, never in
// threads. A snapshot takes about one probe time however many nodes answer,
// refuse or hang.
#ifndef TOOLS_COMMON_SNAPSHOT_H
#define TOOLS_COMMON_SNAPSHOT_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/deadline.h"

namespace tovtools {

struct ClusterRecord {
  std::string name;
  std::string serial;  // "" when the cluster has none
  std::string crc;
  long long nodeCount = 0;
  long long serviceCount = 0;
  long long pollTime = 0;      // seconds
  long long startTime = 0;     // Unix time the daemon started
  long long configSize = 0;    // bytes
  long long lastModified = 0;  // Unix time of the configuration
  bool bootstrap = false;
  std::string machineIdent;
};

struct NodeStatus {
  std::string name;
  std::string address;
  int family = 0;
  bool answers = false;
  // The probe's library result as a positive code, 0 when the node answered
  // or when the probe was ended before it had one (`overdue`).
  int code = 0;
  bool overdue = false;  // no answer within the probe limit or deadline
  std::string reason;    // why it is silent, for people; "" when it answers
  double seconds = 0;    // how long the probe took
};

struct ServiceStatus {
  unsigned index = 0;
  std::string name;
  std::string state;  // running, stopped, starting, stopping, broken, ...
  std::string mode;   // auto or manual
  bool blocked = false;
  std::string node;  // "-" when it runs nowhere
};

// A node asked for the cluster information, and how that went.
struct EntryAttempt {
  std::string host;
  std::string port;
  int code = 0;          // the library's result as a positive code, or 0
  bool expired = false;  // its share of the deadline ran out first
  double share = 0;      // seconds it was given; 0: all that was left
  double seconds = 0;    // how long it took
  bool answered() const { return code == 0 && !expired; }
  std::string reason() const;  // why it did not answer; "" when it did
};

struct Snapshot {
  // The entry node that gave the cluster information, or the last one asked
  // when none did.
  std::string host;
  std::string port;
  std::vector<EntryAttempt> entries;  // in the order they were asked
  double takenAt = 0;                 // Unix time when it was begun
  double seconds = 0;                 // how long it took
  // Of the information exchange: 0, or the library's result as a positive
  // code. Without the information there are no nodes nor services.
  int code = 0;
  bool expired = false;  // the deadline ended the information exchange
  bool cut = false;  // the deadline ended probes: their nodes count as silent
  unsigned exchanges = 0;   // information exchanges plus probes begun
  unsigned duplicates = 0;  // node and service records repeated by the daemon
  ClusterRecord cluster;
  std::vector<NodeStatus> nodes;
  std::vector<ServiceStatus> services;

  bool ok() const { return code == 0 && !expired; }
};

struct SnapshotCounts {
  unsigned nodes = 0, answering = 0, silent = 0;
  unsigned services = 0, running = 0, stopped = 0, starting = 0, stopping = 0,
           broken = 0, other = 0, blocked = 0;
  unsigned notRunning() const { return services - running; }
};

SnapshotCounts countsOf(const Snapshot& s);

// "3 nodes (2 answering, 1 silent), 3 services (2 running, 1 stopped)"; the
// service states that no service is in are left out, blocked services are
// added at the end. No semicolon: monitoring systems take it for a field
// separator.
std::string summaryText(const SnapshotCounts& c);

// A service that needs someone to look at it: broken, blocked, or not
// running although its mode has the daemons keep it running.
bool serviceProblem(const ServiceStatus& v);

struct Endpoint {
  std::string host;
  std::string port;
};

// The largest cluster a daemon allows.
constexpr unsigned kMaxNodes = 256;

struct SnapshotOptions {
  // Asked in order for the cluster information until one answers.
  std::vector<Endpoint> entries;
  // A probe that has not ended this long after it began counts as silent.
  // The library's probe gives a node two seconds to connect and to send
  // its salt; the rest is for the information reply.
  double probeLimit = 2.5;
  // Probes running at once, each in a process of its own: every node of
  // the largest cluster at once, so that a snapshot takes one probe time.
  unsigned maxWorkers = kMaxNodes;
};

// Takes a snapshot within `deadline` (started here if it was not yet).
// Every entry node but the last may use its share of the deadline
// (entryShare, with one probe limit set aside for the probes) before the
// next is asked. Never throws for what the network sends; the failure of
// the last information exchange is in `code` / `expired`, a node's in its
// entry. An entry node that did not answer is a silent node like any other
// and is not probed again.
Snapshot takeSnapshot(const SnapshotOptions& opts, Deadline& deadline);

// The snapshot as JSON (the shape `tovctl status --json` prints) and back.
// snapshotFromJson throws nlohmann::json::exception on a wrong shape.
nlohmann::json snapshotJson(const Snapshot& s);
Snapshot snapshotFromJson(const nlohmann::json& j);

}  // namespace tovtools

#endif  // TOOLS_COMMON_SNAPSHOT_H
