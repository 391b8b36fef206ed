#include "netns_lab.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "support/net_helpers.h"

namespace netnstest {

namespace {

using Clock = std::chrono::steady_clock;

bool shell(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

bool enter(const std::string& ns) {
  const int fd = open(("/var/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
  const bool ok = ns.empty() || (fd >= 0 && setns(fd, CLONE_NEWNET) == 0);
  if (fd >= 0) close(fd);
  return ok;
}

// The child's exit status once it has ended, killed from `deadline` on if
// need be; -1 when it did not exit by itself.
int reap(pid_t pid, Clock::time_point deadline) {
  int status = -1;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (Clock::now() >= deadline) kill(pid, SIGKILL);
    usleep(10000);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Forks; the child runs `prepare` then `fn` with standard output going into
// a pipe, which the parent reads, bounded by the limit.
Outcome runChild(const std::function<bool()>& prepare,
                 const std::function<int()>& fn, int limitSec) {
  Outcome outcome;
  int fds[2];
  if (pipe(fds) != 0) return outcome;
  std::fflush(nullptr);  // or the child writes the parent's pending text too
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], STDOUT_FILENO);
    close(fds[0]);
    close(fds[1]);
    if (!prepare()) _exit(77);
    std::exit(fn() & 0xff);  // exit(): flushes, and writes coverage data
  }
  close(fds[1]);
  const auto deadline = Clock::now() + std::chrono::seconds(limitSec);
  char buf[4096];
  for (ssize_t n = 1; n > 0 && Clock::now() < deadline;) {
    pollfd p{fds[0], POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    n = read(fds[0], buf, sizeof buf);
    if (n > 0) outcome.output.append(buf, static_cast<std::size_t>(n));
  }
  close(fds[0]);
  outcome.status = pid > 0 ? reap(pid, deadline) : -1;
  return outcome;
}

}  // namespace

NetnsLab::NetnsLab() : prefix_("tovt" + std::to_string(getpid()) + "-") {}

NetnsLab::~NetnsLab() {
  for (pid_t child : children_) {
    kill(child, SIGTERM);
    reap(child, Clock::now() + std::chrono::seconds(1));
  }
  for (const auto& ns : namespaces_) shell("ip netns del " + ns);
}

bool NetnsLab::available(std::string* why) {
  const std::string probe = prefix_ + "probe";
  *why = geteuid() != 0            ? "network namespaces need root"
         : !shell("command -v ip") ? "iproute2 (ip) is not installed"
         : !shell("ip netns add " + probe)
             ? "this kernel refuses to create network namespaces"
             : "";
  if (why->empty()) shell("ip netns del " + probe);
  return why->empty();
}

std::string NetnsLab::add(const std::string& shortName) {
  const std::string name = prefix_ + shortName;
  if (!shell("ip netns add " + name)) return "";
  namespaces_.push_back(name);
  ip(name, "link set lo up");
  return name;
}

bool NetnsLab::ip(const std::string& ns, const std::string& args) {
  return shell(ns.empty() ? "ip " + args : "ip -n " + ns + " " + args);
}

pid_t NetnsLab::spawn(const std::string& ns,
                      const std::vector<std::string>& argv) {
  const pid_t pid = fork();
  if (pid == 0) {
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    if (enter(ns)) execv(args[0], args.data());
    _exit(127);
  }
  if (pid > 0) children_.push_back(pid);
  return pid;
}

Outcome NetnsLab::runIn(const std::string& ns, const std::function<int()>& fn,
                        int limitSec) {
  return runChild([&] { return enter(ns); }, fn, limitSec);
}

Outcome runIsolated(const std::vector<std::string>& setup,
                    const std::function<int()>& fn, int limitSec) {
  return runChild(
      [&] {
        bool ok = unshare(CLONE_NEWNET) == 0 && shell("ip link set lo up");
        for (const auto& args : setup) ok = ok && shell("ip " + args);
        return ok;
      },
      fn, limitSec);
}

PrivateNetwork::PrivateNetwork()
    : home_(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
  moved_ = geteuid() == 0 && home_ >= 0 && unshare(CLONE_NEWNET) == 0;
  ready_ = moved_ && shell(
                         "ip link set lo up && ip link add tvf0 type veth "
                         "peer name tvf1 && ip addr add 198.18.0.1/24 dev "
                         "tvf0 && ip link set tvf0 up");
}

PrivateNetwork::~PrivateNetwork() { leave(); }

bool PrivateNetwork::leave() {
  const bool home = !moved_ || setns(home_, CLONE_NEWNET) == 0;
  moved_ = false;
  if (home_ >= 0) close(home_);
  home_ = -1;
  return home;
}

SilentNameserver::SilentNameserver() {
  std::string server = "127.0.0.1";
  std::ifstream conf("/etc/resolv.conf");
  for (std::string line; std::getline(conf, line);) {
    std::istringstream words(line);
    std::string key, value;
    if (words >> key >> value && key == "nameserver") {
      server = value;
      break;
    }
  }
  const bool v6 = server.find(':') != std::string::npos;
  // Fails harmlessly for a loopback server such as 127.0.0.53: it is there
  // already.
  shell("ip addr add " + server + (v6 ? "/128" : "/32") + " dev lo");
  fd_ = testsupport::boundUdp(server, 53);
  if (fd_ < 0) why_ = "cannot hold " + server + " port 53";
}

SilentNameserver::~SilentNameserver() {
  if (fd_ >= 0) close(fd_);
}

int SilentNameserver::queries() {
  char buf[512];
  while (fd_ >= 0 && recv(fd_, buf, sizeof buf, MSG_DONTWAIT) > 0) ++queries_;
  return queries_;
}

}  // namespace netnstest
