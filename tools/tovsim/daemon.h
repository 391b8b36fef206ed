// The simulated daemon's state and its answer to each request line.
#ifndef TOVSIM_DAEMON_H
#define TOVSIM_DAEMON_H

#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "config.h"

namespace tovsim {

extern const char* const kDaemonVersion;
extern const char* const kProtocolVersion;

// One request frame, split into its parts.
struct Request {
  std::string line;
  bool hasAuth = false;
  std::string user;
  std::string digest;
  std::string data;
};

// Splits the bytes before the closing NUL: request line, then an optional
// authentication line, then data. A second line that is not shaped like an
// authentication line is data.
Request parseFrame(const std::string& content);

// The second byte of every reply: what the daemon made of the request.
enum class Reply : char {
  Ok = 'a',
  Already = 'b',  // nothing to do: it is so already
  NotRunning = 'c',
  AuthFailed = 'd',
  Broken = 'g',  // the service is broken
  ShuttingDown = 'i',
  NotBroken = 'j',
  Busy = 'k',
  BadArguments = 'l',  // also a service number the daemon does not have
  Locked = 'm',        // in transition, or blocked
  Data = 'n',          // data lines follow
  Unknown = 'u',
};

// A reply without its closing NUL, and what the daemon does after sending.
struct Outcome {
  enum class After { Nothing, Shutdown, Halt };
  std::string text;
  Reply letter = Reply::Unknown;
  After after = After::Nothing;
};

// Appends filler lines so that text plus the closing NUL is `total` bytes.
std::string padReply(const std::string& text, long total);

class Daemon {
 public:
  Daemon(const Config& cfg, long long startTime,
         const std::vector<std::string>& listen);

  // `saltText` is the salt as the client saw it (what was sent, NUL-padded
  // to 8 bytes); `listenIdx` says which listen address took the request.
  Outcome handle(const Request& req, const std::string& saltText,
                 std::size_t listenIdx);

  // The datagrams that answer one probe, in order: the own answer, its
  // lines packed into datagrams of at most `datagramSize` bytes (a longer
  // line goes alone), or what the discovery answer fault says.
  std::vector<std::string> discoveryAnswers(std::size_t listenIdx,
                                            std::size_t datagramSize) const;

  // Whether listen address `listenIdx` serves a mute node: connections are
  // accepted and held, probes swallowed, nothing is ever sent.
  bool muteAt(std::size_t listenIdx) const;

  // Whether the reply faults apply to this request line.
  bool faultsApply(const std::string& line) const;

  const Config& config() const { return cfg_; }

 private:
  struct Service {
    ServiceConfig conf;
    int runningOn = -1;  // node index; meaningful while not stopped/broken
    bool maintenance = false;
    int startTimeout = 30;
    int stopTimeout = 30;
  };
  struct Event {
    long long when;
    int service;  // -1 for the daemon itself
    std::string text;
  };

  // One request on its way to its handler: where it came from, who sent
  // it and, for a service request, the service and what follows its number.
  struct Call {
    char echo;  // the request line's first character
    const Request& req;
    std::string who;       // the authenticated user, or "anonymous"
    std::size_t node;      // the node whose address took the request
    std::size_t idx{};     // the service
    std::string suffix{};  // after the service number
  };
  using Handler = Outcome (Daemon::*)(const Call&);
  struct RequestKind;  // one entry of the request table, in daemon.cpp

  // The table entry whose head starts `line`; `rest` is what follows it.
  static const RequestKind* findRequest(const std::string& line,
                                        std::string& rest);
  Outcome dispatch(const Request& req, const std::string& saltText,
                   std::size_t listenIdx);
  Outcome information(char echo, std::size_t listenIdx) const;
  // Reads "<service>[ <suffix>]" into `c`; a reply when there is none such.
  std::optional<Outcome> parseService(const std::string& rest, Call& c) const;
  // The refusal the table's guards give for the service's state, if any.
  std::optional<Outcome> guard(const Call& c, unsigned guards) const;
  Outcome done(const Call& c, const std::string& msg);
  Outcome stopDaemon(const Call& c, const std::string& what,
                     const std::string& msg, Outcome::After after);
  // Starts an automatic, unblocked, stopped service on its home node.
  bool settle(Service& s);
  std::size_t homeOf(const Service& s) const;

  // The handlers, one per request (the table in daemon.cpp maps them).
  Outcome checkPassword(const Call& c);
  Outcome halt(const Call& c);
  Outcome shutdown(const Call& c);
  Outcome bounce(const Call& c);
  Outcome showService(const Call& c);
  Outcome setTimeouts(const Call& c);
  Outcome rerunStartup(const Call& c);
  Outcome pass(const Call& c);
  Outcome stop(const Call& c);
  Outcome setManual(const Call& c);
  Outcome setAutomatic(const Call& c);
  Outcome blockAndStop(const Call& c);
  Outcome maintenance(const Call& c);
  Outcome heartbeats(const Call& c);
  Outcome serviceList(const Call& c);
  Outcome events(const Call& c);
  Outcome repair(const Call& c);
  Outcome version(const Call& c);
  Outcome block(const Call& c);
  Outcome unblock(const Call& c);
  Outcome logEntry(const Call& c);
  Outcome requestHandler(const Call& c);
  Outcome recover(const Call& c);
  Outcome quickstart(const Call& c);

  // Served by this process and neither silent nor mute.
  bool answers(std::size_t node) const;
  std::size_t nodeAt(std::size_t listenIdx) const;
  std::string clusterLine(std::size_t listenIdx) const;
  std::vector<std::string> nodeLines() const;
  std::string serviceLine(std::size_t idx) const;
  std::string label(std::size_t idx) const;
  void record(int service, const std::string& text);
  void startOn(Service& s, std::size_t node);

  Config cfg_;
  long long startTime_;
  std::vector<std::size_t> listenNode_;  // listen index -> node index
  mutable std::mutex mu_;
  std::vector<Service> services_;
  std::deque<Event> events_;
  int busyAnswered_ = 0;
  bool shuttingDown_ = false;
};

}  // namespace tovsim

#endif  // TOVSIM_DAEMON_H
