#include "run_tool.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <stdexcept>

#ifndef TOVCTL_PATH
#error "TOVCTL_PATH must name the tovctl binary"
#endif

extern char** environ;

namespace tovctltest {

namespace {

using Clock = std::chrono::steady_clock;

void check(bool ok, const char* what) {
  if (!ok) throw std::runtime_error(std::string(what) + ": " + strerror(errno));
}

// Appends what `fd` has to `sink`; false once it has ended.
bool drain(int fd, std::string& sink) {
  char buf[4096];
  const ssize_t got = read(fd, buf, sizeof buf);
  if (got > 0) sink.append(buf, static_cast<std::size_t>(got));
  return got > 0 || (got < 0 && errno == EINTR);
}

}  // namespace

Outcome runTovctl(const std::vector<std::string>& args,
                  const RunOptions& opts) {
  // Made before fork, which only exec-safe calls follow; all descriptors are
  // close-on-exec, so that parallel runs do not hold each other's pipes.
  std::vector<std::string> store{TOVCTL_PATH};
  store.insert(store.end(), args.begin(), args.end());
  store.insert(store.end(), opts.env.begin(), opts.env.end());
  std::vector<char*> argv, envp;
  for (std::size_t i = 0; i < store.size(); ++i) {
    (i <= args.size() ? argv : envp).push_back(store[i].data());
  }
  argv.push_back(nullptr);
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string name = std::string(*e, std::strcspn(*e, "=")) + "=";
    bool replaced = false;
    for (const std::string& v : opts.env) replaced |= v.rfind(name, 0) == 0;
    if (!replaced) envp.push_back(*e);
  }
  envp.push_back(nullptr);

  // [0] of in and [1] of out and err are the child's; on a terminal, the
  // slave is all three and the master (out[0]) the parent's one end.
  int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
  if (opts.terminal) {
    char name[128];
    out[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    check(out[0] >= 0 && grantpt(out[0]) == 0 && unlockpt(out[0]) == 0 &&
              ptsname_r(out[0], name, sizeof name) == 0,
          "pseudo-terminal");
    in[0] = out[1] = err[1] = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    check(in[0] >= 0, "terminal slave");
  } else {
    check(pipe2(in, O_CLOEXEC) == 0 && pipe2(out, O_CLOEXEC) == 0 &&
              pipe2(err, O_CLOEXEC) == 0,
          "pipe");
  }
  const int slave = in[0];

  const auto started = Clock::now();
  const pid_t pid = fork();
  check(pid >= 0, "fork");
  if (pid == 0) {
    if (opts.terminal && (setsid() < 0 || ioctl(slave, TIOCSCTTY, 0) < 0)) {
      _exit(127);
    }
    const bool noInput = !opts.terminal && opts.input.empty();
    dup2(noInput ? open("/dev/null", O_RDONLY) : in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    if (opts.addressSpaceKb > 0) {
      const rlim_t bytes = static_cast<rlim_t>(opts.addressSpaceKb) * 1024;
      const rlimit lim{bytes, bytes};
      setrlimit(RLIMIT_AS, &lim);
    }
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }

  Outcome r;
  // poll() passes over the terminal's missing error end (-1).
  std::vector<pollfd> fds{{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
  std::string* const sinks[] = {&r.out, &r.err};
  if (!opts.terminal) {
    for (const int fd : {in[0], out[1], err[1]}) close(fd);
    if (write(in[1], opts.input.data(), opts.input.size()) < 0)
      r.err = "<input not written>";
    close(in[1]);
  }

  std::vector<Step> steps;
  if (!opts.type.empty()) steps.push_back({opts.waitFor, nullptr, opts.type});
  steps.insert(steps.end(), opts.steps.begin(), opts.steps.end());
  std::size_t step = 0, seen = 0;  // seen: where the next text is looked for
  bool exited = false;
  int st = 0;
  // A terminal's master never reports end of file while the slave is open
  // here, so the loop also ends when the child has ended.
  for (std::size_t live = opts.terminal ? 1 : 2; live > 0 && !exited;) {
    if (Clock::now() > started + std::chrono::seconds(opts.limitSec)) {
      kill(pid, SIGKILL);
      break;
    }
    if (poll(fds.data(), fds.size(), 50) < 0 && errno != EINTR) break;
    for (std::size_t i = 0; i < fds.size(); ++i) {
      if (fds[i].fd >= 0 && fds[i].revents != 0 &&
          !drain(fds[i].fd, *sinks[i])) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --live;
      }
    }
    const std::size_t at = step < steps.size()
                               ? r.out.find(steps[step].waitFor, seen)
                               : std::string::npos;
    if (at != std::string::npos) {
      const Step& s = steps[step++];
      seen = at + s.waitFor.size();
      if (s.then) s.then();
      if (write(fds[0].fd, s.type.data(), s.type.size()) < 0) {
        step = steps.size();
      }
    }
    if (opts.terminal) exited = waitpid(pid, &st, WNOHANG) == pid;
  }
  while (!exited && waitpid(pid, &st, 0) < 0 && errno == EINTR) {
  }
  r.seconds = std::chrono::duration<double>(Clock::now() - started).count();
  if (opts.terminal) {
    // Whatever the run left on the terminal, then its settings.
    while (poll(fds.data(), 1, 50) > 0 && drain(fds[0].fd, r.out)) {
    }
    termios t{};
    r.echoOn = tcgetattr(slave, &t) == 0 && (t.c_lflag & ECHO) != 0;
    close(slave);
  }
  for (const pollfd& f : fds) close(f.fd);  // -1 for those already closed
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  r.signal = WIFSIGNALED(st) ? WTERMSIG(st) : 0;
  return r;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

}  // namespace tovctltest
