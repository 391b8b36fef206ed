// Password entry on a real terminal (a pseudo-terminal made by the test), and
// the collaborators' own traces at the higher debug levels.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <sstream>

#include "tovapi/libtovapi.h"

namespace {

using namespace tov1;

// Runs fn in a child whose standard input and error are `inFd`/`errFd`;
// `beforeResult` runs in the parent meanwhile. Returns what fn returned,
// through a pipe, and stores the child's wait status in `status`; a child
// that hangs is killed after five seconds.
std::string childWith(int inFd, int errFd, std::string (*fn)(),
                      void (*beforeResult)(int) = nullptr, int arg = -1,
                      int* status = nullptr) {
  int result[2];
  EXPECT_EQ(pipe(result), 0);
  const pid_t pid = fork();
  if (pid == 0) {
    // The test runner may have been started with these ignored.
    for (int sig : {SIGINT, SIGTERM, SIGQUIT, SIGHUP}) signal(sig, SIG_DFL);
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
  int waited = 0;
  for (int i = 0; i < 500 && waitpid(pid, &waited, WNOHANG) == 0; ++i) {
    usleep(10000);
  }
  if (kill(pid, SIGKILL) == 0) waitpid(pid, &waited, 0);
  if (status) *status = waited;
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

// A pseudo-terminal: the master for the test, the slave for the child.
struct Pty {
  Pty() {
    master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) return;
    slave = open(ptsname(master), O_RDWR | O_NOCTTY);
  }
  ~Pty() {
    if (slave >= 0) close(slave);
    if (master >= 0) close(master);
  }
  Pty(const Pty&) = delete;
  Pty& operator=(const Pty&) = delete;
  bool ok() const { return master >= 0 && slave >= 0; }
  int master = -1;
  int slave = -1;
};

std::string shownBeforeTyping;
std::string toType;

// Types once the prompt shows: echo is off by then, and input typed earlier
// would have been flushed with the old settings.
void typeAtPrompt(int master) {
  shownBeforeTyping = screenOf(master, 5000);
  if (write(master, toType.data(), toType.size()) !=
      static_cast<ssize_t>(toType.size()))
    shownBeforeTyping += "<no write>";
}

std::string askPassword() { return tovAuth.getUserPass("password: "); }

TEST(PasswordEntry, TypingIsHiddenAndEchoComesBackHoweverTheReadEnds) {
  const struct {
    const char* name;
    std::string typed;  // \x03 is Ctrl-C
    std::string result;
    int killedBy;  // 0: exits normally
  } cases[] = {
      {"typed", "hunter2\n", "hunter2", 0},
      {"ctrl-c", "hunter2\x03", "", SIGINT},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Pty pty;
    ASSERT_TRUE(pty.ok());
    toType = c.typed;
    int status = 0;
    const std::string typed = childWith(pty.slave, pty.slave, askPassword,
                                        typeAtPrompt, pty.master, &status);
    EXPECT_EQ(typed, c.result);
    if (c.killedBy == 0) {
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    } else {
      EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == c.killedBy)
          << status;
    }
    termios after{};
    ASSERT_EQ(tcgetattr(pty.slave, &after), 0);
    EXPECT_NE(after.c_lflag & ECHO, 0u) << "echo left off";
    // The terminal showed the prompt, and not the password.
    const std::string screen = shownBeforeTyping + screenOf(pty.master, 200);
    EXPECT_NE(screen.find("password: "), std::string::npos);
    EXPECT_EQ(screen.find("hunter2"), std::string::npos) << screen;
  }
}

const char kHostileText[] = "title \x1b]0;owned\x07 cr\r del\x7f a\\b\tend";

std::string showHostileText() {
  Debug::useColour = true;
  std::ostringstream os;
  os << kHostileText << "\n";
  tovDebug.error("Loc()", os);
  return "";
}

// What the child wrote to standard error, read after it ended.
std::string drain(int fd) {
  std::string text;
  char buf[256];
  pollfd p{fd, POLLIN, 0};
  while (poll(&p, 1, 200) > 0) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) break;
    text.append(buf, static_cast<std::size_t>(n));
  }
  return text;
}

TEST(TerminalOutput, ControlCharactersAreEscapedOnlyOnATerminal) {
  const std::string colouredLocation = "\033[31mLoc():\033[0m ";
  {
    Pty pty;
    ASSERT_TRUE(pty.ok());
    childWith(pty.slave, pty.slave, showHostileText);
    // The terminal turns the line feed into CR LF on its way out.
    EXPECT_EQ(drain(pty.master),
              colouredLocation +
                  "title \\x1b]0;owned\\x07 cr\\x0d del\\x7f a\\b\tend\r\n");
  }
  {
    int err[2];
    ASSERT_EQ(pipe(err), 0);
    const int devNull = open("/dev/null", O_RDONLY);
    childWith(devNull, err[1], showHostileText);
    close(devNull);
    close(err[1]);
    EXPECT_EQ(drain(err[0]),
              colouredLocation + std::string(kHostileText) + "\n");
    close(err[0]);
  }
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
