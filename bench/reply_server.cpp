#include "reply_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace benchsrv {

namespace {

using Clock = std::chrono::steady_clock;

bool readable(int fd, int ms) {
  pollfd p{fd, POLLIN, 0};
  return poll(&p, 1, ms) > 0;
}

}  // namespace

std::string makeReply(std::size_t size) {
  std::string reply = "Vn data follows\n";
  const std::string line =
      "S 0 web running auto 0 node1 "
      "0123456789abcdefghijklmnopqrstuvwxyz\n";
  while (reply.size() < size) reply += line;
  reply.resize(size);
  return reply;
}

ReplyServer::ReplyServer(std::string reply, int lifetimeSec)
    : reply_(std::move(reply)) {
  listenFd_ = socket(AF_INET, SOCK_STREAM, 0);
  if (listenFd_ < 0)
    throw std::runtime_error(std::string("reply server: socket: ") +
                             std::strerror(errno));
  const int on = 1;
  setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = 0;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      listen(listenFd_, 16) != 0) {
    const std::string why = std::strerror(errno);
    close(listenFd_);
    throw std::runtime_error("reply server: cannot listen on 127.0.0.1: " +
                             why);
  }
  socklen_t len = sizeof addr;
  getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread(&ReplyServer::run, this, lifetimeSec);
}

ReplyServer::~ReplyServer() {
  stop_ = true;
  if (thread_.joinable()) thread_.join();
  close(listenFd_);
}

void ReplyServer::run(int lifetimeSec) {
  const auto deadline = Clock::now() + std::chrono::seconds(lifetimeSec);
  while (!stop_ && Clock::now() < deadline) {
    if (!readable(listenFd_, 50)) continue;
    const int fd = accept(listenFd_, nullptr, nullptr);
    if (fd < 0) continue;
    // A client that stops reading cannot hold a send for long.
    const timeval limit{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    serve(fd);
    close(fd);
  }
}

void ReplyServer::serve(int fd) {
  static const char salt[] = "0a1b2c3d";
  if (send(fd, salt, 8, MSG_NOSIGNAL) != 8) return;

  // The frame ends at its NUL byte; bounded in size and time so a stuck
  // client cannot hold the server.
  char buf[4096];
  std::size_t frameBytes = 0;
  const auto deadline = Clock::now() + std::chrono::seconds(5);
  bool complete = false;
  while (!complete && !stop_ && Clock::now() < deadline &&
         frameBytes < (1u << 16)) {
    if (!readable(fd, 50)) continue;
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0) return;
    frameBytes += static_cast<std::size_t>(n);
    complete = std::memchr(buf, '\0', static_cast<std::size_t>(n)) != nullptr;
  }
  if (!complete) return;

  std::size_t at = 0;
  while (at < reply_.size() && !stop_) {
    const ssize_t n =
        send(fd, reply_.data() + at, reply_.size() - at, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    at += static_cast<std::size_t>(n);
  }
}

}  // namespace benchsrv
