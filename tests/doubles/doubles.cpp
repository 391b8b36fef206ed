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

std::string Recorder::allText() const {
  std::string text;
  for (const auto& w : writes) text += w;
  for (const auto& e : errors) text += e.first + ": " + e.second;
  return text;
}

bool Recorder::wrote(const std::string& needle) const {
  return allText().find(needle) != std::string::npos;
}

namespace {
std::string textOf(std::ostream& os) {
  if (auto* o = dynamic_cast<std::ostringstream*>(&os)) return o->str();
  if (auto* s = dynamic_cast<std::stringstream*>(&os)) return s->str();
  return "<not a string stream>";
}
std::string show(const char* buf) { return buf ? buf : "<null>"; }
}  // namespace

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
int Debug::setError(tov_error_enum code) {
  rec().setErrors.push_back(static_cast<int>(code));
  rec().calls.push_back("debug.setError");
  return -static_cast<int>(code);
}
void Debug::write(std::ostream& os) {
  rec().writes.push_back(doubles::textOf(os));
}
// Like the real object, errors go to std::cerr, so a swapped buffer sees them.
void Debug::error(std::string where, std::ostream& os) {
  const std::string text = doubles::textOf(os);
  rec().errors.emplace_back(where, text);
  std::cerr << where << ": " << text;
}

std::string Auth::getBin(std::string salt) {
  rec().getBinCalls.push_back(salt);
  rec().calls.push_back("auth.getBin");
  return "BIN(" + salt + ")";
}
std::string Auth::generateAuthline(std::vector<std::string> authvec,
                                   std::string binsalt, std::string command) {
  rec().authlineCalls.push_back({authvec, binsalt, command});
  rec().calls.push_back("auth.generateAuthline");
  if (rec().duringAuthline) rec().duringAuthline();
  return rec().authline;
}

TOVNetCache::TOVNetCache()
    : hints(), res(nullptr), ipaddr(), PollTime(0), LastUpdated(0), now(0) {}
int TOVNetCache::refreshCache(std::string address, std::string port,
                              bool force) {
  rec().refreshCalls.push_back({address, port, force});
  rec().calls.push_back("cache.refreshCache");
  return rec().refresh ? rec().refresh(address, port, force) : 0;
}
int TOVNetCache::getPollTime(std::string address) {
  rec().pollTimeCalls.push_back(address);
  rec().calls.push_back("cache.getPollTime");
  return rec().pollTime;
}

Cluster::Cluster() {}
Cluster::~Cluster() {}
int Cluster::getServiceCount(std::string address) {
  rec().serviceCountCalls.push_back(address);
  rec().calls.push_back("cluster.getServiceCount");
  return rec().serviceCount;
}

TOVResponse::TOVResponse() {}
TOVResponse::~TOVResponse() {}
// A reply succeeds when its status letter is 'a'; no reply is -18.
int TOVResponse::getTOVResponseStatus(char* buf) {
  rec().statusCalls.push_back(doubles::show(buf));
  rec().calls.push_back("response.getTOVResponseStatus");
  if (buf == nullptr) return -TOV_COMMS_NORESPONSE;
  return buf[0] != '\0' && buf[1] == 'a' ? 0 : -TOV_COMMS_FAIL;
}
std::string TOVResponse::getTOVResponseMsg(char* buf) {
  rec().msgCalls.push_back(doubles::show(buf));
  return doubles::show(buf);
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
