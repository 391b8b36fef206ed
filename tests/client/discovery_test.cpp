// Discovery: both report layouts, selection, and the UDP collection against
// an answering node on a loopback address.
#include <poll.h>

#include <chrono>
#include <thread>
#include <tuple>

#include "client_fixture.h"
#include "support/net_helpers.h"
#include "tovapi/internal_discovery.h"

namespace {

using clienttest::ClientTest;
using namespace tov1;

// A cluster line with 13 fields.
std::string clusterLine(const std::string& name, const std::string& crc,
                        int bootstrap, const std::string& serial = "7") {
  return "C " + name + " 2 3 " + crc + " " + serial + " 1000 0042 5 2000 " +
         std::to_string(bootstrap) + " ident-" + name + " desc-" + name;
}

std::string report(const std::vector<std::string>& lines, int mode,
                   bool pretty) {
  std::ostringstream out;
  discovery::reportAnswers(lines, mode, pretty, out);
  return out.str();
}

const std::string kMin = " " + std::string(52, '-') + " ";

std::string summary(unsigned count, const std::string& what) {
  return "\n" + kMin + "\n Found " + std::to_string(count) + what + "\n" +
         kMin + "\n\n";
}

TEST(DiscoveryReport, Layouts) {
  const std::vector<std::string> lines = {
      clusterLine("alpha", "c0ffee", 0, "-1"), "N node1 127.0.0.2 4",
      "N node2 127.0.0.3 4"};
  EXPECT_EQ(report(lines, tov_discover_all, true),
            "\n" + std::string(54, '=') + "\n Cluster Name : alpha\n" + kMin +
                "\n Number of Nodes     : 2\n"
                "\n  [1] node1 [127.0.0.2]"
                "\n  [2] node2 [127.0.0.3]"
                "\n\n" +
                kMin +
                "\n Number of Services  : 3\n"
                " Serial Number       : <n/a>\n"
                " Poll Time           : 5\n"
                " Start Time          : T2000\n"
                " Bootstrap Mode      : Disabled\n"
                " Machine Identifier  : ident-alpha\n"
                " Machine Description : desc-alpha\n" +
                kMin +
                "\n Config File Size    : 42 byte(s)\n"
                "  CRC                  : c0ffee\n"
                "  Last Modified        : T1000\n" +
                summary(1, " cluster(s)"));
  // Mode 2 leaves out the machine lines; no nodes gives two empty lines.
  const std::string configured =
      report({clusterLine("beta", "b", 0)}, tov_discover_cluster, true);
  EXPECT_EQ(configured.find("Machine Identifier"), std::string::npos);
  EXPECT_NE(configured.find(" Number of Nodes     : 2\n\n\n" + kMin),
            std::string::npos);
  EXPECT_NE(configured.find(" Serial Number       : 7\n"), std::string::npos);
  // The summary names the mode.
  EXPECT_EQ(report({}, 0, true), summary(0, " cluster(s)"));
  EXPECT_EQ(report({}, 1, true), summary(0, " bootstrap node(s)"));
  EXPECT_EQ(report({}, 2, false), summary(0, " configured cluster(s)"));
  EXPECT_EQ(report({}, 5, true), summary(0, " cluster(s)"));
  // A short node line throws, but only in the labelled layout.
  const std::vector<std::string> shortNode = {clusterLine("a", "c", 0), "N n1"};
  std::ostringstream out;
  EXPECT_THROW(discovery::reportAnswers(shortNode, 0, true, out),
               std::out_of_range);
  EXPECT_NO_THROW(discovery::reportAnswers(shortNode, 0, false, out));
  EXPECT_THROW(discovery::reportAnswers({""}, 0, false, out),
               std::out_of_range);
}

TEST(DiscoveryReport, SelectionByModeCrcAndFieldCount) {
  const std::string a = clusterLine("a", "111", 0),
                    a2 = clusterLine("a2", "111", 0);
  const std::string bootX = clusterLine("bx", "222", 1),
                    bootY = clusterLine("by", "222", 1);
  const std::string late = clusterLine("late", "222", 0);
  const std::tuple<std::vector<std::string>, int, unsigned> cases[] = {
      {{a, a2}, 0, 1},         // same CRC: first only
      {{bootX, bootY}, 0, 2},  // bootstrap never duplicate
      {{bootX, late}, 0, 1},   // bootstrap CRC hides cluster
      {{late, bootX}, 0, 2},
      {{a, bootX, bootY}, 1, 2},  // mode 1: bootstrap only
      {{a, bootX}, 2, 1},         // mode 2: configured only
      {{a, bootX}, 5, 2},         // other modes keep all
      {{a + " extra"}, 0, 0},     // 14 fields
      {{"C a 2 3 111 7 1000 42 5 2000 0 ident"}, 0, 0},  // 12 fields
      {{"N orphan 1.2.3.4 4", "X junk", a}, 0, 1},
  };
  std::ostringstream out;
  for (const auto& [lines, mode, count] : cases)
    EXPECT_EQ(discovery::reportAnswers(lines, mode, true, out), count)
        << lines.front() << " mode " << mode;
}

// One window of 2.5 s collects everything, a thousand answers at once too;
// node lines of a later datagram join the cluster line before them.
TEST_F(ClientTest, DiscoveryCollectsAnswersForTwoAndAHalfSeconds) {
  clienttest::Capture out(std::cout);  // the failure prints nothing
  EXPECT_EQ(net.discoverClusters(testsupport::kUnresolvable, 0, true),
            static_cast<int>(TOV_SOCK_RESOLVE_HOST));
  EXPECT_EQ(rec().errors.at(0).first + rec().errors.at(0).second,
            "TOVNet::discoverClusters()gethostbyname\n");
  const std::string c = clusterLine("alpha", "abc", 0);
  std::vector<std::string> answers = {c + "\nN n1 127.0.9.1 4",
                                      "N n2 127.0.9.2 4\n", c};
  std::string expected = "Searching for Clusters... Done\n\n" + c +
                         "\nN n1 127.0.9.1 4\nN n2 127.0.9.2 4\n";
  for (int i = 0; i < 1000; ++i) {
    const std::string n = std::to_string(i);
    answers.push_back(clusterLine("c" + n, "crc" + n, 0) + "\nN n 1.2.3.4 4");
    expected += "\n" + answers.back() + "\n";
  }
  // The node, on a free loopback address, answers one probe within 10 s.
  const int fd = socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in addr{AF_INET, htons(1195), {}, {}};
  std::string node, probe;
  for (int i = 0; i < 50 && node.empty(); ++i) {
    const std::string candidate =
        "127.77." + std::to_string((getpid() + i) % 250 + 1) + ".1";
    inet_pton(AF_INET, candidate.c_str(), &addr.sin_addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
      node = candidate;
  }
  ASSERT_FALSE(node.empty()) << "no free loopback address";
  std::thread answering([&] {
    pollfd p{fd, POLLIN, 0};
    char buf[64];
    socklen_t len = sizeof addr;
    if (poll(&p, 1, 10000) <= 0) return;
    const ssize_t n = recvfrom(fd, buf, sizeof buf, 0,
                               reinterpret_cast<sockaddr*>(&addr), &len);
    if (n > 0) probe.assign(buf, static_cast<std::size_t>(n));
    for (const auto& a : answers)
      sendto(fd, a.data(), a.size(), 0, reinterpret_cast<sockaddr*>(&addr),
             len);
  });
  rec().level = 3;  // every trace written, none of them checked
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(net.discoverClusters(node, tov_discover_all, false), 0);
  const std::chrono::duration<double> took =
      std::chrono::steady_clock::now() - start;
  answering.join();
  close(fd);
  EXPECT_GT(took.count(), 2.4);
  EXPECT_LT(took.count(), 10.0);  // generous: a busy machine
  EXPECT_EQ(probe, std::string(8, '\xCD'));
  EXPECT_EQ(out.text(), expected + summary(1001, " cluster(s)"));
}

}  // namespace
