// The simulated daemon's state and its answer to each request line.
#ifndef TOVSIM_DAEMON_H
#define TOVSIM_DAEMON_H

#include <cstddef>
#include <deque>
#include <mutex>
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

// A reply without its closing NUL, and what the daemon does after sending.
struct Outcome {
  enum class After { Nothing, Shutdown, Halt };
  std::string text;
  char letter = 'u';
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

  // The discovery datagram of the daemon on listen address `listenIdx`.
  std::string discoveryAnswer(std::size_t listenIdx) const;

  // The datagrams that answer one probe, in order: the own answer, or what
  // the discovery answer fault says.
  std::vector<std::string> discoveryAnswers(std::size_t listenIdx) const;

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

  Outcome dispatch(const Request& req, const std::string& saltText,
                   std::size_t listenIdx);
  Outcome serviceRequest(char letter, std::size_t idx,
                         const std::string& suffix, const std::string& data,
                         const std::string& who, std::size_t node);
  // Served by this process and neither silent nor mute.
  bool answers(std::size_t node) const;
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
