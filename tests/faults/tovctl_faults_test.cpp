// The fault matrix through the built tovctl: for each fault, a service
// command (`bounce web`) and a raw request (`send`), with the exit status and
// the one error line checked.
#include <gtest/gtest.h>

#include "fault_table.h"
#include "tovctl/run_tool.h"

namespace faults {

namespace {

using tovctltest::Outcome;

// Runs a command of the row against host:port, the password on standard
// input, and checks its status and what it printed.
Outcome expectTool(const Fault& f, const std::string& host,
                   const std::string& port, std::vector<std::string> command,
                   const Expect& want) {
  SCOPED_TRACE("tovctl " + command[0]);
  std::vector<std::string> args{"-H", host, "-p", port, "-t", "0.5"};
  args.insert(args.end(), {"-a", "3", "-u", "admin", "--password-file", "-"});
  if (f.stalls) args.insert(args.end(), {"--deadline", "2"});
  args.insert(args.end(), command.begin(), command.end());
  tovctltest::RunOptions opts;
  opts.input = f.wrongPassword ? "not-the-password\n" : "secret\n";
  opts.limitSec = 60;
  const Outcome got = tovctltest::runTovctl(args, opts);
  if (f.stalls) {
    // Ends with the deadline: not before it, and not long after.
    EXPECT_LT(got.seconds, 2 * kDeadlineSec + 1);
    EXPECT_GE(got.seconds,
              want.code == kExitDeadline ? kDeadlineSec - 0.01 : 0);
  }
  EXPECT_EQ(got.status, want.code) << got.err;
  const std::string text = fill(want.text, host, port);
  if (want.code == 0) {
    EXPECT_EQ(got.err, "");
    // The start of the first line: a padded reply is far too long to show.
    EXPECT_EQ(got.out.substr(0, text.size()), text);
  } else {
    EXPECT_EQ(got.err, text + "\n");
  }
  return got;
}

void observe(const Fault& f, const std::string& host, const std::string& port) {
  expectTool(f, host, port, {"bounce", "web"}, f.bounce);
  const Outcome send = expectTool(f, host, port, {"send", f.request}, f.send);
  if (f.send.code == 0 && f.replyLength != 0) {
    // The reply as received, plus a line end where it had none.
    EXPECT_GE(send.out.size(), f.replyLength);
    EXPECT_LE(send.out.size(), f.replyLength + 1);
  }
}

TEST_P(FaultRow, ThroughTovctl) {
  const int fdsBefore = openDescriptors();
  const std::string skip = onTarget(GetParam(), observe);
  if (!skip.empty()) GTEST_SKIP() << skip;
  EXPECT_EQ(openDescriptors(), fdsBefore) << "descriptors leaked";
}

}  // namespace

}  // namespace faults
