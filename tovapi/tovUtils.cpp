// String and time helpers shared by the whole library.
#include <cctype>
#include <climits>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "libtovapi.h"

namespace {

// A width beyond this is certainly a caller's mistake; honouring it could
// mean allocating gigabytes of zeros.
const unsigned kMaxWidth = 255;

}  // namespace

namespace tovUtils {

std::string intToString(int n, unsigned width) {
  if (width == 0) return std::to_string(n);
  if (width > kMaxWidth) width = kMaxWidth;
  // Like printf's "%0*d": the sign counts towards the width and the zeros
  // go between the sign and the digits.
  std::ostringstream os;
  os << std::setfill('0') << std::internal << std::setw(static_cast<int>(width))
     << n;
  return os.str();
}

// Never shorter than two bytes: readers of a reply look at its status
// character at index 1 without checking the length first.
char* stringToChar(std::string s) {
  const std::size_t size = s.size() + 1 < 2 ? 2 : s.size() + 1;
  char* out = new char[size]();
  std::memcpy(out, s.data(), s.size());
  return out;
}

int stringToInt(std::string s) {
  std::string::size_type i = 0;
  while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
  bool negative = false;
  if (i < s.size() && (s[i] == '+' || s[i] == '-')) {
    negative = s[i] == '-';
    ++i;
  }
  // Accumulate as a negative number: its range reaches INT_MIN.
  long long value = 0;
  const long long limit = negative ? static_cast<long long>(INT_MIN)
                                   : -static_cast<long long>(INT_MAX);
  for (; i < s.size() && std::isdigit(static_cast<unsigned char>(s[i])); ++i) {
    if (value > limit) value = value * 10 - (s[i] - '0');
    if (value < limit) value = limit;
  }
  return static_cast<int>(negative ? value : -value);
}

std::string getTimeStr(time_t t) {
  if (t <= 0) return "<n/a>";
  struct tm parts;
  if (localtime_r(&t, &parts) == nullptr) return "<n/a>";
  char buf[64];
  std::size_t len = std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &parts);
  if (len == 0) return "<n/a>";
  return std::string(buf, len);
}

void tokenizer(const std::string& str, std::vector<std::string>& out,
               const std::string& delims) {
  std::string::size_type start = str.find_first_not_of(delims);
  while (start != std::string::npos) {
    std::string::size_type end = str.find_first_of(delims, start);
    if (end == std::string::npos) {
      out.push_back(str.substr(start));
      return;
    }
    out.push_back(str.substr(start, end - start));
    start = str.find_first_not_of(delims, end);
  }
}

// Runs from the constructors and destructors of the global library objects,
// so it may only touch std::cerr and the constant-initialised debug level.
void printClassMsg(std::string name, bool destroyed) {
  if (tov1::tovDebug.getDebugLevel() != 3) return;
  std::ios_base::Init streamsReady;  // std::cerr may not be set up yet
  std::cerr << name
            << (destroyed ? ": object destroyed\n" : ": object created\n")
            << std::flush;
}

}  // namespace tovUtils
