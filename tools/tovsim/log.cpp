#include "log.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <mutex>

namespace tovsim {
namespace {
std::atomic<int> g_level{0};
std::mutex g_mutex;
const auto g_start = std::chrono::steady_clock::now();
}  // namespace

void setLogLevel(int level) { g_level = level; }
int logLevel() { return g_level; }

void logLine(int /*level*/, const std::string& text) {
  const double secs =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - g_start)
          .count();
  char stamp[32];
  std::snprintf(stamp, sizeof stamp, "[%8.3f] ", secs);
  std::lock_guard<std::mutex> lock(g_mutex);
  std::cerr << "tovsim " << stamp << text << '\n' << std::flush;
}

std::string printable(const std::string& bytes, std::size_t max) {
  std::string out;
  const std::size_t n = bytes.size() < max ? bytes.size() : max;
  for (std::size_t i = 0; i < n; ++i) {
    const unsigned char c = static_cast<unsigned char>(bytes[i]);
    if (c == '\n') {
      out += "\\n";
    } else if (c == 0) {
      out += "\\0";
    } else if (c == '\\') {
      out += "\\\\";
    } else if (c < 0x20 || c >= 0x7f) {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02x", c);
      out += hex;
    } else {
      out += static_cast<char>(c);
    }
  }
  if (bytes.size() > max) out += "...";
  return out;
}

}  // namespace tovsim
