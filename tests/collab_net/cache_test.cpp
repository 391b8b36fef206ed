// The information cache and the cluster queries: reply parser, refresh
// policy against a loopback daemon, lookups, and the Cluster answers.
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>

#include <chrono>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "loopback_daemon.h"
#include "support/stream_capture.h"
#include "tovapi/internal_cache.h"
#include "tovapi/libtovapi.h"

using namespace tov1;
using cacheinternal::InfoTable;

namespace {

const char kClusterLine[] =
    "C alpha 2 3 9f3c 17 1700000000 512 POLL 1700000100 0 node1 test_cluster";

std::string clusterLine(const std::string& poll,
                        const std::string& name = "alpha") {
  std::string c = kClusterLine;
  c.replace(c.find("POLL"), 4, poll);
  c.replace(c.find("alpha"), 5, name);
  return c;
}

std::string infoReply(const std::string& poll = "3600",
                      const std::string& name = "alpha") {
  return "Cn cluster information\n" + clusterLine(poll, name) +
         "\n"
         "N node1 127.0.0.1 4\n"
         "N node2 127.0.0.2 4\n"
         "S 0 web running auto 0 node1\n"
         "S 1 db stopped manual 0 -\n"
         "S 2 mail broken auto 1 -\n"
         "V 1.0 2.2\n"
         "X extra stuff\n";
}

using CerrCapture = testsupport::StreamCapture;

// Every test starts from an empty cache and leaves one behind.
class InfoCache : public ::testing::Test {
 protected:
  void SetUp() override { tovCache.clearCache(); }
  void TearDown() override { tovCache.clearCache(); }

  // A port on which nothing listens any more.
  static std::string deadPort() {
    LoopbackDaemon gone("");
    std::string port = gone.port();
    gone.stop();
    return port;
  }
};

}  // namespace

TEST(InfoParser, SortsRecordsByKind) {
  InfoTable table;
  std::string why;
  ASSERT_TRUE(cacheinternal::parseInfoReply(infoReply("5"), table, why)) << why;
  ASSERT_EQ(table.size(), static_cast<std::size_t>(tovInfo_COUNT));
  ASSERT_EQ(table[tovInfo_C].size(), 1u);
  EXPECT_EQ(table[tovInfo_C][0].size(), static_cast<std::size_t>(c_SIZE_OK));
  EXPECT_EQ(table[tovInfo_C][0][0], "C");
  EXPECT_EQ(table[tovInfo_C][0][c_poll_time], "5");
  EXPECT_EQ(table[tovInfo_C][0][c_machine_desc], "test_cluster");
  EXPECT_EQ(table[tovInfo_N].size(), 2u);
  EXPECT_EQ(table[tovInfo_N][1][n_ip_address], "127.0.0.2");
  EXPECT_EQ(table[tovInfo_S].size(), 3u);
  EXPECT_EQ(table[tovInfo_V].size(), 1u);
  ASSERT_EQ(table[tovInfo_MISC].size(), 1u);
  EXPECT_EQ(table[tovInfo_MISC][0],
            (std::vector<std::string>{"X", "extra", "stuff"}));
}

TEST(InfoParser, ToleratesBlankLinesRunsOfBlanksAndCrLf) {
  std::string reply =
      "Cn info\r\n\r\n" + std::string(kClusterLine) +
      "\r\n   \nN  node1\t127.0.0.1  4 \r\nSvc long first field\n";
  InfoTable table;
  std::string why;
  ASSERT_TRUE(cacheinternal::parseInfoReply(reply, table, why)) << why;
  EXPECT_EQ(table[tovInfo_C][0].size(), static_cast<std::size_t>(c_SIZE_OK));
  EXPECT_EQ(table[tovInfo_N][0],
            (std::vector<std::string>{"N", "node1", "127.0.0.1", "4"}));
  // Only a single-character first field is a record letter.
  ASSERT_EQ(table[tovInfo_MISC].size(), 1u);
  EXPECT_EQ(table[tovInfo_MISC][0][0], "Svc");
}

TEST(InfoParser, RefusesUntrustworthyReplies) {
  const std::string c = kClusterLine;
  const struct {
    std::string reply;
    const char* why;
  } cases[] = {
      {"", "not a data reply"},
      {"C", "not a data reply"},
      {"Ck daemon busy\n", "not a data reply"},
      {"Cn info\n", "no cluster record"},
      {"Cn info\nN node1 127.0.0.1 4\n", "no cluster record"},
      {"Cn info\nC alpha 2 3 9f3c 17 1 512 5 1 0 node1\n", "has 12 fields"},
      {"Cn info\n" + c + " extra\n", "has 14 fields"},
      {"Cn info\n" + c + "\n" + c + "\n", "more than one cluster record"},
  };
  for (const auto& tc : cases) {
    InfoTable table(1, {{"keep"}});
    std::string why;
    EXPECT_FALSE(cacheinternal::parseInfoReply(tc.reply, table, why))
        << tc.reply;
    EXPECT_NE(why.find(tc.why), std::string::npos) << why;
    EXPECT_EQ(table, InfoTable(1, {{"keep"}})) << "output must stay untouched";
  }
}

TEST(InfoParser, LettersAndKindsCorrespond) {
  const std::string letters = "BCFGHINPRSVW";
  for (unsigned kind = tovInfo_B; kind < tovInfo_COUNT; ++kind) {
    char letter = cacheinternal::letterOfKind(kind);
    EXPECT_EQ(letter, letters[kind - 1]);
    EXPECT_EQ(cacheinternal::kindOfLetter(letter), kind);
  }
  EXPECT_EQ(cacheinternal::letterOfKind(tovInfo_MISC), '\0');
  EXPECT_EQ(cacheinternal::letterOfKind(tovInfo_COUNT), '\0');
  for (char other : {'A', 'X', 'c', '\0', ' '})
    EXPECT_EQ(cacheinternal::kindOfLetter(other), tovInfo_MISC) << other;
}

TEST(InfoParser, FieldToInt) {
  const struct {
    const char* text;
    bool ok;
    int value;
  } cases[] = {
      {"5", true, 5},
      {"-3", true, -3},
      {"+7", true, 7},
      {"2147483647", true, 2147483647},
      {"-2147483648", true, -2147483647 - 1},
      {"2147483648", false, 0},
      {"-2147483649", false, 0},
      {"99999999999999999999", false, 0},
      {"", false, 0},
      {"-", false, 0},
      {"12a", false, 0},
      {" 5", false, 0},
  };
  for (const auto& c : cases) {
    int value = 0;
    EXPECT_EQ(cacheinternal::fieldToInt(c.text, value), c.ok) << c.text;
    if (c.ok) {
      EXPECT_EQ(value, c.value) << c.text;
    }
  }
}

TEST_F(InfoCache, RefreshFetchesOnceWhileFreshAndAgainWhenForced) {
  LoopbackDaemon daemon(infoReply("3600"));
  ASSERT_TRUE(daemon.ok());
  EXPECT_EQ(tovCache.refreshCache("127.0.0.1", daemon.port(), false), 0);
  EXPECT_EQ(daemon.requests(), 1);
  EXPECT_EQ(daemon.lastRequest(), "CCN\n");
  EXPECT_EQ(tovCache.refreshCache("", daemon.port(), false), 0);
  EXPECT_EQ(daemon.requests(), 1) << "fresh data must not be fetched again";
  EXPECT_EQ(tovCache.refreshCache("127.0.0.1", daemon.port(), true), 0);
  EXPECT_EQ(daemon.requests(), 2);
}

TEST_F(InfoCache, StaleDataIsFetchedAgain) {
  LoopbackDaemon daemon(infoReply("0"));
  ASSERT_TRUE(daemon.ok());
  for (int i = 1; i <= 3; ++i) {
    EXPECT_EQ(tovCache.refreshCache("127.0.0.1", daemon.port(), false), 0);
    EXPECT_EQ(daemon.requests(), i) << "poll time 0 is always stale";
  }
  daemon.setReply(infoReply("1"));
  EXPECT_EQ(tovCache.refreshCache("127.0.0.1", daemon.port(), true), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  EXPECT_EQ(tovCache.refreshCache("127.0.0.1", daemon.port(), false), 0);
  EXPECT_EQ(daemon.requests(), 5) << "one poll time has passed";
}

TEST_F(InfoCache, AnotherPortIsAnotherDaemon) {
  LoopbackDaemon first(infoReply("3600", "first"));
  LoopbackDaemon second(infoReply("3600", "second"));
  ASSERT_TRUE(first.ok() && second.ok());
  ASSERT_EQ(tovCache.refreshCache("127.0.0.1", first.port(), false), 0);
  ASSERT_EQ(tovCache.refreshCache("127.0.0.1", second.port(), false), 0);
  EXPECT_EQ(second.requests(), 1);
  EXPECT_EQ(tovCache.tovInfoGetValue("127.0.0.1", tovInfo_C, 0, c_cluster_name),
            "second");
}

TEST_F(InfoCache, FailedFetchKeepsOldData) {
  LoopbackDaemon daemon(infoReply("3600"));
  ASSERT_TRUE(daemon.ok());
  ASSERT_EQ(tovCache.refreshCache("127.0.0.1", daemon.port(), false), 0);

  const struct {
    std::string reply;
    int result;
    const char* message;
  } refusals[] = {
      {"Ck daemon busy\n", -static_cast<int>(TOV_COMMS_BUSY), "daemon busy"},
      {"Ca ok\n", -static_cast<int>(TOV_NO_DATA), "no cluster information"},
      {"", -static_cast<int>(TOV_COMMS_BADRESPONSE), "no cluster information"},
      {"Cn info\nN node9 127.0.0.9 4\n",
       -static_cast<int>(TOV_RNC_CORRUPTENTRY), "no cluster record"},
      {"Cn info\nC short record\n", -static_cast<int>(TOV_RNC_CORRUPTENTRY),
       "has 3 fields"},
  };
  for (const auto& r : refusals) {
    daemon.setReply(r.reply);
    CerrCapture cerr;
    EXPECT_EQ(tovCache.refreshCache("127.0.0.1", daemon.port(), true), r.result)
        << r.reply;
    EXPECT_NE(cerr.text().find(r.message), std::string::npos) << cerr.text();
    EXPECT_EQ(tovCluster.getClusterName("127.0.0.1"), "alpha");
    EXPECT_EQ(tovCache.getNumberOfLetterEntries("127.0.0.1", tovInfo_S), 3);
  }

  daemon.stop();
  {
    CerrCapture cerr;
    EXPECT_LT(tovCache.refreshCache("127.0.0.1", daemon.port(), true), 0);
  }
  EXPECT_EQ(tovCluster.getClusterName("127.0.0.1"), "alpha");
}

TEST_F(InfoCache, SuccessfulFetchReplacesAllOfTheHostsData) {
  LoopbackDaemon daemon(infoReply("3600"));
  ASSERT_TRUE(daemon.ok());
  ASSERT_EQ(tovCache.refreshCache("127.0.0.1", daemon.port(), false), 0);
  daemon.setReply("Cn info\n" + clusterLine("7", "beta") + "\n");
  ASSERT_EQ(tovCache.refreshCache("127.0.0.1", daemon.port(), true), 0);
  EXPECT_EQ(tovCluster.getClusterName("127.0.0.1"), "beta");
  EXPECT_EQ(tovCluster.getPollTime("127.0.0.1"), 7);
  EXPECT_EQ(tovCache.getNumberOfLetterEntries("127.0.0.1", tovInfo_S), 0);
  EXPECT_EQ(tovCache.getNumberOfLetterEntries("127.0.0.1", tovInfo_MISC), 0);
}

TEST_F(InfoCache, LookupsOnCachedData) {
  LoopbackDaemon daemon(infoReply("3600"));
  ASSERT_TRUE(daemon.ok());
  const std::string a = "127.0.0.1";
  const std::string p = daemon.port();
  ASSERT_EQ(tovCache.refreshCache(a, p, false), 0);

  EXPECT_EQ(tovCache.tovInfoGetValueVector(a, tovInfo_V, 0),
            (std::vector<std::string>{"V", "1.0", "2.2"}));
  EXPECT_EQ(tovCache.tovInfoGetValue(a, tovInfo_S, 2, 3), "broken");
  EXPECT_EQ(tovCache.getNumberOfLetterEntries(a, tovInfo_N), 2);
  EXPECT_EQ(tovCache.getNumberOfLetterEntries(a, tovInfo_B), 0);

  EXPECT_EQ(tovCache.infoHandler('S', 1, 2, a, p), "db");
  EXPECT_EQ(tovCache.infoCharHandler('S', 1, 4, a, p), 'm');
  EXPECT_EQ(tovCache.infoIntHandler('C', 0, c_poll_time, a, p), 3600);
  EXPECT_EQ(tovCache.infoIntHandler('S', 0, 2, a, p), -1);
  EXPECT_EQ(tovCache.infoVecHandler('N', 1, 1, a, p),
            (std::vector<std::string>{"node2", "127.0.0.2", "4"}));
  EXPECT_EQ(tovCache.getAllLetterInfoHandler('S', a, false, p).size(), 3u);
  auto misc = tovCache.getAllLetterInfoHandler('X', a, false, "");
  ASSERT_EQ(misc.size(), 1u);
  EXPECT_EQ(misc[0][1], "extra");
  EXPECT_TRUE(tovCache.getAllLetterInfoHandler('Q', a, false, p).empty());
  EXPECT_EQ(daemon.requests(), 1) << "queries of fresh data stay local";

  EXPECT_EQ(tovCache.getHostnameForNode("127.0.0.2"), "node2");
  EXPECT_EQ(tovCache.getHostnameForNode(""), "node1");
  EXPECT_EQ(tovCache.getPollTime(a), 60) << "a busy retry waits a minute";

  // Out of range anywhere: empty answers, never a crash.
  const auto badKind = static_cast<tov_info_letters>(99);
  EXPECT_TRUE(tovCache.tovInfoGetValueVector(a, badKind, 0).empty());
  EXPECT_TRUE(tovCache.tovInfoGetValueVector(a, tovInfo_S, 3).empty());
  EXPECT_EQ(tovCache.tovInfoGetValue(a, tovInfo_C, 0, c_SIZE_OK), "");
  EXPECT_EQ(tovCache.tovInfoGetValue(a, tovInfo_C, 1, 0), "");
  EXPECT_EQ(tovCache.getNumberOfLetterEntries(a, badKind), -1);
  EXPECT_EQ(tovCache.infoHandler('S', 9, 0, a, p), "");
  EXPECT_EQ(tovCache.infoHandler('S', 0, 40, a, p), "");
  EXPECT_EQ(tovCache.infoCharHandler('S', 0, 40, a, p), '\0');
  EXPECT_TRUE(tovCache.infoVecHandler('S', 0, 7, a, p).empty());
  EXPECT_EQ(daemon.requests(), 1);
}

TEST_F(InfoCache, UnknownHostsGiveEmptyAnswers) {
  const std::string h = "127.0.0.77";
  EXPECT_EQ(tovCache.getNumberOfLetterEntries(h, tovInfo_C), -1);
  EXPECT_EQ(tovCache.tovInfoGetValue(h, tovInfo_C, 0, c_cluster_name), "");
  EXPECT_TRUE(tovCache.tovInfoGetValueVector(h, tovInfo_C, 0).empty());
  EXPECT_EQ(tovCache.getHostnameForNode(h), "");

  // Queries that fetch go to the port last asked for this host.
  std::string port = deadPort();
  CerrCapture cerr;
  EXPECT_LT(tovCache.refreshCache(h, port, false), 0);
  EXPECT_EQ(cacheinternal::rememberedPort(tovCache, h), port);
  EXPECT_EQ(tovCache.getPollTime(h), 1);
  EXPECT_EQ(tovCluster.getServiceCount(h), -1);
  EXPECT_EQ(tovCluster.getClusterName(h), "");
  EXPECT_EQ(tovCluster.getClusterID(h), "");
  EXPECT_EQ(tovCluster.getAllClusterInfo(h, true), "");
  EXPECT_EQ(tovCache.infoHandler('C', 0, 1, h, ""), "");
  EXPECT_TRUE(tovCache.getAllLetterInfoHandler('N', h, true, "").empty());
}

TEST_F(InfoCache, RememberedPortOutlivesClearCache) {
  LoopbackDaemon daemon(infoReply("3600"));
  ASSERT_TRUE(daemon.ok());
  ASSERT_EQ(tovCache.refreshCache("127.0.0.1", daemon.port(), false), 0);
  tovCache.clearCache();
  EXPECT_EQ(tovCache.getNumberOfLetterEntries("127.0.0.1", tovInfo_C), -1);
  EXPECT_EQ(tovCluster.getNodeCount("127.0.0.1"), 2);
  EXPECT_EQ(daemon.requests(), 2);
}

TEST_F(InfoCache, PollTimeForWaitingIsOneSecondToOneMinute) {
  const struct {
    const char* announced;
    int forWaiting, field;
    int requestsAfterSecondRefresh;  // 2: unusable, always stale
  } cases[] = {
      {"-4", 1, -4, 2},
      {"soon", 1, -1, 2},
      {"61", 60, 61, 1},
      {"2147483647", 60, 2147483647, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.announced);
    LoopbackDaemon daemon(infoReply(c.announced));
    ASSERT_TRUE(daemon.ok());
    ASSERT_EQ(tovCache.refreshCache("127.0.0.1", daemon.port(), true), 0);
    std::string traces;
    {
      CerrCapture cerr;
      tovDebug.setDebugLevel(1);
      EXPECT_EQ(tovCache.getPollTime("127.0.0.1"), c.forWaiting);
      tovDebug.setDebugLevel(0);
      traces = cerr.text();
    }
    EXPECT_NE(traces.find(c.forWaiting == 60 ? c.announced : "using 1 second"),
              std::string::npos)
        << traces;
    EXPECT_EQ(tovCluster.getPollTime("127.0.0.1"), c.field);
    ASSERT_EQ(tovCache.refreshCache("127.0.0.1", daemon.port(), false), 0);
    EXPECT_EQ(daemon.requests(), c.requestsAfterSecondRefresh);
  }
}

TEST_F(InfoCache, ClusterQueriesReadTheClusterRecord) {
  LoopbackDaemon daemon(infoReply("5"));
  ASSERT_TRUE(daemon.ok());
  const std::string a = "127.0.0.1";
  ASSERT_EQ(tovCache.refreshCache(a, daemon.port(), false), 0);

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
  std::string pretty = tovCluster.getAllClusterInfo(a, true);
  for (const std::string& line : std::vector<std::string>{
           "Cluster name       : alpha\n", "Services           : 3\n",
           "Poll time          : 5 second(s)\n", "Bootstrap mode     : no\n",
           "Configuration time : " + tovUtils::getTimeStr(1700000000) + "\n"}) {
    EXPECT_NE(pretty.find(line), std::string::npos) << line << pretty;
  }
  EXPECT_EQ(daemon.requests(), 1);
}

TEST_F(InfoCache, LocalHostRecognition) {
  const struct {
    const char* address;
    bool local;
  } cases[] = {
      {"", true},
      {"127.0.0.1", true},
      {"127.3.4.5", true},
      {"::1", true},
      {"localhost", true},
      {"192.0.2.1", false},
      {"2001:db8::1", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(tovCache.isLocalHost(c.address), c.local) << c.address;
  }

  // Any address of this machine's interfaces counts as local.
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
