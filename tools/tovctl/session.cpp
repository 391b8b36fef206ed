#include "session.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>

#include "codes.h"
#include "tovapi/libtovapi.h"

namespace tovctl {

void failWith(const std::string& what, int result, const std::string& detail) {
  throw ExitNow{reportFailure(what, result, detail)};
}

void usageError(const std::string& message) {
  throw ExitNow{reportUsage(message)};
}

StreamCapture::StreamCapture(std::ostream& stream, bool active)
    : stream_(stream) {
  if (active) saved_ = stream_.rdbuf(buffer_.rdbuf());
}

StreamCapture::~StreamCapture() {
  if (saved_ != nullptr) stream_.rdbuf(saved_);
}

QuietLibrary::QuietLibrary()
    : capture_(std::cerr, tov1::tovDebug.getDebugLevel() == 0) {}

namespace {

bool allDigits(const std::string& s) {
  if (s.empty()) return false;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

std::string field(const std::vector<std::string>& rec, std::size_t i) {
  return i < rec.size() ? rec[i] : std::string();
}

// The first line of a file, without its line end.
std::string readPasswordFile(const std::string& path) {
  std::ifstream in(path);
  if (!in) {
    usageError("cannot read password file " + path + ": " +
               std::strerror(errno));
  }
  std::string line;
  std::getline(in, line);
  if (in.bad()) {
    usageError("cannot read password file " + path + ": " +
               std::strerror(errno));
  }
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

}  // namespace

Session::Session(const Options& opts, std::string host)
    : opts_(opts), host_(std::move(host)), port_(std::to_string(opts.port)) {}

std::string Session::label() const {
  if (host_.find(':') != std::string::npos) {
    return "[" + host_ + "]:" + port_;
  }
  return host_ + ":" + port_;
}

void Session::refreshCache(bool force, const std::string& doing) {
  int rc;
  {
    QuietLibrary quiet;
    rc = tov1::tovCache.refreshCache(host_, port_, force);
  }
  if (rc != 0) failWith(doing, rc);
}

std::vector<ServiceRecord> Session::services() const {
  std::vector<ServiceRecord> out;
  const int n = tov1::tovCache.getNumberOfLetterEntries(host_, tov1::tovInfo_S);
  for (int i = 0; i < n; ++i) {
    // Fields: letter, index, name, state, mode, blocked, node.
    const std::vector<std::string> rec = tov1::tovCache.tovInfoGetValueVector(
        host_, tov1::tovInfo_S, static_cast<unsigned>(i));
    if (rec.size() < 3) continue;
    ServiceRecord s;
    s.index = static_cast<unsigned>(tovUtils::stringToInt(rec[1]));
    s.name = rec[2];
    s.state = field(rec, 3);
    s.mode = field(rec, 4);
    s.blocked = field(rec, 5) == "1";
    s.node = field(rec, 6);
    out.push_back(s);
  }
  return out;
}

ServiceRef Session::resolveService(const std::string& arg) {
  if (arg.empty()) usageError("empty service name");
  refreshCache(false, "reading the service list from " + label());
  const std::vector<ServiceRecord> list = services();
  ServiceRef ref;
  if (allDigits(arg)) {
    if (arg.size() > 9) usageError("service number " + arg + " is too large");
    ref.index = static_cast<unsigned>(std::stoul(arg));
    for (const ServiceRecord& s : list) {
      if (s.index == ref.index) ref.name = s.name;
    }
    // An index the daemon does not list is left to the library to refuse.
    return ref;
  }
  // The daemon writes a blank in a name as '_'.
  std::string wire = arg;
  for (char& c : wire) {
    if (c == ' ' || c == '\t') c = '_';
  }
  for (const ServiceRecord& s : list) {
    if (s.name == arg || s.name == wire) {
      ref.index = s.index;
      ref.name = s.name;
      return ref;
    }
  }
  std::string known;
  for (const ServiceRecord& s : list) {
    known += (known.empty() ? "" : ", ") + s.name;
  }
  usageError("no service named \"" + arg + "\" on " + label() +
             (known.empty() ? " (it lists no services)"
                            : " (services: " + known + ")"));
}

std::vector<std::string> Session::authVector() {
  if (haveAuth_) return auth_;
  haveAuth_ = true;
  if (opts_.user.empty()) return auth_;
  std::string password;
  if (!opts_.passwordFile.empty()) {
    password = readPasswordFile(opts_.passwordFile);
  } else {
    password = tov1::tovAuth.getUserPass("Password for " + opts_.user + " at " +
                                         label() + ": ");
    // The typed line end was not echoed either.
    if (isatty(STDIN_FILENO)) std::cerr << std::endl;
  }
  auth_ = tov1::tovAuth.genObject(opts_.user, password, "");
  std::fill(password.begin(), password.end(), '\0');
  return auth_;
}

int Session::request(const std::string& line,
                     const std::vector<std::string>& auth, unsigned attempts,
                     Reply& reply) {
  for (unsigned attempt = 0; attempt < attempts; ++attempt) {
    char* buffer = nullptr;
    int rc;
    {
      QuietLibrary quiet;
      rc = tov1::tovNet.tovcomms(buffer, host_, port_, line, auth, "");
    }
    const std::string text = buffer != nullptr ? buffer : "";
    delete[] buffer;
    if (rc != 0) return rc;
    reply = parseReply(text);
    if (reply.letter != static_cast<char>(rep_busy)) return reply.status;
    if (attempt + 1 < attempts) {
      int wait;
      {
        QuietLibrary quiet;
        wait = tov1::tovCache.getPollTime(host_);
      }
      if (wait > 0) sleep(static_cast<unsigned>(wait));
    }
  }
  return -static_cast<int>(tov1::TOV_COMMS_BUSY);
}

Reply parseReply(const std::string& text) {
  Reply r;
  r.text = text;
  if (text.size() > 1) r.letter = text[1];
  std::vector<char> copy(text.begin(), text.end());
  copy.push_back('\0');
  {
    QuietLibrary quiet;
    r.status = tov1::tovResponse.getTOVResponseStatus(copy.data());
    r.message = tov1::tovResponse.getTOVResponseMsg(copy.data());
  }
  const std::size_t firstEnd = text.find('\n');
  if (firstEnd != std::string::npos) {
    std::size_t pos = firstEnd + 1;
    while (pos < text.size()) {
      std::size_t end = text.find('\n', pos);
      if (end == std::string::npos) end = text.size();
      std::string l = text.substr(pos, end - pos);
      if (!l.empty() && l.back() == '\r') l.pop_back();
      if (!l.empty()) r.lines.push_back(l);
      pos = end + 1;
    }
  }
  return r;
}

std::string describe(const ServiceRef& s) {
  std::string out = "service " + std::to_string(s.index);
  if (!s.name.empty()) out += " (" + s.name + ")";
  return out;
}

}  // namespace tovctl
