#include "run_tool.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
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

// Everything the child needs, made before fork: only exec-safe calls follow.
struct Command {
  std::vector<std::string> store;
  std::vector<char*> argv;
  std::vector<char*> envp;
  Command(const std::vector<std::string>& args, const RunOptions& opts) {
    store.push_back(TOVCTL_PATH);
    store.insert(store.end(), args.begin(), args.end());
    store.insert(store.end(), opts.env.begin(), opts.env.end());
    for (std::size_t i = 0; i <= args.size(); ++i) {
      argv.push_back(store[i].data());
    }
    argv.push_back(nullptr);
    for (char** e = environ; *e != nullptr; ++e) {
      const std::string name(*e, std::strcspn(*e, "="));
      bool replaced = false;
      for (const std::string& v : opts.env) {
        replaced = replaced || v.compare(0, name.size() + 1, name + "=") == 0;
      }
      if (!replaced) envp.push_back(*e);
    }
    for (std::size_t i = args.size() + 1; i < store.size(); ++i) {
      envp.push_back(store[i].data());
    }
    envp.push_back(nullptr);
  }
};

}  // namespace

Outcome runTovctl(const std::vector<std::string>& args,
                  const RunOptions& opts) {
  // Terminal: one master; pipes: input, output, error.
  int master = -1;
  int slave = -1;
  int in[2] = {-1, -1};
  int out[2] = {-1, -1};
  int err[2] = {-1, -1};
  if (opts.terminal) {
    master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    check(master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0,
          "pseudo-terminal");
    slave = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
    check(slave >= 0, "terminal slave");
  } else {
    check(pipe2(in, O_CLOEXEC) == 0 && pipe2(out, O_CLOEXEC) == 0 &&
              pipe2(err, O_CLOEXEC) == 0,
          "pipe");
  }

  Command cmd(args, opts);
  const auto started = Clock::now();
  const pid_t pid = fork();
  check(pid >= 0, "fork");
  if (pid == 0) {
    if (opts.terminal) {
      setsid();
      ioctl(slave, TIOCSCTTY, 0);
      for (int fd = 0; fd < 3; ++fd) dup2(slave, fd);
    } else {
      if (opts.input.empty()) {
        dup2(open("/dev/null", O_RDONLY), 0);
      } else {
        dup2(in[0], 0);
      }
      dup2(out[1], 1);
      dup2(err[1], 2);
    }
    if (opts.addressSpaceKb > 0) {
      const rlim_t bytes = static_cast<rlim_t>(opts.addressSpaceKb) * 1024;
      const rlimit lim{bytes, bytes};
      setrlimit(RLIMIT_AS, &lim);
    }
    execve(cmd.argv[0], cmd.argv.data(), cmd.envp.data());
    _exit(127);
  }

  Outcome r;
  std::vector<pollfd> fds;
  std::vector<std::string*> sinks;
  if (opts.terminal) {
    fds.push_back({master, POLLIN, 0});
    sinks.push_back(&r.out);
  } else {
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (!opts.input.empty() &&
        write(in[1], opts.input.data(), opts.input.size()) < 0) {
      r.err = "<input not written>";
    }
    close(in[1]);
    fds = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    sinks = {&r.out, &r.err};
  }

  const auto limit = started + std::chrono::seconds(opts.limitSec);
  std::vector<Step> steps;
  if (!opts.type.empty()) steps.push_back({opts.waitFor, nullptr, opts.type});
  steps.insert(steps.end(), opts.steps.begin(), opts.steps.end());
  std::size_t step = 0;
  std::size_t seen = 0;  // where the next step's text is looked for
  bool exited = false;
  int st = 0;
  // A terminal's master never reports end of file while the slave is open
  // here, so the loop also ends when the child has ended.
  for (std::size_t live = fds.size(); live > 0 && !exited;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          limit - Clock::now())
                          .count();
    if (left <= 0) {
      kill(pid, SIGKILL);
      break;
    }
    const int n = poll(fds.data(), fds.size(),
                       static_cast<int>(opts.terminal ? 50 : left));
    if (n < 0 && errno != EINTR) break;
    for (std::size_t i = 0; i < fds.size(); ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      char buf[4096];
      const ssize_t got = read(fds[i].fd, buf, sizeof buf);
      if (got > 0) {
        sinks[i]->append(buf, static_cast<std::size_t>(got));
      } else if (got == 0 || errno != EINTR) {
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
      if (write(master, s.type.data(), s.type.size()) !=
          static_cast<ssize_t>(s.type.size())) {
        step = steps.size();
      }
    }
    if (opts.terminal) exited = waitpid(pid, &st, WNOHANG) == pid;
  }
  if (!exited) {
    while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
    }
  }
  r.seconds = std::chrono::duration<double>(Clock::now() - started).count();
  if (opts.terminal) {
    // Whatever the run left on the terminal, then its settings.
    char buf[4096];
    pollfd p{master, POLLIN, 0};
    while (poll(&p, 1, 50) > 0) {
      const ssize_t got = read(master, buf, sizeof buf);
      if (got <= 0) break;
      r.out.append(buf, static_cast<std::size_t>(got));
    }
    termios t{};
    r.echoOn = tcgetattr(slave, &t) == 0 && (t.c_lflag & ECHO) != 0;
    close(slave);
  }
  for (const pollfd& f : fds) {
    if (f.fd >= 0) close(f.fd);
  }
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  r.signal = WIFSIGNALED(st) ? WTERMSIG(st) : 0;
  return r;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) out.push_back(line);
  return out;
}

}  // namespace tovctltest
