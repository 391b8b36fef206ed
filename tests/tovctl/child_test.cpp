// Work in a child process: what comes back of its output and errors, how it
// ends, and that it takes nothing of the caller's with it.
#include "common/child.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using tovtools::ChildProcess;
using Clock = ChildProcess::Clock;

bool endsWithin(ChildProcess& c, double seconds) {
  return c.waitUntil(Clock::now() +
                     std::chrono::duration_cast<Clock::duration>(
                         std::chrono::duration<double>(seconds)));
}

TEST(ChildProcess, ProgramsGiveBackOutputErrorsAndStatusWithinTheLimits) {
  struct Row {
    std::string script, input;
    std::size_t limit;
    std::string output, errors;
    int exit;
    bool cut;
  };
  const std::vector<Row> rows{
      {"cat", "hello", 100, "hello", "", 0, false},
      // More input than a pipe holds by default.
      {"cat", std::string(100000, 'y'), 100000, std::string(100000, 'y'), "", 0,
       false},
      {"head -c 5000 /dev/zero | tr '\\0' x", "", 1000, std::string(1000, 'x'),
       "", 0, true},
      {"printf abc", "", 3, "abc", "", 0, false},
      {"echo oops >&2; exit 3", "", 100, "", "oops\n", 3, false},
      // The caller's descriptors above 2 stay behind.
      {"exec ls /proc/self/fd", "", 100, "0\n1\n2\n3\n", "", 0, false},
  };
  int extra[2];
  ASSERT_EQ(pipe(extra), 0);
  for (const Row& r : rows) {
    SCOPED_TRACE(r.script);
    ChildProcess c({r.limit, 100});
    std::string why;
    ASSERT_TRUE(c.spawn({"/bin/sh", "-c", r.script}, r.input, why)) << why;
    ASSERT_TRUE(endsWithin(c, 10));
    EXPECT_FALSE(c.running());
    EXPECT_EQ(c.output(), r.output);
    EXPECT_EQ(c.errors(), r.errors);
    EXPECT_EQ(c.outputCut(), r.cut);
    ASSERT_TRUE(WIFEXITED(c.status()));
    EXPECT_EQ(WEXITSTATUS(c.status()), r.exit);
    EXPECT_FALSE(c.killed());
  }
  close(extra[0]);
  close(extra[1]);
}

TEST(ChildProcess, ForkedWorkEndsWithItsResult) {
  struct Row {
    std::function<int(int)> fn;
    std::string output;
    int exit;
  };
  const std::vector<Row> rows{
      {[](int out) { return write(out, "42", 2) == 2 ? 0 : 9; }, "42", 0},
      {[](int) { return 5; }, "", 5},
      {[](int) -> int { throw std::runtime_error("no"); }, "", 1},
  };
  for (std::size_t i = 0; i < rows.size(); ++i) {
    SCOPED_TRACE(i);
    ChildProcess c;
    std::string why;
    ASSERT_TRUE(c.spawn(rows[i].fn, why)) << why;
    ASSERT_TRUE(endsWithin(c, 10));
    EXPECT_EQ(c.output(), rows[i].output);
    ASSERT_TRUE(WIFEXITED(c.status()));
    EXPECT_EQ(WEXITSTATUS(c.status()), rows[i].exit);
  }
}

TEST(ChildProcess, AWorkerAnswersRequestAfterRequest) {
  ChildProcess c;
  std::string why;
  tovtools::ForkSetup setup;
  setup.requests = true;
  ASSERT_TRUE(c.spawn(
      [](int out) {
        char ch;
        while (read(STDIN_FILENO, &ch, 1) == 1) {
          ch = static_cast<char>(ch + 1);
          if (write(out, &ch, 1) != 1) return 2;
        }
        return 0;
      },
      why, setup))
      << why;
  for (char request : {'a', 'x'}) {
    ASSERT_TRUE(c.send(std::string(1, request)));
    char answer = 0;
    const auto until = Clock::now() + std::chrono::seconds(10);
    while (!c.take(&answer, 1) && Clock::now() < until) {
      c.waitUntil(Clock::now() + std::chrono::milliseconds(10));
    }
    EXPECT_EQ(answer, request + 1);
  }
  EXPECT_TRUE(c.running());
  c.kill();
  EXPECT_TRUE(c.killed());
  EXPECT_FALSE(c.running());
}

TEST(ChildProcess, AKillEndsItsWholeProcessGroup) {
  ChildProcess c;
  std::string why;
  ASSERT_TRUE(
      c.spawn({"/bin/sh", "-c", "sleep 30 & echo $!; sleep 30"}, "", why))
      << why;
  const auto until = Clock::now() + std::chrono::seconds(10);
  while (c.output().find('\n') == std::string::npos && Clock::now() < until) {
    EXPECT_FALSE(endsWithin(c, 0.01));
  }
  const pid_t grandchild = std::stoi(c.output());
  EXPECT_FALSE(endsWithin(c, 0.2));  // it does not end by itself
  const auto before = Clock::now();
  c.kill();
  EXPECT_LT(Clock::now() - before, std::chrono::seconds(2));
  EXPECT_TRUE(c.killed());
  EXPECT_TRUE(WIFSIGNALED(c.status()));
  // The grandchild got the kill too: gone, or dead and not yet reaped by
  // whoever adopted it.
  bool gone = false;
  for (int i = 0; i < 200 && !gone; ++i) {
    std::ifstream stat("/proc/" + std::to_string(grandchild) + "/stat");
    std::string pid, name, state;
    gone = !(stat >> pid >> name >> state) || state == "Z";
    if (!gone) usleep(10000);
  }
  EXPECT_TRUE(gone) << grandchild;
}

}  // namespace
