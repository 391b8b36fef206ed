// tovctl: the operators' command-line tool for the cluster daemons.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "check.h"
#include "codes.h"
#include "commands.h"
#include "common/cli.h"
#include "discovery.h"
#include "session.h"
#include "status.h"
#include "tovapi/libtovapi.h"

#ifndef TOVCTL_VERSION
#define TOVCTL_VERSION "0.0.0"
#endif

namespace {

using tovctl::CommandTable;
using tovctl::Options;
using tovctl::ServiceAction;
using tovtools::secondsIn;
using tovtools::wholeIn;

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

// What the command line itself set wins over the clusters file.
void noteGiven(const CLI::App& app, Options& o) {
  for (const char* name : {"--host", "--port", "--timeout", "--deadline",
                           "--user", "--password-file"}) {
    if (app.get_option(name)->count() > 0) o.given.insert(name);
  }
}

void addMoreGlobalOptions(CLI::App& app, Options& o) {
  app.add_flag("--json", o.json,
               "machine-readable output on standard output, also for "
               "failures");
  app.add_flag("-y,--yes", o.yes, "halt or shut down without asking");
  app.add_flag("--show-secrets", o.showSecrets,
               "let the diagnostics show password digests (unsafe)");
  app.add_option("--cluster", o.cluster,
                 "a cluster named in the clusters file: its entry nodes, "
                 "port, user, password file, timeout and deadline, unless "
                 "given here (default: $TOV_CLUSTER)")
      ->type_name("NAME");
  app.add_option("--config", o.config,
                 "the clusters file (default: $TOV_CONFIG, else "
                 "~/.config/tov/clusters.toml, /etc/xdg/tov/clusters.toml, "
                 "/etc/tov/clusters.toml)")
      ->type_name("FILE");
}

void addGlobalOptions(CLI::App& app, Options& o) {
  app.add_option("-H,--host", o.hosts,
                 "an entry node: a daemon's host name or address, with :PORT "
                 "if need be; repeat (or separate with commas) for more, "
                 "tried in order")
      ->type_name("HOST")
      ->delimiter(',')
      ->capture_default_str();
  app.add_option("-p,--port", o.port, "daemon's TCP port (1-65535)")
      ->type_name("PORT")
      ->check(tovtools::portFrom(1))
      ->capture_default_str();
  app.add_option("-t,--timeout", o.timeout,
                 "seconds to wait for a connection and for the salt "
                 "(0.001-86400)")
      ->type_name("SECONDS")
      ->check(secondsIn(0.001, 86400.0))
      ->capture_default_str();
  app.add_option("--deadline", o.deadline,
                 "seconds the whole command may take, whatever the daemon "
                 "does (0-86400; 0 for none)")
      ->type_name("SECONDS")
      ->check(secondsIn(0, 86400.0))
      ->capture_default_str();
  auto* v4 = app.add_flag("-4", o.ipv4, "use IPv4 only");
  app.add_flag("-6", o.ipv6, "use IPv6 only")->excludes(v4);
  app.add_option("-d,--debug", o.debug, "library debug level 0-3")
      ->type_name("LEVEL")
      ->check(wholeIn(0, 3))
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
      ->check(wholeIn(1, 100))
      ->capture_default_str();
  addMoreGlobalOptions(app, o);
}

// Discovery and addresses.
void addAddressCommands(CommandTable& r) {
  struct Discover {
    std::string host;
    bool bootstrap = false, clusters = false, raw = false;
  };
  auto d = std::make_shared<Discover>();
  auto* discover =
      r.add("discover",
            "find clusters and bootstrap machines (UDP port 1195, 2.5 s); "
            "broadcast unless HOST is given",
            [d, &o = r.o] {
              const int mode = d->bootstrap  ? tov1::tov_discover_bootstrap
                               : d->clusters ? tov1::tov_discover_cluster
                                             : tov1::tov_discover_all;
              return tovctl::cmdDiscover(o, d->host, mode, d->raw);
            });
  discover->add_option("host", d->host, "ask only this host")
      ->type_name("HOST");
  auto* bootOpt = discover->add_flag("--bootstrap", d->bootstrap,
                                     "only unconfigured (bootstrap) machines");
  discover->add_flag("--clusters", d->clusters, "only configured clusters")
      ->excludes(bootOpt);
  discover->add_flag("--raw", d->raw, "the answer lines as received");

  auto host = std::make_shared<std::string>();
  r.add("probe", "check quietly (2 s timeout) whether a daemon answers",
        [host, &o = r.o] { return tovctl::cmdProbe(o, *host); })
      ->add_option("host", *host,
                   "host to probe (default: the first entry node that "
                   "answers)")
      ->type_name("HOST");

  auto name = std::make_shared<std::string>();
  r.add("resolve", "print the address of a host",
        [name, &o = r.o] { return tovctl::cmdResolve(o, *name); })
      ->add_option("host", *name, "host name or address")
      ->type_name("HOST")
      ->required();
  auto address = std::make_shared<std::string>();
  r.add("family", "print the IP version (4 or 6) of a numeric address",
        [address, &o = r.o] { return tovctl::cmdFamily(o, *address); })
      ->add_option("address", *address, "numeric address")
      ->type_name("ADDRESS")
      ->required();
}

// Service requests: one service argument each, by number or name.
void addServiceCommands(CommandTable& r) {
  for (const ServiceAction& a : serviceActions()) {
    auto service = std::make_shared<std::string>();
    r.add(a.name, a.help,
          [service, &a, &o = r.o] {
            return tovctl::cmdServiceAction(o, a, *service, "");
          })
        ->add_option("service", *service, "service number or name")
        ->type_name("SERVICE")
        ->required();
  }
  auto maint = std::make_shared<std::pair<std::string, std::string>>();
  auto* m = r.add(
      "maintenance", "switch maintenance of a service on (default) or off",
      [maint, &o = r.o] {
        static const ServiceAction a{"maintenance", "M", ""};
        return tovctl::cmdServiceAction(o, a, maint->first, maint->second);
      });
  m->add_option("service", maint->first, "service number or name")
      ->type_name("SERVICE")
      ->required();
  m->add_option("state", maint->second, "on or off")
      ->type_name("on|off")
      ->check(CLI::IsMember({"on", "off"}).description(""));

  auto log =
      std::make_shared<std::pair<std::string, std::vector<std::string>>>();
  log->first = "0";
  auto* l = r.add(
      "log", "write a message into the daemon's log",
      [log, &o = r.o] { return tovctl::cmdLog(o, log->first, log->second); });
  l->add_option("-s,--service", log->first, "service number or name")
      ->type_name("SERVICE")
      ->capture_default_str();
  l->add_option("message", log->second, "the message")
      ->type_name("WORDS")
      ->required();

  for (const ServiceAction& a : daemonActions()) {
    r.add(a.name, a.help,
          [&a, &o = r.o] { return tovctl::cmdDaemonAction(o, a); });
  }
}

// Requests that return data; one service argument each.
void addDataCommands(CommandTable& r) {
  struct Data {
    const char* name;
    const char* help;
    const char* fallback;  // "" when the service is required
    std::function<int(const Options&, const std::string&)> run;
  };
  const Data table[] = {
      {"heartbeats", "list the nodes' heartbeats", "0",
       [](const Options& o, const std::string& s) {
         return tovctl::cmdServiceData(o, static_cast<char>(req_heartbeats), s,
                                       false);
       }},
      {"events", "recent events of a service (needs -u)", "",
       [](const Options& o, const std::string& s) {
         return tovctl::cmdServiceData(o, static_cast<char>(req_events), s,
                                       true);
       }},
      {"version", "the daemon's version", "0", tovctl::cmdVersion},
      {"info", "the cluster and its nodes, or the details of one service",
       nullptr, tovctl::cmdInfo},
  };
  for (const Data& d : table) {
    auto service = std::make_shared<std::string>(d.fallback ? d.fallback : "");
    auto* sub = r.add(d.name, d.help, [service, run = d.run, &o = r.o] {
      return run(o, *service);
    });
    auto* opt = sub->add_option("service", *service, "service number or name")
                    ->type_name("SERVICE");
    if (d.fallback == nullptr) continue;
    if (*d.fallback == '\0') {
      opt->required();
    } else {
      opt->capture_default_str();
    }
  }
  r.add("services", "list the services",
        [&o = r.o] { return tovctl::cmdServices(o); });
}

// A raw request, and the codes.
void addRawCommands(CommandTable& r) {
  auto line = std::make_shared<std::string>();
  r.add("send", "send one raw request line (once) and print the reply",
        [line, &o = r.o] { return tovctl::cmdSend(o, *line); })
      ->add_option("line", *line, "the request line, e.g. \"V 0\"")
      ->type_name("LINE")
      ->required();
  auto code = std::make_shared<std::string>();
  r.add("codes", "list the result codes, or explain one (number or name)",
        [code, &o = r.o] { return tovctl::listCodes(o.json, *code); })
      ->add_option("code", *code, "a code, e.g. 22 or TOV_COMMS_FAIL")
      ->type_name("CODE");
}

void addStatusCommand(CommandTable& r) {
  auto st = std::make_shared<tovctl::StatusOptions>();
  auto* status =
      r.add("status", "the whole cluster at a glance: nodes, services, summary",
            [st, &o = r.o] { return tovctl::cmdStatus(o, *st); });
  auto* watch = status->add_flag(
      "--watch", st->watch,
      "redraw it in place until q (one snapshot per interval when not on a "
      "terminal)");
  // Refused without --watch rather than ignored.
  status
      ->add_option("--interval", st->interval,
                   "seconds between snapshots of --watch, 0.1-3600 "
                   "(default: the cluster's poll time)")
      ->type_name("SECONDS")
      ->check(secondsIn(0.1, 3600.0))
      ->needs(watch);
  status
      ->add_option("--count", st->count,
                   "end --watch after N snapshots (1-1000000)")
      ->type_name("N")
      ->check(wholeIn(1, 1000000))
      ->needs(watch);
  status->add_flag("--problems", st->filter.problems,
                   "show only silent nodes and services that need attention");
  status
      ->add_option("--node", st->filter.nodes,
                   "show only the nodes whose name or address matches PATTERN "
                   "(shell glob); repeatable")
      ->type_name("PATTERN")
      ->allow_extra_args(false);
  status
      ->add_option("--service", st->filter.services,
                   "show only the services whose name or index matches "
                   "PATTERN (shell glob); repeatable")
      ->type_name("PATTERN")
      ->allow_extra_args(false);
}

void addHelpCommand(CommandTable& r) {
  auto topic = std::make_shared<std::string>();
  r.add("help", "show this help, or a command's",
        [topic, &r] {
          CLI::App& app = r.app;
          if (topic->empty()) {
            // App::help() would describe the command just parsed: this one.
            std::cout << app.get_formatter()->make_help(
                &app, app.get_name(), CLI::AppFormatMode::Normal);
            return tovctl::kExitOk;
          }
          CLI::App* sub = nullptr;
          try {
            sub = app.get_subcommand(*topic);
          } catch (const CLI::OptionNotFound&) {
            tovctl::usageError(r.unknownCommand(*topic));
          }
          std::cout << sub->help();
          return tovctl::kExitOk;
        })
      ->add_option("command", *topic, "a command")
      ->type_name("COMMAND");
}

}  // namespace

int main(int argc, char** argv) {
  tovctl::noteStandardStreams();
  Options o;
  CLI::App app{"tovctl - control the tovmon daemons of a cluster"};
  app.footer("\n" + tovctl::exitStatusHelp() + kFooterNotes);
  app.set_version_flag("--version", "tovctl " TOVCTL_VERSION);
  // Global options may also follow the subcommand.
  app.fallthrough();
  addGlobalOptions(app, o);

  CommandTable r(app, o);
  addAddressCommands(r);
  addServiceCommands(r);
  addDataCommands(r);
  addStatusCommand(r);
  tovctl::addCheckCommand(r);
  addRawCommands(r);
  addHelpCommand(r);
  app.require_subcommand(1);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    return r.refuse(e, argc, argv);
  }
  noteGiven(app, o);
  return r.runChosen();
}
