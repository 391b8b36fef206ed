// Discovery: grouping of answer lines, selection, both report layouts, and
// the UDP collection against answering nodes on loopback addresses.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <thread>

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

std::string report(const std::vector<std::string>& lines, int mode, bool pretty,
                   unsigned* count = nullptr) {
  std::ostringstream out;
  const unsigned n = discovery::reportAnswers(lines, mode, pretty, out);
  if (count) *count = n;
  return out.str();
}

const std::string kMaj(54, '=');
const std::string kMin = " " + std::string(52, '-') + " ";

std::string summary(unsigned count, const std::string& what) {
  return "\n" + kMin + "\n Found " + std::to_string(count) + what + "\n" +
         kMin + "\n\n";
}

TEST(DiscoveryReport, LabelledRecordIsExact) {
  const std::vector<std::string> lines = {
      clusterLine("alpha", "c0ffee", 0, "-1"), "N node1 127.0.0.2 4",
      "N node2 127.0.0.3 4"};
  const std::string expected = "\n" + kMaj + "\n Cluster Name : alpha\n" +
                               kMin +
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
                               summary(1, " cluster(s)");
  EXPECT_EQ(report(lines, tov_discover_all, true), expected);

  // Mode 2 leaves out the machine lines; no nodes gives two empty lines.
  const std::string configured =
      report({clusterLine("beta", "b", 0)}, tov_discover_cluster, true);
  EXPECT_EQ(configured.find("Machine Identifier"), std::string::npos);
  EXPECT_NE(configured.find(" Number of Nodes     : 2\n\n\n" + kMin),
            std::string::npos);
  EXPECT_NE(configured.find(" Serial Number       : 7\n"), std::string::npos);
}

TEST(DiscoveryReport, RawRecordRepeatsTheLines) {
  const std::string c = clusterLine("alpha", "c", 1);
  EXPECT_EQ(
      report({c, "N n1 127.0.0.2 4", "N n2"}, tov_discover_bootstrap, false),
      "\n" + c + "\nN n1 127.0.0.2 4\nN n2\n" +
          summary(1, " bootstrap node(s)"));
}

TEST(DiscoveryReport, SummaryNamesTheMode) {
  EXPECT_EQ(report({}, 0, true), summary(0, " cluster(s)"));
  EXPECT_EQ(report({}, 1, true), summary(0, " bootstrap node(s)"));
  EXPECT_EQ(report({}, 2, false), summary(0, " configured cluster(s)"));
  EXPECT_EQ(report({}, 5, true), summary(0, " cluster(s)"));
}

TEST(DiscoveryReport, SelectionByModeCrcAndFieldCount) {
  const std::string a = clusterLine("a", "111", 0);
  const std::string a2 = clusterLine("a2", "111", 0);
  const std::string bootX = clusterLine("bx", "222", 1);
  const std::string bootY = clusterLine("by", "222", 1);
  const std::string late = clusterLine("late", "222", 0);
  const struct {
    std::vector<std::string> lines;
    int mode;
    unsigned count;
  } cases[] = {
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
  for (const auto& c : cases) {
    unsigned count = 99;
    report(c.lines, c.mode, true, &count);
    EXPECT_EQ(count, c.count) << c.lines.front() << " mode " << c.mode;
  }
}

TEST(DiscoveryReport, NodeLinesJoinTheNearestClusterLine) {
  // Lines pooled from two datagrams: the second starts with node lines.
  const std::vector<std::string> lines = {clusterLine("a", "1", 0), "N n1 h1",
                                          "N n2 h2 4", "N n3 h3 4",
                                          clusterLine("b", "2", 0)};
  const std::string text = report(lines, 0, true);
  EXPECT_NE(text.find("[3] n3 [h3]"), std::string::npos);
  EXPECT_EQ(text.find("[4]"), std::string::npos);
}

TEST(DiscoveryReport, ShortNodeLineThrowsOnlyInTheLabelledLayout) {
  const std::vector<std::string> lines = {clusterLine("a", "1", 0), "N n1"};
  std::ostringstream out;
  EXPECT_THROW(discovery::reportAnswers(lines, 0, true, out),
               std::out_of_range);
  EXPECT_NO_THROW(discovery::reportAnswers(lines, 0, false, out));
  EXPECT_THROW(discovery::reportAnswers({""}, 0, false, out),
               std::out_of_range);
}

// Answers the 8-byte probe on UDP port 1195 of one loopback address with the
// given datagrams, for a bounded time.
class UdpNode {
 public:
  UdpNode(const std::string& address, std::vector<std::string> answers)
      : answers_(std::move(answers)) {
    fd_ = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(1195);
    inet_pton(AF_INET, address.c_str(), &addr.sin_addr);
    bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    if (bound_) thread_ = std::thread([this] { run(); });
  }
  ~UdpNode() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    close(fd_);
  }
  bool bound() const { return bound_; }
  std::string probe() const { return probe_; }

 private:
  void run() {
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!stop_ && std::chrono::steady_clock::now() < end) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      char buf[64];
      sockaddr_in from{};
      socklen_t len = sizeof from;
      const ssize_t n = recvfrom(fd_, buf, sizeof buf, 0,
                                 reinterpret_cast<sockaddr*>(&from), &len);
      if (n <= 0) continue;
      probe_.assign(buf, static_cast<std::size_t>(n));
      for (const auto& a : answers_)
        sendto(fd_, a.data(), a.size(), 0, reinterpret_cast<sockaddr*>(&from),
               len);
    }
  }
  std::vector<std::string> answers_;
  int fd_ = -1;
  bool bound_ = false;
  std::atomic<bool> stop_{false};
  std::string probe_;
  std::thread thread_;
};

TEST_F(ClientTest, DiscoveryCollectsAnswersForTwoAndAHalfSeconds) {
  const std::string c = clusterLine("alpha", "abc", 0);
  UdpNode node("127.0.9.1", {c + "\nN n1 127.0.9.1 4", "N n2 127.0.9.2 4\n",
                             c + "\nN n1 127.0.9.1 4"});
  ASSERT_TRUE(node.bound()) << "UDP 127.0.9.1:1195 is taken";
  rec().level = 3;
  clienttest::Capture out(std::cout);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(net.discoverClusters("127.0.9.1", tov_discover_all, false), 0);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
          .count();
  EXPECT_GT(seconds, 2.3);
  EXPECT_LT(seconds, 4.0);
  EXPECT_EQ(node.probe(), std::string(8, '\xCD'));
  EXPECT_TRUE(
      rec().wrote("TOVNet::discoverClusters():\n\n*****CLUSTER "
                  "DISCOVERY RESPONSE START*****\nN n2 127.0.9.2 4\n"
                  "\n******CLUSTER DISCOVERY RESPONSE END******\n\n"));
  EXPECT_EQ(out.text(), "Searching for Clusters... Done\n\n" + c +
                            "\nN n1 127.0.9.1 4\nN n2 127.0.9.2 4\n" +
                            summary(1, " cluster(s)"));
}

TEST_F(ClientTest, DiscoveryKeepsAThousandSimultaneousAnswers) {
  std::vector<std::string> answers;
  for (int i = 0; i < 1000; ++i)
    answers.push_back(
        clusterLine("c" + std::to_string(i), "crc" + std::to_string(i), 0) +
        "\nN n 127.0.9.4 4");
  UdpNode node("127.0.9.4", answers);
  ASSERT_TRUE(node.bound()) << "UDP 127.0.9.4:1195 is taken";
  clienttest::Capture out(std::cout);
  EXPECT_EQ(net.discoverClusters("127.0.9.4", tov_discover_all, false), 0);
  EXPECT_NE(out.text().find(" Found 1000 cluster(s)\n"), std::string::npos);
}

TEST_F(ClientTest, DiscoveryFailuresAndSilence) {
  {
    clienttest::Capture out(std::cout);
    EXPECT_EQ(net.discoverClusters(testsupport::kUnresolvable, 0, true),
              static_cast<int>(TOV_SOCK_RESOLVE_HOST));
    EXPECT_EQ(out.text(), "");
  }
  ASSERT_EQ(rec().errors.size(), 1u);
  EXPECT_EQ(rec().errors[0].first, "TOVNet::discoverClusters()");
  EXPECT_EQ(rec().errors[0].second, "gethostbyname\n");
  EXPECT_TRUE(rec().setErrors.empty());

  rec().level = 2;
  clienttest::Capture out(std::cout);
  EXPECT_EQ(net.discoverClusters("127.0.9.3", 0, true), 0);  // nobody there
  EXPECT_EQ(out.text(),
            "Searching for Clusters... Done\n" + summary(0, " cluster(s)"));
  EXPECT_TRUE(rec().wrote(
      "TOVNet::discoverClusters(): Search (with debugging output)...\n"));
}

}  // namespace
