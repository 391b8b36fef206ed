// The client at the edges of the process's descriptor table: no descriptor
// left for a socket, and sockets numbered beyond what select() can watch.
// Each case runs in a child process so the limits stay there.
#include <fcntl.h>
#include <netdb.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

#include "client_fixture.h"
#include "support/loopback_server.h"

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

// Runs fn in a child; returns what it wrote to the pipe it is given.
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
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
    result.append(buf, static_cast<std::size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  return result;
}

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
  looptest::Script script;
  script.reply = "Va ok";
  looptest::LoopbackServer server({script});
  const std::string port = server.portStr();
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
