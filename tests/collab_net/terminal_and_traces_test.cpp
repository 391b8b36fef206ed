// Password entry on a real terminal (a pseudo-terminal made by the test), and
// the collaborators' own traces at the higher debug levels.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <sstream>

#include "tovapi/libtovapi.h"

namespace {

using namespace tov1;

// Runs fn in a child whose standard input and error are `inFd`/`errFd`;
// `beforeResult` runs in the parent meanwhile. Returns what fn returned,
// through a pipe; a child that hangs is killed after five seconds.
std::string childWith(int inFd, int errFd, std::string (*fn)(),
                      void (*beforeResult)(int) = nullptr, int arg = -1) {
  int result[2];
  EXPECT_EQ(pipe(result), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    setsid();
    dup2(inFd, STDIN_FILENO);
    dup2(errFd, STDERR_FILENO);
    if (isatty(STDIN_FILENO)) ioctl(STDIN_FILENO, TIOCSCTTY, 0);
    const std::string text = fn();
    if (write(result[1], text.data(), text.size()) < 0) std::exit(2);
    std::exit(0);
  }
  close(result[1]);
  if (beforeResult) beforeResult(arg);
  std::string text;
  char buf[256];
  pollfd p{result[0], POLLIN, 0};
  while (poll(&p, 1, 5000) > 0) {
    const ssize_t n = read(result[0], buf, sizeof buf);
    if (n <= 0) break;
    text.append(buf, static_cast<std::size_t>(n));
  }
  close(result[0]);
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
  return text;
}

// Everything the terminal shows within `ms` of quiet.
std::string screenOf(int master, int ms) {
  std::string screen;
  char buf[256];
  pollfd p{master, POLLIN, 0};
  while (poll(&p, 1, ms) > 0) {
    const ssize_t n = read(master, buf, sizeof buf);
    if (n <= 0) break;
    screen.append(buf, static_cast<std::size_t>(n));
    if (screen.find("password: ") != std::string::npos) break;
  }
  return screen;
}

std::string shownBeforeTyping;

// Types the password once the prompt shows: echo is off by then, and input
// typed earlier would have been flushed with the old settings.
void typeAtPrompt(int master) {
  shownBeforeTyping = screenOf(master, 5000);
  if (write(master, "hunter2\n", 8) != 8) shownBeforeTyping += "<no write>";
}

std::string askPassword() { return tovAuth.getUserPass("password: "); }

TEST(PasswordEntry, TerminalDoesNotEchoThePassword) {
  const int master = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(master, 0);
  ASSERT_EQ(grantpt(master), 0);
  ASSERT_EQ(unlockpt(master), 0);
  const int slave = open(ptsname(master), O_RDWR | O_NOCTTY);
  ASSERT_GE(slave, 0);
  const std::string typed =
      childWith(slave, slave, askPassword, typeAtPrompt, master);
  close(slave);
  EXPECT_EQ(typed, "hunter2");
  // The terminal showed the prompt, and not the password.
  const std::string screen = shownBeforeTyping + screenOf(master, 200);
  close(master);
  EXPECT_NE(screen.find("password: "), std::string::npos);
  EXPECT_EQ(screen.find("hunter2"), std::string::npos) << screen;
}

TEST(CollaboratorTraces, DecoderAndCacheExplainThemselves) {
  std::stringstream captured;
  std::streambuf* old = std::cerr.rdbuf(captured.rdbuf());
  tovDebug.setDebugLevel(3);
  char ok[] = "Ba done";
  char shortReply[] = "B";
  EXPECT_EQ(tovResponse.getTOVResponseStatus(ok), 0);
  EXPECT_LT(tovResponse.getTOVResponseStatus(shortReply), 0);
  EXPECT_LT(tovResponse.getTOVResponseStatus(nullptr), 0);
  EXPECT_EQ(tovCache.tovInfoGetValue("127.0.0.9", tovInfo_S, 9, 1), "");
  tovDebug.setDebugLevel(0);
  std::cerr.rdbuf(old);
  const std::string text = captured.str();
  EXPECT_NE(text.find("reply letter 'a' gives 0"), std::string::npos) << text;
  EXPECT_NE(text.find("reply too short"), std::string::npos);
  EXPECT_NE(text.find("no reply"), std::string::npos);
}

}  // namespace
