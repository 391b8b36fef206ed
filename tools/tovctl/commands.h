// The command table and the subcommands. Each subcommand returns the exit
// status, or throws ExitNow after it has printed why it failed.
#ifndef TOOLS_TOVCTL_COMMANDS_H
#define TOOLS_TOVCTL_COMMANDS_H

#include <functional>
#include <string>
#include <vector>

#include "session.h"

namespace CLI {
class App;
class ParseError;
}  // namespace CLI

namespace tovctl {

// Every command registers here its options (kept alive by its handler) and
// how it runs; main() parses the command line and hands it to the table.
class CommandTable {
 public:
  CommandTable(CLI::App& app, Options& o) : app(app), o(o) {}
  CLI::App& app;
  Options& o;

  // A command run the usual way: the global options applied first, every
  // failure (exceptions too) reported as codes.h says.
  CLI::App* add(const std::string& name, const std::string& help,
                std::function<int()> run);

  // A command with ways of its own: `run` applies the global options and
  // reports every failure itself; `refused` reports a command line that
  // names the command but that the parser refused, given the parser's
  // message.
  CLI::App* addOwn(const std::string& name, const std::string& help,
                   std::function<int()> run,
                   std::function<int(const std::string& why)> refused);

  // Runs the command of the parsed command line; returns the exit status.
  int runChosen() const;

  // A command line that the parser refused: the refusal of the command it
  // names, else one usage line that names the command meant when the word
  // given is none.
  int refuse(const CLI::ParseError& e, int argc, char** argv) const;

  // "unknown command "bouce"; did you mean "bounce"? (see tovctl help)"
  std::string unknownCommand(const std::string& word) const;

 private:
  struct Entry {
    CLI::App* command;
    std::function<int()> run;
    bool own;
    std::function<int(const std::string&)> refused;  // empty: the usual way
  };
  std::vector<Entry> entries_;
};

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
