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

Outcome reply(char echo, char letter, const std::string& msg,
              const std::vector<std::string>& lines = {}) {
  Outcome o;
  o.letter = letter;
  o.text += echo;
  o.text += letter;
  if (!msg.empty()) o.text += " " + msg;
  o.text += '\n';
  for (const std::string& l : lines) o.text += l + '\n';
  return o;
}

bool isInfoRequest(const std::string& line) {
  return line == "CCN" || line.rfind("CCN ", 0) == 0;
}

// Requests that only read the daemon's state need no authentication.
bool isRead(char letter) {
  return letter == 'C' || letter == 'N' || letter == 'O' || letter == 'V';
}

bool isServiceLetter(char c) {
  static const std::string letters = "BCDEFGHIKMNORUVWXYZ[";
  return letters.find(c) != std::string::npos;
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

std::string Daemon::clusterLine(std::size_t listenIdx) const {
  const std::size_t node =
      listenIdx < listenNode_.size() ? listenNode_[listenIdx] : 0;
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

std::string Daemon::discoveryAnswer(std::size_t listenIdx) const {
  std::lock_guard<std::mutex> lock(mu_);
  std::string out = clusterLine(listenIdx);
  for (const std::string& n : nodeLines()) out += "\n" + n;
  return out;
}

std::vector<std::string> Daemon::discoveryAnswers(std::size_t listenIdx) const {
  const std::vector<UdpAnswer>& fake = cfg_.faults.udpAnswers;
  if (fake.empty()) return {discoveryAnswer(listenIdx)};
  std::vector<std::string> out;
  for (const UdpAnswer& a : fake) {
    out.push_back(a.own ? discoveryAnswer(listenIdx) : a.bytes);
  }
  return out;
}

Outcome Daemon::handle(const Request& req, const std::string& saltText,
                       std::size_t listenIdx) {
  std::lock_guard<std::mutex> lock(mu_);
  return dispatch(req, saltText, listenIdx);
}

Outcome Daemon::dispatch(const Request& req, const std::string& saltText,
                         std::size_t listenIdx) {
  const std::string& line = req.line;
  if (line.empty()) return reply('?', 'u', "unknown request");
  const char e = line[0];
  if (shuttingDown_) return reply(e, 'i', "daemon shutting down");

  if (isInfoRequest(line)) {
    std::vector<std::string> lines{clusterLine(listenIdx)};
    for (const std::string& n : nodeLines()) lines.push_back(n);
    for (std::size_t i = 0; i < services_.size(); ++i) {
      lines.push_back(serviceLine(i));
    }
    lines.push_back(std::string("V ") + kDaemonVersion + " " +
                    kProtocolVersion);
    return reply(e, 'n', "cluster information", lines);
  }

  if (busyAnswered_ < cfg_.faults.busy && faultsApply(line)) {
    ++busyAnswered_;
    return reply(e, 'k', "daemon busy");
  }

  // Recognise the request before looking at its authentication.
  enum class Kind { Service, Check, Halt, Shutdown } kind;
  std::string rest;
  if (e == 'J' && headMatches(line, "JA", rest)) {
    kind = Kind::Halt;
  } else if (e == 'J' && headMatches(line, "J", rest)) {
    kind = Kind::Check;
  } else if (e == 'L' && headMatches(line, "L", rest)) {
    kind = Kind::Shutdown;
  } else if (e == '@' && headMatches(line, "@AQ", rest)) {
    kind = Kind::Service;
  } else if (isServiceLetter(e) && headMatches(line, std::string(1, e), rest)) {
    kind = Kind::Service;
  } else {
    return reply(e, 'u', "unknown request");
  }

  const bool needsAuth =
      !cfg_.users.empty() && !(kind == Kind::Service && isRead(e));
  bool authOk = false;
  if (req.hasAuth && !cfg_.users.empty()) {
    authOk = verifyAuth(cfg_.users, req.user, req.digest, binarySalt(saltText),
                        line);
  }
  if (needsAuth && !authOk) {
    TOVSIM_LOG(1, "authentication failed for \""
                      << printable(line) << "\" (user "
                      << (req.hasAuth ? req.user : std::string("<none>"))
                      << ")");
    return reply(e, 'd', "authentication failed");
  }
  const std::string who = authOk ? req.user : std::string("anonymous");
  const std::size_t node =
      listenIdx < listenNode_.size() ? listenNode_[listenIdx] : 0;

  switch (kind) {
    case Kind::Check:
      return cfg_.users.empty()
                 ? reply(e, 'a', "authentication not required")
                 : reply(e, 'a', "authentication ok for " + req.user);
    case Kind::Halt: {
      record(-1, "halt requested by " + who);
      shuttingDown_ = true;
      Outcome o = reply(e, 'a', "halting");
      o.after = Outcome::After::Halt;
      return o;
    }
    case Kind::Shutdown: {
      record(-1, "shutdown requested by " + who);
      shuttingDown_ = true;
      Outcome o = reply(e, 'a', "daemon shutting down");
      o.after = Outcome::After::Shutdown;
      return o;
    }
    case Kind::Service:
      break;
  }

  // "<letter> <service>[ <suffix>]"
  if (rest.size() < 2 || rest[0] != ' ') {
    return reply(e, 'l', "missing service number");
  }
  rest.erase(0, 1);
  const std::size_t blank = rest.find(' ');
  const std::string num = rest.substr(0, blank);
  const std::string suffix =
      blank == std::string::npos ? std::string() : rest.substr(blank + 1);
  int idx = -1;
  if (!parseCount(num, idx) ||
      static_cast<std::size_t>(idx) >= services_.size()) {
    return reply(e, 'l', "no service " + printable(num, 32));
  }
  return serviceRequest(e, static_cast<std::size_t>(idx), suffix, req.data, who,
                        node);
}

Outcome Daemon::serviceRequest(char e, std::size_t idx,
                               const std::string& suffix,
                               const std::string& data, const std::string& who,
                               std::size_t node) {
  Service& s = services_[idx];
  const std::string what = label(idx);
  const ServiceState st = s.conf.state;
  const bool broken = st == ServiceState::Broken;
  const bool moving =
      st == ServiceState::Starting || st == ServiceState::Stopping;
  const bool running = st == ServiceState::Running;
  const std::string nodeName = cfg_.nodes[node].name;
  std::size_t home = 0;
  for (std::size_t n = 0; n < cfg_.nodes.size(); ++n) {
    if (cfg_.nodes[n].name == s.conf.node) home = n;
  }
  // Automatic mode keeps an unblocked service running.
  auto settle = [&] {
    if (s.conf.automatic && !s.conf.blocked &&
        s.conf.state == ServiceState::Stopped) {
      startOn(s, home);
      return true;
    }
    return false;
  };
  auto done = [&](const std::string& msg) {
    record(static_cast<int>(idx), what + " " + msg + " by " + who);
    return reply(e, 'a', what + " " + msg);
  };
  auto refuseCommon = [&](Outcome& o) {
    if (broken) {
      o = reply(e, 'g', what + " is broken");
      return true;
    }
    if (moving) {
      o = reply(e, 'm', what + " is " + stateName(st));
      return true;
    }
    return false;
  };
  Outcome o;

  switch (e) {
    case 'B':  // stop and start again, here
      if (refuseCommon(o)) return o;
      if (!running) return reply(e, 'c', what + " is not running");
      if (s.conf.blocked) return reply(e, 'm', what + " is blocked");
      startOn(s, node);
      return done("bounced on " + nodeName);
    case 'C':
      return reply(e, 'n', what,
                   {serviceLine(idx),
                    "D " + std::to_string(s.startTimeout) + " " +
                        std::to_string(s.stopTimeout),
                    std::string("M ") + (s.maintenance ? "1" : "0")});
    case 'D': {  // "D n <start> [<stop>]" in seconds
      const std::size_t b = suffix.find(' ');
      int start = 0;
      int stop = 0;
      const bool ok =
          parseCount(suffix.substr(0, b), start) &&
          (b == std::string::npos ? (stop = start, true)
                                  : parseCount(suffix.substr(b + 1), stop)) &&
          start > 0 && stop > 0;
      if (!ok) return reply(e, 'l', "expected: D <service> <start> [<stop>]");
      s.startTimeout = start;
      s.stopTimeout = stop;
      return done("timeouts set to " + std::to_string(start) + "/" +
                  std::to_string(stop) + " s");
    }
    case 'E':  // re-run the startup scripts of a running service
      if (refuseCommon(o)) return o;
      if (!running) return reply(e, 'c', what + " is not running");
      return done("startup scripts re-run");
    case 'F': {  // stop here and leave it to the next node
      if (refuseCommon(o)) return o;
      if (!running) return reply(e, 'c', what + " is not running");
      if (s.conf.blocked) return reply(e, 'm', what + " is blocked");
      // The next node in the list that is not silent nor mute.
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
      return done("passed to " + cfg_.nodes[next].name);
    }
    case 'G':
      if (refuseCommon(o)) return o;
      if (st == ServiceState::Stopped && !s.conf.automatic) {
        return reply(e, 'b', what + " already stopped");
      }
      s.conf.automatic = false;
      s.conf.state = ServiceState::Stopped;
      return done("stopped (manual)");
    case 'H':
      if (!s.conf.automatic) return reply(e, 'b', what + " already manual");
      s.conf.automatic = false;
      return done("set to manual");
    case 'I': {
      const bool wouldStart = st == ServiceState::Stopped && !s.conf.blocked;
      if (s.conf.automatic && !wouldStart) {
        return reply(e, 'b', what + " already automatic");
      }
      s.conf.automatic = true;
      return done(settle() ? "set to automatic and started"
                           : "set to automatic");
    }
    case 'K':
      if (refuseCommon(o)) return o;
      if (s.conf.blocked && st == ServiceState::Stopped) {
        return reply(e, 'b', what + " already blocked and stopped");
      }
      s.conf.blocked = true;
      s.conf.state = ServiceState::Stopped;
      return done("blocked and stopped");
    case 'M': {  // "M n [on|off]"
      bool on = true;
      if (suffix == "off") {
        on = false;
      } else if (!suffix.empty() && suffix != "on") {
        return reply(e, 'l', "expected: M <service> [on|off]");
      }
      if (s.maintenance == on) {
        return reply(e, 'b',
                     what + " maintenance already " + (on ? "on" : "off"));
      }
      s.maintenance = on;
      return done(std::string("maintenance ") + (on ? "on" : "off"));
    }
    case 'N': {
      std::vector<std::string> lines;
      for (std::size_t n = 0; n < cfg_.nodes.size(); ++n) {
        const bool up = answers(n);
        lines.push_back(field(cfg_.nodes[n].name) + " " +
                        cfg_.nodes[n].address + " " + (up ? "up" : "down"));
      }
      return reply(e, 'n', "heartbeats", lines);
    }
    case 'O': {
      std::vector<std::string> lines;
      for (std::size_t i = 0; i < services_.size(); ++i) {
        lines.push_back(serviceLine(i));
      }
      return reply(e, 'n', "services", lines);
    }
    case 'R': {
      std::vector<std::string> lines;
      for (const Event& ev : events_) {
        if (ev.service == -1 || ev.service == static_cast<int>(idx)) {
          lines.push_back(std::to_string(ev.when) + " " + ev.text);
        }
      }
      if (lines.size() > kEventsShown) {
        lines.erase(lines.begin(),
                    lines.end() - static_cast<long>(kEventsShown));
      }
      return reply(e, 'n', "events", lines);
    }
    case 'U':
      if (!broken) return reply(e, 'j', what + " is not broken");
      s.conf.state = ServiceState::Stopped;
      return done(settle() ? "repaired and started" : "repaired");
    case 'V':
      return reply(
          e, 'n',
          std::string("tovsim ") + kDaemonVersion + " protocol " +
              kProtocolVersion,
          {std::string("V ") + kDaemonVersion + " " + kProtocolVersion});
    case 'W':
      if (s.conf.blocked) return reply(e, 'b', what + " already blocked");
      s.conf.blocked = true;
      return done("blocked");
    case 'X':
      if (!s.conf.blocked) return reply(e, 'b', what + " not blocked");
      s.conf.blocked = false;
      return done(settle() ? "unblocked and started" : "unblocked");
    case 'Y': {
      std::string text = suffix;
      if (text.empty()) text = data.substr(0, data.find('\n'));
      if (text.empty()) return reply(e, 'l', "nothing to log");
      // Names may hold control bytes; the log shows them escaped.
      logLine(0, "log entry from " + printable(who) + " for " +
                     printable(what) + ": " + printable(text, 1024));
      record(static_cast<int>(idx), "log: " + printable(text, 200));
      return reply(e, 'a', "logged");
    }
    case 'Z':
      if (suffix == "ping") return reply(e, 'a', "pong");
      if (suffix == "protocol") {
        return reply(e, 'n', "protocol version", {kProtocolVersion});
      }
      return reply(e, 'u', "unknown request");
    case '[':
      if (!broken) return reply(e, 'j', what + " is not broken");
      startOn(s, node);
      return done("recovered, running on " + nodeName);
    case '@':  // quickstart here, skipping the usual checks
      if (running) return reply(e, 'b', what + " already running");
      if (refuseCommon(o)) return o;
      if (s.conf.blocked) return reply(e, 'm', what + " is blocked");
      startOn(s, node);
      return done("quickstarted on " + nodeName);
    default:
      return reply(e, 'u', "unknown request");
  }
}

}  // namespace tovsim
