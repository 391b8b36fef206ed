// Small network helpers shared by the suites.
#ifndef TESTS_SUPPORT_NET_HELPERS_H
#define TESTS_SUPPORT_NET_HELPERS_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
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

}  // namespace testsupport

#endif  // TESTS_SUPPORT_NET_HELPERS_H
