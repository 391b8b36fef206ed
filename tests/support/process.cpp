#include "support/process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace testsupport {

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

// argv and envp for execve, made before fork, which only exec-safe calls
// follow.
struct Exec {
  std::vector<std::string> store;
  std::vector<char*> argv, envp;
};

void prepare(Exec& x, const std::string& path,
             const std::vector<std::string>& args, const RunOptions& opts) {
  x.store = {path};
  x.store.insert(x.store.end(), args.begin(), args.end());
  x.store.insert(x.store.end(), opts.env.begin(), opts.env.end());
  for (std::size_t i = 0; i < x.store.size(); ++i) {
    (i <= args.size() ? x.argv : x.envp).push_back(x.store[i].data());
  }
  x.argv.push_back(nullptr);
  for (char** e = environ; *e != nullptr; ++e) {
    const std::string name = std::string(*e, std::strcspn(*e, "=")) + "=";
    bool replaced = false;
    for (const std::string& v : opts.env) replaced |= v.rfind(name, 0) == 0;
    if (!replaced) x.envp.push_back(*e);
  }
  x.envp.push_back(nullptr);
}

// [0] of in and [1] of out and err are the child's; on a terminal, the
// slave is all three and the master (out[0]) the parent's one end. All are
// close-on-exec, so that parallel runs do not hold each other's pipes.
struct Ends {
  int in[2] = {-1, -1}, out[2] = {-1, -1}, err[2] = {-1, -1};
};

Ends openEnds(bool terminal) {
  Ends e;
  if (terminal) {
    char name[128];
    e.out[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    check(e.out[0] >= 0 && grantpt(e.out[0]) == 0 && unlockpt(e.out[0]) == 0 &&
              ptsname_r(e.out[0], name, sizeof name) == 0,
          "pseudo-terminal");
    e.in[0] = e.out[1] = e.err[1] = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    check(e.in[0] >= 0, "terminal slave");
  } else {
    check(pipe2(e.in, O_CLOEXEC) == 0 && pipe2(e.out, O_CLOEXEC) == 0 &&
              pipe2(e.err, O_CLOEXEC) == 0,
          "pipe");
  }
  return e;
}

pid_t startChild(const Exec& x, const Ends& e, const RunOptions& opts) {
  const pid_t pid = fork();
  check(pid >= 0, "fork");
  if (pid != 0) return pid;
  if (opts.terminal && (setsid() < 0 || ioctl(e.in[0], TIOCSCTTY, 0) < 0)) {
    _exit(127);
  }
  const bool noInput = !opts.terminal && opts.input.empty();
  dup2(noInput ? open("/dev/null", O_RDONLY) : e.in[0], 0);
  dup2(e.out[1], 1);
  dup2(e.err[1], 2);
  if (opts.addressSpaceKb > 0) {
    const rlim_t bytes = static_cast<rlim_t>(opts.addressSpaceKb) * 1024;
    const rlimit lim{bytes, bytes};
    setrlimit(RLIMIT_AS, &lim);
  }
  execve(x.argv[0], x.argv.data(), x.envp.data());
  _exit(127);
}

// Reads what the child prints until its ends close (on a terminal: until
// it has ended), typing the steps, then reaps it.
void collect(pid_t pid, std::vector<pollfd>& fds, const RunOptions& opts,
             Clock::time_point started, Outcome& r) {
  std::string* const sinks[] = {&r.out, &r.err};
  const std::vector<Step>& steps = opts.steps;
  std::size_t step = 0, seen = 0;  // seen: where the next text is looked for
  bool exited = false;
  int st = 0;
  rusage usage{};
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
    // A terminal's master never reports end of file while the slave is
    // open here.
    if (opts.terminal) exited = wait4(pid, &st, WNOHANG, &usage) == pid;
  }
  while (!exited && wait4(pid, &st, 0, &usage) < 0 && errno == EINTR) {
  }
  r.maxRssKb = usage.ru_maxrss;
  r.seconds = std::chrono::duration<double>(Clock::now() - started).count();
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  r.signal = WIFSIGNALED(st) ? WTERMSIG(st) : 0;
}

}  // namespace

Outcome runProgram(const std::string& path,
                   const std::vector<std::string>& args,
                   const RunOptions& opts) {
  Exec x;
  prepare(x, path, args, opts);
  Ends e = openEnds(opts.terminal);
  const auto started = Clock::now();
  const pid_t pid = startChild(x, e, opts);

  Outcome r;
  // poll() passes over the terminal's missing error end (-1).
  std::vector<pollfd> fds{{e.out[0], POLLIN, 0}, {e.err[0], POLLIN, 0}};
  if (!opts.terminal) {
    for (const int fd : {e.in[0], e.out[1], e.err[1]}) close(fd);
    if (write(e.in[1], opts.input.data(), opts.input.size()) < 0)
      r.err = "<input not written>";
    close(e.in[1]);
  }
  collect(pid, fds, opts, started, r);
  if (opts.terminal) {
    // Whatever the run left on the terminal, then its settings.
    while (poll(fds.data(), 1, 50) > 0 && drain(fds[0].fd, r.out)) {
    }
    termios t{};
    r.echoOn = tcgetattr(e.in[0], &t) == 0 && (t.c_lflag & ECHO) != 0;
    close(e.in[0]);
  }
  for (const pollfd& f : fds) close(f.fd);  // -1 for those already closed
  return r;
}

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) out.push_back(line);
  return out;
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

Strings words(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), {}};
}

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string templ =
      std::string(base && *base ? base : "/tmp") + "/tov-XXXXXX";
  if (mkdtemp(templ.data()) == nullptr) check(false, "mkdtemp");
  path_ = templ;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

bool pollFor(double seconds, const std::function<bool()>& done) {
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

Child::Child(Strings args, const std::string& log) {
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ != 0) return;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int in = open("/dev/null", O_RDONLY);
  const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (getppid() != parent || in < 0 || out < 0) _exit(127);
  for (const int fd : {0, 1, 2}) dup2(fd == 0 ? in : out, fd);
  execv(argv[0], argv.data());
  _exit(127);
}

bool Child::running() {
  int st = 0;
  if (pid_ <= 0 || waitpid(pid_, &st, WNOHANG) != pid_) return pid_ > 0;
  status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  pid_ = -1;
  return false;
}

int Child::wait(double seconds) {
  pollFor(seconds, [this] { return !running(); });
  return stop();
}

int Child::stop() {
  for (const int sig : {SIGTERM, SIGKILL}) {
    if (running()) kill(pid_, sig);
    pollFor(5, [this] { return !running(); });
  }
  return status_;
}

Strings descriptors(pid_t pid) {
  Strings links;
  std::error_code ec;
  const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
  for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
    links.push_back(std::filesystem::read_symlink(e.path(), ec).string());
  }
  return links;
}

std::vector<pid_t> descendants(pid_t pid) {
  std::multimap<pid_t, pid_t> children;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator("/proc", ec)) {
    const std::string name = e.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string stat = readFile(e.path() / "stat");
    const std::size_t close = stat.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream rest(stat.substr(close + 2));
    char state;
    pid_t parent = 0;
    rest >> state >> parent;
    children.emplace(parent, std::stoi(name));
  }
  std::vector<pid_t> found;
  for (std::vector<pid_t> next{pid}; !next.empty();) {
    const pid_t p = next.back();
    next.pop_back();
    for (auto [it, end] = children.equal_range(p); it != end; ++it) {
      found.push_back(it->second);
      next.push_back(it->second);
    }
  }
  return found;
}

}  // namespace testsupport
