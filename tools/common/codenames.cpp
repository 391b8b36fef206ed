#include "common/codenames.h"

#include <cstddef>

#include "tovapi/libtovapi.h"

namespace tovtools {

namespace {

// Indexed by code; 56 has never had a name.
const char* const kCodeNames[] = {
    "TOV_OK",
    "TOV_AUTH_DIGEST",
    "TOV_AUTH_GENDIGEST",
    "TOV_AUTH_INVALID",
    "TOV_CLI_DBGLVL",
    "TOV_CLI_INVALID_AF",
    "TOV_CLI_INVALID_ARG",
    "TOV_CLI_KILL_FAILED",
    "TOV_CLI_LOCALONLY",
    "TOV_CLI_QUIT",
    "TOV_CLI_NO_ARG",
    "TOV_CLI_PARSE_TOUT",
    "TOV_CLI_PIDERROR",
    "TOV_CLI_TOO_FEW_ARGS",
    "TOV_CLI_TOO_MANY_ARGS",
    "TOV_CLI_UNKNOWN_CMD",
    "TOV_CLI_UNKNOWN_FLAG",
    "TOV_CLI_VERSINFO",
    "TOV_COMMS_NORESPONSE",
    "TOV_COMMS_TOVERR",
    "TOV_COMMS_ALREADY",
    "TOV_COMMS_NOTRUN",
    "TOV_COMMS_FAIL",
    "TOV_COMMS_PASSFAIL",
    "TOV_COMMS_BADSERVICE",
    "TOV_COMMS_NOT_BROKEN",
    "TOV_COMMS_BUSY",
    "TOV_COMMS_ARGS",
    "TOV_COMMS_LOCKED",
    "TOV_COMMS_DATA",
    "TOV_COMMS_SYSDOWN",
    "TOV_COMMS_SALT",
    "TOV_COMMS_BADRESPONSE",
    "TOV_EMPTY_COMMAND",
    "TOV_EMPTY_SUBCMD",
    "TOV_NO_CLUSTER",
    "TOV_NO_DATA",
    "TOV_NO_NODES",
    "TOV_NO_RESPONSE",
    "TOV_EXCEPT_ALLINFO",
    "TOV_EXCEPT_GETQUADS",
    "TOV_EXCEPT_QUADINT",
    "TOV_EXCEPT_QUADSTR",
    "TOV_EXCEPT_SVCCMD",
    "TOV_EXCEPT_SVCINT",
    "TOV_EXCEPT_SVCMVE",
    "TOV_FORK_FAIL",
    "TOV_FILE_REMOVE",
    "TOV_FILE_WRITE",
    "TOV_HALT_DISABLED",
    "TOV_INVALID_ADDR",
    "TOV_INVALID_CLUSTER",
    "TOV_MVE_MANFAIL",
    "TOV_MVE_STOPFAIL",
    "TOV_MVE_STARTFAIL",
    "TOV_MVE_INVALIDATTEMPTS",
    "",
    "TOV_POLLTIME_ERROR",
    "TOV_PARSE_STRTOINT",
    "TOV_RANGE_INITIMEOUT",
    "TOV_RANGE_RUNTIMEOUT",
    "TOV_RNC_CORRUPTENTRY",
    "TOV_RNC_INFOVALUE",
    "TOV_RNC_INVALIDFLAG",
    "TOV_RNC_LETTER_ID",
    "TOV_RNC_OUTOFRANGE",
    "TOV_RNC_UNKNOWNNODE",
    "TOV_RNC_CLEARCACHE",
    "TOV_RNC_CLEARHOST",
    "TOV_SOCK_CONNECT",
    "TOV_SOCK_CREATE",
    "TOV_SOCK_GETOPTS",
    "TOV_SOCK_NTOP",
    "TOV_SOCK_RECV",
    "TOV_SOCK_RESOLVE_HOST",
    "TOV_SOCK_SELECT",
    "TOV_SOCK_SEND",
    "TOV_SOCK_SETOPT",
    "TOV_SOCK_TIMEOUT",
    "TOV_SVC_ALREADYRUNNING",
    "TOV_SVC_ATTEMPT_EXPIRE",
    "TOV_SVC_INVALID",
    "TOV_SVC_NOINSTANCES",
    "TOV_SVC_UNCONFNODE",
    "TOV_SVC_UNKNOWN",
    "TOV_UNKNOWN_AFINET",
    "TOV_UNKNOWN_EXTCMD",
    "TOV_UNKNOWN_NODE",
    "TOV_UNKNOWN_SUBCMD",
    "TOV_UNKNOWN_SVCCMD",
};
static_assert(sizeof(kCodeNames) / sizeof(kCodeNames[0]) ==
                  static_cast<std::size_t>(tov1::TOV_ERR_COUNT),
              "one name per result code");

}  // namespace

std::string codeName(int code) {
  if (code < 0 || code >= static_cast<int>(tov1::TOV_ERR_COUNT)) return "";
  return kCodeNames[code];
}

}  // namespace tovtools
