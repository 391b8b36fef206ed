// Named clusters: a TOML file that names each cluster once, with its entry
// nodes and how to reach them, so that a tool can be told `--cluster prod`
// instead of a row of options (docs/configuration.md).
//
//   [clusters.prod]
//   hosts = ["10.0.0.11", "10.0.0.12:1195"]   # the only key required
//   port = 1195
//   user = "admin"
//   password_file = "prod.pw"
//   deadline = 20
//   timeout = 3
//
// The file is checked whole: an unknown key, a value of the wrong type or out
// of range, or a password written into it makes it bad, and the error names
// the file, line and column. The callers read TOV_CONFIG and TOV_CLUSTER;
// this module reads only HOME and the XDG variables.
#ifndef TOOLS_COMMON_CLUSTERS_H
#define TOOLS_COMMON_CLUSTERS_H

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace tovtools {

struct ClusterConfig {
  std::string name;
  // As written: "host", "host:port", "[v6]" or "[v6]:port", like -H.
  std::vector<std::string> hosts;
  std::optional<int> port;
  std::optional<std::string> user;
  // Resolved: a leading "~/" is the home directory, and a relative path is
  // relative to the directory of the cluster file.
  std::optional<std::string> passwordFile;
  std::optional<double> deadline;  // seconds; 0 for none
  std::optional<double> timeout;   // seconds
  std::string source;              // "path:line" where the cluster begins
};

struct ClusterFile {
  std::string path;  // the file read; "" when none was found
  std::map<std::string, ClusterConfig> clusters;
};

// The places looked at, in order: the explicit path alone when it is given;
// else $XDG_CONFIG_HOME/tov/clusters.toml (default ~/.config), each
// directory of $XDG_CONFIG_DIRS (default /etc/xdg) with /tov/clusters.toml,
// and /etc/tov/clusters.toml. Relative directories are skipped.
std::vector<std::string> clusterFileCandidates(const std::string& explicitPath);

// Reads one file, at most 1 MiB. False, with `why` in one line naming
// path:line:column where it can, for a file that cannot be read or is bad;
// `out` is then left alone.
bool loadClusterFile(const std::string& path, ClusterFile& out,
                     std::string& why);

// Reads the first of clusterFileCandidates() that exists; an explicit path
// must exist. With no file anywhere: true, and `out` empty with path "".
bool findClusterFile(const std::string& explicitPath, ClusterFile& out,
                     std::string& why);

// The cluster `name` of the file findClusterFile() finds. False, with `why`,
// when that file is bad, when there is none (the places searched are
// listed), or when it has no such cluster (the names it has are listed).
bool findCluster(const std::string& explicitPath, const std::string& name,
                 ClusterConfig& out, std::string& why);

}  // namespace tovtools

#endif  // TOOLS_COMMON_CLUSTERS_H
