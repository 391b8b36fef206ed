// tovexporter: the state of clusters as Prometheus metrics, a fresh
// snapshot on every scrape.
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "common/cli.h"
#include "common/clusters.h"
#include "http.h"
#include "metrics.h"
#include "scraper.h"
#include "snapshots.h"
#include "targets.h"

#ifndef TOVEXPORTER_VERSION
#define TOVEXPORTER_VERSION "0.0.0"
#endif
#ifndef TOVEXPORTER_REVISION
#define TOVEXPORTER_REVISION "unknown"
#endif

namespace {

using tovexporter::BuildInfo;
using tovexporter::Defaults;
using tovexporter::HttpReply;
using tovexporter::HttpRequest;
using tovexporter::Scraper;
using tovexporter::Target;

constexpr const char* kExposition = "text/plain; version=0.0.4; charset=utf-8";
constexpr const char* kLanding =
    "<!DOCTYPE html>\n<html><head><title>tovexporter</title></head>\n"
    "<body><h1>tovexporter</h1>\n"
    "<p>The state of clusters' nodes and services, taken afresh on every "
    "scrape.</p>\n<p><a href=\"/metrics\">Metrics</a> (the exporter's own, "
    "and the cluster it was started for)</p>\n<p>A cluster by an entry node: "
    "<code>/probe?target=HOST:PORT</code>; by its name in the configuration "
    "file: <code>/probe?cluster=NAME</code></p>\n</body></html>\n";

// Prometheus says how long it waits for a scrape; the answer must be on its
// way before then.
constexpr double kHeaderMargin = 0.5;
constexpr double kShortestScrape = 0.5;

int fail(const std::string& message) {
  std::fprintf(stderr, "tovexporter: %s\n", message.c_str());
  return 2;
}

// ":9795" (every interface), "127.0.0.1:9795", "[::1]:9795"; port 0 lets
// the kernel pick one.
bool parseListen(const std::string& text, std::string& address, int& port) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon + 1 == text.size() ||
      text.size() - colon > 6) {
    return false;
  }
  const std::string digits = text.substr(colon + 1);
  if (digits.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  port = std::stoi(digits);
  address = text.substr(0, colon);
  if (address.empty()) address = "0.0.0.0";
  if (address.front() == '[') {
    if (address.size() < 3 || address.back() != ']') return false;
    address = address.substr(1, address.size() - 2);
  }
  return port <= 65535 && address.find_first_of("[]") == std::string::npos;
}

// The target's deadline, or Prometheus's timeout less the margin when that
// comes first; 0 (none) only when neither gives one.
double scrapeDeadline(const std::string& header, double configured) {
  double deadline = configured;
  if (!header.empty()) {
    char* end = nullptr;
    const double timeout = std::strtod(header.c_str(), &end);
    if (end != header.c_str() && std::isfinite(timeout) && timeout > 0) {
      const double within = std::max(kShortestScrape, timeout - kHeaderMargin);
      deadline = deadline > 0 ? std::min(deadline, within) : within;
    }
  }
  return deadline;
}

struct Options {
  std::string listen = ":9795";
  std::string readyFile;
  std::vector<std::string> hosts;
  std::string config;
  std::string cluster;
  Defaults defaults;
  unsigned debug = 0;
};

// What the exporter serves, set up once at start.
struct Setup {
  std::map<std::string, Target> named;  // the clusters of the file
  bool metricsCluster = false;          // whether /metrics serves one
  Target metrics;
  std::string address;
  int port = 0;
};

std::string fromEnvironment(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

// False when the exporter ends here with `status`: 0 after --help and
// --version, 2 for a bad command line.
bool parseCommandLine(int argc, char** argv, Options& o, int& status) {
  CLI::App app{"tovexporter - the state of clusters as Prometheus metrics"};
  app.set_version_flag("--version", "tovexporter " TOVEXPORTER_VERSION);
  app.add_option("--listen", o.listen,
                 "address and port to serve HTTP on (\":PORT\": every "
                 "interface; port 0: one the kernel picks)")
      ->type_name("ADDRESS:PORT")
      ->capture_default_str();
  app.add_option("--ready-file", o.readyFile,
                 "write the port here once listening")
      ->type_name("FILE");
  app.add_option("-H,--host", o.hosts,
                 "an entry node of the cluster /metrics serves (repeatable, "
                 "or several separated by commas; tried in order)")
      ->type_name("HOST");
  app.add_option("--cluster", o.cluster,
                 "the cluster /metrics serves, named in the configuration "
                 "file (default: $TOV_CLUSTER)")
      ->type_name("NAME")
      ->excludes("-H");
  app.add_option("--config", o.config,
                 "the tools' configuration file, which names clusters "
                 "(default: $TOV_CONFIG, else the standard places)")
      ->type_name("FILE");
  app.add_option("-p,--port", o.defaults.port,
                 "the daemons' TCP port where a target gives none (1-65535)")
      ->type_name("PORT")
      ->check(tovtools::portFrom(1))
      ->capture_default_str();
  app.add_option("-t,--timeout", o.defaults.timeout,
                 "seconds to wait for a connection and for the salt "
                 "(0.001-86400)")
      ->type_name("SECONDS")
      ->check(tovtools::secondsIn(0.001, 86400.0))
      ->capture_default_str();
  app.add_option("--deadline", o.defaults.deadline,
                 "seconds a scrape may take, at most, 0-86400 (0: only "
                 "Prometheus's scrape timeout)")
      ->type_name("SECONDS")
      ->check(tovtools::secondsIn(0, 86400.0))
      ->capture_default_str();
  app.add_option("-d,--debug", o.debug, "library debug level 0-3")
      ->type_name("LEVEL")
      ->check(tovtools::wholeIn(0, 3))
      ->capture_default_str();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    status = tovtools::refuseCommandLine(app, e, "tovexporter", 2);
    return false;
  }
  o.defaults.portGiven = app.count("-p") > 0;
  o.defaults.timeoutGiven = app.count("-t") > 0;
  o.defaults.deadlineGiven = app.count("--deadline") > 0;
  if (o.config.empty()) o.config = fromEnvironment("TOV_CONFIG");
  if (o.cluster.empty() && o.hosts.empty()) {
    o.cluster = fromEnvironment("TOV_CLUSTER");
  }
  return true;
}

// The clusters file, read once: a bad one ends the exporter at start rather
// than failing scrapes later. False with the reason.
bool setUp(const Options& o, Setup& s, std::string& why) {
  tovtools::ClusterFile file;
  if (!tovtools::findClusterFile(o.config, file, why) ||
      !clusterTargets(file, o.defaults, s.named, why)) {
    return false;
  }
  if (!o.cluster.empty()) {
    const auto found = s.named.find(o.cluster);
    if (found == s.named.end()) {
      // Only to word the error: the names it has, or where it looked.
      tovtools::ClusterConfig unused;
      tovtools::findCluster(o.config, o.cluster, unused, why);
      return false;
    }
    s.metrics = found->second;
    s.metricsCluster = true;
  } else if (!o.hosts.empty()) {
    if (!entriesTarget(o.hosts, o.defaults, s.metrics, why)) {
      why = "-H: " + why;
      return false;
    }
    s.metricsCluster = true;
  }
  if (!parseListen(o.listen, s.address, s.port)) {
    why = "--listen: \"" + o.listen +
          "\" is not ADDRESS:PORT, [ADDRESS]:PORT or :PORT";
    return false;
  }
  return true;
}

// Answers the requests: the scrapes through the scraper, whose answers come
// later, the rest at once.
void handle(const HttpRequest& req, const std::function<void(HttpReply)>& reply,
            const Setup& s, const Defaults& d, Scraper& scraper) {
  static const BuildInfo build{TOVEXPORTER_VERSION, TOVEXPORTER_REVISION};
  if (req.path == "/metrics") {
    if (!s.metricsCluster) {
      reply({200, kExposition, scraper.own(build)});
      return;
    }
    scraper.scrape(s.metrics,
                   scrapeDeadline(req.scrapeTimeout, s.metrics.deadline),
                   [reply, &scraper](const std::string& text) {
                     reply({200, kExposition, text + scraper.own(build)});
                   });
  } else if (req.path == "/probe") {
    Target target;
    std::string why;
    if (!probeTarget(req.params, d, s.named, target, why)) {
      reply({400, "text/plain; charset=utf-8", why + "\n"});
      return;
    }
    scraper.scrape(target, scrapeDeadline(req.scrapeTimeout, target.deadline),
                   [reply](const std::string& text) {
                     reply({200, kExposition, text});
                   });
  } else if (req.path == "/") {
    reply({200, "text/html; charset=utf-8", kLanding});
  } else {
    reply({404, "text/plain; charset=utf-8", "not found\n"});
  }
}

// Serves until SIGTERM or SIGINT; the exit status.
int serve(const Options& o, const Setup& s) {
  // A client that goes away shows as a failed write, not as a signal.
  signal(SIGPIPE, SIG_IGN);
  // One I/O thread serves every connection; the snapshots run in child
  // processes, each watched by a thread of its own.
  boost::asio::io_context io(1);
  Scraper scraper(
      io,
      [debug = o.debug](const Target& t,
                        std::optional<tovexporter::Clock::time_point> end,
                        const std::atomic<bool>& stop) {
        return tovexporter::takeInChild(t, end, stop, debug);
      },
      s.metricsCluster ? s.metrics.name : "");
  tovexporter::HttpServer server(
      io, [&](const HttpRequest& req, std::function<void(HttpReply)> reply) {
        handle(req, reply, s, o.defaults, scraper);
      });
  std::string why;
  if (!server.listen(s.address, s.port, why)) {
    return fail("cannot listen on " + o.listen + ": " + why);
  }
  const int bound = server.port();
  if (!o.readyFile.empty()) {
    // Whole or not at all: a script may read it the moment it appears.
    const std::string part = o.readyFile + ".part";
    std::ofstream(part) << bound << '\n';
    std::rename(part.c_str(), o.readyFile.c_str());
  }
  std::fprintf(stderr,
               "tovexporter: serving /metrics and /probe on %s port %d\n",
               s.address.c_str(), bound);

  // A shell that starts it in the background ignores SIGINT for it; the
  // signal set catches it all the same.
  boost::asio::signal_set stops(io, SIGTERM, SIGINT);
  stops.async_wait([&](const boost::system::error_code&, int) {
    server.stop();
    io.stop();
  });
  io.run();
  if (!o.readyFile.empty()) std::remove(o.readyFile.c_str());
  std::fprintf(stderr, "tovexporter: stopped\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::strcmp(argv[1], tovexporter::kSnapshotMode) == 0) {
    return tovexporter::snapshotChild();
  }
  Options o;
  int status = 0;
  if (!parseCommandLine(argc, argv, o, status)) return status;
  Setup s;
  std::string why;
  if (!setUp(o, s, why)) return fail(why);
  // Each snapshot runs this program again.
  if (access("/proc/self/exe", X_OK) != 0) {
    return fail(std::string("cannot run its own program for snapshots: "
                            "/proc/self/exe: ") +
                std::strerror(errno));
  }
  return serve(o, s);
}
