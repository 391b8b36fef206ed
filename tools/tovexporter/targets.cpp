#include "targets.h"

#include <iterator>

#include "common/access.h"
#include "common/text.h"

namespace tovexporter {

namespace {

// What a host name or an address (IPv6 with its zone) is made of; anything
// else in a target is a mistake, or text meant for something else.
constexpr const char* kHostChars =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-_:%";
constexpr std::size_t kLongestHost = 255;

bool addEntry(const std::string& text, int defaultPort, Target& t,
              std::string& why) {
  std::string host;
  int port = defaultPort;
  if (!tovtools::splitHostPort(text, host, port, why)) {
    why = "bad entry node: " + why;
    return false;
  }
  if (host.size() > kLongestHost ||
      host.find_first_not_of(kHostChars) != std::string::npos) {
    why = "bad entry node \"" + text + "\": not a host name or address";
    return false;
  }
  if (t.entries.size() >= tovtools::kMaxNodes) {
    why = "more than " + std::to_string(tovtools::kMaxNodes) +
          " entry nodes, more than a cluster has";
    return false;
  }
  const std::string portText = std::to_string(port);
  t.entries.push_back({host, portText});
  if (!t.name.empty()) t.name += ',';
  t.name += host.find(':') != std::string::npos ? "[" + host + "]" : host;
  t.name += ':' + portText;
  return true;
}

bool probeTargetOf(const std::multimap<std::string, std::string>& params,
                   const Defaults& d,
                   const std::map<std::string, Target>& named, Target& out,
                   std::string& why) {
  const auto targets = params.equal_range("target");
  const auto clusters = params.equal_range("cluster");
  const auto nTargets = std::distance(targets.first, targets.second);
  const auto nClusters = std::distance(clusters.first, clusters.second);
  if (nTargets == 0 && nClusters == 0) {
    why = "missing parameter: target=HOST[:PORT] or cluster=NAME";
    return false;
  }
  if (nTargets > 0 && nClusters > 0) {
    why = "give target or cluster, not both";
    return false;
  }
  if (nClusters > 1) {
    why = "give one cluster at a time";
    return false;
  }
  if (nClusters == 1) {
    const std::string& name = clusters.first->second;
    const auto found = named.find(name);
    if (found == named.end()) {
      why = "unknown cluster \"" + name + "\"";
      return false;
    }
    out = found->second;
    return true;
  }
  std::vector<std::string> texts;
  for (auto it = targets.first; it != targets.second; ++it) {
    texts.push_back(it->second);
  }
  return entriesTarget(texts, d, out, why);
}

}  // namespace

bool entriesTarget(const std::vector<std::string>& texts, const Defaults& d,
                   Target& out, std::string& why) {
  Target t;
  t.timeout = d.timeout;
  t.deadline = d.deadline;
  for (const std::string& text : texts) {
    std::size_t at = 0;
    for (;;) {
      const std::size_t comma = text.find(',', at);
      const std::size_t end = comma == std::string::npos ? text.size() : comma;
      if (!addEntry(text.substr(at, end - at), d.port, t, why)) return false;
      if (comma == std::string::npos) break;
      at = comma + 1;
    }
  }
  if (t.entries.empty()) {
    why = "no entry node";
    return false;
  }
  out = std::move(t);
  return true;
}

bool clusterTarget(const tovtools::ClusterConfig& c, const Defaults& d,
                   Target& out, std::string& why) {
  Defaults own = d;
  if (c.port && !d.portGiven) own.port = *c.port;
  if (c.timeout && !d.timeoutGiven) own.timeout = *c.timeout;
  if (c.deadline && !d.deadlineGiven) own.deadline = *c.deadline;
  Target t;
  if (!entriesTarget(c.hosts, own, t, why)) {
    why = "cluster " + c.name + ": " + why;
    return false;
  }
  t.name = c.name;
  out = std::move(t);
  return true;
}

bool clusterTargets(const tovtools::ClusterFile& file, const Defaults& d,
                    std::map<std::string, Target>& out, std::string& why) {
  std::map<std::string, Target> all;
  for (const auto& c : file.clusters) {
    if (!clusterTarget(c.second, d, all[c.first], why)) {
      why = file.path + ": " + why;
      return false;
    }
  }
  out = std::move(all);
  return true;
}

bool probeTarget(const std::multimap<std::string, std::string>& params,
                 const Defaults& d, const std::map<std::string, Target>& named,
                 Target& out, std::string& why) {
  if (probeTargetOf(params, d, named, out, why)) return true;
  // The reason may quote the request: it must not act on a terminal.
  why = tovtools::escapeControls(why, false);
  return false;
}

}  // namespace tovexporter
