// Diagnostics of the library: debug level, last result code, trace and error
// lines on standard error, and an optional append-only log file.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>

#include "internal_secrets.h"
#include "libtovapi.h"

namespace {

// The level and the last error live outside the object: other library
// objects reach them during static initialisation, possibly before tovDebug
// has been constructed. Both are constant-initialised, so they hold their
// start values from the moment the program is loaded.
int debugLevel = 0;
int lastError = 0;

// True only while tovDebug's log stream may be touched: from just after
// tovDebug has been constructed until just before it is destroyed. A trace
// from another object's constructor or destructor outside that window still
// reaches standard error, only not the log.
bool logAlive = false;

const int kMaxDebugLevel = 3;

const char* const kRed = "\033[31m";
const char* const kYellow = "\033[33m";
const char* const kReset = "\033[0m";

// Texts of the result codes, indexed by code; the last entry is
// TOV_ERR_COUNT itself.
const char* const kErrorTexts[] = {
    "success",                                         // 0
    "authentication vector has no digest",             // 1
    "cannot generate digest",                          // 2
    "invalid authentication vector",                   // 3
    "invalid debug level",                             // 4
    "invalid address family",                          // 5
    "invalid argument",                                // 6
    "cannot stop process",                             // 7
    "allowed on the local node only",                  // 8
    "quit requested",                                  // 9
    "missing argument",                                // 10
    "cannot parse timeout",                            // 11
    "cannot read process id",                          // 12
    "too few arguments",                               // 13
    "too many arguments",                              // 14
    "unknown command",                                 // 15
    "unknown flag",                                    // 16
    "version information shown",                       // 17
    "daemon did not respond",                          // 18
    "daemon reported an error",                        // 19
    "service already in that state",                   // 20
    "service not running",                             // 21
    "daemon refused or failed the request",            // 22
    "pass command failed",                             // 23
    "daemon rejected the service",                     // 24
    "service is not broken",                           // 25
    "daemon busy",                                     // 26
    "daemon rejected the arguments",                   // 27
    "daemon locked",                                   // 28
    "daemon rejected the data",                        // 29
    "cluster system is down",                          // 30
    "salt not received",                               // 31
    "bad response from daemon",                        // 32
    "empty command",                                   // 33
    "empty sub-command",                               // 34
    "no cluster found",                                // 35
    "no data",                                         // 36
    "no nodes",                                        // 37
    "no response",                                     // 38
    "exception while collecting cluster information",  // 39
    "exception while reading record values",           // 40
    "exception while reading a numeric record value",  // 41
    "exception while reading a text record value",     // 42
    "exception in service command",                    // 43
    "exception while reading service number",          // 44
    "exception while moving service",                  // 45
    "cannot start process",                            // 46
    "cannot remove file",                              // 47
    "cannot write file",                               // 48
    "halt is disabled",                                // 49
    "invalid address",                                 // 50
    "invalid cluster",                                 // 51
    "move failed: cannot set manual mode",             // 52
    "move failed: cannot stop service",                // 53
    "move failed: cannot start service",               // 54
    "move failed: invalid number of attempts",         // 55
    "reserved",                                        // 56
    "invalid poll time",                               // 57
    "cannot convert text to integer",                  // 58
    "initial timeout out of range",                    // 59
    "runtime timeout out of range",                    // 60
    "corrupt cache entry",                             // 61
    "invalid information value",                       // 62
    "invalid cache flag",                              // 63
    "invalid record letter",                           // 64
    "cache index out of range",                        // 65
    "node unknown to the cache",                       // 66
    "cannot clear cache",                              // 67
    "cannot clear host from cache",                    // 68
    "cannot connect",                                  // 69
    "cannot create socket",                            // 70
    "cannot read socket options",                      // 71
    "cannot convert address to text",                  // 72
    "receive failed",                                  // 73
    "cannot resolve host",                             // 74
    "wait for socket failed",                          // 75
    "send failed",                                     // 76
    "cannot set socket option",                        // 77
    "network timeout",                                 // 78
    "service already running",                         // 79
    "service command attempts exhausted",              // 80
    "invalid service number",                          // 81
    "service has no instances",                        // 82
    "node not configured for the service",             // 83
    "unknown service",                                 // 84
    "unknown address family",                          // 85
    "unknown extended command",                        // 86
    "unknown node",                                    // 87
    "unknown sub-command",                             // 88
    "unknown service command",                         // 89
    "number of result codes",                          // 90
};
static_assert(sizeof(kErrorTexts) / sizeof(kErrorTexts[0]) ==
                  static_cast<std::size_t>(tov1::TOV_ERR_COUNT) + 1,
              "one text per result code");

// The text held by a diagnostic stream; callers hand in string streams, and
// an ostringstream's characters cannot be read back through rdbuf().
bool streamText(std::ostream& os, std::string& text) {
  if (auto* oss = dynamic_cast<std::ostringstream*>(&os)) {
    text = oss->str();
    return true;
  }
  if (auto* ss = dynamic_cast<std::stringstream*>(&os)) {
    text = ss->str();
    return true;
  }
  return false;
}

void endLine(std::string& text) {
  if (text.empty() || text.back() != '\n') text += '\n';
}

std::string plainPrefix(const std::string& location) {
  return location.empty() ? std::string() : location + ": ";
}

// Whole lines go out in one insertion so that they are not interleaved
// with other output to the same stream.
// Also used during static initialisation, when std::cerr may not be set up
// yet; an Init object guarantees that it is.
void show(const std::string& line) {
  std::ios_base::Init streamsReady;
  std::cerr << line << std::flush;
}

// The buffer through which std::cerr reaches file descriptor 2. A caller that
// swaps it in captures the exact bytes, whatever descriptor 2 is.
std::streambuf* const standardErrorBuffer = [] {
  std::ios_base::Init streamsReady;
  return std::cerr.rdbuf();
}();

bool isShownControl(unsigned char c) {
  return (c < 0x20 && c != '\n' && c != '\t') || c == 0x7f;
}

bool hasControls(const std::string& text) {
  for (char c : text) {
    if (isShownControl(static_cast<unsigned char>(c))) return true;
  }
  return false;
}

// Traces echo what daemons sent; on a terminal, escape sequences in it could
// retitle the window or clear the screen. Line feed and tab stay as they are.
std::string escapeControls(const std::string& text) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size() + 16);
  for (char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (isShownControl(c)) {
      out += "\\x";
      out += kDigits[c >> 4];
      out += kDigits[c & 0x0f];
    } else {
      out += ch;
    }
  }
  return out;
}

// Only output that really goes to a terminal is escaped; the log, pipes,
// files and captured streams keep the exact bytes. The terminal check comes
// last: it costs a system call, and most lines have nothing to escape.
bool escapeOnTerminal(std::string& location, std::string& text) {
  if (!hasControls(location) && !hasControls(text)) return false;
  if (std::cerr.rdbuf() != standardErrorBuffer || !isatty(STDERR_FILENO))
    return false;
  location = escapeControls(location);
  text = escapeControls(text);
  return true;
}

// Blanks remembered password digests unless the user asked to see them
// (TOVAPI_SHOW_SECRETS=1). Nothing to do, and no lock taken, while none is
// remembered.
void hideSecrets(std::string& text) {
  if (tov1::secrets::any() && !tov1::secrets::shown()) {
    tov1::secrets::redact(text);
  }
}

}  // namespace

namespace tov1 {

bool Debug::useColour = false;

Debug tovDebug;

namespace {

// Constructed right after tovDebug and therefore destroyed right before it;
// brackets the window in which tovDebug's log stream is usable.
struct LogWindow {
  LogWindow() { logAlive = true; }
  ~LogWindow() { logAlive = false; }
};
LogWindow logWindow;

// Appends one uncoloured, time-stamped line to the log when one is open.
void logLine(std::ofstream& log, char kind, const std::string& line) {
  if (!logAlive || !log.is_open()) return;
  log << tovUtils::getTimeStr(std::time(nullptr)) << ' ' << kind << ' ' << line
      << std::flush;
}

// Shows one line (ending in a line feed) on standard error and appends it to
// `log` unless that is null: secrets blanked in both, escaped only where a
// terminal shows it.
void emit(Debug& debug, std::ofstream* log, char kind, std::string location,
          std::string text) {
  hideSecrets(location);
  hideSecrets(text);
  std::string shownLocation = location;
  std::string shownText = text;
  escapeOnTerminal(shownLocation, shownText);
  show(debug.getTraceStr(kind, shownLocation) + shownText);
  if (log == nullptr) return;
  if (kind == 'T')
    logLine(*log, 'T', text);
  else
    logLine(*log, 'E', plainPrefix(location) + text);
}

// The stream opens its own descriptor, without close-on-exec. It gets the
// lowest free number, which is the one just released; marked when it still
// names the same file, so that programs started later do not inherit the log.
void closeOnExec(int fd, const struct stat& file) {
  struct stat now {};
  if (fstat(fd, &now) == 0 && now.st_dev == file.st_dev &&
      now.st_ino == file.st_ino) {
    fcntl(fd, F_SETFD, fcntl(fd, F_GETFD) | FD_CLOEXEC);
  }
}

}  // namespace

Debug::Debug() { _initialChecks(); }

void Debug::_initialChecks() {
  const char* path = std::getenv("TOVAPI_LOG");
  if (path == nullptr || *path == '\0') return;
  const char* const where = "Debug::_initialChecks()";
  // Created for the owner only: lines name hosts and show requests.
  const int fd = ::open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  int err = errno;
  struct stat file {};
  if (fd >= 0) {
    if (fstat(fd, &file) != 0) file = {};
    ::close(fd);
    logfile.open(path, std::ios::out | std::ios::app);
    err = errno;
  }
  if (!logfile.is_open()) {
    std::ostringstream os;
    os << "cannot open log file \"" << path << "\" named by TOVAPI_LOG ["
       << std::strerror(err) << "]\n";
    emit(*this, nullptr, 'E', where, os.str());
    return;
  }
  closeOnExec(fd, file);
  const mode_t others = S_IRGRP | S_IWGRP | S_IROTH | S_IWOTH;
  if ((file.st_mode & others) != 0) {
    std::ostringstream os;
    os << "log file \"" << path << "\" named by TOVAPI_LOG is "
       << ((file.st_mode & (S_IRGRP | S_IROTH)) != 0 ? "readable" : "writable")
       << " by others (mode " << std::oct << std::setw(4) << std::setfill('0')
       << (file.st_mode & 07777) << std::dec
       << "); its lines may show host names and requests\n";
    emit(*this, nullptr, 'W', where, os.str());
  }
}

int Debug::getDebugLevel() { return debugLevel; }

int Debug::setDebugLevel(unsigned level) {
  if (level > static_cast<unsigned>(kMaxDebugLevel)) {
    return setError(TOV_CLI_DBGLVL);
  }
  debugLevel = static_cast<int>(level);
  return 0;
}

int Debug::setError(tov_error_enum code) {
  lastError = static_cast<int>(code);
  return -static_cast<int>(code);
}

int Debug::getError() { return lastError; }

void Debug::write(std::ostream& os) {
  if (debugLevel <= 0) return;
  std::string text;
  if (!streamText(os, text) || text.empty()) return;
  endLine(text);
  emit(*this, &logfile, 'T', "", text);
}

void Debug::error(std::string location, std::ostream& os) {
  std::string text;
  if (!streamText(os, text)) {
    text = "(message not readable: not a string stream)";
  }
  endLine(text);
  emit(*this, &logfile, 'E', location, text);
}

void Debug::except(std::string location, std::exception& e) {
  std::string text = e.what();
  endLine(text);
  emit(*this, &logfile, 'E', location, text);
}

std::string Debug::tovErrorString(tov_error_enum code) {
  if (code <= TOV_ERR_COUNT) return kErrorTexts[code];
  return "unknown result code " + std::to_string(static_cast<unsigned>(code));
}

std::string Debug::getTraceStr(char kind, std::string location) {
  if (location.empty()) return std::string();
  const char* colour = nullptr;
  if (useColour) {
    if (kind == 'E' || kind == 'e') colour = kRed;
    if (kind == 'W' || kind == 'w') colour = kYellow;
  }
  if (colour == nullptr) return plainPrefix(location);
  return std::string(colour) + location + ":" + kReset + " ";
}

}  // namespace tov1
