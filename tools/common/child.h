// One piece of work in a child process that can always be ended: a program
// run with execv, or a function run in a forked copy of the caller. What it
// writes on its output and on standard error is read through pipes, each up
// to a limit; at the end it is killed with its whole process group (the
// probe workers a snapshot forks belong to it) and reaped.
//
// The tools run their snapshots this way: a snapshot may hang where no
// signal reaches (a name lookup that is never answered retries by itself),
// and only a process can be ended wherever it stands.
#ifndef TOOLS_COMMON_CHILD_H
#define TOOLS_COMMON_CHILD_H

#include <poll.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace tovtools {

// What is kept of a child's output and of its standard error; more is read
// and dropped, so that the child never blocks on a full pipe.
struct ChildLimits {
  std::size_t output = 64u << 20;
  std::size_t errors = 64u << 10;
};

class ChildProcess {
 public:
  using Clock = std::chrono::steady_clock;

  explicit ChildProcess(ChildLimits limits = {}) : limits_(limits) {}
  ~ChildProcess() { kill(); }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Runs the program argv[0] with `argv`. `input` is its standard input
  // (then its end; 1 MiB at most), its standard output is the output read
  // here. Safe from a process with threads: between fork and exec only
  // async-signal-safe calls are made. The child holds no descriptor of the
  // caller's but 0-2, has every signal unblocked and SIGPIPE at its
  // default. False, with the reason, when it cannot start.
  bool spawn(const std::vector<std::string>& argv, const std::string& input,
             std::string& why);

  // Runs `fn` in a forked copy of the caller, which must have no other
  // thread: `fn` writes its result on `output`; its standard input is
  // empty, its standard output /dev/null (so that a library that prints
  // cannot spoil the result), its standard error the errors read here. The
  // copy ends with _exit of fn's return value (1 if it throws).
  bool spawn(const std::function<int(int output)>& fn, std::string& why);

  // The child dies with the thread that spawned it, which must therefore
  // live until the child is reaped.
  bool running() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }

  // The descriptors that become ready when it writes or ends.
  void addTo(std::vector<pollfd>& fds) const;

  // Reads what it has sent, without blocking; once it has ended, kills the
  // rest of its process group and reaps it. True once it has ended.
  bool collect();

  // collect() until it ends or `until` passes; true once it has ended.
  bool waitUntil(Clock::time_point until);

  // Kills its process group and reaps it, unless it has ended already.
  void kill();

  // Once it has ended: its wait status, and whether kill() ended it.
  int status() const { return status_; }
  bool killed() const { return killed_; }
  const std::string& output() const { return output_; }
  bool outputCut() const { return outputCut_; }  // more than the limit came
  const std::string& errors() const { return errors_; }

 private:
  bool begin(int (&in)[2], int (&out)[2], int (&err)[2], std::string& why);
  void started(pid_t pid, int out, int err);
  void end(int status);
  void closeAll();

  ChildLimits limits_;
  pid_t pid_ = -1;
  int pidfd_ = -1;  // readable once it has ended, where the kernel has them
  int out_ = -1;
  int err_ = -1;
  int status_ = 0;
  bool killed_ = false;
  bool outputCut_ = false;
  std::string output_;
  std::string errors_;
};

}  // namespace tovtools

#endif  // TOOLS_COMMON_CHILD_H
