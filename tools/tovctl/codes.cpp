#include "codes.h"

#include <iomanip>
#include <iostream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "common/codenames.h"
#include "common/deadline.h"
#include "common/text.h"
#include "tovapi/libtovapi.h"

namespace tovctl {

namespace {

constexpr int kCodeCount = static_cast<int>(tov1::TOV_ERR_COUNT);

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
nlohmann::json targetHost = nullptr;
nlohmann::json targetPort = nullptr;

// One line on standard error; daemon text inside it is shown escaped, so
// the line stays one line and a terminal is never driven by it.
void showLine(const std::string& message) {
  std::cerr << prefix() << tovtools::escapeControls(message, false)
            << std::endl;
}

int finish(const std::string& message, int status, nlohmann::json error,
           const nlohmann::json& partial) {
  showLine(message);
  if (jsonOutput) {
    nlohmann::json doc =
        partial.is_object() ? partial : nlohmann::json::object();
    error["message"] = message;
    error["exit_status"] = status;
    error["host"] = targetHost;
    error["port"] = targetPort;
    doc["error"] = error;
    std::cout << tovtools::jsonText(doc) << std::endl;
  }
  return status;
}

nlohmann::json codeJson(int code) {
  if (code < 0 || code >= kCodeCount) {
    return {{"code", nullptr}, {"name", nullptr}, {"text", nullptr}};
  }
  return {{"code", code},
          {"name", code == 56 ? nlohmann::json(nullptr)
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
  if (code > 0 && code < kCodeCount && code != 56) return code;
  return kExitUnexpected;
}

void setJsonOutput(bool on) { jsonOutput = on; }

void setTarget(const std::string& host, int port) {
  targetHost = host.empty() ? nlohmann::json(nullptr) : nlohmann::json(host);
  targetPort = port > 0 ? nlohmann::json(port) : nlohmann::json(nullptr);
}

int reportFailure(const std::string& what, int result,
                  const std::string& detail, const nlohmann::json& partial) {
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
                codeJson(status == kExitUnexpected ? -1 : code), partial);
}

int reportDeadline(const std::string& what, double seconds,
                   const std::string& waiting, const nlohmann::json& partial) {
  nlohmann::json error = codeJson(-1);
  error["deadline"] = seconds;
  error["waiting"] = waiting;
  return finish(what + " failed: deadline of " +
                    tovtools::secondsText(seconds) + " s expired while " +
                    waiting,
                kExitDeadline, error, partial);
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
      if (which == std::to_string(c) || (c != 56 && which == codeName(c))) {
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
    std::cout << code << "  " << (code == 56 ? "-" : codeName(code)) << "  "
              << codeText(code) << '\n';
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
                         {"deadline", kExitDeadline},
                         {"unexpected_result", kExitUnexpected},
                         {"usage", kExitUsage}}}};
    std::cout << tovtools::jsonText(out) << std::endl;
    return kExitOk;
  }
  std::cout << "CODE  NAME                      TEXT\n";
  for (int c = 0; c < kCodeCount; ++c) {
    const std::string name = c == 56 ? "-" : codeName(c);
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
         "  98     the command did not end within --deadline\n"
         "  99     the library returned a value that is no result code\n"
         "  100    usage error: bad option or argument, unknown service "
         "name,\n"
         "         unusable password or password file, unconfirmed halt\n";
}

}  // namespace tovctl
