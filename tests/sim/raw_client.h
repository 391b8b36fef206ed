// A minimal client written from the wire format alone, so that the simulator
// is tested without the client library, and the helpers its tests share.
#ifndef TESTS_SIM_RAW_CLIENT_H
#define TESTS_SIM_RAW_CLIENT_H

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "support/net_helpers.h"
#include "support/sim.h"

namespace rawtest {

using Clock = std::chrono::steady_clock;
using Str = const std::string&;
using Strings = std::vector<std::string>;
using simtest::SimOptions;
using simtest::SimProcess;
using ::testing::_;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using testsupport::addressOf;
using testsupport::connectTcp;
using testsupport::Got;
using testsupport::readFor;
using testsupport::sendAll;
using testsupport::Socket;

const std::string kDefault = simtest::defaultConfigJson();
const std::string kUser = "admin";  // of the default cluster
const std::string kPass = "secret";
const std::string kProbe(8, '\xCD');  // the discovery probe

inline long long msSince(Clock::time_point t) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t)
      .count();
}

inline int msUntil(Clock::time_point t) {
  return static_cast<int>(std::max(0LL, -msSince(t)));
}

// Polls `cond` every 10 ms for up to 10 s.
template <class F>
bool eventually(F cond) {
  for (int i = 0; i < 1000 && !cond(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return cond();
}

inline bool logShows(SimProcess& sim, Str text) {
  return eventually([&] { return sim.log().find(text) != std::string::npos; });
}

inline SimOptions withConfig(Str json, Strings args = {}) {
  SimOptions o;
  o.configJson = json;
  o.extraArgs = std::move(args);
  return o;
}

inline std::string readSome(int fd, std::size_t n, int ms = 5000) {
  return readFor(fd, n, ms).bytes;
}

inline Got readToClose(int fd) { return readFor(fd, std::string::npos, 10000); }

// "<user> <hex HMAC-SHA-256(SHA-256(password), binsalt + line)>"; a salt of
// 8 hex digits stands for 4 bytes, anything else is used as it is.
inline std::string authLine(Str user, Str password, Str salt, Str line) {
  unsigned char key[SHA256_DIGEST_LENGTH], md[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(password.data()),
         password.size(), key);
  std::string msg = salt;
  if (salt.size() == 8 &&
      salt.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos) {
    msg.clear();
    for (std::size_t i = 0; i < 8; i += 2) {
      msg += static_cast<char>(std::stoi(salt.substr(i, 2), nullptr, 16));
    }
  }
  msg += line;
  HMAC(EVP_sha256(), key, sizeof key,
       reinterpret_cast<const unsigned char*>(msg.data()), msg.size(), md,
       nullptr);
  std::string out = user + ' ';
  for (std::size_t i = 0; i < 2 * sizeof md; ++i) {
    out += "0123456789abcdef"[(md[i / 2] >> (i % 2 ? 0 : 4)) & 15];
  }
  return out;
}

// The frame a client sends: line, LF, [auth line, LF], data, NUL.
inline std::string frame(Str line, Str auth = "", Str data = "") {
  return line + "\n" + (auth.empty() ? "" : auth + "\n") + data +
         std::string(1, '\0');
}

// One whole exchange; authenticates when `user` is not empty.
inline Got exchange(int port, Str line, Str user = "", Str password = "",
                    Str data = "", Str address = "127.0.0.1") {
  Socket s = connectTcp(address, port);
  const std::string salt = readSome(s.fd, 8);
  sendAll(s.fd,
          frame(line, user.empty() ? "" : authLine(user, password, salt, line),
                data));
  Got g = readToClose(s.fd);
  g.salt = salt;
  return g;
}

// The reply, authenticated as the default user when `auth`.
inline std::string reply(int port, Str line, bool auth = false) {
  return exchange(port, line, auth ? kUser : "", kPass).bytes;
}

inline std::string ask(Str address, int port, Str line) {
  return exchange(port, line, "", "", "", address).bytes;
}

inline char letterOf(Str reply) { return reply.size() >= 2 ? reply[1] : '\0'; }

// Sends each "<request> <letter>" in turn and expects that reply letter.
inline void expectLetters(int port, const Strings& steps, bool auth = true) {
  for (const std::string& s : steps) {
    const std::string r = reply(port, s.substr(0, s.size() - 2), auth);
    EXPECT_EQ(letterOf(r), s.back()) << "\"" << s << "\" got " << r;
  }
}

// The reply's lines without the closing NUL and without empty pieces.
inline Strings lines(Str reply) {
  Strings out;
  std::istringstream in(reply.substr(0, reply.find('\0')));
  for (std::string l; std::getline(in, l);) {
    if (!l.empty()) out.push_back(l);
  }
  return out;
}

inline std::string firstLine(Str reply) {
  return reply.substr(0, reply.find_first_of(std::string("\n\0", 2)));
}

// Split at every blank, so that a doubled blank shows up as an empty field.
inline Strings fields(Str line) {
  Strings out(1);
  for (char c : line) {
    if (c == ' ') out.emplace_back();
    if (c != ' ') out.back() += c;
  }
  return out;
}

// A UDP port free on every address given.
inline int freeUdpPort(const Strings& addrs) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    std::vector<Socket> held;
    int port = 0;
    for (const std::string& a : addrs) {
      held.emplace_back(socket(AF_INET, SOCK_DGRAM, 0));
      sockaddr_in sa = addressOf(a, port);
      socklen_t len = sizeof sa;
      if (bind(held.back().fd, reinterpret_cast<sockaddr*>(&sa), len) != 0) {
        break;
      }
      getsockname(held.back().fd, reinterpret_cast<sockaddr*>(&sa), &len);
      port = ntohs(sa.sin_port);
      if (held.size() == addrs.size()) return port;
    }
  }
  throw std::runtime_error("no free UDP port");
}

struct Datagram {
  std::string text, from;
};

// Sends each datagram to every address from one socket; collects answers
// until `want` came (or 5 s passed), and then for `graceMs` more.
inline std::vector<Datagram> probe(const Strings& addrs, int port, size_t want,
                                   const Strings& sent = {kProbe},
                                   int graceMs = 100) {
  Socket s(socket(AF_INET, SOCK_DGRAM, 0));
  for (const std::string& a : addrs) {
    const sockaddr_in sa = addressOf(a, port);
    for (const std::string& d : sent) {
      sendto(s.fd, d.data(), d.size(), 0,
             reinterpret_cast<const sockaddr*>(&sa), sizeof sa);
    }
  }
  std::vector<Datagram> out;
  auto until = Clock::now() + std::chrono::milliseconds(want ? 5000 : graceMs);
  for (pollfd p{s.fd, POLLIN, 0}; poll(&p, 1, msUntil(until)) > 0;) {
    char buf[8192], host[INET_ADDRSTRLEN];
    sockaddr_in from{};
    socklen_t len = sizeof from;
    const ssize_t n = recvfrom(s.fd, buf, sizeof buf, 0,
                               reinterpret_cast<sockaddr*>(&from), &len);
    if (n < 0 || out.size() > 1000) break;
    out.push_back({std::string(buf, static_cast<std::size_t>(n)),
                   inet_ntop(AF_INET, &from.sin_addr, host, sizeof host)});
    if (out.size() == want)
      until = Clock::now() + std::chrono::milliseconds(graceMs);
  }
  return out;
}

}  // namespace rawtest

#endif  // TESTS_SIM_RAW_CLIENT_H
