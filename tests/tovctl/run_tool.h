// Runs the built tovctl (or another of the tools) as a user would and
// collects what it printed.
#ifndef TESTS_TOVCTL_RUN_TOOL_H
#define TESTS_TOVCTL_RUN_TOOL_H

#include <functional>
#include <string>
#include <vector>

namespace tovctltest {

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
  std::string waitFor;  // on a terminal: once this shows, type `type`
  std::string type;
  std::vector<Step> steps;       // on a terminal: after waitFor and type
  std::vector<std::string> env;  // NAME=VALUE, replacing an inherited NAME
  long addressSpaceKb = 0;       // limit on the address space (ulimit -v)
  int limitSec = 20;             // killed after this long
};

// Safe to call from several threads at once.
Outcome runTovctl(const std::vector<std::string>& args,
                  const RunOptions& opts = {});
Outcome runProgram(const std::string& path,
                   const std::vector<std::string>& args,
                   const RunOptions& opts = {});

// The lines of a text, without their line ends.
std::vector<std::string> linesOf(const std::string& text);

}  // namespace tovctltest

#endif  // TESTS_TOVCTL_RUN_TOOL_H
