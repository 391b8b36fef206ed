// The real library against the real simulator: each command shown by the
// information reply, and the quiet probe. (Who may change a service: the
// simulator's own tests and the fault matrix; discovery against the
// simulator: `tovctl discover --raw`.)
#include <gtest/gtest.h>

#include <iostream>
#include <memory>

#include "support/net_helpers.h"
#include "support/sim.h"
#include "support/stream_capture.h"
#include "tovapi/libtovapi.h"

namespace {

using namespace tov1;
using Capture = testsupport::StreamCapture;

constexpr int fail(tov_error_enum code) { return -static_cast<int>(code); }

class AgainstSimulator : public testing::Test {
 protected:
  void start(std::vector<std::string> extraArgs = {}) {
    sim = simtest::startSim(std::move(extraArgs));
    port = sim->portStr();
    tovDebug.setDebugLevel(0);
    tovNet.setTimeout(3.0f);
    tovCache.clearCache();
    // Learns the daemon's port, which service commands look up.
    ASSERT_EQ(tovCache.refreshCache(host, port, false), 0);
  }

  // "state mode blocked" of a service, from a fresh information reply.
  std::string service(unsigned index) {
    EXPECT_EQ(tovCache.refreshCache(host, port, true), 0);
    const auto field = [&](unsigned n) {
      return tovCache.tovInfoGetValue(host, tovInfo_S, index, n);
    };
    return field(3) + " " + field(4) + " " + field(5);
  }

  int command(const std::string& letters, unsigned service,
              const std::vector<std::string>& auth,
              const std::string& suffix = "") {
    return tovNet.serviceCommand(host, port, letters, auth, service, 3, suffix);
  }

  const std::string host = "127.0.0.1";
  std::string port;
  std::unique_ptr<simtest::SimProcess> sim;
  const std::vector<std::string> admin =
      tovAuth.genObject("admin", "secret", "");
};

TEST_F(AgainstSimulator, EachCommandShowsInTheInformationReply) {
  // The first request meets a busy daemon: it must be retried, not decoded.
  start({"--busy", "1"});
  struct Step {
    const char* letters;
    unsigned service;
    int result;
    const char* after;  // "state mode blocked" of the service afterwards
  };
  const Step steps[] = {
      {"B", 0, 0, "running auto 0"},
      {"G", 0, 0, "stopped manual 0"},  // stop: manual and stopped
      {"G", 0, fail(TOV_COMMS_ALREADY), "stopped manual 0"},
      {"I", 0, 0, "running auto 0"},  // automatic starts it again
      {"H", 0, 0, "running manual 0"},
      {"W", 1, 0, "stopped manual 1"},
      {"X", 1, 0, "stopped manual 0"},
      {"U", 0, fail(TOV_COMMS_NOT_BROKEN), "running manual 0"},
      {"B", 2, fail(TOV_SVC_INVALID), ""},  // two services only
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(std::string(step.letters) + std::to_string(step.service));
    EXPECT_EQ(command(step.letters, step.service, admin), step.result);
    if (*step.after != '\0') {
      EXPECT_EQ(service(step.service), step.after);
    }
  }
  // The password check, through serviceCommand (a wrong password: the
  // fault matrix).
  EXPECT_EQ(command(std::string("J\0", 2), 0, admin), 0);
  // A log entry goes to the daemon's log and is echoed here.
  Capture out(std::cout);
  EXPECT_EQ(command("Y", 0, admin, "maintenance window"), 0);
  EXPECT_EQ(out.text(), "Y 0 maintenance window\n");
}

TEST_F(AgainstSimulator, ProbeOfLiveAndDeadNodesIsQuiet) {
  start();
  Debug::useColour = true;
  {
    Capture err(std::cerr);
    EXPECT_EQ(tovNet.testNode(host, port), 0);
    EXPECT_LT(tovNet.testNode(host, std::to_string(testsupport::closedPort())),
              0);
    EXPECT_EQ(err.text(), "");
  }
  EXPECT_TRUE(Debug::useColour);
  Debug::useColour = false;
}

}  // namespace
