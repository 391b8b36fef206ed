// Starts the daemon simulator `tovsim` as a child process for a test and
// stops it again.
#ifndef TESTS_SUPPORT_SIM_H
#define TESTS_SUPPORT_SIM_H

#include <memory>
#include <string>
#include <vector>

#include "support/process.h"

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
  // Starts tovsim and waits (at most 10 s) for its ready file; throws
  // std::runtime_error with the simulator's log on failure.
  explicit SimProcess(const SimOptions& opts);

  int port() const { return port_; }
  std::string portStr() const { return std::to_string(port_); }
  // What the simulator wrote to stderr/stdout so far.
  std::string log() const { return testsupport::readFile(dir_.file("log")); }
  bool running() { return child_->running(); }
  // Ends it unless it has ended (SIGTERM, then SIGKILL); its exit status,
  // -1 when a signal ended it.
  int stop() { return child_->stop(); }

 private:
  testsupport::TempDir dir_;
  std::unique_ptr<testsupport::Child> child_;
  int port_ = 0;
};

// A small default cluster: cluster "testcluster", services 0 "web" (running,
// auto) and 1 "db" (stopped, manual), poll time 1, one node "node1" on
// 127.0.0.1, user "admin" with password "secret".
std::string defaultConfigJson();

// tovsim on `listen` (port 0: any), ending by itself after a minute.
std::unique_ptr<SimProcess> startSim(
    std::vector<std::string> extraArgs = {},
    std::string configJson = defaultConfigJson(),
    std::vector<std::string> listen = {"127.0.0.1"}, int port = 0,
    int udpPort = 0);

}  // namespace simtest

#endif  // TESTS_SUPPORT_SIM_H
