#include "loopback_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

namespace looptest {

namespace {

using Clock = std::chrono::steady_clock;

void pause(int ms) {
  if (ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

bool readable(int fd, int ms) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, ms) > 0;
}

}  // namespace

LoopbackServer::LoopbackServer(std::vector<Script> scripts,
                               const std::string& bindAddress, int port,
                               int lifetimeSec)
    : scripts_(std::move(scripts)) {
  if (scripts_.empty()) scripts_.emplace_back();
  listenFd_ = socket(AF_INET, SOCK_STREAM, 0);
  const int on = 1;
  setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, bindAddress.c_str(), &addr.sin_addr);
  if (bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listenFd_, 16) != 0) {
    const std::string why = std::strerror(errno);
    close(listenFd_);
    throw std::runtime_error("loopback server: cannot listen on " +
                             bindAddress + ": " + why);
  }
  socklen_t len = sizeof addr;
  getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread(&LoopbackServer::run, this, lifetimeSec);
}

LoopbackServer::~LoopbackServer() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  close(listenFd_);
}

std::vector<std::string> LoopbackServer::frames() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return frames_;
}

void LoopbackServer::run(int lifetimeSec) {
  const auto deadline = Clock::now() + std::chrono::seconds(lifetimeSec);
  std::size_t next = 0;
  while (!stop_ && Clock::now() < deadline) {
    if (!readable(listenFd_, 50)) continue;
    const int fd = accept(listenFd_, nullptr, nullptr);
    if (fd < 0) continue;
    ++connections_;
    serve(fd, scripts_[next < scripts_.size() ? next : scripts_.size() - 1]);
    ++next;
  }
}

void LoopbackServer::serve(int fd, const Script& script) {
  if (script.closeBeforeSalt) {
    close(fd);
    return;
  }
  pause(script.saltDelayMs);
  if (!script.salt.empty())
    send(fd, script.salt.data(), script.salt.size(), MSG_NOSIGNAL);

  if (script.readFrame) {
    // Up to the NUL byte, bounded in size and time.
    std::string frame;
    char c = 0;
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    while (!stop_ && Clock::now() < deadline && frame.size() < (1u << 20)) {
      if (!readable(fd, 50)) continue;
      if (recv(fd, &c, 1, 0) != 1) break;
      frame.push_back(c);
      if (c == '\0') break;
    }
    // Bytes sent after the first NUL belong to the same frame; unread they
    // would turn the close into a reset.
    char rest[4096];
    while (readable(fd, 30)) {
      const ssize_t n = recv(fd, rest, sizeof rest, 0);
      if (n <= 0) break;
      frame.append(rest, static_cast<std::size_t>(n));
    }
    std::lock_guard<std::mutex> lock(mutex_);
    frames_.push_back(frame);
  }

  const std::size_t step = script.chunk ? script.chunk : script.reply.size();
  for (std::size_t at = 0; at < script.reply.size() && !stop_; at += step) {
    if (at > 0) pause(script.chunkPauseMs);
    const std::size_t n = std::min(step, script.reply.size() - at);
    if (send(fd, script.reply.data() + at, n, MSG_NOSIGNAL) < 0) break;
  }
  pause(script.closeDelayMs);
  if (script.resetAfterReply) {
    linger hard{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  }
  close(fd);
}

}  // namespace looptest
