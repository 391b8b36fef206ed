// The simulator's request/reply behaviour, seen from the wire.
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <set>
#include <thread>

#include "raw_client.h"
#include "support/sim.h"

namespace {

using rawtest::exchange;
using rawtest::fields;
using rawtest::lines;
using simtest::SimOptions;
using simtest::SimProcess;

const std::string kUser = "admin";
const std::string kPass = "secret";

SimOptions withConfig(const std::string& json) {
  SimOptions o;
  o.configJson = json;
  return o;
}

char letterOf(const std::string& reply) {
  return reply.size() >= 2 ? reply[1] : '\0';
}

// The S record of service `idx` from the service list.
std::string serviceRecord(int port, int idx) {
  for (const std::string& l : lines(exchange(port, "O 0").bytes)) {
    if (l.rfind("S " + std::to_string(idx) + " ", 0) == 0) return l;
  }
  return "";
}

bool waitExit(SimProcess& sim, int ms) {
  for (int i = 0; i < ms / 10; ++i) {
    if (!sim.running()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return !sim.running();
}

const char* kOpenConfig = R"({
  "cluster": {"name": "open"},
  "services": [
    {"name": "svc0", "state": "broken", "mode": "auto"},
    {"name": "svc1", "state": "broken", "mode": "manual"},
    {"name": "svc2", "state": "starting", "mode": "auto"},
    {"name": "svc3", "state": "stopping", "mode": "manual"},
    {"name": "svc4", "state": "running", "mode": "auto", "blocked": true}
  ]
})";

TEST(SimSalt, IsEightFreshLowerCaseHexDigits) {
  SimProcess sim(withConfig(simtest::defaultConfigJson()));
  std::set<std::string> seen;
  for (int i = 0; i < 5; ++i) {
    const auto r = exchange(sim.port(), "V 0");
    EXPECT_TRUE(std::regex_match(r.salt, std::regex("[0-9a-f]{8}"))) << r.salt;
    seen.insert(r.salt);
  }
  EXPECT_EQ(seen.size(), 5u);
}

TEST(SimFrame, ReplyIsEchoLetterMessageLinesAndOneNul) {
  SimProcess sim(withConfig(simtest::defaultConfigJson()));
  for (const std::string req : {"O 0", "B 0", "Q 0", "@AQ 1", "[ 0", ""}) {
    const auto r = exchange(sim.port(), req);
    ASSERT_GE(r.bytes.size(), 4u) << req;
    EXPECT_EQ(r.bytes[0], req.empty() ? '?' : req[0]) << req;
    EXPECT_EQ(r.bytes.find('\0'), r.bytes.size() - 1) << "one NUL, at the end";
    EXPECT_EQ(r.bytes[r.bytes.size() - 2], '\n') << req;
    EXPECT_EQ(r.bytes.find("\n\n"), std::string::npos) << req;
    EXPECT_EQ(r.err, 0);
  }
  // "<E><L> <message>": a blank between letter and message.
  EXPECT_EQ(exchange(sim.port(), "Q 0").bytes,
            std::string("Qu unknown request\n") + '\0');
}

TEST(SimAuth, ValidAuthenticationChangesState) {
  SimProcess sim(withConfig(simtest::defaultConfigJson()));
  EXPECT_EQ(serviceRecord(sim.port(), 0), "S 0 web running auto 0 node1");
  const auto r = exchange(sim.port(), "G 0", kUser, kPass);
  EXPECT_EQ(letterOf(r.bytes), 'a') << r.bytes;
  EXPECT_EQ(serviceRecord(sim.port(), 0), "S 0 web stopped manual 0 -");
}

TEST(SimAuth, MissingOrWrongAuthenticationIsRefusedWithoutChange) {
  SimProcess sim(withConfig(simtest::defaultConfigJson()));
  const std::string before = serviceRecord(sim.port(), 0);
  struct Case {
    const char* what;
    std::string authFor;  // "" = no auth line
    std::string user;
    std::string pass;
  };
  const Case cases[] = {
      {"no authentication line", "", "", ""},
      {"wrong password", "salt", kUser, "wrong"},
      {"unknown user", "salt", "nobody", kPass},
      {"digest over another line", "G 1", kUser, kPass},
      {"digest with an old salt", "old", kUser, kPass},
  };
  const std::string oldSalt = exchange(sim.port(), "V 0").salt;
  for (const Case& c : cases) {
    rawtest::Socket s = rawtest::connectTcp("127.0.0.1", sim.port());
    const std::string salt = rawtest::readSome(s.fd(), 8, 5000);
    std::string auth;
    if (c.authFor == "salt") {
      auth = rawtest::authLine(c.user, c.pass, salt, "G 0");
    } else if (c.authFor == "old") {
      auth = rawtest::authLine(c.user, c.pass, oldSalt, "G 0");
    } else if (!c.authFor.empty()) {
      auth = rawtest::authLine(c.user, c.pass, salt, c.authFor);
    }
    rawtest::sendAll(s.fd(), rawtest::frame("G 0", auth));
    EXPECT_EQ(lines(rawtest::readToClose(s.fd()))[0],
              "Gd authentication failed")
        << c.what;
  }
  EXPECT_EQ(serviceRecord(sim.port(), 0), before);
}

TEST(SimAuth, UpperCaseDigestIsDataNotAuthentication) {
  SimProcess sim(withConfig(simtest::defaultConfigJson()));
  rawtest::Socket s = rawtest::connectTcp("127.0.0.1", sim.port());
  const std::string salt = rawtest::readSome(s.fd(), 8, 5000);
  std::string auth = rawtest::authLine(kUser, kPass, salt, "G 0");
  for (char& c : auth) c = static_cast<char>(std::toupper(c));
  rawtest::sendAll(s.fd(), rawtest::frame("G 0", auth));
  EXPECT_EQ(letterOf(rawtest::readToClose(s.fd())), 'd');
}

TEST(SimAuth, ReadsNeedNoAuthentication) {
  SimProcess sim(withConfig(simtest::defaultConfigJson()));
  for (const std::string req : {"CCN", "C 0", "N 0", "O 1", "V 0"}) {
    EXPECT_EQ(letterOf(exchange(sim.port(), req).bytes), 'n') << req;
  }
  // A wrong authentication line on a read is ignored.
  EXPECT_EQ(letterOf(exchange(sim.port(), "O 0", kUser, "wrong").bytes), 'n');
}

TEST(SimAuth, PasswordCheck) {
  SimProcess sim(withConfig(simtest::defaultConfigJson()));
  EXPECT_EQ(letterOf(exchange(sim.port(), "J", kUser, kPass).bytes), 'a');
  EXPECT_EQ(letterOf(exchange(sim.port(), "J", kUser, "nope").bytes), 'd');
  EXPECT_EQ(letterOf(exchange(sim.port(), "J").bytes), 'd');
}

TEST(SimAuth, UserGivenByPasswordDigest) {
  // sha256("pw")
  SimProcess sim(withConfig(R"({"services": [{"name": "a"}], "users": [
    {"user": "ops", "sha256":
     "30c952fab122c3f9759f02a6d95c3758b246b4fee239957b2d4fee46e26170c4"}]})"));
  EXPECT_EQ(letterOf(exchange(sim.port(), "I 0", "ops", "pw").bytes), 'a');
  EXPECT_EQ(letterOf(exchange(sim.port(), "H 0", "ops", "PW").bytes), 'd');
}

TEST(SimAuth, OpenDaemonTakesDataAsLogText) {
  SimProcess sim(withConfig(kOpenConfig));
  // Without users nothing needs authentication, and a second line that is
  // not an authentication line is data.
  const auto r = exchange(sim.port(), "Y 2", "", "", "hello from the data");
  EXPECT_EQ(lines(r.bytes)[0], "Ya logged");
  EXPECT_NE(sim.log().find("hello from the data"), std::string::npos)
      << sim.log();
  EXPECT_EQ(lines(exchange(sim.port(), "J").bytes)[0],
            "Ja authentication not required");
}

// Each request in turn on the default cluster (web running auto, db stopped
// manual); the expected letters depend on the requests before them.
TEST(SimRequests, EveryLetterGetsItsDocumentedReply) {
  SimProcess sim(withConfig(simtest::defaultConfigJson()));
  struct Step {
    const char* line;
    char letter;
  };
  const Step steps[] = {
      {"CCN", 'n'},
      {"C 0", 'n'},
      {"D 0 10 20", 'a'},
      {"D 0", 'l'},
      {"D 0 x", 'l'},
      {"E 0", 'a'},
      {"E 1", 'c'},
      {"B 0", 'a'},
      {"B 1", 'c'},
      {"F 0", 'a'},
      {"F 1", 'c'},
      {"H 0", 'a'},
      {"H 0", 'b'},
      {"I 0", 'a'},
      {"I 0", 'b'},
      {"G 1", 'b'},
      {"I 1", 'a'},
      {"G 1", 'a'},
      {"W 1", 'a'},
      {"W 1", 'b'},
      {"I 1", 'a'},
      {"X 1", 'a'},
      {"X 1", 'b'},
      {"K 1", 'a'},
      {"K 1", 'b'},
      {"@AQ 1", 'm'},
      {"X 1", 'a'},
      {"@AQ 1", 'b'},
      {"G 1", 'a'},
      {"@AQ 1", 'a'},
      {"M 0", 'a'},
      {"M 0 on", 'b'},
      {"M 0 off", 'a'},
      {"M 0 sideways", 'l'},
      {"N 0", 'n'},
      {"O 0", 'n'},
      {"R 0", 'n'},
      {"V 0", 'n'},
      {"U 0", 'j'},
      {"[ 0", 'j'},
      {"Y 0 hello", 'a'},
      {"Y 0", 'l'},
      {"Z 0", 'u'},
      {"Z 0 ping", 'a'},
      {"Z 0 protocol", 'n'},
      {"J", 'a'},
      {"B 0 extra words", 'a'},
      // Letters this daemon does not take, and malformed lines.
      {"A 0", 'u'},
      {"P 0", 'u'},
      {"Q 0", 'u'},
      {"S 0", 'u'},
      {"T 0", 'u'},
      {"a 0", 'u'},
      {"JX", 'u'},
      {"@AB 0", 'u'},
      {"@", 'u'},
      {"B0", 'u'},
      {"", 'u'},
      // Service numbers the daemon does not have.
      {"B 2", 'l'},
      {"B x", 'l'},
      {"B", 'l'},
      {"B ", 'l'},
      {"O 99999999", 'l'},
      {"C -1", 'l'},
  };
  for (const Step& s : steps) {
    const auto r = exchange(sim.port(), s.line, kUser, kPass);
    EXPECT_EQ(letterOf(r.bytes), s.letter)
        << "request \"" << s.line << "\" got \"" << lines(r.bytes)[0] << "\"";
  }
  // The effects add up: db ended quickstarted, web in automatic mode.
  EXPECT_EQ(serviceRecord(sim.port(), 1), "S 1 db running manual 0 node1");
  EXPECT_EQ(serviceRecord(sim.port(), 0), "S 0 web running auto 0 node1");
}

TEST(SimRequests, BrokenTransitionalAndBlockedServices) {
  SimProcess sim(withConfig(kOpenConfig));
  const int p = sim.port();
  struct Step {
    const char* line;
    char letter;
    int service;  // record checked afterwards, -1 none
    const char* record;
  };
  const Step steps[] = {
      {"B 0", 'g', -1, ""},
      {"G 0", 'g', -1, ""},
      {"U 0", 'a', 0, "S 0 svc0 running auto 0 node1"},  // auto restarts
      {"U 1", 'a', 1, "S 1 svc1 stopped manual 0 -"},
      {"[ 1", 'j', -1, ""},
      {"B 2", 'm', 2, "S 2 svc2 starting auto 0 node1"},
      {"G 3", 'm', -1, ""},
      {"H 2", 'a', 2, "S 2 svc2 starting manual 0 node1"},
      {"B 4", 'm', -1, ""},  // blocked: could not start again
      {"F 4", 'm', -1, ""},
      {"W 4", 'b', -1, ""},
      {"G 4", 'a', 4, "S 4 svc4 stopped manual 1 -"},
      {"I 4", 'a', 4, "S 4 svc4 stopped auto 1 -"},  // blocked: not started
      {"X 4", 'a', 4, "S 4 svc4 running auto 0 node1"},
  };
  for (const Step& s : steps) {
    const auto r = exchange(p, s.line);
    EXPECT_EQ(letterOf(r.bytes), s.letter)
        << "request \"" << s.line << "\" got \"" << lines(r.bytes)[0] << "\"";
    if (s.service >= 0) {
      EXPECT_EQ(serviceRecord(p, s.service), s.record) << s.line;
    }
  }
}

TEST(SimRequests, RecoveredStateRunsBrokenServiceHere) {
  SimProcess sim(withConfig(kOpenConfig));
  EXPECT_EQ(letterOf(exchange(sim.port(), "[ 1").bytes), 'a');
  EXPECT_EQ(serviceRecord(sim.port(), 1), "S 1 svc1 running manual 0 node1");
  const auto events = lines(exchange(sim.port(), "R 1").bytes);
  ASSERT_GE(events.size(), 2u);
  EXPECT_NE(events.back().find("recovered"), std::string::npos);
}

TEST(SimRequests, ShutdownAnswersThenExits) {
  SimProcess sim(withConfig(simtest::defaultConfigJson()));
  EXPECT_EQ(lines(exchange(sim.port(), "L ", kUser, kPass).bytes)[0],
            "La daemon shutting down");
  ASSERT_TRUE(waitExit(sim, 5000)) << sim.log();
  EXPECT_EQ(sim.exitStatus(), 0);
  EXPECT_THROW(rawtest::connectTcp("127.0.0.1", sim.port()),
               std::runtime_error);
}

TEST(SimRequests, ShutdownNeedsAuthentication) {
  SimProcess sim(withConfig(simtest::defaultConfigJson()));
  EXPECT_EQ(letterOf(exchange(sim.port(), "L ").bytes), 'd');
  EXPECT_EQ(letterOf(exchange(sim.port(), "JA").bytes), 'd');
  EXPECT_TRUE(sim.running());
}

TEST(SimRequests, HaltAnswersThenExits) {
  SimProcess sim(withConfig(simtest::defaultConfigJson()));
  EXPECT_EQ(lines(exchange(sim.port(), "JA", kUser, kPass).bytes)[0],
            "Ja halting");
  ASSERT_TRUE(waitExit(sim, 5000)) << sim.log();
  EXPECT_EQ(sim.exitStatus(), 0);
}

TEST(SimInfo, InformationReplyFormat) {
  SimProcess sim(withConfig(simtest::defaultConfigJson()));
  const auto r = exchange(sim.port(), "CCN");
  const auto ls = lines(r.bytes);
  ASSERT_EQ(ls.size(), 6u) << r.bytes;
  EXPECT_EQ(ls[0], "Cn cluster information");
  const auto c = fields(ls[1]);
  ASSERT_EQ(c.size(), 13u) << ls[1];
  EXPECT_EQ(c[0], "C");
  EXPECT_EQ(c[1], "testcluster");
  EXPECT_EQ(c[2], "1");  // nodes
  EXPECT_EQ(c[3], "2");  // services
  EXPECT_TRUE(std::regex_match(c[4], std::regex("[0-9a-f]{8}"))) << c[4];
  EXPECT_EQ(c[5], "-1");
  EXPECT_EQ(std::stoll(c[7]),
            static_cast<long long>(simtest::defaultConfigJson().size()));
  EXPECT_EQ(c[8], "1");  // poll time
  const long long now = static_cast<long long>(std::time(nullptr));
  EXPECT_LE(std::abs(std::stoll(c[9]) - now), 60);
  EXPECT_EQ(c[10], "0");
  EXPECT_EQ(c[11], "node1");
  EXPECT_EQ(c[12], "tovsim_test_node");  // blanks written as '_'
  EXPECT_EQ(ls[2], "N node1 127.0.0.1 4");
  EXPECT_EQ(ls[3], "S 0 web running auto 0 node1");
  EXPECT_EQ(ls[4], "S 1 db stopped manual 0 -");
  EXPECT_TRUE(std::regex_match(ls[5], std::regex("V [^ ]+ [^ ]+"))) << ls[5];
}

TEST(SimInfo, BootstrapSerialAndConfigChecksum) {
  const std::string a =
      R"({"cluster": {"name": "boot", "serial": 42, "bootstrap": true},
          "services": []})";
  SimProcess s1(withConfig(a));
  SimProcess s2(withConfig(a));
  SimProcess s3(withConfig(a + " "));
  auto cline = [](SimProcess& s) {
    return fields(lines(exchange(s.port(), "CCN").bytes)[1]);
  };
  const auto c1 = cline(s1);
  ASSERT_EQ(c1.size(), 13u);
  EXPECT_EQ(c1[3], "0");
  EXPECT_EQ(c1[5], "42");
  EXPECT_EQ(c1[10], "1");
  EXPECT_EQ(cline(s2)[4], c1[4]) << "same file, same checksum";
  EXPECT_NE(cline(s3)[4], c1[4]) << "another file, another checksum";
}

TEST(SimInfo, EscapedNamesAreServedAsTheirBytes) {
  // What JSON cannot carry (a Latin-1 byte, control characters) reaches the
  // records through escapes; blanks and tabs still become '_'.
  SimProcess sim(withConfig(R"({
    "cluster": {"name": "caf\\xe9\\x1b[0m", "poll_time": 2147483647,
                "machine_ident": "back\\\\slash",
                "machine_desc": "\\x1b]0;pwned\\x07 desc\\there"},
    "nodes": [{"name": "n\\xE9", "address": "127.0.0.1"}],
    "services": [{"name": "s\\x1b[1m", "node": "n\\xe9",
                  "state": "running"}]
  })"));
  const auto ls = lines(exchange(sim.port(), "CCN").bytes);
  ASSERT_GE(ls.size(), 4u);
  const auto c = fields(ls[1]);
  ASSERT_EQ(c.size(), 13u) << ls[1];
  EXPECT_EQ(c[1], "caf\xe9\x1b[0m");
  EXPECT_EQ(c[8], "2147483647");
  EXPECT_EQ(c[11], "back\\slash");
  EXPECT_EQ(c[12], "\x1b]0;pwned\x07_desc_here");
  EXPECT_EQ(ls[2], "N n\xe9 127.0.0.1 4");
  EXPECT_EQ(ls[3], "S 0 s\x1b[1m running manual 0 n\xe9");
  EXPECT_EQ(letterOf(exchange(sim.port(), "Y 0 hello").bytes), 'a');
  EXPECT_EQ(sim.log().find('\x1b'), std::string::npos)
      << "the log shows control bytes escaped";
}

TEST(SimConfig, BuiltInClusterWithoutConfigFile) {
  SimProcess sim(SimOptions{});
  const auto ls = lines(exchange(sim.port(), "CCN").bytes);
  ASSERT_GE(ls.size(), 2u);
  EXPECT_EQ(fields(ls[1])[1], "testcluster");
  EXPECT_EQ(letterOf(exchange(sim.port(), "G 0", kUser, kPass).bytes), 'a');
}

TEST(SimConfig, BadFilesAndFlagsAreRefusedWithStatusTwo) {
  struct Case {
    std::string json;
    std::vector<std::string> args;
    const char* message;
  };
  std::string tooMany;  // 257 nodes
  for (int i = 1; i <= 257; ++i) {
    tooMany += std::string(tooMany.empty() ? "" : ", ") + R"({"name": "n)" +
               std::to_string(i) + R"(", "address": "127.0.0.1"})";
  }
  // SimProcess passes --listen 127.0.0.1.
  const Case cases[] = {
      {"{", {}, "not valid JSON"},
      {R"({"servces": []})", {}, "unknown key \"servces\""},
      {R"({"services": [{"name": "a", "state": "dozing"}]})", {}, "state"},
      {R"({"services": [{"name": "a", "mode": "sometimes"}]})", {}, "mode"},
      {R"({"services": [{"name": "a", "node": "elsewhere"}]})",
       {},
       "elsewhere"},
      {R"({"nodes": [{"name": "n", "address": "localhost"}]})", {}, "address"},
      {R"({"users": [{"user": "u", "sha256": "abc"}]})", {}, "sha256"},
      {R"({"users": [{"user": "u"}]})", {}, "password"},
      {R"({"cluster": {"poll_time": "fast"}})", {}, "poll_time"},
      {R"({"cluster": {"poll_time": 2147483648}})",
       {},
       "cluster.poll_time: must be between 0 and 2147483647"},
      {R"({"faults": {"short_salt": 9}})", {}, "short_salt"},
      {R"({"cluster": {"name": "caf\\q"}})",
       {},
       "cluster.name: invalid escape \"\\q\""},
      {R"({"services": [{"name": "a\\x00"}]})",
       {},
       "services[0].name: must not contain line breaks or NUL"},
      {R"({"faults": {"udp_answers": ["-", "\\x4"]}})",
       {},
       "faults.udp_answers[1]: invalid escape \"\\x4\""},
      {"{}",
       {"--udp-answer", "-", "--udp-answer", "ok\\"},
       "--udp-answer: invalid escape"},
      {R"({"nodes": [{"name": "a", "address": "127.0.0.1", "silent": "no"}]})",
       {},
       "nodes[0].silent: expected false, true or \"mute\""},
      {R"({"nodes": [)" + tooMany + "]}", {}, "nodes: at most 256 nodes"},
      {"{}",
       {"--silent", "node9"},
       "--silent node9: no node of that name (the nodes are node1)"},
      {"{}", {"--mute", "node1", "--silent", "node1"}, "also given to --mute"},
      {"{}", {"--silent", "node1"}, "every node is silent"},
      {R"({"nodes": [{"name": "a", "address": "127.0.0.1", "silent": true},
                     {"name": "b", "address": "127.0.0.2"}]})",
       {},
       "--listen 127.0.0.1: the address of node \"a\", which is silent"},
      {R"({"nodes": [{"name": "a", "address": "127.0.0.1"}]})",
       {"--nodes", "3"},
       "--nodes: the configuration file lists its nodes already"},
  };
  for (const Case& c : cases) {
    SimOptions o = withConfig(c.json);
    o.extraArgs = c.args;
    try {
      SimProcess sim(o);
      ADD_FAILURE() << "accepted: " << c.json;
    } catch (const std::runtime_error& e) {
      const std::string msg = e.what();
      EXPECT_NE(msg.find("status 2"), std::string::npos) << msg;
      EXPECT_NE(msg.find("configuration error"), std::string::npos) << msg;
      EXPECT_NE(msg.find(c.message), std::string::npos) << msg;
    }
  }
}

}  // namespace
