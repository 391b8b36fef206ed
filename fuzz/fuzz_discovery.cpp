// The processing half of cluster discovery on arbitrary answers. The input
// is cut at NUL bytes into datagrams (an answer's text ends at its first NUL
// anyway), each one is cut to what one receive takes, and their lines are
// pooled as discovery pools them. Every layout and mode then runs over the
// same pool, printing into a stream that drops its text.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "tovapi/internal_discovery.h"
#include "tovapi/libtovapi.h"

namespace {

// One receive reads at most this many bytes of an answer.
constexpr std::size_t kReceiveMax = 2047;

// Whether a node line that the grouping attaches to a cluster line has fewer
// than 3 fields once split at blanks: the labelled layout reads fields 1
// and 2 of every attached node line with checked access.
bool hasShortAttachedNodeLine(const std::vector<std::string>& pooled) {
  bool inGroup = false;
  for (const std::string& line : pooled) {
    if (line[0] == 'C') {
      inGroup = true;
    } else if (line[0] == 'N' && inGroup) {
      std::vector<std::string> fields;
      tovUtils::tokenizer(line, fields, " ");
      if (fields.size() < 3) return true;
    } else {
      inGroup = false;
    }
  }
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  std::vector<std::string> pooled;
  for (std::size_t start = 0; start < input.size();) {
    std::size_t nul = input.find('\0', start);
    if (nul == std::string::npos) nul = input.size();
    const std::string answer =
        input.substr(start, std::min(nul - start, kReceiveMax));
    tovUtils::tokenizer(answer, pooled, "\n");
    start = nul + 1;
  }
  // The tokenizer never yields an empty piece; discovery relies on that.
  for (const std::string& line : pooled) FUZZ_REQUIRE(!line.empty());
  const bool shortNodeLine = hasShortAttachedNodeLine(pooled);

  fuzzsupport::NullBuf sink;
  std::ostream out(&sink);
  unsigned found[2][3] = {};
  bool labelledThrew[3] = {};
  for (int mode = 0; mode <= 2; ++mode) {
    for (bool pretty : {false, true}) {
      try {
        found[pretty][mode] =
            tov1::discovery::reportAnswers(pooled, mode, pretty, out);
      } catch (const std::out_of_range&) {
        // Discovery lets std::out_of_range through on purpose in two cases:
        // an empty pooled line (ruled out above, since the tokenizer yields
        // none) and, in the labelled layout only, an attached node line with
        // fewer than 3 fields. Anything else is a crash.
        if (!pretty || !shortNodeLine) throw;
        labelledThrew[mode] = true;
      }
    }
  }
  for (int mode = 0; mode <= 2; ++mode) {
    if (!labelledThrew[mode]) FUZZ_REQUIRE(found[0][mode] == found[1][mode]);
  }
  // Mode 1 keeps every bootstrap record; mode 0 adds at most the configured
  // clusters that mode 2 keeps.
  FUZZ_REQUIRE(found[0][1] <= found[0][0]);
  FUZZ_REQUIRE(found[0][0] <= found[0][1] + found[0][2]);
  return 0;
}
