// Discovery with its default target, the limited broadcast, for real: the
// client and the answering daemons live in namespaces of the test's own,
// joined by a bridge, so the broadcast never reaches the host's network.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "netns_lab.h"
#include "support/sim.h"
#include "tovapi/libtovapi.h"

namespace {

using namespace tov1;

// One cluster of two nodes, and a machine not yet in any cluster.
const char* const kClusterConfig = R"({
  "cluster": {"name": "netcluster", "serial": "12", "poll_time": 1,
              "bootstrap": false, "machine_desc": "namespace node"},
  "nodes": [{"name": "n1", "address": "198.18.1.2", "family": 4},
            {"name": "n2", "address": "198.18.1.3", "family": 4}],
  "services": [{"name": "web", "state": "running", "mode": "auto",
                "blocked": false, "node": "n1"}]})";
const char* const kBootstrapConfig = R"({
  "cluster": {"name": "fresh", "serial": "-1", "poll_time": 1,
              "bootstrap": true, "machine_desc": "unconfigured"},
  "nodes": [{"name": "b1", "address": "198.18.1.4", "family": 4}],
  "services": []})";

class BroadcastDiscovery : public testing::Test {
 protected:
  // The client, 198.18.1.1, on a bridge that the daemons' hosts join.
  void SetUp() override {
    std::string why;
    if (!lab.available(&why)) GTEST_SKIP() << why;
    ASSERT_NE(mkdtemp(dir), nullptr);
    client = lab.add("client");
    for (const char* args :
         {"link add br0 type bridge", "addr add 198.18.1.1/24 dev br0",
          "link set br0 up", "route add default dev br0"})
      ASSERT_TRUE(lab.ip(client, args)) << args;
  }
  void TearDown() override { std::filesystem::remove_all(dir); }

  // A daemon on a host of its own, 198.18.1.<n>, answering discovery on
  // every address there; waits, bounded, until it is ready.
  void daemon(const std::string& name, int n, const char* config) {
    const std::string ns = lab.add(name), link = "p" + std::to_string(n);
    ASSERT_TRUE(lab.ip(
        client, "link add " + link + " type veth peer name eth0 netns " + ns));
    ASSERT_TRUE(lab.ip(client, "link set " + link + " master br0 up"));
    ASSERT_TRUE(
        lab.ip(ns, "addr add 198.18.1." + std::to_string(n) + "/24 dev eth0"));
    ASSERT_TRUE(lab.ip(ns, "link set eth0 up"));
    const std::string base = std::string(dir) + "/" + name;
    std::ofstream(base + ".json") << config;
    lab.spawn(ns,
              {simtest::tovsimPath(), "--config", base + ".json", "--listen",
               "0.0.0.0", "--port", "1195", "--udp-port", "1195",
               "--max-lifetime", "60", "--ready-file", base + ".ready"});
    for (int i = 0; i < 400 && !std::filesystem::exists(base + ".ready"); ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(25));
    ASSERT_TRUE(std::filesystem::exists(base + ".ready")) << name;
  }

  netnstest::NetnsLab lab;
  char dir[32] = "/tmp/tovnetns-XXXXXX";
  std::string client;
};

TEST_F(BroadcastDiscovery, EmptyAddressFindsEveryAnsweringDaemon) {
  daemon("node1", 2, kClusterConfig);
  daemon("node2", 3, kClusterConfig);
  daemon("boot", 4, kBootstrapConfig);
  const auto discover = [&](int mode) {
    return lab.runIn(
        client, [mode] { return tovNet.discoverClusters("", mode, true); });
  };

  const netnstest::Outcome all = discover(tov_discover_all);
  ASSERT_EQ(all.status, 0) << all.output;
  EXPECT_EQ(all.output.rfind("Searching for Clusters... Done\n", 0), 0u);
  // Two nodes of one cluster count once; the bootstrap machine counts too.
  EXPECT_NE(all.output.find(" Cluster Name : netcluster\n"), std::string::npos);
  EXPECT_NE(all.output.find(" Cluster Name : fresh\n"), std::string::npos);
  EXPECT_NE(all.output.find(" Found 2 cluster(s)\n"), std::string::npos)
      << all.output;

  const netnstest::Outcome boot = discover(tov_discover_bootstrap);
  EXPECT_NE(boot.output.find(" Found 1 bootstrap node(s)\n"), std::string::npos)
      << boot.output;
  EXPECT_EQ(boot.output.find("netcluster"), std::string::npos);
}

}  // namespace
