#include "doubles.h"

#include <cstring>
#include <iostream>
#include <sstream>

#include "tovapi/libtovapi.h"

namespace doubles {

int classMsgCount = 0;
char classMsgName[64] = {};
bool classMsgFlag = false;

Recorder& rec() {
  static Recorder recorder;
  return recorder;
}

void reset() { rec() = Recorder(); }

bool Recorder::wrote(const std::string& needle) const {
  for (const auto& w : writes)
    if (w.find(needle) != std::string::npos) return true;
  return false;
}

}  // namespace doubles

using doubles::rec;

namespace tov1 {

bool Debug::useColour = false;
Debug tovDebug;
Auth tovAuth;
TOVNetCache tovCache;
Cluster tovCluster;
TOVResponse tovResponse;

Debug::Debug() {}
int Debug::getDebugLevel() { return rec().level; }
int Debug::setError(tov_error_enum code) { return -static_cast<int>(code); }
// The client hands over only string streams. Like the real object, error()
// writes to std::cerr, so that a swapped buffer sees it.
void Debug::write(std::ostream& os) {
  rec().writes.push_back(dynamic_cast<std::ostringstream&>(os).str());
}
void Debug::error(std::string where, std::ostream& os) {
  rec().errors.emplace_back(where, dynamic_cast<std::ostringstream&>(os).str());
  std::cerr << where << ": " << rec().errors.back().second;
}

// The authentication line shows on the wire what it was made from.
std::string Auth::getBin(std::string salt) {
  std::replace(salt.begin(), salt.end(), '\0', '.');
  return "bin:" + salt;
}
std::string Auth::generateAuthline(std::vector<std::string> authvec,
                                   std::string binsalt, std::string command) {
  return tovUtils::vectostr(authvec) + " " + binsalt + " " + command;
}

TOVNetCache::TOVNetCache()
    : hints(), res(nullptr), ipaddr(), PollTime(0), LastUpdated(0), now(0) {}
int TOVNetCache::refreshCache(std::string address, std::string port,
                              bool force) {
  rec().refreshCalls.push_back({address, port, force});
  return rec().refresh ? rec().refresh() : 0;
}
int TOVNetCache::getPollTime(std::string address) {
  rec().pollTimeCalls.push_back(address);
  return 0;
}

Cluster::Cluster() {}
Cluster::~Cluster() {}
int Cluster::getServiceCount(std::string) { return rec().serviceCount; }

TOVResponse::TOVResponse() {}
TOVResponse::~TOVResponse() {}
// A reply succeeds when its status letter is 'a'; no reply is -18.
int TOVResponse::getTOVResponseStatus(char* buf) {
  if (buf == nullptr) return -TOV_COMMS_NORESPONSE;
  return buf[0] != '\0' && buf[1] == 'a' ? 0 : -TOV_COMMS_FAIL;
}
std::string TOVResponse::getTOVResponseMsg(char* buf) {
  return buf ? buf : "<null>";
}

}  // namespace tov1

// Deliberately simple utilities with recognisable output.
namespace tovUtils {

std::string intToString(int n, unsigned) { return std::to_string(n); }

char* stringToChar(std::string s) {
  char* out = new char[s.size() + 2]();
  std::memcpy(out, s.data(), s.size());
  return out;
}

int stringToInt(std::string s) { return std::atoi(s.c_str()); }

std::string getTimeStr(time_t t) { return "T" + std::to_string(t); }

void tokenizer(const std::string& text, std::vector<std::string>& out,
               const std::string& delims) {
  std::string::size_type start = text.find_first_not_of(delims);
  while (start != std::string::npos) {
    const auto end = text.find_first_of(delims, start);
    out.push_back(text.substr(start, end - start));
    start = text.find_first_not_of(delims, end);
  }
}

void printClassMsg(std::string name, bool flag) {
  ++doubles::classMsgCount;
  std::strncpy(doubles::classMsgName, name.c_str(),
               sizeof doubles::classMsgName - 1);
  doubles::classMsgFlag = flag;
}

}  // namespace tovUtils
