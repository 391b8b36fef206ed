// What `status` shows of a snapshot, in every form (text, JSON, live view):
// which nodes and services (--problems, --node, --service) and in which
// order (problems first).
#ifndef TOOLS_TOVCTL_FILTER_H
#define TOOLS_TOVCTL_FILTER_H

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "common/snapshot.h"

namespace tovctl {

struct StatusFilter {
  bool problems = false;  // only silent nodes and problem services
  // Shell globs (fnmatch): a node matches by name or address, a service by
  // name or index. A table whose kind has no pattern is not narrowed.
  std::vector<std::string> nodes;
  std::vector<std::string> services;

  bool active() const {
    return problems || !nodes.empty() || !services.empty();
  }
  bool shows(const tovtools::NodeStatus& n) const;
  bool shows(const tovtools::ServiceStatus& v) const;
  // As given on the command line: "--problems --node db*".
  std::string text() const;
};

// The rows a view shows, as positions in the snapshot's lists: silent nodes
// and problem services first, each part in the daemon's order.
struct ShownRows {
  std::vector<std::size_t> nodes;
  std::vector<std::size_t> services;
};

ShownRows shownRows(const tovtools::Snapshot& s, const StatusFilter& f);

// Whether a shell glob (fnmatch) names the service, by name or by index:
// `status --service` and `check --ignore-service` take services so.
bool serviceMatches(const std::string& pattern,
                    const tovtools::ServiceStatus& v);

// "showing 3 of 256 nodes and 1 of 12 services: --problems"; "" when no
// filter is on.
std::string shownText(const tovtools::Snapshot& s, const ShownRows& rows,
                      const StatusFilter& f);

// The snapshot as `status --json` prints it: the nodes and services shown,
// in the daemon's order; the summary of the whole cluster; and "filter",
// what was asked for and how many of each are shown.
nlohmann::json statusJson(const tovtools::Snapshot& s, const StatusFilter& f);

}  // namespace tovctl

#endif  // TOOLS_TOVCTL_FILTER_H
