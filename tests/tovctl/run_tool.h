// Runs the built tovctl as a user would and collects what it printed.
#ifndef TESTS_TOVCTL_RUN_TOOL_H
#define TESTS_TOVCTL_RUN_TOOL_H

#include <string>
#include <vector>

namespace tovctltest {

struct Outcome {
  int status = -1;  // exit status; -1 when killed by a signal
  std::string out;
  std::string err;
};

// Standard input is /dev/null; the run is killed after `limitSec`.
Outcome runTovctl(const std::vector<std::string>& args, int limitSec = 20);

// The lines of a text, without their line ends.
std::vector<std::string> linesOf(const std::string& text);

}  // namespace tovctltest

#endif  // TESTS_TOVCTL_RUN_TOOL_H
