// Fault injection, robustness, discovery and process lifecycle of the
// simulator.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <set>
#include <thread>

#include "raw_client.h"
#include "support/sim.h"

namespace {

using rawtest::exchange;
using rawtest::fields;
using rawtest::lines;
using rawtest::readSome;
using rawtest::readToClose;
using simtest::SimOptions;
using simtest::SimProcess;
using Clock = std::chrono::steady_clock;

const std::string kUser = "admin";
const std::string kPass = "secret";

SimOptions faulty(std::vector<std::string> args) {
  SimOptions o;
  o.configJson = simtest::defaultConfigJson();
  o.extraArgs = std::move(args);
  return o;
}

char letterOf(const std::string& reply) {
  return reply.size() >= 2 ? reply[1] : '\0';
}

long long msSince(Clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t)
      .count();
}

// What "V 0" gets from a simulator without faults.
std::string plainVersionReply() {
  static const std::string reply = [] {
    SimProcess sim(faulty({}));
    return exchange(sim.port(), "V 0").bytes;
  }();
  return reply;
}

TEST(SimFaults, BusyAnswersFirstRequestsButNeverTheInformationRequest) {
  SimProcess sim(faulty({"--busy", "2"}));
  EXPECT_EQ(lines(exchange(sim.port(), "O 0").bytes)[0], "Ok daemon busy");
  EXPECT_EQ(letterOf(exchange(sim.port(), "CCN").bytes), 'n');
  EXPECT_EQ(letterOf(exchange(sim.port(), "B 0", kUser, kPass).bytes), 'k');
  EXPECT_EQ(letterOf(exchange(sim.port(), "B 0", kUser, kPass).bytes), 'a');
  EXPECT_EQ(letterOf(exchange(sim.port(), "O 0").bytes), 'n');
}

TEST(SimFaults, FaultLetterLimitsBusyAndReplyFaults) {
  SimProcess sim(
      faulty({"--busy", "1", "--fault-letter", "B", "--cut-after", "1"}));
  EXPECT_EQ(letterOf(exchange(sim.port(), "O 0").bytes), 'n');
  EXPECT_EQ(exchange(sim.port(), "B 0", kUser, kPass).bytes, "B");
  EXPECT_EQ(letterOf(exchange(sim.port(), "O 0").bytes), 'n');
}

TEST(SimFaults, CommandLineFaultsWinOverTheFile) {
  SimOptions o;
  o.configJson = R"({"cluster": {"poll_time": 7}, "services": [{"name": "a"}],
                     "faults": {"busy": 5, "pad_to": 300}})";
  o.extraArgs = {"--busy", "1", "--poll-time", "2147483647"};
  SimProcess sim(o);
  const auto first = exchange(sim.port(), "O 0");
  EXPECT_EQ(letterOf(first.bytes), 'k');
  EXPECT_EQ(first.bytes.size(), 300u) << "file setting kept";
  EXPECT_EQ(letterOf(exchange(sim.port(), "O 0").bytes), 'n');
  const auto c = fields(lines(exchange(sim.port(), "CCN").bytes).at(1));
  ASSERT_EQ(c.size(), 13u);
  EXPECT_EQ(c[8], "2147483647") << "poll time from the command line";
}

TEST(SimFaults, ShortSaltSendsOnlyThatManyBytes) {
  SimProcess sim(faulty({"--short-salt", "3"}));
  rawtest::Socket s = rawtest::connectTcp("127.0.0.1", sim.port());
  const std::string salt = readSome(s.fd(), 8, 300);
  ASSERT_EQ(salt.size(), 3u);
  // A client works on the bytes it got, zero-filled to 8; so does the
  // simulator when it checks the digest.
  std::string seen = salt;
  seen.resize(8, '\0');
  rawtest::sendAll(
      s.fd(),
      rawtest::frame("G 0", rawtest::authLine(kUser, kPass, seen, "G 0")));
  EXPECT_EQ(letterOf(readToClose(s.fd())), 'a');
}

TEST(SimFaults, NoSaltClosesRightAfterAccept) {
  SimProcess sim(faulty({"--no-salt"}));
  rawtest::Socket s = rawtest::connectTcp("127.0.0.1", sim.port());
  bool eof = false;
  int err = 0;
  EXPECT_EQ(readSome(s.fd(), 8, 3000, &err, &eof), "");
  EXPECT_TRUE(eof);
  EXPECT_EQ(err, 0);
}

TEST(SimFaults, LateSaltAndReplyDelayWaitBeforeSending) {
  SimProcess sim(faulty({"--late-salt", "500", "--reply-delay", "200"}));
  rawtest::Socket s = rawtest::connectTcp("127.0.0.1", sim.port());
  const auto t0 = Clock::now();
  EXPECT_EQ(readSome(s.fd(), 8, 100), "") << "nothing before the delay";
  EXPECT_EQ(readSome(s.fd(), 8, 5000).size(), 8u);
  EXPECT_GE(msSince(t0), 490);
  const auto t1 = Clock::now();
  rawtest::sendAll(s.fd(), rawtest::frame("V 0"));
  EXPECT_EQ(letterOf(readToClose(s.fd())), 'n');
  EXPECT_GE(msSince(t1), 190);
}

TEST(SimFaults, ChunkedReplyArrivesInPausedPieces) {
  const std::size_t total = plainVersionReply().size();
  SimProcess sim(faulty({"--chunk", "10", "--chunk-pause", "40"}));
  rawtest::Socket s = rawtest::connectTcp("127.0.0.1", sim.port());
  readSome(s.fd(), 8, 5000);
  const auto t0 = Clock::now();
  rawtest::sendAll(s.fd(), rawtest::frame("V 0"));
  std::vector<std::size_t> pieces;
  EXPECT_EQ(readToClose(s.fd(), nullptr, &pieces), plainVersionReply());
  const std::size_t chunks = (total + 9) / 10;
  EXPECT_GE(pieces.size(), 2u);
  EXPECT_GE(msSince(t0), static_cast<long long>(chunks - 1) * 40 * 9 / 10);
}

TEST(SimFaults, CutReplyEndsWithAnOrdinaryClose) {
  SimProcess sim(faulty({"--cut-after", "10"}));
  const auto r = exchange(sim.port(), "V 0");
  EXPECT_EQ(r.err, 0);
  EXPECT_EQ(r.bytes, plainVersionReply().substr(0, 10));
}

TEST(SimFaults, ResetAfterBytesGivesConnectionReset) {
  SimProcess sim(faulty({"--reset-after", "5"}));
  const auto r = exchange(sim.port(), "V 0");
  EXPECT_EQ(r.err, ECONNRESET);
  EXPECT_EQ(r.bytes, plainVersionReply().substr(0, 5));
}

TEST(SimFaults, PaddingFillsTheReplyToTheExactSize) {
  const std::string plain = plainVersionReply();
  const long n = static_cast<long>(plain.size());
  for (long target : {n - 5, n, n + 1, n + 2, n + 3, n + 100, 5000L}) {
    SimProcess sim(faulty({"--pad-to", std::to_string(target)}));
    const std::string r = exchange(sim.port(), "V 0").bytes;
    if (target <= n) {
      EXPECT_EQ(r, plain) << target;
      continue;
    }
    EXPECT_EQ(static_cast<long>(r.size()), target);
    EXPECT_EQ(r.find('\0'), r.size() - 1) << target;
    EXPECT_EQ(r.compare(0, plain.size() - 1, plain, 0, plain.size() - 1), 0)
        << "the reply itself comes first";
    for (const std::string& l : lines(r.substr(plain.size() - 1))) {
      EXPECT_EQ(l[0], '#') << target;
    }
  }
}

TEST(SimRobustness, FrameWithoutNulIsDroppedAfterTheReadTimeout) {
  SimProcess sim(faulty({"--read-timeout", "0.3"}));
  rawtest::Socket s = rawtest::connectTcp("127.0.0.1", sim.port());
  readSome(s.fd(), 8, 5000);
  rawtest::sendAll(s.fd(), "B 0\n");
  int err = 0;
  EXPECT_EQ(readToClose(s.fd(), &err), "");
  EXPECT_NE(err, EAGAIN) << "closed by the simulator, not our timeout";
  EXPECT_NE(sim.log().find("no complete request frame"), std::string::npos)
      << sim.log();
  EXPECT_EQ(letterOf(exchange(sim.port(), "V 0").bytes), 'n');
}

TEST(SimRobustness, OversizedFrameIsRefused) {
  SimProcess sim(faulty({"--max-frame", "64"}));
  rawtest::Socket s = rawtest::connectTcp("127.0.0.1", sim.port());
  readSome(s.fd(), 8, 5000);
  rawtest::sendAll(s.fd(), std::string(200, 'B'));
  int err = 0;
  EXPECT_EQ(readToClose(s.fd(), &err), "");
  EXPECT_NE(sim.log().find("larger than 64 bytes"), std::string::npos)
      << sim.log();
  EXPECT_EQ(letterOf(exchange(sim.port(), "V 0").bytes), 'n');
}

TEST(SimRobustness, ClientsThatLeaveEarlyDoNotDisturbOthers) {
  SimProcess sim(faulty({}));
  for (int i = 0; i < 5; ++i) {
    rawtest::Socket s = rawtest::connectTcp("127.0.0.1", sim.port());
    if (i % 2 == 1) readSome(s.fd(), 8, 5000);
  }
  {
    rawtest::Socket s = rawtest::connectTcp("127.0.0.1", sim.port());
    readSome(s.fd(), 8, 5000);
    rawtest::sendAll(s.fd(), "B 0");
  }
  EXPECT_EQ(letterOf(exchange(sim.port(), "V 0").bytes), 'n');
  EXPECT_TRUE(sim.running());
}

TEST(SimRobustness, ServesConnectionsConcurrently) {
  SimProcess sim(faulty({}));
  std::vector<rawtest::Socket> socks;
  std::vector<std::string> salts;
  // Every client holds its connection open while the next one connects;
  // each still gets its salt at once.
  for (int i = 0; i < 6; ++i) {
    socks.push_back(rawtest::connectTcp("127.0.0.1", sim.port()));
    salts.push_back(readSome(socks.back().fd(), 8, 5000));
    ASSERT_EQ(salts.back().size(), 8u) << i;
  }
  for (std::size_t i = socks.size(); i-- > 0;) {
    rawtest::sendAll(socks[i].fd(), rawtest::frame("V 0"));
    EXPECT_EQ(letterOf(readToClose(socks[i].fd())), 'n');
  }
}

// A UDP port free on every address given.
int freeUdpPort(const std::vector<std::string>& addrs) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    std::vector<rawtest::Socket> held;
    int port = 0;
    bool ok = true;
    for (const std::string& a : addrs) {
      rawtest::Socket s(socket(AF_INET, SOCK_DGRAM, 0));
      sockaddr_in sa{};
      sa.sin_family = AF_INET;
      sa.sin_port = htons(static_cast<uint16_t>(port));
      inet_pton(AF_INET, a.c_str(), &sa.sin_addr);
      if (bind(s.fd(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
        ok = false;
        break;
      }
      socklen_t len = sizeof sa;
      getsockname(s.fd(), reinterpret_cast<sockaddr*>(&sa), &len);
      port = ntohs(sa.sin_port);
      held.push_back(std::move(s));
    }
    if (ok) return port;
  }
  throw std::runtime_error("no free UDP port");
}

struct Datagram {
  std::string text;
  std::string from;
};

// Sends `probe` to address:port and collects what comes back within `ms`.
std::vector<Datagram> probe(const std::string& address, int port,
                            const std::string& probe, int ms) {
  rawtest::Socket s(socket(AF_INET, SOCK_DGRAM, 0));
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, address.c_str(), &sa.sin_addr);
  sendto(s.fd(), probe.data(), probe.size(), 0,
         reinterpret_cast<sockaddr*>(&sa), sizeof sa);
  std::vector<Datagram> out;
  const auto t0 = Clock::now();
  while (msSince(t0) < ms && out.size() < 10) {
    pollfd p{s.fd(), POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(ms - msSince(t0))) <= 0) break;
    char buf[2048];
    sockaddr_in from{};
    socklen_t len = sizeof from;
    const ssize_t n = recvfrom(s.fd(), buf, sizeof buf, 0,
                               reinterpret_cast<sockaddr*>(&from), &len);
    if (n < 0) break;
    char host[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &from.sin_addr, host, sizeof host);
    out.push_back({std::string(buf, static_cast<std::size_t>(n)), host});
  }
  return out;
}

const char* kTwoNodes = R"({
  "cluster": {"name": "duo", "bootstrap": true},
  "nodes": [{"name": "n2", "address": "127.0.0.2"},
            {"name": "n3", "address": "127.0.0.3"}],
  "services": [{"name": "web", "state": "running", "mode": "auto",
                "node": "n2"}]
})";

TEST(SimUdp, EachListenAddressAnswersTheProbeOnce) {
  const std::vector<std::string> addrs{"127.0.0.2", "127.0.0.3"};
  SimOptions o;
  o.configJson = kTwoNodes;
  o.listen = addrs;
  o.udpPort = freeUdpPort(addrs);
  SimProcess sim(o);
  const std::string probeBytes(8, '\xCD');
  for (const std::string& a : addrs) {
    const auto got = probe(a, o.udpPort, probeBytes, 400);
    ASSERT_EQ(got.size(), 1u) << a;
    EXPECT_EQ(got[0].from, a);
    const auto ls = lines(got[0].text);
    ASSERT_EQ(ls.size(), 3u) << got[0].text;
    const auto c = fields(ls[0]);
    ASSERT_EQ(c.size(), 13u) << ls[0];
    EXPECT_EQ(c[1], "duo");
    EXPECT_EQ(c[10], "1");
    EXPECT_EQ(c[11], a == "127.0.0.2" ? "n2" : "n3") << "machine of the node";
    EXPECT_EQ(ls[1], "N n2 127.0.0.2 4");
    EXPECT_EQ(ls[2], "N n3 127.0.0.3 4");
    EXPECT_EQ(got[0].text.find('\0'), std::string::npos);
  }
}

TEST(SimUdp, AnythingButTheProbeIsIgnored) {
  SimOptions o;
  o.configJson = simtest::defaultConfigJson();
  o.udpPort = freeUdpPort({"127.0.0.1"});
  SimProcess sim(o);
  for (const std::string& d : {std::string(7, '\xCD'), std::string(9, '\xCD'),
                               std::string(8, '\xCC'), std::string("CCN\n")}) {
    EXPECT_TRUE(probe("127.0.0.1", o.udpPort, d, 200).empty()) << d.size();
  }
  EXPECT_EQ(probe("127.0.0.1", o.udpPort, std::string(8, '\xCD'), 800).size(),
            1u);
}

TEST(SimUdp, DiscoveryAnswerFaultSendsTheGivenDatagramsInOrder) {
  // Good, then hostile bytes (not UTF-8, a terminal escape, a stray record
  // line, a backslash), then good again, all from one address; given in the
  // file and on the command line.
  const std::string hostile = "C caf\xe9 \x1b]0;pwned\x07\nN \\";
  struct Case {
    const char* what;
    std::string json;
    std::vector<std::string> args;
  };
  const Case cases[] = {
      {"file",
       R"({"faults": {"udp_answers":
           ["-", "C caf\\xe9 \\x1b]0;pwned\\x07\\nN \\\\", "-"]}})",
       {}},
      {"flags",
       "{}",
       {"--udp-answer", "-", "--udp-answer",
        R"(C caf\xe9 \x1b]0;pwned\x07\nN \\)", "--udp-answer=-"}},
  };
  for (const Case& c : cases) {
    SimOptions o;
    o.configJson = c.json;
    o.extraArgs = c.args;
    o.udpPort = freeUdpPort({"127.0.0.1"});
    SimProcess sim(o);
    const auto got = probe("127.0.0.1", o.udpPort, std::string(8, '\xCD'), 600);
    ASSERT_EQ(got.size(), 3u) << c.what << "\n" << sim.log();
    EXPECT_EQ(got[0].text.rfind("C tovsim 1 0 ", 0), 0u) << got[0].text;
    EXPECT_NE(got[0].text.find("\nN node1 127.0.0.1 4"), std::string::npos);
    EXPECT_EQ(got[1].text, hostile) << c.what;
    EXPECT_EQ(got[2].text, got[0].text) << c.what;
    EXPECT_NE(sim.log().find("datagram 2 of 3: given bytes"), std::string::npos)
        << sim.log();
  }
}

TEST(SimMultiNode, EveryAddressServesTcpOnOnePort) {
  SimOptions o;
  o.configJson = kTwoNodes;
  o.listen = {"127.0.0.2", "127.0.0.3"};
  SimProcess sim(o);
  EXPECT_EQ(
      letterOf(exchange(sim.port(), "B 0", "", "", "", "127.0.0.3").bytes),
      'a');
  const auto ls =
      lines(exchange(sim.port(), "O 0", "", "", "", "127.0.0.2").bytes);
  ASSERT_EQ(ls.size(), 2u);
  EXPECT_EQ(ls[1], "S 0 web running auto 0 n3") << "bounced on the asked node";
  const auto hb =
      lines(exchange(sim.port(), "N 0", "", "", "", "127.0.0.2").bytes);
  ASSERT_EQ(hb.size(), 3u);
  EXPECT_EQ(hb[1], "n2 127.0.0.2 up");
}

TEST(SimMultiNode, SixtyFourNodesAnswerAllAtOnce) {
  // --nodes 64: node1..node64 on 127.0.1.1..127.0.1.64, all served by one
  // process without --listen. Two clients per node connect before any of
  // them sends its request; with fewer than 128 connections served at once
  // the later ones would get no salt until the earlier ones timed out.
  constexpr int kNodes = 64;
  constexpr int kPerNode = 2;
  std::vector<std::string> addrs;
  for (int i = 1; i <= kNodes; ++i) {
    addrs.push_back("127.0.1." + std::to_string(i));
  }
  SimOptions o;
  o.listen.clear();
  o.udpPort = freeUdpPort(addrs);
  o.extraArgs = {"--nodes", std::to_string(kNodes)};
  SimProcess sim(o);
  const auto t0 = Clock::now();
  std::vector<rawtest::Socket> socks;
  for (int k = 0; k < kNodes * kPerNode; ++k) {
    socks.push_back(rawtest::connectTcp(addrs[k % kNodes], sim.port()));
  }
  for (std::size_t k = 0; k < socks.size(); ++k) {
    ASSERT_EQ(readSome(socks[k].fd(), 8, 2000).size(), 8u)
        << "no salt at once for " << addrs[k % kNodes] << "\n"
        << sim.log();
  }
  for (const rawtest::Socket& s : socks) {
    rawtest::sendAll(s.fd(), rawtest::frame("CCN"));
  }
  for (std::size_t k = 0; k < socks.size(); ++k) {
    const auto ls = lines(readToClose(socks[k].fd()));
    ASSERT_GE(ls.size(), 2u) << addrs[k % kNodes];
    EXPECT_EQ(fields(ls[1]).at(11), "node" + std::to_string(k % kNodes + 1));
    std::size_t nodeLines = 0;
    for (const std::string& l : ls) nodeLines += l.rfind("N ", 0) == 0;
    EXPECT_EQ(nodeLines, static_cast<std::size_t>(kNodes)) << addrs[k];
  }
  EXPECT_LT(msSince(t0), 5000) << "nobody waited for a free slot";

  // Discovery: one probe to every address at once, one answer from each.
  rawtest::Socket u(socket(AF_INET, SOCK_DGRAM, 0));
  for (const std::string& a : addrs) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(static_cast<uint16_t>(o.udpPort));
    inet_pton(AF_INET, a.c_str(), &sa.sin_addr);
    const std::string p(8, '\xCD');
    sendto(u.fd(), p.data(), p.size(), 0, reinterpret_cast<sockaddr*>(&sa),
           sizeof sa);
  }
  std::set<std::string> from;
  const auto t1 = Clock::now();
  while (from.size() < addrs.size() && msSince(t1) < 2000) {
    pollfd pfd{u.fd(), POLLIN, 0};
    if (poll(&pfd, 1, 200) <= 0) continue;
    char buf[8192];
    sockaddr_in sa{};
    socklen_t len = sizeof sa;
    const ssize_t n = recvfrom(u.fd(), buf, sizeof buf, 0,
                               reinterpret_cast<sockaddr*>(&sa), &len);
    ASSERT_GT(n, 0);
    EXPECT_EQ(lines(std::string(buf, static_cast<std::size_t>(n))).size(),
              static_cast<std::size_t>(kNodes + 1));
    char host[INET_ADDRSTRLEN];
    from.insert(inet_ntop(AF_INET, &sa.sin_addr, host, sizeof host));
  }
  EXPECT_EQ(from.size(), addrs.size());
}

TEST(SimMultiNode, SilentNodesAreListedButDoNotAnswer) {
  // Nodes but no "listen" and no --listen: every node's own address is
  // served, but none of a silent node. Silence from the file and from the
  // command line.
  SimOptions o;
  o.configJson = R"({
    "cluster": {"name": "degraded"},
    "nodes": [{"name": "n1", "address": "127.0.6.1"},
              {"name": "n2", "address": "127.0.6.2", "silent": true},
              {"name": "n3", "address": "127.0.6.3", "silent": "mute"},
              {"name": "n4", "address": "127.0.6.4"},
              {"name": "n5", "address": "127.0.6.5"},
              {"name": "n6", "address": "127.0.6.6", "silent": false}],
    "services": [{"name": "web", "state": "running", "mode": "auto",
                  "node": "n1"}]
  })";
  o.listen.clear();
  o.udpPort = freeUdpPort({"127.0.6.1", "127.0.6.3", "127.0.6.5", "127.0.6.6"});
  o.extraArgs = {"--silent", "n4", "--mute", "n5"};
  SimProcess sim(o);
  enum class Expect { Answers, Refused, Mute };
  struct Case {
    const char* address;
    Expect expect;
    const char* heartbeat;  // the line of "N 0"
  };
  const Case cases[] = {
      {"127.0.6.1", Expect::Answers, "n1 127.0.6.1 up"},
      {"127.0.6.2", Expect::Refused, "n2 127.0.6.2 down"},
      {"127.0.6.3", Expect::Mute, "n3 127.0.6.3 down"},
      {"127.0.6.4", Expect::Refused, "n4 127.0.6.4 down"},
      {"127.0.6.5", Expect::Mute, "n5 127.0.6.5 down"},
      {"127.0.6.6", Expect::Answers, "n6 127.0.6.6 up"},
  };
  const auto heartbeats =
      lines(exchange(sim.port(), "N 0", "", "", "", "127.0.6.1").bytes);
  ASSERT_EQ(heartbeats.size(), 7u);
  for (std::size_t i = 0; i < 6; ++i) {
    const Case& c = cases[i];
    EXPECT_EQ(heartbeats[i + 1], c.heartbeat);
    const auto udp = probe(c.address, o.udpPort, std::string(8, '\xCD'), 300);
    switch (c.expect) {
      case Expect::Answers: {
        const auto ls =
            lines(exchange(sim.port(), "CCN", "", "", "", c.address).bytes);
        ASSERT_GE(ls.size(), 8u) << c.address;
        EXPECT_EQ(fields(ls[1]).at(2), "6") << "every node is listed";
        EXPECT_EQ(ls[3], "N n2 127.0.6.2 4");
        EXPECT_EQ(ls[4], "N n3 127.0.6.3 4");
        ASSERT_EQ(udp.size(), 1u) << c.address;
        EXPECT_EQ(lines(udp[0].text).size(), 7u);
        break;
      }
      case Expect::Refused:
        try {
          rawtest::connectTcp(c.address, sim.port());
          ADD_FAILURE() << c.address << " accepted a connection";
        } catch (const std::runtime_error& e) {
          EXPECT_NE(std::string(e.what()).find("refused"), std::string::npos)
              << e.what();
        }
        EXPECT_TRUE(udp.empty()) << c.address;
        break;
      case Expect::Mute: {
        rawtest::Socket s = rawtest::connectTcp(c.address, sim.port());
        bool eof = false;
        EXPECT_EQ(readSome(s.fd(), 8, 300, nullptr, &eof), "") << c.address;
        rawtest::sendAll(s.fd(), rawtest::frame("CCN"));
        EXPECT_EQ(readSome(s.fd(), 8, 300, nullptr, &eof), "") << c.address;
        EXPECT_FALSE(eof) << c.address << ": held open";
        EXPECT_TRUE(udp.empty()) << c.address;
        break;
      }
    }
  }
  // Passing skips the nodes that do not answer: from n1 straight to n6.
  EXPECT_EQ(
      lines(exchange(sim.port(), "F 0", "", "", "", "127.0.6.1").bytes).at(0),
      "Fa service 0 (web) passed to n6");
  EXPECT_NE(sim.log().find("held without a salt (mute node)"),
            std::string::npos)
      << sim.log();
}

TEST(SimLifecycle, SigtermStopsPromptlyWhileARequestIsHeld) {
  struct Case {
    const char* what;
    std::vector<std::string> args;
    std::size_t minBytes;  // of the reply within the first 1.5 s
    std::size_t maxBytes;
  };
  const Case cases[] = {
      {"salt, then silence", {"--reply-delay", "600000"}, 0, 0},
      {"one byte a second",
       {"--pad-to", "4000", "--chunk", "1", "--chunk-pause", "1000"},
       2,
       2},
  };
  for (const Case& c : cases) {
    SimProcess sim(faulty(c.args));
    rawtest::Socket s = rawtest::connectTcp("127.0.0.1", sim.port());
    ASSERT_EQ(readSome(s.fd(), 8, 5000).size(), 8u) << c.what;
    rawtest::sendAll(s.fd(), rawtest::frame("V 0"));
    const std::string got = readSome(s.fd(), 100, 1500);
    EXPECT_GE(got.size(), c.minBytes) << c.what;
    EXPECT_LE(got.size(), c.maxBytes) << c.what;
    const auto t0 = Clock::now();
    sim.stop();
    EXPECT_LT(msSince(t0), 1500) << c.what;
    EXPECT_EQ(sim.exitStatus(), 0) << sim.log();
    EXPECT_NE(sim.log().find("stopping"), std::string::npos);
  }
}

TEST(SimLifecycle, StopsByItselfAfterItsLifetime) {
  // Even while a request waits for an answer that would take ten minutes.
  SimOptions o = faulty({"--reply-delay", "600000"});
  o.maxLifetimeSec = 1;
  SimProcess sim(o);
  rawtest::Socket s = rawtest::connectTcp("127.0.0.1", sim.port());
  readSome(s.fd(), 8, 5000);
  rawtest::sendAll(s.fd(), rawtest::frame("V 0"));
  for (int i = 0; i < 500 && sim.running(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_FALSE(sim.running());
  EXPECT_EQ(sim.exitStatus(), 0);
  EXPECT_NE(sim.log().find("maximum lifetime"), std::string::npos);
  bool eof = false;
  EXPECT_EQ(readSome(s.fd(), 8, 1000, nullptr, &eof), "");
  EXPECT_TRUE(eof) << "the held connection is closed, not answered";
}

}  // namespace
