// Which cluster a scrape reads: the entry nodes given with -H or in a
// /probe request's `target`, or a cluster named in the tools' configuration
// file (--cluster, or a /probe request's `cluster`).
#ifndef TOOLS_TOVEXPORTER_TARGETS_H
#define TOOLS_TOVEXPORTER_TARGETS_H

#include <map>
#include <string>
#include <vector>

#include "common/clusters.h"
#include "common/snapshot.h"

namespace tovexporter {

// What the exporter's options say for whatever a target leaves open.
struct Defaults {
  int port = 1195;
  double timeout = 3;    // connection and salt of the information request
  double deadline = 10;  // the longest a scrape may take; 0: no limit
  // Given on the command line: then they win over a named cluster's own
  // keys, as with every tool (docs/configuration.md, "Precedence").
  bool portGiven = false;
  bool timeoutGiven = false;
  bool deadlineGiven = false;
};

struct Target {
  // The `target` label of its counters and the key under which scrapes
  // share a snapshot: a cluster's name, or the entry nodes as
  // "host:port,[v6]:port". Cluster names have no colon, entries always
  // have one, so the two never meet.
  std::string name;
  std::vector<tovtools::Endpoint> entries;  // asked in this order
  double timeout = 3;
  double deadline = 10;
};

// Entry nodes from texts such as "host", "host:port", "[v6]:port", several
// to a text when separated by commas; a port left out is the default one.
// False, with a one-line reason, for an empty or malformed entry node, or
// more than a cluster has nodes.
bool entriesTarget(const std::vector<std::string>& texts, const Defaults& d,
                   Target& out, std::string& why);

// A named cluster: its hosts, and its own port, timeout and deadline where
// the file gives them and the command line does not. The user and password
// file are not read: the exporter needs no password.
bool clusterTarget(const tovtools::ClusterConfig& c, const Defaults& d,
                   Target& out, std::string& why);

// Every cluster of the file as a target, checked at start.
bool clusterTargets(const tovtools::ClusterFile& file, const Defaults& d,
                    std::map<std::string, Target>& out, std::string& why);

// The target of a /probe request from its query parameters: `target` (once
// or more, commas allowed) or one `cluster`. False, with a one-line reason
// fit for an HTTP 400, for none of them, both, a bad entry node or a cluster
// the file does not have.
bool probeTarget(const std::multimap<std::string, std::string>& params,
                 const Defaults& d, const std::map<std::string, Target>& named,
                 Target& out, std::string& why);

}  // namespace tovexporter

#endif  // TOOLS_TOVEXPORTER_TARGETS_H
