// tovsim: a stand-in for the cluster daemon, on real sockets.
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <ctime>
#include <iostream>
#include <sstream>

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

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{
      "tovsim - simulated cluster daemon: answers service requests over TCP "
      "and discovery probes over UDP"};
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
  tovsim::Faults cli;
  std::string faultLetter;
  std::vector<std::string> udpAnswers;
  int pollTime = 1;
  bool showVersion = false;

  app.add_option("--config", configPath, "cluster configuration (JSON)")
      ->check(CLI::ExistingFile);
  app.add_option("--listen", listen,
                 "address to serve as one node (repeatable; default: the "
                 "file's \"listen\", else every node's address but the "
                 "silent ones', else 127.0.0.1)");
  app.add_option("--nodes", nodeCount,
                 "make the nodes node1..nodeN on 127.0.1.1..127.0.1.N (for a "
                 "file without nodes)")
      ->check(CLI::Range(1, static_cast<int>(tovsim::kMaxNodes)));
  app.add_option("--silent", silentNodes,
                 "list this node but let nothing listen at its address "
                 "(repeatable)")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--mute", muteNodes,
                 "list this node, accept connections at its address and "
                 "never send anything (repeatable)")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--port", port, "TCP port (0: the kernel picks)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_option("--udp-port", udpPort, "UDP discovery port (0: off)")
      ->check(CLI::Range(0, 65535))
      ->capture_default_str();
  app.add_flag("-v,--verbose", verbosity,
               "more log output on standard error (repeatable)");
  app.add_option("--max-lifetime", maxLifetime,
                 "stop by itself after this many seconds (0: never)")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--ready-file", readyFile,
                 "write the TCP port here once every socket listens");
  app.add_option("--read-timeout", readTimeout,
                 "seconds a client has to send its request frame")
      ->check(CLI::Range(0.01, 3600.0))
      ->capture_default_str();
  app.add_option("--max-connections", maxConnections,
                 "connections served at the same time")
      ->check(CLI::Range(1, 4096))
      ->capture_default_str();
  app.add_option("--max-frame", maxFrame, "largest request frame in bytes")
      ->check(CLI::Range(16, 16 << 20))
      ->capture_default_str();
  auto* pollOpt = app.add_option("--poll-time", pollTime,
                                 "poll time in seconds announced in the "
                                 "cluster record (overrides the file)")
                      ->check(CLI::Range(0, tovsim::kMaxPollTime));
  app.add_flag("--version", showVersion, "print the version and exit");

  auto* g = app.add_option_group("Faults", "misbehave on purpose");
  auto* busyOpt = g->add_option("--busy", cli.busy,
                                "answer the first N requests 'daemon busy'")
                      ->check(CLI::NonNegativeNumber);
  auto* shortOpt =
      g->add_option("--short-salt", cli.shortSalt,
                    "send only the first N (0-7) bytes of the salt")
          ->check(CLI::Range(0, 7));
  auto* noSaltOpt =
      g->add_flag("--no-salt", cli.noSalt, "close right after accepting");
  auto* lateOpt = g->add_option("--late-salt", cli.lateSaltMs,
                                "wait MS milliseconds before the salt")
                      ->check(CLI::Range(0, tovsim::kMaxDelayMs));
  auto* delayOpt = g->add_option("--reply-delay", cli.replyDelayMs,
                                 "wait MS milliseconds before the reply")
                       ->check(CLI::Range(0, tovsim::kMaxDelayMs));
  auto* chunkOpt = g->add_option("--chunk", cli.chunkBytes,
                                 "write the reply in pieces of N bytes")
                       ->check(CLI::Range(0, 1 << 20));
  auto* pauseOpt = g->add_option("--chunk-pause", cli.chunkPauseMs,
                                 "pause MS milliseconds between the pieces")
                       ->check(CLI::Range(0, tovsim::kMaxDelayMs));
  auto* cutOpt = g->add_option("--cut-after", cli.cutAfter,
                               "send only N bytes of the reply, then close")
                     ->check(CLI::Range(0L, 1L << 24));
  auto* resetOpt =
      g->add_option("--reset-after", cli.resetAfter,
                    "send N bytes of the reply, then reset the connection")
          ->check(CLI::Range(0L, 1L << 24));
  auto* padOpt = g->add_option("--pad-to", cli.padTo,
                               "pad the reply with filler lines to N bytes")
                     ->check(CLI::Range(0L, tovsim::kMaxPad));
  auto* letterOpt =
      g->add_option("--fault-letter", faultLetter,
                    "apply busy and reply faults only to this request letter");
  // One text per occurrence, so that "-" and texts starting with a dash
  // (given as --udp-answer=TEXT) are values, not options.
  auto* udpOpt = g->add_option("--udp-answer", udpAnswers,
                               "answer every discovery probe with this "
                               "datagram instead (repeatable, in order; "
                               "escapes \\n \\r \\t \\\\ \\xNN; "
                               "'-': the node's own answer)")
                     ->expected(1)
                     ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int rc = app.exit(e);
    return rc == 0 ? 0 : kExitUsage;
  }
  if (showVersion) {
    std::cout << "tovsim " << tovsim::kDaemonVersion << " (protocol "
              << tovsim::kProtocolVersion << ")\n";
    return 0;
  }
  tovsim::setLogLevel(verbosity);
  if (faultLetter.size() > 1) {
    std::cerr << "tovsim: --fault-letter takes one character\n";
    return kExitUsage;
  }

  const long long now = static_cast<long long>(std::time(nullptr));
  tovsim::Config cfg;
  bool servedNodes = false;  // listening at the nodes' addresses by default
  try {
    cfg = configPath.empty() ? tovsim::builtinConfig(now)
                             : tovsim::loadConfigFile(configPath);
    // Command-line faults win over the file's.
    tovsim::Faults& f = cfg.faults;
    if (busyOpt->count()) f.busy = cli.busy;
    if (shortOpt->count()) f.shortSalt = cli.shortSalt;
    if (noSaltOpt->count()) f.noSalt = cli.noSalt;
    if (lateOpt->count()) f.lateSaltMs = cli.lateSaltMs;
    if (delayOpt->count()) f.replyDelayMs = cli.replyDelayMs;
    if (chunkOpt->count()) f.chunkBytes = cli.chunkBytes;
    if (pauseOpt->count()) f.chunkPauseMs = cli.chunkPauseMs;
    if (cutOpt->count()) f.cutAfter = cli.cutAfter;
    if (resetOpt->count()) f.resetAfter = cli.resetAfter;
    if (padOpt->count()) f.padTo = cli.padTo;
    if (letterOpt->count())
      f.onlyLetter = faultLetter.empty() ? 0 : faultLetter[0];
    if (udpOpt->count()) {
      f.udpAnswers.clear();
      for (const std::string& text : udpAnswers) {
        try {
          f.udpAnswers.push_back(tovsim::parseUdpAnswer(text));
        } catch (const tovsim::ConfigError& e) {
          throw tovsim::ConfigError("--udp-answer: " + std::string(e.what()));
        }
      }
    }
    if (pollOpt->count()) cfg.pollTime = pollTime;
    tovsim::NodeFlags nf;
    nf.listen = listen;
    nf.generate = nodeCount;
    nf.silent = silentNodes;
    nf.mute = muteNodes;
    listen = tovsim::settleNodes(cfg, nf);
    servedNodes = nf.listen.empty() && cfg.listen.empty();
  } catch (const tovsim::ConfigError& e) {
    std::cerr << "tovsim: configuration error: " << e.what() << '\n';
    return kExitUsage;
  }

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
  so.port = port;
  so.udpPort = udpPort;
  so.readTimeoutMs = static_cast<int>(readTimeout * 1000.0 + 0.5);
  so.maxLifetimeSec = maxLifetime;
  so.readyFile = readyFile;
  so.maxConnections = maxConnections;
  so.maxFrame = maxFrame;
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
               (udpPort ? ", udp " + std::to_string(udpPort) : ", no udp") +
               describeSilence(cfg.nodes) +
               (describeFaults(cfg.faults).empty()
                    ? std::string()
                    : "; faults:" + describeFaults(cfg.faults)));
    rc = server.run(sigFd);
  }
  close(sigFd);
  return rc;
}
