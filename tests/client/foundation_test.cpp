// The client object, its timeout arithmetic, host and address checks and the
// quiet node probe; runs the suite, noting first what happened before main().
#include <cstdlib>
#include <tuple>

#include "client_fixture.h"
#include "support/net_helpers.h"
#include "support/private_access.h"

namespace {

int classMsgCallsBeforeMain = 0;
std::string classMsgNameBeforeMain;

using clienttest::ClientTest;
using clienttest::fail;
using namespace tov1;

TEST_F(ClientTest, ObjectDefaultsAndSmallHelpers) {
  EXPECT_EQ(classMsgCallsBeforeMain, 1);  // the global client
  EXPECT_EQ(classMsgNameBeforeMain, "TOVNet");
  EXPECT_FALSE(doubles::classMsgFlag);
  const int before = doubles::classMsgCount;
  TOVNet fresh;
  EXPECT_EQ(doubles::classMsgCount, before + 1);
  for (TOVNet* client : {&tovNet, &fresh}) {
    EXPECT_EQ(privileged::timeoutSec(*client), 3);
    EXPECT_EQ(privileged::timeoutUsec(*client), 0);
    EXPECT_EQ(client->pref_AF, 0);
  }
  const int families[][2] = {{AF_INET, 4}, {AF_INET6, 6}, {AF_UNSPEC, 0},
                             {1, 1},       {17, 1},       {-3, 1}};
  for (const auto& f : families) EXPECT_EQ(getIpFamily(f[0]), f[1]) << f[0];
  // readtov() warns always and collapses the cache's result.
  for (int cacheResult : {0, 5, -74}) {
    rec().refresh = [&] { return cacheResult; };
    clienttest::Capture out(std::cout);
    EXPECT_EQ(net.readtov("node1", "2000", true), cacheResult == 0 ? 0 : -1);
    EXPECT_EQ(out.text(),
              "Warning: TOVNet::readtov() is deprecated! Use "
              "TOVNetCache::refreshCache() instead!\n");
    const auto& call = rec().refreshCalls.back();
    EXPECT_TRUE(call.address == "node1" && call.port == "2000" && call.force);
  }
}

TEST_F(ClientTest, SetTimeoutTruncatesTwiceInSinglePrecision) {
  const std::tuple<float, int, int> cases[] = {
      {0.5f, 0, 500000},     {2.3f, 2, 299999},  {10.7f, 10, 699999},
      {100.01f, 100, 10002}, {0.0000005f, 0, 0}, {0.000001f, 0, 1},
      {-1.5f, -1, -500000},  {3.0f, 3, 0},       {0.0f, 0, 0}};
  for (const auto& [in, sec, usec] : cases) {
    net.setTimeout(in);
    EXPECT_EQ(privileged::timeoutSec(net), sec) << in;
    EXPECT_EQ(privileged::timeoutUsec(net), usec) << in;
  }
}

// For its refresh the probe sets two seconds, no colour and a captured
// std::cerr; it restores all three and reports once what was complained.
TEST_F(ClientTest, ProbeRunsQuietlyAndRestoresEverything) {
  rec().level = 2;
  privileged::timeoutSec(net) = 7;
  privileged::timeoutUsec(net) = 123457;  // not reproducible by setTimeout
  Debug::useColour = true;
  std::string during;
  const char* complaint = "refresh complaint\n";
  rec().refresh = [&] {
    during = std::to_string(privileged::timeoutSec(net)) + " " +
             std::to_string(privileged::timeoutUsec(net)) +
             (Debug::useColour ? " colour" : "");
    std::cerr << complaint;
    return -74;
  };
  clienttest::Capture err(std::cerr);
  EXPECT_EQ(net.testNode("n", "p"), -74);
  EXPECT_EQ(during, "2 0");
  EXPECT_EQ(privileged::timeoutSec(net), 7);
  EXPECT_EQ(privileged::timeoutUsec(net), 123457);
  EXPECT_TRUE(Debug::useColour);
  ASSERT_EQ(rec().refreshCalls.size(), 1u);
  EXPECT_FALSE(rec().refreshCalls[0].force);
  EXPECT_EQ(rec().refreshCalls[0].address + rec().refreshCalls[0].port, "np");
  ASSERT_EQ(rec().errors.size(), 1u);
  EXPECT_EQ(rec().errors[0].first, "TOVNet::test_node()");
  EXPECT_EQ(rec().errors[0].second, "refresh complaint\n\n");

  // Colour stays off, nothing is reported without a complaint, and at level
  // 0 the probe writes nothing of its own.
  rec().level = 0;
  rec().writes.clear();
  Debug::useColour = false;
  complaint = "";
  EXPECT_EQ(net.testNode("n", "p"), -74);
  EXPECT_EQ(during, "2 0");
  EXPECT_FALSE(Debug::useColour);
  EXPECT_TRUE(rec().writes.empty());
  EXPECT_EQ(rec().errors.size(), 1u);
  EXPECT_EQ(err.text(), "");
}

TEST_F(ClientTest, AddressFamilyOfNumericAddresses) {
  const std::pair<const char*, int> cases[] = {
      // 99: refused, untouched
      {"192.168.1.10", 4}, {"::1", 6}, {"0.0.0.0", 4},   {"::", 6},
      {"localhost", 99},   {"", 99},   {"1.2.3.4.5", 99}};
  for (const auto& [text, expected] : cases) {
    doubles::reset();
    int version = 99;
    EXPECT_EQ(net.validateAddressFamily(text, &version),
              expected == 99 ? fail(TOV_SOCK_RESOLVE_HOST) : 0)
        << text;
    EXPECT_EQ(version, expected) << text;
    EXPECT_EQ(rec().errors.size(), expected == 99 ? 1u : 0u);
    for (const auto& e : rec().errors)
      EXPECT_EQ(e.first + ": " + e.second.substr(0, 18),
                "TOVNet::validateAddressFamily(): invalid address - ");
  }

  EXPECT_EQ(net.validateAddressFamily("10.1.2.3", nullptr), 0);
}

// IPv6 wins, in malloc'ed memory; an empty host leaves *ip alone.
TEST_F(ClientTest, ValidateHost) {
  const std::pair<std::string, const char*> cases[] = {
      {"127.0.0.1", "127.0.0.1"},
      {"::1", "::1"},
      {"::", "::"},
      {"localhost", "127.0.0.1"}};
  rec().level = 3;  // every trace written, none of them checked
  for (const auto& [host, expected] : cases) {
    char* ip = nullptr;
    ASSERT_EQ(net.validateHost(host, &ip), 0) << host;
    ASSERT_NE(ip, nullptr);
    EXPECT_STREQ(ip, expected);
    std::free(ip);
  }
  EXPECT_EQ(net.validateHost("127.0.0.1", nullptr), 0);

  char marker = 'm';
  char* ip = &marker;
  EXPECT_EQ(net.validateHost("", &ip), fail(TOV_EMPTY_COMMAND));
  EXPECT_EQ(ip, &marker);
  EXPECT_EQ(rec().errors.back().second, "empty string provided to host\n");
  EXPECT_EQ(net.validateHost("0.0.0.0", &ip), fail(TOV_SOCK_RESOLVE_HOST));
  EXPECT_EQ(ip, nullptr);
  EXPECT_EQ(rec().errors.back().second,
            "failed to resolve the hostname 0.0.0.0\n");
  ip = &marker;
  EXPECT_EQ(net.validateHost(testsupport::kUnresolvable, &ip),
            fail(TOV_SOCK_RESOLVE_HOST));
  EXPECT_EQ(ip, nullptr);
  EXPECT_EQ(rec().errors.back().first, "TOVNet::validateHost()");
  EXPECT_EQ(rec().errors.back().second.rfind("getaddrinfo: bad..host: ", 0),
            0u);
}

}  // namespace

int main(int argc, char** argv) {
  classMsgCallsBeforeMain = doubles::classMsgCount;
  classMsgNameBeforeMain = doubles::classMsgName;
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
