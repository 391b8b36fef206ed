// Discovery with its default target, the limited broadcast, for real: the
// client and the answering daemons live in namespaces of the test's own,
// joined by a bridge, so the broadcast never reaches the host's network.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "netns_lab.h"
#include "support/sim.h"
#include "tovapi/libtovapi.h"

namespace {

using namespace tov1;

const char* const kClusterConfig = R"({
  "cluster": {"name": "netcluster", "serial": "12", "poll_time": 1,
              "bootstrap": false, "machine_desc": "namespace node"},
  "nodes": [{"name": "n1", "address": "198.18.1.2", "family": 4},
            {"name": "n2", "address": "198.18.1.3", "family": 4}],
  "services": [{"name": "web", "state": "running", "mode": "auto",
                "blocked": false, "node": "n1"}]
})";

const char* const kBootstrapConfig = R"({
  "cluster": {"name": "fresh", "serial": "-1", "poll_time": 1,
              "bootstrap": true, "machine_desc": "unconfigured"},
  "nodes": [{"name": "b1", "address": "198.18.1.4", "family": 4}],
  "services": []
})";

class BroadcastDiscovery : public testing::Test {
 protected:
  void SetUp() override {
    std::string why;
    if (!lab.available(&why)) GTEST_SKIP() << why;
    hub = lab.add("hub");
    ASSERT_FALSE(hub.empty());
    ASSERT_TRUE(lab.ip(hub, "link add br0 type bridge"));
    ASSERT_TRUE(lab.ip(hub, "link set br0 up"));
    dir = "/tmp/tovnetns-" + std::to_string(getpid());
    ASSERT_EQ(std::system(("mkdir -p " + dir).c_str()), 0);
  }
  void TearDown() override {
    if (!dir.empty()) std::system(("rm -rf " + dir).c_str());
  }

  // A host on the bridge with address 198.18.1.<n>.
  std::string host(const std::string& name, int n) {
    const std::string ns = lab.add(name);
    const std::string hubSide = "h" + std::to_string(n);
    EXPECT_TRUE(lab.ip(
        hub, "link add " + hubSide + " type veth peer name eth0 netns " + ns));
    EXPECT_TRUE(lab.ip(hub, "link set " + hubSide + " master br0 up"));
    EXPECT_TRUE(
        lab.ip(ns, "addr add 198.18.1." + std::to_string(n) + "/24 dev eth0"));
    EXPECT_TRUE(lab.ip(ns, "link set eth0 up"));
    return ns;
  }

  // A daemon listening on every address of its namespace, UDP port 1195.
  void daemon(const std::string& ns, const std::string& name,
              const std::string& config) {
    const std::string configPath = dir + "/" + name + ".json";
    const std::string ready = dir + "/" + name + ".ready";
    std::ofstream(configPath) << config;
    lab.spawn(ns, {simtest::tovsimPath(), "--config", configPath, "--listen",
                   "0.0.0.0", "--port", "1195", "--udp-port", "1195",
                   "--max-lifetime", "60", "--ready-file", ready});
    for (int i = 0; i < 200 && access(ready.c_str(), F_OK) != 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(25));
    ASSERT_EQ(access(ready.c_str(), F_OK), 0) << name << " did not start";
  }

  netnstest::NetnsLab lab;
  std::string hub;
  std::string dir;
};

TEST_F(BroadcastDiscovery, EmptyAddressFindsEveryAnsweringDaemon) {
  const std::string client = host("client", 1);
  ASSERT_TRUE(lab.ip(client, "route add default dev eth0"));
  daemon(host("node1", 2), "node1", kClusterConfig);
  daemon(host("node2", 3), "node2", kClusterConfig);
  daemon(host("boot", 4), "boot", kBootstrapConfig);

  const auto run = [&](int mode) {
    return lab.runIn(
        client, [mode] { return tovNet.discoverClusters("", mode, true); });
  };
  const netnstest::Outcome all = run(tov_discover_all);
  ASSERT_EQ(all.status, 0) << all.output;
  EXPECT_EQ(all.output.rfind("Searching for Clusters... Done\n", 0), 0u);
  // Two nodes of one cluster count once; the bootstrap machine counts too.
  EXPECT_NE(all.output.find(" Cluster Name : netcluster\n"), std::string::npos);
  EXPECT_NE(all.output.find(" Cluster Name : fresh\n"), std::string::npos);
  EXPECT_NE(all.output.find(" Found 2 cluster(s)\n"), std::string::npos)
      << all.output;

  const netnstest::Outcome boot = run(tov_discover_bootstrap);
  EXPECT_NE(boot.output.find(" Found 1 bootstrap node(s)\n"), std::string::npos)
      << boot.output;
  EXPECT_EQ(boot.output.find("netcluster"), std::string::npos);
}

}  // namespace
