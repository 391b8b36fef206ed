// `tovctl check`: the cluster's verdict for monitoring systems, following
// the Monitoring Plugins development guidelines. A check speaks to a
// monitoring system, not to a person: every way it can end, a refused
// command line included, is output on standard output and a status of 0 to
// 3.
#ifndef TOOLS_TOVCTL_CHECK_H
#define TOOLS_TOVCTL_CHECK_H

#include "commands.h"

namespace tovctl {

// Adds `check` to the table: its options, its run (the global options
// applied there, so that even their errors end as UNKNOWN) and its UNKNOWN
// line for a command line that the parser refused.
void addCheckCommand(CommandTable& table);

}  // namespace tovctl

#endif  // TOOLS_TOVCTL_CHECK_H
