// tovctl: the operators' command-line tool for the cluster daemons.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "codes.h"
#include "commands.h"
#include "session.h"
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
    "Passwords are never taken from the command line: use --password-file or "
    "answer the prompt.\n";

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

void applyGlobals(const Options& o) {
  tov1::Debug::useColour = !o.noColour && isatty(STDERR_FILENO) &&
                           std::getenv("NO_COLOR") == nullptr;
  tov1::tovDebug.setDebugLevel(o.debug);
  tov1::tovNet.setTimeout(static_cast<float>(o.timeout));
  tov1::tovNet.pref_AF = o.ipv4 ? AF_INET : o.ipv6 ? AF_INET6 : 0;
  if (o.host.empty()) tovctl::usageError("usage: the host is empty");
  if (!o.passwordFile.empty() && o.user.empty()) {
    tovctl::usageError("--password-file needs a user (-u USER)");
  }
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  CLI::App app{"tovctl - control the tovmon daemons of a cluster"};
  app.footer("\n" + tovctl::exitStatusHelp() + kFooterNotes);
  app.set_version_flag("--version", "tovctl " TOVCTL_VERSION);
  // Global options may also follow the subcommand.
  app.fallthrough();

  app.add_option("-H,--host", o.host, "daemon's host name or address")
      ->type_name("HOST")
      ->capture_default_str();
  app.add_option("-p,--port", o.port, "daemon's TCP port (1-65535)")
      ->type_name("PORT")
      ->check(CLI::Range(1, 65535).description(""))
      ->capture_default_str();
  app.add_option("-t,--timeout", o.timeout,
                 "seconds to wait for a connection and for the salt")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, 86400.0).description(""))
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
  app.add_flag("--json", o.json, "machine-readable output on standard output");

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
  probe->add_option("host", probeHost, "host to probe (default: --host)");
  on(probe, [&] {
    return tovctl::cmdProbe(o, probeHost.empty() ? o.host : probeHost);
  });

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

  std::string sendLine;
  auto* send = app.add_subcommand(
      "send", "send one raw request line (once) and print the reply");
  send->add_option("line", sendLine, "the request line, e.g. \"V 0\"")
      ->required();
  on(send, [&] { return tovctl::cmdSend(o, sendLine); });

  auto* codes = app.add_subcommand(
      "codes", "list the result codes with their names and texts");
  on(codes, [&] { return tovctl::listCodes(o.json); });

  app.require_subcommand(1);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    return tovctl::reportUsage(std::string("usage: ") + e.what() +
                               " (see tovctl --help)");
  }

  try {
    applyGlobals(o);
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
