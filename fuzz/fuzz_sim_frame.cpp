// The simulator's request-frame parser and the daemon's answer to what it
// parses, on arbitrary bytes. No sockets: the input is cut at NUL bytes into
// frames as the server would read them on successive connections, and each
// frame is handed to fresh daemons (built-in cluster; the same without users,
// so that unauthenticated requests reach the service handling; and one whose
// services are broken or starting, for the refusals). Replies are checked
// for their shape and dropped. The same bytes also go through the escape
// decoder of names and discovery answers.
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

#include "auth.h"
#include "config.h"
#include "daemon.h"
#include "fuzz_support.h"

namespace {

// Frames handled per input, so that a sequence of requests can change the
// state a later one sees, without letting one input run for long.
constexpr std::size_t kMaxFrames = 16;

// What the client saw of the salt.
const std::string kSalt = "0123abcd";

// An authentication line whose digest is all zeros stands for "signed
// correctly": the fuzzer cannot forge an HMAC, yet the authenticated paths
// deserve as much attention as the refusals.
const std::string kSignMe(64, '0');

const std::vector<std::string> kListen{"127.0.0.1"};

struct Setup {
  std::vector<tovsim::Config> configs;
};

const Setup& setup() {
  static const Setup s = [] {
    Setup out;
    tovsim::Config builtin = tovsim::builtinConfig(1732170000);
    tovsim::finishConfig(builtin, kListen);
    out.configs.push_back(builtin);
    tovsim::Config open = builtin;
    open.users.clear();
    out.configs.push_back(open);
    tovsim::Config troubled = open;
    troubled.services.at(0).state = tovsim::ServiceState::Broken;
    troubled.services.at(1).state = tovsim::ServiceState::Starting;
    out.configs.push_back(troubled);
    return out;
  }();
  return s;
}

void checkParse(const std::string& content, const tovsim::Request& r) {
  const std::size_t nl = content.find('\n');
  FUZZ_REQUIRE(r.line == content.substr(0, nl));
  if (nl == std::string::npos) {
    FUZZ_REQUIRE(!r.hasAuth && r.data.empty());
    return;
  }
  // The parts put back together give the frame again.
  std::string rebuilt = r.line + '\n';
  if (r.hasAuth) {
    FUZZ_REQUIRE(tovsim::looksLikeAuthLine(r.user + ' ' + r.digest));
    FUZZ_REQUIRE(r.user.find(' ') == std::string::npos);
    rebuilt += r.user + ' ' + r.digest;
    if (rebuilt.size() < content.size()) rebuilt += '\n';
  } else {
    FUZZ_REQUIRE(r.user.empty() && r.digest.empty());
  }
  rebuilt += r.data;
  FUZZ_REQUIRE(rebuilt == content);
}

void checkReply(const tovsim::Request& r, const tovsim::Outcome& o) {
  FUZZ_REQUIRE(o.text.size() >= 3);
  FUZZ_REQUIRE(o.text.back() == '\n');
  FUZZ_REQUIRE(o.text[0] == (r.line.empty() ? '?' : r.line[0]));
  const char letter = static_cast<char>(o.letter);
  FUZZ_REQUIRE(o.text[1] == letter);
  FUZZ_REQUIRE(std::string("abcdgijklmnu").find(letter) != std::string::npos);
  // The reply is closed by a NUL on the wire, so it must not hold one.
  FUZZ_REQUIRE(o.text.find('\0') == std::string::npos);
  if (o.after != tovsim::Outcome::After::Nothing)
    FUZZ_REQUIRE(o.letter == tovsim::Reply::Ok);
}

void checkPadding(const std::string& text, std::size_t extra) {
  const long total = static_cast<long>(text.size() + 1 + extra);
  const std::string padded = tovsim::padReply(text, total);
  FUZZ_REQUIRE(static_cast<long>(padded.size()) + 1 == total);
  FUZZ_REQUIRE(padded.compare(0, text.size(), text) == 0);
  FUZZ_REQUIRE(tovsim::padReply(text, static_cast<long>(text.size())) == text);
}

// Decoding never grows a text, and every byte written as \xNN comes back.
void checkEscapes(const std::string& input) {
  try {
    FUZZ_REQUIRE(tovsim::decodeEscapes(input).size() <= input.size());
  } catch (const tovsim::ConfigError&) {
    FUZZ_REQUIRE(input.find('\\') != std::string::npos);
  }
  std::string encoded;
  for (unsigned char c : input) {
    static const char digits[] = "0123456789abcdef";
    encoded += "\\x";
    encoded += digits[c >> 4];
    encoded += digits[c & 15];
  }
  FUZZ_REQUIRE(tovsim::decodeEscapes(encoded) == input);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Log entries (request Y) are written whatever the verbosity.
  static fuzzsupport::NullBuf sink;
  std::cerr.rdbuf(&sink);
  setup();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  checkEscapes(input);
  std::vector<std::string> frames;
  for (std::size_t start = 0;
       start <= input.size() && frames.size() < kMaxFrames;) {
    const std::size_t nul = input.find('\0', start);
    frames.push_back(input.substr(start, nul - start));
    if (nul == std::string::npos) break;
    start = nul + 1;
  }

  std::vector<tovsim::Request> requests;
  for (const std::string& frame : frames) {
    requests.push_back(tovsim::parseFrame(frame));
    checkParse(frame, requests.back());
  }

  for (const tovsim::Config& cfg : setup().configs) {
    tovsim::Daemon daemon(cfg, 1732170000, kListen);
    for (std::size_t i = 0; i < requests.size(); ++i) {
      tovsim::Request req = requests[i];
      if (req.hasAuth && req.digest == kSignMe && !cfg.users.empty()) {
        req.digest = tovsim::authDigest(cfg.users.front().key,
                                        tovsim::binarySalt(kSalt), req.line);
      }
      const tovsim::Outcome out = daemon.handle(req, kSalt, 0);
      checkReply(req, out);
      daemon.faultsApply(req.line);
      checkPadding(out.text, frames[i].size() % 160);
    }
  }
  return 0;
}
