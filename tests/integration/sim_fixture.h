// A simulator per test and helpers to read a service's state back through
// the information reply, as any program using the library would.
#ifndef TESTS_INTEGRATION_SIM_FIXTURE_H
#define TESTS_INTEGRATION_SIM_FIXTURE_H

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/sim.h"
#include "tovapi/libtovapi.h"

namespace integration {

class SimTest : public testing::Test {
 protected:
  void start(std::vector<std::string> extraArgs = {},
             std::string config = simtest::defaultConfigJson()) {
    simtest::SimOptions options;
    options.configJson = std::move(config);
    options.extraArgs = std::move(extraArgs);
    options.maxLifetimeSec = 60;
    sim = std::make_unique<simtest::SimProcess>(options);
    port = sim->portStr();
    tov1::tovDebug.setDebugLevel(0);
    tov1::tovNet.setTimeout(3.0f);
    tov1::tovCache.clearCache();
  }

  // Field of service `index` in a freshly fetched information reply:
  // 3 state, 4 mode, 5 blocked.
  std::string serviceField(unsigned index, unsigned field) {
    EXPECT_EQ(tov1::tovCache.refreshCache(host, port, true), 0);
    return tov1::tovCache.tovInfoGetValue(host, tov1::tovInfo_S, index, field);
  }
  std::string state(unsigned index) { return serviceField(index, 3); }
  std::string mode(unsigned index) { return serviceField(index, 4); }
  std::string blocked(unsigned index) { return serviceField(index, 5); }

  // A service command the way a program would send it.
  int command(const std::string& letters, unsigned service,
              const std::vector<std::string>& auth, unsigned attempts = 3,
              const std::string& suffix = "") {
    return tov1::tovNet.serviceCommand(host, port, letters, auth, service,
                                       attempts, suffix);
  }

  std::vector<std::string> admin() {
    return tov1::tovAuth.genObject("admin", "secret", "");
  }

  const std::string host = "127.0.0.1";
  std::string port;
  std::unique_ptr<simtest::SimProcess> sim;
};

constexpr int fail(tov1::tov_error_enum code) {
  return -static_cast<int>(code);
}

}  // namespace integration

#endif  // TESTS_INTEGRATION_SIM_FIXTURE_H
