// The fault matrix: every way a daemon or the network can let a client down,
// how the test brings it about, and what the library and tovctl must make of
// it. Both suites (library_faults_test.cpp, tovctl_faults_test.cpp) walk the
// same rows.
#ifndef TESTS_FAULTS_FAULT_TABLE_H
#define TESTS_FAULTS_FAULT_TABLE_H

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "netns/netns_lab.h"
#include "support/sim.h"

namespace faults {

// Where the client is sent.
enum class Target {
  Simulator,   // tovsim on 127.0.0.1, with the row's fault flags
  ClosedPort,  // a loopback port nothing listens on
  Blackhole,   // an address in a private namespace that never answers
};

// An expected result: a result code (0 for success) and a text. For the
// library the text is a fragment of what went to std::cerr ("" = nothing at
// all); for tovctl it is the whole error line, or on success the beginning
// of the first line on standard output. "{addr}" and "{port}" stand for the
// address and port the client was sent to.
struct Expect {
  int code = 0;
  std::string text;
};

// A call cut short by a deadline fails, but where it was blocked when the
// interruption came decides the code: only the failure is checked.
constexpr int kAnyFailure = -1;

struct Fault {
  std::string name;  // test name suffix
  Target target = Target::Simulator;
  std::vector<std::string> simArgs;
  long long pollTime = 1;       // the cluster's poll time
  double deadline = 0;          // seconds each call may take (0: none)
  bool wrongPassword = false;   // authenticate with a wrong password
  std::string request = "B 0";  // line for tovcomms and `tovctl send`
  Expect exchange;              // tovNet.tovcomms(request)
  int replyStatus = 0;          // decoded reply, when the exchange gave one
  std::size_t replyLength = 0;  // its exact length (0: not checked)
  Expect service;               // tovNet.serviceCommand("B", service 0)
  Expect bounce;                // tovctl bounce web
  Expect send;                  // tovctl send REQUEST
};

// gtest prints parameters; the name is enough to find the row.
inline void PrintTo(const Fault& f, std::ostream* os) { *os << f.name; }

const std::vector<Fault>& faultTable();

// Replaces "{addr}" and "{port}".
std::string fill(std::string text, const std::string& addr,
                 const std::string& port);

// Entries of /proc/self/fd: the descriptors this process holds.
int openDescriptors();

// A loopback port that nothing listens on: bound once, then released.
int closedPort();

// The deadline of the rows whose daemon never lets go.
constexpr double kDeadlineSec = 2;

// Time allowed for connect and salt, as the library and tovctl take it.
constexpr float kTimeoutSec = 0.5f;
constexpr const char* kTimeoutArg = "0.5";
constexpr unsigned kAttempts = 3;

// The blackholed address and the namespace set-up that makes it so: the
// address sits on a veth whose peer is down, so no packet ever leaves.
constexpr const char* kBlackholeAddr = "198.18.0.2";
constexpr const char* kBlackholePort = "1195";
const std::vector<std::string>& blackholeSetup();

// The simulator for a row (default test cluster, the row's fault flags).
std::unique_ptr<simtest::SimProcess> startSimulator(const Fault& f);

// Runs `observe(host, port)` against the row's target: a simulator started
// for the row (and checked to stop cleanly), a closed loopback port, or a
// blackholed address inside a private namespace, in a child process whose
// result comes back as JSON. Sets `host` and `port` to what was used; false,
// with the reason, when the row cannot run here.
template <typename Result, typename Observe>
bool runAgainstTarget(const Fault& f, std::string& host, std::string& port,
                      Observe observe, Result& out, std::string& skip) {
  if (f.target == Target::Blackhole) {
    if (geteuid() != 0) {
      skip =
          "a blackholed address needs a private network namespace, and "
          "creating one needs root";
      return false;
    }
    host = kBlackholeAddr;
    port = kBlackholePort;
    const netnstest::Outcome child =
        netnstest::runIsolated(blackholeSetup(), [&] {
          std::cout << nlohmann::json(observe(host, port)).dump();
          return 0;
        });
    if (child.status == 77) {
      skip = "this system refuses to create a network namespace";
      return false;
    }
    EXPECT_EQ(child.status, 0) << child.output;
    out = nlohmann::json::parse(child.output).get<Result>();
  } else if (f.target == Target::ClosedPort) {
    port = std::to_string(closedPort());
    out = observe(host, port);
  } else {
    auto sim = startSimulator(f);
    port = sim->portStr();
    out = observe(host, port);
    sim->stop();
    EXPECT_FALSE(sim->running());
    EXPECT_EQ(sim->exitStatus(), 0) << sim->log();
  }
  return true;
}

}  // namespace faults

#endif  // TESTS_FAULTS_FAULT_TABLE_H
