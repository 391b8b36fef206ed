// The quiet probe and loopback discovery against real simulated nodes.
#include <iostream>

#include "sim_fixture.h"
#include "support/net_helpers.h"
#include "support/stream_capture.h"

namespace {

using integration::SimTest;
using namespace tov1;

using Capture = testsupport::StreamCapture;

TEST_F(SimTest, ProbeOfLiveAndDeadNodesIsQuiet) {
  start();
  tovNet.setTimeout(4.25f);
  Debug::useColour = true;
  {
    Capture err(std::cerr);
    EXPECT_EQ(tovNet.testNode(host, port), 0);
    const std::string dead = std::to_string(testsupport::closedPort());
    EXPECT_LT(tovNet.testNode(host, dead), 0);
    EXPECT_EQ(err.text(), "");
  }
  EXPECT_TRUE(Debug::useColour);
  Debug::useColour = false;
}

TEST_F(SimTest, DiscoveryOfATwoNodeClusterOnLoopback) {
  simtest::SimOptions options;
  options.configJson = simtest::defaultConfigJson();
  options.listen = {"127.0.4.1", "127.0.4.2"};
  options.udpPort = 1195;
  options.maxLifetimeSec = 30;
  std::unique_ptr<simtest::SimProcess> nodes;
  try {
    nodes = std::make_unique<simtest::SimProcess>(options);
  } catch (const std::exception& e) {
    GTEST_SKIP() << "UDP port 1195 on 127.0.4.x is taken: " << e.what();
  }
  for (const char* target : {"127.0.4.1", "127.0.4.2"}) {
    Capture out(std::cout);
    EXPECT_EQ(tovNet.discoverClusters(target, tov_discover_all, false), 0);
    const std::string text = out.text();
    EXPECT_EQ(text.rfind("Searching for Clusters... Done\n\nC testcluster ", 0),
              0u)
        << text;
    EXPECT_NE(text.find("\nN node1 127.0.0.1 4\n"), std::string::npos);
    EXPECT_NE(text.find(" Found 1 cluster(s)\n"), std::string::npos);
  }
}

}  // namespace
