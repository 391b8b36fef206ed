// What the tovctl suites share: the simulator on loopback, tovctl run as a
// user runs it, and checks of its one-line failures and JSON documents.
#ifndef TESTS_TOVCTL_TOVCTL_FIXTURE_H
#define TESTS_TOVCTL_TOVCTL_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "run_tool.h"
#include "support/net_helpers.h"
#include "support/sim.h"

namespace tovctltest {

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;
using Args = std::vector<std::string>;
using testsupport::closedPort;

inline constexpr int kUsage = 100;
inline constexpr int kLate = 98;  // the deadline ended the command
// SHA-256 of the password "secret", as the authentication would show it.
inline const char* const kDigest =
    "2bb80d537b1da3e38bd30361aa855686bde0eacd7162fef6a25fe97bf527a25b";

// Failures are reported in exactly one line on standard error.
inline void expectOneErrorLine(const Outcome& r, const std::string& fragment) {
  const std::vector<std::string> lines = linesOf(r.err);
  ASSERT_EQ(lines.size(), 1u) << "stderr:\n" << r.err;
  EXPECT_THAT(lines[0], StartsWith("tovctl: "));
  EXPECT_THAT(lines[0], HasSubstr(fragment));
}

// A failure as tovctl reports it: its status, one line on standard error
// holding `line` (all of it after "tovctl: " when `whole`), and on standard
// output nothing or, with --json, one document whose error says the same.
inline json expectFailure(const Outcome& r, int status, const std::string& line,
                          bool asJson, bool whole = false) {
  EXPECT_EQ(r.status, status) << r.err;
  expectOneErrorLine(r, line);
  EXPECT_TRUE(!whole || r.err == "tovctl: " + line + "\n") << r.err;
  if (!asJson) {
    EXPECT_EQ(r.out, "");
    return json();
  }
  const json error = json::parse(r.out).at("error");
  EXPECT_EQ(error["exit_status"], status);
  EXPECT_EQ("tovctl: " + error["message"].get<std::string>() + "\n", r.err);
  return error;
}

// Each field of `want`, named by its JSON pointer, as `doc` has it.
inline void expectFields(const json& doc, const std::string& want) {
  const json flat = doc.flatten();
  const json fields = json::parse(want);
  for (const auto& field : fields.items()) {
    EXPECT_EQ(flat.value(field.key(), json()), field.value()) << field.key();
  }
}

// Runs case i for every i < n at once: they wait on daemons, not the CPU.
template <class Run>
inline std::vector<Outcome> atOnce(std::size_t n, Run run) {
  std::vector<std::future<Outcome>> pending;
  for (std::size_t i = 0; i < n; ++i)
    pending.push_back(std::async(std::launch::async, run, i));
  std::vector<Outcome> done;
  for (auto& p : pending) done.push_back(p.get());
  return done;
}

using simtest::startSim;

// At a terminal, without colour: no escape sequence of tovctl's own.
inline RunOptions atTerminal(std::string waitFor = "", std::string type = "",
                             std::string env = "NO_COLOR=1") {
  RunOptions o;
  o.terminal = true;
  if (!type.empty()) o.steps = {{std::move(waitFor), nullptr, std::move(type)}};
  o.env = {std::move(env)};
  o.limitSec = 60;
  return o;
}

class Tovctl : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    dir_ = std::make_unique<testsupport::TempDir>();
    // tovctl refuses a password file that others may read, as "open" is.
    for (const char* f : {"good", "bad", "open"}) {
      std::ofstream(pw(f)) << (f[0] == 'b' ? "not-the-password\n" : "secret\n");
      chmod(pw(f).c_str(), f[0] == 'o' ? 0644 : 0600);
    }
  }
  static void TearDownTestSuite() { dir_.reset(); }
  static std::string pw(const std::string& name) { return dir_->file(name); }
  static Args admin(Args args, const char* file = "good") {
    args.insert(args.begin(), {"-u", "admin", "--password-file", pw(file)});
    return args;
  }

  std::string at() const { return "127.0.0.1:" + sim_->portStr(); }
  Outcome tool(Args args, const RunOptions& opts = {}) {
    args.insert(args.begin(), {"-p", sim_->portStr()});
    return runTovctl(args, opts);
  }
  json services() {
    return json::parse(tool({"--json", "services"}).out)["services"];
  }

  static inline std::unique_ptr<testsupport::TempDir> dir_;
  std::unique_ptr<simtest::SimProcess> sim_ = startSim();
};

inline const char* const kDegraded = R"({
  "cluster": {"name": "shop", "poll_time": 1},
  "nodes": [{"name": "alpha", "address": "127.0.0.1"},
            {"name": "beta", "address": "127.0.0.2"},
            {"name": "gamma", "address": "127.0.0.7", "silent": true}],
  "services": [
    {"name": "web", "state": "running", "mode": "auto", "node": "alpha"},
    {"name": "db", "state": "stopped", "mode": "manual"},
    {"name": "queue", "state": "starting", "mode": "auto", "node": "beta"},
    {"name": "cache", "state": "stopping", "mode": "auto", "node": "beta"},
    {"name": "mail", "state": "broken", "mode": "auto", "blocked": true}]})";
inline const std::string kSummary =
    "3 nodes (2 answering, 1 silent), 5 services (1 running, 1 stopped, "
    "1 starting, 1 stopping, 1 broken, 1 blocked)";

}  // namespace tovctltest

#endif  // TESTS_TOVCTL_TOVCTL_FIXTURE_H
