// Cluster discovery for the tools: one probe, the answers collected for the
// discovery window, and their lines grouped into records as the library
// groups them. The tools collect the answers themselves so that they know
// who sent each one: a malformed answer is skipped with its sender and the
// reason, and costs no other answer its place. Nothing here prints.
//
// Grouping, as the library does it over the lines of all answers in their
// order of arrival: a cluster line (C) starts a record and the node lines
// (N) right after it are its nodes, also when they come in the next
// datagram: a daemon splits an answer that does not fit one datagram, and
// the node lines at the start of a datagram continue the record that ended
// the datagram before it (whoever sent it). A line that is neither ends the
// record.
//
// Whatever arrives, discovery keeps little: each answer is judged as it
// arrives (malformed, left out by the mode, a duplicate, or kept), at most
// kDiscoveryMaxRecords records and kDiscoveryMaxBytes bytes of answers are
// kept, and what is dropped beyond that is counted, not stored. The work per
// answer does not grow with what was kept, so the collection ends on time.
//
// Programs that use this link the client library (shared or static).
#ifndef TOOLS_COMMON_DISCOVERY_H
#define TOOLS_COMMON_DISCOVERY_H

#include <chrono>
#include <cstddef>
#include <string>
#include <unordered_set>
#include <vector>

#include "common/deadline.h"

namespace tovtools {

// The daemons listen for the probe on this port, whatever their TCP port.
constexpr int kDiscoveryPort = 1195;
// How long answers are collected, as the library does.
constexpr std::chrono::milliseconds kDiscoveryWindow{2500};
// Records kept at most: clusters (once per configuration CRC) and bootstrap
// machines (each).
constexpr std::size_t kDiscoveryMaxRecords = 1024;
// Bytes of the answers kept at most: 25 answers of a 256-node cluster, or a
// thousand of a bootstrap machine.
constexpr std::size_t kDiscoveryMaxBytes = 256 * 1024;
// Malformed answers named at most; the rest are counted.
constexpr std::size_t kDiscoveryMaxListedSkips = 16;
// Node lines one cluster record may have: a cluster has at most 256 nodes.
constexpr std::size_t kDiscoveryMaxNodeLines = 256;

// One datagram: who sent it and its text up to the first NUL byte.
struct DiscoveryAnswer {
  std::string sender;
  std::string text;
};

struct DiscoveredRecord {
  std::string sender;                // of the cluster line
  std::vector<std::string> cluster;  // the 13 fields of the C line
  // The fields of each N line that are shown: letter, name, address and
  // family.
  std::vector<std::vector<std::string>> nodes;
};

struct SkippedAnswer {
  std::string sender;
  std::string reason;
};

struct DiscoverySelection {
  std::vector<DiscoveredRecord> records;  // in order of arrival, filtered
  std::vector<SkippedAnswer> skipped;     // the first kDiscoveryMaxListedSkips
  std::size_t skippedCount = 0;           // every malformed answer
  std::size_t dropped = 0;                // well-formed, beyond the caps
  std::size_t droppedBytes = 0;
  std::size_t lost = 0;  // never read: the receive queue overflowed
};

// Judges answers one at a time. A malformed answer is skipped whole and
// leaves no trace: the record the answer before it left open stays open. Of
// the others, the records that pass the mode filter and the duplicate rule
// are kept (a configured cluster once per configuration CRC, every bootstrap
// machine, and a bootstrap machine's CRC also hides a configured cluster
// that comes later with the same CRC), as long as the caps allow the whole
// answer. Node lines that continue a record left out by the mode or the
// duplicate rule go with it; once an answer with node lines of a record is
// dropped at the caps, the record's later node lines are dropped (and
// counted) too, so that no record is shown with a gap.
class AnswerSelector {
 public:
  explicit AnswerSelector(int mode) : mode_(mode) {}
  void add(const DiscoveryAnswer& a);
  const DiscoverySelection& selection() const { return found_; }
  DiscoverySelection& selection() { return found_; }

 private:
  // What the node lines at the start of the next answer continue: nothing,
  // a kept record, one left out by the mode or as a duplicate, or one
  // whose node lines were dropped at the caps.
  enum class Open { None, Kept, LeftOut, Dropped };
  struct Parsed;
  std::string parse(const DiscoveryAnswer& a, Parsed& p) const;
  // The mode filter and the duplicate rule; `crcs` are those the answer
  // has kept so far.
  bool passes(const DiscoveredRecord& r,
              const std::unordered_set<std::string>& crcs) const;
  // Keeps what a well-formed answer adds, within the caps.
  void judge(const DiscoveryAnswer& a, Parsed& p);

  int mode_;
  DiscoverySelection found_;
  std::unordered_set<std::string> crcs_;
  std::size_t keptBytes_ = 0;
  Open open_ = Open::None;
  std::string openName_;       // of the open record, for messages
  std::size_t openNodes_ = 0;  // node lines the open record has had
};

struct DiscoveryRun {
  int result = 0;         // 0, or the negated result code of the failed step
  bool cutShort = false;  // the deadline ended the window early
};

// Sends the 8-byte probe to UDP port 1195 of `target` (an IPv4 address or
// name; a broadcast address is allowed) and hands every answer that arrives
// within the discovery window, or until `deadline` if that comes first, to
// `selector`, then records how many the receive queue lost. Failures carry
// the library's discovery result codes. Holds a guard of `deadline` while it
// waits.
DiscoveryRun collectAnswers(const std::string& target, Deadline& deadline,
                            AnswerSelector& selector);

}  // namespace tovtools

#endif  // TOOLS_COMMON_DISCOVERY_H
