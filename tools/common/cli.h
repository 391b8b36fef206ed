// One command-line convention for the tools: validators that refuse what a
// number of seconds, a port or a count cannot be (NaN, infinities, negative
// values, trailing text) by name, and one form for a usage error:
//
//     TOOL: usage: MESSAGE (see TOOL --help)
//
// The validators carry no description, so that the help shows the option's
// own type name (SECONDS, PORT, N) and not the parser's annotations.
#ifndef TOOLS_COMMON_CLI_H
#define TOOLS_COMMON_CLI_H

#include <CLI/CLI.hpp>
#include <string>

namespace tovtools {

// A number of seconds from `min` to `max`, fractions allowed:
// "\"nan\" is not a number of seconds from 0.001 to 86400".
CLI::Validator secondsIn(double min, double max);

// A whole number from `min` to `max` (a count, milliseconds, bytes):
// "\"x\" is not a whole number from 1 to 100".
CLI::Validator wholeIn(long long min, long long max);

// A TCP or UDP port from `min` (0 where the kernel picks one, or where 0
// turns the socket off) to 65535: "\"99999\" is not a port from 1 to 65535".
CLI::Validator portFrom(int min);

// The message of a refused command line on one line.
std::string parseErrorText(const CLI::ParseError& e);

// "usage: MESSAGE (see TOOL --help)": the usage line without its "TOOL: ".
std::string usageText(const std::string& tool, const std::string& message);

// What a tool does with a command line the parser refused: --help and
// --version print what they print and give 0; anything else prints the one
// usage line on standard error and gives `status`.
int refuseCommandLine(const CLI::App& app, const CLI::ParseError& e,
                      const std::string& tool, int status);

// Prints "TOOL: usage: MESSAGE (see TOOL --help)" on standard error and
// returns `status`: for usage errors found after parsing.
int usageError(const std::string& tool, const std::string& message, int status);

}  // namespace tovtools

#endif  // TOOLS_COMMON_CLI_H
