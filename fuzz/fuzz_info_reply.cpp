// The cache's information-reply parser on arbitrary bytes: once as the cache
// hands it a reply (the text up to the first NUL) and once whole. A refused
// reply must leave the table alone; an accepted one must be what the cache's
// queries rely on.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "tovapi/internal_cache.h"
#include "tovapi/libtovapi.h"

namespace {

using tov1::cacheinternal::InfoTable;

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// Independent reading of a decimal field: optional sign, at least one digit,
// nothing else, within int range.
bool referenceInt(const std::string& text, long long& value) {
  std::size_t i = 0;
  const bool negative = !text.empty() && text[0] == '-';
  if (!text.empty() && (text[0] == '-' || text[0] == '+')) i = 1;
  if (i == text.size()) return false;
  for (std::size_t k = i; k < text.size(); ++k) {
    if (text[k] < '0' || text[k] > '9') return false;
  }
  while (i + 1 < text.size() && text[i] == '0') ++i;  // leading zeros
  if (text.size() - i > 10) return false;
  value = std::stoll(text.substr(i));
  if (negative) value = -value;
  return value >= INT32_MIN && value <= INT32_MAX;
}

void checkField(const std::string& field) {
  FUZZ_REQUIRE(!field.empty());
  for (char c : field) FUZZ_REQUIRE(!isBlank(c) && c != '\n');
  int got = 12345;
  long long want = 0;
  const bool ok = tov1::cacheinternal::fieldToInt(field, got);
  FUZZ_REQUIRE(ok == referenceInt(field, want));
  if (ok) FUZZ_REQUIRE(got == want);
  if (!ok) FUZZ_REQUIRE(got == 12345);
}

void checkReply(const std::string& reply) {
  // Something recognisable in the table, to see that a refusal keeps it.
  const InfoTable before{{{"X", "kept"}}};
  InfoTable table = before;
  std::string why;
  const bool ok = tov1::cacheinternal::parseInfoReply(reply, table, why);
  if (!ok) {
    FUZZ_REQUIRE(table == before);
    FUZZ_REQUIRE(!why.empty());
    return;
  }
  FUZZ_REQUIRE(reply.size() >= 2 && reply[1] == 'n');
  FUZZ_REQUIRE(table.size() == tov1::tovInfo_COUNT);
  FUZZ_REQUIRE(table[tov1::tovInfo_C].size() == 1);
  FUZZ_REQUIRE(table[tov1::tovInfo_C][0].size() == tov1::c_SIZE_OK);
  for (unsigned kind = 0; kind < table.size(); ++kind) {
    const char letter = tov1::cacheinternal::letterOfKind(kind);
    for (const auto& record : table[kind]) {
      FUZZ_REQUIRE(!record.empty());
      for (const std::string& field : record) checkField(field);
      const std::string& head = record[0];
      if (kind == tov1::tovInfo_MISC) {
        FUZZ_REQUIRE(head.size() != 1 || tov1::cacheinternal::kindOfLetter(
                                             head[0]) == tov1::tovInfo_MISC);
      } else {
        FUZZ_REQUIRE(head.size() == 1 && head[0] == letter);
        FUZZ_REQUIRE(tov1::cacheinternal::kindOfLetter(letter) == kind);
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size) {
  const std::string whole(reinterpret_cast<const char*>(data), size);
  checkReply(whole.c_str());
  if (whole.find('\0') != std::string::npos) checkReply(whole);
  // The line splitter on its own, with every field read as a number.
  for (const std::string& field : tov1::cacheinternal::splitFields(whole)) {
    if (field.find('\n') == std::string::npos) checkField(field);
  }
  return 0;
}
