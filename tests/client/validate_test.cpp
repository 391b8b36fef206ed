// Host resolution and address-family checks. Only numeric addresses and
// names from the hosts file are used, so nothing is looked up on a network.
#include <cstdlib>

#include "client_fixture.h"
#include "support/net_helpers.h"

namespace {

using clienttest::ClientTest;
using clienttest::fail;
using namespace tov1;

TEST_F(ClientTest, AddressFamilyOfNumericAddresses) {
  const struct {
    const char* text;
    int rc;
    int version;  // 99: left untouched
  } cases[] = {{"192.168.1.10", 0, 4},
               {"::1", 0, 6},
               {"0.0.0.0", 0, 4},
               {"::", 0, 6},
               {"localhost", fail(TOV_SOCK_RESOLVE_HOST), 99},
               {"", fail(TOV_SOCK_RESOLVE_HOST), 99},
               {"1.2.3.4.5", fail(TOV_SOCK_RESOLVE_HOST), 99}};
  for (const auto& c : cases) {
    doubles::reset();
    int version = 99;
    EXPECT_EQ(net.validateAddressFamily(c.text, &version), c.rc) << c.text;
    EXPECT_EQ(version, c.version) << c.text;
    if (c.rc != 0) {
      ASSERT_EQ(rec().errors.size(), 1u);
      EXPECT_EQ(rec().errors[0].first, "TOVNet::validateAddressFamily()");
      EXPECT_EQ(rec().errors[0].second.rfind("invalid address - ", 0), 0u);
    }
  }
}

TEST_F(ClientTest, AddressFamilyTraces) {
  rec().level = 1;
  EXPECT_EQ(net.validateAddressFamily("10.1.2.3", nullptr), 0);
  EXPECT_TRUE(rec().wrote(
      "TOVNet::validateAddressFamily(): 10.1.2.3 is an ipv4 address\n"));
  EXPECT_TRUE(rec().wrote(
      "TOVNet::validateAddressFamily(): NULL passed to version arg\n"));
  EXPECT_TRUE(rec().wrote("TOVNet::validateAddressFamily(): returned [0]\n"));
  EXPECT_FALSE(rec().wrote("calling getaddrinfo"));  // level 3 only

  doubles::reset();
  rec().level = 3;
  int version = 0;
  EXPECT_EQ(net.validateAddressFamily("fe80::1", &version), 0);
  EXPECT_EQ(version, 6);
  const std::vector<std::string> expected = {
      "TOVNet::validateAddressFamily(): calling getaddrinfo\n",
      "TOVNet::validateAddressFamily(): getaddrinfo returned [0]\n",
      "TOVNet::validateAddressFamily(): fe80::1 is an ipv6 address\n",
      "TOVNet::validateAddressFamily(): copying IP version to arg\n",
      "TOVNet::validateAddressFamily(): calling freeaddrinfo()\n",
      "TOVNet::validateAddressFamily(): returned [0]\n"};
  ASSERT_EQ(rec().writes.size(), expected.size() + 1);
  EXPECT_EQ(
      std::vector<std::string>(rec().writes.begin() + 1, rec().writes.end()),
      expected);
}

TEST_F(ClientTest, ValidateHostPrefersIpv6AndHandsOverMallocedText) {
  const struct {
    const char* host;
    const char* expected;
  } cases[] = {{"127.0.0.1", "127.0.0.1"},
               {"::1", "::1"},
               {"::", "::"},
               {"localhost", "127.0.0.1"}};
  for (const auto& c : cases) {
    char* ip = nullptr;
    ASSERT_EQ(net.validateHost(c.host, &ip), 0) << c.host;
    ASSERT_NE(ip, nullptr);
    EXPECT_STREQ(ip, c.expected);
    std::free(ip);
  }
  EXPECT_EQ(net.validateHost("127.0.0.1", nullptr), 0);
}

TEST_F(ClientTest, ValidateHostFailures) {
  char marker = 'm';
  char* ip = &marker;
  EXPECT_EQ(net.validateHost("", &ip), fail(TOV_EMPTY_COMMAND));
  EXPECT_EQ(ip, &marker);  // untouched
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

TEST_F(ClientTest, ValidateHostMallocTracesHaveTheirOwnLevels) {
  for (int level : {1, 2, 3}) {
    doubles::reset();
    rec().level = level;
    char* ip = nullptr;
    ASSERT_EQ(net.validateHost("127.0.0.1", &ip), 0);
    std::free(ip);
    int mallocLines = 0;
    for (const auto& w : rec().writes)
      mallocLines +=
          w == "TOVNet::validateHost(): calling malloc() for ip arg\n";
    EXPECT_EQ(mallocLines, level == 1 ? 0 : level == 2 ? 1 : 2) << level;
    EXPECT_EQ(rec().wrote("TOVNet::validateHost(): IPv4 = 127.0.0.1\n"),
              level == 3);
  }
}

}  // namespace
