// The request exchange against scripted loopback daemons: frames on the
// wire, salts, reply collection and every failure with its code.
#include <fcntl.h>

#include <csignal>
#include <cstring>
#include <thread>

#include "client_fixture.h"
#include "support/loopback_server.h"
#include "support/net_helpers.h"
#include "support/private_access.h"

namespace {

using clienttest::ClientTest;
using clienttest::fail;
using looptest::LoopbackServer;
using looptest::Script;
using namespace tov1;

class ExchangeTest : public ClientTest {
 protected:
  // Runs one exchange; `buffer` keeps whatever the exchange left in it.
  int exchange(LoopbackServer& server, const std::string& command,
               std::vector<std::string> authvec = {},
               const std::string& data = "") {
    return net.tovcomms(buffer, "127.0.0.1", server.portStr(), command,
                        std::move(authvec), data);
  }
  void TearDown() override {
    if (buffer != sentinel) delete[] buffer;
  }
  std::string lastErrorText() const {
    return doubles::rec().errors.empty() ? ""
                                         : doubles::rec().errors.back().second;
  }
  char sentinel[4] = "old";
  char* buffer = sentinel;
};

Script replying(const std::string& reply) {
  Script s;
  s.reply = reply;
  return s;
}

TEST_F(ExchangeTest, FramesOnTheWire) {
  using namespace std::string_literals;
  const struct {
    std::string command;
    std::vector<std::string> authvec;
    std::string data;
    std::string frame;
  } cases[] = {
      {"B 1", {}, "", "B 1\n\0"s},
      {"", {}, "", "CCN\n\0"s},         // empty means CCN
      {"B1\n", {}, "", "B1\n\0"s},      // trailing LF removed
      {"\nX", {}, "", "\nX\n\0"s},      // LF at 0 stays
      {"a\n\nb", {}, "", "a\nb\n\0"s},  // one of two removed
      {"B 0", {"user", "digest"}, "", "B 0\nuser 00ff\n\0"s},
      {"Y 0 hi", {}, "payload", "Y 0 hi\npayload\0"s},
      {"B 0", {}, "ab\0cd"s, "B 0\nab\0\0\0\0"s},  // NUL cuts, length stays
  };
  for (const auto& c : cases) {
    LoopbackServer server({replying("Ba done\n"s + '\0')});
    ASSERT_EQ(exchange(server, c.command, c.authvec, c.data), 0);
    ASSERT_EQ(server.frames().size(), 1u);
    EXPECT_EQ(server.frames()[0], c.frame) << "command " << c.command;
    EXPECT_STREQ(buffer, "Ba done\n");
    delete[] buffer;
    buffer = sentinel;
  }
}

TEST_F(ExchangeTest, AuthenticationUsesTheSaltAndTheCleanedCommand) {
  using namespace std::string_literals;
  Script shortSalt = replying("Ja ok");
  shortSalt.salt = "abcde";  // five bytes only
  LoopbackServer server({shortSalt});
  ASSERT_EQ(exchange(server, "J\n", {"admin", "cafe"}), 0);
  ASSERT_EQ(rec().getBinCalls.size(), 1u);
  EXPECT_EQ(rec().getBinCalls[0], "abcde\0\0\0"s);
  ASSERT_EQ(rec().authlineCalls.size(), 1u);
  EXPECT_EQ(rec().authlineCalls[0].authvec,
            (std::vector<std::string>{"admin", "cafe"}));
  EXPECT_EQ(rec().authlineCalls[0].binsalt, "BIN(abcde\0\0\0)"s);
  EXPECT_EQ(rec().authlineCalls[0].command, "J");
}

TEST_F(ExchangeTest, AuthenticationVectorsOfWrongSizeAreRejectedFirst) {
  LoopbackServer server({replying("x")});
  EXPECT_EQ(exchange(server, "B 0", {"user"}), fail(TOV_AUTH_DIGEST));
  EXPECT_EQ(lastErrorText(), "authentication vector with no digest detected\n");
  EXPECT_EQ(exchange(server, "B 0", {"a", "b", "c"}), fail(TOV_AUTH_INVALID));
  EXPECT_EQ(lastErrorText(), "invalid authentication vector detected\n");
  EXPECT_EQ(rec().errors.back().first, "TOVNet::tovcomms()");
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(server.connections(), 0);
  EXPECT_EQ(buffer, sentinel);
}

TEST_F(ExchangeTest, ReplyCollection) {
  using namespace std::string_literals;
  const std::string big = "Bn " + std::string(19997, 'x');  // 20000 bytes
  Script fragmented = replying(big + '\0');
  fragmented.chunk = 3000;
  fragmented.chunkPauseMs = 5;
  Script nulInside = replying("Ba kept\0dropped"s);
  Script empty;
  const struct {
    Script script;
    std::string expected;
  } cases[] = {{replying(big), big},
               {fragmented, big},
               {nulInside, "Ba kept"},
               {replying("Ba ok\n"s + '\0'), "Ba ok\n"},
               {empty, ""}};
  for (const auto& c : cases) {
    LoopbackServer server({c.script});
    ASSERT_EQ(exchange(server, "B 0"), 0);
    ASSERT_NE(buffer, sentinel);
    EXPECT_EQ(std::string(buffer), c.expected);
    EXPECT_EQ(buffer[c.expected.size()], '\0');
    delete[] buffer;
    buffer = sentinel;
  }
}

TEST_F(ExchangeTest, NewlineRemovalAndAuthenticationAreTraced) {
  rec().level = 3;
  LoopbackServer server({replying("Ba ok")});
  ASSERT_EQ(exchange(server, "B\n0", {"admin", "d1"}), 0);
  EXPECT_TRUE(rec().wrote("TOVNet::tovcomms(): erasing newline found at: 1\n"));
  EXPECT_TRUE(rec().wrote("TOVNet::tovcomms(): authvec  = admin, d1\n"));
  EXPECT_TRUE(rec().wrote("TOVNet::tovcomms(): saltStr = 0a1b2c3d\n"));
  EXPECT_TRUE(
      rec().wrote("TOVNet::tovcomms(): output content [Length = 12] "
                  "= B0\nuser 00ff\n"));
  EXPECT_TRUE(rec().wrote("TOVNet::tovcomms(): salt value = 0a1b2c3d\n"));
}

TEST_F(ExchangeTest, ResetInsteadOfASalt) {
  Script reset;
  reset.salt = "";
  reset.readFrame = false;
  reset.resetAfterReply = true;
  reset.closeDelayMs = 100;  // after the client is waiting for the salt
  LoopbackServer server({reset});
  EXPECT_EQ(exchange(server, "B 0"), fail(TOV_COMMS_SALT));
  EXPECT_EQ(lastErrorText().rfind("failed to receive salt from host: ", 0), 0u)
      << lastErrorText();
  EXPECT_EQ(buffer, sentinel);
}

TEST_F(ExchangeTest, FullFragmentsAreTracedAtLevelThree) {
  rec().level = 3;
  LoopbackServer server({replying(std::string(20000, 'y'))});
  ASSERT_EQ(exchange(server, "B 0"), 0);
  EXPECT_EQ(std::strlen(buffer), 20000u);
  int full = 0;
  for (const auto& w : rec().writes)
    full += w == "TOVNet::tovcomms(): removing excess tail from response\n";
  EXPECT_GE(full, 1);
  EXPECT_LE(full, 2);
  EXPECT_TRUE(
      rec().wrote("TOVNet::tovcomms(): Server closed the socket connection\n"));
  EXPECT_TRUE(rec().wrote("TOVNet::tovcomms(): sent 5 bytes\n"));
}

TEST_F(ExchangeTest, FailuresLeaveTheBufferAlone) {
  Script noSalt;
  noSalt.closeBeforeSalt = true;
  Script lateSalt;
  lateSalt.saltDelayMs = 1500;
  Script reset = replying(std::string(50000, 'z'));
  reset.chunk = 10000;
  reset.chunkPauseMs = 20;
  reset.resetAfterReply = true;

  net.setTimeout(0.3f);
  const struct {
    Script script;
    int code;
    std::string message;  // start of the error text
  } cases[] = {
      {noSalt, fail(TOV_COMMS_SALT), "host didn't return a salt: 127.0.0.1:"},
      {lateSalt, fail(TOV_SOCK_TIMEOUT),
       "network timed out connecting to 127.0.0.1:"},
      {reset, fail(TOV_SOCK_RECV), "recv() command reported an error ["}};
  for (const auto& c : cases) {
    doubles::reset();
    LoopbackServer server({c.script});
    EXPECT_EQ(exchange(server, "B 0"), c.code);
    EXPECT_EQ(lastErrorText().rfind(c.message, 0), 0u) << lastErrorText();
    EXPECT_EQ(buffer, sentinel);
  }
}

TEST_F(ExchangeTest, RefusedAndUnresolvable) {
  const std::string port = std::to_string(testsupport::closedPort());
  EXPECT_EQ(net.tovcomms(buffer, "127.0.0.1", port, "B 0", {}, ""),
            fail(TOV_SOCK_CONNECT));
  EXPECT_EQ(lastErrorText().rfind("cannot connect to server 127.0.0.1: ", 0),
            0u);
  EXPECT_EQ(
      net.tovcomms(buffer, testsupport::kUnresolvable, "1195", "B 0", {}, ""),
      fail(TOV_SOCK_RESOLVE_HOST));
  EXPECT_EQ(lastErrorText(), "failed to get address info for bad..host:1195\n");
  EXPECT_EQ(buffer, sentinel);
}

TEST_F(ExchangeTest, ZeroTimeoutSkipsTheSaltWait) {
  Script slowSalt = replying("Ba");
  slowSalt.saltDelayMs = 300;
  LoopbackServer server({slowSalt});
  net.setTimeout(0.0f);
  EXPECT_EQ(exchange(server, "B 0"), 0);
  EXPECT_STREQ(buffer, "Ba");
}

TEST_F(ExchangeTest, ResetBeforeTheRequestIsASendFailureNotADeadProcess) {
  Script resetAfterSalt;
  resetAfterSalt.readFrame = false;
  resetAfterSalt.resetAfterReply = true;
  resetAfterSalt.closeDelayMs = 100;  // after the client has connected
  LoopbackServer server({resetAfterSalt});
  // Give the reset time to arrive before the frame goes out.
  rec().duringAuthline = [] {
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
  };
  const int rc = exchange(server, "B 0", {"u", "d"});
  EXPECT_TRUE(rc == fail(TOV_SOCK_SEND) || rc == fail(TOV_SOCK_RECV)) << rc;
  sigset_t pending;
  sigpending(&pending);
  EXPECT_FALSE(sigismember(&pending, SIGPIPE));
  EXPECT_EQ(buffer, sentinel);
}

TEST_F(ExchangeTest, TracesFollowTheLevel) {
  LoopbackServer server({replying("Ba ok")});
  ASSERT_EQ(exchange(server, "B 0"), 0);
  // At level 0 only the connect step's own two lines may appear.
  for (const auto& w : rec().writes)
    EXPECT_EQ(w.rfind("TOVNet::connectTimeout(): connect() re", 0), 0u) << w;

  doubles::reset();
  rec().level = 2;
  delete[] buffer;
  buffer = sentinel;
  ASSERT_EQ(exchange(server, "B 0"), 0);
  EXPECT_EQ(rec().writes.at(0), "TOVNet::tovcomms(): called\n");
  EXPECT_EQ(rec().writes.at(1), "TOVNet::tovcomms(): address  = 127.0.0.1\n");
  EXPECT_EQ(rec().writes.at(3), "TOVNet::tovcomms(): command  = B 0\n");
  EXPECT_TRUE(
      rec().wrote("TOVNet::tovcomms(): setting socket timeout of 3 "
                  "second(s) and 0 micro-second(s)\n"));
  EXPECT_TRUE(rec().wrote("TOVNet::tovcomms(): auth object NOT provided\n"));
  EXPECT_TRUE(rec().wrote("TOVNet::tovcomms(): TOV response message: Ba ok\n"));
  EXPECT_FALSE(rec().wrote("authvec  ="));
}

TEST_F(ExchangeTest, EmptyAddressAndPortMeanTheLocalDaemon) {
  std::unique_ptr<LoopbackServer> server;
  try {
    server = std::make_unique<LoopbackServer>(
        std::vector<Script>{replying("Cn info")}, "127.0.0.1", 1195);
  } catch (const std::exception& e) {
    GTEST_SKIP() << "port 1195 is taken on this machine: " << e.what();
  }
  rec().level = 2;
  EXPECT_EQ(net.tovcomms(buffer, "", "", "", {}, ""), 0);
  EXPECT_EQ(server->frames().at(0), std::string("CCN\n", 5));
  EXPECT_TRUE(rec().wrote("TOVNet::tovcomms(): address  = \n"));
  EXPECT_TRUE(rec().wrote("TOVNet::tovcomms(): port     = \n"));
}

TEST_F(ExchangeTest, ConnectTimeoutOutcomes) {
  rec().level = 3;
  LoopbackServer server({replying("")});
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(server.port()));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(privileged::connectTimeout(
                net, fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr, 1, 0),
            0);
  EXPECT_EQ(fcntl(fd, F_GETFL, 0) & O_NONBLOCK, 0);  // blocking again
  close(fd);
  EXPECT_TRUE(rec().wrote("TOVNet::connectTimeout(): called\n"));

  // Refused: at once (69) or after the wait (71), and the socket stays
  // non-blocking.
  addr.sin_port = htons(static_cast<uint16_t>(testsupport::closedPort()));
  fd = socket(AF_INET, SOCK_STREAM, 0);
  const int rc = privileged::connectTimeout(
      net, fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr, 1, 0);
  EXPECT_TRUE(rc == fail(TOV_SOCK_CONNECT) || rc == fail(TOV_SOCK_GETOPTS))
      << rc;
  EXPECT_NE(fcntl(fd, F_GETFL, 0) & O_NONBLOCK, 0);
  close(fd);
}

}  // namespace
