#include "common/snapshot.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>

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
    s.nodes.push_back(node);
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
    s.services.push_back(svc);
  }
}

// What a probe worker sends back.
struct ProbeResult {
  int result;
  double seconds;
};

struct Worker {
  pid_t pid = -1;
  int fd = -1;
  std::size_t node = 0;
  Clock::time_point end;
};

// Runs in the worker process: probes one node and reports on `fd`.
[[noreturn]] void probeInWorker(const std::string& address,
                                const std::string& port, double limit, int fd) {
  // Nothing outlives the parent, and the deadline's interrupting signal is
  // the parent's business: here an overdue probe simply ends the process.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  signal(SIGALRM, SIG_DFL);
  alarm(static_cast<unsigned>(std::ceil(limit)) + 1);
  // The cache may hold this node's information from moments ago; the probe
  // must ask the daemon itself.
  tov1::tovCache.clearCache();
  const auto begun = Clock::now();
  int rc = -static_cast<int>(tov1::TOV_EXCEPT_ALLINFO);
  try {
    rc = tov1::tovNet.testNode(address, port);
  } catch (...) {
  }
  const ProbeResult r{rc, secondsSince(begun)};
  ssize_t ignored = write(fd, &r, sizeof r);
  (void)ignored;
  _exit(0);
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

void endWorker(Worker& w, bool kill) {
  if (kill) ::kill(w.pid, SIGKILL);
  close(w.fd);
  while (waitpid(w.pid, nullptr, 0) < 0 && errno == EINTR) {
  }
}

void probeNodes(Snapshot& s, const SnapshotOptions& opts, Deadline& deadline) {
  const double limit = opts.probeLimit > 0 ? opts.probeLimit : 2.5;
  const unsigned maxWorkers = std::max(1u, opts.maxWorkers);
  // A worker inherits unwritten output; it must not write it a second time.
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);

  std::vector<Worker> running;
  std::size_t next = 0;
  while (next < s.nodes.size() || !running.empty()) {
    while (next < s.nodes.size() && running.size() < maxWorkers &&
           !deadline.expired()) {
      NodeStatus& node = s.nodes[next];
      int fds[2];
      if (pipe2(fds, O_CLOEXEC) != 0) {
        giveUp(node, std::string("cannot probe: ") + std::strerror(errno), 0);
        ++next;
        continue;
      }
      const pid_t pid = fork();
      if (pid == 0) {
        close(fds[0]);
        probeInWorker(node.address, s.port, limit, fds[1]);
      }
      close(fds[1]);
      if (pid < 0) {
        giveUp(node, std::string("cannot probe: ") + std::strerror(errno), 0);
        close(fds[0]);
        ++next;
        continue;
      }
      ++s.exchanges;
      running.push_back(
          {pid, fds[0], next,
           Clock::now() + std::chrono::duration_cast<Clock::duration>(
                              std::chrono::duration<double>(limit))});
      ++next;
    }
    if (deadline.expired()) {
      s.cut = s.cut || !running.empty() || next < s.nodes.size();
      for (Worker& w : running) {
        giveUp(s.nodes[w.node], "no answer before the deadline", limit);
        endWorker(w, true);
      }
      running.clear();
      for (; next < s.nodes.size(); ++next) {
        giveUp(s.nodes[next], "not probed before the deadline", 0);
      }
      break;
    }

    Clock::time_point wake = Clock::now() + deadline.remaining();
    std::vector<pollfd> fds;
    for (const Worker& w : running) {
      wake = std::min(wake, w.end);
      fds.push_back({w.fd, POLLIN, 0});
    }
    const auto waitMs = std::chrono::ceil<std::chrono::milliseconds>(
                            std::max(wake - Clock::now(), Clock::duration{}))
                            .count();
    const int n = poll(fds.data(), fds.size(),
                       static_cast<int>(std::min<long long>(waitMs, 60000)));
    if (n < 0 && errno != EINTR) {
      const std::string why =
          std::string("cannot wait for the probe: ") + std::strerror(errno);
      for (Worker& w : running) {
        giveUp(s.nodes[w.node], why, 0);
        endWorker(w, true);
      }
      running.clear();
      continue;
    }

    const Clock::time_point now = Clock::now();
    std::vector<Worker> still;
    for (std::size_t i = 0; i < running.size(); ++i) {
      Worker& w = running[i];
      NodeStatus& node = s.nodes[w.node];
      if (n > 0 && fds[i].revents != 0) {
        ProbeResult r{};
        const ssize_t got = read(w.fd, &r, sizeof r);
        if (got == static_cast<ssize_t>(sizeof r)) {
          settle(node, r);
        } else {
          giveUp(node, "the probe ended without a result", limit);
        }
        endWorker(w, got != static_cast<ssize_t>(sizeof r));
      } else if (now >= w.end) {
        giveUp(node, "no answer within " + secondsText(limit) + " s", limit);
        endWorker(w, true);
      } else {
        still.push_back(w);
      }
    }
    running.swap(still);
  }
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
  std::string out = plural(c.nodes, "node") + ": " +
                    std::to_string(c.answering) + " answering";
  if (c.silent > 0) out += ", " + std::to_string(c.silent) + " silent";
  out += "; " + plural(c.services, "service");
  const std::pair<unsigned, const char*> states[] = {
      {c.running, "running"},   {c.stopped, "stopped"},
      {c.starting, "starting"}, {c.stopping, "stopping"},
      {c.broken, "broken"},     {c.other, "in another state"}};
  const char* sep = ": ";
  for (const auto& st : states) {
    if (st.first == 0 && std::string(st.second) != "running") continue;
    out += sep + std::to_string(st.first) + " " + st.second;
    sep = ", ";
  }
  if (c.blocked > 0) out += ", " + std::to_string(c.blocked) + " blocked";
  return out;
}

Snapshot takeSnapshot(const SnapshotOptions& opts, Deadline& deadline) {
  Snapshot s;
  s.host = opts.host;
  s.port = opts.port;
  s.takenAt = std::chrono::duration<double>(
                  std::chrono::system_clock::now().time_since_epoch())
                  .count();
  const auto begun = Clock::now();
  deadline.start();
  int rc = 0;
  {
    Deadline::Guard guard(deadline);
    try {
      rc = tov1::tovCache.refreshCache(s.host, s.port, true);
    } catch (const std::exception&) {
      // A reply too large for memory, say: the information is not there.
      rc = -static_cast<int>(tov1::TOV_EXCEPT_ALLINFO);
    }
  }
  ++s.exchanges;
  s.expired = deadline.expired();
  s.code = positive(rc);
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
                        {"node", v.node}});
  }
  const SnapshotCounts c = countsOf(s);
  return json{{"host", s.host},
              {"port", portJson(s.port)},
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

Snapshot snapshotFromJson(const nlohmann::json& j) {
  Snapshot s;
  s.host = j.at("host").get<std::string>();
  const nlohmann::json& port = j.at("port");
  s.port = port.is_number() ? std::to_string(port.get<long long>())
                            : port.get<std::string>();
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
