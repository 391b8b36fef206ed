// Cluster discovery as the operator sees it. The tool collects the answers
// itself so that it knows who sent each one: a malformed answer is skipped
// with a warning naming its sender, and costs no other answer its place.
// `--raw` is the library's own discovery, byte for byte.
#ifndef TOOLS_TOVCTL_DISCOVERY_H
#define TOOLS_TOVCTL_DISCOVERY_H

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "session.h"

namespace tovctl {

// One datagram: who sent it and its text up to the first NUL byte.
struct Answer {
  std::string sender;
  std::string text;
};

struct FoundRecord {
  std::string sender;
  std::vector<std::string> cluster;             // the 13 fields of the C line
  std::vector<std::vector<std::string>> nodes;  // fields of each N line
};

struct SkippedAnswer {
  std::string sender;
  std::string reason;
};

struct Selection {
  std::vector<FoundRecord> records;  // in order of arrival, filtered
  std::vector<SkippedAnswer> skipped;
};

// Splits every answer into its records, skips malformed answers whole, and
// keeps the records that pass the mode filter and the duplicate rule: a
// configured cluster is shown once per configuration CRC, every bootstrap
// machine is shown, and a bootstrap machine's CRC also hides a configured
// cluster that comes later with the same CRC.
Selection selectAnswers(const std::vector<Answer>& answers, int mode);

// The labelled report: each record, then the summary line with the count.
void printReport(std::ostream& out, const Selection& found, int mode);

nlohmann::json selectionJson(const Selection& found, int mode);

int cmdDiscover(const Options& o, const std::string& host, int mode, bool raw);

}  // namespace tovctl

#endif  // TOOLS_TOVCTL_DISCOVERY_H
