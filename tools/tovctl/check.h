// `tovctl check`: the cluster's verdict for monitoring systems, following
// the Monitoring Plugins development guidelines.
#ifndef TOOLS_TOVCTL_CHECK_H
#define TOOLS_TOVCTL_CHECK_H

#include <optional>
#include <string>

#include "session.h"

namespace tovctl {

// A threshold in the Monitoring Plugins range syntax: "10" (alert outside
// 0..10), "10:" (below 10), "~:10" (above 10), "10:20", "@10:20" (alert
// inside).
struct CheckRange {
  std::string text;
  bool inside = false;
  double low = 0;
  double high = 0;
  static bool parse(const std::string& text, CheckRange& out, std::string& why);
  bool alerts(double value) const;
};

// Thresholds for silent nodes and for services not running.
struct CheckOptions {
  std::optional<CheckRange> warnSilent, critSilent, warnDown, critDown;
};

int cmdCheck(const Options& o, const CheckOptions& c);

// The check as the command line gives it: runs it (the global options
// applied here, so that even their errors end as UNKNOWN) and returns 0-3.
int runCheck(Options& o, bool deadlineGiven, const std::string& warning,
             const std::string& critical);

// "TOVCLUSTER UNKNOWN - <message>" on standard output; returns 3.
int checkUnknown(const std::string& message);

}  // namespace tovctl

#endif  // TOOLS_TOVCTL_CHECK_H
