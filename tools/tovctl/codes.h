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
constexpr int kExitOutOfMemory = 97;  // std::bad_alloc, wherever it came from
constexpr int kExitDeadline = 98;     // the command did not end by --deadline
constexpr int kExitUnexpected = 99;   // no known code, or another exception
constexpr int kExitUsage = 100;       // bad command line, unknown service, ...

// Symbolic name of a result code ("TOV_COMMS_FAIL"); "" for the reserved
// code the library leaves unassigned and for values outside 0..89.
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
// What the command is doing, as its failure line would name it ("reading
// the service list from a:1195"): for failures that come from no call of
// their own, an exception or a call that does not end.
void setActivity(const std::string& what);

// Remembers the buffers of std::cout and std::cerr as the program starts:
// an exception may leave a library call with either swapped.
void noteStandardStreams();

// Prints "tovctl: <what> failed: <text> (<NAME>, code N)[; <detail>]" on
// standard error and returns the exit status for `result`.
int reportFailure(const std::string& what, int result,
                  const std::string& detail = "",
                  nlohmann::json partial = nullptr);

// Prints "tovctl: <what> failed: deadline of D s expired while <waiting>"
// and returns kExitDeadline.
int reportDeadline(const std::string& what, double seconds,
                   const std::string& waiting,
                   nlohmann::json partial = nullptr);

// Prints "tovctl: <activity> failed: out of memory (std::bad_alloc)" and
// returns kExitOutOfMemory, or "... failed: unexpected error: <what>" and
// kExitUnexpected for any other exception (`e` null: not a standard one).
// The standard streams are put back first. Never throws.
int reportException(const std::exception* e);

// The last resort once the deadline has passed and a call no signal ends
// (a name lookup) still holds the program: the one line on standard error
// and, with --json, the document on standard output, written past the
// streams (the library may hold them), then the end with kExitDeadline.
// Runs on the deadline's watchdog thread.
[[noreturn]] void exitOnOverrun(double seconds);

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
