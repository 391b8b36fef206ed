// The subcommands. Each returns the exit status, or throws ExitNow after it
// has printed why it failed.
#ifndef TOOLS_TOVCTL_COMMANDS_H
#define TOOLS_TOVCTL_COMMANDS_H

#include <string>
#include <vector>

#include "session.h"

namespace tovctl {

// A request that the library's service command composes from its letters.
struct ServiceAction {
  std::string name;     // subcommand, also used in messages
  std::string letters;  // letters handed to the library
  std::string help;
};

int cmdProbe(const Options& o, const std::string& host);
int cmdResolve(const Options& o, const std::string& host);
int cmdFamily(const Options& o, const std::string& address);

// A service request; `suffix` is appended to the request line.
int cmdServiceAction(const Options& o, const ServiceAction& a,
                     const std::string& service, const std::string& suffix);
int cmdLog(const Options& o, const std::string& service,
           const std::vector<std::string>& words);
// Requests to the daemon itself (shutdown, halt, check-password).
int cmdDaemonAction(const Options& o, const ServiceAction& a);

// Requests whose reply carries data: heartbeats (N), events (R), version (V)
// and a service's details (C).
int cmdServiceData(const Options& o, char letter, const std::string& service,
                   bool authenticate);
int cmdVersion(const Options& o, const std::string& service);
int cmdInfo(const Options& o, const std::string& service);
int cmdServices(const Options& o);
int cmdSend(const Options& o, const std::string& line);

}  // namespace tovctl

#endif  // TOOLS_TOVCTL_COMMANDS_H
