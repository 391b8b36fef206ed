// Internal helpers of the information cache and the cluster queries. The
// reply parser lives here as a free function so that it can be driven on its
// own (unit tests, fuzzing) without a daemon. Not part of the public API.
#ifndef TOVAPI_INTERNAL_CACHE_H
#define TOVAPI_INTERNAL_CACHE_H

#include <string>
#include <vector>

#include "libtovapi.h"

namespace tov1 {
namespace cacheinternal {

// One record: its letter at position 0, then its fields.
using InfoRecord = std::vector<std::string>;
// The records of one host, indexed by record kind (tovInfo_COUNT entries).
using InfoTable = std::vector<std::vector<InfoRecord>>;

// Port used for a host that was never refreshed with an explicit port.
extern const char* const kDefaultPort;
// Address used for an empty address.
extern const char* const kDefaultAddress;

// Record kind of a record letter; tovInfo_MISC for every other character.
tov_info_letters kindOfLetter(char letter);

// Letter of a record kind; '\0' for tovInfo_MISC and for values that are no
// record kind (their records carry their own letters).
char letterOfKind(unsigned kind);

// Splits a record line at blanks (space, tab, carriage return); a run of
// blanks separates two fields and never yields an empty field.
std::vector<std::string> splitFields(const std::string& line);

// Parses an information reply: the reply line ("Cn ..."), then one record per
// line. On success `out` holds tovInfo_COUNT kinds with their records in
// reply order and the result is true. A reply that is not a data reply, that
// has no cluster record, more than one, or one without exactly c_SIZE_OK
// fields is refused: the result is false, `why` says what is wrong, and `out`
// is left as it was.
bool parseInfoReply(const std::string& reply, InfoTable& out, std::string& why);

// The value of a decimal field (optional sign, digits only, within int range).
bool fieldToInt(const std::string& text, int& value);

// The port that the latest refresh of `host` by `cache` asked, whether or not
// the daemon answered; "" when there was none. Clearing the cache keeps it.
std::string rememberedPort(const TOVNetCache& cache, const std::string& host);

}  // namespace cacheinternal
}  // namespace tov1

#endif  // TOVAPI_INTERNAL_CACHE_H
