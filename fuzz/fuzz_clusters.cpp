// The clusters file reader on arbitrary bytes: it must never crash nor hang,
// a refused file must say why in one line and leave what it was given
// alone, and an accepted one must hold only what a tool can use as it is.
#include <unistd.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "common/access.h"
#include "common/clusters.h"
#include "fuzz_support.h"

namespace {

// One file for every input, rewritten each time.
const std::string& scratch() {
  static const std::string path = [] {
    char name[] = "/tmp/fuzz-clusters-XXXXXX";
    const int fd = mkstemp(name);
    if (fd >= 0) close(fd);
    return std::string(name);
  }();
  return path;
}

void checkCluster(const tovtools::ClusterConfig& c) {
  FUZZ_REQUIRE(!c.name.empty() && c.name.size() <= 64);
  FUZZ_REQUIRE(!c.hosts.empty() && c.hosts.size() <= 256);
  for (const std::string& h : c.hosts) {
    std::string host, why;
    int port = 1195;
    FUZZ_REQUIRE(tovtools::splitHostPort(h, host, port, why));
  }
  FUZZ_REQUIRE(!c.port || (*c.port >= 1 && *c.port <= 65535));
  FUZZ_REQUIRE(!c.deadline || (std::isfinite(*c.deadline) && *c.deadline >= 0 &&
                               *c.deadline <= 86400));
  FUZZ_REQUIRE(!c.timeout || (std::isfinite(*c.timeout) && *c.timeout > 0 &&
                              *c.timeout <= 86400));
  FUZZ_REQUIRE(!c.user || (!c.user->empty() && c.user->find_first_of(" \t\n") ==
                                                   std::string::npos));
  FUZZ_REQUIRE(!c.passwordFile || !c.passwordFile->empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  std::FILE* f = std::fopen(scratch().c_str(), "wb");
  if (f == nullptr) return 0;
  std::fwrite(data, 1, size, f);
  std::fclose(f);
  tovtools::ClusterFile file;
  file.path = "untouched";
  std::string why;
  if (!tovtools::loadClusterFile(scratch(), file, why)) {
    FUZZ_REQUIRE(!why.empty() && why.find('\n') == std::string::npos);
    FUZZ_REQUIRE(file.path == "untouched" && file.clusters.empty());
    return 0;
  }
  FUZZ_REQUIRE(why.empty() || why.find('\n') == std::string::npos);
  for (const auto& [name, cluster] : file.clusters) {
    FUZZ_REQUIRE(name == cluster.name);
    checkCluster(cluster);
  }
  return 0;
}
