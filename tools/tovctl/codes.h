// Result codes as the operator sees them: names, texts, exit statuses and the
// one line that reports a failure.
#ifndef TOOLS_TOVCTL_CODES_H
#define TOOLS_TOVCTL_CODES_H

#include <string>

namespace tovctl {

// Exit statuses. A result code 1..89 leaves the program as its own number, so
// scripts can test for it; the values below can never be result codes.
constexpr int kExitOk = 0;
constexpr int kExitUnexpected = 99;  // the library returned no known code
constexpr int kExitUsage = 100;      // bad command line, unknown service, ...

// Symbolic name of a result code ("TOV_COMMS_FAIL"); "" for the reserved
// code 56 and for values outside 0..89.
std::string codeName(int code);

// The library's text for a code.
std::string codeText(int code);

// The positive code behind a library result: operations return -code, a few
// return the code itself.
int codeOf(int result);

// Exit status for a library result (0, the code, or kExitUnexpected).
int exitStatusFor(int result);

// Prints "tovctl: <what> failed: <text> (<NAME>, code N)[; <detail>]" on
// standard error and returns the exit status for `result`.
int reportFailure(const std::string& what, int result,
                  const std::string& detail = "");

// Prints "tovctl: <message>" on standard error and returns kExitUsage.
int reportUsage(const std::string& message);

// The `codes` subcommand.
int listCodes(bool json);

// Text of the --help footer that explains the exit statuses.
std::string exitStatusHelp();

}  // namespace tovctl

#endif  // TOOLS_TOVCTL_CODES_H
