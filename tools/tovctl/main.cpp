// tovctl: the operators' command-line tool for the cluster daemons.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "check.h"
#include "codes.h"
#include "commands.h"
#include "discovery.h"
#include "session.h"
#include "status.h"
#include "tovapi/libtovapi.h"

#ifndef TOVCTL_VERSION
#define TOVCTL_VERSION "0.0.0"
#endif

namespace {

using tovctl::Options;
using tovctl::ServiceAction;

const char* const kFooterNotes =
    "\nDiagnostics: at debug level 0 the library's own messages are withheld "
    "and every failure is reported in one line on standard error; -d 1 to 3 "
    "let them through as well.\nColour: used on standard error when it is a "
    "terminal, NO_COLOR is not set and --no-colour is not given.\n"
    "Passwords are never taken from the command line: use --password-file "
    "(private to its owner, or - for standard input) or answer the prompt "
    "on a terminal.\n"
    "Every command ends by --deadline: a daemon that stalls cannot hold it "
    "longer.\n";

const std::vector<ServiceAction>& serviceActions() {
  static const std::vector<ServiceAction> actions{
      {"bounce", "B", "stop the service and start it again on this node"},
      {"stop", "G", "set manual mode and stop the service"},
      {"start", "I", "set automatic mode, so that the daemon starts it"},
      {"manual", "H", "set manual mode"},
      {"block", "W", "block the service from starting"},
      {"unblock", "X", "let the service start again"},
      {"block-and-stop", "K", "block the service and stop it"},
      {"repair", "U", "repair a broken service"},
      {"restart-scripts", "E",
       "re-run the startup scripts of a running service"},
      {"pass", "F",
       "run the stop scripts here and leave the service to the next node"},
      {"recovered", "[", "mark a broken service as recovered"},
      {"quickstart", "@AQ", "start the service on this node at once"},
  };
  return actions;
}

const std::vector<ServiceAction>& daemonActions() {
  static const std::vector<ServiceAction> actions{
      {"shutdown", "L", "shut the daemon down"},
      {"halt", "JA", "halt the daemon at once (unclean shutdown)"},
      {"check-password", std::string("J\0", 2),
       "check the user's password with the daemon"},
  };
  return actions;
}

// Seconds as an option takes them: a finite number in [min, max]. NaN,
// infinities and negative values are refused by name.
CLI::Validator secondsIn(double min, double max) {
  const std::string range =
      tovtools::secondsText(min) + " to " + tovtools::secondsText(max);
  return CLI::Validator(
      [min, max, range](std::string& text) -> std::string {
        double value = 0;
        std::size_t used = 0;
        try {
          value = std::stod(text, &used);
        } catch (const std::exception&) {
          used = 0;
        }
        if (used != text.size() || used == 0 || !std::isfinite(value) ||
            value < min || value > max) {
          return "\"" + text + "\" is not a number of seconds from " + range;
        }
        return "";
      },
      "", "seconds");
}

// Damerau-Levenshtein distance of two short words.
std::size_t distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<std::size_t>> d(
      a.size() + 1, std::vector<std::size_t>(b.size() + 1, 0));
  for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
      d[i][j] =
          std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
      }
    }
  }
  return d[a.size()][b.size()];
}

std::vector<std::string> commandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* sub : app.get_subcommands({})) {
    names.push_back(sub->get_name());
  }
  return names;
}

// "unknown command "bouce"; did you mean "bounce"?"
std::string unknownCommand(const CLI::App& app, const std::string& word) {
  std::string best;
  std::size_t bestDistance = 3;  // further away is no longer a typo
  for (const std::string& name : commandNames(app)) {
    const std::size_t d = distance(word, name);
    const bool prefix =
        word.size() >= 3 && name.compare(0, word.size(), word) == 0;
    if (d < bestDistance || (prefix && best.empty())) {
      best = name;
      bestDistance = prefix ? 0 : d;
    }
  }
  std::string text = "unknown command \"" + word + "\"";
  if (!best.empty()) text += "; did you mean \"" + best + "\"?";
  return text + " (see tovctl help)";
}

// The first word of the command line that is neither an option nor an
// option's value: the command the user meant.
std::string commandWord(const CLI::App& app, int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") return i + 1 < argc ? argv[i + 1] : "";
    if (arg.size() < 2 || arg[0] != '-') return arg;
    if (arg.find('=') != std::string::npos) continue;
    const CLI::Option* opt = app.get_option_no_throw(arg);
    if (opt != nullptr && opt->get_expected_min() > 0) ++i;
  }
  return "";
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  CLI::App app{"tovctl - control the tovmon daemons of a cluster"};
  app.footer("\n" + tovctl::exitStatusHelp() + kFooterNotes);
  app.set_version_flag("--version", "tovctl " TOVCTL_VERSION);
  // Global options may also follow the subcommand.
  app.fallthrough();

  app.add_option("-H,--host", o.hosts,
                 "an entry node: a daemon's host name or address, with :PORT "
                 "if need be; repeat (or separate with commas) for more, "
                 "tried in order")
      ->type_name("HOST")
      ->delimiter(',')
      ->capture_default_str();
  app.add_option("-p,--port", o.port, "daemon's TCP port (1-65535)")
      ->type_name("PORT")
      ->check(CLI::Range(1, 65535).description(""))
      ->capture_default_str();
  app.add_option("-t,--timeout", o.timeout,
                 "seconds to wait for a connection and for the salt")
      ->type_name("SECONDS")
      ->check(secondsIn(0.001, 86400.0))
      ->capture_default_str();
  app.add_option("--deadline", o.deadline,
                 "seconds the whole command may take, whatever the daemon "
                 "does; 0 for none")
      ->type_name("SECONDS")
      ->check(secondsIn(0, 86400.0))
      ->capture_default_str();
  auto* v4 = app.add_flag("-4", o.ipv4, "use IPv4 only");
  app.add_flag("-6", o.ipv6, "use IPv6 only")->excludes(v4);
  app.add_option("-d,--debug", o.debug, "library debug level 0-3")
      ->type_name("LEVEL")
      ->check(CLI::Range(0, 3).description(""))
      ->capture_default_str();
  app.add_flag("--no-colour", o.noColour, "never colour the diagnostics");
  app.add_option("-u,--user", o.user, "user for requests that change something")
      ->type_name("USER");
  app.add_option("--password-file", o.passwordFile,
                 "read the password from the first line of FILE")
      ->type_name("FILE");
  app.add_option("-a,--attempts", o.attempts,
                 "requests sent while the daemon answers busy (1-100)")
      ->type_name("N")
      ->check(CLI::Range(1, 100).description(""))
      ->capture_default_str();
  app.add_flag("--json", o.json,
               "machine-readable output on standard output, also for "
               "failures");
  app.add_flag("-y,--yes", o.yes, "halt or shut down without asking");
  app.add_flag("--show-secrets", o.showSecrets,
               "let the diagnostics show password digests (unsafe)");

  std::vector<std::pair<CLI::App*, std::function<int()>>> handlers;
  auto on = [&handlers](CLI::App* sub, std::function<int()> run) {
    handlers.emplace_back(sub, std::move(run));
  };

  // Discovery and addresses.
  std::string discoverHost;
  bool bootstrapOnly = false;
  bool clustersOnly = false;
  bool raw = false;
  auto* discover = app.add_subcommand(
      "discover",
      "find clusters and bootstrap machines (UDP port 1195, 2.5 s); "
      "broadcast unless HOST is given");
  discover->add_option("host", discoverHost, "ask only this host");
  auto* bootOpt = discover->add_flag("--bootstrap", bootstrapOnly,
                                     "only unconfigured (bootstrap) machines");
  discover->add_flag("--clusters", clustersOnly, "only configured clusters")
      ->excludes(bootOpt);
  discover->add_flag("--raw", raw, "the answer lines as received");
  on(discover, [&] {
    const int mode = bootstrapOnly  ? tov1::tov_discover_bootstrap
                     : clustersOnly ? tov1::tov_discover_cluster
                                    : tov1::tov_discover_all;
    return tovctl::cmdDiscover(o, discoverHost, mode, raw);
  });

  std::string probeHost;
  auto* probe = app.add_subcommand(
      "probe", "check quietly (2 s timeout) whether a daemon answers");
  probe->add_option("host", probeHost,
                    "host to probe (default: the first entry node that "
                    "answers)");
  on(probe, [&] { return tovctl::cmdProbe(o, probeHost); });

  std::string resolveHost;
  auto* resolve = app.add_subcommand("resolve", "print the address of a host");
  resolve->add_option("host", resolveHost, "host name or address")->required();
  on(resolve, [&] { return tovctl::cmdResolve(o, resolveHost); });

  std::string familyAddr;
  auto* family = app.add_subcommand(
      "family", "print the IP version (4 or 6) of a numeric address");
  family->add_option("address", familyAddr, "numeric address")->required();
  on(family, [&] { return tovctl::cmdFamily(o, familyAddr); });

  // Service requests. One service argument per subcommand, by number or name.
  const std::size_t nActions = serviceActions().size();
  std::vector<std::string> actionService(nActions);
  for (std::size_t i = 0; i < nActions; ++i) {
    const ServiceAction& a = serviceActions()[i];
    auto* sub = app.add_subcommand(a.name, a.help);
    sub->add_option("service", actionService[i], "service number or name")
        ->required();
    on(sub, [&o, &a, &actionService, i] {
      return tovctl::cmdServiceAction(o, a, actionService[i], "");
    });
  }

  std::string maintService;
  std::string maintState;
  auto* maint = app.add_subcommand(
      "maintenance", "switch maintenance of a service on (default) or off");
  maint->add_option("service", maintService, "service number or name")
      ->required();
  maint->add_option("state", maintState, "on or off")
      ->check(CLI::IsMember({"on", "off"}));
  on(maint, [&] {
    static const ServiceAction a{"maintenance", "M", ""};
    return tovctl::cmdServiceAction(o, a, maintService, maintState);
  });

  std::string logService = "0";
  std::vector<std::string> logWords;
  auto* logCmd =
      app.add_subcommand("log", "write a message into the daemon's log");
  logCmd->add_option("-s,--service", logService, "service number or name")
      ->capture_default_str();
  logCmd->add_option("message", logWords, "the message")->required();
  on(logCmd, [&] { return tovctl::cmdLog(o, logService, logWords); });

  for (const ServiceAction& a : daemonActions()) {
    auto* sub = app.add_subcommand(a.name, a.help);
    on(sub, [&o, &a] { return tovctl::cmdDaemonAction(o, a); });
  }

  // Requests that return data.
  std::string hbService = "0";
  auto* hb = app.add_subcommand("heartbeats", "list the nodes' heartbeats");
  hb->add_option("service", hbService, "service number or name")
      ->capture_default_str();
  on(hb, [&] {
    return tovctl::cmdServiceData(o, static_cast<char>(req_heartbeats),
                                  hbService, false);
  });

  std::string evService;
  auto* events =
      app.add_subcommand("events", "recent events of a service (needs -u)");
  events->add_option("service", evService, "service number or name")
      ->required();
  on(events, [&] {
    return tovctl::cmdServiceData(o, static_cast<char>(req_events), evService,
                                  true);
  });

  std::string verService = "0";
  auto* version = app.add_subcommand("version", "the daemon's version");
  version->add_option("service", verService, "service number or name")
      ->capture_default_str();
  on(version, [&] { return tovctl::cmdVersion(o, verService); });

  std::string infoService;
  auto* info = app.add_subcommand(
      "info", "the cluster and its nodes, or the details of one service");
  info->add_option("service", infoService, "service number or name");
  on(info, [&] { return tovctl::cmdInfo(o, infoService); });

  auto* services = app.add_subcommand("services", "list the services");
  on(services, [&] { return tovctl::cmdServices(o); });

  tovctl::StatusOptions statusOpts;
  auto* status = app.add_subcommand(
      "status", "the whole cluster at a glance: nodes, services, summary");
  status->add_flag("--watch", statusOpts.watch,
                   "redraw it in place until q (one snapshot per interval "
                   "when not on a terminal)");
  status
      ->add_option("--interval", statusOpts.interval,
                   "seconds between snapshots (default: the cluster's poll "
                   "time)")
      ->type_name("SECONDS")
      ->check(secondsIn(0.1, 3600.0));
  status
      ->add_option("--count", statusOpts.count,
                   "end the live view after N snapshots")
      ->type_name("N")
      ->check(CLI::Range(1, 1000000).description(""));
  on(status, [&] { return tovctl::cmdStatus(o, statusOpts); });

  std::string checkWarning, checkCritical;
  auto* check = app.add_subcommand(
      "check", "a check for monitoring systems (status 0 OK to 3 UNKNOWN)");
  check
      ->add_option("-w,--warning", checkWarning,
                   "WARNING outside RANGE[,RANGE] of silent nodes and of "
                   "services not running (default 0,0)")
      ->type_name("RANGE");
  check
      ->add_option("-c,--critical", checkCritical,
                   "CRITICAL outside RANGE[,RANGE] (default: none)")
      ->type_name("RANGE");

  std::string sendLine;
  auto* send = app.add_subcommand(
      "send", "send one raw request line (once) and print the reply");
  send->add_option("line", sendLine, "the request line, e.g. \"V 0\"")
      ->required();
  on(send, [&] { return tovctl::cmdSend(o, sendLine); });

  std::string codeArg;
  auto* codes = app.add_subcommand(
      "codes", "list the result codes, or explain one (number or name)");
  codes->add_option("code", codeArg, "a code, e.g. 22 or TOV_COMMS_FAIL");
  on(codes, [&] { return tovctl::listCodes(o.json, codeArg); });

  std::string helpTopic;
  auto* help = app.add_subcommand("help", "show this help, or a command's");
  help->add_option("command", helpTopic, "a command");
  on(help, [&] {
    if (helpTopic.empty()) {
      // App::help() would describe the command just parsed: this one.
      std::cout << app.get_formatter()->make_help(&app, app.get_name(),
                                                  CLI::AppFormatMode::Normal);
      return tovctl::kExitOk;
    }
    CLI::App* sub = nullptr;
    try {
      sub = app.get_subcommand(helpTopic);
    } catch (const CLI::OptionNotFound&) {
      tovctl::usageError(unknownCommand(app, helpTopic));
    }
    std::cout << sub->help();
    return tovctl::kExitOk;
  });

  app.require_subcommand(1);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    if (commandWord(app, argc, argv) == "check") {
      return tovctl::checkUnknown(std::string("usage: ") + e.what());
    }
    // The options were not all read: --json and -H count as given anyway.
    tovctl::setJsonOutput(
        std::find_if(argv + 1, argv + argc, [](const char* a) {
          return std::string(a) == "--json";
        }) != argv + argc);
    tovctl::setTarget("", 0);
    bool known = false;
    for (const CLI::App* sub : app.get_subcommands({})) {
      known = known || sub->parsed();
    }
    const std::string word = commandWord(app, argc, argv);
    if (!known && !word.empty()) {
      const std::vector<std::string> names = commandNames(app);
      if (std::find(names.begin(), names.end(), word) == names.end()) {
        return tovctl::reportUsage(unknownCommand(app, word));
      }
    }
    return tovctl::reportUsage(std::string("usage: ") + e.what() +
                               " (see tovctl --help)");
  }

  if (check->parsed()) {
    return tovctl::runCheck(o, app.get_option("--deadline")->count() > 0,
                            checkWarning, checkCritical);
  }
  try {
    tovctl::applyGlobals(o);
    for (const auto& h : handlers) {
      if (h.first->parsed()) return h.second();
    }
    return tovctl::reportUsage("usage: no command given (see tovctl --help)");
  } catch (const tovctl::ExitNow& e) {
    return e.status;
  } catch (const std::exception& e) {
    std::cerr << tov1::tovDebug.getTraceStr('E', "tovctl")
              << "unexpected error: " << e.what() << std::endl;
    return tovctl::kExitUnexpected;
  }
}
