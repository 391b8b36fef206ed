// What every subcommand shares: the global options, the daemon addressed,
// authentication, quiet library calls, service look-up and single requests.
#ifndef TOOLS_TOVCTL_SESSION_H
#define TOOLS_TOVCTL_SESSION_H

#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

namespace tovctl {

struct Options {
  std::string host = "127.0.0.1";
  int port = 1195;
  double timeout = 3.0;
  bool ipv4 = false;
  bool ipv6 = false;
  unsigned debug = 0;
  bool noColour = false;
  std::string user;
  std::string passwordFile;
  unsigned attempts = 3;
  bool json = false;
};

// Thrown once the reason has been printed; main() exits with `status`.
struct ExitNow {
  int status;
};

[[noreturn]] void failWith(const std::string& what, int result,
                           const std::string& detail = "");
[[noreturn]] void usageError(const std::string& message);

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

class Session {
 public:
  explicit Session(const Options& opts, std::string host);

  const Options& options() const { return opts_; }
  const std::string& host() const { return host_; }
  const std::string& port() const { return port_; }
  // host:port, with brackets around an IPv6 address.
  std::string label() const;

  // Fetches the daemon's information reply into the library's cache. The
  // service commands need it: the library checks the service number against
  // the cache entry of the address, whatever port that entry came from.
  void refreshCache(bool force, const std::string& doing);

  // The service records of the cached information reply.
  std::vector<ServiceRecord> services() const;

  // A service given by number or by name, checked against the daemon's list.
  ServiceRef resolveService(const std::string& arg);

  // The authentication vector for a command that changes something: empty
  // without a user; the password comes from --password-file or a prompt.
  std::vector<std::string> authVector();

  // One request line, retried while the daemon answers busy, as the
  // library's service commands do. Returns 0 or a library result.
  int request(const std::string& line, const std::vector<std::string>& auth,
              unsigned attempts, Reply& reply);

 private:
  Options opts_;
  std::string host_;
  std::string port_;
  bool haveAuth_ = false;
  std::vector<std::string> auth_;
};

Reply parseReply(const std::string& text);

// Names of a service for messages: "service 0 (web)" or "service 3".
std::string describe(const ServiceRef& s);

}  // namespace tovctl

#endif  // TOOLS_TOVCTL_SESSION_H
