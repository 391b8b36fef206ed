// tovctl stays bounded whatever the network does: a name lookup that is
// never answered, discovery flooded with answers, replies larger than the
// memory it may use. The network cases run in a private network namespace
// (root only), where every packet stays on its loopback.
#include <poll.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <thread>

#include "netns/netns_lab.h"
#include "tovctl_fixture.h"

// Defined only where the address sanitizer runs.
extern "C" void __asan_init() __attribute__((weak));

namespace {

using namespace tovctltest;
using Clock = std::chrono::steady_clock;

// The figures a bound is measured by, for the record.
void figures(const std::string& what, const Outcome& r,
             const std::string& more = "") {
  std::cout << "[ figures  ] " << what << ": status " << r.status << ", "
            << r.seconds << " s, peak resident " << r.maxRssKb << " KiB, "
            << r.out.size() << " bytes out" << more << std::endl;
}

constexpr const char* kNoNamespace =
    "a private network namespace needs root and iproute2";

// Inside the private network, a name server that never answers.
TEST(TovctlBounds, ANameLookupNeverAnsweredEndsWithTheDeadline) {
  netnstest::PrivateNetwork net;
  if (!net.ready()) GTEST_SKIP() << kNoNamespace;
  netnstest::SilentNameserver dns;
  ASSERT_EQ(dns.why(), "");
  const std::string stuck =
      " failed: deadline of 1 s expired while the library was blocked in a "
      "call that does not give up (a name lookup?)";
  struct Case {
    Args args;
    int status;
    std::string line;  // on standard error; for check, on standard output
  };
  const std::vector<Case> cases{
      {{"--json", "services"},
       kLate,
       "reading the service list from node.example.test:1195" + stuck},
      {{"--json", "status"}, kLate, "status of node.example.test:1195" + stuck},
      {{"check"},
       3,
       "TOVCLUSTER UNKNOWN - deadline of 1 s expired: the library was "
       "blocked in a call that did not give up (a name lookup?)"},
  };
  for (const Case& c : cases) {
    Args args{"-H", "node.example.test", "--deadline", "1"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    SCOPED_TRACE(testing::PrintToString(args));
    const Outcome r = runTovctl(args);
    figures("name lookup never answered, " + testing::PrintToString(args), r);
    EXPECT_EQ(r.status, c.status) << r.err;
    // The deadline, its half-second grace, and a margin for a busy host.
    EXPECT_GE(r.seconds, 1.0);
    EXPECT_LT(r.seconds, 1.5 + 1.0);
    if (c.status != kLate) {
      EXPECT_EQ(r.out + r.err, c.line + "\n");
      continue;
    }
    const json e = expectFailure(r, kLate, c.line, true, true);
    EXPECT_EQ(json({e["deadline"], e["host"]}), json({1, "node.example.test"}));
  }
  EXPECT_GT(dns.queries(), 0) << "no query reached the name server";
  EXPECT_TRUE(net.leave());
}

// UDP datagrams the network the thread is in dropped for a full receive
// queue, as /proc counts them.
long receiveQueueDrops() {
  std::ifstream in("/proc/thread-self/net/snmp");
  std::vector<std::string> names;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("Udp: ", 0) != 0) continue;
    const Args fields = testsupport::words(line.substr(5));
    if (names.empty()) {
      names = fields;
      continue;
    }
    for (std::size_t i = 0; i < names.size() && i < fields.size(); ++i) {
      if (names[i] == "RcvbufErrors") return std::stol(fields[i]);
    }
  }
  return -1;
}

// A daemon's discovery port that answers each probe with a flood: first 18
// malformed answers (one cluster of 257 node lines, then node lines without
// a cluster), then kAnswers answers, each with a CRC of its own so that none
// is a duplicate of another. To the first probe each answer is a 256-node
// cluster in short node lines (the byte cap comes first), to the second a
// one-node cluster (the record cap comes first).
struct Flood {
  static constexpr int kAnswers = 6000;
  int fd = -1;
  // Of the first probe's answers: how many, how long, how large each.
  int sent = 0;
  double seconds = 0;
  std::size_t size = 0;

  bool answer(const sockaddr_in& to, const std::string& text) {
    return sendto(fd, text.data(), text.size(), 0,
                  reinterpret_cast<const sockaddr*>(&to), sizeof to) > 0;
  }

  // Answers two probes, each waited for at most 10 seconds.
  void serve() {
    std::string big = "C big 257 0 b1 -1 0 0 1 0 0 m d\n";
    for (int n = 0; n < 257; ++n) big += "N a b\n";
    for (const int nodes : {256, 1}) {
      pollfd w{fd, POLLIN, 0};
      char probe[16];
      sockaddr_in from{};
      socklen_t len = sizeof from;
      if (poll(&w, 1, 10000) != 1 ||
          recvfrom(fd, probe, sizeof probe, 0,
                   reinterpret_cast<sockaddr*>(&from), &len) != 8) {
        return;
      }
      const auto begun = Clock::now();
      answer(from, big);
      for (int i = 0; i < 17; ++i) answer(from, "N orphan 127.0.0.9 4");
      for (int i = 0; i < kAnswers; ++i) {
        char head[96];
        std::snprintf(head, sizeof head,
                      "C flood%05d %d 0 %08x -1 0 0 1 0 0 m%05d d\n", i, nodes,
                      i, i);
        std::string text = head;
        for (int n = 0; n < nodes; ++n) text += "N a b\n";
        if (answer(from, text) && nodes > 1) ++sent;
        if (nodes > 1) size = text.size();
        // A pause now and then, so that most arrive rather than overflow
        // the receiving queue.
        if (i % 32 == 31) usleep(500);
      }
      if (nodes > 1) {
        seconds = std::chrono::duration<double>(Clock::now() - begun).count();
      }
    }
  }
};

TEST(TovctlBounds, DiscoveryFloodedKeepsLittleAndEndsOnTime) {
  netnstest::PrivateNetwork net;
  if (!net.ready()) GTEST_SKIP() << kNoNamespace;
  Flood flood;
  flood.fd = testsupport::boundUdp("127.0.0.1", 1195);
  ASSERT_GE(flood.fd, 0);
  std::thread answering([&flood] { flood.serve(); });
  const Args discover{"--deadline", "3", "discover", "127.0.0.1"};
  Args asJson = discover;
  asJson.insert(asJson.begin(), "--json");
  const long dropsBefore = receiveQueueDrops();
  const Outcome j = runTovctl(asJson);
  const long queueDrops = receiveQueueDrops() - dropsBefore;
  const Outcome t = runTovctl(discover);
  answering.join();
  close(flood.fd);
  EXPECT_TRUE(net.leave());

  EXPECT_GT(flood.sent * flood.size, 8u << 20) << "several MiB";
  EXPECT_LT(flood.seconds, 1.0) << "in well under a second";
  // A sanitized build takes seconds more to write 4 MB of JSON: it gets
  // the suite's margin for slow hosts, twice the deadline plus a second.
  const double slack = __asan_init == nullptr ? 1.0 : 3 + 1.0;
  for (const Outcome* r : {&j, &t}) {
    EXPECT_EQ(r->status, 0) << r->err;
    EXPECT_LT(r->seconds, 3 + slack);
    EXPECT_LT(r->out.size(), 8u << 20);
    // The pre-bound tool kept every answer: over a gigabyte.
    if (__asan_init == nullptr) {
      EXPECT_LT(r->maxRssKb, 100000);
    }
  }
  const json doc = json::parse(j.out);
  const std::size_t kept = doc.at("count"), dropped = doc.at("dropped");
  figures("discovery flood, --json", j,
          ", " + std::to_string(kept) + " records kept, " +
              std::to_string(dropped) + " dropped, " + doc["lost"].dump() +
              " lost of " + std::to_string(flood.sent) + " sent in " +
              std::to_string(flood.seconds) + " s");
  figures("discovery flood, text", t);
  EXPECT_EQ(doc["limits"],
            json::parse(R"({"records": 1024, "bytes": 262144})"));
  EXPECT_GT(kept, 0u);
  EXPECT_LE(kept * flood.size, 262144u);
  EXPECT_GT(dropped, 0u);
  EXPECT_EQ(doc.at("dropped_bytes"), dropped * flood.size);
  // Every answer that reached the socket is kept, dropped or lost in its
  // queue; on a loaded host some are lost before it.
  EXPECT_EQ(doc.at("lost"), queueDrops);
  EXPECT_LE(kept + dropped + doc.at("lost").get<std::size_t>(),
            static_cast<std::size_t>(flood.sent));
  // The first 16 malformed answers are named, the rest counted.
  EXPECT_EQ(doc.at("skipped_count"), 18);
  EXPECT_EQ(doc.at("skipped").size(), 16u);
  EXPECT_EQ(doc["skipped"][0]["reason"],
            "cluster big has more than 256 node lines");
  EXPECT_EQ(doc["skipped"][15]["reason"], "node line before any cluster line");
  const std::vector<std::string> lines = linesOf(j.err);
  ASSERT_GE(lines.size(), 18u) << j.err;
  EXPECT_EQ(lines[0],
            "tovctl: warning: skipped the answer from 127.0.0.1: cluster big "
            "has more than 256 node lines");
  EXPECT_EQ(lines[16], "tovctl: warning: 2 more malformed answer(s) skipped");
  EXPECT_THAT(lines[17], testing::MatchesRegex(
                             "tovctl: warning: [0-9]+ answer\\(s\\) dropped "
                             "\\([0-9]+ bytes\\): at most 1024 records and "
                             "256 KiB of answers are kept"));
  EXPECT_EQ(lines.size(), doc["lost"] > 0 ? 19u : 18u) << j.err;
  EXPECT_THAT(t.err, HasSubstr("answer(s) dropped ("));
  EXPECT_THAT(t.out, testing::AllOf(HasSubstr(" Cluster Name : flood00000\n"),
                                    HasSubstr(" Found 1024 cluster(s)\n")));
}

// Replies too large for the memory tovctl may use: every command ends in
// one line and, with --json, one document, with a documented status.
TEST_F(Tovctl, OutOfMemoryIsReportedLikeAnyFailure) {
  if (__asan_init != nullptr) {
    GTEST_SKIP() << "an address-space limit cannot be combined with the "
                    "sanitizers' shadow memory";
  }
  sim_ = startSim({"--pad-to", "104857600"});
  const std::string oom = " failed: out of memory (std::bad_alloc)";
  const std::string threw =
      " failed: exception while collecting cluster information "
      "(TOV_EXCEPT_ALLINFO, code 39)";
  struct Case {
    Args args;
    int status;
    std::string line;  // after "tovctl: "
  };
  const std::vector<Case> cases{
      {{"services"}, 97, "reading the service list from " + at() + oom},
      {{"info"}, 97, "reading the cluster information from " + at() + oom},
      {{"send", "V 0"}, 97, "request \"V 0\" to " + at() + oom},
      {{"status"}, 39, "status of the cluster through " + at() + threw},
      {{"probe"},
       39,
       "probe of " + at() + threw +
           "; reading the cluster information threw: std::bad_alloc"},
  };
  RunOptions limited;
  limited.addressSpaceKb = 300000;
  limited.limitSec = 60;  // a 100 MiB reply is slow on a busy host
  for (const Case& c : cases) {
    for (const bool asJson : {false, true}) {
      SCOPED_TRACE(testing::PrintToString(c.args) + (asJson ? " json" : ""));
      Args args = c.args;
      if (asJson) args.insert(args.begin(), "--json");
      const Outcome r = tool(args, limited);
      figures("100 MiB reply under 300000 KiB, " + testing::PrintToString(args),
              r);
      expectFailure(r, c.status, c.line, asJson, true);
    }
  }
}

}  // namespace
