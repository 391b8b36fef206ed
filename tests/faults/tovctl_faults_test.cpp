// The fault matrix through the built tovctl: for each fault, a service
// command (`bounce web`) and a raw request (`send`), with the exit status and
// the one error line checked.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>

#include "common/deadline.h"
#include "fault_table.h"
#include "netns/netns_lab.h"
#include "tovctl/run_tool.h"

namespace tovctltest {
NLOHMANN_DEFINE_TYPE_NON_INTRUSIVE(Outcome, status, signal, out, err, seconds,
                                   echoOn)
}  // namespace tovctltest

namespace faults {

namespace {

using testing::HasSubstr;
using testing::StartsWith;
using tovctltest::linesOf;
using tovctltest::Outcome;
using tovctltest::runTovctl;

class ToolSide : public testing::TestWithParam<Fault> {
 protected:
  static void SetUpTestSuite() {
    char templ[] = "/tmp/tovfaults-XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    dir_ = templ;
    std::ofstream(dir_ + "/good") << "secret\n";
    std::ofstream(dir_ + "/bad") << "not-the-password\n";
    // tovctl refuses a password file that others may read.
    chmod((dir_ + "/good").c_str(), 0600);
    chmod((dir_ + "/bad").c_str(), 0600);
  }
  static void TearDownTestSuite() {
    std::remove((dir_ + "/good").c_str());
    std::remove((dir_ + "/bad").c_str());
    rmdir(dir_.c_str());
  }

  // Both commands of a row, aimed at host:port.
  static std::pair<Outcome, Outcome> runBoth(const Fault& f,
                                             const std::string& host,
                                             const std::string& port) {
    std::vector<std::string> common{
        "-H",
        host,
        "-p",
        port,
        "-t",
        kTimeoutArg,
        "-a",
        std::to_string(kAttempts),
        "-u",
        "admin",
        "--password-file",
        dir_ + (f.wrongPassword ? "/bad" : "/good")};
    if (f.deadline > 0) {
      common.insert(common.end(),
                    {"--deadline", tovtools::secondsText(f.deadline)});
    }
    std::vector<std::string> bounce = common;
    bounce.insert(bounce.end(), {"bounce", "web"});
    std::vector<std::string> send = common;
    send.insert(send.end(), {"send", f.request});
    return {runTovctl(bounce), runTovctl(send)};
  }

  static std::string dir_;
};

std::string ToolSide::dir_;

void expectTool(const char* what, const Outcome& got, const Expect& want,
                const Fault& f, const std::string& host,
                const std::string& port) {
  SCOPED_TRACE(what);
  if (f.deadline > 0) {
    EXPECT_LT(got.seconds, f.deadline + 1);
  }
  EXPECT_EQ(got.status, want.code) << got.err;
  const std::string text = fill(want.text, host, port);
  if (want.code == 0) {
    EXPECT_EQ(got.err, "");
    // The first line only: a padded reply is far too long to show.
    const std::string head = got.out.substr(0, got.out.find('\n'));
    EXPECT_THAT(head.substr(0, 200), StartsWith(text));
  } else {
    const std::vector<std::string> lines = linesOf(got.err);
    ASSERT_EQ(lines.size(), 1u) << got.err;
    EXPECT_EQ(lines[0], text);
  }
}

TEST_P(ToolSide, ExitsWithTheRowsStatusAndLine) {
  const Fault& f = GetParam();
  std::string host = "127.0.0.1";
  std::string port;
  std::pair<Outcome, Outcome> got;
  const int fdsBefore = openDescriptors();

  std::string skip;
  if (!runAgainstTarget(
          f, host, port,
          [&f](const std::string& h, const std::string& p) {
            return runBoth(f, h, p);
          },
          got, skip))
    GTEST_SKIP() << skip;

  EXPECT_EQ(openDescriptors(), fdsBefore) << "descriptors leaked";
  expectTool("tovctl bounce web", got.first, f.bounce, f, host, port);
  expectTool("tovctl send", got.second, f.send, f, host, port);
  if (f.send.code == 0 && f.replyLength != 0) {
    // The reply as received, plus a line end where it had none.
    EXPECT_GE(got.second.out.size(), f.replyLength);
    EXPECT_LE(got.second.out.size(), f.replyLength + 1);
  }
}

INSTANTIATE_TEST_SUITE_P(Faults, ToolSide, testing::ValuesIn(faultTable()),
                         [](const testing::TestParamInfo<Fault>& info) {
                           return info.param.name;
                         });

}  // namespace

}  // namespace faults
