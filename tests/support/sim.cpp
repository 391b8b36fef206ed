#include "support/sim.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

#ifndef TOVSIM_PATH
#error "TOVSIM_PATH must name the tovsim binary"
#endif

namespace simtest {

namespace {

using Clock = std::chrono::steady_clock;

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream os;
  os << in.rdbuf();
  return os.str();
}

std::string makeTempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string templ =
      std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
      "/tovsim-test-XXXXXX";
  std::vector<char> buf(templ.begin(), templ.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) {
    throw std::runtime_error(std::string("mkdtemp failed: ") +
                             std::strerror(errno));
  }
  return buf.data();
}

}  // namespace

const char* tovsimPath() { return TOVSIM_PATH; }

SimProcess::SimProcess(const SimOptions& opts) : dir_(makeTempDir()) {
  // A constructor that throws gets no destructor call: clean up here.
  try {
    start(opts);
  } catch (...) {
    stop();
    removeFiles();
    throw;
  }
}

void SimProcess::start(const SimOptions& opts) {
  logPath_ = dir_ + "/tovsim.log";
  readyPath_ = dir_ + "/ready";
  std::vector<std::string> args{tovsimPath(),
                                "--port",
                                std::to_string(opts.port),
                                "--udp-port",
                                std::to_string(opts.udpPort),
                                "--max-lifetime",
                                std::to_string(opts.maxLifetimeSec),
                                "--ready-file",
                                readyPath_,
                                "-v"};
  for (const std::string& a : opts.listen) {
    args.push_back("--listen");
    args.push_back(a);
  }
  if (!opts.configJson.empty()) {
    configPath_ = dir_ + "/config.json";
    std::ofstream out(configPath_, std::ios::trunc);
    out << opts.configJson;
    if (!out) throw std::runtime_error("cannot write " + configPath_);
    args.push_back("--config");
    args.push_back(configPath_);
  }
  args.insert(args.end(), opts.extraArgs.begin(), opts.extraArgs.end());

  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, logPath_.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  const int rc =
      posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    pid_ = -1;
    throw std::runtime_error(std::string("cannot start ") + tovsimPath() +
                             ": " + std::strerror(rc));
  }

  const auto deadline = Clock::now() + std::chrono::seconds(10);
  while (Clock::now() < deadline) {
    const std::string ready = readFile(readyPath_);
    if (!ready.empty() && ready.back() == '\n') {
      port_ = std::atoi(ready.c_str());
      return;
    }
    if (!running()) {
      throw std::runtime_error("tovsim exited during start-up (status " +
                               std::to_string(status_) + "):\n" + log());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  throw std::runtime_error("tovsim did not become ready within 10 s:\n" +
                           log());
}

SimProcess::~SimProcess() {
  stop();
  removeFiles();
}

void SimProcess::removeFiles() {
  // The directory is ours alone (mkdtemp); a killed simulator may have left
  // a half-written ready file beside the known ones.
  if (DIR* d = opendir(dir_.c_str())) {
    while (const dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (name != "." && name != "..") {
        std::remove((dir_ + "/" + name).c_str());
      }
    }
    closedir(d);
  }
  rmdir(dir_.c_str());
}

int SimProcess::port() const { return port_; }

std::string SimProcess::portStr() const { return std::to_string(port_); }

std::string SimProcess::log() const { return readFile(logPath_); }

bool SimProcess::reap(bool block) {
  if (pid_ <= 0) return true;
  int st = 0;
  pid_t r;
  do {
    r = waitpid(pid_, &st, block ? 0 : WNOHANG);
  } while (r < 0 && errno == EINTR);
  if (r == 0) return false;
  status_ = (r == pid_ && WIFEXITED(st)) ? WEXITSTATUS(st) : -1;
  pid_ = -1;
  return true;
}

bool SimProcess::running() { return !reap(false); }

int SimProcess::exitStatus() {
  reap(false);
  return pid_ > 0 ? -1 : status_;
}

void SimProcess::stop() {
  if (pid_ <= 0 || reap(false)) return;
  kill(pid_, SIGTERM);
  const auto deadline = Clock::now() + std::chrono::seconds(5);
  while (Clock::now() < deadline) {
    if (reap(false)) return;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  kill(pid_, SIGKILL);
  reap(true);
}

std::string defaultConfigJson() {
  return R"({
  "cluster": {"name": "testcluster", "serial": "-1", "poll_time": 1,
              "bootstrap": false, "machine_desc": "tovsim test node"},
  "nodes": [{"name": "node1", "address": "127.0.0.1", "family": 4}],
  "services": [
    {"name": "web", "state": "running", "mode": "auto", "blocked": false,
     "node": "node1"},
    {"name": "db", "state": "stopped", "mode": "manual", "blocked": false,
     "node": "node1"}
  ],
  "users": [{"user": "admin", "password": "secret"}]
}
)";
}

}  // namespace simtest
