#include "common/snapshot.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>

#include "common/child.h"
#include "tovapi/libtovapi.h"

namespace tovtools {

namespace {

using Clock = std::chrono::steady_clock;

int positive(int result) {
  if (result == INT_MIN) return INT_MAX;
  return result < 0 ? -result : result;
}

long long number(const std::vector<std::string>& rec, std::size_t i) {
  if (i >= rec.size()) return 0;
  errno = 0;
  char* end = nullptr;
  const long long v = std::strtoll(rec[i].c_str(), &end, 10);
  return (errno != 0 || end == rec[i].c_str() || *end != '\0') ? 0 : v;
}

std::string text(const std::vector<std::string>& rec, std::size_t i) {
  return i < rec.size() ? rec[i] : "";
}

double secondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

std::string codeReason(int code) {
  return tov1::tovDebug.tovErrorString(static_cast<tov1::tov_error_enum>(code));
}

void readInformation(Snapshot& s) {
  using namespace tov1;
  const std::vector<std::string> c =
      tovCache.tovInfoGetValueVector(s.host, tovInfo_C, 0);
  ClusterRecord& r = s.cluster;
  r.name = text(c, c_cluster_name);
  r.serial = text(c, c_serial_number) == "-1" ? "" : text(c, c_serial_number);
  r.crc = text(c, c_config_file_crc);
  r.nodeCount = number(c, c_node_count);
  r.serviceCount = number(c, c_service_count);
  r.pollTime = number(c, c_poll_time);
  r.startTime = number(c, c_startup_time);
  r.configSize = number(c, c_config_file_size);
  r.lastModified = number(c, c_config_file_mtime);
  r.bootstrap = number(c, c_machine_bootstrap) != 0;
  r.machineIdent = text(c, c_machine_ident);

  const int nodes = tovCache.getNumberOfLetterEntries(s.host, tovInfo_N);
  for (int i = 0; i < nodes; ++i) {
    const std::vector<std::string> n = tovCache.tovInfoGetValueVector(
        s.host, tovInfo_N, static_cast<unsigned>(i));
    NodeStatus node;
    node.name = text(n, n_machine_name);
    node.address = text(n, n_ip_address);
    node.family = static_cast<int>(number(n, n_inet_family));
    // A record the daemon repeats is one node: probed once, shown once.
    const bool seen = std::any_of(
        s.nodes.begin(), s.nodes.end(), [&node](const NodeStatus& o) {
          return o.name == node.name && o.address == node.address;
        });
    if (seen) {
      ++s.duplicates;
    } else {
      s.nodes.push_back(node);
    }
  }
  // Fields: letter, index, name, state, mode, blocked, node.
  const int services = tovCache.getNumberOfLetterEntries(s.host, tovInfo_S);
  for (int i = 0; i < services; ++i) {
    const std::vector<std::string> v = tovCache.tovInfoGetValueVector(
        s.host, tovInfo_S, static_cast<unsigned>(i));
    if (v.size() < 3) continue;
    ServiceStatus svc;
    svc.index = static_cast<unsigned>(number(v, 1));
    svc.name = text(v, 2);
    svc.state = text(v, 3);
    svc.mode = text(v, 4);
    svc.blocked = text(v, 5) == "1";
    svc.node = text(v, 6);
    // The index names a service: a second record for it is not a second
    // service.
    const bool seen = std::any_of(
        s.services.begin(), s.services.end(),
        [&svc](const ServiceStatus& o) { return o.index == svc.index; });
    if (seen) {
      ++s.duplicates;
    } else {
      s.services.push_back(svc);
    }
  }
}

// What a probe worker sends back.
struct ProbeResult {
  int result;
  double seconds;
};

// A probe worker: a child process (common/child.h) that serves one probe
// after another, kept between snapshots so that a program taking one
// snapshot after another in one process (the benchmarks) pays for the
// processes once. The tools take each snapshot in a child process of their
// own (the live view and the exporter alike), whose workers end with it.
// Requests go down its input, results come up its output. A worker that
// overruns its probe is killed, never reused.
struct Worker {
  std::unique_ptr<ChildProcess> child;
  std::size_t node = 0;
  Clock::time_point end;
};

// Never destroyed: at the program's end the idle workers see their
// requests end and go by themselves, with no one waiting for them.
std::vector<Worker>& idleWorkers() {
  static auto* idle = new std::vector<Worker>;
  return *idle;
}

bool readAll(int fd, void* buf, std::size_t n) {
  char* p = static_cast<char*>(buf);
  while (n > 0) {
    const ssize_t got = read(fd, p, n);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    p += got;
    n -= static_cast<std::size_t>(got);
  }
  return true;
}

bool writeAll(int fd, const void* buf, std::size_t n) {
  const char* p = static_cast<const char*>(buf);
  while (n > 0) {
    const ssize_t put = write(fd, p, n);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    p += put;
    n -= static_cast<std::size_t>(put);
  }
  return true;
}

// The worker's life: one probe per request until the parent closes the
// request pipe or goes away.
int serveProbes(int requests, int results, double limit) {
  // The deadline's interrupting signal is the parent's business: here a
  // probe that overruns by far simply ends the process.
  signal(SIGALRM, SIG_DFL);
  signal(SIGPIPE, SIG_DFL);
  for (;;) {
    std::uint32_t sizes[2];
    if (!readAll(requests, sizes, sizeof sizes) || sizes[0] > 4096 ||
        sizes[1] > 64) {
      return 0;
    }
    std::string address(sizes[0], '\0'), port(sizes[1], '\0');
    if (!readAll(requests, &address[0], address.size()) ||
        !readAll(requests, &port[0], port.size())) {
      return 0;
    }
    alarm(static_cast<unsigned>(std::ceil(limit)) + 1);
    // The cache may hold this node's information from an earlier probe;
    // the probe must ask the daemon itself.
    tov1::tovCache.clearCache();
    const auto begun = Clock::now();
    int rc = -static_cast<int>(tov1::TOV_EXCEPT_ALLINFO);
    bool threw = false;
    try {
      rc = tov1::tovNet.testNode(address, port);
    } catch (...) {
      // The probe leaves standard error and colour behind when the refresh
      // throws: this process is not to be trusted with another probe.
      threw = true;
    }
    alarm(0);
    const ProbeResult r{rc, secondsSince(begun)};
    if (!writeAll(results, &r, sizeof r) || threw) return 0;
  }
}

// A new worker: in the caller's process group, so that killing a snapshot
// child's group ends its workers too, and with the caller's standard error,
// where the library's diagnostics go as they would without workers.
bool spawnWorker(Worker& w, double limit, std::string& why) {
  ForkSetup setup;
  setup.requests = true;
  setup.callersErrors = true;
  setup.callersGroup = true;
  w.child = std::make_unique<ChildProcess>(ChildLimits{4096, 0});
  return w.child->spawn(
      [limit](int results) {
        return serveProbes(STDIN_FILENO, results, limit);
      },
      why, setup);
}

// Killed at once, reaped by reap(): the ends of many workers overlap.
void dropWorker(Worker& w, std::vector<std::unique_ptr<ChildProcess>>& ended) {
  w.child->stop();
  ended.push_back(std::move(w.child));
}

// An answered worker waits for the next snapshot, up to one per node of the
// largest cluster: a process taking snapshots of several clusters keeps no
// more than one of them needs.
void keepIdle(Worker& w, unsigned maxWorkers,
              std::vector<std::unique_ptr<ChildProcess>>& ended) {
  if (idleWorkers().size() < maxWorkers) {
    idleWorkers().push_back(std::move(w));
  } else {
    dropWorker(w, ended);
  }
}

void reap(std::vector<std::unique_ptr<ChildProcess>>& ended) {
  for (const auto& child : ended) child->kill();
  ended.clear();
}

// Hands the probe of `address` to an idle worker, or to a new one.
bool startProbe(Worker& w, const std::string& address, const std::string& port,
                double limit, std::vector<std::unique_ptr<ChildProcess>>& ended,
                std::string& why) {
  const std::uint32_t sizes[2] = {static_cast<std::uint32_t>(address.size()),
                                  static_cast<std::uint32_t>(port.size())};
  const std::string request =
      std::string(reinterpret_cast<const char*>(sizes), sizeof sizes) +
      address + port;
  auto& idle = idleWorkers();
  while (!idle.empty()) {
    w = std::move(idle.back());
    idle.pop_back();
    if (w.child->send(request)) return true;
    dropWorker(w, ended);  // it has gone away since
  }
  if (!spawnWorker(w, limit, why)) return false;
  if (w.child->send(request)) return true;
  why = "the probe worker went away";
  dropWorker(w, ended);
  return false;
}

void settle(NodeStatus& n, const ProbeResult& r) {
  n.seconds = r.seconds;
  n.code = positive(r.result);
  n.answers = n.code == 0;
  n.reason = n.answers ? "" : codeReason(n.code);
}

void giveUp(NodeStatus& n, const std::string& reason, double seconds) {
  n.answers = false;
  n.overdue = true;
  n.code = 0;
  n.reason = reason;
  n.seconds = seconds;
}

// Nodes already heard from as entry nodes need no probe: the one that
// answered the information request (which is what its probe would ask
// again) answers, those that did not are silent for the reason they gave.
bool settledAsEntry(NodeStatus& node, const Snapshot& s) {
  for (const EntryAttempt& a : s.entries) {
    if (a.host != node.address || a.port != s.port) continue;
    node.answers = a.answered();
    node.seconds = a.seconds;
    node.code = a.code;
    node.overdue = a.expired;
    node.reason = a.answered() ? "" : "as entry node: " + a.reason();
    return true;
  }
  return false;
}

// One round of probes: every node not settled otherwise, as many at a time
// as there are workers allowed.
class ProbeRound {
 public:
  ProbeRound(Snapshot& s, const SnapshotOptions& opts, Deadline& deadline)
      : s_(s),
        limit_(opts.probeLimit > 0 ? opts.probeLimit : 2.5),
        maxWorkers_(std::max(1u, opts.maxWorkers)),
        deadline_(deadline) {}

  void run() {
    while (next_ < s_.nodes.size() || !running_.empty()) {
      startProbes();
      if (deadline_.expired()) {
        cutShort();
        break;
      }
      if (!running_.empty()) awaitResults();
    }
    reap(ended_);
  }

 private:
  void startProbes() {
    while (next_ < s_.nodes.size() && running_.size() < maxWorkers_ &&
           !deadline_.expired()) {
      NodeStatus& node = s_.nodes[next_];
      if (settledAsEntry(node, s_)) {
        ++next_;
        continue;
      }
      Worker w;
      std::string why;
      if (!startProbe(w, node.address, s_.port, limit_, ended_, why)) {
        giveUp(node, "cannot probe: " + why, 0);
        ++next_;
        continue;
      }
      ++s_.exchanges;
      w.node = next_++;
      w.end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                 std::chrono::duration<double>(limit_));
      running_.push_back(std::move(w));
    }
  }

  void cutShort() {
    s_.cut = s_.cut || !running_.empty() || next_ < s_.nodes.size();
    for (Worker& w : running_) {
      giveUp(s_.nodes[w.node], "no answer before the deadline", limit_);
      dropWorker(w, ended_);
    }
    running_.clear();
    for (; next_ < s_.nodes.size(); ++next_) {
      if (!settledAsEntry(s_.nodes[next_], s_)) {
        giveUp(s_.nodes[next_], "not probed before the deadline", 0);
      }
    }
  }

  void awaitResults() {
    Clock::time_point wake = Clock::now() + deadline_.remaining();
    std::vector<pollfd> fds;
    std::vector<std::size_t> from;  // each worker's first descriptor in fds
    for (const Worker& w : running_) {
      wake = std::min(wake, w.end);
      from.push_back(fds.size());
      w.child->addTo(fds);
    }
    from.push_back(fds.size());
    const auto waitMs = std::chrono::ceil<std::chrono::milliseconds>(
                            std::max(wake - Clock::now(), Clock::duration{}))
                            .count();
    const int n = poll(fds.data(), fds.size(),
                       static_cast<int>(std::min<long long>(waitMs, 60000)));
    if (n < 0 && errno != EINTR) {
      const std::string why =
          std::string("cannot wait for the probe: ") + std::strerror(errno);
      for (Worker& w : running_) {
        giveUp(s_.nodes[w.node], why, 0);
        dropWorker(w, ended_);
      }
      running_.clear();
      return;
    }
    std::vector<bool> ready(running_.size(), false);
    for (std::size_t i = 0; n > 0 && i < running_.size(); ++i) {
      for (std::size_t j = from[i]; j < from[i + 1]; ++j) {
        ready[i] = ready[i] || fds[j].revents != 0;
      }
    }
    collect(ready);
  }

  // Takes the results of the workers with news; the others wait until
  // their probe limit.
  void collect(const std::vector<bool>& ready) {
    const Clock::time_point now = Clock::now();
    std::vector<Worker> still;
    for (std::size_t i = 0; i < running_.size(); ++i) {
      Worker& w = running_[i];
      NodeStatus& node = s_.nodes[w.node];
      // Once a worker has ended, collect() has reaped it.
      const bool ended = ready[i] && w.child->collect();
      ProbeResult r{};
      if (w.child->take(&r, sizeof r)) {
        settle(node, r);
        if (!ended) keepIdle(w, maxWorkers_, ended_);
      } else if (ended) {
        giveUp(node, "the probe ended without a result", limit_);
      } else if (now >= w.end) {
        giveUp(node, "no answer within " + secondsText(limit_) + " s", limit_);
        dropWorker(w, ended_);
      } else {
        still.push_back(std::move(w));
      }
    }
    running_.swap(still);
  }

  Snapshot& s_;
  const double limit_;
  const unsigned maxWorkers_;
  Deadline& deadline_;
  std::vector<Worker> running_;
  std::vector<std::unique_ptr<ChildProcess>> ended_;
  std::size_t next_ = 0;
};

void probeNodes(Snapshot& s, const SnapshotOptions& opts, Deadline& deadline) {
  // A new worker inherits unwritten output; it must not write it again.
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  // A worker that has gone away must not end the program with SIGPIPE.
  struct sigaction ignore {
  }, saved{};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &ignore, &saved);
  ProbeRound(s, opts, deadline).run();
  sigaction(SIGPIPE, &saved, nullptr);
}

// Asks one entry node for the cluster information within its share of the
// deadline.
EntryAttempt askEntry(const Endpoint& e, double share, Deadline& deadline) {
  EntryAttempt a;
  a.host = e.host;
  a.port = e.port;
  a.share = share;
  const auto begun = Clock::now();
  Deadline part(share);
  int rc = 0;
  {
    Deadline::Guard whole(deadline);
    Deadline::Guard mine(part);
    try {
      rc = tov1::tovCache.refreshCache(e.host, e.port, true);
    } catch (const std::exception&) {
      // A reply too large for memory, say: the information is not there.
      rc = -static_cast<int>(tov1::TOV_EXCEPT_ALLINFO);
    }
  }
  a.seconds = secondsSince(begun);
  // An answer that came in as the share ran out is still an answer.
  a.expired = rc != 0 && (part.expired() || deadline.expired());
  a.code = positive(rc);
  return a;
}

nlohmann::json portJson(const std::string& port) {
  const bool digits = !port.empty() && port.size() < 6 &&
                      std::all_of(port.begin(), port.end(), [](char ch) {
                        return ch >= '0' && ch <= '9';
                      });
  return digits ? nlohmann::json(std::stoi(port)) : nlohmann::json(port);
}

}  // namespace

SnapshotCounts countsOf(const Snapshot& s) {
  SnapshotCounts c;
  c.nodes = static_cast<unsigned>(s.nodes.size());
  for (const NodeStatus& n : s.nodes) ++(n.answers ? c.answering : c.silent);
  c.services = static_cast<unsigned>(s.services.size());
  for (const ServiceStatus& v : s.services) {
    if (v.state == "running") {
      ++c.running;
    } else if (v.state == "stopped") {
      ++c.stopped;
    } else if (v.state == "starting") {
      ++c.starting;
    } else if (v.state == "stopping") {
      ++c.stopping;
    } else if (v.state == "broken") {
      ++c.broken;
    } else {
      ++c.other;
    }
    if (v.blocked) ++c.blocked;
  }
  return c;
}

std::string summaryText(const SnapshotCounts& c) {
  auto plural = [](unsigned n, const char* one) {
    return std::to_string(n) + " " + one + (n == 1 ? "" : "s");
  };
  std::string out = plural(c.nodes, "node") + " (" +
                    std::to_string(c.answering) + " answering";
  if (c.silent > 0) out += ", " + std::to_string(c.silent) + " silent";
  out += "), " + plural(c.services, "service");
  const std::pair<unsigned, const char*> states[] = {
      {c.running, "running"},   {c.stopped, "stopped"},
      {c.starting, "starting"}, {c.stopping, "stopping"},
      {c.broken, "broken"},     {c.other, "in another state"}};
  const char* sep = " (";
  for (const auto& st : states) {
    if (st.first == 0 && std::string(st.second) != "running") continue;
    out += sep + std::to_string(st.first) + " " + st.second;
    sep = ", ";
  }
  if (c.blocked > 0) out += ", " + std::to_string(c.blocked) + " blocked";
  return out + ")";
}

bool serviceProblem(const ServiceStatus& v) {
  return v.state == "broken" || v.blocked ||
         (v.state != "running" && v.mode == "auto");
}

std::string EntryAttempt::reason() const {
  if (answered()) return "";
  if (expired) {
    return share > 0 ? "no answer within its share of the deadline (" +
                           secondsText(share) + " s)"
                     : "no answer before the deadline";
  }
  return codeReason(code);
}

Snapshot takeSnapshot(const SnapshotOptions& opts, Deadline& deadline) {
  Snapshot s;
  s.takenAt = std::chrono::duration<double>(
                  std::chrono::system_clock::now().time_since_epoch())
                  .count();
  const auto begun = Clock::now();
  deadline.start();
  const std::size_t n = opts.entries.size();
  for (std::size_t i = 0; i < n && !deadline.expired(); ++i) {
    const double share =
        entryShare(deadline, n - i, opts.probeLimit > 0 ? opts.probeLimit : 0);
    s.entries.push_back(askEntry(opts.entries[i], share, deadline));
    ++s.exchanges;
    if (s.entries.back().answered()) break;
  }
  if (!s.entries.empty()) {
    const EntryAttempt& last = s.entries.back();
    s.host = last.host;
    s.port = last.port;
    s.code = last.code;
  } else if (n > 0) {
    s.host = opts.entries.front().host;
    s.port = opts.entries.front().port;
  } else {
    s.code = static_cast<int>(tov1::TOV_NO_NODES);
  }
  s.expired = (n > 0 && s.entries.empty()) || deadline.expired() ||
              (!s.entries.empty() && s.entries.back().expired);
  if (s.ok()) {
    readInformation(s);
    probeNodes(s, opts, deadline);
  }
  s.seconds = secondsSince(begun);
  return s;
}

nlohmann::json snapshotJson(const Snapshot& s) {
  using nlohmann::json;
  const ClusterRecord& r = s.cluster;
  json nodes = json::array();
  for (const NodeStatus& n : s.nodes) {
    nodes.push_back({{"name", n.name},
                     {"address", n.address},
                     {"family", n.family},
                     {"answers", n.answers},
                     {"code", n.code},
                     {"overdue", n.overdue},
                     {"reason", n.reason},
                     {"seconds", n.seconds}});
  }
  json services = json::array();
  for (const ServiceStatus& v : s.services) {
    services.push_back({{"index", v.index},
                        {"name", v.name},
                        {"state", v.state},
                        {"mode", v.mode},
                        {"blocked", v.blocked},
                        {"node", v.node},
                        {"problem", serviceProblem(v)}});
  }
  json entries = json::array();
  for (const EntryAttempt& a : s.entries) {
    entries.push_back({{"host", a.host},
                       {"port", portJson(a.port)},
                       {"answered", a.answered()},
                       {"code", a.code},
                       {"expired", a.expired},
                       {"share", std::round(a.share * 1000) / 1000},
                       {"seconds", a.seconds},
                       {"reason", a.reason()}});
  }
  const SnapshotCounts c = countsOf(s);
  return json{{"host", s.host},
              {"port", portJson(s.port)},
              {"entries", entries},
              {"duplicates", s.duplicates},
              {"taken_at", s.takenAt},
              {"seconds", s.seconds},
              {"code", s.code},
              {"expired", s.expired},
              {"cut", s.cut},
              {"exchanges", s.exchanges},
              {"cluster",
               {{"name", r.name},
                {"serial", r.serial.empty() ? json(nullptr) : json(r.serial)},
                {"crc", r.crc},
                {"node_count", r.nodeCount},
                {"service_count", r.serviceCount},
                {"poll_time", r.pollTime},
                {"start_time", r.startTime},
                {"config_size", r.configSize},
                {"last_modified", r.lastModified},
                {"bootstrap", r.bootstrap},
                {"machine_ident", r.machineIdent}}},
              {"nodes", nodes},
              {"services", services},
              {"summary",
               {{"nodes", c.nodes},
                {"answering", c.answering},
                {"silent", c.silent},
                {"services", c.services},
                {"running", c.running},
                {"stopped", c.stopped},
                {"starting", c.starting},
                {"stopping", c.stopping},
                {"broken", c.broken},
                {"other", c.other},
                {"blocked", c.blocked},
                {"text", summaryText(c)}}}};
}

namespace {

std::string portFromJson(const nlohmann::json& port) {
  return port.is_number() ? std::to_string(port.get<long long>())
                          : port.get<std::string>();
}

}  // namespace

Snapshot snapshotFromJson(const nlohmann::json& j) {
  Snapshot s;
  s.host = j.at("host").get<std::string>();
  s.port = portFromJson(j.at("port"));
  for (const nlohmann::json& e : j.at("entries")) {
    EntryAttempt a;
    a.host = e.at("host").get<std::string>();
    a.port = portFromJson(e.at("port"));
    a.code = e.at("code").get<int>();
    a.expired = e.at("expired").get<bool>();
    a.share = e.at("share").get<double>();
    a.seconds = e.at("seconds").get<double>();
    s.entries.push_back(a);
  }
  s.duplicates = j.at("duplicates").get<unsigned>();
  s.takenAt = j.at("taken_at").get<double>();
  s.seconds = j.at("seconds").get<double>();
  s.code = j.at("code").get<int>();
  s.expired = j.at("expired").get<bool>();
  s.cut = j.at("cut").get<bool>();
  s.exchanges = j.at("exchanges").get<unsigned>();
  const nlohmann::json& c = j.at("cluster");
  ClusterRecord& r = s.cluster;
  r.name = c.at("name").get<std::string>();
  r.serial = c.at("serial").is_null() ? "" : c.at("serial").get<std::string>();
  r.crc = c.at("crc").get<std::string>();
  r.nodeCount = c.at("node_count").get<long long>();
  r.serviceCount = c.at("service_count").get<long long>();
  r.pollTime = c.at("poll_time").get<long long>();
  r.startTime = c.at("start_time").get<long long>();
  r.configSize = c.at("config_size").get<long long>();
  r.lastModified = c.at("last_modified").get<long long>();
  r.bootstrap = c.at("bootstrap").get<bool>();
  r.machineIdent = c.at("machine_ident").get<std::string>();
  for (const nlohmann::json& n : j.at("nodes")) {
    NodeStatus node;
    node.name = n.at("name").get<std::string>();
    node.address = n.at("address").get<std::string>();
    node.family = n.at("family").get<int>();
    node.answers = n.at("answers").get<bool>();
    node.code = n.at("code").get<int>();
    node.overdue = n.at("overdue").get<bool>();
    node.reason = n.at("reason").get<std::string>();
    node.seconds = n.at("seconds").get<double>();
    s.nodes.push_back(node);
  }
  for (const nlohmann::json& v : j.at("services")) {
    ServiceStatus svc;
    svc.index = v.at("index").get<unsigned>();
    svc.name = v.at("name").get<std::string>();
    svc.state = v.at("state").get<std::string>();
    svc.mode = v.at("mode").get<std::string>();
    svc.blocked = v.at("blocked").get<bool>();
    svc.node = v.at("node").get<std::string>();
    s.services.push_back(svc);
  }
  return s;
}

}  // namespace tovtools
