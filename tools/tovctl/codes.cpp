#include "codes.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <limits>
#include <map>
#include <mutex>
#include <new>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include "common/codenames.h"
#include "common/deadline.h"
#include "common/text.h"
#include "tovapi/libtovapi.h"

namespace tovctl {

namespace {

constexpr int kCodeCount = static_cast<int>(tov1::TOV_ERR_COUNT);
// The one code the library leaves unassigned: it has no name, and since no
// call reports it, a result that carries it is unexpected.
constexpr int kReservedCode = 56;

// The name as the listings show it: "-" for the reserved code.
std::string listedName(int code) {
  return code == kReservedCode ? "-" : codeName(code);
}

// "tovctl: " in the library's error colour when colour is on.
std::string prefix() { return tov1::tovDebug.getTraceStr('E', "tovctl"); }

// What an operator can do about the codes tovctl meets most.
const std::map<int, const char*>& advice() {
  static const std::map<int, const char*> text{
      {tov1::TOV_COMMS_NORESPONSE, "the daemon sent no reply to decode"},
      {tov1::TOV_COMMS_FAIL,
       "the daemon refused or failed the request; a daemon with users "
       "refuses a missing or wrong password this way: check -u and the "
       "password"},
      {tov1::TOV_COMMS_BUSY,
       "the daemon stayed busy for every attempt; try again later or raise "
       "-a"},
      {tov1::TOV_COMMS_SALT,
       "the daemon closed the connection or failed before its salt: is it a "
       "tovmon daemon, and is it overloaded?"},
      {tov1::TOV_COMMS_BADRESPONSE,
       "the reply had no reply letter: a cut connection or not a tovmon "
       "daemon"},
      {tov1::TOV_EXCEPT_ALLINFO,
       "reading the cluster information failed with an exception, e.g. out "
       "of memory for an oversized reply"},
      {tov1::TOV_RNC_CORRUPTENTRY,
       "the daemon's information reply was malformed"},
      {tov1::TOV_SOCK_CONNECT,
       "nothing accepted the connection: wrong host or port (-H, -p), or "
       "the daemon is down"},
      {tov1::TOV_SOCK_RECV, "the connection failed while the reply came"},
      {tov1::TOV_SOCK_RESOLVE_HOST, "the host name does not resolve"},
      {tov1::TOV_SOCK_TIMEOUT,
       "no salt within -t seconds: the daemon is slow or the address "
       "drops packets"},
      {tov1::TOV_SVC_INVALID,
       "the service number is not below the cluster's service count"},
  };
  return text;
}

bool jsonOutput = false;
// The deadline's watchdog reads these while the program's thread runs.
std::mutex reportMu;
nlohmann::json targetHost = nullptr;
nlohmann::json targetPort = nullptr;
std::string activityText;
std::streambuf* standardOut = nullptr;
std::streambuf* standardErr = nullptr;

// A failure as printed: the line for standard error and, with JSON
// output, the document for standard output ("" without).
struct Composed {
  std::string line;
  std::string json;
};

// Daemon text inside the line is shown escaped, so the line stays one line
// and a terminal is never driven by it.
Composed compose(const std::string& message, int status, nlohmann::json error,
                 nlohmann::json partial) {
  Composed c;
  c.line = prefix() + tovtools::escapeControls(message, false) + "\n";
  if (!jsonOutput) return c;
  nlohmann::json doc =
      partial.is_object() ? std::move(partial) : nlohmann::json::object();
  error["message"] = message;
  error["exit_status"] = status;
  {
    std::lock_guard<std::mutex> lock(reportMu);
    error["host"] = targetHost;
    error["port"] = targetPort;
  }
  doc["error"] = std::move(error);
  c.json = tovtools::jsonText(doc) + "\n";
  return c;
}

int finish(const std::string& message, int status, nlohmann::json error,
           nlohmann::json partial) {
  const Composed c =
      compose(message, status, std::move(error), std::move(partial));
  std::cerr << c.line << std::flush;
  if (!c.json.empty()) std::cout << c.json << std::flush;
  return status;
}

// Past the streams, for when they cannot be trusted.
void writeAll(int fd, const char* text, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    const ssize_t n = ::write(fd, text + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

std::string currentActivity() {
  std::lock_guard<std::mutex> lock(reportMu);
  return activityText.empty() ? "the command" : activityText;
}

std::string deadlineMessage(const std::string& what, double seconds,
                            const std::string& waiting) {
  return what + " failed: deadline of " + tovtools::secondsText(seconds) +
         " s expired while " + waiting;
}

nlohmann::json codeJson(int code) {
  if (code < 0 || code >= kCodeCount) {
    return {{"code", nullptr}, {"name", nullptr}, {"text", nullptr}};
  }
  return {{"code", code},
          {"name", code == kReservedCode ? nlohmann::json(nullptr)
                                         : nlohmann::json(codeName(code))},
          {"text", codeText(code)}};
}

}  // namespace

std::string codeName(int code) { return tovtools::codeName(code); }

std::string codeText(int code) {
  if (code < 0) return "unknown result code " + std::to_string(code);
  return tov1::tovDebug.tovErrorString(static_cast<tov1::tov_error_enum>(code));
}

int codeOf(int result) {
  // -INT_MIN does not exist; such a result is simply not a code.
  if (result == std::numeric_limits<int>::min()) return -1;
  return result < 0 ? -result : result;
}

int exitStatusFor(int result) {
  const int code = codeOf(result);
  if (code == 0) return kExitOk;
  if (code > 0 && code < kCodeCount && code != kReservedCode) return code;
  return kExitUnexpected;
}

void setJsonOutput(bool on) { jsonOutput = on; }

void setTarget(const std::string& host, int port) {
  std::lock_guard<std::mutex> lock(reportMu);
  targetHost = host.empty() ? nlohmann::json(nullptr) : nlohmann::json(host);
  targetPort = port > 0 ? nlohmann::json(port) : nlohmann::json(nullptr);
}

void setActivity(const std::string& what) {
  std::lock_guard<std::mutex> lock(reportMu);
  activityText = what;
}

void noteStandardStreams() {
  standardOut = std::cout.rdbuf();
  standardErr = std::cerr.rdbuf();
}

int reportFailure(const std::string& what, int result,
                  const std::string& detail, nlohmann::json partial) {
  const int code = codeOf(result);
  const int status = exitStatusFor(result);
  std::ostringstream line;
  line << what << " failed: ";
  if (status == kExitUnexpected) {
    line << "unexpected library result " << result;
  } else {
    line << codeText(code) << " (" << codeName(code) << ", code " << code
         << ")";
  }
  if (!detail.empty()) line << "; " << detail;
  return finish(line.str(), status,
                codeJson(status == kExitUnexpected ? -1 : code),
                std::move(partial));
}

int reportDeadline(const std::string& what, double seconds,
                   const std::string& waiting, nlohmann::json partial) {
  nlohmann::json error = codeJson(-1);
  error["deadline"] = seconds;
  error["waiting"] = waiting;
  return finish(deadlineMessage(what, seconds, waiting), kExitDeadline, error,
                std::move(partial));
}

int reportException(const std::exception* e) {
  if (standardErr != nullptr) std::cerr.rdbuf(standardErr);
  if (standardOut != nullptr) std::cout.rdbuf(standardOut);
  std::cerr.clear();
  std::cout.clear();
  const bool outOfMemory = dynamic_cast<const std::bad_alloc*>(e) != nullptr;
  const int status = outOfMemory ? kExitOutOfMemory : kExitUnexpected;
  try {
    const std::string thrown =
        e != nullptr ? e->what() : "an exception that is not a standard one";
    nlohmann::json error = codeJson(-1);
    error["exception"] = thrown;
    return finish(currentActivity() + " failed: " +
                      (outOfMemory ? "out of memory (" + thrown + ")"
                                   : "unexpected error: " + thrown),
                  status, error, nullptr);
  } catch (...) {
    // Not even the report fits: a fixed one.
    static const char kLine[] = "tovctl: out of memory\n";
    static const char kJson[] =
        "{\"error\": {\"message\": \"out of memory\", \"code\": null, "
        "\"name\": null, \"text\": null, \"exit_status\": 97}}\n";
    writeAll(STDERR_FILENO, kLine, sizeof kLine - 1);
    if (jsonOutput) writeAll(STDOUT_FILENO, kJson, sizeof kJson - 1);
    return kExitOutOfMemory;
  }
}

void exitOnOverrun(double seconds) {
  const std::string waiting =
      "the library was blocked in a call that does not give up (a name "
      "lookup?)";
  nlohmann::json error = codeJson(-1);
  error["deadline"] = seconds;
  error["waiting"] = waiting;
  const Composed c =
      compose(deadlineMessage(currentActivity(), seconds, waiting),
              kExitDeadline, error, nullptr);
  writeAll(STDERR_FILENO, c.line.data(), c.line.size());
  writeAll(STDOUT_FILENO, c.json.data(), c.json.size());
  std::_Exit(kExitDeadline);
}

int reportUsage(const std::string& message) {
  return finish(message, kExitUsage, codeJson(-1), nullptr);
}

void warn(const std::string& message) {
  std::cerr << tov1::tovDebug.getTraceStr('W', "tovctl")
            << "warning: " << tovtools::escapeControls(message, false)
            << std::endl;
}

int listCodes(bool json, const std::string& which) {
  if (!which.empty()) {
    int code = -1;
    for (int c = 0; c < kCodeCount && code < 0; ++c) {
      if (which == std::to_string(c) ||
          (c != kReservedCode && which == codeName(c))) {
        code = c;
      }
    }
    if (code < 0) {
      return reportUsage("codes: no result code \"" + which +
                         "\" (0-89 or a name such as TOV_COMMS_FAIL)");
    }
    const auto hint = advice().find(code);
    if (json) {
      nlohmann::json out = codeJson(code);
      out["exit_status"] = exitStatusFor(code);
      out["advice"] = hint == advice().end() ? nlohmann::json(nullptr)
                                             : nlohmann::json(hint->second);
      std::cout << tovtools::jsonText(out) << std::endl;
      return kExitOk;
    }
    std::cout << code << "  " << listedName(code) << "  " << codeText(code)
              << '\n';
    if (hint != advice().end()) std::cout << hint->second << '\n';
    std::cout << "tovctl exits with status " << exitStatusFor(code)
              << " when the library reports this code." << std::endl;
    return kExitOk;
  }
  if (json) {
    nlohmann::json codes = nlohmann::json::array();
    for (int c = 0; c < kCodeCount; ++c) codes.push_back(codeJson(c));
    nlohmann::json out{{"codes", codes},
                       {"exit_status",
                        {{"success", kExitOk},
                         {"result_codes", "1-89, the code itself"},
                         {"out_of_memory", kExitOutOfMemory},
                         {"deadline", kExitDeadline},
                         {"unexpected_result", kExitUnexpected},
                         {"usage", kExitUsage}}}};
    std::cout << tovtools::jsonText(out) << std::endl;
    return kExitOk;
  }
  std::cout << "CODE  NAME                      TEXT\n";
  for (int c = 0; c < kCodeCount; ++c) {
    const std::string name = listedName(c);
    std::cout << std::setw(4) << c << "  " << std::left << std::setw(24) << name
              << "  " << codeText(c) << std::right << '\n';
  }
  std::cout << '\n' << exitStatusHelp();
  std::cout.flush();
  return kExitOk;
}

std::string exitStatusHelp() {
  return "Exit status:\n"
         "  0      success\n"
         "  1-89   the library's result code (see `tovctl codes N`)\n"
         "  97     out of memory: a reply or answers larger than the memory\n"
         "         tovctl may use\n"
         "  98     the command did not end within --deadline\n"
         "  99     the library returned a value that is no result code, or\n"
         "         an unexpected error\n"
         "  100    usage error: bad option or argument, unknown service "
         "name,\n"
         "         unusable password or password file, unconfirmed halt\n";
}

}  // namespace tovctl
