// `tovctl check`: the cluster's verdict for monitoring systems, following
// the Monitoring Plugins development guidelines.
#ifndef TOOLS_TOVCTL_CHECK_H
#define TOOLS_TOVCTL_CHECK_H

#include <string>
#include <vector>

#include "session.h"

namespace CLI {
class App;
}

namespace tovctl {

// A threshold in the Monitoring Plugins range syntax: "10" (alert outside
// 0..10), "10:" (below 10), "~:10" (above 10), "10:20", "@10:20" (alert
// inside), "~:" (never).
struct CheckRange {
  std::string text;
  bool inside = false;
  double low = 0;
  double high = 0;
  static bool parse(const std::string& text, CheckRange& out, std::string& why);
  bool alerts(double value) const;
};

// The check's command line as read, before it is checked.
struct CheckArgs {
  std::string warning;              // SILENT[,DOWN[,BROKEN]]
  std::string critical;             // the same
  std::vector<std::string> ignore;  // --ignore-service, as given
  bool autoOnly = false;
  int verbose = 0;  // -v repeated, or --verbose=N
};

// Adds the `check` subcommand and its options to `app`; they are read into
// `args`.
CLI::App* addCheck(CLI::App& app, CheckArgs& args);

// The check as the command line gives it: runs it (the global options
// applied here, so that even their errors end as UNKNOWN) and returns 0-3.
int runCheck(Options& o, bool deadlineGiven, const CheckArgs& args);

// "TOVCLUSTER UNKNOWN - <message>" on standard output, its first line only;
// returns 3.
int checkUnknown(const std::string& message);

}  // namespace tovctl

#endif  // TOOLS_TOVCTL_CHECK_H
