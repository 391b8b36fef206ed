// The client at the edges of the process's descriptor table: no descriptor
// left for a socket, and sockets numbered beyond what select() can watch.
// Each case runs in a child process so the limits stay there.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <stdexcept>

#include "client_fixture.h"

#if defined(__SANITIZE_ADDRESS__)
#define TOVAPI_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TOVAPI_TEST_SANITIZED 1
#endif
#endif

namespace {

using clienttest::ClientTest;
using clienttest::fail;
using namespace tov1;

// Runs fn in a child; returns what it wrote to the pipe it is given. The
// caller forks with no other thread alive: a thread holding the allocator's
// lock at the fork would leave the child's exit-time leak check waiting for
// ever. A child still running after 60 s is killed and reported.
std::string inChild(const std::function<std::string()>& fn) {
  int fds[2];
  EXPECT_EQ(pipe(fds), 0);
  std::cout.flush();
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    const std::string result = fn();
    if (write(fds[1], result.data(), result.size()) < 0) std::exit(2);
    std::exit(0);  // exit(), not _exit(): coverage data is written at exit
  }
  close(fds[1]);
  std::string result;
  char buf[256];
  pollfd readable{fds[0], POLLIN, 0};
  bool ended = false;  // the pipe closes only as the child's process ends
  for (int waited = 0; !ended && waited < 600;) {
    if (poll(&readable, 1, 100) == 0) {
      ++waited;
      continue;
    }
    const ssize_t n = read(fds[0], buf, sizeof buf);
    if (n > 0) result.append(buf, static_cast<std::size_t>(n));
    ended = n <= 0;
  }
  close(fds[0]);
  if (!ended) {
    kill(pid, SIGKILL);
    ADD_FAILURE() << "the child did not finish within 60 s";
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  return result;
}

// A loopback socket that listens and never accepts: connections complete in
// its backlog, and no thread runs beside the fork.
struct Listener {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  std::string port;
  Listener() {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        listen(fd, 4) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
      throw std::runtime_error("cannot listen on loopback");
    port = std::to_string(ntohs(addr.sin_port));
  }
  ~Listener() { close(fd); }
};

TEST_F(ClientTest, NoDescriptorLeftForASocket) {
#ifdef TOVAPI_TEST_SANITIZED
  GTEST_SKIP() << "the sanitizers' own checks need free descriptors";
#endif
  // The child touches only the client object and the recorder: with no
  // descriptor free, the sanitizers' own checks of polymorphic objects could
  // not run.
  TOVNet& client = net;
  const std::string result = inChild([&client] {
    std::cerr.setstate(std::ios::failbit);  // keep the child's reports quiet
    gethostbyname("127.0.0.1");  // the resolver reads its files once, first
    rlimit original{};
    getrlimit(RLIMIT_NOFILE, &original);
    const int lowestFree = dup(0);
    close(lowestFree);
    const rlimit none{static_cast<rlim_t>(lowestFree), original.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    char* buffer = nullptr;
    const int exchange =
        client.tovcomms(buffer, "127.0.0.1", "1", "V 0", {}, "");
    const int discovery = client.discoverClusters("127.0.0.1", 0, true);
    setrlimit(RLIMIT_NOFILE, &original);  // room to write coverage data
    return std::to_string(exchange) + " " + std::to_string(discovery) + " " +
           doubles::rec().errors.at(0).second +
           doubles::rec().errors.at(1).second;
  });
  EXPECT_EQ(result, std::to_string(fail(TOV_SOCK_CREATE)) + " " +
                        std::to_string(TOV_SOCK_CREATE) +
                        " Failed to create the socket\nsocket\n");
}

TEST_F(ClientTest, SocketsBeyondWhatSelectCanWatch) {
  const Listener listener;
  const std::string port = listener.port;
  TOVNet& client = net;
  const std::string result = inChild([&client, port] {
    std::cerr.setstate(std::ios::failbit);
    const rlimit wide{FD_SETSIZE + 64, FD_SETSIZE + 64};
    if (setrlimit(RLIMIT_NOFILE, &wide) != 0) return std::string("skip");
    // Fill the table up to FD_SETSIZE so the next socket lands beyond it.
    const int devnull = open("/dev/null", O_RDONLY);
    for (int fd = devnull + 1; fd < FD_SETSIZE; ++fd)
      if (fcntl(fd, F_GETFD) == -1) dup2(devnull, fd);  // keep open ones
    char* buffer = nullptr;
    const int exchange =
        client.tovcomms(buffer, "127.0.0.1", port, "V 0", {}, "");
    std::cout.setstate(std::ios::failbit);
    const int discovery = client.discoverClusters("127.0.0.1", 0, true);
    return std::to_string(exchange) + " " + std::to_string(discovery) + " " +
           std::to_string(buffer == nullptr);
  });
  if (result == "skip") GTEST_SKIP() << "cannot raise the descriptor limit";
  // The wait is reported as a failing select, never a write past the set;
  // discovery then collects nothing.
  const bool connectFailed =
      result.rfind(std::to_string(fail(TOV_SOCK_CONNECT)) + " 0 1", 0) == 0;
  const bool saltWaitFailed =
      result.rfind(std::to_string(fail(TOV_SOCK_SELECT)) + " 0 1", 0) == 0;
  EXPECT_TRUE(connectFailed || saltWaitFailed) << "[" << result << "]";
}

}  // namespace
