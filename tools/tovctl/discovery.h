// Cluster discovery as the operator sees it: the labelled report (the
// library's layout), the JSON document and the warnings about what was not
// kept, over the tools' discovery core (common/discovery.h). `--raw` is the
// library's own discovery, byte for byte.
#ifndef TOOLS_TOVCTL_DISCOVERY_H
#define TOOLS_TOVCTL_DISCOVERY_H

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "common/discovery.h"
#include "session.h"

namespace tovctl {

// The labelled report: each record, then the summary line with the count.
// Daemon text is shown escaped when standard output is a terminal.
void printReport(std::ostream& out, const tovtools::DiscoverySelection& found,
                 int mode);

nlohmann::json selectionJson(const tovtools::DiscoverySelection& found,
                             int mode);

int cmdDiscover(const Options& o, const std::string& host, int mode, bool raw);

}  // namespace tovctl

#endif  // TOOLS_TOVCTL_DISCOVERY_H
