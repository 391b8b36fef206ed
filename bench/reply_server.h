// A loopback daemon stand-in for the reply benchmarks: for every connection it
// sends a salt, reads the request frame up to its NUL byte and answers with a
// fixed reply as fast as the socket takes it, then closes. It serves one
// connection at a time and stops by itself at destruction or after its
// lifetime, whichever comes first.
#ifndef BENCH_REPLY_SERVER_H
#define BENCH_REPLY_SERVER_H

#include <atomic>
#include <cstddef>
#include <string>
#include <thread>

namespace benchsrv {

class ReplyServer {
 public:
  // Throws std::runtime_error when it cannot listen on 127.0.0.1.
  ReplyServer(std::string reply, int lifetimeSec);
  ~ReplyServer();
  ReplyServer(const ReplyServer&) = delete;
  ReplyServer& operator=(const ReplyServer&) = delete;

  int port() const { return port_; }
  std::string portStr() const { return std::to_string(port_); }
  const std::string& reply() const { return reply_; }

 private:
  void run(int lifetimeSec);
  void serve(int fd);

  std::string reply_;
  int listenFd_ = -1;
  int port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// A reply of exactly `size` bytes shaped like a daemon's data reply: a
// status line, then text lines; no NUL byte anywhere.
std::string makeReply(std::size_t size);

}  // namespace benchsrv

#endif  // BENCH_REPLY_SERVER_H
