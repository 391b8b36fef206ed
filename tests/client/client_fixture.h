// Common ground of the client suite: a clean recorder and debug level for
// every test, scripted and silent loopback peers, stream capture.
#ifndef TESTS_CLIENT_CLIENT_FIXTURE_H
#define TESTS_CLIENT_CLIENT_FIXTURE_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "doubles/doubles.h"
#include "support/loopback_server.h"
#include "support/stream_capture.h"
#include "tovapi/libtovapi.h"

namespace tov1 {
int getIpFamily(int family);
}

namespace clienttest {

using Capture = testsupport::StreamCapture;

// What the diagnostics object hands back for a recorded failure.
constexpr int fail(tov1::tov_error_enum code) {
  return -static_cast<int>(code);
}

inline looptest::Script replying(const std::string& reply) {
  looptest::Script s;
  s.reply = reply;
  return s;
}

// Listens on loopback and never accepts, running no thread: connections
// complete in its queue; once backlog + 1 wait there, no more are answered.
struct Listener {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
  std::string port;
  explicit Listener(int backlog = 4) {
    socklen_t len = sizeof addr;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        listen(fd, backlog) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
      throw std::runtime_error("cannot listen on loopback");
    port = std::to_string(ntohs(addr.sin_port));
  }
  ~Listener() { close(fd); }
};

class ClientTest : public testing::Test {
 protected:
  void SetUp() override {
    doubles::reset();
    tov1::Debug::useColour = false;
  }
  doubles::Recorder& rec() { return doubles::rec(); }
  tov1::TOVNet net;
};

}  // namespace clienttest

#endif  // TESTS_CLIENT_CLIENT_FIXTURE_H
