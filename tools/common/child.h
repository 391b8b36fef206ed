// Work in a child process that can always be ended: a program run with
// execv, or a function run in a forked copy of the caller. What it writes on
// its output and on standard error is read through pipes, each up to a
// limit; at the end it is killed with its whole process group (the probe
// workers a snapshot forks belong to it) and reaped.
//
// The tools run their snapshots this way: a snapshot may hang where no
// signal reaches (a name lookup that is never answered retries by itself),
// and only a process can be ended wherever it stands. A snapshot's probe
// workers are such children too, each taking one request after another.
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

// How spawn(fn) sets up the forked copy. The defaults suit one piece of
// work whose result is read once it ends.
struct ForkSetup {
  // Its standard input a pipe that send() writes to, for a child that
  // serves one request after another; otherwise empty.
  bool requests = false;
  // Its standard error the caller's, rather than read here.
  bool callersErrors = false;
  // In the caller's process group rather than in one of its own: whoever
  // kills the caller's group ends it too.
  bool callersGroup = false;
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
  // cannot spoil the result), its standard error the errors read here
  // (`setup` changes these). The copy holds none of the caller's ends of
  // its other children's pipes, so that each of them sees its input end
  // when the caller goes. It ends with _exit of fn's return value (1 if it
  // throws).
  bool spawn(const std::function<int(int output)>& fn, std::string& why,
             ForkSetup setup = {});

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

  // Writes `data` on the standard input of a child spawned with
  // ForkSetup::requests, blocking until the pipe takes it all; false once
  // it has gone (the caller ignores SIGPIPE).
  bool send(const std::string& data);

  // Moves the first `size` bytes of the output read so far into `into`;
  // false while fewer have come.
  bool take(void* into, std::size_t size);

  // Kills its process group and reaps it, unless it has ended already.
  void kill();

  // Sends the kill without waiting: kill() reaps it later. Many children
  // end at once this way, rather than one after another.
  void stop();

  // Once it has ended: its wait status, and whether kill() ended it.
  int status() const { return status_; }
  bool killed() const { return killed_; }
  const std::string& output() const { return output_; }
  bool outputCut() const { return outputCut_; }  // more than the limit came
  const std::string& errors() const { return errors_; }

 private:
  bool begin(int (&in)[2], int (&out)[2], int (&err)[2], bool errors,
             std::string& why);
  void started(pid_t pid, int in, int out, int err, bool group);
  void end(int status);
  void closeAll();

  ChildLimits limits_;
  pid_t pid_ = -1;
  bool group_ = true;  // it leads a process group of its own
  int pidfd_ = -1;     // readable once it has ended, where the kernel has them
  int in_ = -1;        // its standard input, with ForkSetup::requests
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
