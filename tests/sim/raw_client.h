// A minimal client written from the wire format alone, so the simulator is
// tested without the client library.
#ifndef TESTS_SIM_RAW_CLIENT_H
#define TESTS_SIM_RAW_CLIENT_H

#include <string>
#include <vector>

namespace rawtest {

// Owns a socket descriptor.
class Socket {
 public:
  explicit Socket(int fd = -1) : fd_(fd) {}
  ~Socket();
  Socket(Socket&& o) noexcept : fd_(o.fd_) { o.fd_ = -1; }
  Socket& operator=(Socket&& o) noexcept;
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

// TCP connection with a 5 s receive timeout; throws std::runtime_error.
Socket connectTcp(const std::string& address, int port);

// Reads until `n` bytes, end of stream, an error, or `ms` milliseconds of
// waiting in total. `err` receives errno of a failed read (0 otherwise);
// `eof` whether the peer closed.
std::string readSome(int fd, std::size_t n, int ms, int* err = nullptr,
                     bool* eof = nullptr);

// Reads until the peer closes (or 5 s pass); `err` as above; `pieces`
// receives the size of every successful read.
std::string readToClose(int fd, int* err = nullptr,
                        std::vector<std::size_t>* pieces = nullptr);

void sendAll(int fd, const std::string& bytes);

// "<user> <hex HMAC-SHA-256(SHA-256(password), binsalt + line)>".
std::string authLine(const std::string& user, const std::string& password,
                     const std::string& salt, const std::string& line);

// The frame a client sends: line, LF, [auth line, LF], data, NUL.
std::string frame(const std::string& line, const std::string& auth = "",
                  const std::string& data = "");

struct Reply {
  std::string salt;
  std::string bytes;  // everything up to the close, NUL included
  int err = 0;
};

// One whole exchange; authenticates when `user` is not empty.
Reply exchange(int port, const std::string& line, const std::string& user = "",
               const std::string& password = "", const std::string& data = "",
               const std::string& address = "127.0.0.1");

// The reply's lines without the closing NUL and without empty pieces.
std::vector<std::string> lines(const std::string& reply);
std::vector<std::string> fields(const std::string& line);

}  // namespace rawtest

#endif  // TESTS_SIM_RAW_CLIENT_H
