// Password entry on a real terminal (a pseudo-terminal made by the test), and
// the escaping of control characters in lines that a terminal shows.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <functional>
#include <sstream>
#include <string>

#include "tovapi/libtovapi.h"

namespace {

using namespace tov1;

// What `fd` delivers until `until` shows in it (when not empty), the writer
// closes, or `quietMs` pass without data.
std::string readFrom(int fd, const std::string& until, int quietMs) {
  std::string text;
  char buf[256];
  pollfd p{fd, POLLIN, 0};
  for (int i = 0; i < 1000; ++i) {
    if (!until.empty() && text.find(until) != std::string::npos) break;
    if (poll(&p, 1, quietMs) <= 0) break;
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) break;
    text.append(buf, static_cast<std::size_t>(n));
  }
  return text;
}

// Runs fn as a child session leader on `in` and `err` (a terminal becomes its
// controlling one) while `meanwhile` runs here. Returns its wait status; a
// child that hangs is killed after ten seconds.
int inChild(int in, int err, int (*fn)(),
            const std::function<void()>& meanwhile = nullptr) {
  const pid_t pid = fork();
  if (pid < 0) return -1;
  if (pid == 0) {
    // The test runner may have been started with these ignored.
    for (int sig : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) signal(sig, SIG_DFL);
    setsid();
    dup2(in, STDIN_FILENO);
    dup2(err, STDERR_FILENO);
    if (isatty(STDIN_FILENO)) ioctl(STDIN_FILENO, TIOCSCTTY, 0);
    _exit(fn());
  }
  if (meanwhile) meanwhile();
  int status = -1;
  pid_t done = 0;
  for (int i = 0; i < 1000 && done == 0; ++i) {
    done = waitpid(pid, &status, WNOHANG);
    if (done == 0) usleep(10000);
  }
  if (done == 0 && kill(pid, SIGKILL) == 0) waitpid(pid, &status, 0);
  return status;
}

// A pseudo-terminal: the master for the test, the slave for the child.
struct Pty {
  Pty() { ok = openpty(&master, &slave, nullptr, nullptr, nullptr) == 0; }
  ~Pty() {
    for (int fd : {master, slave}) close(fd);  // -1 when never opened
  }
  int master = -1, slave = -1;
  bool ok = false;
};

int askPassword() {
  return tovAuth.getUserPass("password: ") == "hunter2" ? 0 : 3;
}

// A program that keeps running after Ctrl-C: its prompt still ends there.
int askPasswordSurvivingInterrupts() {
  struct sigaction keepGoing {};
  keepGoing.sa_handler = [](int) {};
  sigaction(SIGINT, &keepGoing, nullptr);
  return askPassword() == 3 ? 4 : 5;
}

TEST(PasswordEntry, TypingIsHiddenAndEchoComesBackHoweverTheReadEnds) {
  const struct {
    const char* name;
    std::string typed;  // \x03 is Ctrl-C
    int status;         // the child's wait status: 0 when it read "hunter2"
    int (*ask)();
  } cases[] = {
      {"typed", "hunter2\n", 0, askPassword},
      {"ctrl-c", "hunter2\x03", SIGINT, askPassword},
      {"ctrl-c caught", "hunter2\x03", 4 << 8, askPasswordSurvivingInterrupts}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Pty pty;
    ASSERT_TRUE(pty.ok);
    std::string screen;
    // At the prompt echo is off; anything typed earlier would be flushed.
    const auto typeAtPrompt = [&] {
      screen = readFrom(pty.master, "password: ", 10000);
      EXPECT_EQ(write(pty.master, c.typed.data(), c.typed.size()),
                static_cast<ssize_t>(c.typed.size()));
    };
    EXPECT_EQ(inChild(pty.slave, pty.slave, c.ask, typeAtPrompt), c.status);
    termios after{};
    ASSERT_EQ(tcgetattr(pty.slave, &after), 0);
    EXPECT_NE(after.c_lflag & ECHO, 0u) << "echo left off";
    screen += readFrom(pty.master, "", 200);
    EXPECT_NE(screen.find("password: "), std::string::npos);
    EXPECT_EQ(screen.find("hunter2"), std::string::npos) << screen;
  }
}

const char kHostileText[] = "title \x1b]0;owned\x07 cr\r del\x7f a\\b\tend";

int showHostileText() {
  Debug::useColour = true;
  std::ostringstream os;
  os << kHostileText << "\n";
  tovDebug.error("Loc()", os);
  return 0;
}

// Daemons' text could retitle or clear a terminal: escaped there only.
TEST(TerminalOutput, ControlCharactersAreEscapedOnlyOnATerminal) {
  const std::string colouredLocation = "\033[31mLoc():\033[0m ";
  Pty pty;
  ASSERT_TRUE(pty.ok);
  EXPECT_EQ(inChild(pty.slave, pty.slave, showHostileText), 0);
  // The terminal turns the line feed into CR LF on its way out.
  EXPECT_EQ(readFrom(pty.master, "\n", 10000),
            colouredLocation +
                "title \\x1b]0;owned\\x07 cr\\x0d del\\x7f a\\b\tend\r\n");

  int err[2];
  ASSERT_EQ(pipe(err), 0);
  const int devNull = open("/dev/null", O_RDONLY);
  EXPECT_EQ(inChild(devNull, err[1], showHostileText), 0);
  for (int fd : {devNull, err[1]}) close(fd);
  EXPECT_EQ(readFrom(err[0], "", 10000),
            colouredLocation + kHostileText + "\n");
  close(err[0]);
}

}  // namespace
