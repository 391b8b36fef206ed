// A daemon address that never answers: the exchange gives up within the
// client's timeout. The address lives in a namespace of the test's own,
// routed to a veth whose peer is down, so no packet leaves it.
#include <gtest/gtest.h>

#include <chrono>
#include <iostream>

#include "netns_lab.h"
#include "tovapi/libtovapi.h"

namespace {

using namespace tov1;

TEST(Blackhole, ExchangeGivesUpWithinTheTimeout) {
  const netnstest::Outcome outcome = netnstest::runIsolated(
      {"link add tvb0 type veth peer name tvb1",
       "addr add 198.18.0.1/24 dev tvb0", "link set tvb0 up"},
      [] {
        tovNet.setTimeout(0.5f);
        char* buffer = nullptr;
        const auto start = std::chrono::steady_clock::now();
        const int rc =
            tovNet.tovcomms(buffer, "198.18.0.2", "1195", "V 0", {}, "");
        const double seconds = std::chrono::duration<double>(
                                   std::chrono::steady_clock::now() - start)
                                   .count();
        std::cout << rc << " " << tovDebug.getError() << " " << seconds;
        return 0;
      });
  if (outcome.status == 77)
    GTEST_SKIP() << "cannot create a network namespace here (needs root)";
  ASSERT_EQ(outcome.status, 0);
  std::istringstream in(outcome.output);
  int rc = 0, lastError = 0;
  double seconds = 0;
  in >> rc >> lastError >> seconds;
  // The connect step times out; the exchange reports it as a connect failure.
  EXPECT_EQ(rc, -static_cast<int>(TOV_SOCK_CONNECT));
  EXPECT_EQ(lastError, static_cast<int>(TOV_SOCK_CONNECT));
  EXPECT_GE(seconds, 0.45);
  EXPECT_LT(seconds, 1.5);
}

// With no route at all the connect fails at once, and discovery cannot
// even send its probe (its socket is then left open, as callers expect).
TEST(Blackhole, NoRouteFailsAtOnce) {
  const netnstest::Outcome outcome = netnstest::runIsolated({}, [] {
    char* buffer = nullptr;
    const int exchange =
        tovNet.tovcomms(buffer, "198.18.0.2", "1195", "V 0", {}, "");
    std::cout.setstate(std::ios::failbit);
    const int discovery = tovNet.discoverClusters("198.18.0.2", 0, true);
    std::cout.clear();
    std::cout << exchange << " " << discovery;
    return 0;
  });
  if (outcome.status == 77)
    GTEST_SKIP() << "cannot create a network namespace here (needs root)";
  ASSERT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.output,
            std::to_string(-static_cast<int>(TOV_SOCK_CONNECT)) + " " +
                std::to_string(TOV_SOCK_SEND));
}

}  // namespace
