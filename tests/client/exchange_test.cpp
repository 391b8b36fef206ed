// The request exchange against scripted loopback daemons, also at the edges
// of the descriptor table, and the service commands built on it.
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <stdexcept>
#include <tuple>

#include "client_fixture.h"
#include "support/net_helpers.h"

#if defined(__SANITIZE_ADDRESS__)
#define TOVAPI_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TOVAPI_TEST_SANITIZED 1
#endif
#endif

namespace {

using clienttest::fail;
using clienttest::Listener;
using clienttest::replying;
using looptest::LoopbackServer;
using looptest::Script;
using namespace std::string_literals;
using namespace tov1;

class NetTest : public clienttest::ClientTest {
 protected:
  int exchange(const std::string& port, const std::string& command,
               std::vector<std::string> authvec = {},
               const std::string& data = "",
               const std::string& address = "127.0.0.1") {
    return net.tovcomms(buffer, address, port, command, std::move(authvec),
                        data);
  }
  void release() {
    if (buffer != sentinel) delete[] buffer;
    buffer = sentinel;
  }
  int command(LoopbackServer& server, const std::string& letters,
              unsigned serviceNum = 1, const std::string& suffix = "",
              unsigned attempts = 3) {
    return net.serviceCommand("127.0.0.1", server.portStr(), letters, {},
                              serviceNum, attempts, suffix);
  }
  void TearDown() override { release(); }
  char sentinel[4] = "old";
  char* buffer = sentinel;  // failures must leave it alone
};

TEST_F(NetTest, ExchangeFramesOnTheWire) {
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"B 1", "", "B 1\n\0"s},
      {"", "", "CCN\n\0"s},         // CCN if empty
      {"\nX", "", "\nX\n\0"s},      // LF at 0 stays
      {"a\n\nb", "", "a\nb\n\0"s},  // one of two removed
      {"Y 0 hi", "payload", "Y 0 hi\npayload\0"s},
      {"B 0", "ab\0cd"s, "B 0\nab\0\0\0\0"s},  // NUL cuts, length stays
  };
  LoopbackServer server({replying("Ba done\n"s + '\0')});
  for (const auto& [command, data, frame] : cases) {
    SCOPED_TRACE(command);
    ASSERT_EQ(exchange(server.portStr(), command, {}, data), 0);
    EXPECT_EQ(server.frames().back(), frame);
    EXPECT_STREQ(buffer, "Ba done\n");
    release();
  }
  // At level 0 only the connect step's own two lines may appear.
  for (const auto& w : rec().writes)
    EXPECT_EQ(w.rfind("TOVNet::connectTimeout(): connect() re", 0), 0u) << w;

  // Signed: an 8-byte salt, NUL-padded; the cleaned command.
  Script shortSalt = replying(std::string(20000, 'y'));
  shortSalt.salt = "abcde";
  LoopbackServer signer({shortSalt});
  rec().level = 3;
  ASSERT_EQ(exchange(signer.portStr(), "J\n", {"admin", "cafe"}), 0);
  EXPECT_EQ(signer.frames(),
            std::vector<std::string>{"J\nadmin, cafe bin:abcde... J\n\0"s});
}

TEST_F(NetTest, ExchangeReplyCollection) {
  const std::string big = "Bn " + std::string(19997, 'x');  // 20000 bytes
  // In pieces: the fault matrix's dribbled reply.
  const Script whole = replying(big), empty;
  const Script nulInside = replying("Ba kept\0dropped"s);
  Script lateSalt = replying("Ba");
  lateSalt.saltDelayMs = 300;
  LoopbackServer server({whole, empty, lateSalt, nulInside});
  const std::tuple<const char*, std::string, float> cases[] = {
      {"whole", big, 3},
      {"empty", "", 3},
      {"zero timeout waits without bound", "Ba", 0},
      {"NUL ends a fragment", "Ba kept", 3}};
  rec().level = 2;
  for (const auto& [name, reply, timeout] : cases) {
    SCOPED_TRACE(name);
    net.setTimeout(timeout);
    ASSERT_EQ(exchange(server.portStr(), "B 0"), 0);
    ASSERT_NE(buffer, sentinel);
    EXPECT_EQ(std::string(buffer), reply);
    release();
  }
  EXPECT_FALSE(rec().wrote("dropped"));  // not even in the fragment trace
}

// Letters compose the request line, or are refused, after the refresh.
TEST_F(NetTest, ServiceLetters) {
  const std::string sub = "Unrecognised secondary command passed";
  struct Row {
    std::string letters, suffix, expected;  // the line sent, or the error
    int rc;
  };
  std::vector<Row> cases = {
      {"L", "", "L ", 0},         {"J\0"s, "", "J", 0},
      {"JA", "", "JA", 0},        {"@AQ", "", "@AQ 1", 0},
      {"L", "now", "L  now", 0},  {"JA", "x", "JA x", 0},
      {"B", "a b", "B 1 a b", 0}, {"Y", "hi there", "Y 1 hi there", 0},
      {"Bxyz", "", "B 1", 0},  // letters after the first are ignored
      {"@A", "", "CCN", 0},    // empty command string: the exchange sends CCN
      {"@AX", "s", " s", 0}};
  cases.insert(cases.end(),
               {{"J", "", sub, fail(TOV_UNKNOWN_SUBCMD)},
                {"JB", "", sub, fail(TOV_UNKNOWN_SUBCMD)},
                {"@", "", "Unrecognised Extended Command passed:  ",
                 fail(TOV_UNKNOWN_SUBCMD)},
                {"@\0"s, "", "Nothing passed to extended request packet",
                 fail(TOV_EMPTY_SUBCMD)},
                {"@A\0"s, "",
                 "Unrecognised request passed to extended service command: \0"s,
                 fail(TOV_UNKNOWN_EXTCMD)}});
  for (char c : "BCDEFGHIKMNORUVWXZ["s)
    cases.push_back({{c}, "", std::string(1, c) + " 1", 0});
  for (char c : "APQSTa\\"s)
    cases.push_back(
        {{c}, "", "Unrecognised Input Error", fail(TOV_UNKNOWN_SVCCMD)});
  LoopbackServer server({replying("?a ok")});
  rec().level = 3;
  clienttest::Capture out(std::cout);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.letters);
    const int sent = server.connections();
    rec().errors.clear();
    ASSERT_EQ(command(server, c.letters, 1, c.suffix), c.rc);
    if (c.rc == 0) {
      const std::string frame = server.frames().back();
      EXPECT_EQ(frame.substr(0, frame.find('\n')), c.expected);
    } else {
      EXPECT_EQ(server.connections(), sent);
      ASSERT_EQ(rec().errors.size(), 1u);
      EXPECT_EQ(rec().errors[0].first, "TOVNet::serviceCommand()");
      EXPECT_EQ(rec().errors[0].second, c.expected + "\n");
    }
  }
  EXPECT_EQ(rec().refreshCalls.size(), cases.size());
  EXPECT_EQ(out.text(), "Y 1 hi there\n");  // the log line, on success
}

// The service number is checked first, for every letter; then a negative
// result of the forced refresh ends the command unchanged.
TEST_F(NetTest, ServiceChecksBeforeSending) {
  LoopbackServer server({replying("Ba ok")});
  const std::tuple<int, unsigned, std::string> cases[] = {
      {2, 2, "B"}, {2, 7, "L"}, {-1, 0, "B"}, {-1, 0, "J\0"s}, {0, 0, ""}};
  for (const auto& [count, number, letters] : cases) {
    rec().serviceCount = count;
    EXPECT_EQ(command(server, letters, number), fail(TOV_SVC_INVALID))
        << count << " " << number << " " << letters;
  }
  EXPECT_TRUE(rec().refreshCalls.empty());
  EXPECT_TRUE(rec().errors.empty());  // reported only above level 1
  rec().level = 2;
  EXPECT_EQ(command(server, "B", 9), fail(TOV_SVC_INVALID));
  EXPECT_EQ(rec().errors.back().second,
            "invalid service number provided [9]\n");

  doubles::reset();
  int refreshed = -74;
  rec().refresh = [&] { return refreshed; };
  EXPECT_EQ(command(server, "B"), -74);
  ASSERT_EQ(rec().refreshCalls.size(), 1u);
  const auto& call = rec().refreshCalls[0];
  EXPECT_TRUE(call.address == "127.0.0.1" && call.port == server.portStr() &&
              call.force);
  EXPECT_EQ(server.connections(), 0);
  // A positive result is no failure; an empty command sends nothing.
  refreshed = 5;
  EXPECT_EQ(command(server, "B"), 0);
  rec().level = 1;
  EXPECT_EQ(command(server, ""), 0);
  EXPECT_TRUE(
      rec().wrote("TOVNet::serviceCommand(): forcing a cache refresh\n"));
  EXPECT_EQ(server.connections(), 1);
}

// Busy replies ('k' as the status letter) are sent again after the poll
// time; the last reply, or none, decides. Only a successful log is echoed.
TEST_F(NetTest, ServiceBusyRetry) {
  const struct {
    std::string first, then;  // the replies to the first and later sends
    unsigned attempts;
    int rc, connections;
    std::size_t polls;  // also after the last attempt
  } cases[] = {
      {"Yk busy", "Ya ok", 3, 0, 2, 1},
      {"Yk busy", "Yk busy", 2, fail(TOV_COMMS_NORESPONSE), 2, 2},
      {"Ya", "Ya", 0, fail(TOV_COMMS_NORESPONSE), 0, 0},
      {"kd failed", "Ya", 3, fail(TOV_COMMS_FAIL), 1, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first + " " + std::to_string(c.attempts));
    doubles::reset();
    rec().level = 3;
    LoopbackServer server({replying(c.first), replying(c.then)});
    clienttest::Capture out(std::cout);
    EXPECT_EQ(command(server, "Y", 0, "x", c.attempts), c.rc);
    EXPECT_EQ(out.text(), c.rc == 0 ? "Y 0 x\n" : "");
    EXPECT_EQ(server.connections(), c.connections);
    EXPECT_EQ(rec().pollTimeCalls,
              std::vector<std::string>(c.polls, "127.0.0.1"));
  }
}

// A failed exchange or a standard exception ends the command at once.
TEST_F(NetTest, ServiceFailures) {
  EXPECT_EQ(
      net.serviceCommand("127.0.0.1", std::to_string(testsupport::closedPort()),
                         "B", {}, 0, 5, ""),
      fail(TOV_SOCK_CONNECT));
  EXPECT_TRUE(rec().pollTimeCalls.empty());
  LoopbackServer server({replying("Ba")});
  rec().refresh = []() -> int { throw std::runtime_error("cache exploded"); };
  EXPECT_EQ(command(server, "B"), fail(TOV_EXCEPT_SVCCMD));
  EXPECT_EQ(rec().errors.back().second, "EXCEPTION - cache exploded\n");
  rec().refresh = []() -> int { throw 7; };
  EXPECT_THROW(command(server, "B"), int);
}

// Connects to the listener; returns once `queued` connections wait there.
int queueOn(const Listener& listener, unsigned queued) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&listener.addr),
                    sizeof listener.addr),
            0);
  tcp_info info{};  // of a listener: tcpi_unacked is its queue length
  socklen_t len = sizeof info;
  for (int i = 0; i < 500 && info.tcpi_unacked < queued; ++i) {
    if (i > 0) poll(nullptr, 0, 10);
    getsockopt(listener.fd, IPPROTO_TCP, TCP_INFO, &info, &len);
  }
  EXPECT_GE(info.tcpi_unacked, queued);
  return fd;
}

TEST_F(NetTest, ExchangeFailuresLeaveTheBufferAlone) {
  // A late salt, none, a reset mid-reply: rows of the fault matrix.
  Script resetSalt;
  resetSalt.salt = "";
  resetSalt.readFrame = false;
  resetSalt.resetAfterReply = true;
  resetSalt.closeDelayMs = 100;  // after the client waits for the salt
  LoopbackServer server({resetSalt});
  const std::string port = server.portStr();
  const Listener full(1);
  const int queued[] = {queueOn(full, 1), queueOn(full, 2)};  // full now
  const std::string closed = std::to_string(testsupport::closedPort());
  const std::string bad = testsupport::kUnresolvable, lo = "127.0.0.1";
  const struct {
    std::string address, port;
    std::size_t authSize;
    float timeout;
    int rc;
    std::string error;  // its start
  } cases[] = {
      // Wrong vectors are refused before the host is even resolved.
      {bad, "", 1, 3, fail(TOV_AUTH_DIGEST),
       "authentication vector with no digest detected\n"},
      {bad, "", 3, 3, fail(TOV_AUTH_INVALID),
       "invalid authentication vector detected\n"},
      {bad, "", 0, 3, fail(TOV_SOCK_RESOLVE_HOST),
       "failed to get address info for bad..host:1195\n"},
      {"", closed, 0, 3, fail(TOV_SOCK_CONNECT),
       "cannot connect to server 127.0.0.1: Connection refused\n"},
      {lo, full.port, 0, 0.2f, fail(TOV_SOCK_CONNECT),
       "cannot connect to server 127.0.0.1: Connection timed out\n"},
      {lo, port, 0, 3, fail(TOV_COMMS_SALT),
       "failed to receive salt from host: 127.0.0.1:"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    net.setTimeout(c.timeout);
    EXPECT_EQ(exchange(c.port, "B 0", std::vector<std::string>(c.authSize, "u"),
                       "", c.address),
              c.rc);
    ASSERT_FALSE(rec().errors.empty());
    const auto& [where, text] = rec().errors.back();
    EXPECT_EQ(where + ": " + text.substr(0, c.error.size()),
              "TOVNet::tovcomms(): " + c.error);
    EXPECT_EQ(buffer, sentinel);
  }
  for (int fd : queued) close(fd);
}

// Runs fn in a child, where limits stay, and returns what it returned. No
// other thread may be alive: one holding the allocator's lock at the fork
// would leave the child's exit-time leak check waiting for ever.
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
  ssize_t n = 1;  // the pipe closes only as the child's process ends
  while (n > 0 && poll(&readable, 1, 60000) > 0)
    if ((n = read(fds[0], buf, sizeof buf)) > 0)
      result.append(buf, static_cast<std::size_t>(n));
  close(fds[0]);
  if (n > 0) {
    kill(pid, SIGKILL);
    ADD_FAILURE() << "the child did not finish within 60 s";
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  return result;
}

TEST_F(NetTest, NoDescriptorLeftForASocket) {
#ifdef TOVAPI_TEST_SANITIZED
  GTEST_SKIP() << "the sanitizers' own checks need free descriptors";
#endif
  const std::string result = inChild([this] {
    std::cerr.setstate(std::ios::failbit);  // keep the child's reports quiet
    gethostbyname("127.0.0.1");  // the resolver reads its files once, first
    rlimit original{};
    getrlimit(RLIMIT_NOFILE, &original);
    const int lowestFree = dup(0);
    close(lowestFree);
    const rlimit none{static_cast<rlim_t>(lowestFree), original.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const int exchange = net.tovcomms(buffer, "127.0.0.1", "1", "V 0", {}, "");
    const int discovery = net.discoverClusters("127.0.0.1", 0, true);
    setrlimit(RLIMIT_NOFILE, &original);  // room to write coverage data
    return std::to_string(exchange) + " " + std::to_string(discovery) + " " +
           doubles::rec().errors.at(0).second +
           doubles::rec().errors.at(1).second;
  });
  EXPECT_EQ(result, std::to_string(fail(TOV_SOCK_CREATE)) + " " +
                        std::to_string(TOV_SOCK_CREATE) +
                        " Failed to create the socket\nsocket\n");
}

// The waits are reported as a failing select, never a write past the set;
// discovery then collects nothing.
TEST_F(NetTest, SocketsBeyondWhatSelectCanWatch) {
  const clienttest::Listener listener;
  const std::string result = inChild([this, &listener] {
    std::cerr.setstate(std::ios::failbit);
    const rlimit wide{FD_SETSIZE + 64, FD_SETSIZE + 64};
    if (setrlimit(RLIMIT_NOFILE, &wide) != 0) return std::string("skip");
    // Fill the table up to FD_SETSIZE so the next socket lands beyond it.
    const int devnull = open("/dev/null", O_RDONLY);
    for (int fd = devnull + 1; fd < FD_SETSIZE; ++fd)
      if (fcntl(fd, F_GETFD) == -1) dup2(devnull, fd);  // keep open ones
    const int exchange =
        net.tovcomms(buffer, "127.0.0.1", listener.port, "V 0", {}, "");
    std::cout.setstate(std::ios::failbit);
    const int discovery = net.discoverClusters("127.0.0.1", 0, true);
    return std::to_string(exchange) + " " + std::to_string(discovery) + " " +
           std::to_string(buffer == sentinel);
  });
  if (result == "skip") GTEST_SKIP() << "cannot raise the descriptor limit";
  EXPECT_TRUE(result == std::to_string(fail(TOV_SOCK_CONNECT)) + " 0 1" ||
              result == std::to_string(fail(TOV_SOCK_SELECT)) + " 0 1")
      << "[" << result << "]";
}

}  // namespace

// How many trace lines each operation writes at each debug level: a trace
// gated at the wrong level changes a count.
TEST_F(NetTest, TracesFollowTheDebugLevel) {
  LoopbackServer server(std::vector<Script>(12, replying("Ba done\n"s + '\0')));
  int version = 0;
  char* ip = nullptr;
  const std::vector<std::pair<const char*, std::function<void()>>> ops{
      {"family v4", [&] { net.validateAddressFamily("10.1.2.3", &version); }},
      {"family v6 null", [&] { net.validateAddressFamily("::1", nullptr); }},
      {"family bad", [&] { net.validateAddressFamily("x", &version); }},
      {"host", [&] { net.validateHost("127.0.0.1", &ip), std::free(ip); }},
      {"host null", [&] { net.validateHost("localhost", nullptr); }},
      {"exchange", [&] { exchange(server.portStr(), "B 1"), release(); }},
      {"command", [&] { command(server, "B"), release(); }},
  };
  std::string counts;
  for (const auto& [name, op] : ops) {
    counts += std::string(name) + ":";
    for (int level = 0; level <= 3; ++level) {
      rec().level = level;
      rec().writes.clear();
      op();
      // The connect step's "in progress" line is written at every level.
      counts +=
          " " + std::to_string(std::count_if(
                    rec().writes.begin(), rec().writes.end(),
                    [](const std::string& w) {
                      return w.find("connect() reported") == std::string::npos;
                    }));
    }
    counts += "\n";
  }
  EXPECT_EQ(counts,
            "family v4: 0 4 4 7\n"
            "family v6 null: 0 4 4 7\n"
            "family bad: 0 1 1 3\n"
            "host: 0 0 1 5\n"
            "host null: 0 0 0 3\n"
            "exchange: 0 0 14 32\n"
            "command: 0 2 23 44\n");
}
