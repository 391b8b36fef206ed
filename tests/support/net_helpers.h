// Small network helpers shared by the suites: ports, raw sockets.
#ifndef TESTS_SUPPORT_NET_HELPERS_H
#define TESTS_SUPPORT_NET_HELPERS_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>

namespace testsupport {

// A host name the resolver rejects by its form alone, so that no lookup ever
// leaves the machine.
inline const char* const kUnresolvable = "bad..host";

// A loopback TCP port with nobody listening on it: bound once, released.
inline int closedPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  const bool ok =
      fd >= 0 &&
      bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0;
  const std::string why = std::strerror(errno);
  if (fd >= 0) close(fd);
  if (!ok) throw std::runtime_error("no free loopback port: " + why);
  return ntohs(addr.sin_port);
}

// A socket, closed when it goes.
struct Socket {
  explicit Socket(int f) : fd(f) {}
  Socket(Socket&& o) noexcept : fd(o.fd) { o.fd = -1; }
  ~Socket() {
    if (fd >= 0) close(fd);
  }
  int fd;
};

inline sockaddr_in addressOf(const std::string& address, int port) {
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, address.c_str(), &sa.sin_addr);
  return sa;
}

// Throws std::runtime_error when the connection fails.
inline Socket connectTcp(const std::string& address, int port) {
  const sockaddr_in sa = addressOf(address, port);
  Socket s(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (connect(s.fd, reinterpret_cast<const sockaddr*>(&sa), sizeof sa) != 0) {
    throw std::runtime_error(address + ": " + std::strerror(errno));
  }
  return s;
}

// False when the peer took less than all of it.
inline bool sendAll(int fd, const std::string& bytes) {
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t n =
        send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

struct Got {
  std::string bytes;
  int err = 0;       // errno of a failed read
  bool eof = false;  // the peer closed
  std::size_t reads = 0;
  std::string salt;  // of an exchange
  bool closed() const { return eof || err != 0; }
};

// Reads until `n` bytes, end of stream, an error or `ms` milliseconds.
inline Got readFor(int fd, std::size_t n, int ms) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(ms);
  const auto left = [&deadline] {
    return static_cast<int>(std::max<long long>(
        0, std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                 Clock::now())
               .count()));
  };
  Got g;
  for (pollfd p{fd, POLLIN, 0};
       g.bytes.size() < n && g.reads < 100000 && poll(&p, 1, left()) > 0;
       ++g.reads) {
    char buf[65536];
    const ssize_t got =
        recv(fd, buf, std::min(sizeof buf, n - g.bytes.size()), 0);
    if (got <= 0) {
      g.eof = got == 0;
      g.err = got < 0 ? errno : 0;
      break;
    }
    g.bytes.append(buf, static_cast<std::size_t>(got));
  }
  return g;
}

// A UDP socket bound to address:port (IPv4 or IPv6), or -1.
inline int boundUdp(const std::string& address, int port) {
  const bool v6 = address.find(':') != std::string::npos;
  const int fd = socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in a4{};
  sockaddr_in6 a6{};
  a4.sin_family = AF_INET;
  a4.sin_port = htons(static_cast<uint16_t>(port));
  a6.sin6_family = AF_INET6;
  a6.sin6_port = a4.sin_port;
  const bool ok =
      fd >= 0 &&
      inet_pton(v6 ? AF_INET6 : AF_INET, address.c_str(),
                v6 ? static_cast<void*>(&a6.sin6_addr) : &a4.sin_addr) == 1 &&
      bind(fd,
           v6 ? reinterpret_cast<sockaddr*>(&a6)
              : reinterpret_cast<sockaddr*>(&a4),
           v6 ? sizeof a6 : sizeof a4) == 0;
  if (!ok && fd >= 0) close(fd);
  return ok ? fd : -1;
}

}  // namespace testsupport

#endif  // TESTS_SUPPORT_NET_HELPERS_H
