// The fault matrix: each way a daemon or the network can let a client down,
// and what the library and tovctl must make of it.
#ifndef TESTS_FAULTS_FAULT_TABLE_H
#define TESTS_FAULTS_FAULT_TABLE_H

#include <gtest/gtest.h>

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "support/sim.h"

namespace faults {

// tovsim with the row's fault flags, a loopback port nothing listens on, an
// address that never answers, or one with no route to it.
enum class Target { Simulator, ClosedPort, Blackhole, NoRoute };

// A result code (0: success) and a text: for the library a fragment of its
// one line on std::cerr ("" = nothing at all); for tovctl the whole error
// line, or on success the start of standard output. "{addr}" and "{port}"
// stand for where the client was sent.
struct Expect {
  int code;
  std::string text;
};

constexpr int kAnyFailure = -1;    // cut short wherever it stood
constexpr int kExitDeadline = 98;  // tovctl's status once --deadline ends it
constexpr double kDeadlineSec = 2;
constexpr float kTimeoutSec = 0.5f;  // connect and salt, library and tovctl

struct Fault {
  std::string name;
  std::vector<std::string> simArgs;
  Expect exchange;              // tovNet.tovcomms(request)
  Expect service;               // tovNet.serviceCommand("B", service 0)
  Expect bounce;                // tovctl bounce web
  Expect send;                  // tovctl send REQUEST
  int replyStatus = 0;          // the exchange's reply, decoded
  std::size_t replyLength = 0;  // its exact length (0: not checked)
  bool stalls = false;     // never lets go: every call runs within kDeadlineSec
  long long pollTime = 1;  // the cluster's
  std::string request = "B 0";
  bool wrongPassword = false;
  Target target = Target::Simulator;
};
inline void PrintTo(const Fault& f, std::ostream* os) { *os << f.name; }

// Every row, through the library and through tovctl.
class FaultRow : public testing::TestWithParam<Fault> {};

std::string fill(const std::string& text, const std::string& addr,
                 const std::string& port);
int openDescriptors();  // entries of /proc/self/fd
std::unique_ptr<simtest::SimProcess> startSimulator(
    const std::vector<std::string>& simArgs, long long pollTime = 1);

// Runs `observe` against the row's target: a simulator started for the row,
// which must then stop cleanly; a closed loopback port; or, with this thread
// in a private network namespace, 198.18.0.2 on a veth whose peer is down,
// or 198.18.9.2, not routed. Returns why the row cannot run here, or "".
std::string onTarget(const Fault& f,
                     void (*observe)(const Fault& f, const std::string& host,
                                     const std::string& port));

}  // namespace faults

#endif  // TESTS_FAULTS_FAULT_TABLE_H
