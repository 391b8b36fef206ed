#include "filter.h"

#include <fnmatch.h>

#include <algorithm>
#include <initializer_list>
#include <utility>

namespace tovctl {

namespace {

using tovtools::NodeStatus;
using tovtools::ServiceStatus;
using tovtools::Snapshot;

bool anyMatch(const std::vector<std::string>& patterns,
              std::initializer_list<std::string> names) {
  for (const std::string& p : patterns) {
    for (const std::string& n : names) {
      if (fnmatch(p.c_str(), n.c_str(), 0) == 0) return true;
    }
  }
  return false;
}

// The positions of the items `shows` lets through: the problems first, then
// the others, each part in the daemon's order.
template <typename T, typename Shows, typename Problem>
std::vector<std::size_t> problemsFirst(const std::vector<T>& items, Shows shows,
                                       Problem problem) {
  std::vector<std::size_t> out;
  for (const bool problems : {true, false}) {
    for (std::size_t i = 0; i < items.size(); ++i) {
      if (problem(items[i]) == problems && shows(items[i])) out.push_back(i);
    }
  }
  return out;
}

std::string counted(std::size_t n, const char* one) {
  return std::to_string(n) + " " + one + (n == 1 ? "" : "s");
}

// The items at `at`, in the order of `list`.
nlohmann::json only(nlohmann::json& list, std::vector<std::size_t> at) {
  std::sort(at.begin(), at.end());
  nlohmann::json out = nlohmann::json::array();
  for (const std::size_t i : at) out.push_back(std::move(list.at(i)));
  return out;
}

}  // namespace

bool StatusFilter::shows(const NodeStatus& n) const {
  if (problems && n.answers) return false;
  return nodes.empty() || anyMatch(nodes, {n.name, n.address});
}

bool serviceMatches(const std::string& pattern, const ServiceStatus& v) {
  return anyMatch({pattern}, {v.name, std::to_string(v.index)});
}

bool StatusFilter::shows(const ServiceStatus& v) const {
  if (problems && !tovtools::serviceProblem(v)) return false;
  return services.empty() || std::any_of(services.begin(), services.end(),
                                         [&v](const std::string& p) {
                                           return serviceMatches(p, v);
                                         });
}

std::string StatusFilter::text() const {
  std::string out = problems ? "--problems" : "";
  for (const auto& [option, patterns] :
       {std::pair{"--node ", &nodes}, std::pair{"--service ", &services}}) {
    for (const std::string& p : *patterns) {
      out += (out.empty() ? "" : " ") + std::string(option) + p;
    }
  }
  return out;
}

ShownRows shownRows(const Snapshot& s, const StatusFilter& f) {
  ShownRows rows;
  rows.nodes = problemsFirst(
      s.nodes, [&f](const NodeStatus& n) { return f.shows(n); },
      [](const NodeStatus& n) { return !n.answers; });
  rows.services = problemsFirst(
      s.services, [&f](const ServiceStatus& v) { return f.shows(v); },
      tovtools::serviceProblem);
  return rows;
}

std::string shownText(const Snapshot& s, const ShownRows& rows,
                      const StatusFilter& f) {
  if (!f.active()) return "";
  return "showing " + std::to_string(rows.nodes.size()) + " of " +
         counted(s.nodes.size(), "node") + " and " +
         std::to_string(rows.services.size()) + " of " +
         counted(s.services.size(), "service") + ": " + f.text();
}

nlohmann::json statusJson(const Snapshot& s, const StatusFilter& f) {
  nlohmann::json j = tovtools::snapshotJson(s);
  const ShownRows rows = shownRows(s, f);
  j["nodes"] = only(j["nodes"], rows.nodes);
  j["services"] = only(j["services"], rows.services);
  j["filter"] = {{"problems", f.problems},
                 {"node_patterns", f.nodes},
                 {"service_patterns", f.services},
                 {"nodes_shown", rows.nodes.size()},
                 {"services_shown", rows.services.size()}};
  return j;
}

}  // namespace tovctl
