// tovexporter as the suites run it (a target that includes this defines
// TOVEXPORTER_PATH and links cpp-httplib), its scrapes, and checks of the
// lines of an exposition.
#ifndef TESTS_SUPPORT_EXPORTER_H
#define TESTS_SUPPORT_EXPORTER_H

#include <gtest/gtest.h>
#include <httplib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>

#include "support/process.h"

namespace testsupport {

// The exporter on `listen` with its ready file and log in a directory of
// its own, reading the clusters file `config` (an empty one of its own when
// ""), never one of the user's. port() is 0 when it did not come up; one
// that came up must end with status 0 on SIGTERM and remove its ready file.
class Exporter {
 public:
  explicit Exporter(Strings args, const Strings& env = {},
                    const std::string& listen = "127.0.0.1:0",
                    const std::string& config = "")
      : child_(command(args, env, listen, config), dir_.file("log")) {
    pollFor(30, [&] {
      const std::string ready = readFile(dir_.file("port"));
      if (!ready.empty() && ready.back() == '\n') port_ = std::stoi(ready);
      return port_ > 0 || !child_.running();
    });
  }
  ~Exporter() {
    const int status = child_.stop();
    if (port_ > 0) {
      EXPECT_EQ(status, 0) << log();
      EXPECT_FALSE(std::filesystem::exists(dir_.file("port")));
    }
  }

  int port() const { return port_; }
  pid_t pid() const { return child_.pid(); }
  std::string log() const { return readFile(dir_.file("log")); }
  // Waits up to `seconds` for it to end by itself, then ends it.
  int stop(double seconds = 0) { return child_.wait(seconds); }

 private:
  Strings command(Strings args, const Strings& env, const std::string& listen,
                  std::string config) const {
    if (config.empty()) {
      config = dir_.file("clusters.toml");
      std::ofstream{config};
    }
    args.insert(args.begin(),
                {TOVEXPORTER_PATH, "--listen", listen, "--ready-file",
                 dir_.file("port"), "--config", config});
    args.insert(args.begin(), env.begin(), env.end());
    args.insert(args.begin(), "/usr/bin/env");
    return args;
  }

  TempDir dir_;
  Child child_;
  int port_ = 0;
};

struct Scrape {
  int status = 0;  // 0: no answer
  std::string body, contentType;
  double seconds = 0;
};

// A GET as Prometheus sends it, with its timeout header unless "".
inline Scrape scrape(int port, const std::string& target,
                     const std::string& timeout = "") {
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(20, 0);
  httplib::Headers headers;
  if (!timeout.empty()) {
    headers = {{"X-Prometheus-Scrape-Timeout-Seconds", timeout}};
  }
  const auto begun = std::chrono::steady_clock::now();
  const auto res = client.Get(target, headers);
  Scrape s;
  s.seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begun)
          .count();
  if (res) {
    s.status = res->status;
    s.body = res->body;
    s.contentType = res->get_header_value("Content-Type");
  }
  return s;
}

// Whether a line begins with `want`, or with its part before '*' and ends
// with its part after.
inline bool hasLine(const std::string& body, const std::string& want) {
  std::string re =
      std::regex_replace(want, std::regex(R"([.^$|()[\]{}+?\\])"), R"(\$&)");
  const std::size_t star = re.find('*');
  if (star != std::string::npos) re.replace(star, 1, "[^\n]*") += "\n";
  return std::regex_search("\n" + body + "\n", std::regex("\n" + re));
}

// Lines the exposition must have; those marked '!' it must not have.
inline void expectLines(const std::string& body, const Strings& want) {
  for (const std::string& w : want) {
    const bool absent = w[0] == '!';
    EXPECT_EQ(hasLine(body, w.substr(absent ? 1 : 0)), !absent)
        << (absent ? "a line that must not be there: " : "missing: ") << w
        << "\nin:\n"
        << body;
  }
}

}  // namespace testsupport

#endif  // TESTS_SUPPORT_EXPORTER_H
