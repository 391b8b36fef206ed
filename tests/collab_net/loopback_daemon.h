// A tiny daemon on 127.0.0.1 for the cache tests: for each connection it
// sends a salt, reads the request up to its NUL, answers with a canned reply
// plus NUL and closes. It counts the requests it answered, so a test can tell
// whether the cache went to the network. It stops by itself after a fixed
// lifetime, and every wait in it is bounded.
#ifndef TESTS_COLLAB_NET_LOOPBACK_DAEMON_H
#define TESTS_COLLAB_NET_LOOPBACK_DAEMON_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

class LoopbackDaemon {
 public:
  explicit LoopbackDaemon(std::string reply) : reply_(std::move(reply)) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof addr;
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        listen(fd_, 8) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
      if (fd_ >= 0) close(fd_);
      fd_ = -1;
      return;
    }
    port_ = std::to_string(ntohs(addr.sin_port));
    thread_ = std::thread([this] { run(); });
  }

  ~LoopbackDaemon() { stop(); }
  LoopbackDaemon(const LoopbackDaemon&) = delete;
  LoopbackDaemon& operator=(const LoopbackDaemon&) = delete;

  bool ok() const { return !port_.empty(); }
  const std::string& port() const { return port_; }
  int requests() const { return requests_.load(); }

  void setReply(std::string reply) {
    std::lock_guard<std::mutex> lock(mu_);
    reply_ = std::move(reply);
  }

  std::string lastRequest() const {
    std::lock_guard<std::mutex> lock(mu_);
    return lastRequest_;
  }

  // Stops answering and closes the port: later connections are refused.
  void stop() {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

 private:
  static constexpr auto kLifetime = std::chrono::seconds(30);
  static constexpr int kMaxRequest = 64 * 1024;

  void run() {
    const auto deadline = std::chrono::steady_clock::now() + kLifetime;
    while (!stopping_ && std::chrono::steady_clock::now() < deadline) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      int conn = accept(fd_, nullptr, nullptr);
      if (conn < 0) continue;
      serve(conn);
      close(conn);
    }
  }

  void serve(int conn) {
    timeval tv{2, 0};
    setsockopt(conn, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(conn, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    if (send(conn, "0a1b2c3d", 8, MSG_NOSIGNAL) != 8) return;
    std::string request;
    char c = 0;
    while (request.size() < static_cast<std::size_t>(kMaxRequest) &&
           recv(conn, &c, 1, 0) == 1 && c != '\0') {
      request += c;
    }
    std::string reply;
    {
      std::lock_guard<std::mutex> lock(mu_);
      lastRequest_ = request;
      reply = reply_;
    }
    // Counted before answering: the client returns only after the close.
    ++requests_;
    reply += '\0';
    send(conn, reply.data(), reply.size(), MSG_NOSIGNAL);
  }

  int fd_ = -1;
  std::string port_;
  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::atomic<int> requests_{0};
  mutable std::mutex mu_;
  std::string reply_;
  std::string lastRequest_;
};

#endif  // TESTS_COLLAB_NET_LOOPBACK_DAEMON_H
