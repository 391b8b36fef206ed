// Small network helpers of the client suite.
#ifndef TESTS_CLIENT_NET_HELPERS_H
#define TESTS_CLIENT_NET_HELPERS_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace clienttest {

// A host name the resolver rejects by its form alone, so that no lookup ever
// leaves the machine.
inline const char* const kUnresolvable = "bad..host";

// A loopback TCP port with nobody listening on it.
inline int closedPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  socklen_t len = sizeof addr;
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  close(fd);
  return ntohs(addr.sin_port);
}

}  // namespace clienttest

#endif  // TESTS_CLIENT_NET_HELPERS_H
