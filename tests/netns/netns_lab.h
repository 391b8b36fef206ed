// Private networks for tests: network namespaces that the test creates
// itself, joined by veth pairs, with addresses from 198.18.0.0/15. Nothing
// here touches the host's own network; everything goes with the lab object.
#ifndef TESTS_NETNS_NETNS_LAB_H
#define TESTS_NETNS_NETNS_LAB_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace netnstest {

// What a function run inside a namespace reports back.
struct Outcome {
  int status = -1;     // the function's return value; -1 if it died
  std::string output;  // what it wrote to standard output
};

class NetnsLab {
 public:
  NetnsLab();
  ~NetnsLab();
  NetnsLab(const NetnsLab&) = delete;
  NetnsLab& operator=(const NetnsLab&) = delete;

  // False, with the reason, where namespaces cannot be made.
  bool available(std::string* why);
  // Creates a namespace with loopback up; returns its full name.
  std::string add(const std::string& shortName);
  // `ip <args>` inside a namespace ("" for the test's own); false on failure.
  bool ip(const std::string& ns, const std::string& args);
  // Starts a program inside a namespace; it is killed with the lab.
  pid_t spawn(const std::string& ns, const std::vector<std::string>& argv);
  // Runs fn in a child process inside the namespace, with a time limit.
  Outcome runIn(const std::string& ns, const std::function<int()>& fn,
                int limitSec = 20);

 private:
  std::string prefix_;
  std::vector<std::string> namespaces_;
  std::vector<pid_t> children_;
};

// Moves the calling thread alone into a fresh network namespace with
// loopback up and 198.18.0.1/24 on a veth whose peer is down: there
// kBlackhole never answers (a connection waits out its timeout) and kNoRoute
// has no route. Processes the thread starts meanwhile live in that network.
// The thread goes back home when the object goes.
class PrivateNetwork {
 public:
  static constexpr const char* kBlackhole = "198.18.0.2";
  static constexpr const char* kNoRoute = "198.18.9.2";

  PrivateNetwork();
  ~PrivateNetwork();
  PrivateNetwork(const PrivateNetwork&) = delete;
  PrivateNetwork& operator=(const PrivateNetwork&) = delete;

  // False where it needs root and iproute2 that are not there.
  bool ready() const { return ready_; }
  // False when the thread could not go back home.
  bool leave();

 private:
  int home_ = -1;
  bool moved_ = false;
  bool ready_ = false;
};

// Inside a PrivateNetwork: the first name server of /etc/resolv.conf (the
// resolver's 127.0.0.1 when there is none) put on loopback, where a UDP
// socket takes the queries and never answers them. The glibc resolver
// retries such a server by itself; no signal ends its wait.
class SilentNameserver {
 public:
  SilentNameserver();
  ~SilentNameserver();
  SilentNameserver(const SilentNameserver&) = delete;
  SilentNameserver& operator=(const SilentNameserver&) = delete;

  // Why it could not be set up, or "".
  const std::string& why() const { return why_; }
  // How many queries have come so far.
  int queries();

 private:
  int fd_ = -1;
  int queries_ = 0;
  std::string why_;
};

// Runs fn in a child process inside a fresh, unnamed namespace, after the
// setup commands (ip arguments, one per entry). Status 77: no namespace.
Outcome runIsolated(const std::vector<std::string>& setup,
                    const std::function<int()>& fn, int limitSec = 20);

}  // namespace netnstest

#endif  // TESTS_NETNS_NETNS_LAB_H
