// The tools' discovery against the library's, on the same answers. The
// first byte of the input picks the mode (its value modulo 4: 0 all, 1
// bootstrap, 2 clusters, 3 a mode the library treats as all); the rest is
// cut at 0xFF bytes into datagrams, each one's text ending at its first NUL
// as a receive hands it over. The library's labelled report runs over the
// datagrams' lines pooled as it pools them; the tools' core takes the same
// datagrams one at a time and tovctl's printer writes its report. For a
// well-formed set of datagrams (wellFormed() below, docs/tovctl.md) the two
// reports must be the same bytes and the core must have skipped and dropped
// nothing; for any set the core must stay within its caps. Random bytes are
// seldom well-formed, so each input also runs as its well-formed part: the
// lines that would break the rules left out.
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/discovery.h"
#include "common/text.h"
#include "fuzz_support.h"
#include "tools/tovctl/discovery.h"
#include "tovapi/internal_discovery.h"
#include "tovapi/libtovapi.h"

namespace {

constexpr char kSeparator = '\xFF';  // never part of UTF-8 text

std::vector<std::string> datagramsOf(const std::string& input) {
  std::vector<std::string> texts;
  for (std::size_t start = 0; start <= input.size();) {
    std::size_t end = input.find(kSeparator, start);
    if (end == std::string::npos) end = input.size();
    const std::string datagram = input.substr(start, end - start);
    texts.push_back(datagram.substr(0, datagram.find('\0')));
    start = end + 1;
  }
  return texts;
}

std::size_t fieldCount(const std::string& line) {
  std::vector<std::string> fields;
  tovUtils::tokenizer(line, fields, " ");
  return fields.size();
}

// Well-formed: every datagram has a line, and every pooled line (the
// datagrams' texts split at line feeds, empty pieces left out) is either a
// cluster line (first byte 'C', 13 fields when split at blanks) or a node line
// (first byte 'N', at least 3 fields), and the first line of all is not a node
// line; every line is text a terminal shows as it is (no control characters,
// only well-formed UTF-8 without C1 controls); within the caps: at most 1024
// cluster lines, at most 256 node lines after each, at most 256 KiB of text in
// all.
bool wellFormed(const std::vector<std::string>& texts,
                const std::vector<std::string>& pooled) {
  std::size_t bytes = 0;
  for (const std::string& text : texts) {
    if (text.find_first_not_of('\n') == std::string::npos) return false;
    bytes += text.size();
  }
  if (bytes > tovtools::kDiscoveryMaxBytes) return false;
  std::size_t clusters = 0, nodes = 0;
  for (const std::string& line : pooled) {
    if (tovtools::escapeControls(line, false) != line) return false;
    if (line[0] == 'C' && fieldCount(line) == tov1::c_SIZE_OK) {
      ++clusters;
      nodes = 0;
    } else if (line[0] != 'N' || clusters == 0 || fieldCount(line) < 3 ||
               ++nodes > tovtools::kDiscoveryMaxNodeLines) {
      return false;
    }
  }
  return clusters <= tovtools::kDiscoveryMaxRecords;
}

// The datagrams with every line left out that a well-formed set may not
// have where it stands, and the datagrams left without a line; none when
// that is still too large.
std::vector<std::string> wellFormedPart(const std::vector<std::string>& texts) {
  std::vector<std::string> part;
  std::size_t bytes = 0, clusters = 0, nodes = 0;
  for (const std::string& text : texts) {
    std::vector<std::string> lines;
    tovUtils::tokenizer(text, lines, "\n");
    std::string kept;
    for (const std::string& line : lines) {
      if (tovtools::escapeControls(line, false) != line) continue;
      const std::size_t n = fieldCount(line);
      if (line[0] == 'C' && n == tov1::c_SIZE_OK &&
          clusters < tovtools::kDiscoveryMaxRecords) {
        ++clusters;
        nodes = 0;
      } else if (line[0] == 'N' && n >= 3 && clusters > 0 &&
                 nodes < tovtools::kDiscoveryMaxNodeLines) {
        ++nodes;
      } else {
        continue;
      }
      kept += (kept.empty() ? "" : "\n") + line;
    }
    if (kept.empty()) continue;
    bytes += kept.size();
    part.push_back(std::move(kept));
  }
  if (bytes > tovtools::kDiscoveryMaxBytes) return {};
  return part;
}

// What the core keeps stays within its caps, whatever arrives.
void checkBounds(const tovtools::DiscoverySelection& s) {
  FUZZ_REQUIRE(s.records.size() <= tovtools::kDiscoveryMaxRecords);
  for (const tovtools::DiscoveredRecord& r : s.records) {
    FUZZ_REQUIRE(r.cluster.size() == tov1::c_SIZE_OK);
    FUZZ_REQUIRE(r.nodes.size() <= tovtools::kDiscoveryMaxNodeLines);
    for (const auto& node : r.nodes) {
      FUZZ_REQUIRE(node.size() >= 3 && node.size() <= tov1::n_SIZE_OK);
    }
  }
  FUZZ_REQUIRE(s.skipped.size() <= tovtools::kDiscoveryMaxListedSkips);
  FUZZ_REQUIRE(s.skippedCount >= s.skipped.size());
  // A dropped answer always has text: something of it would be kept.
  FUZZ_REQUIRE((s.dropped == 0) == (s.droppedBytes == 0));
}

// Both discoveries over the datagrams; their reports must agree when the
// datagrams are well-formed.
void compare(const std::vector<std::string>& texts, int mode,
             bool mustBeWellFormed) {
  std::vector<std::string> pooled;
  for (const std::string& text : texts) {
    tovUtils::tokenizer(text, pooled, "\n");
  }
  const bool checked = wellFormed(texts, pooled);
  FUZZ_REQUIRE(checked || !mustBeWellFormed);

  tovtools::AnswerSelector selector(mode);
  for (const std::string& text : texts) selector.add({"127.0.0.1", text});
  const tovtools::DiscoverySelection& found = selector.selection();
  checkBounds(found);
  std::ostringstream tools;
  tovctl::printReport(tools, found, mode);

  std::ostringstream library;
  unsigned count = 0;
  try {
    count = tov1::discovery::reportAnswers(pooled, mode, true, library);
  } catch (const std::out_of_range&) {
    // The library's labelled report gives up at a short node line, which a
    // well-formed set does not have.
    FUZZ_REQUIRE(!checked);
    return;
  }
  if (!checked) return;
  FUZZ_REQUIRE(found.skippedCount == 0 && found.dropped == 0);
  FUZZ_REQUIRE(found.records.size() == count);
  FUZZ_REQUIRE(tools.str() == library.str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  if (size == 0) return 0;
  const int mode = data[0] % 4;
  const std::vector<std::string> texts = datagramsOf(
      std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
  compare(texts, mode, false);
  const std::vector<std::string> part = wellFormedPart(texts);
  if (part != texts) compare(part, mode, true);
  return 0;
}
