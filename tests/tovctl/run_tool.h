// The built tovctl run as a user runs it (support/process.h runs it).
#ifndef TESTS_TOVCTL_RUN_TOOL_H
#define TESTS_TOVCTL_RUN_TOOL_H

#include "support/process.h"

namespace tovctltest {

using testsupport::linesOf;
using testsupport::Outcome;
using testsupport::RunOptions;
using testsupport::runProgram;

// Safe to call from several threads at once.
Outcome runTovctl(const std::vector<std::string>& args,
                  const RunOptions& opts = {});

}  // namespace tovctltest

#endif  // TESTS_TOVCTL_RUN_TOOL_H
