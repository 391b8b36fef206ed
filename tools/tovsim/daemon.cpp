#include "daemon.h"

#include <algorithm>
#include <cctype>
#include <ctime>

#include "auth.h"
#include "log.h"

#ifndef TOVSIM_VERSION
#define TOVSIM_VERSION "0.0.0"
#endif

namespace tovsim {

const char* const kDaemonVersion = TOVSIM_VERSION;
const char* const kProtocolVersion = "2.2";

namespace {

constexpr std::size_t kEventsKept = 50;
constexpr std::size_t kEventsShown = 10;

// A record field never contains a blank and is never empty.
std::string field(const std::string& s) {
  if (s.empty()) return "-";
  std::string out = s;
  for (char& c : out) {
    if (std::isspace(static_cast<unsigned char>(c))) c = '_';
  }
  return out;
}

// What an empty request line is answered with in place of its letter.
constexpr char kEmptyEcho = '?';

// What the table checks before a service request's handler runs, in this
// order.
enum Guard : unsigned {
  kSteady = 1,     // neither broken nor in transition
  kRunning = 2,    // running
  kUnblocked = 4,  // not blocked
};

Outcome answer(char echo, Reply letter, const std::string& msg,
               const std::vector<std::string>& lines = {}) {
  Outcome o;
  o.letter = letter;
  o.text += echo;
  o.text += static_cast<char>(letter);
  if (!msg.empty()) o.text += " " + msg;
  o.text += '\n';
  for (const std::string& l : lines) o.text += l + '\n';
  return o;
}

bool isInfoRequest(const std::string& line) {
  return line == "CCN" || line.rfind("CCN ", 0) == 0;
}

// "<head>" alone or followed by a blank; returns what follows the head.
bool headMatches(const std::string& line, const std::string& head,
                 std::string& rest) {
  if (line.compare(0, head.size(), head) != 0) return false;
  if (line.size() != head.size() && line[head.size()] != ' ') return false;
  rest = line.substr(head.size());
  return true;
}

bool parseCount(const std::string& s, int& out) {
  if (s.empty() || s.size() > 6) return false;
  for (char c : s) {
    if (c < '0' || c > '9') return false;
  }
  out = std::stoi(s);
  return true;
}

}  // namespace

Request parseFrame(const std::string& content) {
  Request r;
  const std::size_t nl = content.find('\n');
  if (nl == std::string::npos) {
    r.line = content;
    return r;
  }
  r.line = content.substr(0, nl);
  std::string rest = content.substr(nl + 1);
  const std::size_t nl2 = rest.find('\n');
  const std::string second = rest.substr(0, nl2);
  if (looksLikeAuthLine(second)) {
    r.hasAuth = true;
    const std::size_t blank = second.find(' ');
    r.user = second.substr(0, blank);
    r.digest = second.substr(blank + 1);
    rest = nl2 == std::string::npos ? std::string() : rest.substr(nl2 + 1);
  }
  r.data = rest;
  return r;
}

std::string padReply(const std::string& text, long total) {
  std::string out = text;
  long missing = total - static_cast<long>(text.size()) - 1;
  while (missing > 0) {
    long n = std::min(missing, 72L);
    if (missing - n == 1) --n;  // never leave a remainder of one byte
    if (n == 1) {
      out += '\n';
      break;
    }
    out += '#';
    out.append(static_cast<std::size_t>(n - 2), 'x');
    out += '\n';
    missing -= n;
  }
  return out;
}

Daemon::Daemon(const Config& cfg, long long startTime,
               const std::vector<std::string>& listen)
    : cfg_(cfg), startTime_(startTime), listenNode_(listenNodes(cfg, listen)) {
  for (const ServiceConfig& sc : cfg_.services) {
    Service s;
    s.conf = sc;
    for (std::size_t n = 0; n < cfg_.nodes.size(); ++n) {
      if (cfg_.nodes[n].name == sc.node) s.runningOn = static_cast<int>(n);
    }
    services_.push_back(s);
  }
  record(-1, "daemon started");
}

bool Daemon::muteAt(std::size_t listenIdx) const {
  return listenIdx < listenNode_.size() &&
         cfg_.nodes[listenNode_[listenIdx]].silence == Silence::Mute;
}

bool Daemon::answers(std::size_t node) const {
  return cfg_.nodes[node].silence == Silence::None &&
         std::find(listenNode_.begin(), listenNode_.end(), node) !=
             listenNode_.end();
}

bool Daemon::faultsApply(const std::string& line) const {
  return cfg_.faults.onlyLetter == 0 ||
         (!line.empty() && line[0] == cfg_.faults.onlyLetter);
}

std::string Daemon::label(std::size_t idx) const {
  return "service " + std::to_string(idx) + " (" + services_[idx].conf.name +
         ")";
}

void Daemon::record(int service, const std::string& text) {
  events_.push_back(
      {static_cast<long long>(std::time(nullptr)), service, text});
  while (events_.size() > kEventsKept) events_.pop_front();
}

void Daemon::startOn(Service& s, std::size_t node) {
  s.conf.state = ServiceState::Running;
  s.runningOn = static_cast<int>(node);
}

std::size_t Daemon::nodeAt(std::size_t listenIdx) const {
  return listenIdx < listenNode_.size() ? listenNode_[listenIdx] : 0;
}

std::string Daemon::clusterLine(std::size_t listenIdx) const {
  const std::size_t node = nodeAt(listenIdx);
  const std::string ident =
      !cfg_.machineIdent.empty() ? cfg_.machineIdent : cfg_.nodes[node].name;
  char crc[16];
  std::snprintf(crc, sizeof crc, "%08x", cfg_.crc);
  return "C " + field(cfg_.clusterName) + " " +
         std::to_string(cfg_.nodes.size()) + " " +
         std::to_string(services_.size()) + " " + crc + " " +
         field(cfg_.serial) + " " + std::to_string(cfg_.mtime) + " " +
         std::to_string(cfg_.size) + " " + std::to_string(cfg_.pollTime) + " " +
         std::to_string(startTime_) + " " + (cfg_.bootstrap ? "1" : "0") + " " +
         field(ident) + " " + field(cfg_.machineDesc);
}

std::vector<std::string> Daemon::nodeLines() const {
  std::vector<std::string> out;
  for (const NodeConfig& n : cfg_.nodes) {
    out.push_back("N " + field(n.name) + " " + n.address + " " +
                  std::to_string(n.family));
  }
  return out;
}

std::string Daemon::serviceLine(std::size_t idx) const {
  const Service& s = services_[idx];
  const bool onNode = s.conf.state == ServiceState::Running ||
                      s.conf.state == ServiceState::Starting ||
                      s.conf.state == ServiceState::Stopping;
  const std::string node =
      onNode && s.runningOn >= 0
          ? field(cfg_.nodes[static_cast<std::size_t>(s.runningOn)].name)
          : "-";
  return "S " + std::to_string(idx) + " " + field(s.conf.name) + " " +
         stateName(s.conf.state) + " " +
         (s.conf.automatic ? "auto" : "manual") + " " +
         (s.conf.blocked ? "1" : "0") + " " + node;
}

std::vector<std::string> Daemon::discoveryAnswers(
    std::size_t listenIdx, std::size_t datagramSize) const {
  std::vector<std::string> lines;
  {
    std::lock_guard<std::mutex> lock(mu_);
    lines = nodeLines();
    lines.insert(lines.begin(), clusterLine(listenIdx));
  }
  const std::vector<UdpAnswer>& fake = cfg_.faults.udpAnswers;
  std::vector<std::string> out;
  if (!fake.empty()) {
    // Each given datagram exactly as given, "-" the whole own answer.
    std::string own = lines.front();
    for (std::size_t i = 1; i < lines.size(); ++i) own += "\n" + lines[i];
    for (const UdpAnswer& a : fake) out.push_back(a.own ? own : a.bytes);
    return out;
  }
  // A daemon's answer comes in datagrams the client reads whole: split only
  // between lines, the cluster line and as many node lines as fit first.
  for (const std::string& l : lines) {
    if (!out.empty() && out.back().size() + 1 + l.size() <= datagramSize) {
      out.back() += "\n" + l;
    } else {
      out.push_back(l);
    }
  }
  return out;
}

Outcome Daemon::handle(const Request& req, const std::string& saltText,
                       std::size_t listenIdx) {
  std::lock_guard<std::mutex> lock(mu_);
  return dispatch(req, saltText, listenIdx);
}

// Each request the daemon takes: its head (the letter, or "JA", "@AQ"),
// whether a service number follows, whether it only reads (and so needs no
// authentication), the refusals checked before its handler, and the
// handler.
struct Daemon::RequestKind {
  const char* head;
  bool service;
  bool read;
  unsigned guards;
  Handler handler;
};

const Daemon::RequestKind* Daemon::findRequest(const std::string& line,
                                               std::string& rest) {
  constexpr unsigned kAll = kSteady | kRunning | kUnblocked;
  static const RequestKind table[] = {
      {"J", false, false, 0, &Daemon::checkPassword},
      {"JA", false, false, 0, &Daemon::halt},
      {"L", false, false, 0, &Daemon::shutdown},
      {"B", true, false, kAll, &Daemon::bounce},
      {"C", true, true, 0, &Daemon::showService},
      {"D", true, false, 0, &Daemon::setTimeouts},
      {"E", true, false, kSteady | kRunning, &Daemon::rerunStartup},
      {"F", true, false, kAll, &Daemon::pass},
      {"G", true, false, kSteady, &Daemon::stop},
      {"H", true, false, 0, &Daemon::setManual},
      {"I", true, false, 0, &Daemon::setAutomatic},
      {"K", true, false, kSteady, &Daemon::blockAndStop},
      {"M", true, false, 0, &Daemon::maintenance},
      {"N", true, true, 0, &Daemon::heartbeats},
      {"O", true, true, 0, &Daemon::serviceList},
      {"R", true, false, 0, &Daemon::events},
      {"U", true, false, 0, &Daemon::repair},
      {"V", true, true, 0, &Daemon::version},
      {"W", true, false, 0, &Daemon::block},
      {"X", true, false, 0, &Daemon::unblock},
      {"Y", true, false, 0, &Daemon::logEntry},
      {"Z", true, false, 0, &Daemon::requestHandler},
      {"[", true, false, 0, &Daemon::recover},
      {"@AQ", true, false, kSteady, &Daemon::quickstart},
  };
  for (const RequestKind& k : table) {
    if (headMatches(line, k.head, rest)) return &k;
  }
  return nullptr;
}

Outcome Daemon::dispatch(const Request& req, const std::string& saltText,
                         std::size_t listenIdx) {
  const std::string& line = req.line;
  if (line.empty())
    return answer(kEmptyEcho, Reply::Unknown, "unknown request");
  const char e = line[0];
  if (shuttingDown_) {
    return answer(e, Reply::ShuttingDown, "daemon shutting down");
  }
  if (isInfoRequest(line)) return information(e, listenIdx);
  if (busyAnswered_ < cfg_.faults.busy && faultsApply(line)) {
    ++busyAnswered_;
    return answer(e, Reply::Busy, "daemon busy");
  }
  // Recognise the request before looking at its authentication.
  std::string rest;
  const RequestKind* kind = findRequest(line, rest);
  if (kind == nullptr) return answer(e, Reply::Unknown, "unknown request");
  const bool authOk =
      req.hasAuth && !cfg_.users.empty() &&
      verifyAuth(cfg_.users, req.user, req.digest, binarySalt(saltText), line);
  if (!cfg_.users.empty() && !kind->read && !authOk) {
    TOVSIM_LOG(1, "authentication failed for \""
                      << printable(line) << "\" (user "
                      << (req.hasAuth ? req.user : std::string("<none>"))
                      << ")");
    return answer(e, Reply::AuthFailed, "authentication failed");
  }
  Call c{e, req, authOk ? req.user : std::string("anonymous"),
         nodeAt(listenIdx)};
  if (kind->service) {
    if (std::optional<Outcome> bad = parseService(rest, c)) return *bad;
    if (std::optional<Outcome> no = guard(c, kind->guards)) return *no;
  }
  return (this->*kind->handler)(c);
}

Outcome Daemon::information(char echo, std::size_t listenIdx) const {
  std::vector<std::string> lines{clusterLine(listenIdx)};
  for (const std::string& n : nodeLines()) lines.push_back(n);
  for (std::size_t i = 0; i < services_.size(); ++i) {
    lines.push_back(serviceLine(i));
  }
  lines.push_back(std::string("V ") + kDaemonVersion + " " + kProtocolVersion);
  return answer(echo, Reply::Data, "cluster information", lines);
}

std::optional<Outcome> Daemon::parseService(const std::string& rest,
                                            Call& c) const {
  if (rest.size() < 2 || rest[0] != ' ') {
    return answer(c.echo, Reply::BadArguments, "missing service number");
  }
  const std::size_t blank = rest.find(' ', 1);
  const std::string num = rest.substr(1, blank - 1);
  int idx = -1;
  if (!parseCount(num, idx) ||
      static_cast<std::size_t>(idx) >= services_.size()) {
    return answer(c.echo, Reply::BadArguments,
                  "no service " + printable(num, 32));
  }
  c.idx = static_cast<std::size_t>(idx);
  if (blank != std::string::npos) c.suffix = rest.substr(blank + 1);
  return std::nullopt;
}

std::optional<Outcome> Daemon::guard(const Call& c, unsigned guards) const {
  const Service& s = services_[c.idx];
  const ServiceState st = s.conf.state;
  const std::string what = label(c.idx);
  if ((guards & kSteady) != 0 && st == ServiceState::Broken) {
    return answer(c.echo, Reply::Broken, what + " is broken");
  }
  if ((guards & kSteady) != 0 &&
      (st == ServiceState::Starting || st == ServiceState::Stopping)) {
    return answer(c.echo, Reply::Locked, what + " is " + stateName(st));
  }
  if ((guards & kRunning) != 0 && st != ServiceState::Running) {
    return answer(c.echo, Reply::NotRunning, what + " is not running");
  }
  if ((guards & kUnblocked) != 0 && s.conf.blocked) {
    return answer(c.echo, Reply::Locked, what + " is blocked");
  }
  return std::nullopt;
}

Outcome Daemon::done(const Call& c, const std::string& msg) {
  const std::string what = label(c.idx);
  record(static_cast<int>(c.idx), what + " " + msg + " by " + c.who);
  return answer(c.echo, Reply::Ok, what + " " + msg);
}

std::size_t Daemon::homeOf(const Service& s) const {
  std::size_t home = 0;
  for (std::size_t n = 0; n < cfg_.nodes.size(); ++n) {
    if (cfg_.nodes[n].name == s.conf.node) home = n;
  }
  return home;
}

bool Daemon::settle(Service& s) {
  if (s.conf.automatic && !s.conf.blocked &&
      s.conf.state == ServiceState::Stopped) {
    startOn(s, homeOf(s));
    return true;
  }
  return false;
}

Outcome Daemon::stopDaemon(const Call& c, const std::string& what,
                           const std::string& msg, Outcome::After after) {
  record(-1, what + " requested by " + c.who);
  shuttingDown_ = true;
  Outcome o = answer(c.echo, Reply::Ok, msg);
  o.after = after;
  return o;
}

Outcome Daemon::checkPassword(const Call& c) {
  return answer(c.echo, Reply::Ok,
                cfg_.users.empty() ? "authentication not required"
                                   : "authentication ok for " + c.req.user);
}

Outcome Daemon::halt(const Call& c) {
  return stopDaemon(c, "halt", "halting", Outcome::After::Halt);
}

Outcome Daemon::shutdown(const Call& c) {
  return stopDaemon(c, "shutdown", "daemon shutting down",
                    Outcome::After::Shutdown);
}

// Stop and start again, here.
Outcome Daemon::bounce(const Call& c) {
  startOn(services_[c.idx], c.node);
  return done(c, "bounced on " + cfg_.nodes[c.node].name);
}

Outcome Daemon::showService(const Call& c) {
  const Service& s = services_[c.idx];
  return answer(c.echo, Reply::Data, label(c.idx),
                {serviceLine(c.idx),
                 "D " + std::to_string(s.startTimeout) + " " +
                     std::to_string(s.stopTimeout),
                 std::string("M ") + (s.maintenance ? "1" : "0")});
}

// "D n <start> [<stop>]" in seconds.
Outcome Daemon::setTimeouts(const Call& c) {
  const std::size_t b = c.suffix.find(' ');
  int start = 0;
  int stop = 0;
  const bool ok =
      parseCount(c.suffix.substr(0, b), start) &&
      (b == std::string::npos ? (stop = start, true)
                              : parseCount(c.suffix.substr(b + 1), stop)) &&
      start > 0 && stop > 0;
  if (!ok) {
    return answer(c.echo, Reply::BadArguments,
                  "expected: D <service> <start> [<stop>]");
  }
  services_[c.idx].startTimeout = start;
  services_[c.idx].stopTimeout = stop;
  return done(c, "timeouts set to " + std::to_string(start) + "/" +
                     std::to_string(stop) + " s");
}

Outcome Daemon::rerunStartup(const Call& c) {
  return done(c, "startup scripts re-run");
}

// Stop here and leave the service to the next node in the list that is
// neither silent nor mute.
Outcome Daemon::pass(const Call& c) {
  Service& s = services_[c.idx];
  const std::size_t from =
      static_cast<std::size_t>(s.runningOn < 0 ? 0 : s.runningOn);
  std::size_t next = from;
  for (std::size_t k = 1; k <= cfg_.nodes.size(); ++k) {
    const std::size_t cand = (from + k) % cfg_.nodes.size();
    if (cfg_.nodes[cand].silence == Silence::None) {
      next = cand;
      break;
    }
  }
  s.conf.automatic = true;
  startOn(s, next);
  return done(c, "passed to " + cfg_.nodes[next].name);
}

Outcome Daemon::stop(const Call& c) {
  Service& s = services_[c.idx];
  if (s.conf.state == ServiceState::Stopped && !s.conf.automatic) {
    return answer(c.echo, Reply::Already, label(c.idx) + " already stopped");
  }
  s.conf.automatic = false;
  s.conf.state = ServiceState::Stopped;
  return done(c, "stopped (manual)");
}

Outcome Daemon::setManual(const Call& c) {
  Service& s = services_[c.idx];
  if (!s.conf.automatic) {
    return answer(c.echo, Reply::Already, label(c.idx) + " already manual");
  }
  s.conf.automatic = false;
  return done(c, "set to manual");
}

Outcome Daemon::setAutomatic(const Call& c) {
  Service& s = services_[c.idx];
  const bool wouldStart =
      s.conf.state == ServiceState::Stopped && !s.conf.blocked;
  if (s.conf.automatic && !wouldStart) {
    return answer(c.echo, Reply::Already, label(c.idx) + " already automatic");
  }
  s.conf.automatic = true;
  return done(c,
              settle(s) ? "set to automatic and started" : "set to automatic");
}

Outcome Daemon::blockAndStop(const Call& c) {
  Service& s = services_[c.idx];
  if (s.conf.blocked && s.conf.state == ServiceState::Stopped) {
    return answer(c.echo, Reply::Already,
                  label(c.idx) + " already blocked and stopped");
  }
  s.conf.blocked = true;
  s.conf.state = ServiceState::Stopped;
  return done(c, "blocked and stopped");
}

// "M n [on|off]"; informational only.
Outcome Daemon::maintenance(const Call& c) {
  bool on = true;
  if (c.suffix == "off") {
    on = false;
  } else if (!c.suffix.empty() && c.suffix != "on") {
    return answer(c.echo, Reply::BadArguments,
                  "expected: M <service> [on|off]");
  }
  Service& s = services_[c.idx];
  if (s.maintenance == on) {
    return answer(c.echo, Reply::Already,
                  label(c.idx) + " maintenance already " + (on ? "on" : "off"));
  }
  s.maintenance = on;
  return done(c, std::string("maintenance ") + (on ? "on" : "off"));
}

Outcome Daemon::heartbeats(const Call& c) {
  std::vector<std::string> lines;
  for (std::size_t n = 0; n < cfg_.nodes.size(); ++n) {
    lines.push_back(field(cfg_.nodes[n].name) + " " + cfg_.nodes[n].address +
                    " " + (answers(n) ? "up" : "down"));
  }
  return answer(c.echo, Reply::Data, "heartbeats", lines);
}

Outcome Daemon::serviceList(const Call& c) {
  std::vector<std::string> lines;
  for (std::size_t i = 0; i < services_.size(); ++i) {
    lines.push_back(serviceLine(i));
  }
  return answer(c.echo, Reply::Data, "services", lines);
}

// The latest events of the daemon and of the service.
Outcome Daemon::events(const Call& c) {
  std::vector<std::string> lines;
  for (const Event& ev : events_) {
    if (ev.service == -1 || ev.service == static_cast<int>(c.idx)) {
      lines.push_back(std::to_string(ev.when) + " " + ev.text);
    }
  }
  if (lines.size() > kEventsShown) {
    lines.erase(lines.begin(), lines.end() - static_cast<long>(kEventsShown));
  }
  return answer(c.echo, Reply::Data, "events", lines);
}

Outcome Daemon::repair(const Call& c) {
  Service& s = services_[c.idx];
  if (s.conf.state != ServiceState::Broken) {
    return answer(c.echo, Reply::NotBroken, label(c.idx) + " is not broken");
  }
  s.conf.state = ServiceState::Stopped;
  return done(c, settle(s) ? "repaired and started" : "repaired");
}

Outcome Daemon::version(const Call& c) {
  return answer(
      c.echo, Reply::Data,
      std::string("tovsim ") + kDaemonVersion + " protocol " + kProtocolVersion,
      {std::string("V ") + kDaemonVersion + " " + kProtocolVersion});
}

// A blocked service that runs keeps running.
Outcome Daemon::block(const Call& c) {
  Service& s = services_[c.idx];
  if (s.conf.blocked) {
    return answer(c.echo, Reply::Already, label(c.idx) + " already blocked");
  }
  s.conf.blocked = true;
  return done(c, "blocked");
}

Outcome Daemon::unblock(const Call& c) {
  Service& s = services_[c.idx];
  if (!s.conf.blocked) {
    return answer(c.echo, Reply::Already, label(c.idx) + " not blocked");
  }
  s.conf.blocked = false;
  return done(c, settle(s) ? "unblocked and started" : "unblocked");
}

// The text is the suffix, else the first data line.
Outcome Daemon::logEntry(const Call& c) {
  std::string text = c.suffix;
  if (text.empty()) text = c.req.data.substr(0, c.req.data.find('\n'));
  if (text.empty())
    return answer(c.echo, Reply::BadArguments, "nothing to log");
  // Names may hold control bytes; the log shows them escaped.
  logLine(0, "log entry from " + printable(c.who) + " for " +
                 printable(label(c.idx)) + ": " + printable(text, 1024));
  record(static_cast<int>(c.idx), "log: " + printable(text, 200));
  return answer(c.echo, Reply::Ok, "logged");
}

Outcome Daemon::requestHandler(const Call& c) {
  if (c.suffix == "ping") return answer(c.echo, Reply::Ok, "pong");
  if (c.suffix == "protocol") {
    return answer(c.echo, Reply::Data, "protocol version", {kProtocolVersion});
  }
  return answer(c.echo, Reply::Unknown, "unknown request");
}

// A broken service declared running again, here.
Outcome Daemon::recover(const Call& c) {
  Service& s = services_[c.idx];
  if (s.conf.state != ServiceState::Broken) {
    return answer(c.echo, Reply::NotBroken, label(c.idx) + " is not broken");
  }
  startOn(s, c.node);
  return done(c, "recovered, running on " + cfg_.nodes[c.node].name);
}

// Start here at once, skipping the usual checks; the mode stays.
Outcome Daemon::quickstart(const Call& c) {
  Service& s = services_[c.idx];
  if (s.conf.state == ServiceState::Running) {
    return answer(c.echo, Reply::Already, label(c.idx) + " already running");
  }
  if (s.conf.blocked) {
    return answer(c.echo, Reply::Locked, label(c.idx) + " is blocked");
  }
  startOn(s, c.node);
  return done(c, "quickstarted on " + cfg_.nodes[c.node].name);
}

}  // namespace tovsim
