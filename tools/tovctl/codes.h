// Result codes as the operator sees them: names, texts, exit statuses and the
// one line that reports a failure.
#ifndef TOOLS_TOVCTL_CODES_H
#define TOOLS_TOVCTL_CODES_H

#include <nlohmann/json.hpp>
#include <string>

namespace tovctl {

// Exit statuses. A result code 1..89 leaves the program as its own number, so
// scripts can test for it; the values below can never be result codes.
constexpr int kExitOk = 0;
constexpr int kExitDeadline = 98;    // the command did not end by --deadline
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

// Where failures are reported. With JSON output every failure also prints
// one JSON document on standard output: `partial` (an object, or null) with
// an "error" object added. The daemon addressed is named in it.
void setJsonOutput(bool on);
void setTarget(const std::string& host, int port);

// Prints "tovctl: <what> failed: <text> (<NAME>, code N)[; <detail>]" on
// standard error and returns the exit status for `result`.
int reportFailure(const std::string& what, int result,
                  const std::string& detail = "",
                  const nlohmann::json& partial = nullptr);

// Prints "tovctl: <what> failed: deadline of D s expired while <waiting>"
// and returns kExitDeadline.
int reportDeadline(const std::string& what, double seconds,
                   const std::string& waiting,
                   const nlohmann::json& partial = nullptr);

// Prints "tovctl: <message>" on standard error and returns kExitUsage.
int reportUsage(const std::string& message);

// Prints "tovctl: warning: <message>" on standard error.
void warn(const std::string& message);

// The `codes` subcommand: every code, or one (by number or name).
int listCodes(bool json, const std::string& which);

// Text of the --help footer that explains the exit statuses.
std::string exitStatusHelp();

}  // namespace tovctl

#endif  // TOOLS_TOVCTL_CODES_H
