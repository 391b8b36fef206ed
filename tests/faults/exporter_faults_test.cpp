// The exporter's HTTP side in the fault matrix: hostile clients, a taken
// address, what its children hold, and scrapes that must end by their
// deadline whatever the network does. Every row is bounded in time and
// checks the exporter's descriptors (/proc/PID/fd) and child processes
// before and after; the figures are printed for docs/fault-matrix.md.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "netns/netns_lab.h"
#include "support/exporter.h"
#include "support/net_helpers.h"
#include "support/sim.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace testsupport;

constexpr double kRequestDeadline = 5;  // the exporter's, for a whole request
constexpr int kCrowd = 100;

double since(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

// The row's exporter. Its descriptors and processes when it came up must
// be back to that at the end of the row (waited for a few seconds at most).
class RowExporter : public Exporter {
 public:
  explicit RowExporter(Strings args, const std::string& listen = "127.0.0.1:0")
      : Exporter(std::move(args), {}, listen),
        fds_(descriptors(pid()).size()),
        children_(descendants(pid()).size()) {}
  ~RowExporter() {
    if (port() == 0) return;
    std::size_t fds = 0, children = 0;
    const auto begun = Clock::now();
    pollFor(kRequestDeadline + 2, [&] {
      fds = descriptors(pid()).size();
      children = descendants(pid()).size();
      return fds == fds_ && children == children_;
    });
    EXPECT_EQ(fds, fds_) << "descriptors left open";
    EXPECT_EQ(children, children_) << "processes left behind";
    std::printf(
        "[ figures  ] descriptors %zu before, %zu after; processes %zu "
        "before, %zu after (settled in %.2f s)\n",
        fds_, fds, children_, children, since(begun));
  }

 private:
  std::size_t fds_, children_;
};

// What a scrape shows of a cluster with n2 on 127.0.96.2, in a simulator
// on `address`.
std::unique_ptr<simtest::SimProcess> startSim(const std::string& address,
                                              int port = 0,
                                              Strings extra = {}) {
  return simtest::startSim(extra, R"({"cluster": {"name": "c", "poll_time": 1},
    "nodes": [{"name": "n1", "address": "127.0.96.1"},
              {"name": "n2", "address": "127.0.96.2"}],
    "services": [{"name": "web", "state": "running", "mode": "auto",
                  "node": "n1"}]})",
                           {address}, port);
}

// The responses in `raw`, one after the other, each as long as its
// Content-Length says.
struct Response {
  std::string status;  // "200"
  std::string head;
  std::string body;
};
std::vector<Response> responses(std::string raw) {
  std::vector<Response> out;
  for (;;) {
    const std::size_t headEnd = raw.find("\r\n\r\n");
    if (raw.compare(0, 5, "HTTP/") != 0 || headEnd == std::string::npos) break;
    Response r;
    r.head = raw.substr(0, headEnd);
    r.status = raw.substr(9, 3);
    const std::size_t at = r.head.find("Content-Length: ");
    const std::size_t length =
        at == std::string::npos ? 0 : std::stoul(r.head.substr(at + 16));
    r.body = raw.substr(headEnd + 4, length);
    out.push_back(r);
    raw.erase(0, std::min(raw.size(), headEnd + 4 + length));
  }
  return out;
}

// ---------------------------------------------------------------------
// Held connections: many clients that never finish a request, slowly or
// not at all, while a real scrape comes in.

struct Crowd {
  const char* name;
  bool trickles;  // the request line, then one byte a second
};
void PrintTo(const Crowd& c, std::ostream* os) { *os << c.name; }

class HeldConnections : public testing::TestWithParam<Crowd> {};

// Connects `n` clients and returns once the exporter has taken them all.
std::vector<Socket> crowd(const RowExporter& e, int n) {
  const std::size_t idle = descriptors(e.pid()).size();
  std::vector<Socket> held;
  for (int i = 0; i < n; ++i) held.push_back(connectTcp("127.0.0.1", e.port()));
  EXPECT_TRUE(pollFor(3, [&] {
    return descriptors(e.pid()).size() >= idle + n;
  })) << "the connections were not taken";
  return held;
}

// The scrape is answered within its deadline (1.5 s: the header's 2 less
// the margin), and every held connection is closed by the request deadline
// counted from its accept, however its bytes trickle in.
TEST_P(HeldConnections, AScrapeIsAnsweredAndEachIsClosedAtTheRequestDeadline) {
  auto sim = startSim("127.0.96.1");
  RowExporter e({"-p", sim->portStr()});
  ASSERT_GT(e.port(), 0) << e.log();
  const auto begun = Clock::now();
  std::vector<Socket> held = crowd(e, kCrowd);
  if (GetParam().trickles) {
    for (const Socket& s : held) sendAll(s.fd, "GET /metrics HTTP/1.1\r\n");
  }
  Scrape real;
  std::thread prometheus(
      [&] { real = scrape(e.port(), "/probe?target=127.0.96.1", "2"); });
  // Until each is closed by the exporter: one byte a second meanwhile.
  std::vector<double> closedAt(held.size(), -1);
  auto tick = Clock::now();
  while (since(begun) < kRequestDeadline + 3 &&
         std::count(closedAt.begin(), closedAt.end(), -1) > 0) {
    if (GetParam().trickles && Clock::now() >= tick) {
      for (std::size_t i = 0; i < held.size(); ++i) {
        if (closedAt[i] < 0) sendAll(held[i].fd, "X");
      }
      tick += std::chrono::seconds(1);
    }
    std::vector<pollfd> fds;
    for (const Socket& s : held) fds.push_back({s.fd, POLLIN, 0});
    if (poll(fds.data(), fds.size(), 50) <= 0) continue;
    for (std::size_t i = 0; i < held.size(); ++i) {
      char c;
      if (fds[i].revents != 0 && closedAt[i] < 0 &&
          recv(held[i].fd, &c, 1, MSG_DONTWAIT) <= 0) {
        closedAt[i] = since(begun);
      }
    }
  }
  prometheus.join();
  held.clear();
  EXPECT_EQ(real.status, 200);
  expectLines(real.body, {"tov_up 1"});
  EXPECT_LT(real.seconds, 1.5);
  const auto [first, last] =
      std::minmax_element(closedAt.begin(), closedAt.end());
  EXPECT_GE(*first, kRequestDeadline - 0.1) << "closed before its deadline";
  EXPECT_LE(*last, kRequestDeadline + 0.5) << "held past its deadline";
  std::printf(
      "[ figures  ] %s: scrape %.3f s with %d held; held ones "
      "closed at %.2f-%.2f s\n",
      GetParam().name, real.seconds, kCrowd, *first, *last);
}

INSTANTIATE_TEST_SUITE_P(ExporterFaults, HeldConnections,
                         testing::Values(Crowd{"slow_connections", true},
                                         Crowd{"idle_connections", false}),
                         [](const testing::TestParamInfo<Crowd>& info) {
                           return info.param.name;
                         });

// Beyond the bound on connections held (512) one more is closed as soon as
// it is accepted; once they go, scrapes are answered again.
TEST(ExporterFaults, AConnectionBeyondTheBoundIsClosedAtOnce) {
  RowExporter e({});
  ASSERT_GT(e.port(), 0) << e.log();
  std::vector<Socket> held = crowd(e, 512);
  const Socket extra = connectTcp("127.0.0.1", e.port());
  const auto begun = Clock::now();
  EXPECT_TRUE(readFor(extra.fd, std::string::npos, 1000).closed());
  const double took = since(begun);
  EXPECT_LT(took, 0.5);
  held.clear();
  const Scrape after = scrape(e.port(), "/metrics");
  EXPECT_EQ(after.status, 200);
  std::printf(
      "[ figures  ] connections_beyond_512: closed in %.3f s; a scrape "
      "after %.3f s\n",
      took, after.seconds);
}

// ---------------------------------------------------------------------
// Requests as a hostile client writes them, each answered as HTTP wants
// within a second.

struct Exchange {
  const char* name;
  Strings statuses;  // of the responses, in order
  bool halfClose;
  bool closes;  // the exporter closes after them
  std::string request;
};
void PrintTo(const Exchange& x, std::ostream* os) { *os << x.name; }

const std::string kGet = "GET /metrics HTTP/1.1\r\nHost: t\r\n\r\n";
const std::string kPage = "GET / HTTP/1.1\r\nHost: t\r\n";

std::string manyRanges() {
  std::string r = kPage + "Range: bytes=0-0";
  for (int i = 1; i < 1000; ++i) r += ",0-";
  return r + "\r\nConnection: close\r\n\r\n";
}
const std::string kPipelined =
    kPage + "\r\n" + kGet + "GET /nope HTTP/1.1\r\nHost: t\r\n\r\n";
const std::string kBigHead =
    kPage + "X-Big: " + std::string(9000, 'a') + "\r\n\r\n";
const std::string kBigBody =
    "POST / HTTP/1.1\r\nHost: t\r\nContent-Length: 5000\r\n\r\n";

const Exchange kExchanges[] = {
    {"pipelined", {"200", "200", "404"}, false, false, kPipelined},
    {"half_closed", {"200"}, true, true, kGet},
    {"range_of_1000_parts", {"200"}, false, true, manyRanges()},
    {"headers_beyond_8_kib", {"431"}, false, true, kBigHead},
    {"body_beyond_4_kib", {"413"}, false, true, kBigBody},
};

class Request : public testing::TestWithParam<Exchange> {};

TEST_P(Request, IsAnsweredInOrderAndWhole) {
  const Exchange& x = GetParam();
  RowExporter e({});
  ASSERT_GT(e.port(), 0) << e.log();
  const std::string landing = scrape(e.port(), "/").body;  // the small page
  ASSERT_FALSE(landing.empty());
  const Socket s = connectTcp("127.0.0.1", e.port());
  const auto begun = Clock::now();
  sendAll(s.fd, x.request);
  if (x.halfClose) shutdown(s.fd, SHUT_WR);
  std::string raw;
  bool closed = false;
  const auto read = [&](double seconds) {
    const Got more =
        readFor(s.fd, std::string::npos, static_cast<int>(seconds * 1000));
    raw += more.bytes;
    closed = more.closed();
  };
  // Until the exporter closes, or every response is in.
  while (since(begun) < 1 && !closed &&
         responses(raw).size() < x.statuses.size()) {
    read(0.05);
  }
  if (x.closes && !closed) read(1 - since(begun));
  const std::vector<Response> answers = responses(raw);
  const double took = since(begun);
  Strings statuses;
  for (const Response& r : answers) statuses.push_back(r.status);
  EXPECT_EQ(statuses, x.statuses) << raw.substr(0, 2000);
  EXPECT_EQ(closed, x.closes);
  EXPECT_LT(took, 1);
  for (const Response& r : answers) {
    // Never a part of a page: always the whole of it.
    EXPECT_EQ(r.head.find("Content-Range"), std::string::npos);
    if (r.body.rfind("<!DOCTYPE", 0) == 0) {
      EXPECT_EQ(r.body, landing);
    }
  }
  if (x.statuses.size() > 1) {
    expectLines(answers.at(1).body, {"tov_exporter_build_info*"});
  }
  std::printf("[ figures  ] %s: %zu response(s) in %.3f s, %zu bytes\n", x.name,
              answers.size(), took, raw.size());
}

INSTANTIATE_TEST_SUITE_P(ExporterFaults, Request, testing::ValuesIn(kExchanges),
                         [](const testing::TestParamInfo<Exchange>& info) {
                           return std::string(info.param.name);
                         });

// ---------------------------------------------------------------------
// The listening socket.

// Status 2 and one line naming the address; the first exporter goes on
// serving every scrape.
TEST(ExporterFaults, ASecondExporterOnATakenAddressIsRefused) {
  RowExporter first({});
  ASSERT_GT(first.port(), 0) << first.log();
  const std::string address = "127.0.0.1:" + std::to_string(first.port());
  const auto begun = Clock::now();
  RowExporter second({}, address);
  EXPECT_EQ(second.stop(10), 2);
  std::printf("[ figures  ] taken_address: refused in %.3f s\n", since(begun));
  EXPECT_EQ(second.log(), "tovexporter: cannot listen on " + address +
                              ": Address already in use\n");
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(scrape(first.port(), "/metrics").status, 200);
  }
}

// During a scrape that probes a stalled node, the snapshot process and its
// probe worker hold none of the exporter's sockets.
TEST(ExporterFaults, ChildrenHoldNoneOfTheExportersSockets) {
  auto sim = startSim("127.0.96.1");
  auto stalled =
      startSim("127.0.96.2", sim->port(), {"--reply-delay", "600000"});
  RowExporter e({"-p", sim->portStr(), "--deadline", "4"});
  ASSERT_GT(e.port(), 0) << e.log();
  Scrape s;
  std::thread prometheus(
      [&] { s = scrape(e.port(), "/probe?target=127.0.96.1"); });
  std::vector<pid_t> children;
  EXPECT_TRUE(pollFor(2, [&] {
    children = descendants(e.pid());
    return children.size() >= 2;
  })) << "no snapshot process with a probe worker";
  std::set<std::string> sockets;
  for (const std::string& link : descriptors(e.pid())) {
    if (link.rfind("socket:", 0) == 0) sockets.insert(link);
  }
  EXPECT_GE(sockets.size(), 2u);  // listening, and the scrape's connection
  std::size_t shared = 0, held = 0;
  for (const pid_t child : children) {
    for (const std::string& link : descriptors(child)) {
      ++held;
      shared += sockets.count(link);
    }
  }
  prometheus.join();
  EXPECT_EQ(shared, 0u);
  expectLines(s.body,
              {"tov_up 1", R"(tov_node_up{node="n2",address="127.0.96.2"} 0)"});
  std::printf(
      "[ figures  ] children_hold_no_socket: %zu processes below the "
      "exporter, %zu descriptors, %zu of the exporter's %zu sockets; "
      "scrape %.2f s\n",
      children.size(), held, shared, sockets.size(), s.seconds);
}

// ---------------------------------------------------------------------
// Deadlines.

// --deadline 0 is no deadline: a scrape that comes while its target's
// snapshot is being taken (the daemon answers after 1.5 s) waits for it
// and is answered from it, not failed at once.
TEST(ExporterFaults, DeadlineZeroWaitsForTheSnapshotInFlight) {
  auto sim = startSim("127.0.96.1", 0, {"--reply-delay", "1500"});
  RowExporter e({"-p", sim->portStr(), "--deadline", "0"});
  ASSERT_GT(e.port(), 0) << e.log();
  const std::string path = "/probe?target=127.0.96.1";
  Scrape first, second;
  std::thread one([&] { first = scrape(e.port(), path); });
  EXPECT_TRUE(pollFor(2, [&] { return !descendants(e.pid()).empty(); }));
  std::thread two([&] { second = scrape(e.port(), path); });
  one.join();
  two.join();
  expectLines(first.body, {"tov_up 1"});
  expectLines(second.body, {"tov_up 1"});
  EXPECT_GE(second.seconds, 0.5) << "it did not wait for the snapshot";
  expectLines(
      scrape(e.port(), "/metrics").body,
      {"tov_scrapes_total{target=\"127.0.96.1:" + sim->portStr() + "\"} 1",
       "!tov_scrape_errors_total"});
  std::printf("[ figures  ] deadline_zero: first %.2f s, second %.2f s\n",
              first.seconds, second.seconds);
}

// In a private network whose name server never answers, both scrapes end
// by their deadlines (--deadline 2; the header's 1.5 s less the margin),
// killing the snapshot stuck in the lookup.
TEST(ExporterFaults, ANameLookupNeverAnsweredEndsWithTheDeadline) {
  netnstest::PrivateNetwork net;
  if (!net.ready()) GTEST_SKIP() << "a private network needs root, iproute2";
  netnstest::SilentNameserver dns;
  ASSERT_EQ(dns.why(), "");
  {
    RowExporter e({"--deadline", "2"});
    ASSERT_GT(e.port(), 0) << e.log();
    Scrape plain;
    std::thread one(
        [&] { plain = scrape(e.port(), "/probe?target=node.example.test"); });
    const Scrape prometheus =
        scrape(e.port(), "/probe?target=other.example.test", "1.5");
    one.join();
    expectLines(plain.body, {"tov_up 0"});
    expectLines(prometheus.body, {"tov_up 0"});
    EXPECT_GE(plain.seconds, 2);
    EXPECT_LT(plain.seconds, 2.5);
    EXPECT_GE(prometheus.seconds, 1);
    EXPECT_LT(prometheus.seconds, 1.5);
    expectLines(scrape(e.port(), "/metrics").body,
                {R"(tov_scrape_errors_total{target="node.example.test:1195",)"
                 R"(code="deadline",name="deadline"} 1)"});
    std::printf(
        "[ figures  ] name_lookup_never_answered: %.2f s (deadline 2), "
        "%.2f s (header 1.5)\n",
        plain.seconds, prometheus.seconds);
  }
  EXPECT_GT(dns.queries(), 0) << "no lookup reached the name server";
}

}  // namespace
