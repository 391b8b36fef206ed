// tovexporter: the state of a cluster as Prometheus metrics, a fresh
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
#include <string>
#include <thread>
#include <vector>

#include "common/access.h"
#include "common/deadline.h"
#include "metrics.h"
#include "tovapi/libtovapi.h"

#ifndef TOVEXPORTER_VERSION
#define TOVEXPORTER_VERSION "0.0.0"
#endif

namespace {

constexpr const char* kLanding =
    "<!DOCTYPE html>\n<html><head><title>tovexporter</title></head>\n"
    "<body><h1>tovexporter</h1>\n"
    "<p>The state of a cluster's nodes and services, taken afresh on every "
    "scrape.</p>\n<p><a href=\"/metrics\">Metrics</a></p>\n</body></html>\n";

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

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"tovexporter - the state of a cluster as Prometheus metrics"};
  app.set_version_flag("--version", "tovexporter " TOVEXPORTER_VERSION);
  std::string listen = ":9795";
  std::string readyFile;
  std::vector<std::string> hosts{"127.0.0.1"};
  int port = 1195;
  double timeout = 3.0;
  double deadline = 10.0;
  unsigned debug = 0;
  std::string user, passwordFile;
  app.add_option("--listen", listen,
                 "address and port to serve /metrics on (\":PORT\": every "
                 "interface; port 0: one the kernel picks)")
      ->type_name("ADDRESS:PORT")
      ->capture_default_str();
  app.add_option("--ready-file", readyFile,
                 "write the port here once listening")
      ->type_name("FILE");
  app.add_option("-H,--host", hosts,
                 "a node to read the cluster through (repeatable; tried in "
                 "order)")
      ->type_name("HOST")
      ->capture_default_str();
  app.add_option("-p,--port", port, "the daemons' TCP port")
      ->type_name("PORT")
      ->check(CLI::Range(1, 65535))
      ->capture_default_str();
  app.add_option("-t,--timeout", timeout,
                 "seconds to wait for a connection and for the salt")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, 86400.0))
      ->capture_default_str();
  app.add_option("--deadline", deadline,
                 "seconds a scrape may take, at most (0: only Prometheus's "
                 "scrape timeout)")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.0, 86400.0))
      ->capture_default_str();
  app.add_option("-d,--debug", debug, "library debug level 0-3")
      ->type_name("LEVEL")
      ->check(CLI::Range(0, 3))
      ->capture_default_str();
  app.add_option("-u,--user", user, "user for daemons that require one")
      ->type_name("USER");
  app.add_option("--password-file", passwordFile,
                 "the password is the first line of FILE (private to its "
                 "owner)")
      ->type_name("FILE");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
    app.exit(e);
    return 2;
  }

  std::vector<tovexporter::Target> targets;
  for (const std::string& h : hosts) {
    std::string host, why;
    int p = port;
    if (!tovtools::splitHostPort(h, host, p, why)) return fail("-H: " + why);
    targets.push_back({host, std::to_string(p)});
  }
  std::string address;
  int listenPort = 0;
  if (!parseListen(listen, address, listenPort)) {
    return fail("--listen: \"" + listen +
                "\" is not ADDRESS:PORT, [ADDRESS]:PORT or :PORT");
  }
  if (!passwordFile.empty() && user.empty()) {
    return fail("--password-file needs a user (-u USER)");
  }
  if (!user.empty()) {
    std::string password, why;
    if (passwordFile.empty()) {
      return fail("-u needs --password-file: the exporter never prompts");
    }
    if (!tovtools::readPasswordFile(passwordFile, password, why)) {
      return fail(why);
    }
    if (password.empty()) return fail("the password file holds no password");
  }

  tov1::Debug::useColour = false;
  tov1::tovDebug.setDebugLevel(debug);
  tov1::tovNet.setTimeout(static_cast<float>(timeout));

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

  tovexporter::Scraper scraper(targets);
  httplib::Server server;
  // A few connections at a time; scrapes share one snapshot anyway.
  server.new_task_queue = [] { return new httplib::ThreadPool(4); };
  server.set_read_timeout(5, 0);
  server.set_write_timeout(5, 0);
  server.set_payload_max_length(4096);
  server.Get("/metrics",
             [&](const httplib::Request& req, httplib::Response& res) {
               res.set_content(scraper.scrape(scrapeDeadline(req, deadline)),
                               "text/plain; version=0.0.4; charset=utf-8");
             });
  server.Get("/", [](const httplib::Request&, httplib::Response& res) {
    res.set_content(kLanding, "text/html; charset=utf-8");
  });

  const int bound =
      listenPort == 0
          ? server.bind_to_any_port(address)
          : (server.bind_to_port(address, listenPort) ? listenPort : -1);
  if (bound <= 0) {
    return fail("cannot listen on " + listen + ": " + std::strerror(errno));
  }
  if (!readyFile.empty()) {
    // Whole or not at all: a script may read it the moment it appears.
    const std::string part = readyFile + ".part";
    std::ofstream(part) << bound << '\n';
    std::rename(part.c_str(), readyFile.c_str());
  }
  std::fprintf(stderr, "tovexporter: serving /metrics on %s port %d\n",
               address.c_str(), bound);

  std::thread stopper([&server, stops] {
    int sig = 0;
    sigwait(&stops, &sig);
    server.stop();
  });
  server.listen_after_bind();
  // Listening ended by itself: let the stopper go.
  pthread_kill(stopper.native_handle(), SIGTERM);
  stopper.join();
  if (!readyFile.empty()) std::remove(readyFile.c_str());
  std::fprintf(stderr, "tovexporter: stopped\n");
  return 0;
}
