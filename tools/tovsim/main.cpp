// tovsim: a stand-in for the cluster daemon, on real sockets.
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <ctime>
#include <iostream>
#include <sstream>

#include "common/cli.h"
#include "config.h"
#include "daemon.h"
#include "log.h"
#include "server.h"

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

std::string describeFaults(const tovsim::Faults& f) {
  std::ostringstream os;
  if (f.busy > 0) os << " busy=" << f.busy;
  if (f.noSalt) os << " no-salt";
  if (f.shortSalt >= 0) os << " short-salt=" << f.shortSalt;
  if (f.lateSaltMs > 0) os << " late-salt=" << f.lateSaltMs << "ms";
  if (f.splitSaltMs > 0) os << " split-salt=" << f.splitSaltMs << "ms";
  if (!f.salt.empty()) os << " salt=" << f.salt;
  if (f.replyDelayMs > 0) os << " reply-delay=" << f.replyDelayMs << "ms";
  if (f.chunkBytes > 0) {
    os << " chunk=" << f.chunkBytes << "/" << f.chunkPauseMs << "ms";
  }
  if (f.cutAfter >= 0) os << " cut-after=" << f.cutAfter;
  if (f.resetAfter >= 0) os << " reset-after=" << f.resetAfter;
  if (f.padTo > 0) os << " pad-to=" << f.padTo;
  if (f.onlyLetter != 0) os << " fault-letter=" << f.onlyLetter;
  if (!f.udpAnswers.empty()) os << " udp-answers=" << f.udpAnswers.size();
  return os.str();
}

// The addresses served, shortened when there are many.
std::string describeListen(const std::vector<std::string>& listen) {
  std::string out;
  if (listen.size() <= 8) {
    for (const std::string& a : listen) out += " " + a;
    return out;
  }
  return " " + listen.front() + " ... " + listen.back() + " (" +
         std::to_string(listen.size()) + " addresses)";
}

// "; silent: node7; mute: node9", with at most 8 names each.
std::string describeSilence(const std::vector<tovsim::NodeConfig>& nodes) {
  std::string out;
  for (const auto how : {tovsim::Silence::Refused, tovsim::Silence::Mute}) {
    std::string names;
    std::size_t count = 0;
    for (const tovsim::NodeConfig& n : nodes) {
      if (n.silence != how) continue;
      if (++count <= 8) {
        names += (names.empty() ? "" : ", ") + tovsim::printable(n.name, 64);
      }
    }
    if (count == 0) continue;
    if (count > 8) names += ", ... (" + std::to_string(count) + " in all)";
    out += std::string("; ") +
           (how == tovsim::Silence::Refused ? "silent: " : "mute: ") + names;
  }
  return out;
}

// What the command line gives.
struct Settings {
  std::string configPath;
  std::vector<std::string> listen;
  int port = 1195;
  int udpPort = 1195;
  int verbosity = 0;
  int maxLifetime = 0;
  std::string readyFile;
  double readTimeout = 5.0;
  int maxConnections = 256;
  int nodeCount = 0;
  std::vector<std::string> silentNodes;
  std::vector<std::string> muteNodes;
  std::size_t maxFrame = 65536;
  std::size_t udpDatagramSize = tovsim::kDefaultAnswerDatagram;
  tovsim::Faults faults;
  std::string faultLetter;
  std::vector<std::string> udpAnswers;
  int pollTime = 1;
  bool showVersion = false;
};

void addOptions(CLI::App& app, Settings& s) {
  using tovtools::wholeIn;
  app.add_option("--config", s.configPath, "cluster configuration (JSON)")
      ->type_name("FILE")
      ->check(CLI::ExistingFile.description(""));
  app.add_option("--listen", s.listen,
                 "address to serve as one node (repeatable; default: the "
                 "file's \"listen\", else every node's address but the "
                 "silent ones', else 127.0.0.1)")
      ->type_name("ADDRESS");
  app.add_option("--nodes", s.nodeCount,
                 "make the nodes node1..nodeN on 127.0.1.1..127.0.1.N (for a "
                 "file without nodes), 1-256")
      ->type_name("N")
      ->check(wholeIn(1, static_cast<long long>(tovsim::kMaxNodes)));
  app.add_option("--silent", s.silentNodes,
                 "list this node but let nothing listen at its address "
                 "(repeatable)")
      ->type_name("NODE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--mute", s.muteNodes,
                 "list this node, accept connections at its address and "
                 "never send anything (repeatable)")
      ->type_name("NODE")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--port", s.port, "TCP port, 0-65535 (0: the kernel picks)")
      ->type_name("PORT")
      ->check(tovtools::portFrom(0))
      ->capture_default_str();
  app.add_option("--udp-port", s.udpPort,
                 "UDP discovery port, 0-65535 (0: off)")
      ->type_name("PORT")
      ->check(tovtools::portFrom(0))
      ->capture_default_str();
  app.add_flag("-v,--verbose", s.verbosity,
               "more log output on standard error (repeatable)");
  app.add_option("--max-lifetime", s.maxLifetime,
                 "stop by itself after this many whole seconds (0: never)")
      ->type_name("SECONDS")
      ->check(wholeIn(0, 2147483647));
  app.add_option("--ready-file", s.readyFile,
                 "write the TCP port here once every socket listens")
      ->type_name("FILE");
  app.add_option("--read-timeout", s.readTimeout,
                 "seconds a client has to send its request frame (0.01-3600)")
      ->type_name("SECONDS")
      ->check(tovtools::secondsIn(0.01, 3600.0))
      ->capture_default_str();
  app.add_option("--max-connections", s.maxConnections,
                 "connections served at the same time (1-4096)")
      ->type_name("N")
      ->check(wholeIn(1, 4096))
      ->capture_default_str();
  app.add_option("--max-frame", s.maxFrame,
                 "largest request frame in bytes (16-16777216)")
      ->type_name("BYTES")
      ->check(wholeIn(16, 16 << 20))
      ->capture_default_str();
  app.add_option("--udp-datagram-size", s.udpDatagramSize,
                 "largest datagram of the own discovery answer, split "
                 "between lines (256-65507)")
      ->type_name("BYTES")
      ->check(wholeIn(tovsim::kMinAnswerDatagram, tovsim::kMaxDatagram))
      ->capture_default_str();
  app.add_option("--poll-time", s.pollTime,
                 "poll time in seconds announced in the cluster record, "
                 "0-2147483647 (overrides the file)")
      ->type_name("SECONDS")
      ->check(wholeIn(0, tovsim::kMaxPollTime));
  app.add_flag("--version", s.showVersion, "print the version and exit");
}

void addFaultOptions(CLI::App& app, Settings& s) {
  using tovtools::wholeIn;
  const long long maxMs = tovsim::kMaxDelayMs;
  auto* g = app.add_option_group("Faults", "misbehave on purpose");
  // Each fault option: its name, its type name, what it does and its range.
  const auto fault = [g](const char* name, auto& value, const char* type,
                         const char* help, long long min, long long max) {
    return g->add_option(name, value, help)
        ->type_name(type)
        ->check(wholeIn(min, max));
  };
  fault("--busy", s.faults.busy, "N",
        "answer the first N requests 'daemon busy' (0-1000000)", 0, 1000000);
  fault("--short-salt", s.faults.shortSalt, "N",
        "send only the first N (0-7) bytes of the salt", 0, 7);
  g->add_flag("--no-salt", s.faults.noSalt, "close right after accepting");
  fault("--late-salt", s.faults.lateSaltMs, "MS",
        "wait MS milliseconds before the salt (0-3600000)", 0, maxMs);
  fault("--split-salt", s.faults.splitSaltMs, "MS",
        "send the salt in two pieces, 4 bytes and the rest, "
        "MS milliseconds apart (0-3600000; 0: off)",
        0, maxMs);
  g->add_option("--salt", s.faults.salt,
                "send this salt (8 hex digits, 0-9 a-f) on every "
                "connection instead of a random one: repeatable tests")
      ->type_name("HEX")
      ->check(CLI::Validator(
          [](std::string& text) -> std::string {
            return tovsim::validSalt(text)
                       ? ""
                       : "\"" + text + "\" is not 8 hex digits (0-9, a-f)";
          },
          "", "salt"));
  fault("--reply-delay", s.faults.replyDelayMs, "MS",
        "wait MS milliseconds before the reply (0-3600000)", 0, maxMs);
  fault("--chunk", s.faults.chunkBytes, "BYTES",
        "write the reply in pieces of BYTES (0-1048576)", 0, 1 << 20);
  fault("--chunk-pause", s.faults.chunkPauseMs, "MS",
        "pause MS milliseconds between the pieces (0-3600000)", 0, maxMs);
  fault("--cut-after", s.faults.cutAfter, "BYTES",
        "send only BYTES of the reply, then close (0-16777216)", 0, 1 << 24);
  fault("--reset-after", s.faults.resetAfter, "BYTES",
        "send BYTES of the reply, then reset the connection (0-16777216)", 0,
        1 << 24);
  fault("--pad-to", s.faults.padTo, "BYTES",
        "pad the reply with filler lines to BYTES (0-268435456)", 0,
        tovsim::kMaxPad);
  g->add_option("--fault-letter", s.faultLetter,
                "apply busy and reply faults only to this request letter")
      ->type_name("LETTER");
  // One text per occurrence, so that "-" and texts starting with a dash
  // (given as --udp-answer=DATAGRAM) are values, not options.
  g->add_option("--udp-answer", s.udpAnswers,
                "answer every discovery probe with this "
                "datagram instead (repeatable, in order; "
                "escapes \\n \\r \\t \\\\ \\xNN; "
                "'-': the node's own answer)")
      ->type_name("DATAGRAM")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

// The fault settings the command line gives win over the file's.
void applyFaults(const CLI::App& app, const Settings& s, tovsim::Faults& f) {
  const tovsim::Faults& cli = s.faults;
  const auto given = [&app](const char* name) { return app.count(name) > 0; };
  if (given("--busy")) f.busy = cli.busy;
  if (given("--short-salt")) f.shortSalt = cli.shortSalt;
  if (given("--no-salt")) f.noSalt = cli.noSalt;
  if (given("--late-salt")) f.lateSaltMs = cli.lateSaltMs;
  if (given("--split-salt")) f.splitSaltMs = cli.splitSaltMs;
  if (given("--salt")) f.salt = cli.salt;
  if (given("--reply-delay")) f.replyDelayMs = cli.replyDelayMs;
  if (given("--chunk")) f.chunkBytes = cli.chunkBytes;
  if (given("--chunk-pause")) f.chunkPauseMs = cli.chunkPauseMs;
  if (given("--cut-after")) f.cutAfter = cli.cutAfter;
  if (given("--reset-after")) f.resetAfter = cli.resetAfter;
  if (given("--pad-to")) f.padTo = cli.padTo;
  if (given("--fault-letter")) {
    f.onlyLetter = s.faultLetter.empty() ? 0 : s.faultLetter[0];
  }
  if (given("--udp-answer")) {
    f.udpAnswers.clear();
    for (const std::string& text : s.udpAnswers) {
      try {
        f.udpAnswers.push_back(tovsim::parseUdpAnswer(text));
      } catch (const tovsim::ConfigError& e) {
        throw tovsim::ConfigError("--udp-answer: " + std::string(e.what()));
      }
    }
  }
}

// Serves until a signal, the lifetime, a shutdown or a halt; the exit
// status.
int serve(const tovsim::Config& cfg, const Settings& s, long long now,
          const std::vector<std::string>& listen, bool servedNodes) {
  // Signals arrive through a descriptor the main loop polls; every thread
  // inherits the blocked mask.
  std::signal(SIGPIPE, SIG_IGN);
  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGINT);
  sigaddset(&mask, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &mask, nullptr);
  const int sigFd = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
  if (sigFd < 0) {
    std::cerr << "tovsim: signalfd failed\n";
    return kExitFailure;
  }

  tovsim::Daemon daemon(cfg, now, listen);
  tovsim::ServerOptions so;
  so.listen = listen;
  so.port = s.port;
  so.udpPort = s.udpPort;
  so.readTimeoutMs = static_cast<int>(s.readTimeout * 1000.0 + 0.5);
  so.maxLifetimeSec = s.maxLifetime;
  so.readyFile = s.readyFile;
  so.maxConnections = s.maxConnections;
  so.maxFrame = s.maxFrame;
  so.udpDatagramSize = s.udpDatagramSize;
  int rc = 0;
  {
    tovsim::Server server(daemon, so);
    try {
      server.open();
    } catch (const std::exception& e) {
      // Addresses taken from the nodes may not be this machine's.
      const bool fromNodes = listen.size() > 1 || listen[0] != "127.0.0.1";
      std::cerr << "tovsim: " << e.what()
                << (servedNodes && fromNodes
                        ? " (the nodes' own addresses are served when "
                          "neither --listen nor \"listen\" is given)"
                        : "")
                << '\n';
      close(sigFd);
      return kExitFailure;
    }
    tovsim::logLine(
        0, "cluster " + tovsim::printable(cfg.clusterName) + ": " +
               std::to_string(cfg.nodes.size()) + " node(s), " +
               std::to_string(cfg.services.size()) + " service(s), " +
               std::to_string(cfg.users.size()) + " user(s)" +
               (cfg.bootstrap ? ", bootstrap" : "") + "; listening on" +
               describeListen(listen) + " tcp " +
               std::to_string(server.tcpPort()) +
               (s.udpPort ? ", udp " + std::to_string(s.udpPort) : ", no udp") +
               describeSilence(cfg.nodes) +
               (describeFaults(cfg.faults).empty()
                    ? std::string()
                    : "; faults:" + describeFaults(cfg.faults)));
    rc = server.run(sigFd);
  }
  close(sigFd);
  return rc;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "tovsim - simulated cluster daemon: answers service requests over TCP "
      "and discovery probes over UDP"};
  Settings s;
  addOptions(app, s);
  addFaultOptions(app, s);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return tovtools::refuseCommandLine(app, e, "tovsim", kExitUsage);
  }
  if (s.showVersion) {
    std::cout << "tovsim " << tovsim::kDaemonVersion << " (protocol "
              << tovsim::kProtocolVersion << ")\n";
    return 0;
  }
  tovsim::setLogLevel(s.verbosity);
  if (s.faultLetter.size() > 1) {
    return tovtools::usageError("tovsim", "--fault-letter takes one character",
                                kExitUsage);
  }

  const long long now = static_cast<long long>(std::time(nullptr));
  tovsim::Config cfg;
  std::vector<std::string> listen;
  bool servedNodes = false;  // listening at the nodes' addresses by default
  try {
    cfg = s.configPath.empty() ? tovsim::builtinConfig(now)
                               : tovsim::loadConfigFile(s.configPath);
    applyFaults(app, s, cfg.faults);
    if (app.count("--poll-time") > 0) cfg.pollTime = s.pollTime;
    tovsim::NodeFlags nf;
    nf.listen = s.listen;
    nf.generate = s.nodeCount;
    nf.silent = s.silentNodes;
    nf.mute = s.muteNodes;
    listen = tovsim::settleNodes(cfg, nf);
    servedNodes = nf.listen.empty() && cfg.listen.empty();
  } catch (const tovsim::ConfigError& e) {
    std::cerr << "tovsim: configuration error: " << e.what() << '\n';
    return kExitUsage;
  }
  return serve(cfg, s, now, listen, servedNodes);
}
