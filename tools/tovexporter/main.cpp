// tovexporter: the state of clusters as Prometheus metrics, a fresh
// snapshot on every scrape.
#include <httplib.h>
#include <pthread.h>
#include <signal.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "common/clusters.h"
#include "metrics.h"
#include "targets.h"
#include "tovapi/libtovapi.h"

#ifndef TOVEXPORTER_VERSION
#define TOVEXPORTER_VERSION "0.0.0"
#endif
#ifndef TOVEXPORTER_REVISION
#define TOVEXPORTER_REVISION "unknown"
#endif

namespace {

using tovexporter::BuildInfo;
using tovexporter::Defaults;
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
constexpr std::size_t kThreads = 16;
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

double scrapeDeadline(const httplib::Request& req, double configured) {
  double deadline = configured;
  const std::string header =
      req.get_header_value("X-Prometheus-Scrape-Timeout-Seconds");
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
                 "the daemons' TCP port where a target gives none")
      ->type_name("PORT")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
  app.add_option("-t,--timeout", o.defaults.timeout,
                 "seconds to wait for a connection and for the salt")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, 86400.0))
      ->capture_default_str();
  app.add_option("--deadline", o.defaults.deadline,
                 "seconds a scrape may take, at most (0: only Prometheus's "
                 "scrape timeout)")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 86400.0))
      ->capture_default_str();
  app.add_option("-d,--debug", o.debug, "library debug level 0-3")
      ->type_name("LEVEL")
      ->check(CLI::Range(0, 3))
      ->capture_default_str();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    status = app.exit(e) == 0 ? 0 : 2;
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

void route(httplib::Server& server, const Setup& s, const Defaults& d,
           Scraper& scraper) {
  static const BuildInfo build{TOVEXPORTER_VERSION, TOVEXPORTER_REVISION};
  server.Get("/metrics", [&](const httplib::Request& req,
                             httplib::Response& res) {
    std::string text;
    if (s.metricsCluster) {
      text = scraper.scrape(s.metrics, scrapeDeadline(req, s.metrics.deadline));
    }
    res.set_content(text + scraper.own(build), kExposition);
  });
  server.Get("/probe",
             [&](const httplib::Request& req, httplib::Response& res) {
               Target target;
               std::string why;
               if (!probeTarget(req.params, d, s.named, target, why)) {
                 res.status = 400;
                 res.set_content(why + "\n", "text/plain; charset=utf-8");
                 return;
               }
               res.set_content(
                   scraper.scrape(target, scrapeDeadline(req, target.deadline)),
                   kExposition);
             });
  server.Get("/", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(kLanding, "text/html; charset=utf-8");
  });
}

// Serves until SIGTERM or SIGINT; the exit status.
int serve(const Options& o, const Setup& s) {
  // SIGTERM and SIGINT are taken by one thread of their own, so that no
  // other thread is interrupted by them; a broken connection is the
  // server's business, not a reason to stop.
  sigset_t stops;
  sigemptyset(&stops);
  sigaddset(&stops, SIGTERM);
  sigaddset(&stops, SIGINT);
  pthread_sigmask(SIG_BLOCK, &stops, nullptr);
  // A shell that starts it in the background ignores SIGINT for it; an
  // ignored signal never reaches sigwait().
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  signal(SIGPIPE, SIG_IGN);

  Scraper scraper(s.metricsCluster ? s.metrics.name : "");
  httplib::Server server;
  // One snapshot is taken at a time, but scrapes of other clusters wait for
  // their turn in threads of their own: enough for the scrapes that come
  // while one cluster's snapshot runs to its deadline.
  server.new_task_queue = [] { return new httplib::ThreadPool(kThreads); };
  server.set_read_timeout(5, 0);
  server.set_write_timeout(5, 0);
  server.set_payload_max_length(4096);
  route(server, s, o.defaults, scraper);

  const int bound =
      s.port == 0 ? server.bind_to_any_port(s.address)
                  : (server.bind_to_port(s.address, s.port) ? s.port : -1);
  if (bound <= 0) {
    return fail("cannot listen on " + o.listen + ": " + std::strerror(errno));
  }
  if (!o.readyFile.empty()) {
    // Whole or not at all: a script may read it the moment it appears.
    const std::string part = o.readyFile + ".part";
    std::ofstream(part) << bound << '\n';
    std::rename(part.c_str(), o.readyFile.c_str());
  }
  std::fprintf(stderr,
               "tovexporter: serving /metrics and /probe on %s port %d\n",
               s.address.c_str(), bound);

  std::thread stopper([&server, stops] {
    int sig = 0;
    sigwait(&stops, &sig);
    server.stop();
  });
  server.listen_after_bind();
  // Listening ended by itself: let the stopper go.
  pthread_kill(stopper.native_handle(), SIGTERM);
  stopper.join();
  if (!o.readyFile.empty()) std::remove(o.readyFile.c_str());
  std::fprintf(stderr, "tovexporter: stopped\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options o;
  int status = 0;
  if (!parseCommandLine(argc, argv, o, status)) return status;
  Setup s;
  std::string why;
  if (!setUp(o, s, why)) return fail(why);
  tov1::Debug::useColour = false;
  tov1::tovDebug.setDebugLevel(o.debug);
  return serve(o, s);
}
