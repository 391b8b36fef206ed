#include "cli.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <iostream>

#include "deadline.h"

namespace tovtools {

namespace {

// Digits, a sign, a point and an exponent: no "nan", "inf", hexadecimal
// or blanks, which strtod would take.
bool plainNumber(const std::string& text) {
  return !text.empty() &&
         text.find_first_not_of("0123456789+-.eE") == std::string::npos;
}

bool parseDouble(const std::string& text, double& value) {
  if (!plainNumber(text)) return false;
  char* end = nullptr;
  errno = 0;
  value = std::strtod(text.c_str(), &end);
  return errno == 0 && end == text.c_str() + text.size() &&
         std::isfinite(value);
}

bool parseWhole(const std::string& text, long long& value) {
  const std::size_t digits = text[0] == '-' || text[0] == '+' ? 1 : 0;
  if (text.size() <= digits ||
      text.find_first_not_of("0123456789", digits) != std::string::npos) {
    return false;
  }
  char* end = nullptr;
  errno = 0;
  value = std::strtoll(text.c_str(), &end, 10);
  return errno == 0 && end == text.c_str() + text.size();
}

CLI::Validator wholeValidator(long long min, long long max,
                              const std::string& what) {
  const std::string range = std::to_string(min) + " to " + std::to_string(max);
  return CLI::Validator(
      [min, max, what, range](std::string& text) -> std::string {
        long long value = 0;
        if (text.empty() || !parseWhole(text, value) || value < min ||
            value > max) {
          return "\"" + text + "\" is not " + what + " from " + range;
        }
        return "";
      },
      "", what);
}

}  // namespace

CLI::Validator secondsIn(double min, double max) {
  const std::string range = secondsText(min) + " to " + secondsText(max);
  return CLI::Validator(
      [min, max, range](std::string& text) -> std::string {
        double value = 0;
        if (!parseDouble(text, value) || value < min || value > max) {
          return "\"" + text + "\" is not a number of seconds from " + range;
        }
        return "";
      },
      "", "seconds");
}

CLI::Validator wholeIn(long long min, long long max) {
  return wholeValidator(min, max, "a whole number");
}

CLI::Validator portFrom(int min) {
  return wholeValidator(min, 65535, "a port");
}

std::string parseErrorText(const CLI::ParseError& e) {
  std::string text = e.what();
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) {
    text.pop_back();
  }
  for (std::size_t at = text.find('\n'); at != std::string::npos;
       at = text.find('\n', at)) {
    text.replace(at, 1, "; ");
  }
  return text;
}

std::string usageText(const std::string& tool, const std::string& message) {
  return "usage: " + message + " (see " + tool + " --help)";
}

int refuseCommandLine(const CLI::App& app, const CLI::ParseError& e,
                      const std::string& tool, int status) {
  if (e.get_exit_code() == 0) return app.exit(e);
  return usageError(tool, parseErrorText(e), status);
}

int usageError(const std::string& tool, const std::string& message,
               int status) {
  std::cerr << tool << ": " << usageText(tool, message) << std::endl;
  return status;
}

}  // namespace tovtools
