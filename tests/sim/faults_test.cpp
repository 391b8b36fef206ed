// Fault injection, robustness, discovery and process lifecycle of the
// simulator.
#include <set>

#include "raw_client.h"

namespace {

using namespace rawtest;

SimOptions faulty(Strings args) { return withConfig(kDefault, args); }

// What "V 0" gets from a simulator without faults.
std::string plainVersionReply() {
  SimProcess sim(faulty({}));
  return reply(sim.port(), "V 0");
}

// Busy answers the first requests, but never the information request; a
// fault letter limits busy and reply faults to its requests; the command
// line wins over the file.
TEST(SimFaults, BusyFaultLetterAndCommandLine) {
  SimProcess busy(faulty({"--busy", "2"}));
  EXPECT_EQ(firstLine(reply(busy.port(), "O 0")), "Ok daemon busy");
  expectLetters(busy.port(), {"CCN n", "B 0 k", "B 0 a", "O 0 n"});

  SimProcess letter(
      faulty({"--busy", "1", "--fault-letter", "B", "--cut-after", "1"}));
  expectLetters(letter.port(), {"O 0 n"});
  EXPECT_EQ(reply(letter.port(), "B 0", true), "B");
  expectLetters(letter.port(), {"O 0 n"});

  SimProcess sim(withConfig(
      R"({"cluster": {"poll_time": 7}, "services": [{"name": "a"}],
          "faults": {"busy": 5, "pad_to": 300}})",
      {"--busy", "1", "--poll-time", "2147483647"}));
  const std::string first = reply(sim.port(), "O 0");
  EXPECT_EQ(letterOf(first), 'k');
  EXPECT_EQ(first.size(), 300u) << "file setting kept";
  expectLetters(sim.port(), {"O 0 n"});
  EXPECT_EQ(fields(lines(reply(sim.port(), "CCN")).at(1)).at(8), "2147483647")
      << "poll time from the command line";
}

// The client zero-fills a short salt to 8 bytes; so does the simulator when
// it checks the digest. (A split salt, none, a late one, delays and chunks:
// the fault matrix's rows show each through the library.)
TEST(SimFaults, AShortSaltIsPaddedWithNuls) {
  SimProcess shorter(faulty({"--short-salt", "3"}));
  Socket s = connectTcp("127.0.0.1", shorter.port());
  std::string seen = readSome(s.fd, 3);
  ASSERT_EQ(seen.size(), 3u);
  seen.resize(8, '\0');
  sendAll(s.fd, frame("G 0", authLine(kUser, kPass, seen, "G 0")));
  EXPECT_EQ(letterOf(readToClose(s.fd).bytes), 'a')
      << "no salt byte after the third";
}

// Padding fills a shorter reply with '#' lines to the exact size. (Cut and
// reset replies: the fault matrix.)
TEST(SimFaults, PaddingShapesTheReply) {
  const std::string plain = plainVersionReply();
  const std::size_t n = plain.size();
  for (std::size_t to :
       {n - 5, n, n + 1, n + 2, n + 3, n + 73, n + 100, size_t{5000}}) {
    SimProcess sim(faulty({"--pad-to", std::to_string(to)}));
    const std::string r = reply(sim.port(), "V 0");
    EXPECT_EQ(r.size(), std::max(n, to)) << to;
    EXPECT_EQ(r.find('\0'), r.size() - 1) << to;
    EXPECT_EQ(r.compare(0, n - 1, plain, 0, n - 1), 0) << to;
    EXPECT_EQ(r.find("\n\n") != std::string::npos, to == n + 1)
        << to << ": an empty line only where it cannot be avoided";
    for (const std::string& l : lines(r.substr(n - 1))) {
      EXPECT_EQ(l[0], '#') << to;
    }
  }
}

TEST(SimRobustness, BadClientsAreDroppedWithoutDisturbingOthers) {
  SimProcess sim(faulty({"--read-timeout", "0.3", "--max-frame", "64"}));
  const std::pair<std::string, const char*> cases[] = {
      {"B 0\n", "no complete request frame within 300 ms"},
      {std::string(200, 'B'), "larger than 64 bytes"}};
  for (const auto& c : cases) {
    Socket s = connectTcp("127.0.0.1", sim.port());
    ASSERT_EQ(readSome(s.fd, 8).size(), 8u);
    sendAll(s.fd, c.first);
    const Got g = readToClose(s.fd);
    EXPECT_TRUE(g.bytes.empty() && (g.eof || g.err == ECONNRESET))
        << "closed by the simulator: " << c.second;
    EXPECT_TRUE(logShows(sim, c.second)) << sim.log();
  }
  // Clients that leave before or after the salt, or in mid-frame.
  for (int i = 0; i < 5; ++i) {
    Socket s = connectTcp("127.0.0.1", sim.port());
    if (i % 2 == 1) readSome(s.fd, 8);
    if (i == 3) sendAll(s.fd, "B 0");
  }
  expectLetters(sim.port(), {"V 0 n"});
  EXPECT_TRUE(sim.running());
}

TEST(SimMultiNode, EachListenAddressServesTcpAndAnswersOnlyTheProbe) {
  SimOptions o = withConfig(R"({"cluster": {"name": "duo", "bootstrap": true},
    "nodes": [{"name": "n2", "address": "127.0.0.2"},
              {"name": "n3", "address": "127.0.0.3"}], "services": [
      {"name": "web", "state": "running", "mode": "auto", "node": "n2"}]})");
  o.listen = {"127.0.0.2", "127.0.0.3"};
  o.udpPort = freeUdpPort(o.listen);
  SimProcess sim(o);
  // Near misses first: an answer to any of them would come before the
  // probe's own.
  const Strings sent{std::string(7, '\xCD'), std::string(9, '\xCD'),
                     std::string(8, '\xCC'), "CCN\n", kProbe};
  for (const std::string& a : o.listen) {
    const auto got = probe({a}, o.udpPort, 1, sent);
    ASSERT_EQ(got.size(), 1u) << a;
    EXPECT_EQ(got[0].from, a);
    EXPECT_EQ(got[0].text.find('\0'), std::string::npos);
    const Strings ls = lines(got[0].text);
    ASSERT_EQ(ls.size(), 3u) << got[0].text;
    // The machine is the node of the address.
    EXPECT_THAT(fields(ls[0]),
                ElementsAre("C", "duo", _, _, _, _, _, _, _, _, "1",
                            a == "127.0.0.2" ? "n2" : "n3", _));
    EXPECT_EQ(ls[1], "N n2 127.0.0.2 4");
    EXPECT_EQ(ls[2], "N n3 127.0.0.3 4");
  }
  EXPECT_EQ(letterOf(ask("127.0.0.3", sim.port(), "B 0")), 'a');
  EXPECT_THAT(lines(ask("127.0.0.2", sim.port(), "O 0")),
              Contains("S 0 web running auto 0 n3"))
      << "bounced on the asked node";
  EXPECT_THAT(lines(ask("127.0.0.2", sim.port(), "N 0")),
              Contains("n2 127.0.0.2 up"));
}

TEST(SimUdp, DiscoveryAnswerFaultSendsTheGivenDatagramsInOrder) {
  // Good, then hostile bytes (not UTF-8, a terminal escape, a stray record
  // line, a backslash), then good again; from the file or the command line.
  const std::string hostile = "C caf\xe9 \x1b]0;pwned\x07\nN \\";
  SimOptions cases[] = {withConfig(R"({"faults": {"udp_answers":
           ["-", "C caf\\xe9 \\x1b]0;pwned\\x07\\nN \\\\", "-"]}})"),
                        withConfig("{}", {"--udp-answer", "-", "--udp-answer",
                                          R"(C caf\xe9 \x1b]0;pwned\x07\nN \\)",
                                          "--udp-answer=-"})};
  for (SimOptions& o : cases) {
    o.udpPort = freeUdpPort({"127.0.0.1"});
    SimProcess sim(o);
    const auto got = probe({"127.0.0.1"}, o.udpPort, 3);
    ASSERT_EQ(got.size(), 3u) << sim.log();
    EXPECT_EQ(got[0].text.rfind("C tovsim 1 0 ", 0), 0u) << got[0].text;
    EXPECT_THAT(got[0].text, HasSubstr("\nN node1 127.0.0.1 4"));
    EXPECT_EQ(got[1].text, hostile) << o.configJson;
    EXPECT_EQ(got[2].text, got[0].text);
    EXPECT_TRUE(logShows(sim, "datagram 2 of 3: given bytes")) << sim.log();
  }
}

// A 256-node answer (6017 bytes) is too long for the 2047 bytes a client
// reads of a datagram: it comes in several, split between lines, each as
// full as the next line allows, the cluster line first.
TEST(SimUdp, LargeAnswersComeInDatagramsSplitBetweenLines) {
  const std::pair<const char*, std::size_t> cases[] = {
      {nullptr, 2047}, {"256", 256}, {"1000", 1000}, {"65507", 65507}};
  for (const auto& [flag, size] : cases) {
    SCOPED_TRACE(size);
    SimOptions o;  // the built-in cluster; 127.0.0.1 serves node1
    o.udpPort = freeUdpPort({"127.0.0.1"});
    o.extraArgs = {"--nodes", "256"};
    if (flag)
      o.extraArgs.insert(o.extraArgs.end(), {"--udp-datagram-size", flag});
    SimProcess sim(o);
    // The whole answer: the cluster and node lines of the information reply.
    const Strings info = lines(reply(sim.port(), "CCN"));
    ASSERT_GE(info.size(), 258u);
    std::string whole = info[1];
    for (std::size_t i = 2; i < 258; ++i) whole += "\n" + info[i];
    const auto got = probe({"127.0.0.1"}, o.udpPort,
                           (whole.size() + size - 1) / size, {kProbe}, 300);
    ASSERT_FALSE(got.empty()) << sim.log();
    EXPECT_EQ(got.size() > 1, size < whole.size());
    std::string joined;
    for (std::size_t k = 0; k < got.size(); ++k) {
      const std::string& d = got[k].text;
      EXPECT_LE(d.size(), size) << k;
      EXPECT_EQ(d.substr(0, 2), k == 0 ? "C " : "N ") << k;
      if (k + 1 < got.size()) {
        const std::string next = firstLine(got[k + 1].text);
        EXPECT_GT(d.size() + 1 + next.size(), size) << k << ": not full";
      }
      joined += (k == 0 ? "" : "\n") + d;
    }
    EXPECT_EQ(joined, whole);
  }
  for (const char* bad : {"255", "65508", "2k"}) {
    SimOptions o;
    o.extraArgs = {"--udp-datagram-size", bad};
    try {
      SimProcess sim(o);
      ADD_FAILURE() << "accepted " << bad;
    } catch (const std::runtime_error& e) {
      EXPECT_THAT(e.what(), HasSubstr("status 2"));
      EXPECT_THAT(e.what(), HasSubstr("usage: --udp-datagram-size"));
    }
  }
}

TEST(SimMultiNode, SixtyFourNodesAnswerAllAtOnce) {
  // node1..node64 on 127.0.1.1..64 without --listen. Two clients per node
  // connect before any sends its request: each needs a salt at once.
  Strings addrs;
  for (int i = 1; i <= 64; ++i) addrs.push_back("127.0.1." + std::to_string(i));
  SimOptions o;
  o.listen.clear();
  o.udpPort = freeUdpPort(addrs);
  o.extraArgs = {"--nodes", "64", "--read-timeout", "60"};
  SimProcess sim(o);
  std::vector<Socket> socks;
  for (int k = 0; k < 128; ++k) {
    socks.push_back(connectTcp(addrs[k % 64], sim.port()));
  }
  for (std::size_t k = 0; k < socks.size(); ++k) {
    ASSERT_EQ(readSome(socks[k].fd, 8).size(), 8u) << addrs[k % 64];
  }
  for (const Socket& s : socks) sendAll(s.fd, frame("CCN"));
  for (std::size_t k = 0; k < socks.size(); ++k) {
    const Strings ls = lines(readToClose(socks[k].fd).bytes);
    ASSERT_GE(ls.size(), 2u) << addrs[k % 64];
    EXPECT_EQ(fields(ls[1]).at(11), "node" + std::to_string(k % 64 + 1));
    EXPECT_EQ(std::count_if(ls.begin(), ls.end(),
                            [](Str l) { return l.rfind("N ", 0) == 0; }),
              64);
  }
  // Discovery: one probe to every address at once, one answer from each.
  std::set<std::string> from;
  for (const Datagram& d : probe(addrs, o.udpPort, addrs.size())) {
    EXPECT_EQ(lines(d.text).size(), 65u);
    EXPECT_TRUE(from.insert(d.from).second) << d.from << " answered twice";
  }
  EXPECT_EQ(from.size(), addrs.size());
}

TEST(SimMultiNode, SilentNodesAreListedButDoNotAnswer) {
  // No --listen: every node's own address is served, but none of a silent
  // node's. Silence from the file and from the command line.
  SimOptions o = withConfig(R"({"cluster": {"name": "degraded"}, "nodes": [
    {"name": "n1", "address": "127.0.6.1"},
    {"name": "n2", "address": "127.0.6.2", "silent": true},
    {"name": "n3", "address": "127.0.6.3", "silent": "mute"},
    {"name": "n4", "address": "127.0.6.4"},
    {"name": "n5", "address": "127.0.6.5"},
    {"name": "n6", "address": "127.0.6.6", "silent": false}],
    "services": [
      {"name": "web", "state": "running", "mode": "auto", "node": "n1"}]})",
                            {"--silent", "n4", "--mute", "n5"});
  o.listen.clear();
  o.udpPort = freeUdpPort({"127.0.6.1", "127.0.6.3", "127.0.6.5", "127.0.6.6"});
  SimProcess sim(o);
  const std::string kind = "ARMRMA";  // n1..n6: answers, refused, mute
  // Mute nodes take a request and hold it unanswered while the rest runs.
  Strings addrs;
  std::vector<Socket> held;
  for (int i = 0; i < 6; ++i) {
    addrs.push_back("127.0.6." + std::to_string(i + 1));
    if (kind[i] != 'M') continue;
    held.push_back(connectTcp(addrs[i], sim.port()));
    sendAll(held.back().fd, frame("CCN"));
  }
  std::multiset<std::string> answered;
  for (const Datagram& d : probe(addrs, o.udpPort, 2, {kProbe}, 300)) {
    answered.insert(d.from);
    EXPECT_EQ(lines(d.text).size(), 7u) << "every node is listed";
  }
  const Strings heartbeats = lines(ask(addrs[0], sim.port(), "N 0"));
  ASSERT_EQ(heartbeats.size(), 7u);
  for (int i = 0; i < 6; ++i) {
    SCOPED_TRACE(addrs[i]);
    EXPECT_EQ(heartbeats[i + 1], "n" + std::to_string(i + 1) + " " + addrs[i] +
                                     (kind[i] == 'A' ? " up" : " down"));
    EXPECT_EQ(answered.count(addrs[i]), kind[i] == 'A' ? 1u : 0u);
    if (kind[i] == 'R') {
      EXPECT_THROW(connectTcp(addrs[i], sim.port()), std::runtime_error);
    } else if (kind[i] == 'A') {
      const Strings ls = lines(ask(addrs[i], sim.port(), "CCN"));
      ASSERT_GE(ls.size(), 8u);
      EXPECT_EQ(fields(ls[1]).at(2), "6") << "every node is listed";
      EXPECT_EQ(ls[3], "N n2 127.0.6.2 4");
      EXPECT_EQ(ls[4], "N n3 127.0.6.3 4");
    }
  }
  for (const Socket& s : held) {
    const Got g = readFor(s.fd, 1, 0);
    EXPECT_TRUE(g.bytes.empty() && !g.eof) << "held open, without a salt";
  }
  // Passing skips the nodes that do not answer: from n1 straight to n6.
  EXPECT_EQ(firstLine(ask(addrs[0], sim.port(), "F 0")),
            "Fa service 0 (web) passed to n6");
  EXPECT_TRUE(logShows(sim, "held without a salt (mute node)")) << sim.log();
}

TEST(SimLifecycle, SigtermOrLifetimeStopsPromptlyWhileARequestIsHeld) {
  // Each request held for ten minutes: before the reply, or after its first
  // byte; the shortest lifetime ends one as well.
  const struct {
    Strings args;
    std::size_t firstBytes;
    int lifetime;  // s; 0 = stopped by SIGTERM
  } cases[] = {
      {{"--reply-delay", "600000"}, 0, 0},
      {{"--pad-to", "4000", "--chunk", "1", "--chunk-pause", "600000"}, 1, 0},
      {{"--reply-delay", "600000"}, 0, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + " lifetime " + std::to_string(c.lifetime));
    SimOptions o = faulty(c.args);
    o.maxLifetimeSec = c.lifetime ? c.lifetime : o.maxLifetimeSec;
    SimProcess sim(o);
    Socket s = connectTcp("127.0.0.1", sim.port());
    ASSERT_EQ(readSome(s.fd, 8).size(), 8u);
    sendAll(s.fd, frame("V 0"));
    // Under load the lifetime may end before the request is taken.
    ASSERT_TRUE(c.lifetime || logShows(sim, "\"V 0\" => ")) << sim.log();
    EXPECT_EQ(readSome(s.fd, c.firstBytes).size(), c.firstBytes);
    EXPECT_EQ(readSome(s.fd, 1, 100), "") << "held";
    const auto t0 = Clock::now();
    EXPECT_TRUE(!c.lifetime || eventually([&] { return !sim.running(); }));
    EXPECT_EQ(sim.stop(), 0) << sim.log();
    EXPECT_LT(msSince(t0), 3000) << "stop() kills after 5 s";
    EXPECT_THAT(sim.log(),
                HasSubstr(c.lifetime ? "maximum lifetime" : "stopping"));
    const Got g = readFor(s.fd, 8, 1000);
    EXPECT_TRUE(g.bytes.empty() && g.eof) << "closed, not answered";
  }
}

}  // namespace
