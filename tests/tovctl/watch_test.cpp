// `tovctl status --watch`: the live view on a terminal, and one snapshot per
// interval when the output goes elsewhere.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <vector>

#include "run_tool.h"
#include "support/sim.h"

namespace {

using testing::HasSubstr;
using tovctltest::linesOf;
using tovctltest::Outcome;
using tovctltest::RunOptions;
using tovctltest::runTovctl;

class WatchTest : public testing::Test {
 protected:
  void SetUp() override {
    simtest::SimOptions o;
    o.configJson = simtest::defaultConfigJson();
    o.maxLifetimeSec = 60;
    sim_ = std::make_unique<simtest::SimProcess>(o);
  }

  std::vector<std::string> aimed(std::vector<std::string> args) const {
    args.insert(args.begin(), {"-p", sim_->portStr()});
    return args;
  }

  std::unique_ptr<simtest::SimProcess> sim_;
};

TEST_F(WatchTest, TerminalViewShowsAChangeAndLeavesOnQ) {
  char dir[] = "/tmp/tovctl-watch-XXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  const std::string pw = std::string(dir) + "/password";
  std::ofstream(pw) << "secret\n";
  chmod(pw.c_str(), 0600);

  Outcome stop;
  RunOptions ro;
  ro.terminal = true;
  // vt100 has no sequence that repeats a character: a highlighted line
  // arrives as the text it shows.
  ro.env = {"TERM=vt100"};
  ro.limitSec = 15;
  ro.steps = {{"web",
               [&] {
                 stop = runTovctl(aimed(
                     {"-u", "admin", "--password-file", pw, "stop", "web"}));
               },
               ""},
              {"web      stopped", nullptr, "q"}};
  const Outcome r =
      runTovctl(aimed({"status", "--watch", "--interval", "0.5"}), ro);
  std::remove(pw.c_str());
  rmdir(dir);

  EXPECT_EQ(stop.status, 0) << stop.err;
  EXPECT_EQ(r.status, 0) << "the view did not leave on q:\n" << r.out;
  EXPECT_TRUE(r.echoOn) << "the terminal was left without echo";
  EXPECT_THAT(r.out, HasSubstr("testcluster"));
  EXPECT_TRUE(std::regex_search(r.out, std::regex(R"(\*\s+0\s+web\s+stopped)")))
      << "the stopped service is not marked as changed:\n"
      << r.out;
}

TEST_F(WatchTest, OffATerminalPrintsCountSnapshotsAsTextOrJsonLines) {
  Outcome r = runTovctl(
      aimed({"status", "--watch", "--count", "2", "--interval", "0.2"}));
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_GE(r.seconds, 0.2) << "no interval between the snapshots";
  std::size_t screens = 0;
  for (const std::string& line : linesOf(r.out)) {
    screens += line.rfind("Cluster testcluster", 0) == 0 ? 1 : 0;
  }
  EXPECT_EQ(screens, 2u) << r.out;
  EXPECT_THAT(r.out, HasSubstr("\n\nCluster testcluster")) << "no blank line";

  r = runTovctl(aimed(
      {"--json", "status", "--watch", "--count", "2", "--interval", "0.2"}));
  EXPECT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> lines = linesOf(r.out);
  ASSERT_EQ(lines.size(), 2u) << r.out;
  for (const std::string& line : lines) {
    const nlohmann::json j = nlohmann::json::parse(line);
    EXPECT_EQ(j["code"], 0);
    EXPECT_EQ(j["services"][0]["name"], "web");
  }
}

}  // namespace
