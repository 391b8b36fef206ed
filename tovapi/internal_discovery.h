// Internal: the processing half of cluster discovery (grouping the pooled
// answer lines into records, selecting them and printing the report). It is
// defined in the client's source unit; this header lets the fuzzer and the
// benchmarks drive it without a network.
#ifndef TOVAPI_INTERNAL_DISCOVERY_H
#define TOVAPI_INTERNAL_DISCOVERY_H

#include <ostream>
#include <string>
#include <vector>

namespace tov1 {
namespace discovery {

// Groups the answer lines, keeps the records that pass the mode filter and
// the duplicate rule, prints each one and the summary to `out`, and returns
// the number of records printed. Lets std::out_of_range through for an empty
// pooled line, and in the labelled layout for a node line with fewer than 3
// fields.
unsigned reportAnswers(const std::vector<std::string>& pooledLines, int mode,
                       bool prettyPrint, std::ostream& out);

}  // namespace discovery
}  // namespace tov1

#endif  // TOVAPI_INTERNAL_DISCOVERY_H
