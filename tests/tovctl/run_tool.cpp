#include "run_tool.h"

#ifndef TOVCTL_PATH
#error "TOVCTL_PATH must name the tovctl binary"
#endif

namespace tovctltest {

Outcome runTovctl(const std::vector<std::string>& args,
                  const RunOptions& opts) {
  return runProgram(TOVCTL_PATH, args, opts);
}

}  // namespace tovctltest
