// A daemon's replies: status letter and message, the information reply, the
// cache that holds it (fetching from a scripted loopback daemon), Cluster.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <chrono>
#include <climits>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "support/loopback_server.h"
#include "support/net_helpers.h"
#include "support/stream_capture.h"
#include "tovapi/internal_cache.h"
#include "tovapi/libtovapi.h"

using namespace tov1;
using cacheinternal::InfoTable;
using Strings = std::vector<std::string>;

namespace {

int negated(tov_error_enum code) { return -static_cast<int>(code); }

std::string clusterLine(const std::string& poll,
                        const std::string& name = "alpha") {
  return "C " + name + " 2 3 9f3c 17 1700000000 512 " + poll +
         " 1700000100 0 node1 test_cluster";
}

// With the quirks daemons send: CR LF, blank lines, runs of blanks, odd kinds.
std::string infoReply(const std::string& poll = "3600",
                      const std::string& name = "alpha") {
  return "Cn cluster information\r\n\r\n" + clusterLine(poll, name) +
         "\r\n   \nN  node1\t127.0.0.1  4 \r\nN node2 127.0.0.2 4\n"
         "S 0 web running auto 0 node1\nS 1 db stopped manual 0 -\n"
         "S 2 mail broken auto 1 -\nV 1.0 2.2\nX extra stuff\n"
         "Svc long first field\n";
}

std::vector<looptest::Script> scripts(const Strings& replies) {
  std::vector<looptest::Script> out(replies.size());
  for (std::size_t i = 0; i < replies.size(); ++i) out[i].reply = replies[i];
  return out;
}

// Answers the given replies in turn, the last one for good.
struct Daemon : looptest::LoopbackServer {
  explicit Daemon(const Strings& replies) : LoopbackServer(scripts(replies)) {}
  int requests() const { return static_cast<int>(frames().size()); }
};

const char kHost[] = "127.0.0.1";

// A long salt timeout: a loaded machine may be slow to run the daemon.
class InfoCache : public ::testing::Test {
 protected:
  void SetUp() override {
    tovCache.clearCache();
    tovNet.setTimeout(30);
  }
  void TearDown() override {
    tovCache.clearCache();
    tovNet.setTimeout(3);
  }
};

TEST(ReplyDecoder, StatusOfEveryLetter) {
  const std::pair<const char*, tov_error_enum> known[] = {
      {"afnwz", TOV_OK},         {"b", TOV_COMMS_ALREADY},
      {"c", TOV_COMMS_NOTRUN},   {"dh", TOV_COMMS_FAIL},
      {"e", TOV_COMMS_PASSFAIL}, {"g", TOV_COMMS_BADSERVICE},
      {"i", TOV_COMMS_SYSDOWN},  {"j", TOV_COMMS_NOT_BROKEN},
      {"ko", TOV_COMMS_BUSY},    {"l", TOV_COMMS_ARGS},
      {"mp", TOV_COMMS_LOCKED},  {"u", TOV_COMMS_TOVERR},
  };
  for (int c = 1; c < 256; ++c) {
    tov_error_enum code = TOV_COMMS_BADRESPONSE;
    for (const auto& [letters, itsCode] : known) {
      if (std::strchr(letters, c) != nullptr) code = itsCode;
    }
    char reply[] = {'B', static_cast<char>(c), ' ', 'x', '\0'};
    tovDebug.setError(TOV_OK);
    EXPECT_EQ(tovResponse.getTOVResponseStatus(reply), negated(code)) << c;
    EXPECT_EQ(tovDebug.getError(), static_cast<int>(code)) << "letter " << c;
  }
}

// Nothing past the terminator is read; every outcome is traced.
TEST(ReplyDecoder, StatusOfShortBuffersAndItsTraces) {
  // Reply (nullptr: no buffer at all), status, trace.
  const std::tuple<const char*, int, const char*> cases[] = {
      {nullptr, negated(TOV_COMMS_NORESPONSE), "no reply"},
      {"", negated(TOV_COMMS_BADRESPONSE), "reply too short [0 character(s)]"},
      {"C", negated(TOV_COMMS_BADRESPONSE), "reply too short [1 character(s)]"},
      {"Ca", 0, "reply letter 'a' gives 0"}};
  for (const auto& [reply, status, trace] : cases) {
    SCOPED_TRACE(reply ? reply : "no buffer");
    std::string copy = reply ? reply : "";
    testsupport::StreamCapture cerr;
    tovDebug.setError(TOV_OK);
    tovDebug.setDebugLevel(2);
    EXPECT_EQ(tovResponse.getTOVResponseStatus(reply ? &copy[0] : nullptr),
              status);
    tovDebug.setDebugLevel(0);
    EXPECT_EQ(tovDebug.getError(), -status);
    EXPECT_NE(cerr.text().find(trace), std::string::npos) << cerr.text();
  }
}

TEST(ReplyDecoder, MessageAndServiceStateWords) {
  const std::pair<std::string, const char*> cases[] = {
      {"Ba service 0 (web) bounced", "service 0 (web) bounced"},
      {"Cn cluster information\nC alpha 2\n", "cluster information"},
      {"Bk daemon busy\r\n", "daemon busy"},
      {"Bfno blank", "no blank"},
      {"Bkx", "x"},  // the shortest message
      {"Zu\nsecond line", ""},
      {"C", ""}};
  for (auto [reply, message] : cases) {
    EXPECT_EQ(tovResponse.getTOVResponseMsg(&reply[0]), message) << reply;
  }
  EXPECT_EQ(tovResponse.getTOVResponseMsg(nullptr), "");

  const char* const words[] = {"unknown",  "running", "stopped", "starting",
                               "stopping", "broken",  "unknown"};
  for (int state = -1; state <= 5; ++state) {
    EXPECT_EQ(tovResponse.getTOVServiceState(state), words[state + 1]);
  }
  EXPECT_EQ(tovResponse.getTOVServiceState(1000), "unknown");
}

TEST(InfoParser, RefusesUntrustworthyReplies) {
  const std::string c = clusterLine("5");
  const std::pair<std::string, const char*> cases[] = {
      {"C", "not a data reply"},
      {"Ck daemon busy\n", "not a data reply"},
      {"Cn info\nN node1 127.0.0.1 4\n", "no cluster record"},
      {"Cn info\nC alpha 2 3 9f3c 17 1 512 5 1 0 node1\n", "has 12 fields"},
      {"Cn info\n" + c + " extra\n", "has 14 fields"},
      {"Cn info\n" + c + "\n" + c + "\n", "more than one cluster record"}};
  for (const auto& [reply, expected] : cases) {
    InfoTable table(1, {{"keep"}});
    std::string why;
    EXPECT_FALSE(cacheinternal::parseInfoReply(reply, table, why)) << reply;
    EXPECT_NE(why.find(expected), std::string::npos) << why;
    EXPECT_EQ(table, InfoTable(1, {{"keep"}})) << "output must stay untouched";
  }
}

TEST(InfoParser, LettersKindsAndNumbers) {
  const std::string letters = "BCFGHINPRSVW";
  for (unsigned kind = tovInfo_B; kind < tovInfo_COUNT; ++kind) {
    const char letter = cacheinternal::letterOfKind(kind);
    EXPECT_EQ(letter, letters[kind - 1]);
    EXPECT_EQ(cacheinternal::kindOfLetter(letter), kind);
  }
  EXPECT_EQ(cacheinternal::letterOfKind(tovInfo_MISC), '\0');
  EXPECT_EQ(cacheinternal::letterOfKind(tovInfo_COUNT), '\0');
  for (char other : {'A', 'X', 'c', '\0', ' '})
    EXPECT_EQ(cacheinternal::kindOfLetter(other), tovInfo_MISC) << other;

  // A numeric field: a sign, then digits only, within the range of int.
  for (const auto& [text, expected] :
       std::vector<std::pair<const char*, int>>{{"+7", 7},
                                                {"-3", -3},
                                                {"2147483647", INT_MAX},
                                                {"-2147483648", INT_MIN}}) {
    int value = 0;
    EXPECT_TRUE(cacheinternal::fieldToInt(text, value)) << text;
    EXPECT_EQ(value, expected) << text;
  }
  for (const char* text : {"2147483648", "-2147483649", "99999999999999999999",
                           "", "-", "12a", " 5"}) {
    int value = 0;
    EXPECT_FALSE(cacheinternal::fieldToInt(text, value)) << text;
  }
}

TEST_F(InfoCache, DataIsFetchedWhenStaleForcedOrFromAnotherPort) {
  Daemon daemon({infoReply("3600")});
  EXPECT_EQ(tovCache.refreshCache(kHost, daemon.portStr(), false), 0);
  EXPECT_EQ(daemon.frames(), Strings{std::string("CCN\n\0", 5)});
  EXPECT_EQ(tovCache.refreshCache("", daemon.portStr(), false), 0);
  EXPECT_EQ(daemon.requests(), 1) << "fresh data must not be fetched again";
  EXPECT_EQ(tovCache.refreshCache(kHost, daemon.portStr(), true), 0);
  EXPECT_EQ(daemon.requests(), 2);

  Daemon other({infoReply("0"), infoReply("0"), infoReply("1")});
  for (int i = 1; i <= 3; ++i) {
    EXPECT_EQ(tovCache.refreshCache(kHost, other.portStr(), false), 0);
    EXPECT_EQ(other.requests(), i) << "a new port, then poll time 0";
  }
  EXPECT_EQ(daemon.requests(), 2);
  // Poll time 1 now: stale once the clock has passed it.
  const std::time_t stored = std::time(nullptr);
  for (int i = 0; i < 400 && std::time(nullptr) <= stored; ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(tovCache.refreshCache(kHost, other.portStr(), false), 0);
  EXPECT_EQ(other.requests(), 4);
}

TEST_F(InfoCache, FailedFetchKeepsOldDataAndASuccessfulOneReplacesIt) {
  const std::tuple<std::string, tov_error_enum, const char*> refusals[] = {
      {"Ck daemon busy\n", TOV_COMMS_BUSY, "daemon busy"},
      {"Ca ok\n", TOV_NO_DATA, "no cluster information"},
      {"", TOV_COMMS_BADRESPONSE, "no cluster information"},
      {"Cn info\nC short record\n", TOV_RNC_CORRUPTENTRY, "has 3 fields"}};
  Strings replies{infoReply()};
  for (const auto& r : refusals) replies.push_back(std::get<0>(r));
  replies.push_back("Cn info\n" + clusterLine("7", "beta") + "\n");
  Daemon daemon(replies);
  ASSERT_EQ(tovCache.refreshCache(kHost, daemon.portStr(), false), 0);
  for (const auto& [reply, code, message] : refusals) {
    SCOPED_TRACE(reply);
    testsupport::StreamCapture cerr;
    EXPECT_EQ(tovCache.refreshCache(kHost, daemon.portStr(), true),
              negated(code));
    EXPECT_NE(cerr.text().find(message), std::string::npos) << cerr.text();
    EXPECT_EQ(tovCluster.getClusterName(kHost), "alpha");
    EXPECT_EQ(tovCache.getNumberOfLetterEntries(kHost, tovInfo_S), 3);
  }
  const std::string deadPort = std::to_string(testsupport::closedPort());
  {
    testsupport::StreamCapture cerr;
    EXPECT_LT(tovCache.refreshCache(kHost, deadPort, true), 0);
  }
  EXPECT_EQ(tovCluster.getClusterName(kHost), "alpha");

  ASSERT_EQ(tovCache.refreshCache(kHost, daemon.portStr(), true), 0);
  EXPECT_EQ(tovCluster.getClusterName(kHost), "beta");
  EXPECT_EQ(tovCluster.getPollTime(kHost), 7);
  EXPECT_EQ(tovCache.getNumberOfLetterEntries(kHost, tovInfo_S), 0);
  EXPECT_EQ(tovCache.getNumberOfLetterEntries(kHost, tovInfo_MISC), 0);

  // A host never fetched: queries go to the port last asked for it.
  const std::string h = "127.0.0.77";
  EXPECT_EQ(tovCache.getHostnameForNode(h), "");
  testsupport::StreamCapture cerr;
  EXPECT_LT(tovCache.refreshCache(h, deadPort, false), 0);
  EXPECT_EQ(cacheinternal::rememberedPort(tovCache, h), deadPort);
  EXPECT_EQ(tovCache.getNumberOfLetterEntries(h, tovInfo_C), -1);
  EXPECT_EQ(tovCache.getPollTime(h), 1);
  EXPECT_EQ(tovCluster.getServiceCount(h), -1);
  EXPECT_EQ(tovCluster.getClusterName(h), "");
  EXPECT_EQ(tovCluster.getClusterID(h), "");
  EXPECT_EQ(tovCluster.getAllClusterInfo(h, true), "");
  EXPECT_EQ(tovCache.infoHandler('C', 0, 1, h, ""), "");
  EXPECT_TRUE(tovCache.getAllLetterInfoHandler('N', h, true, "").empty());
}

TEST_F(InfoCache, LookupsOfFreshDataStayLocal) {
  Daemon daemon({infoReply("3600")});
  const std::string a = kHost;
  const std::string p = daemon.portStr();
  ASSERT_EQ(tovCache.refreshCache(a, p, false), 0);

  // Records are sorted by kind, split at runs of blanks, CR LF or not.
  EXPECT_EQ(tovCache.tovInfoGetValueVector(a, tovInfo_N, 0),
            (Strings{"N", "node1", "127.0.0.1", "4"}));
  EXPECT_EQ(tovCache.tovInfoGetValueVector(a, tovInfo_V, 0),
            (Strings{"V", "1.0", "2.2"}));
  EXPECT_EQ(tovCache.tovInfoGetValue(a, tovInfo_S, 2, 3), "broken");
  EXPECT_EQ(tovCache.tovInfoGetValue(a, tovInfo_C, 0, c_machine_desc),
            "test_cluster");
  EXPECT_EQ(tovCache.getNumberOfLetterEntries(a, tovInfo_N), 2);
  EXPECT_EQ(tovCache.getNumberOfLetterEntries(a, tovInfo_B), 0);
  EXPECT_EQ(tovCache.getAllLetterInfoHandler('S', a, false, p).size(), 3u);
  // Only a single-character first field is a record letter.
  EXPECT_EQ(tovCache.getNumberOfLetterEntries(a, tovInfo_MISC), 2);
  EXPECT_EQ(tovCache.getAllLetterInfoHandler('X', a, false, ""),
            std::vector<Strings>({{"X", "extra", "stuff"}}));
  EXPECT_TRUE(tovCache.getAllLetterInfoHandler('Q', a, false, p).empty());
  EXPECT_EQ(tovCache.infoHandler('S', 1, 2, a, p), "db");
  EXPECT_EQ(tovCache.infoCharHandler('S', 1, 4, a, p), 'm');
  EXPECT_EQ(tovCache.infoIntHandler('C', 0, c_poll_time, a, p), 3600);
  EXPECT_EQ(tovCache.infoIntHandler('S', 0, 2, a, p), -1);
  EXPECT_EQ(tovCache.infoVecHandler('N', 1, 1, a, p),
            (Strings{"node2", "127.0.0.2", "4"}));
  EXPECT_EQ(tovCache.getHostnameForNode("127.0.0.2"), "node2");
  EXPECT_EQ(tovCache.getHostnameForNode(""), "node1");
  EXPECT_EQ(tovCache.getPollTime(a), 60) << "a busy retry waits a minute";

  // Out of range anywhere: empty answers, never a crash.
  const auto badKind = static_cast<tov_info_letters>(99);
  EXPECT_TRUE(tovCache.tovInfoGetValueVector(a, badKind, 0).empty());
  EXPECT_TRUE(tovCache.tovInfoGetValueVector(a, tovInfo_S, 3).empty());
  EXPECT_EQ(tovCache.tovInfoGetValue(a, tovInfo_C, 0, c_SIZE_OK), "");
  EXPECT_EQ(tovCache.getNumberOfLetterEntries(a, badKind), -1);
  EXPECT_EQ(tovCache.infoHandler('S', 9, 0, a, p), "");
  EXPECT_EQ(tovCache.infoCharHandler('S', 0, 40, a, p), '\0');
  EXPECT_TRUE(tovCache.infoVecHandler('S', 0, 7, a, p).empty());
  EXPECT_EQ(daemon.requests(), 1);

  // The port asked last outlives a clear: a query goes back to it.
  tovCache.clearCache();
  EXPECT_EQ(tovCache.getNumberOfLetterEntries(a, tovInfo_C), -1);
  EXPECT_EQ(tovCluster.getNodeCount(a), 2);
  EXPECT_EQ(daemon.requests(), 2);
}

// A daemon may announce any poll time; waits use one from 1 s to 1 min.
TEST_F(InfoCache, PollTimeForWaitingIsOneSecondToOneMinute) {
  // Announced, for waiting, field, requests after a second refresh.
  const std::tuple<const char*, int, int, int> cases[] = {
      {"-4", 1, -4, 2},
      {"soon", 1, -1, 2},
      {"61", 60, 61, 1},
      {"2147483647", 60, 2147483647, 1}};
  for (const auto& [announced, forWaiting, field, requests] : cases) {
    SCOPED_TRACE(announced);
    Daemon daemon({infoReply(announced)});
    ASSERT_EQ(tovCache.refreshCache(kHost, daemon.portStr(), true), 0);
    testsupport::StreamCapture cerr;
    tovDebug.setDebugLevel(1);
    EXPECT_EQ(tovCache.getPollTime(kHost), forWaiting);
    tovDebug.setDebugLevel(0);
    EXPECT_NE(cerr.text().find(forWaiting == 60 ? announced : "using 1 s"),
              std::string::npos)
        << cerr.text();
    EXPECT_EQ(tovCluster.getPollTime(kHost), field);
    ASSERT_EQ(tovCache.refreshCache(kHost, daemon.portStr(), false), 0);
    EXPECT_EQ(daemon.requests(), requests);
  }
}

TEST_F(InfoCache, ClusterQueriesReadTheClusterRecord) {
  Daemon daemon({infoReply("5")});
  const std::string a = kHost;
  ASSERT_EQ(tovCache.refreshCache(a, daemon.portStr(), false), 0);
  EXPECT_EQ(tovCluster.getClusterName(a), "alpha");
  EXPECT_EQ(tovCluster.getNodeCount(a), 2);
  EXPECT_EQ(tovCluster.getServiceCount(""), 3);
  EXPECT_EQ(tovCluster.getConfigCRC(a), "9f3c");
  EXPECT_EQ(tovCluster.getSerialNumber(a), "17");
  EXPECT_EQ(tovCluster.getConfigMakeTime(a), 1700000000);
  EXPECT_EQ(tovCluster.getConfigSize(a), 512);
  EXPECT_EQ(tovCluster.getPollTime(a), 5);
  EXPECT_EQ(tovCluster.getStartupTime(a), 1700000100);
  EXPECT_EQ(tovCluster.getMachineBootstrap(a), 0);
  EXPECT_EQ(tovCluster.getClusterID(a), "alpha:9f3c");
  EXPECT_EQ(tovCluster.getAllClusterInfo(a, false), clusterLine("5"));
  const std::string pretty = tovCluster.getAllClusterInfo(a, true);
  for (const std::string& line : Strings{
           "Cluster name       : alpha\n", "Bootstrap mode     : no\n",
           "Configuration time : " + tovUtils::getTimeStr(1700000000) + "\n"}) {
    EXPECT_NE(pretty.find(line), std::string::npos) << line << pretty;
  }
  EXPECT_EQ(daemon.requests(), 1);
}

TEST(LocalHost, LoopbackNamesAndThisMachinesAddressesAreLocal) {
  for (const char* local : {"", "127.0.0.1", "127.3.4.5", "::1", "localhost"})
    EXPECT_TRUE(tovCache.isLocalHost(local)) << local;
  for (const char* remote : {"192.0.2.1", "2001:db8::1"})
    EXPECT_FALSE(tovCache.isLocalHost(remote)) << remote;
  ifaddrs* list = nullptr;
  ASSERT_EQ(getifaddrs(&list), 0);
  for (ifaddrs* it = list; it != nullptr; it = it->ifa_next) {
    if (it->ifa_addr == nullptr || it->ifa_addr->sa_family != AF_INET) continue;
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(it->ifa_addr)->sin_addr,
              text, sizeof text);
    EXPECT_TRUE(tovCache.isLocalHost(text)) << text;
  }
  freeifaddrs(list);
}

}  // namespace
