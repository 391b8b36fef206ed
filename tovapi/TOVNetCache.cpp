// The cluster-information cache: the parsed information reply of every daemon
// the library has asked, by host, record kind, record and field. A host's
// data is fetched again once it is older than its cluster's poll time, or
// whenever a caller forces it.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "internal_cache.h"
#include "libtovapi.h"

namespace tov1 {

namespace cacheinternal {

const char* const kDefaultPort = "1195";
const char* const kDefaultAddress = "127.0.0.1";

}  // namespace cacheinternal

namespace {

using cacheinternal::InfoRecord;
using cacheinternal::InfoTable;

// What the class has no fields for: per cached host, when its data was
// stored and from which port; per host, the port a refresh last asked (kept
// when the cache is cleared: it says where the daemon listens, not what it
// said); and the addresses of this machine.
struct HostMeta {
  std::time_t updated = 0;
  std::string port;
};

struct CacheMeta {
  std::map<std::string, HostMeta> hosts;
  std::map<std::string, std::string> ports;
  std::vector<std::string> localAddrs;
};

// Keyed by cache object so that a second cache (tests make their own) never
// sees the first one's hosts. Never destroyed: other global objects may
// still query the cache from their destructors.
std::map<const TOVNetCache*, CacheMeta>& registry() {
  static auto* meta = new std::map<const TOVNetCache*, CacheMeta>;
  return *meta;
}

CacheMeta& metaOf(const TOVNetCache* cache) { return registry()[cache]; }

void trace(int minLevel, const std::string& text) {
  if (tovDebug.getDebugLevel() < minLevel) return;
  std::stringstream ss;
  ss << text << std::endl;
  tovDebug.write(ss);
}

void report(const char* location, const std::string& text) {
  std::stringstream ss;
  ss << text << std::endl;
  tovDebug.error(location, ss);
}

// The records of one letter: the kind's list for the known letters, the
// matching miscellaneous records for any other.
std::vector<InfoRecord> recordsOfLetter(const InfoTable& table,
                                        tov_info_letters kind, char letter) {
  if (kind >= table.size()) return {};
  if (kind != tovInfo_MISC) return table[kind];
  std::vector<InfoRecord> out;
  const std::string wanted(1, letter);
  for (const InfoRecord& record : table[tovInfo_MISC]) {
    if (!record.empty() && record[0] == wanted) out.push_back(record);
  }
  return out;
}

bool isLoopback(const sockaddr* sa) {
  if (sa->sa_family == AF_INET) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(sa);
    return (ntohl(in->sin_addr.s_addr) >> 24) == 127;
  }
  if (sa->sa_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(sa);
    if (IN6_IS_ADDR_LOOPBACK(&in6->sin6_addr)) return true;
    return IN6_IS_ADDR_V4MAPPED(&in6->sin6_addr) &&
           in6->sin6_addr.s6_addr[12] == 127;
  }
  return false;
}

// Text form of an IPv4 or IPv6 socket address; false for other families.
bool addressText(const sockaddr* sa, char* out, socklen_t size) {
  const void* raw = nullptr;
  if (sa->sa_family == AF_INET) {
    raw = &reinterpret_cast<const sockaddr_in*>(sa)->sin_addr;
  } else if (sa->sa_family == AF_INET6) {
    raw = &reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr;
  } else {
    return false;
  }
  return inet_ntop(sa->sa_family, raw, out, size) != nullptr;
}

// Longest poll time the cache acts on, in seconds. A minute covers the poll
// interval of any real cluster; a daemon announcing more (2147483647 would
// be 68 years) must neither put a busy retry to sleep for ever nor keep
// stale information.
const int kMaxPollTime = 60;

bool sameName(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (std::string::size_type i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i])))
      return false;
  }
  return true;
}

}  // namespace

namespace cacheinternal {

tov_info_letters kindOfLetter(char letter) {
  switch (letter) {
    case 'B':
      return tovInfo_B;
    case 'C':
      return tovInfo_C;
    case 'F':
      return tovInfo_F;
    case 'G':
      return tovInfo_G;
    case 'H':
      return tovInfo_H;
    case 'I':
      return tovInfo_I;
    case 'N':
      return tovInfo_N;
    case 'P':
      return tovInfo_P;
    case 'R':
      return tovInfo_R;
    case 'S':
      return tovInfo_S;
    case 'V':
      return tovInfo_V;
    case 'W':
      return tovInfo_W;
    default:
      return tovInfo_MISC;
  }
}

char letterOfKind(unsigned kind) {
  static const char kLetters[tovInfo_COUNT] = {
      '\0', 'B', 'C', 'F', 'G', 'H', 'I', 'N', 'P', 'R', 'S', 'V', 'W'};
  return kind < tovInfo_COUNT ? kLetters[kind] : '\0';
}

std::vector<std::string> splitFields(const std::string& line) {
  std::vector<std::string> fields;
  static const char kBlanks[] = " \t\r";
  std::string::size_type start = line.find_first_not_of(kBlanks);
  while (start != std::string::npos) {
    std::string::size_type end = line.find_first_of(kBlanks, start);
    fields.push_back(line.substr(start, end - start));
    if (end == std::string::npos) break;
    start = line.find_first_not_of(kBlanks, end);
  }
  return fields;
}

bool parseInfoReply(const std::string& reply, InfoTable& out,
                    std::string& why) {
  std::string::size_type eol = reply.find('\n');
  std::string first = reply.substr(0, eol);
  if (first.size() < 2 || static_cast<unsigned char>(first[1]) != rep_data) {
    why = "not a data reply";
    return false;
  }
  InfoTable table(tovInfo_COUNT);
  std::size_t lineNo = 1;
  while (eol != std::string::npos) {
    std::string::size_type start = eol + 1;
    eol = reply.find('\n', start);
    ++lineNo;
    std::vector<std::string> fields = splitFields(reply.substr(
        start, eol == std::string::npos ? std::string::npos : eol - start));
    if (fields.empty()) continue;
    tov_info_letters kind =
        fields[0].size() == 1 ? kindOfLetter(fields[0][0]) : tovInfo_MISC;
    if (kind == tovInfo_C && fields.size() != c_SIZE_OK) {
      why = "cluster record on line " + std::to_string(lineNo) + " has " +
            std::to_string(fields.size()) + " fields instead of " +
            std::to_string(static_cast<unsigned>(c_SIZE_OK));
      return false;
    }
    table[kind].push_back(std::move(fields));
  }
  if (table[tovInfo_C].size() != 1) {
    why = table[tovInfo_C].empty() ? "no cluster record"
                                   : "more than one cluster record";
    return false;
  }
  out.swap(table);
  return true;
}

bool fieldToInt(const std::string& text, int& value) {
  std::string::size_type i = 0;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  if (i == text.size()) return false;
  long long result = 0;
  for (; i < text.size(); ++i) {
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
    result = result * 10 + (text[i] - '0');
    if (result > static_cast<long long>(INT_MAX) + 1) return false;
  }
  if (negative) result = -result;
  if (result > INT_MAX || result < INT_MIN) return false;
  value = static_cast<int>(result);
  return true;
}

std::string rememberedPort(const TOVNetCache& cache, const std::string& host) {
  CacheMeta& meta = metaOf(&cache);
  auto it = meta.ports.find(host.empty() ? kDefaultAddress : host);
  return it == meta.ports.end() ? std::string() : it->second;
}

}  // namespace cacheinternal

TOVNetCache tovCache;

TOVNetCache::TOVNetCache()
    : hints(), res(nullptr), ipaddr(), PollTime(0), LastUpdated(0), now(0) {
  registry()[this] = CacheMeta();
  tovUtils::printClassMsg("TOVNetCache", false);
}

int TOVNetCache::refreshCache(std::string address, std::string port,
                              bool forceUpdate) {
  address = addrHandler(address);
  if (port.empty()) port = cacheinternal::kDefaultPort;
  return read_tov(address, port, forceUpdate);
}

int TOVNetCache::read_tov(std::string address, std::string port,
                          bool forceUpdate) {
  const char* const where = "TOVNetCache::refreshCache()";
  trace(1, "TOVNetCache::refreshCache(): called [address=" + address +
               ", port=" + port + ", force=" + (forceUpdate ? "yes" : "no") +
               "]");
  localRequestNode = address;
  std::time_t current = std::time(nullptr);
  now = static_cast<unsigned>(current);
  CacheMeta& meta = metaOf(this);
  meta.ports[address] = port;

  int pos = _getNodePos(address);
  auto known = meta.hosts.find(address);
  // Data from another port came from another daemon: never reuse it.
  if (!forceUpdate && pos >= 0 && known != meta.hosts.end() &&
      known->second.port == port) {
    int poll = 0;
    if (!cacheinternal::fieldToInt(
            tovInfoGetValue(address, tovInfo_C, 0, c_poll_time), poll) ||
        poll < 0)
      poll = 0;
    if (poll > kMaxPollTime) poll = kMaxPollTime;
    std::time_t age = current - known->second.updated;
    if (age >= 0 && age < poll) {
      trace(2, "TOVNetCache::refreshCache(): information of " + address +
                   " is " + std::to_string(static_cast<long long>(age)) +
                   " second(s) old, poll time " + std::to_string(poll) +
                   ": kept");
      return 0;
    }
  }

  char* raw = nullptr;
  int rc = tovNet.tovcomms(raw, address, port, "CCN", {}, "");
  std::unique_ptr<char[]> reply(raw);
  if (rc != 0) {
    trace(1, "TOVNetCache::refreshCache(): no information from " + address +
                 ":" + port + " [" + std::to_string(rc) + "]");
    return rc;
  }
  if (!reply || reply[0] == '\0' ||
      static_cast<unsigned char>(reply[1]) != rep_data) {
    int status = tovResponse.getTOVResponseStatus(reply.get());
    // A success letter without data still leaves nothing to cache.
    if (status == 0) status = tovDebug.setError(TOV_NO_DATA);
    report(where, "daemon at " + address + ":" + port +
                      " sent no cluster information [" +
                      tovResponse.getTOVResponseMsg(reply.get()) + "]");
    return status;
  }
  InfoTable table;
  std::string why;
  if (!cacheinternal::parseInfoReply(reply.get(), table, why)) {
    report(where, "corrupt information reply from " + address + ":" + port +
                      ": " + why);
    return tovDebug.setError(TOV_RNC_CORRUPTENTRY);
  }

  if (pos < 0) {
    tovInfoNodes.push_back(address);
    tovInfo.emplace_back();
    pos = static_cast<int>(tovInfoNodes.size()) - 1;
  }
  tovInfo[static_cast<std::size_t>(pos)].swap(table);
  HostMeta& host = meta.hosts[address];
  host.updated = current;
  host.port = port;
  LastUpdated = now;
  if (tovDebug.getDebugLevel() > 1) {
    std::size_t records = 0;
    for (const auto& kind : tovInfo[static_cast<std::size_t>(pos)])
      records += kind.size();
    trace(2, "TOVNetCache::refreshCache(): stored " + std::to_string(records) +
                 " record(s) for " + address + ":" + port);
  }
  return 0;
}

int TOVNetCache::getPollTime(std::string address) {
  address = addrHandler(address);
  if (!_nodeInfoExists(address)) {
    std::string port = cacheinternal::rememberedPort(*this, address);
    refreshCache(address, port, false);
  }
  int poll = 0;
  if (!cacheinternal::fieldToInt(
          tovInfoGetValue(address, tovInfo_C, 0, c_poll_time), poll) ||
      poll < 0) {
    // Waiting a second is a safe pace for a retry when the cluster's own
    // pace is unknown.
    trace(1, "TOVNetCache::getPollTime(): no poll time for " + address +
                 ", using 1 second");
    poll = 1;
  } else if (poll > kMaxPollTime) {
    trace(1, "TOVNetCache::getPollTime(): poll time " + std::to_string(poll) +
                 " of " + address + " exceeds " + std::to_string(kMaxPollTime) +
                 " seconds, using " + std::to_string(kMaxPollTime));
    poll = kMaxPollTime;
  }
  PollTime = poll;
  return poll;
}

bool TOVNetCache::isLocalHost(std::string address) {
  address = addrHandler(address);
  getLocalAddrs();
  if (!LocalHostName.empty() && sameName(address, LocalHostName)) return true;
  const std::vector<std::string>& local = metaOf(this).localAddrs;

  std::memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST;
  res = nullptr;
  if (getaddrinfo(address.c_str(), nullptr, &hints, &res) != 0) {
    hints.ai_flags = 0;
    res = nullptr;
    if (getaddrinfo(address.c_str(), nullptr, &hints, &res) != 0) {
      res = nullptr;
      trace(1, "TOVNetCache::isLocalHost(): cannot resolve " + address);
      return false;
    }
  }
  bool found = false;
  for (addrinfo* ai = res; ai != nullptr && !found; ai = ai->ai_next) {
    if (isLoopback(ai->ai_addr)) {
      found = true;
    } else if (addressText(ai->ai_addr, ipaddr, sizeof ipaddr)) {
      for (const std::string& mine : local) {
        if (mine == ipaddr) found = true;
      }
    }
  }
  freeaddrinfo(res);
  res = nullptr;
  return found;
}

int TOVNetCache::clearCache() {
  trace(1, "TOVNetCache::clearCache(): forgetting " +
               std::to_string(tovInfoNodes.size()) + " host(s)");
  tovInfo.clear();
  tovInfoNodes.clear();
  metaOf(this).hosts.clear();
  PollTime = 0;
  LastUpdated = 0;
  localRequestNode.clear();
  return 0;
}

std::string TOVNetCache::addrHandler(std::string address) {
  return address.empty() ? cacheinternal::kDefaultAddress : address;
}

std::string TOVNetCache::getHostnameForNode(std::string address) {
  address = addrHandler(address);
  std::string name = _getInfoMachineName(address);
  if (name.empty()) name = _getInfoHostName(address);
  return name;
}

std::vector<std::string> TOVNetCache::tovInfoGetValueVector(
    std::string address, tov_info_letters kind, unsigned record) {
  int pos = _getNodePos(addrHandler(address));
  if (pos < 0) return {};
  if (static_cast<unsigned>(kind) >= getCacheEndValue(pos)) return {};
  const auto& records = tovInfo[static_cast<std::size_t>(pos)][kind];
  if (record >= records.size()) {
    trace(3, std::string("TOVNetCache::tovInfoGetValueVector(): no ") +
                 getIDLetter(kind) + " record " + std::to_string(record) +
                 " for " + address);
    return {};
  }
  return records[record];
}

std::string TOVNetCache::tovInfoGetValue(std::string address,
                                         tov_info_letters kind, unsigned record,
                                         unsigned field) {
  std::vector<std::string> fields =
      tovInfoGetValueVector(address, kind, record);
  return field < fields.size() ? fields[field] : std::string();
}

int TOVNetCache::getNumberOfLetterEntries(std::string address,
                                          tov_info_letters kind) {
  int pos = _getNodePos(addrHandler(address));
  if (pos < 0 || static_cast<unsigned>(kind) >= getCacheEndValue(pos))
    return -1;
  return static_cast<int>(tovInfo[static_cast<std::size_t>(pos)][kind].size());
}

std::string TOVNetCache::infoHandler(char letter, unsigned record,
                                     unsigned field, std::string address,
                                     std::string port) {
  std::vector<std::string> fields =
      infoVecHandler(letter, record, 0, address, port);
  return field < fields.size() ? fields[field] : std::string();
}

char TOVNetCache::infoCharHandler(char letter, unsigned record, unsigned field,
                                  std::string address, std::string port) {
  std::string value = infoHandler(letter, record, field, address, port);
  return value.empty() ? '\0' : value[0];
}

int TOVNetCache::infoIntHandler(char letter, unsigned record, unsigned field,
                                std::string address, std::string port) {
  int value = 0;
  if (!cacheinternal::fieldToInt(
          infoHandler(letter, record, field, address, port), value)) {
    tovDebug.setError(TOV_RNC_INFOVALUE);
    return -1;
  }
  return value;
}

std::vector<std::string> TOVNetCache::infoVecHandler(char letter,
                                                     unsigned record,
                                                     unsigned field,
                                                     std::string address,
                                                     std::string port) {
  address = addrHandler(address);
  if (port.empty()) port = cacheinternal::rememberedPort(*this, address);
  refreshCache(address, port, false);
  int pos = _getNodePos(address);
  if (pos < 0) return {};
  std::vector<InfoRecord> records = recordsOfLetter(
      tovInfo[static_cast<std::size_t>(pos)], getLetterID(letter), letter);
  if (record >= records.size() || field >= records[record].size()) return {};
  const InfoRecord& chosen = records[record];
  return std::vector<std::string>(chosen.begin() + field, chosen.end());
}

std::vector<std::vector<std::string>> TOVNetCache::getAllLetterInfoHandler(
    char letter, std::string address, bool forceUpdate, std::string port) {
  address = addrHandler(address);
  if (port.empty()) port = cacheinternal::rememberedPort(*this, address);
  refreshCache(address, port, forceUpdate);
  int pos = _getNodePos(address);
  if (pos < 0) return {};
  return recordsOfLetter(tovInfo[static_cast<std::size_t>(pos)],
                         getLetterID(letter), letter);
}

char TOVNetCache::getIDLetter(tov_info_letters kind) {
  return cacheinternal::letterOfKind(kind);
}

tov_info_letters TOVNetCache::getLetterID(char letter) {
  return cacheinternal::kindOfLetter(letter);
}

int TOVNetCache::getLocalAddrs() {
  char name[256] = {};
  if (gethostname(name, sizeof name - 1) == 0) LocalHostName = name;

  std::vector<std::string>& local = metaOf(this).localAddrs;
  local.clear();
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    report("TOVNetCache::getLocalAddrs()",
           std::string("cannot list the local addresses [") +
               std::strerror(errno) + "]");
    return tovDebug.setError(TOV_SOCK_RESOLVE_HOST);
  }
  for (ifaddrs* it = list; it != nullptr; it = it->ifa_next) {
    if (it->ifa_addr == nullptr) continue;
    if (addressText(it->ifa_addr, ipaddr, sizeof ipaddr))
      local.push_back(ipaddr);
  }
  freeifaddrs(list);
  return static_cast<int>(local.size());
}

std::string TOVNetCache::_getInfoMachineName(std::string address) {
  // The node lists of every cached cluster name their members.
  for (const InfoTable& table : tovInfo) {
    if (table.size() <= tovInfo_N) continue;
    for (const InfoRecord& node : table[tovInfo_N]) {
      if (node.size() <= n_ip_address) continue;
      if (node[n_ip_address] == address || node[n_machine_name] == address)
        return node[n_machine_name];
    }
  }
  return "";
}

std::string TOVNetCache::_getInfoHostName(std::string address) {
  return tovInfoGetValue(address, tovInfo_C, 0, c_machine_ident);
}

bool TOVNetCache::_nodeInfoExists(std::string address) {
  return _getNodePos(address) >= 0;
}

int TOVNetCache::_getNodePos(std::string address) {
  for (std::size_t i = 0; i < tovInfoNodes.size(); ++i) {
    if (tovInfoNodes[i] == address) return static_cast<int>(i);
  }
  return -1;
}

unsigned TOVNetCache::getCacheEndValue(unsigned hostIndex) {
  return hostIndex < tovInfo.size()
             ? static_cast<unsigned>(tovInfo[hostIndex].size())
             : 0;
}

}  // namespace tov1
