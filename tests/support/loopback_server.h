// A scripted one-thread TCP server on a loopback port, for tests that need
// byte-exact control of what a daemon sends (salt, fragments, resets) and a
// record of the exact frames a client sent. It stops by itself when the test
// object goes away, and in any case after its lifetime.
#ifndef TESTS_SUPPORT_LOOPBACK_SERVER_H
#define TESTS_SUPPORT_LOOPBACK_SERVER_H

#include <atomic>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace looptest {

struct Script {
  std::string salt = "0a1b2c3d";  // sent whole, in one write, after accept
  int saltDelayMs = 0;
  bool closeBeforeSalt = false;  // close right after accept
  bool readFrame = true;         // read the request up to its NUL byte
  std::string reply;             // sent after the frame
  std::size_t chunk = 0;         // write the reply in pieces of this size
  int chunkPauseMs = 0;
  bool resetAfterReply = false;  // end with a reset instead of a close
  int closeDelayMs = 0;          // pause before closing
};

class LoopbackServer {
 public:
  // One script per accepted connection, in order; the last one repeats.
  explicit LoopbackServer(std::vector<Script> scripts,
                          const std::string& bindAddress = "127.0.0.1",
                          int port = 0, int lifetimeSec = 60);
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  int port() const { return port_; }
  std::string portStr() const { return std::to_string(port_); }
  std::vector<std::string> frames() const;  // each with its NUL byte
  int connections() const { return connections_; }

 private:
  void run(int lifetimeSec);
  void serve(int fd, const Script& script);

  std::vector<Script> scripts_;
  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<int> connections_{0};
  mutable std::mutex mutex_;
  std::vector<std::string> frames_;
  std::thread thread_;
};

}  // namespace looptest

#endif  // TESTS_SUPPORT_LOOPBACK_SERVER_H
