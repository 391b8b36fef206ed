// Thread-safe logging to standard error with a verbosity threshold.
#ifndef TOVSIM_LOG_H
#define TOVSIM_LOG_H

#include <sstream>
#include <string>

namespace tovsim {

// 0: start, stop, warnings and log entries; 1: one line per request;
// 2: connections, salts and frames; 3: raw bytes.
void setLogLevel(int level);
int logLevel();
void logLine(int level, const std::string& text);

// Printable form of raw protocol bytes: control bytes become \n, \0, \xNN.
std::string printable(const std::string& bytes, std::size_t max = 512);

}  // namespace tovsim

// Builds the line only when it will be shown.
#define TOVSIM_LOG(level, expr)                       \
  do {                                                \
    if (::tovsim::logLevel() >= (level)) {            \
      std::ostringstream tovsim_log_os_;              \
      tovsim_log_os_ << expr;                         \
      ::tovsim::logLine(level, tovsim_log_os_.str()); \
    }                                                 \
  } while (0)

#endif  // TOVSIM_LOG_H
