// Programs run by the suites: to their end, with what they printed (tovctl,
// promtool, a tool's start-up), or in the background with a log file (an
// exporter, Prometheus); and what the kernel shows of a process's
// descriptors and children.
#ifndef TESTS_SUPPORT_PROCESS_H
#define TESTS_SUPPORT_PROCESS_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace testsupport {

using Strings = std::vector<std::string>;

std::string readFile(const std::string& path);

// A directory of the test's own, removed with all it holds.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// Polls `done` until it holds (true) or `seconds` have passed (false).
bool pollFor(double seconds, const std::function<bool()>& done);

struct Outcome {
  int status = -1;  // exit status; -1 when ended by a signal
  int signal = 0;   // the signal that ended it, if one did
  std::string out;  // on a terminal: everything the terminal showed
  std::string err;
  double seconds = 0;  // how long it ran
  long maxRssKb = 0;   // its peak resident memory (VmHWM), from wait4()
  bool echoOn = true;  // on a terminal: echo was on again afterwards
};

// On a terminal, in order: once `waitFor` shows (after what the step before
// waited for), `then` runs and `type` is typed.
struct Step {
  std::string waitFor;
  std::function<void()> then;
  std::string type;
};

struct RunOptions {
  std::string input;  // standard input (a pipe), else /dev/null
  // Standard input, output and error are one pseudo-terminal, the
  // controlling terminal of the run.
  bool terminal = false;
  std::vector<Step> steps;  // on a terminal
  Strings env;              // NAME=VALUE, replacing an inherited NAME
  long addressSpaceKb = 0;  // limit on the address space (ulimit -v)
  int limitSec = 20;        // killed after this long
};

// Runs `path` to its end. Safe to call from several threads at once.
Outcome runProgram(const std::string& path, const Strings& args,
                   const RunOptions& opts = {});

// The lines of a text, without their line ends.
Strings linesOf(const std::string& text);
// The words of a command line written out, split at blanks.
Strings words(const std::string& text);

// A program (args[0]) in the background, its output and errors going to
// `log`; stop() ends it, the kernel if the test dies. Forked and exec'd at
// once: other threads of the test may be running.
class Child {
 public:
  Child(Strings args, const std::string& log);
  ~Child() { stop(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  bool running();
  // Waits up to `seconds` for it to end by itself, then stop()s it.
  int wait(double seconds);
  // SIGTERM, then SIGKILL after 5 s: the exit status, -1 after a signal.
  int stop();

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

// What the entries of /proc/PID/fd link to.
Strings descriptors(pid_t pid);
// Every process below `pid`: its children, theirs, and so on.
std::vector<pid_t> descendants(pid_t pid);

}  // namespace testsupport

#endif  // TESTS_SUPPORT_PROCESS_H
