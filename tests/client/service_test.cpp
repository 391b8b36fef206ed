// Service commands: composition of the request line from the letters, the
// checks before anything is sent, and dispatch with busy retry.
#include <stdexcept>

#include "client_fixture.h"
#include "support/loopback_server.h"
#include "support/net_helpers.h"

namespace {

using clienttest::ClientTest;
using clienttest::fail;
using looptest::LoopbackServer;
using looptest::Script;
using namespace std::string_literals;
using namespace tov1;

Script replying(const std::string& reply) {
  Script s;
  s.reply = reply;
  return s;
}

class ServiceTest : public ClientTest {
 protected:
  int command(LoopbackServer& server, const std::string& letters,
              unsigned serviceNum = 1, const std::string& suffix = "",
              unsigned attempts = 3) {
    return net.serviceCommand("127.0.0.1", server.portStr(), letters, {},
                              serviceNum, attempts, suffix);
  }
  // The request line as the daemon received it, without LF and NUL.
  static std::string line(const std::string& frame) {
    return frame.substr(0, frame.find('\n'));
  }
};

TEST_F(ServiceTest, EveryLetterComposesItsRequestLine) {
  const struct {
    std::string letters;
    std::string suffix;
    std::string line;
  } cases[] = {
      {"B", "", "B 1"},       {"C", "", "C 1"},    {"D", "", "D 1"},
      {"E", "", "E 1"},       {"F", "", "F 1"},    {"G", "", "G 1"},
      {"H", "", "H 1"},       {"I", "", "I 1"},    {"K", "", "K 1"},
      {"L", "", "L "},        {"M", "", "M 1"},    {"N", "", "N 1"},
      {"O", "", "O 1"},       {"R", "", "R 1"},    {"U", "", "U 1"},
      {"V", "", "V 1"},       {"W", "", "W 1"},    {"X", "", "X 1"},
      {"Y", "", "Y 1"},       {"Z", "", "Z 1"},    {"[", "", "[ 1"},
      {"J\0"s, "", "J"},      {"JA", "", "JA"},    {"@AQ", "", "@AQ 1"},
      {"Bxyz", "", "B 1"},  // letters after the first are ignored
      {"L", "now", "L  now"}, {"JA", "x", "JA x"}, {"B", "a b", "B 1 a b"},
      {"@A", "", "CCN"},  // empty command string: the exchange sends CCN
      {"@AX", "s", " s"},
  };
  LoopbackServer server({replying("?a ok")});
  for (const auto& c : cases) {
    ASSERT_EQ(command(server, c.letters, 1, c.suffix), 0) << c.letters;
    EXPECT_EQ(line(server.frames().back()), c.line) << c.letters;
  }
  EXPECT_EQ(server.frames().size(), std::size(cases));
}

TEST_F(ServiceTest, DescriptionsAndInputLogAtLevelThree) {
  LoopbackServer server({replying("Wa ok")});
  rec().level = 3;
  ASSERT_EQ(command(server, "W", 0, "", 1), 0);
  EXPECT_TRUE(
      rec().wrote("TOVNet::serviceCommand(): Block - enable starting "
                  "a service\n"));
  EXPECT_TRUE(rec().wrote(
      "TOVNet::serviceCommand(): SERVICE COMMAND INPUT\n\tFull Command: W\n"
      "\tCMD: W\n\tSUB CMD:  \n\tEXT CMD:  \n"));
  EXPECT_TRUE(rec().wrote("TOVNet::serviceCommand(): authvec  = \n"));
  EXPECT_TRUE(rec().wrote("TOVNet::serviceCommand(): serviceNum  = 0\n"));
  EXPECT_TRUE(
      rec().wrote("TOVNet::serviceCommand(): TOV Command to be sent: "
                  "W 0\n"));
  EXPECT_TRUE(
      rec().wrote("TOVNet::serviceCommand()***** Start of temp "
                  "buffer *****\nWa ok\n***** End of Temp Buffer "
                  "*****\n"));
}

TEST_F(ServiceTest, RejectedLettersSendNothing) {
  const struct {
    std::string letters;
    int rc;
    std::string message;
  } cases[] = {
      {"J", fail(TOV_UNKNOWN_SUBCMD), "Unrecognised secondary command passed"},
      {"JB", fail(TOV_UNKNOWN_SUBCMD), "Unrecognised secondary command passed"},
      {"@", fail(TOV_UNKNOWN_SUBCMD),
       "Unrecognised Extended Command passed:  "},
      {"@\0"s, fail(TOV_EMPTY_SUBCMD),
       "Nothing passed to extended request packet"},
      {"@A\0"s, fail(TOV_UNKNOWN_EXTCMD),
       "Unrecognised request passed to extended service command: \0"s},
      {"A", fail(TOV_UNKNOWN_SVCCMD), "Unrecognised Input Error"},
      {"P", fail(TOV_UNKNOWN_SVCCMD), "Unrecognised Input Error"},
      {"Q", fail(TOV_UNKNOWN_SVCCMD), "Unrecognised Input Error"},
      {"S", fail(TOV_UNKNOWN_SVCCMD), "Unrecognised Input Error"},
      {"T", fail(TOV_UNKNOWN_SVCCMD), "Unrecognised Input Error"},
      {"a", fail(TOV_UNKNOWN_SVCCMD), "Unrecognised Input Error"},
      {"\\", fail(TOV_UNKNOWN_SVCCMD), "Unrecognised Input Error"},
  };
  LoopbackServer server({replying("?a")});
  for (const auto& c : cases) {
    doubles::reset();
    EXPECT_EQ(command(server, c.letters), c.rc);
    ASSERT_EQ(rec().errors.size(), 1u);
    EXPECT_EQ(rec().errors[0].first, "TOVNet::serviceCommand()");
    EXPECT_EQ(rec().errors[0].second, c.message + "\n");
    EXPECT_EQ(rec().refreshCalls.size(), 1u);  // refreshed before composing
  }
  EXPECT_EQ(server.connections(), 0);
}

TEST_F(ServiceTest, ServiceNumberIsCheckedBeforeAnything) {
  LoopbackServer server({replying("?a")});
  const struct {
    int count;
    unsigned number;
    std::string letters;
  } cases[] = {
      {2, 2, "B"}, {2, 7, "L"}, {-1, 0, "B"}, {-1, 0, "J\0"s}, {0, 0, ""}};
  for (const auto& c : cases) {
    doubles::reset();
    rec().serviceCount = c.count;
    EXPECT_EQ(command(server, c.letters, c.number), fail(TOV_SVC_INVALID));
    EXPECT_TRUE(rec().refreshCalls.empty());
    EXPECT_TRUE(rec().errors.empty());  // reported only above level 1
  }
  rec().level = 2;
  EXPECT_EQ(command(server, "B", 9), fail(TOV_SVC_INVALID));
  EXPECT_EQ(rec().errors.back().second,
            "invalid service number provided [9]\n");
  EXPECT_EQ(rec().calls.front(), "cluster.getServiceCount");
  EXPECT_EQ(server.connections(), 0);
}

TEST_F(ServiceTest, RefreshIsForcedAndItsFailureReturnedUnchanged) {
  LoopbackServer server({replying("Ba ok")});
  rec().refresh = [](const std::string&, const std::string&, bool) {
    return -1;
  };
  EXPECT_EQ(command(server, "B"), -1);
  ASSERT_EQ(rec().refreshCalls.size(), 1u);
  EXPECT_EQ(rec().refreshCalls[0].address, "127.0.0.1");
  EXPECT_EQ(rec().refreshCalls[0].port, server.portStr());
  EXPECT_TRUE(rec().refreshCalls[0].force);
  EXPECT_TRUE(rec().setErrors.empty());
  EXPECT_EQ(server.connections(), 0);

  // A positive refresh result is not a failure.
  rec().refresh = [](const std::string&, const std::string&, bool) {
    return 5;
  };
  EXPECT_EQ(command(server, "B"), 0);
}

TEST_F(ServiceTest, EmptyCommandIsASuccessfulNoOp) {
  LoopbackServer server({replying("?a")});
  rec().level = 1;
  EXPECT_EQ(command(server, ""), 0);
  EXPECT_TRUE(
      rec().wrote("TOVNet::serviceCommand(): forcing a cache refresh\n"));
  EXPECT_FALSE(rec().wrote("TOV Command to be sent"));
  EXPECT_EQ(server.connections(), 0);
}

TEST_F(ServiceTest, BusyDaemonIsRetriedAfterThePollTime) {
  rec().level = 2;
  LoopbackServer server({replying("Bk busy"), replying("Ba ok")});
  EXPECT_EQ(command(server, "B", 0, "", 3), 0);
  EXPECT_EQ(server.frames().size(), 2u);
  EXPECT_EQ(rec().pollTimeCalls, std::vector<std::string>{"127.0.0.1"});
  EXPECT_TRUE(
      rec().wrote("TOVNet::serviceCommand(): TOV is busy - Retrying "
                  "in 0 second(s)\n"));
  EXPECT_EQ(rec().statusCalls, std::vector<std::string>{"Ba ok"});
}

TEST_F(ServiceTest, BusyOnEveryAttemptEndsWithNoReply) {
  LoopbackServer server({replying("Bk busy")});
  EXPECT_EQ(command(server, "B", 0, "", 2), fail(TOV_COMMS_NORESPONSE));
  EXPECT_EQ(server.frames().size(), 2u);
  EXPECT_EQ(rec().pollTimeCalls.size(), 2u);  // also after the last send
  EXPECT_EQ(rec().statusCalls, std::vector<std::string>{"<null>"});
  EXPECT_FALSE(rec().wrote("Reached maximum"));
}

TEST_F(ServiceTest, ZeroAttemptsSendNothing) {
  LoopbackServer server({replying("Ba")});
  rec().level = 3;
  EXPECT_EQ(command(server, "B", 0, "", 0), fail(TOV_COMMS_NORESPONSE));
  EXPECT_EQ(server.connections(), 0);
  EXPECT_TRUE(rec().pollTimeCalls.empty());
  EXPECT_EQ(rec().writes.back(),
            "TOVNet::serviceCommand()***** Start of temp buffer *****\n");
}

TEST_F(ServiceTest, ReplyLetterDecidesNotTheFirstCharacter) {
  LoopbackServer server({replying("kd failed")});
  EXPECT_EQ(command(server, "B", 0), fail(TOV_COMMS_FAIL));
  EXPECT_EQ(server.frames().size(), 1u);
}

TEST_F(ServiceTest, ExchangeFailureIsReturnedAtOnce) {
  const std::string port = std::to_string(testsupport::closedPort());
  EXPECT_EQ(net.serviceCommand("127.0.0.1", port, "B", {}, 0, 5, ""),
            fail(TOV_SOCK_CONNECT));
  EXPECT_TRUE(rec().pollTimeCalls.empty());
  EXPECT_TRUE(rec().statusCalls.empty());
}

TEST_F(ServiceTest, LogCommandIsEchoedOnlyOnSuccess) {
  LoopbackServer server({replying("Ya logged"), replying("Yd refused")});
  {
    clienttest::Capture out(std::cout);
    EXPECT_EQ(command(server, "Y", 0, "hello there"), 0);
    EXPECT_EQ(out.text(), "Y 0 hello there\n");
  }
  {
    clienttest::Capture out(std::cout);
    EXPECT_EQ(command(server, "Y", 0, "again"), fail(TOV_COMMS_FAIL));
    EXPECT_EQ(out.text(), "");
  }
  clienttest::Capture out(std::cout);
  EXPECT_EQ(command(server, "B", 0), fail(TOV_COMMS_FAIL));
  EXPECT_EQ(out.text(), "");
}

TEST_F(ServiceTest, StandardExceptionsBecomeAResultCode) {
  LoopbackServer server({replying("Ba")});
  rec().refresh = [](const std::string&, const std::string&, bool) -> int {
    throw std::runtime_error("cache exploded");
  };
  EXPECT_EQ(command(server, "B"), fail(TOV_EXCEPT_SVCCMD));
  EXPECT_EQ(rec().errors.back().second, "EXCEPTION - cache exploded\n");

  // Anything else passes through.
  rec().refresh = [](const std::string&, const std::string&, bool) -> int {
    throw 7;
  };
  EXPECT_THROW(command(server, "B"), int);
}

}  // namespace
