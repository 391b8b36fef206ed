// Values that must never appear in diagnostics: the password digests that
// the authentication helper computes or is handed. Anyone holding one can
// authenticate to a daemon as that user, so Debug blanks them in every line
// it shows or logs. Not part of the public API.
#ifndef TOVAPI_INTERNAL_SECRETS_H
#define TOVAPI_INTERNAL_SECRETS_H

#include <cstddef>
#include <string>

namespace tov1 {
namespace secrets {

// Text that stands in for a remembered value.
extern const char* const kRedacted;

// Values shorter than this are not remembered, so that ordinary words in a
// line are never blanked.
constexpr std::size_t kMinLength = 16;

// How many distinct values are kept; remembering one more forgets the one
// remembered longest ago.
constexpr std::size_t kCapacity = 64;

// Remembers `value` process-wide (thread-safe). Values shorter than
// kMinLength are ignored; remembering a known value again refreshes it.
void remember(const std::string& value);

// True when at least one value is remembered. Lock-free, so a caller can
// skip all other work while nothing is.
bool any();

// Replaces every occurrence of every remembered value in `text` with
// kRedacted. True when something was replaced.
bool redact(std::string& text);

// True when the environment variable TOVAPI_SHOW_SECRETS is exactly "1": the
// user asked to see the values. Read on every call, so that a program may
// set it after the library is loaded.
bool shown();

// Forgets every remembered value (for tests).
void forgetAll();

}  // namespace secrets
}  // namespace tov1

#endif  // TOVAPI_INTERNAL_SECRETS_H
