// Service control end to end through the real collaborators: each command
// changes the simulated service, and the information reply shows it.
#include <iostream>

#include "sim_fixture.h"

namespace {

using integration::fail;
using integration::SimTest;
using namespace tov1;

TEST_F(SimTest, BounceStopStartBlockRepairCycle) {
  start();
  ASSERT_EQ(tovCache.refreshCache(host, port, false), 0);  // learn the port
  const auto auth = admin();

  EXPECT_EQ(command("B", 0, auth), 0);
  EXPECT_EQ(state(0), "running");

  EXPECT_EQ(command("G", 0, auth), 0);  // stop: manual and stopped
  EXPECT_EQ(state(0), "stopped");
  EXPECT_EQ(mode(0), "manual");
  EXPECT_EQ(command("G", 0, auth), fail(TOV_COMMS_ALREADY));

  EXPECT_EQ(command("I", 0, auth), 0);  // automatic starts it again
  EXPECT_EQ(state(0), "running");
  EXPECT_EQ(mode(0), "auto");

  EXPECT_EQ(command("H", 0, auth), 0);
  EXPECT_EQ(mode(0), "manual");
  EXPECT_EQ(state(0), "running");

  EXPECT_EQ(command("W", 1, auth), 0);
  EXPECT_EQ(blocked(1), "1");
  EXPECT_EQ(command("X", 1, auth), 0);
  EXPECT_EQ(blocked(1), "0");

  EXPECT_EQ(command("U", 0, auth), fail(TOV_COMMS_NOT_BROKEN));
  EXPECT_EQ(command("B", 2, auth), fail(TOV_SVC_INVALID));  // two services
}

TEST_F(SimTest, BusyDaemonIsRetried) {
  start({"--busy", "1"});
  ASSERT_EQ(tovCache.refreshCache(host, port, false), 0);
  EXPECT_EQ(command("G", 0, admin()), 0);
  EXPECT_EQ(state(0), "stopped");
}

TEST_F(SimTest, DaemonBusyOnEveryAttempt) {
  std::string config = simtest::defaultConfigJson();
  config.replace(config.find("\"poll_time\": 1"), 14, "\"poll_time\": 0");
  start({"--busy", "100"}, config);
  ASSERT_EQ(tovCache.refreshCache(host, port, false), 0);
  EXPECT_EQ(command("G", 0, admin(), 2), fail(TOV_COMMS_NORESPONSE));
  EXPECT_EQ(state(0), "running");
}

TEST_F(SimTest, LogEntryIsEchoed) {
  start();
  ASSERT_EQ(tovCache.refreshCache(host, port, false), 0);
  std::stringstream out;
  std::streambuf* old = std::cout.rdbuf(out.rdbuf());
  const int rc = command("Y", 0, admin(), 3, "maintenance window");
  std::cout.rdbuf(old);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(out.str(), "Y 0 maintenance window\n");
}

}  // namespace
