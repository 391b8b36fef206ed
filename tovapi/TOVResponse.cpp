// Decoding of a daemon reply: the result code its reply letter stands for,
// its message text, and the words for service states.
#include <cstring>
#include <sstream>
#include <string>

#include "libtovapi.h"

namespace tov1 {

TOVResponse tovResponse;

namespace {

// Reply letters that report success map to TOV_OK; every other known letter
// to its failure code. Unknown letters are a bad response.
bool codeForLetter(char letter, tov_error_enum& code) {
  switch (static_cast<unsigned char>(letter)) {
    case rep_ok:
    case rep_stopping:
    case rep_data:
    case rep_waiting:
    case rep_atend:
      code = TOV_OK;
      return true;
    case rep_already:
      code = TOV_COMMS_ALREADY;
      return true;
    case rep_notrun:
      code = TOV_COMMS_NOTRUN;
      return true;
    case rep_fail:
    case rep_manual:
      code = TOV_COMMS_FAIL;
      return true;
    case rep_passfail:
      code = TOV_COMMS_PASSFAIL;
      return true;
    case rep_badservice:
      code = TOV_COMMS_BADSERVICE;
      return true;
    case rep_sysdown:
      code = TOV_COMMS_SYSDOWN;
      return true;
    case rep_not_broken:
      code = TOV_COMMS_NOT_BROKEN;
      return true;
    case rep_busy:
    case rep_rate_limit:
      code = TOV_COMMS_BUSY;
      return true;
    case rep_args:
      code = TOV_COMMS_ARGS;
      return true;
    case rep_locked:
    case rep_ll_locked:
      code = TOV_COMMS_LOCKED;
      return true;
    case rep_unknown:
      code = TOV_COMMS_TOVERR;
      return true;
    default:
      return false;
  }
}

}  // namespace

TOVResponse::TOVResponse() { tovUtils::printClassMsg("TOVResponse", false); }

TOVResponse::~TOVResponse() { tovUtils::printClassMsg("TOVResponse", true); }

int TOVResponse::getTOVResponseStatus(char* buffer) {
  if (buffer == nullptr) {
    if (tovDebug.getDebugLevel() > 0) {
      std::stringstream ss;
      ss << "TOVResponse::getTOVResponseStatus(): no reply" << std::endl;
      tovDebug.write(ss);
    }
    return tovDebug.setError(TOV_COMMS_NORESPONSE);
  }
  // Only the first two characters matter; never read past the terminator.
  if (buffer[0] == '\0' || buffer[1] == '\0') {
    if (tovDebug.getDebugLevel() > 0) {
      std::stringstream ss;
      ss << "TOVResponse::getTOVResponseStatus(): reply too short ["
         << std::strlen(buffer) << " character(s)]" << std::endl;
      tovDebug.write(ss);
    }
    return tovDebug.setError(TOV_COMMS_BADRESPONSE);
  }
  tov_error_enum code = TOV_OK;
  if (!codeForLetter(buffer[1], code)) code = TOV_COMMS_BADRESPONSE;
  if (tovDebug.getDebugLevel() > 1) {
    std::stringstream ss;
    ss << "TOVResponse::getTOVResponseStatus(): reply letter '" << buffer[1]
       << "' gives " << static_cast<unsigned>(code) << std::endl;
    tovDebug.write(ss);
  }
  if (code == TOV_OK) return 0;
  return tovDebug.setError(code);
}

std::string TOVResponse::getTOVResponseMsg(char* buffer) {
  if (buffer == nullptr) return "";
  std::string text(buffer);
  std::string::size_type eol = text.find('\n');
  if (eol != std::string::npos) text.erase(eol);
  if (!text.empty() && text.back() == '\r') text.pop_back();
  // "<E><L>" then one blank, then the message.
  if (text.size() <= 2) return "";
  std::string::size_type start = text[2] == ' ' ? 3 : 2;
  return text.substr(start);
}

std::string TOVResponse::getTOVServiceState(int state) {
  static const char* const kStates[] = {"running", "stopped", "starting",
                                        "stopping", "broken"};
  if (state < 0 || state >= static_cast<int>(sizeof kStates / sizeof *kStates))
    return "unknown";
  return kStates[state];
}

}  // namespace tov1
