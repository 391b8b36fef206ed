// The simulator's request/reply behaviour and configuration, seen from the
// wire.
#include <cstdlib>
#include <ctime>
#include <functional>
#include <set>

#include "raw_client.h"

namespace {

using namespace rawtest;

// The service list's lines.
Strings records(int port) { return lines(reply(port, "O 0")); }

TEST(SimFrame, FreshSaltRepliesOfEchoLetterLinesNulAndTheInformationRecord) {
  SimProcess sim(withConfig(kDefault));
  std::set<std::string> salts;
  for (const std::string req : {"O 0", "B 0", "Q 0", "@AQ 1", "[ 0", ""}) {
    SCOPED_TRACE(req);
    const Got r = exchange(sim.port(), req);
    EXPECT_THAT(r.salt, MatchesRegex("[0-9a-f]{8}"));
    salts.insert(r.salt);
    ASSERT_GE(r.bytes.size(), 4u);
    EXPECT_EQ(r.bytes[0], req.empty() ? '?' : req[0]);
    EXPECT_EQ(r.bytes.find('\0'), r.bytes.size() - 1) << "one NUL, at the end";
    EXPECT_EQ(r.bytes[r.bytes.size() - 2], '\n');
    EXPECT_EQ(r.bytes.find("\n\n"), std::string::npos);
    EXPECT_EQ(r.err, 0);
  }
  EXPECT_EQ(salts.size(), 6u);
  // "<E><L> <message>": a blank between letter and message.
  EXPECT_EQ(reply(sim.port(), "Q 0"),
            std::string("Qu unknown request\n") + '\0');
  const auto ls = lines(reply(sim.port(), "CCN"));
  ASSERT_EQ(ls.size(), 6u);
  EXPECT_EQ(ls[0], "Cn cluster information");
  // Name, nodes, services, checksum, serial, mtime, size, poll time, start
  // time, bootstrap, machine, description (blanks written as '_').
  const Strings c = fields(ls[1]);
  EXPECT_THAT(
      c, ElementsAre("C", "testcluster", "1", "2", MatchesRegex("[0-9a-f]{8}"),
                     "-1", _, std::to_string(kDefault.size()), "1", _, "0",
                     "node1", "tovsim_test_node"));
  EXPECT_LE(std::abs(std::stoll(c.at(9)) - std::time(nullptr)), 60);
  EXPECT_EQ(ls[2], "N node1 127.0.0.1 4");
  EXPECT_EQ(ls[3], "S 0 web running auto 0 node1");
  EXPECT_EQ(ls[4], "S 1 db stopped manual 0 -");
  EXPECT_THAT(ls[5], MatchesRegex("V [^ ]+ [^ ]+"));
}

TEST(SimAuth, ChangesNeedAValidDigestReadsNeedNone) {
  SimProcess sim(withConfig(kDefault));
  const int p = sim.port();
  const std::string old = exchange(p, "V 0").salt;
  // Authentication lines for "G 0" made from the salt, all refused: none, a
  // wrong password, an unknown user, over another line, with an old salt, in
  // capitals (then it is data).
  const std::function<std::string(const std::string&)> refused[] = {
      [](auto&) { return std::string(); },
      [](auto& s) { return authLine(kUser, "wrong", s, "G 0"); },
      [](auto& s) { return authLine("nobody", kPass, s, "G 0"); },
      [](auto& s) { return authLine(kUser, kPass, s, "G 1"); },
      [&](auto&) { return authLine(kUser, kPass, old, "G 0"); },
      [](auto& s) {
        std::string a = authLine(kUser, kPass, s, "G 0");
        for (char& c : a) c = static_cast<char>(std::toupper(c));
        return a;
      }};
  for (std::size_t i = 0; i < std::size(refused); ++i) {
    Socket s = connectTcp("127.0.0.1", p);
    sendAll(s.fd, frame("G 0", refused[i](readSome(s.fd, 8))));
    EXPECT_EQ(firstLine(readToClose(s.fd).bytes), "Gd authentication failed")
        << "case " << i;
  }
  expectLetters(
      p, {"L  d", "JA d", "J d", "CCN n", "C 0 n", "N 0 n", "O 1 n", "V 0 n"},
      false);
  EXPECT_EQ(letterOf(exchange(p, "J", kUser, "nope").bytes), 'd');
  EXPECT_EQ(letterOf(exchange(p, "O 0", kUser, "nope").bytes), 'n')
      << "ignored on a read";
  EXPECT_TRUE(sim.running());
  EXPECT_THAT(records(p), Contains("S 0 web running auto 0 node1"));
  expectLetters(p, {"J a", "G 0 a"});
  EXPECT_THAT(records(p), Contains("S 0 web stopped manual 0 -"));
}

TEST(SimAuth, UsersByPasswordDigestOrFromTheBuiltInCluster) {
  // sha256("pw")
  SimProcess sim(withConfig(R"({"services": [{"name": "a"}], "users": [
    {"user": "ops", "sha256":
     "30c952fab122c3f9759f02a6d95c3758b246b4fee239957b2d4fee46e26170c4"}]})"));
  EXPECT_EQ(letterOf(exchange(sim.port(), "I 0", "ops", "pw").bytes), 'a');
  EXPECT_EQ(letterOf(exchange(sim.port(), "H 0", "ops", "PW").bytes), 'd');
  SimProcess builtIn(SimOptions{});  // no configuration file
  EXPECT_EQ(fields(lines(reply(builtIn.port(), "CCN")).at(1)).at(1),
            "testcluster");
  EXPECT_EQ(letterOf(reply(builtIn.port(), "G 0", true)), 'a');
}

// Each request in turn, authenticated, on the default cluster (web running
// auto, db stopped manual); the letters depend on the requests before.
TEST(SimRequests, EveryLetterGetsItsDocumentedReply) {
  SimProcess sim(withConfig(kDefault));
  expectLetters(
      sim.port(),
      {"CCN n", "C 0 n", "D 0 10 20 a", "D 0 l", "D 0 x l", "E 0 a", "E 1 c",
       "B 0 a", "B 1 c", "F 0 a", "F 1 c", "H 0 a", "H 0 b", "I 0 a", "I 0 b",
       "G 1 b", "I 1 a", "G 1 a", "W 1 a", "W 1 b", "I 1 a", "X 1 a", "X 1 b",
       "K 1 a", "K 1 b", "@AQ 1 m", "X 1 a", "@AQ 1 b", "G 1 a", "@AQ 1 a",
       "M 0 a", "M 0 on b", "M 0 off a", "M 0 sideways l", "N 0 n", "O 0 n",
       "R 0 n", "V 0 n", "U 0 j", "[ 0 j", "Y 0 hello a", "Y 0 l", "Z 0 u",
       "Z 0 ping a", "Z 0 protocol n", "J a", "B 0 extra words a",
       // Letters this daemon does not take, and malformed lines.
       "A 0 u", "P 0 u", "Q 0 u", "S 0 u", "T 0 u", "a 0 u", "JX u", "@AB 0 u",
       "@ u", "B0 u", " u",
       // Service numbers the daemon does not have.
       "B 2 l", "B x l", "B l", "B  l", "O 99999999 l", "C -1 l"});
  // The effects add up: db ended quickstarted, web in automatic mode.
  EXPECT_THAT(records(sim.port()), Contains("S 1 db running manual 0 node1"));
  EXPECT_THAT(records(sim.port()), Contains("S 0 web running auto 0 node1"));
}

// Without users nothing needs authentication.
TEST(SimRequests, BrokenTransitionalAndBlockedServicesOnAnOpenDaemon) {
  SimProcess sim(withConfig(R"({"cluster": {"name": "open"}, "services": [
    {"name": "svc0", "state": "broken", "mode": "auto"},
    {"name": "svc1", "state": "broken", "mode": "manual"},
    {"name": "svc2", "state": "starting", "mode": "auto"},
    {"name": "svc3", "state": "stopping", "mode": "manual"},
    {"name": "svc4", "state": "running", "mode": "auto", "blocked": true},
    {"name": "svc5", "state": "broken", "mode": "manual"}]})"));
  const int p = sim.port();
  // Steps, then the service record they leave: svc0 restarts as
  // it is automatic, svc5 recovers here, blocked svc4 cannot start again.
  const Strings groups[] = {
      {"B 0 g", "G 0 g", "U 0 a", "S 0 svc0 running auto 0 node1"},
      {"U 1 a", "S 1 svc1 stopped manual 0 -"},
      {"[ 1 j", "[ 5 a", "S 5 svc5 running manual 0 node1"},
      {"B 2 m", "S 2 svc2 starting auto 0 node1"},
      {"G 3 m", "H 2 a", "S 2 svc2 starting manual 0 node1"},
      {"B 4 m", "F 4 m", "W 4 b", "G 4 a", "S 4 svc4 stopped manual 1 -"},
      {"I 4 a", "S 4 svc4 stopped auto 1 -"},
      {"X 4 a", "S 4 svc4 running auto 0 node1"}};
  for (const Strings& g : groups) {
    expectLetters(p, Strings(g.begin(), g.end() - 1), false);
    EXPECT_THAT(records(p), Contains(g.back()));
  }
  const auto events = lines(reply(p, "R 5"));
  ASSERT_GE(events.size(), 2u);
  EXPECT_THAT(events.back(), HasSubstr("recovered"));
  // A second line that is not an authentication line is data.
  EXPECT_EQ(firstLine(exchange(p, "Y 2", "", "", "hello from the data").bytes),
            "Ya logged");
  EXPECT_TRUE(logShows(sim, "hello from the data")) << sim.log();
  EXPECT_EQ(firstLine(reply(p, "J")), "Ja authentication not required");
}

TEST(SimRequests, ShutdownAndHaltAnswerThenExit) {
  for (const auto& c : {std::make_pair("L ", "La daemon shutting down"),
                        std::make_pair("JA", "Ja halting")}) {
    SCOPED_TRACE(c.first);
    SimProcess sim(withConfig(kDefault));
    EXPECT_EQ(firstLine(reply(sim.port(), c.first, true)), c.second);
    ASSERT_TRUE(eventually([&] { return !sim.running(); })) << sim.log();
    EXPECT_EQ(sim.stop(), 0);
    EXPECT_THROW(connectTcp("127.0.0.1", sim.port()), std::runtime_error);
  }
}

TEST(SimInfo, BootstrapSerialAndConfigChecksum) {
  const std::string a =
      R"({"cluster": {"name": "boot", "serial": 42, "bootstrap": true},
          "services": []})";
  SimProcess s1(withConfig(a)), s2(withConfig(a)), s3(withConfig(a + " "));
  auto info = [](SimProcess& s) {
    return fields(lines(reply(s.port(), "CCN")).at(1));
  };
  const Strings c = info(s1);
  EXPECT_THAT(c,
              ElementsAre("C", "boot", _, "0", _, "42", _, _, _, _, "1", _, _));
  EXPECT_EQ(info(s2).at(4), c.at(4)) << "same file, same checksum";
  EXPECT_NE(info(s3).at(4), c.at(4)) << "another file, another checksum";
}

TEST(SimInfo, EscapedNamesAreServedAsTheirBytes) {
  // What JSON cannot carry (a Latin-1 byte, control characters) reaches the
  // records through escapes; blanks and tabs still become '_'.
  SimProcess sim(withConfig(R"({"cluster": {"name": "caf\\xe9\\x1b[0m",
    "poll_time": 2147483647, "machine_ident": "back\\\\slash",
    "machine_desc": "\\x1b]0;pwned\\x07 desc\\there"},
    "nodes": [{"name": "n\\xE9", "address": "127.0.0.1"}],
    "services": [{"name": "s\\x1b[1m", "node": "n\\xe9",
                  "state": "running"}]})"));
  const auto ls = lines(reply(sim.port(), "CCN"));
  ASSERT_GE(ls.size(), 4u);
  EXPECT_THAT(fields(ls[1]),
              ElementsAre("C", "caf\xe9\x1b[0m", _, _, _, _, _, _, "2147483647",
                          _, _, "back\\slash", "\x1b]0;pwned\x07_desc_here"));
  EXPECT_EQ(ls[2], "N n\xe9 127.0.0.1 4");
  EXPECT_EQ(ls[3], "S 0 s\x1b[1m running manual 0 n\xe9");
  EXPECT_EQ(letterOf(reply(sim.port(), "Y 0 hello")), 'a');
  ASSERT_TRUE(logShows(sim, "hello")) << sim.log();
  EXPECT_EQ(sim.log().find('\x1b'), std::string::npos)
      << "the log shows control bytes escaped";
}

TEST(SimConfig, BadFilesAndFlagsAreRefusedWithStatusTwo) {
  std::string tooMany = R"({"name":"n0","address":"127.0.0.1"})";
  for (int i = 1; i <= 256; ++i) {
    tooMany +=
        R"(,{"name":"n)" + std::to_string(i) + R"(","address":"127.0.0.1"})";
  }
  struct Case {
    const char* message;
    std::string json;
    Strings args = {};
  };
  // SimProcess passes --listen 127.0.0.1.
  const Case cases[] = {
      {"not valid JSON", "{"},
      {"unknown key \"servces\"", R"({"servces":[]})"},
      {"state", R"({"services":[{"name":"a","state":"dozing"}]})"},
      {"mode", R"({"services":[{"name":"a","mode":"sometimes"}]})"},
      {"elsewhere", R"({"services":[{"name":"a","node":"elsewhere"}]})"},
      {"address", R"({"nodes":[{"name":"n","address":"localhost"}]})"},
      {"sha256", R"({"users":[{"user":"u","sha256":"abc"}]})"},
      {"password", R"({"users":[{"user":"u"}]})"},
      {"poll_time", R"({"cluster":{"poll_time":"fast"}})"},
      {"cluster.poll_time: must be between 0 and 2147483647",
       R"({"cluster":{"poll_time":2147483648}})"},
      {"short_salt", R"({"faults":{"short_salt":9}})"},
      {"faults.split_salt: must be between 0 and 3600000",
       R"({"faults":{"split_salt":-1}})"},
      {"faults.salt: expected 8 hex digits", R"({"faults":{"salt":"0bad"}})"},
      {"cluster.name: invalid escape \"\\q\"",
       R"({"cluster":{"name":"caf\\q"}})"},
      {"services[0].name: must not contain line breaks or NUL",
       R"({"services":[{"name":"a\\x00"}]})"},
      {"faults.udp_answers[1]: invalid escape \"\\x4\"",
       R"({"faults":{"udp_answers":["-","\\x4"]}})"},
      {"--udp-answer: invalid escape",
       "{}",
       {"--udp-answer", "-", "--udp-answer", "ok\\"}},
      {"nodes[0].silent: expected false, true or \"mute\"",
       R"({"nodes":[{"name":"a","address":"127.0.0.1","silent":"no"}]})"},
      {"nodes: at most 256 nodes", R"({"nodes":[)" + tooMany + "]}"},
      {"--silent node9: no node of that name (the nodes are node1)",
       "{}",
       {"--silent", "node9"}},
      {"also given to --mute", "{}", {"--mute", "node1", "--silent", "node1"}},
      {"every node is silent", "{}", {"--silent", "node1"}},
      {"--listen 127.0.0.1: the address of node \"a\", which is silent",
       R"({"nodes":[{"name":"a","address":"127.0.0.1","silent":true},
                    {"name":"b","address":"127.0.0.2"}]})"},
      {"--nodes: the configuration file lists its nodes already",
       R"({"nodes":[{"name":"a","address":"127.0.0.1"}]})",
       {"--nodes", "3"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    try {
      SimProcess sim(withConfig(c.json, c.args));
      ADD_FAILURE() << "accepted: " << c.json;
    } catch (const std::runtime_error& e) {
      EXPECT_THAT(e.what(), HasSubstr("status 2"));
      EXPECT_THAT(e.what(), HasSubstr("configuration error"));
      EXPECT_THAT(e.what(), HasSubstr(c.message));
    }
  }
}

}  // namespace
