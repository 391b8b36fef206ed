// Cluster discovery as the operator sees it. The tool collects the answers
// itself so that it knows who sent each one: a malformed answer is skipped
// with a warning naming its sender, and costs no other answer its place.
// `--raw` is the library's own discovery, byte for byte.
//
// Whatever arrives, discovery keeps little: each answer is judged as it
// arrives (malformed, filtered out, a duplicate, or kept), at most
// kMaxRecords records and kMaxKeptBytes bytes of answers are kept, and
// what is dropped beyond that is counted, not stored. The work per answer
// does not grow with what was kept, so the collection ends on time.
#ifndef TOOLS_TOVCTL_DISCOVERY_H
#define TOOLS_TOVCTL_DISCOVERY_H

#include <cstddef>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <unordered_set>
#include <vector>

#include "session.h"

namespace tovctl {

// Records shown at most: clusters (once per configuration CRC) and
// bootstrap machines (each).
constexpr std::size_t kMaxRecords = 1024;
// Bytes of the answers kept at most: 25 answers of a 256-node cluster, or
// a thousand of a bootstrap machine.
constexpr std::size_t kMaxKeptBytes = 256 * 1024;
// Malformed answers named at most; the rest are counted.
constexpr std::size_t kMaxListedSkips = 16;
// Node lines one cluster record may have: a cluster has at most 256 nodes.
constexpr std::size_t kMaxNodeLines = 256;

// One datagram: who sent it and its text up to the first NUL byte.
struct Answer {
  std::string sender;
  std::string text;
};

struct FoundRecord {
  std::string sender;
  std::vector<std::string> cluster;  // the 13 fields of the C line
  // The fields of each N line that are shown: letter, name, address and
  // family.
  std::vector<std::vector<std::string>> nodes;
};

struct SkippedAnswer {
  std::string sender;
  std::string reason;
};

struct Selection {
  std::vector<FoundRecord> records;    // in order of arrival, filtered
  std::vector<SkippedAnswer> skipped;  // the first kMaxListedSkips
  std::size_t skippedCount = 0;        // every malformed answer
  std::size_t dropped = 0;             // well-formed, beyond the caps
  std::size_t droppedBytes = 0;
  std::size_t lost = 0;  // never read: the receive queue overflowed
};

// Judges answers one at a time: splits each into its records, skips a
// malformed answer whole, and keeps the records that pass the mode filter
// and the duplicate rule (a configured cluster is shown once per
// configuration CRC, every bootstrap machine is shown, and a bootstrap
// machine's CRC also hides a configured cluster that comes later with the
// same CRC), as long as the caps allow the whole answer.
class AnswerSelector {
 public:
  explicit AnswerSelector(int mode) : mode_(mode) {}
  void add(const Answer& a);
  const Selection& selection() const { return found_; }
  Selection& selection() { return found_; }

 private:
  int mode_;
  Selection found_;
  std::unordered_set<std::string> crcs_;
  std::size_t keptBytes_ = 0;
};

// The labelled report: each record, then the summary line with the count.
void printReport(std::ostream& out, const Selection& found, int mode);

nlohmann::json selectionJson(const Selection& found, int mode);

int cmdDiscover(const Options& o, const std::string& host, int mode, bool raw);

}  // namespace tovctl

#endif  // TOOLS_TOVCTL_DISCOVERY_H
