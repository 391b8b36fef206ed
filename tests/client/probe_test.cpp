// The quiet node probe: what it changes for its duration, what it restores,
// and that the refresh's complaints never reach the terminal.
#include "client_fixture.h"
#include "support/private_access.h"

namespace {

using clienttest::ClientTest;
using namespace tov1;

TEST_F(ClientTest, ProbeRunsQuietlyWithTwoSecondsAndRestoresEverything) {
  privileged::timeoutSec(net) = 7;
  privileged::timeoutUsec(net) = 123457;  // not reproducible by setTimeout
  Debug::useColour = true;
  int secDuring = 0, usecDuring = 0;
  bool colourDuring = true;
  rec().refresh = [&](const std::string&, const std::string&, bool) {
    secDuring = privileged::timeoutSec(net);
    usecDuring = privileged::timeoutUsec(net);
    colourDuring = Debug::useColour;
    std::cerr << "refresh complaint\n";
    return -74;
  };
  clienttest::Capture err(std::cerr);
  EXPECT_EQ(net.testNode("10.0.0.1", "1195"), -74);
  EXPECT_EQ(secDuring, 2);
  EXPECT_EQ(usecDuring, 0);
  EXPECT_FALSE(colourDuring);
  EXPECT_EQ(privileged::timeoutSec(net), 7);
  EXPECT_EQ(privileged::timeoutUsec(net), 123457);
  EXPECT_TRUE(Debug::useColour);
  EXPECT_EQ(err.text(), "");  // captured, reported once, discarded
  ASSERT_EQ(rec().errors.size(), 1u);
  EXPECT_EQ(rec().errors[0].first, "TOVNet::test_node()");
  EXPECT_EQ(rec().errors[0].second, "refresh complaint\n\n");
  ASSERT_EQ(rec().refreshCalls.size(), 1u);
  EXPECT_FALSE(rec().refreshCalls[0].force);
  EXPECT_EQ(rec().refreshCalls[0].address, "10.0.0.1");
}

TEST_F(ClientTest, ProbeOfAnAnsweringNodeSaysNothing) {
  Debug::useColour = false;
  bool colourDuring = true;
  rec().refresh = [&](const std::string&, const std::string&, bool) {
    colourDuring = Debug::useColour;
    return 0;
  };
  clienttest::Capture err(std::cerr);
  EXPECT_EQ(net.testNode("127.0.0.1", "1195"), 0);
  EXPECT_FALSE(colourDuring);
  EXPECT_FALSE(Debug::useColour);  // not switched on
  EXPECT_TRUE(rec().errors.empty());
  EXPECT_TRUE(rec().writes.empty());  // level 0: nothing of its own
  EXPECT_EQ(err.text(), "");
}

TEST_F(ClientTest, ProbeTracesAtLevelTwo) {
  rec().level = 2;
  EXPECT_EQ(net.testNode("n", "p"), 0);
  const std::vector<std::string> expected = {
      "TOVNet::test_node(): called [address=n, port=p]\n",
      "TOVNet::test_node(): set temporary timeout of 2 second(s) and 0 "
      "micro-second(s)\n",
      "TOVNet::test_node(): calling tovcomms to test the node\n",
      "TOVNet::test_node(): restored timeout of 3 second(s) and 0 "
      "micro-second(s)\n",
      "TOVNet::test_node(): returning [0]\n"};
  EXPECT_EQ(rec().writes, expected);
}

}  // namespace
