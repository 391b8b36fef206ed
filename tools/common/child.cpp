#include "common/child.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>

namespace tovtools {

namespace {

constexpr std::size_t kMaxInput = 1u << 20;  // the most a pipe can be made
// How often an end is looked for where the kernel gives no pidfd.
constexpr auto kSlice = std::chrono::milliseconds(20);

void closeFd(int& fd) {
  if (fd >= 0) close(fd);
  fd = -1;
}

// The caller's ends of its children's pipes. Never destroyed: a child may
// be ended by a destructor that runs after this one would have.
std::mutex& endsMutex() {
  static auto* mu = new std::mutex;
  return *mu;
}
std::vector<int>& callerEnds() {
  static auto* ends = new std::vector<int>;
  return *ends;
}

void remember(int fd) {
  if (fd < 0) return;
  std::lock_guard<std::mutex> lock(endsMutex());
  callerEnds().push_back(fd);
}

// Closes one of the caller's ends.
void release(int& fd) {
  if (fd < 0) return;
  {
    std::lock_guard<std::mutex> lock(endsMutex());
    std::vector<int>& ends = callerEnds();
    ends.erase(std::remove(ends.begin(), ends.end(), fd), ends.end());
  }
  closeFd(fd);
}

// In a forked copy, first of all: the caller's ends of the other children
// are not its own (no other thread can hold the lock: there is none). The
// list is emptied, so that a child of the copy does not close their
// numbers again once they mean something else.
void closeCallerEnds() {
  for (const int fd : callerEnds()) close(fd);
  callerEnds().clear();
}

// Keeps a new descriptor off 0-2, where the child's dup2() onto its
// standard streams would overwrite it.
bool aboveStdio(int& fd) {
  if (fd > 2) return true;
  const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  close(fd);
  fd = moved;
  return fd >= 0;
}

bool makePipe(int (&fds)[2]) {
  fds[0] = fds[1] = -1;
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  if (aboveStdio(fds[0]) && aboveStdio(fds[1])) return true;
  closeFd(fds[0]);
  closeFd(fds[1]);
  return false;
}

// Reads what `fd` holds now, keeping up to `limit` bytes in all; closes it
// at its end.
void drain(int& fd, std::string& into, std::size_t limit, bool* cut) {
  char buf[16384];
  while (fd >= 0) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n > 0) {
      const std::size_t room = limit > into.size() ? limit - into.size() : 0;
      const std::size_t got = static_cast<std::size_t>(n);
      if (got > room && cut != nullptr) *cut = true;
      into.append(buf, std::min(room, got));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      if (n == 0 || errno != EAGAIN) closeFd(fd);
      return;
    }
  }
}

int openPidfd(pid_t pid) {
#ifdef SYS_pidfd_open
  const long fd = syscall(SYS_pidfd_open, pid, 0);
  if (fd >= 0) {
    fcntl(static_cast<int>(fd), F_SETFD, FD_CLOEXEC);
    return static_cast<int>(fd);
  }
#endif
  (void)pid;
  return -1;
}

// In the child before exec: async-signal-safe calls only.
void closeFrom3(int maxFd) {
#ifdef SYS_close_range
  if (syscall(SYS_close_range, 3u, ~0u, 0u) == 0) return;
#endif
  for (int fd = 3; fd < maxFd; ++fd) close(fd);
}

// The child's part common to both kinds: a process group of its own unless
// it stays in the caller's, its end when the spawning thread goes, and its
// standard streams.
void childStart(pid_t parent, bool group, int in, int out, int err) {
  if (group) setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(127);
  dup2(in, STDIN_FILENO);
  dup2(out, STDOUT_FILENO);
  dup2(err, STDERR_FILENO);
}

}  // namespace

bool ChildProcess::begin(int (&in)[2], int (&out)[2], int (&err)[2],
                         bool errors, std::string& why) {
  kill();
  output_.clear();
  errors_.clear();
  outputCut_ = killed_ = false;
  status_ = 0;
  in[0] = in[1] = out[0] = out[1] = err[0] = err[1] = -1;
  if (makePipe(in) && makePipe(out) && (!errors || makePipe(err))) {
    return true;
  }
  why = std::strerror(errno);
  for (int* fds : {in, out, err}) {
    closeFd(fds[0]);
    closeFd(fds[1]);
  }
  return false;
}

void ChildProcess::started(pid_t pid, int in, int out, int err, bool group) {
  // Set here as well as in the child, so that a kill right away finds the
  // group whichever of the two runs first.
  if (group) setpgid(pid, pid);
  group_ = group;
  pid_ = pid;
  in_ = in;
  out_ = out;
  err_ = err;
  fcntl(out_, F_SETFL, O_NONBLOCK);
  if (err_ >= 0) fcntl(err_, F_SETFL, O_NONBLOCK);
  pidfd_ = openPidfd(pid);
  for (const int fd : {in_, out_, err_, pidfd_}) remember(fd);
}

bool ChildProcess::spawn(const std::vector<std::string>& argv,
                         const std::string& input, std::string& why) {
  if (argv.empty()) {
    why = "no program";
    return false;
  }
  if (input.size() > kMaxInput) {
    why = "input too large";
    return false;
  }
  int in[2], out[2], err[2];
  if (!begin(in, out, err, true, why)) return false;
  // The input waits in the pipe before the child exists: nothing can block.
  fcntl(in[1], F_SETFL, O_NONBLOCK);
  if (input.size() > 65536) {
    fcntl(in[1], F_SETPIPE_SZ, static_cast<int>(input.size()));
  }
  const ssize_t put =
      input.empty() ? 0 : write(in[1], input.data(), input.size());
  closeFd(in[1]);
  // Everything the child needs is made before the fork.
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.data()));
  args.push_back(nullptr);
  struct rlimit files {};
  const int maxFd = getrlimit(RLIMIT_NOFILE, &files) == 0 &&
                            files.rlim_cur < static_cast<rlim_t>(INT_MAX)
                        ? static_cast<int>(files.rlim_cur)
                        : 65536;
  struct sigaction dfl {};
  dfl.sa_handler = SIG_DFL;
  sigset_t all, none, saved;
  sigfillset(&all);
  sigemptyset(&none);
  const pid_t parent = getpid();
  pid_t pid = -1;
  if (put == static_cast<ssize_t>(input.size())) {
    // No handler of the caller's may run in the child before exec.
    pthread_sigmask(SIG_SETMASK, &all, &saved);
    pid = fork();
    if (pid == 0) {
      childStart(parent, true, in[0], out[1], err[1]);
      closeFrom3(maxFd);
      sigaction(SIGPIPE, &dfl, nullptr);
      sigprocmask(SIG_SETMASK, &none, nullptr);
      execv(args[0], args.data());
      _exit(127);
    }
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    why = pid < 0 ? std::strerror(errno) : "";
  } else {
    why = put < 0 ? std::strerror(errno) : "input too large";
  }
  closeFd(in[0]);
  closeFd(out[1]);
  closeFd(err[1]);
  if (pid <= 0) {
    closeFd(out[0]);
    closeFd(err[0]);
    return false;
  }
  started(pid, -1, out[0], err[0], true);
  return true;
}

bool ChildProcess::spawn(const std::function<int(int)>& fn, std::string& why,
                         ForkSetup setup) {
  int in[2], out[2], err[2];
  if (!begin(in, out, err, !setup.callersErrors, why)) return false;
  if (!setup.requests) closeFd(in[1]);  // its input: empty
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    closeCallerEnds();
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    childStart(parent, !setup.callersGroup, in[0], null >= 0 ? null : out[1],
               setup.callersErrors ? STDERR_FILENO : err[1]);
    for (const int fd : {in[1], out[0], err[0]}) {
      if (fd >= 0) close(fd);
    }
    int status = 1;
    try {
      status = fn(out[1]);
    } catch (...) {
    }
    _exit(status);
  }
  why = pid < 0 ? std::strerror(errno) : "";
  closeFd(in[0]);
  closeFd(out[1]);
  closeFd(err[1]);
  if (pid < 0) {
    closeFd(in[1]);
    closeFd(out[0]);
    closeFd(err[0]);
    return false;
  }
  started(pid, in[1], out[0], err[0], !setup.callersGroup);
  return true;
}

void ChildProcess::addTo(std::vector<pollfd>& fds) const {
  for (const int fd : {out_, err_, pidfd_}) {
    if (fd >= 0) fds.push_back({fd, POLLIN, 0});
  }
}

bool ChildProcess::collect() {
  if (!running()) return false;
  drain(out_, output_, limits_.output, &outputCut_);
  drain(err_, errors_, limits_.errors, nullptr);
  siginfo_t info{};
  if (waitid(P_PID, static_cast<id_t>(pid_), &info,
             WEXITED | WNOHANG | WNOWAIT) == 0 &&
      info.si_pid == 0) {
    return false;
  }
  // Ended, and not yet reaped: its id cannot be taken by another process,
  // so the rest of its group can be killed safely. What it wrote is all in
  // the pipes by now, even where a dying worker still holds them.
  if (group_) ::kill(-pid_, SIGKILL);
  drain(out_, output_, limits_.output, &outputCut_);
  drain(err_, errors_, limits_.errors, nullptr);
  int st = 0;
  pid_t got;
  while ((got = waitpid(pid_, &st, 0)) < 0 && errno == EINTR) {
  }
  end(got == pid_ ? st : -1);
  return true;
}

bool ChildProcess::waitUntil(Clock::time_point until) {
  for (;;) {
    if (!running() || collect()) return true;
    const Clock::time_point now = Clock::now();
    if (now >= until) return false;
    std::vector<pollfd> fds;
    addTo(fds);
    auto wait = std::chrono::ceil<std::chrono::milliseconds>(until - now);
    if (pidfd_ < 0) wait = std::min<std::chrono::milliseconds>(wait, kSlice);
    poll(fds.data(), fds.size(),
         static_cast<int>(std::min<long long>(wait.count(), 60000)));
  }
}

bool ChildProcess::send(const std::string& data) {
  for (std::size_t done = 0; done < data.size();) {
    if (!running() || in_ < 0) return false;
    const ssize_t put = write(in_, data.data() + done, data.size() - done);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) return false;
    done += static_cast<std::size_t>(put);
  }
  return running() && in_ >= 0;
}

bool ChildProcess::take(void* into, std::size_t size) {
  if (output_.size() < size) return false;
  std::memcpy(into, output_.data(), size);
  output_.erase(0, size);
  return true;
}

void ChildProcess::stop() {
  if (!running()) return;
  if (group_) ::kill(-pid_, SIGKILL);
  ::kill(pid_, SIGKILL);
}

void ChildProcess::kill() {
  if (!running()) {
    closeAll();
    return;
  }
  stop();
  int st = 0;
  pid_t got;
  while ((got = waitpid(pid_, &st, 0)) < 0 && errno == EINTR) {
  }
  killed_ = true;
  end(got == pid_ ? st : -1);
}

void ChildProcess::end(int status) {
  status_ = status;
  pid_ = -1;
  closeAll();
}

void ChildProcess::closeAll() {
  for (int* fd : {&in_, &out_, &err_, &pidfd_}) release(*fd);
}

}  // namespace tovtools
