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
#include <iostream>

namespace netnstest {

namespace {

bool shell(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

bool enter(const std::string& ns) {
  if (ns.empty()) return true;
  const int fd = open(("/var/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool ok = setns(fd, CLONE_NEWNET) == 0;
  close(fd);
  return ok;
}

// Forks; the child runs `prepare` then `fn` with standard output going into
// a pipe; the parent collects it, bounded by the limit.
Outcome runChild(const std::function<bool()>& prepare,
                 const std::function<int()>& fn, int limitSec) {
  Outcome outcome;
  int pipeFds[2];
  if (pipe(pipeFds) != 0) return outcome;
  std::cout.flush();
  const pid_t pid = fork();
  if (pid == 0) {
    close(pipeFds[0]);
    dup2(pipeFds[1], STDOUT_FILENO);
    close(pipeFds[1]);
    if (!prepare()) _exit(77);
    const int rc = fn();
    std::cout.flush();
    std::fflush(stdout);
    std::exit(rc & 0xff);  // exit(), so that coverage data is written
  }
  close(pipeFds[1]);
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::seconds(limitSec);
  char buf[4096];
  while (std::chrono::steady_clock::now() < deadline) {
    pollfd p{pipeFds[0], POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) continue;
    const ssize_t n = read(pipeFds[0], buf, sizeof buf);
    if (n <= 0) break;
    outcome.output.append(buf, static_cast<std::size_t>(n));
  }
  close(pipeFds[0]);
  int status = 0;
  if (waitpid(pid, &status, WNOHANG) == 0) {
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
  outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return outcome;
}

}  // namespace

NetnsLab::NetnsLab() : prefix_("tovt" + std::to_string(getpid()) + "-") {}

NetnsLab::~NetnsLab() {
  for (pid_t child : children_) {
    kill(child, SIGTERM);
    for (int i = 0; i < 50 && waitpid(child, nullptr, WNOHANG) == 0; ++i)
      usleep(20000);
    kill(child, SIGKILL);
    waitpid(child, nullptr, WNOHANG);
  }
  for (const auto& ns : namespaces_) shell("ip netns del " + ns);
}

bool NetnsLab::available(std::string* why) {
  if (geteuid() != 0) {
    *why = "network namespaces need root";
    return false;
  }
  if (!shell("command -v ip")) {
    *why = "iproute2 (ip) is not installed";
    return false;
  }
  const std::string probe = prefix_ + "probe";
  if (!shell("ip netns add " + probe)) {
    *why = "this kernel refuses to create network namespaces";
    return false;
  }
  shell("ip netns del " + probe);
  return true;
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
    if (!enter(ns)) _exit(127);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
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
        if (unshare(CLONE_NEWNET) != 0) return false;
        if (!shell("ip link set lo up")) return false;
        for (const auto& args : setup)
          if (!shell("ip " + args)) return false;
        return true;
      },
      fn, limitSec);
}

}  // namespace netnstest
