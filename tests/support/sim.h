// Starts the daemon simulator `tovsim` as a child process for a test and
// stops it again.
#ifndef TESTS_SUPPORT_SIM_H
#define TESTS_SUPPORT_SIM_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace simtest {

// Path of the built tovsim binary (compile definition TOVSIM_PATH set by the
// CMake target tovapi_simtest).
const char* tovsimPath();

struct SimOptions {
  std::string configJson;  // written to a temp file and passed as --config
                           // ("" = the simulator's built-in small cluster)
  std::vector<std::string> listen{"127.0.0.1"};
  int port = 0;                        // 0 = ephemeral
  int udpPort = 0;                     // 0 = no UDP side
  std::vector<std::string> extraArgs;  // e.g. {"--busy", "1"}
  int maxLifetimeSec = 120;
};

class SimProcess {
 public:
  // Spawns tovsim and waits (at most 10 s) for its ready file; throws
  // std::runtime_error with the simulator's log on failure.
  explicit SimProcess(const SimOptions& opts);
  // stop(), then removes the temp files.
  ~SimProcess();
  SimProcess(const SimProcess&) = delete;
  SimProcess& operator=(const SimProcess&) = delete;

  int port() const;
  std::string portStr() const;
  // What the simulator wrote to stderr/stdout so far.
  std::string log() const;
  bool running();
  // SIGTERM, bounded wait, SIGKILL fallback.
  void stop();
  // Exit status once it has ended by itself or through stop(); -1 while it
  // runs or when it ended through a signal.
  int exitStatus();

 private:
  void start(const SimOptions& opts);
  void removeFiles();
  bool reap(bool block);

  pid_t pid_ = -1;
  int port_ = 0;
  int status_ = -1;
  std::string dir_;
  std::string logPath_;
  std::string configPath_;
  std::string readyPath_;
};

// A small default cluster: cluster "testcluster", services 0 "web" (running,
// auto) and 1 "db" (stopped, manual), poll time 1, one node "node1" on
// 127.0.0.1, user "admin" with password "secret".
std::string defaultConfigJson();

}  // namespace simtest

#endif  // TESTS_SUPPORT_SIM_H
