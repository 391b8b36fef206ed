// What every subcommand shares: the global options, the daemon addressed,
// authentication, library calls bounded by the command's deadline, service
// look-up and single requests.
#ifndef TOOLS_TOVCTL_SESSION_H
#define TOOLS_TOVCTL_SESSION_H

#include <functional>
#include <nlohmann/json.hpp>
#include <ostream>
#include <set>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "codes.h"
#include "common/deadline.h"
#include "common/snapshot.h"

namespace tovctl {

struct Options {
  // The entry nodes as given (-H, repeatable): "host", "host:port", "[v6]"
  // or "[v6]:port"; tried in order.
  std::vector<std::string> hosts{"127.0.0.1"};
  int port = 1195;
  // The same with their ports, once the command line has been read.
  std::vector<tovtools::Endpoint> entries;
  double timeout = 3.0;
  double deadline = 30.0;
  bool ipv4 = false;
  bool ipv6 = false;
  unsigned debug = 0;
  bool noColour = false;
  bool showSecrets = false;
  bool yes = false;
  std::string user;
  std::string passwordFile;
  unsigned attempts = 3;
  bool json = false;
  // A cluster of the clusters file (--cluster, else $TOV_CLUSTER) and the
  // file (--config, else $TOV_CONFIG, else the usual places).
  std::string cluster;
  std::string config;
  // The long names of the options the command line gave: they win over
  // the clusters file.
  std::set<std::string> given;
};

// Thrown once the reason has been printed; main() exits with `status`.
struct ExitNow {
  int status;
};

// With --json, `partial` (an object or null) is what the command has to say
// besides the error; the error is added to it.
[[noreturn]] void failWith(const std::string& what, int result,
                           const std::string& detail = "",
                           nlohmann::json partial = nullptr);
[[noreturn]] void usageError(const std::string& message);

// Splits "host", "host:port", "[v6]" or "[v6]:port"; a bare IPv6 address
// (more than one colon) is a host. `port` is left alone when none is given.
// False, with the reason, for an empty host or a bad port.
bool splitHostPort(const std::string& text, std::string& host, int& port,
                   std::string& why);

// Swaps the buffer of a standard stream for a string buffer while it lives,
// so that library output can be withheld or reshaped.
class StreamCapture {
 public:
  StreamCapture(std::ostream& stream, bool active);
  ~StreamCapture();
  StreamCapture(const StreamCapture&) = delete;
  StreamCapture& operator=(const StreamCapture&) = delete;
  std::string text() const { return buffer_.str(); }

 private:
  std::ostream& stream_;
  std::streambuf* saved_ = nullptr;
  std::ostringstream buffer_;
};

// At debug level 0 the library's own diagnostics are withheld during a call:
// the tool reports a failure in one line of its own. From level 1 on they
// pass through unchanged.
class QuietLibrary {
 public:
  QuietLibrary();

 private:
  StreamCapture capture_;
};

// Applies the global options: colour, JSON, the entry nodes, the library's
// settings and the command's deadline. A usage error ends the program.
void applyGlobals(Options& o);

// The command's deadline (--deadline); its clock starts with the first
// bounded call.
void setDeadline(double seconds);
tovtools::Deadline& deadline();

// Runs one library call quietly and within the deadline. `what` names the
// command and `label` the daemon for the line printed when the deadline
// ends the call; that line's exit status ends the program.
// withinDeadline() alone leaves the check to the caller.
template <typename Call>
int bounded(const std::string& what, const std::string& label, Call&& call);
template <typename Call>
int withinDeadline(Call&& call);
void checkDeadline(const std::string& what, const std::string& label,
                   int result);

// Whether standard output is a terminal: daemon text is then shown with its
// control characters escaped.
bool stdoutIsTerminal();
// A daemon's text as it may be shown on standard output.
std::string shown(const std::string& text, bool keepLineFeeds = false);

struct ServiceRecord {
  unsigned index = 0;
  std::string name;
  std::string state;
  std::string mode;
  bool blocked = false;
  std::string node;  // "-" when the service runs nowhere
};

struct ServiceRef {
  unsigned index = 0;
  std::string name;  // "" when the daemon's list does not know the number
};

// A reply of the daemon split into its parts.
struct Reply {
  std::string text;
  char letter = '\0';
  std::string message;
  std::vector<std::string> lines;  // data lines, empty ones left out
  int status = 0;                  // what the reply decoder makes of it
};

// Who waits the daemon's poll time after a busy reply.
enum class BusyWait {
  Tool,    // the tool, between its attempts
  InCall,  // the call itself (the library's service command), also after
           // its last attempt
};

// Which failures of an entry node hand the command over to the next one.
enum class HandOver {
  // Any failure: the request only reads, asking again elsewhere is safe.
  AnyFailure,
  // Only a failure before the request left (no connection, no salt): a
  // request that may change something is never sent twice.
  BeforeSending,
};

class Session {
 public:
  // A session with the first of the entry nodes (-H) that answers.
  explicit Session(const Options& opts);
  // A session with this daemon alone.
  Session(const Options& opts, std::string host, int port);

  const Options& options() const { return opts_; }
  const std::string& host() const { return host_; }
  const std::string& port() const { return port_; }
  int portNumber() const;
  // host:port, with brackets around an IPv6 address.
  std::string label() const;
  // The daemon addressed, for messages: label() once an entry node has
  // answered (or with one entry node), "any of a:1195, b:1195" before.
  std::string target() const;

  // Fetches the daemon's information reply into the library's cache. The
  // service commands need it: the library checks the service number against
  // the cache entry of the address, whatever port that entry came from.
  // Until an entry node has answered, the entry nodes are asked in turn.
  void refreshCache(bool force, const std::string& doing);

  // Runs a library call against the daemon. Until an entry node has
  // answered, the call goes to each entry node in turn, each but the last
  // within its share of the deadline (tovtools::entryShare), until one
  // gives a result that `rule` does not hand over; that node is the
  // session's daemon from then on. The command's deadline ends the program
  // as bounded() does.
  int firstAnswering(const std::string& what, HandOver rule,
                     const std::function<int()>& call);

  // The entry nodes that did not answer before this one, for messages:
  // "a:1195 (cannot connect ...)" joined by ", "; "" when none.
  std::string skipped() const;
  // "asked last: b:1195; before it, a:1195 (...) did not answer", for the
  // detail of a failure; "" when none was skipped.
  std::string skippedDetail() const;

  // The service records of the cached information reply.
  std::vector<ServiceRecord> services() const;

  // A service given by number or by name, checked against the daemon's list.
  ServiceRef resolveService(const std::string& arg);

  // The authentication vector for a command that changes something: empty
  // without a user. The password comes from --password-file (a file only
  // its owner can read, or "-" for standard input) or from a prompt on a
  // terminal; an empty password is refused. Commands ask for it before
  // their first request, so that typing does not eat into the deadline.
  std::vector<std::string> authVector();

  // The tool's one busy retry: `attempt` sends once and returns the
  // result, with `busy` set when the daemon answered busy; it is sent again
  // while the daemon does, `attempts` times at most, the poll time waited
  // in between as `wait` says, within the deadline (`what` names the
  // command for its line). Returns the last result; a daemon still busy
  // after the last attempt gives TOV_COMMS_BUSY (stillBusy() says so).
  int retryWhileBusy(unsigned attempts, BusyWait wait, const std::string& what,
                     const std::function<int(bool& busy)>& attempt);

  // One request line, retried while the daemon answers busy, as the
  // library's service commands do. Returns 0 or a library result; a daemon
  // still busy after the last attempt gives TOV_COMMS_BUSY.
  int request(const std::string& line, const std::vector<std::string>& auth,
              unsigned attempts, Reply& reply, const std::string& what);

 private:
  void use(const tovtools::Endpoint& e);

  Options opts_;
  std::vector<tovtools::Endpoint> entries_;
  bool chosen_ = false;  // an entry node has answered, or there is one
  std::vector<std::string> skipped_;
  std::string host_;
  std::string port_;
  bool haveAuth_ = false;
  std::vector<std::string> auth_;
};

Reply parseReply(const std::string& text);

// The detail of a failure whose daemon stayed busy:
// "still busy after 3 attempt(s) (-a N)".
std::string stillBusy(unsigned attempts);

// host:port, with brackets around an IPv6 address.
std::string hostPortLabel(const std::string& host, const std::string& port);

// Names of a service for messages: "service 0 (web)" or "service 3".
std::string describe(const ServiceRef& s);

template <typename Call>
int withinDeadline(Call&& call) {
  tovtools::Deadline::Guard guard(deadline());
  QuietLibrary quiet;
  return std::forward<Call>(call)();
}

template <typename Call>
int bounded(const std::string& what, const std::string& label, Call&& call) {
  setActivity(what);
  const int result = withinDeadline(std::forward<Call>(call));
  checkDeadline(what, label, result);
  return result;
}

}  // namespace tovctl

#endif  // TOOLS_TOVCTL_SESSION_H
