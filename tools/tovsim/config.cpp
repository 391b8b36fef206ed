#include "config.h"

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "log.h"

namespace tovsim {

using nlohmann::json;

const char* stateName(ServiceState s) {
  switch (s) {
    case ServiceState::Running:
      return "running";
    case ServiceState::Stopped:
      return "stopped";
    case ServiceState::Starting:
      return "starting";
    case ServiceState::Stopping:
      return "stopping";
    case ServiceState::Broken:
      return "broken";
  }
  return "unknown";
}

std::uint32_t crc32(const std::string& bytes) {
  static const auto table = [] {
    std::array<std::uint32_t, 256> t{};
    for (std::uint32_t i = 0; i < 256; ++i) {
      std::uint32_t c = i;
      for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      t[i] = c;
    }
    return t;
  }();
  std::uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char b : bytes) crc = table[(crc ^ b) & 0xFF] ^ (crc >> 8);
  return crc ^ 0xFFFFFFFFu;
}

int addressFamily(const std::string& address) {
  unsigned char buf[sizeof(struct in6_addr)];
  if (inet_pton(AF_INET, address.c_str(), buf) == 1) return 4;
  if (inet_pton(AF_INET6, address.c_str(), buf) == 1) return 6;
  return 0;
}

namespace {

[[noreturn]] void fail(const std::string& where, const std::string& what) {
  throw ConfigError(where + ": " + what);
}

void onlyKeys(const json& obj, const std::string& where,
              std::initializer_list<const char*> allowed) {
  if (!obj.is_object()) fail(where, "expected an object");
  for (auto it = obj.begin(); it != obj.end(); ++it) {
    bool known = false;
    for (const char* k : allowed) known = known || it.key() == k;
    if (!known) fail(where, "unknown key \"" + it.key() + "\"");
  }
}

// Record fields and reply messages are lines ended by a line feed, and the
// reply by a NUL.
void checkOneLine(const std::string& where, const std::string& s) {
  for (char c : s) {
    if (c == '\n' || c == '\r' || c == '\0') {
      fail(where, "must not contain line breaks or NUL");
    }
  }
}

std::string getString(const json& obj, const std::string& where,
                      const char* key, const std::string& def,
                      bool allowEmpty = false) {
  if (!obj.contains(key)) return def;
  const json& v = obj.at(key);
  if (!v.is_string()) fail(where + "." + key, "expected a string");
  std::string s = v.get<std::string>();
  if (s.empty() && !allowEmpty) fail(where + "." + key, "must not be empty");
  checkOneLine(where + "." + key, s);
  return s;
}

// A name or description: escapes let it hold bytes that JSON cannot carry
// (not UTF-8, control characters).
std::string getName(const json& obj, const std::string& where, const char* key,
                    const std::string& def, bool allowEmpty = false) {
  if (!obj.contains(key)) return def;
  const std::string raw = getString(obj, where, key, def, allowEmpty);
  std::string s;
  try {
    s = decodeEscapes(raw);
  } catch (const ConfigError& e) {
    fail(where + "." + key, e.what());
  }
  checkOneLine(where + "." + key, s);
  return s;
}

long long getInt(const json& obj, const std::string& where, const char* key,
                 long long def, long long lo, long long hi) {
  if (!obj.contains(key)) return def;
  const json& v = obj.at(key);
  if (!v.is_number_integer()) fail(where + "." + key, "expected an integer");
  const long long n = v.get<long long>();
  if (n < lo || n > hi) {
    fail(where + "." + key, "must be between " + std::to_string(lo) + " and " +
                                std::to_string(hi));
  }
  return n;
}

bool getBool(const json& obj, const std::string& where, const char* key,
             bool def) {
  if (!obj.contains(key)) return def;
  const json& v = obj.at(key);
  if (v.is_boolean()) return v.get<bool>();
  if (v.is_number_integer() && (v == 0 || v == 1)) return v == 1;
  fail(where + "." + key, "expected true/false (or 0/1)");
}

std::array<unsigned char, 32> sha256(const std::string& text) {
  std::array<unsigned char, 32> out{};
  unsigned int len = 0;
  if (EVP_Digest(text.data(), text.size(), out.data(), &len, EVP_sha256(),
                 nullptr) != 1 ||
      len != out.size()) {
    throw ConfigError("SHA-256 digest failed");
  }
  return out;
}

bool hexDigest(const std::string& hex, std::array<unsigned char, 32>& out) {
  if (hex.size() != 64) return false;
  for (std::size_t i = 0; i < 32; ++i) {
    unsigned v = 0;
    for (int k = 0; k < 2; ++k) {
      const char c = static_cast<char>(
          std::tolower(static_cast<unsigned char>(hex[2 * i + k])));
      v <<= 4;
      if (c >= '0' && c <= '9') {
        v |= static_cast<unsigned>(c - '0');
      } else if (c >= 'a' && c <= 'f') {
        v |= static_cast<unsigned>(c - 'a' + 10);
      } else {
        return false;
      }
    }
    out[i] = static_cast<unsigned char>(v);
  }
  return true;
}

void parseCluster(const json& c, Config& cfg) {
  const std::string w = "cluster";
  onlyKeys(c, w,
           {"name", "serial", "poll_time", "bootstrap", "machine_ident",
            "machine_desc"});
  cfg.clusterName = getName(c, w, "name", cfg.clusterName);
  if (c.contains("serial") && c.at("serial").is_number_integer()) {
    cfg.serial = std::to_string(c.at("serial").get<long long>());
  } else {
    cfg.serial = getString(c, w, "serial", cfg.serial);
  }
  // Any poll time a record can announce, absurd ones included, so that
  // clients can be tried against them.
  cfg.pollTime =
      static_cast<int>(getInt(c, w, "poll_time", 1, 0, kMaxPollTime));
  cfg.bootstrap = getBool(c, w, "bootstrap", false);
  cfg.machineIdent = getName(c, w, "machine_ident", "", true);
  cfg.machineDesc = getName(c, w, "machine_desc", cfg.machineDesc, true);
}

void parseListen(const json& l, std::vector<std::string>& out) {
  if (!l.is_array()) fail("listen", "expected an array of addresses");
  for (std::size_t i = 0; i < l.size(); ++i) {
    const std::string w = "listen[" + std::to_string(i) + "]";
    if (!l[i].is_string() || addressFamily(l[i].get<std::string>()) == 0) {
      fail(w, "expected a numeric IP address");
    }
    out.push_back(l[i].get<std::string>());
  }
}

// "silent": false, true (or 0/1), or "mute".
Silence parseSilence(const json& v, const std::string& where) {
  if (v.is_string() && v.get<std::string>() == "mute") return Silence::Mute;
  if (v.is_boolean() || (v.is_number_integer() && (v == 0 || v == 1))) {
    return (v.is_boolean() ? v.get<bool>() : v == 1) ? Silence::Refused
                                                     : Silence::None;
  }
  fail(where, "expected false, true or \"mute\"");
}

// `seen`: the names of the nodes before, each unique.
NodeConfig parseNode(const json& j, const std::string& w,
                     std::set<std::string>& seen) {
  onlyKeys(j, w, {"name", "address", "family", "silent"});
  NodeConfig n;
  n.name = getName(j, w, "name", "");
  if (n.name.empty()) fail(w + ".name", "is required");
  if (!seen.insert(n.name).second) fail(w + ".name", "duplicate node name");
  n.address = getString(j, w, "address", "");
  const int fam = addressFamily(n.address);
  if (fam == 0) fail(w + ".address", "expected a numeric IP address");
  n.family = static_cast<int>(getInt(j, w, "family", fam, 4, 6));
  if (n.family != fam) {
    fail(w + ".family",
         "does not match the address (expected " + std::to_string(fam) + ")");
  }
  if (j.contains("silent"))
    n.silence = parseSilence(j.at("silent"), w + ".silent");
  return n;
}

void parseNodes(const json& ns, std::vector<NodeConfig>& out) {
  if (!ns.is_array()) fail("nodes", "expected an array");
  if (ns.size() > kMaxNodes) {
    fail("nodes", "at most " + std::to_string(kMaxNodes) + " nodes, not " +
                      std::to_string(ns.size()));
  }
  std::set<std::string> seen;
  for (std::size_t i = 0; i < ns.size(); ++i) {
    out.push_back(parseNode(ns[i], "nodes[" + std::to_string(i) + "]", seen));
  }
}

ServiceState parseState(const std::string& text, const std::string& where) {
  for (ServiceState s :
       {ServiceState::Running, ServiceState::Stopped, ServiceState::Starting,
        ServiceState::Stopping, ServiceState::Broken}) {
    if (text == stateName(s)) return s;
  }
  fail(where, "expected running, stopped, starting, stopping or broken");
}

ServiceConfig parseService(const json& j, const std::string& w,
                           std::set<std::string>& seen) {
  onlyKeys(j, w, {"name", "state", "mode", "blocked", "node"});
  ServiceConfig s;
  s.name = getName(j, w, "name", "");
  if (s.name.empty()) fail(w + ".name", "is required");
  if (!seen.insert(s.name).second) fail(w + ".name", "duplicate service name");
  s.state = parseState(getString(j, w, "state", "stopped"), w + ".state");
  const std::string mode = getString(j, w, "mode", "manual");
  if (mode != "auto" && mode != "manual") {
    fail(w + ".mode", "expected auto or manual");
  }
  s.automatic = mode == "auto";
  s.blocked = getBool(j, w, "blocked", false);
  s.node = getName(j, w, "node", "", true);  // as nodes[].name
  return s;
}

void parseServices(const json& ss, std::vector<ServiceConfig>& out) {
  if (!ss.is_array()) fail("services", "expected an array");
  std::set<std::string> seen;
  for (std::size_t i = 0; i < ss.size(); ++i) {
    out.push_back(
        parseService(ss[i], "services[" + std::to_string(i) + "]", seen));
  }
}

UserConfig parseUser(const json& j, const std::string& w,
                     std::set<std::string>& seen) {
  onlyKeys(j, w, {"user", "password", "sha256"});
  UserConfig u;
  u.user = getString(j, w, "user", "");
  if (u.user.empty()) fail(w + ".user", "is required");
  for (char c : u.user) {
    if (std::isspace(static_cast<unsigned char>(c))) {
      fail(w + ".user", "must not contain blanks");
    }
  }
  if (!seen.insert(u.user).second) fail(w + ".user", "duplicate user");
  const bool hasPw = j.contains("password");
  const bool hasHash = j.contains("sha256");
  if (!hasPw && !hasHash) fail(w, "needs \"password\" or \"sha256\"");
  if (hasPw) u.key = sha256(getString(j, w, "password", "", true));
  if (hasHash) {
    std::array<unsigned char, 32> fromHex{};
    if (!hexDigest(getString(j, w, "sha256", ""), fromHex)) {
      fail(w + ".sha256", "expected 64 hexadecimal digits");
    }
    if (hasPw && fromHex != u.key) {
      fail(w + ".sha256", "is not the SHA-256 of the given password");
    }
    u.key = fromHex;
  }
  return u;
}

void parseUsers(const json& us, std::vector<UserConfig>& out) {
  if (!us.is_array()) fail("users", "expected an array");
  std::set<std::string> seen;
  for (std::size_t i = 0; i < us.size(); ++i) {
    out.push_back(parseUser(us[i], "users[" + std::to_string(i) + "]", seen));
  }
}

void parseUdpAnswers(const json& a, Faults& out) {
  const std::string w = "faults.udp_answers";
  if (!a.is_array()) fail(w, "expected an array of strings");
  if (a.size() > kMaxUdpAnswers) {
    fail(w,
         "at most " + std::to_string(kMaxUdpAnswers) + " datagrams per probe");
  }
  out.udpAnswers.clear();
  for (std::size_t i = 0; i < a.size(); ++i) {
    const std::string wi = w + "[" + std::to_string(i) + "]";
    if (!a[i].is_string()) fail(wi, "expected a string");
    try {
      out.udpAnswers.push_back(parseUdpAnswer(a[i].get<std::string>()));
    } catch (const ConfigError& e) {
      fail(wi, e.what());
    }
  }
}

void parseFaults(const json& f, Faults& out) {
  const std::string w = "faults";
  onlyKeys(f, w,
           {"busy", "short_salt", "no_salt", "late_salt", "split_salt", "salt",
            "reply_delay", "chunk", "chunk_pause", "cut_after", "reset_after",
            "pad_to", "fault_letter", "udp_answers"});
  const long long maxMs = kMaxDelayMs;
  out.busy = static_cast<int>(getInt(f, w, "busy", out.busy, 0, 1000000));
  out.shortSalt =
      static_cast<int>(getInt(f, w, "short_salt", out.shortSalt, -1, 7));
  out.noSalt = getBool(f, w, "no_salt", out.noSalt);
  out.lateSaltMs =
      static_cast<int>(getInt(f, w, "late_salt", out.lateSaltMs, 0, maxMs));
  out.splitSaltMs =
      static_cast<int>(getInt(f, w, "split_salt", out.splitSaltMs, 0, maxMs));
  out.salt = getString(f, w, "salt", out.salt, true);
  if (!out.salt.empty() && !validSalt(out.salt)) {
    fail(w + ".salt", "expected 8 hex digits (0-9, a-f)");
  }
  out.replyDelayMs =
      static_cast<int>(getInt(f, w, "reply_delay", out.replyDelayMs, 0, maxMs));
  out.chunkBytes =
      static_cast<int>(getInt(f, w, "chunk", out.chunkBytes, 0, 1 << 20));
  out.chunkPauseMs =
      static_cast<int>(getInt(f, w, "chunk_pause", out.chunkPauseMs, 0, maxMs));
  out.cutAfter =
      static_cast<long>(getInt(f, w, "cut_after", out.cutAfter, -1, 1 << 24));
  out.resetAfter = static_cast<long>(
      getInt(f, w, "reset_after", out.resetAfter, -1, 1 << 24));
  out.padTo = static_cast<long>(getInt(f, w, "pad_to", out.padTo, 0, kMaxPad));
  const std::string letter = getString(f, w, "fault_letter", "", true);
  if (letter.size() > 1) fail(w + ".fault_letter", "expected one character");
  out.onlyLetter = letter.empty() ? 0 : letter[0];
  if (f.contains("udp_answers")) parseUdpAnswers(f.at("udp_answers"), out);
}

}  // namespace

std::string decodeEscapes(const std::string& text) {
  // Shows the offending bytes readably even when they are not printable.
  auto bad = [&](std::size_t at, std::size_t len, const std::string& why) {
    std::string shown = "\\";
    for (std::size_t k = at + 1; k < at + len && k < text.size(); ++k) {
      const unsigned char c = static_cast<unsigned char>(text[k]);
      if (c >= 0x20 && c < 0x7f && c != '"') {
        shown += static_cast<char>(c);
      } else {
        char hex[8];
        std::snprintf(hex, sizeof hex, "<%02x>", c);
        shown += hex;
      }
    }
    return ConfigError("invalid escape \"" + shown + "\" at byte " +
                       std::to_string(at + 1) + ": " + why);
  };
  auto hexValue = [](char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\') {
      out += text[i];
      continue;
    }
    if (i + 1 == text.size()) {
      throw bad(i, 1, "a backslash at the end (write \\\\ for one)");
    }
    const char c = text[i + 1];
    if (c == 'n' || c == 'r' || c == 't' || c == '\\') {
      out += c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : '\\';
      ++i;
    } else if (c == 'x') {
      const int hi = i + 2 < text.size() ? hexValue(text[i + 2]) : -1;
      const int lo = i + 3 < text.size() ? hexValue(text[i + 3]) : -1;
      if (hi < 0 || lo < 0) throw bad(i, 4, "\\x takes two hex digits");
      out += static_cast<char>(hi * 16 + lo);
      i += 3;
    } else {
      throw bad(i, 2, "known are \\n \\r \\t \\\\ \\xNN");
    }
  }
  return out;
}

UdpAnswer parseUdpAnswer(const std::string& text) {
  UdpAnswer a;
  if (text == "-") {
    a.own = true;
    return a;
  }
  a.bytes = decodeEscapes(text);
  if (a.bytes.size() > kMaxDatagram) {
    throw ConfigError(std::to_string(a.bytes.size()) +
                      " bytes, more than a UDP datagram holds (" +
                      std::to_string(kMaxDatagram) + ")");
  }
  return a;
}

bool validSalt(const std::string& salt) {
  return salt.size() == 8 &&
         salt.find_first_not_of("0123456789abcdef") == std::string::npos;
}

void checkFaults(const Faults& f) {
  if (f.busy < 0) throw ConfigError("busy: must not be negative");
  if (f.shortSalt < -1 || f.shortSalt > 7) {
    throw ConfigError("short salt: must be between 0 and 7 bytes");
  }
  if (f.lateSaltMs < 0 || f.splitSaltMs < 0 || f.replyDelayMs < 0 ||
      f.chunkPauseMs < 0) {
    throw ConfigError("delays must not be negative");
  }
  if (f.chunkBytes < 0) throw ConfigError("chunk: must not be negative");
  if (f.cutAfter < -1 || f.resetAfter < -1) {
    throw ConfigError("cut/reset: byte counts must not be negative");
  }
  if (f.padTo < 0) throw ConfigError("pad: must not be negative");
  if (!f.salt.empty() && !validSalt(f.salt)) {
    throw ConfigError("salt: expected 8 hex digits (0-9, a-f)");
  }
  if (f.udpAnswers.size() > kMaxUdpAnswers) {
    throw ConfigError("discovery answers: at most " +
                      std::to_string(kMaxUdpAnswers) + " datagrams per probe");
  }
}

Config parseConfig(const std::string& text) {
  json root;
  try {
    root = json::parse(text);
  } catch (const json::parse_error& e) {
    throw ConfigError(std::string("not valid JSON: ") + e.what());
  }
  Config cfg;
  onlyKeys(root, "top level",
           {"cluster", "listen", "nodes", "services", "users", "faults"});
  if (root.contains("cluster")) parseCluster(root.at("cluster"), cfg);
  if (root.contains("listen")) parseListen(root.at("listen"), cfg.listen);
  if (root.contains("nodes")) parseNodes(root.at("nodes"), cfg.nodes);
  if (root.contains("services")) {
    parseServices(root.at("services"), cfg.services);
  }
  if (root.contains("users")) parseUsers(root.at("users"), cfg.users);
  if (root.contains("faults")) parseFaults(root.at("faults"), cfg.faults);
  cfg.crc = crc32(text);
  cfg.size = static_cast<long long>(text.size());
  return cfg;
}

Config loadConfigFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ConfigError(path + ": cannot open the file");
  std::ostringstream buf;
  buf << in.rdbuf();
  if (in.bad()) throw ConfigError(path + ": read error");
  Config cfg;
  try {
    cfg = parseConfig(buf.str());
  } catch (const ConfigError& e) {
    throw ConfigError(path + ": " + e.what());
  }
  struct stat st {};
  if (stat(path.c_str(), &st) == 0) cfg.mtime = st.st_mtime;
  return cfg;
}

const char* builtinConfigText() {
  return R"({
  "cluster": {"name": "testcluster", "serial": "-1", "poll_time": 1},
  "services": [
    {"name": "web", "state": "running", "mode": "auto"},
    {"name": "db", "state": "stopped", "mode": "manual"}
  ],
  "users": [{"user": "admin", "password": "secret"}]
}
)";
}

Config builtinConfig(long long now) {
  Config cfg = parseConfig(builtinConfigText());
  cfg.mtime = now;
  return cfg;
}

namespace {

void nodesFromListen(Config& cfg, const std::vector<std::string>& listen) {
  for (std::size_t i = 0; i < listen.size(); ++i) {
    NodeConfig n;
    n.name = "node" + std::to_string(i + 1);
    n.address = listen[i];
    n.family = addressFamily(listen[i]);
    cfg.nodes.push_back(n);
  }
}

// "node1, node2" for a few nodes, "64 nodes: node1 ... node64" for many.
std::string nodeNames(const std::vector<NodeConfig>& nodes) {
  if (nodes.empty()) return "no nodes";
  std::string out;
  if (nodes.size() <= 4) {
    for (const NodeConfig& n : nodes) {
      out += (out.empty() ? "" : ", ") + printable(n.name, 64);
    }
    return "the nodes are " + out;
  }
  return std::to_string(nodes.size()) +
         " nodes: " + printable(nodes.front().name, 64) + " ... " +
         printable(nodes.back().name, 64);
}

void applySilence(Config& cfg, const std::vector<std::string>& names,
                  const std::vector<std::string>& others, Silence how,
                  const std::string& flag, const std::string& otherFlag) {
  for (const std::string& raw : names) {
    const std::string where = flag + " " + printable(raw, 64);
    std::string name;
    try {
      name = decodeEscapes(raw);
    } catch (const ConfigError& e) {
      throw ConfigError(where + ": " + e.what());
    }
    for (const std::string& o : others) {
      if (o == raw) throw ConfigError(where + ": also given to " + otherFlag);
    }
    bool found = false;
    for (NodeConfig& n : cfg.nodes) {
      if (n.name == name) {
        n.silence = how;
        found = true;
      }
    }
    if (!found) {
      throw ConfigError(where + ": no node of that name (" +
                        nodeNames(cfg.nodes) + ")");
    }
  }
}

}  // namespace

std::vector<NodeConfig> generateNodes(int count) {
  if (count < 1 || static_cast<std::size_t>(count) > kMaxNodes) {
    throw ConfigError("--nodes: expected 1 to " + std::to_string(kMaxNodes));
  }
  std::vector<NodeConfig> out;
  for (int i = 1; i <= count; ++i) {
    NodeConfig n;
    n.name = "node" + std::to_string(i);
    // The i-th address after 127.0.1.0: node256 is 127.0.2.0.
    n.address =
        "127.0." + std::to_string(1 + i / 256) + "." + std::to_string(i % 256);
    n.family = 4;
    out.push_back(n);
  }
  return out;
}

std::vector<std::size_t> listenNodes(const Config& cfg,
                                     const std::vector<std::string>& listen) {
  std::vector<std::size_t> open;  // nodes something may listen for
  for (std::size_t n = 0; n < cfg.nodes.size(); ++n) {
    if (cfg.nodes[n].silence != Silence::Refused) open.push_back(n);
  }
  std::vector<std::size_t> out;
  for (std::size_t i = 0; i < listen.size(); ++i) {
    std::size_t node = i < open.size() ? open[i] : open.empty() ? 0 : open[0];
    for (std::size_t n = 0; n < cfg.nodes.size(); ++n) {
      if (cfg.nodes[n].address == listen[i]) {
        node = n;
        break;
      }
    }
    out.push_back(node);
  }
  return out;
}

std::vector<std::string> settleNodes(Config& cfg, const NodeFlags& flags) {
  if (flags.generate != 0) {
    if (!cfg.nodes.empty()) {
      throw ConfigError(
          "--nodes: the configuration file lists its nodes already");
    }
    cfg.nodes = generateNodes(flags.generate);
  }
  std::vector<std::string> listen = flags.listen;
  std::string origin = "--listen";
  if (listen.empty() && !cfg.listen.empty()) {
    listen = cfg.listen;
    origin = "listen";
  }
  for (const std::string& a : listen) {
    if (addressFamily(a) == 0) {
      throw ConfigError(origin + ": \"" + a + "\" is not a numeric IP address");
    }
  }
  if (cfg.nodes.empty()) {
    if (listen.empty()) listen = {"127.0.0.1"};
    nodesFromListen(cfg, listen);
  }
  applySilence(cfg, flags.silent, flags.mute, Silence::Refused, "--silent",
               "--mute");
  applySilence(cfg, flags.mute, flags.silent, Silence::Mute, "--mute",
               "--silent");
  if (listen.empty()) {
    // Every node's own address, but nothing at a silent node's.
    origin.clear();
    for (const NodeConfig& n : cfg.nodes) {
      if (n.silence != Silence::Refused &&
          std::find(listen.begin(), listen.end(), n.address) == listen.end()) {
        listen.push_back(n.address);
      }
    }
  }
  finishConfig(cfg, listen, origin);
  return listen;
}

void finishConfig(Config& cfg, const std::vector<std::string>& listen,
                  const std::string& listenOrigin) {
  if (cfg.nodes.empty()) nodesFromListen(cfg, listen);
  if (cfg.nodes.empty()) throw ConfigError("nodes: the cluster has no node");
  if (cfg.nodes.size() > kMaxNodes) {
    throw ConfigError("nodes: at most " + std::to_string(kMaxNodes) +
                      " nodes, not " + std::to_string(cfg.nodes.size()));
  }
  if (std::all_of(cfg.nodes.begin(), cfg.nodes.end(), [](const NodeConfig& n) {
        return n.silence == Silence::Refused;
      })) {
    throw ConfigError("nodes: every node is silent, there is nothing to serve");
  }
  for (const std::string& a : listen) {
    for (const NodeConfig& n : cfg.nodes) {
      if (n.address == a && n.silence == Silence::Refused) {
        throw ConfigError(
            (listenOrigin.empty() ? std::string("listen") : listenOrigin) +
            " " + a + ": the address of node \"" + printable(n.name, 64) +
            "\", which is silent (nothing may listen there); leave the "
            "address out, or make the node mute");
      }
      if (n.address == a) break;  // the node this address serves
    }
  }
  for (std::size_t i = 0; i < cfg.services.size(); ++i) {
    ServiceConfig& s = cfg.services[i];
    if (s.node.empty()) {
      s.node = cfg.nodes.front().name;
      continue;
    }
    bool found = false;
    for (const NodeConfig& n : cfg.nodes) found = found || n.name == s.node;
    if (!found) {
      throw ConfigError("services[" + std::to_string(i) + "].node: no node \"" +
                        s.node + "\"");
    }
  }
  checkFaults(cfg.faults);
}

}  // namespace tovsim
