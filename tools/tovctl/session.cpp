#include "session.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>

#include "codes.h"
#include "common/access.h"
#include "common/clusters.h"
#include "common/text.h"
#include "tovapi/libtovapi.h"

namespace tovctl {

void failWith(const std::string& what, int result, const std::string& detail,
              nlohmann::json partial) {
  throw ExitNow{reportFailure(what, result, detail, std::move(partial))};
}

void usageError(const std::string& message) {
  throw ExitNow{reportUsage(message)};
}

bool splitHostPort(const std::string& text, std::string& host, int& port,
                   std::string& why) {
  return tovtools::splitHostPort(text, host, port, why);
}

namespace {

tovtools::Deadline* commandDeadline = nullptr;

// What the library was waiting for, told by the result of the call that the
// deadline cut short.
std::string waitingFor(int result, const std::string& label) {
  switch (codeOf(result)) {
    case tov1::TOV_SOCK_CONNECT:
    case tov1::TOV_SOCK_GETOPTS:
      return "awaiting the connection to " + label;
    case tov1::TOV_SOCK_SELECT:
    case tov1::TOV_COMMS_SALT:
      return "awaiting the salt from " + label;
    case tov1::TOV_SOCK_RECV:
      return "awaiting the reply from " + label;
    case tov1::TOV_COMMS_NORESPONSE:
      return "waiting to retry the busy daemon at " + label;
    default:
      return "awaiting " + label;
  }
}

}  // namespace

namespace {

std::string fromEnvironment(const std::string& given, const char* name) {
  if (!given.empty()) return given;
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

// Takes what the named cluster says for every option the command line did
// not give.
void applyCluster(Options& o) {
  const std::string name = fromEnvironment(o.cluster, "TOV_CLUSTER");
  const std::string file = fromEnvironment(o.config, "TOV_CONFIG");
  if (name.empty()) {
    if (!o.config.empty()) {
      usageError("--config " + o.config +
                 ": name a cluster of it with --cluster NAME");
    }
    return;
  }
  tovtools::ClusterConfig c;
  std::string why;
  if (!tovtools::findCluster(file, name, c, why)) {
    usageError("cluster " + name + ": " + why);
  }
  auto unless = [&o](const char* option) { return o.given.count(option) == 0; };
  if (unless("--host")) o.hosts = c.hosts;
  if (unless("--port") && c.port) o.port = *c.port;
  if (unless("--timeout") && c.timeout) o.timeout = *c.timeout;
  if (unless("--deadline") && c.deadline) o.deadline = *c.deadline;
  if (unless("--user") && c.user) o.user = *c.user;
  if (unless("--password-file") && unless("--user") && c.passwordFile) {
    o.passwordFile = *c.passwordFile;
  }
}

}  // namespace

void applyGlobals(Options& o) {
  tov1::Debug::useColour = !o.noColour && isatty(STDERR_FILENO) &&
                           std::getenv("NO_COLOR") == nullptr;
  setJsonOutput(o.json);
  applyCluster(o);
  o.entries.clear();
  for (const std::string& given : o.hosts) {
    std::string host, why;
    int port = o.port;
    if (!splitHostPort(given, host, port, why)) {
      setTarget("", 0);
      usageError("-H: " + why);
    }
    o.entries.push_back({host, std::to_string(port)});
  }
  if (o.entries.empty()) {
    o.entries.push_back({"127.0.0.1", std::to_string(o.port)});
  }
  setTarget(o.entries.front().host,
            tovUtils::stringToInt(o.entries.front().port));
  tov1::tovDebug.setDebugLevel(o.debug);
  tov1::tovNet.setTimeout(static_cast<float>(o.timeout));
  tov1::tovNet.pref_AF = o.ipv4 ? AF_INET : o.ipv6 ? AF_INET6 : 0;
  if (!o.passwordFile.empty() && o.user.empty()) {
    usageError("--password-file needs a user (-u USER)");
  }
  if (o.showSecrets) {
    setenv("TOVAPI_SHOW_SECRETS", "1", 1);
    warn(
        "--show-secrets: password digests appear in the diagnostics and in "
        "TOVAPI_LOG; a digest is enough to command the daemon");
  }
  setDeadline(o.deadline);
  // A call that no signal ends (a name lookup retrying by itself) still
  // ends the program half a second after the deadline.
  const double seconds = o.deadline;
  deadline().onOverrun(std::chrono::milliseconds(500),
                       [seconds] { exitOnOverrun(seconds); });
}

void setDeadline(double seconds) {
  delete commandDeadline;
  commandDeadline = new tovtools::Deadline(seconds);
}

tovtools::Deadline& deadline() {
  if (commandDeadline == nullptr) commandDeadline = new tovtools::Deadline(0);
  return *commandDeadline;
}

void checkDeadline(const std::string& what, const std::string& label,
                   int result) {
  if (result == 0 || !deadline().expired()) return;
  throw ExitNow{
      reportDeadline(what, deadline().seconds(), waitingFor(result, label))};
}

bool stdoutIsTerminal() {
  static const bool terminal = isatty(STDOUT_FILENO) != 0;
  return terminal;
}

std::string shown(const std::string& text, bool keepLineFeeds) {
  return stdoutIsTerminal() ? tovtools::escapeControls(text, keepLineFeeds)
                            : text;
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

std::string readPasswordFile(const std::string& path) {
  std::string line, why;
  if (!tovtools::readPasswordFile(path, line, why)) usageError(why);
  return line;
}

}  // namespace

Session::Session(const Options& opts) : opts_(opts), entries_(opts.entries) {
  if (entries_.empty()) {
    entries_.push_back({"127.0.0.1", std::to_string(opts.port)});
  }
  // With one entry node there is nothing to choose.
  chosen_ = entries_.size() == 1;
  use(entries_.front());
}

Session::Session(const Options& opts, std::string host, int port)
    : opts_(opts), entries_{{std::move(host), std::to_string(port)}} {
  chosen_ = true;
  use(entries_.front());
}

void Session::use(const tovtools::Endpoint& e) {
  host_ = e.host;
  port_ = e.port;
  setTarget(host_, portNumber());
}

int Session::portNumber() const { return tovUtils::stringToInt(port_); }

namespace {

// Failures that leave before the request did: no address, no connection,
// no salt.
bool beforeSending(int result) {
  switch (codeOf(result)) {
    case tov1::TOV_SOCK_RESOLVE_HOST:
    case tov1::TOV_SOCK_CREATE:
    case tov1::TOV_SOCK_SETOPT:
    case tov1::TOV_SOCK_CONNECT:
    case tov1::TOV_SOCK_GETOPTS:
    case tov1::TOV_SOCK_TIMEOUT:
    case tov1::TOV_SOCK_SELECT:
    case tov1::TOV_COMMS_SALT:
      return true;
    default:
      return false;
  }
}

std::string failureText(int result) {
  const int code = codeOf(result);
  const std::string name = codeName(code);
  return codeText(code) + " (" + (name.empty() ? "-" : name) + ", code " +
         std::to_string(code) + ")";
}

}  // namespace

int Session::firstAnswering(const std::string& what, HandOver rule,
                            const std::function<int()>& call) {
  if (chosen_) return bounded(what, label(), call);
  setActivity(what);
  const std::size_t n = entries_.size();
  for (std::size_t i = 0;; ++i) {
    use(entries_[i]);
    const bool last = i + 1 == n;
    // A request that may change something is handed over only when it never
    // left: the library's own timeout bounds that, so it needs no share.
    const double share = last || rule == HandOver::BeforeSending
                             ? 0
                             : tovtools::entryShare(deadline(), n - i, 0);
    tovtools::Deadline part(share);
    int rc = 0;
    {
      tovtools::Deadline::Guard guard(part);
      rc = withinDeadline(call);
    }
    checkDeadline(what, label(), rc);
    const bool handOver =
        rc != 0 && (rule == HandOver::AnyFailure ? true : beforeSending(rc));
    if (last || !handOver) {
      chosen_ = true;
      if (rc == 0 && !skipped_.empty()) {
        warn((skipped_.size() == 1 ? "entry node " : "entry nodes ") +
             skipped() + " did not answer; asked " + label() + " instead");
      }
      return rc;
    }
    skipped_.push_back(label() + " (" +
                       (part.expired()
                            ? "no answer within its share of the deadline, " +
                                  tovtools::secondsText(share) + " s"
                            : failureText(rc)) +
                       ")");
  }
}

std::string Session::skipped() const {
  std::string out;
  for (const std::string& s : skipped_) out += (out.empty() ? "" : ", ") + s;
  return out;
}

std::string hostPortLabel(const std::string& host, const std::string& port) {
  return host.find(':') != std::string::npos ? "[" + host + "]:" + port
                                             : host + ":" + port;
}

std::string Session::label() const { return hostPortLabel(host_, port_); }

std::string Session::target() const {
  if (chosen_) return label();
  std::string out = "any of ";
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    out += (i ? ", " : "") + hostPortLabel(entries_[i].host, entries_[i].port);
  }
  return out;
}

void Session::refreshCache(bool force, const std::string& doing) {
  const int rc = firstAnswering(doing, HandOver::AnyFailure, [&] {
    return tov1::tovCache.refreshCache(host_, port_, force);
  });
  if (rc != 0) failWith(doing, rc, skippedDetail());
}

std::string Session::skippedDetail() const {
  if (skipped_.empty()) return "";
  return "asked last: " + label() + "; before it, " + skipped() +
         " did not answer";
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
  refreshCache(false, "reading the service list from " + target());
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
  } else if (isatty(STDIN_FILENO) == 0) {
    usageError("user " + opts_.user +
               " needs a password, and standard input is not a terminal to "
               "ask on: give --password-file FILE (or - to read standard "
               "input)");
  } else {
    password = tov1::tovAuth.getUserPass("Password for " + opts_.user + " at " +
                                         target() + ": ");
    // The typed line end was not echoed either.
    std::cerr << std::endl;
  }
  if (password.empty()) {
    usageError("no password for user " + opts_.user +
               " (empty, or end of input): nothing was sent");
  }
  auth_ = tov1::tovAuth.genObject(opts_.user, password, "");
  std::fill(password.begin(), password.end(), '\0');
  return auth_;
}

int Session::retryWhileBusy(unsigned attempts, BusyWait wait,
                            const std::string& what,
                            const std::function<int(bool&)>& attempt) {
  for (unsigned n = 1; n <= attempts; ++n) {
    bool busy = false;
    const int rc = attempt(busy);
    if (!busy) return rc;
    if (wait == BusyWait::InCall || n == attempts) continue;
    // The poll time comes from the cache, which keeps it within reason.
    int seconds = 0;
    bounded(what, label(), [&] {
      seconds = tov1::tovCache.getPollTime(host_);
      return 0;
    });
    if (seconds > 0) {
      // A deadline that ends the wait reads as the wait for a retry.
      bounded(what, label(), [&] {
        sleep(static_cast<unsigned>(seconds));
        return deadline().expired()
                   ? -static_cast<int>(tov1::TOV_COMMS_NORESPONSE)
                   : 0;
      });
    }
  }
  return -static_cast<int>(tov1::TOV_COMMS_BUSY);
}

std::string stillBusy(unsigned attempts) {
  return "still busy after " + std::to_string(attempts) + " attempt(s) (-a N)";
}

int Session::request(const std::string& line,
                     const std::vector<std::string>& auth, unsigned attempts,
                     Reply& reply, const std::string& what) {
  return retryWhileBusy(attempts, BusyWait::Tool, what, [&](bool& busy) {
    char* buffer = nullptr;
    const int rc = firstAnswering(what, HandOver::BeforeSending, [&] {
      return tov1::tovNet.tovcomms(buffer, host_, port_, line, auth, "");
    });
    const std::string text = buffer != nullptr ? buffer : "";
    delete[] buffer;
    if (rc != 0) return rc;
    reply = parseReply(text);
    busy = reply.letter == static_cast<char>(rep_busy);
    return reply.status;
  });
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
