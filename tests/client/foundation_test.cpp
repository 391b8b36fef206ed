// The client object, its timeout arithmetic and the shared code tables.
#include <cstring>

#include "client_fixture.h"
#include "support/private_access.h"

namespace clienttest {
int classMsgCallsBeforeMain = 0;
}

namespace {

using clienttest::ClientTest;
using namespace tov1;

TEST(CodeTables, ValuesAreExactAndUnsigned32) {
  static_assert(sizeof(tov_error_enum) == 4 &&
                    std::is_unsigned_v<std::underlying_type_t<tov_error_enum>>,
                "result codes cross the interface as unsigned 32-bit");
  static_assert(
      std::is_unsigned_v<std::underlying_type_t<request_packet_code>>);
  static_assert(
      std::is_unsigned_v<std::underlying_type_t<response_packet_code>>);
  static_assert(std::is_unsigned_v<std::underlying_type_t<tov_info_letters>>);

  // Every name in value order; 56 has none.
  const tov_error_enum codes[] = {TOV_OK,
                                  TOV_AUTH_DIGEST,
                                  TOV_AUTH_GENDIGEST,
                                  TOV_AUTH_INVALID,
                                  TOV_CLI_DBGLVL,
                                  TOV_CLI_INVALID_AF,
                                  TOV_CLI_INVALID_ARG,
                                  TOV_CLI_KILL_FAILED,
                                  TOV_CLI_LOCALONLY,
                                  TOV_CLI_QUIT,
                                  TOV_CLI_NO_ARG,
                                  TOV_CLI_PARSE_TOUT,
                                  TOV_CLI_PIDERROR,
                                  TOV_CLI_TOO_FEW_ARGS,
                                  TOV_CLI_TOO_MANY_ARGS,
                                  TOV_CLI_UNKNOWN_CMD,
                                  TOV_CLI_UNKNOWN_FLAG,
                                  TOV_CLI_VERSINFO,
                                  TOV_COMMS_NORESPONSE,
                                  TOV_COMMS_TOVERR,
                                  TOV_COMMS_ALREADY,
                                  TOV_COMMS_NOTRUN,
                                  TOV_COMMS_FAIL,
                                  TOV_COMMS_PASSFAIL,
                                  TOV_COMMS_BADSERVICE,
                                  TOV_COMMS_NOT_BROKEN,
                                  TOV_COMMS_BUSY,
                                  TOV_COMMS_ARGS,
                                  TOV_COMMS_LOCKED,
                                  TOV_COMMS_DATA,
                                  TOV_COMMS_SYSDOWN,
                                  TOV_COMMS_SALT,
                                  TOV_COMMS_BADRESPONSE,
                                  TOV_EMPTY_COMMAND,
                                  TOV_EMPTY_SUBCMD,
                                  TOV_NO_CLUSTER,
                                  TOV_NO_DATA,
                                  TOV_NO_NODES,
                                  TOV_NO_RESPONSE,
                                  TOV_EXCEPT_ALLINFO,
                                  TOV_EXCEPT_GETQUADS,
                                  TOV_EXCEPT_QUADINT,
                                  TOV_EXCEPT_QUADSTR,
                                  TOV_EXCEPT_SVCCMD,
                                  TOV_EXCEPT_SVCINT,
                                  TOV_EXCEPT_SVCMVE,
                                  TOV_FORK_FAIL,
                                  TOV_FILE_REMOVE,
                                  TOV_FILE_WRITE,
                                  TOV_HALT_DISABLED,
                                  TOV_INVALID_ADDR,
                                  TOV_INVALID_CLUSTER,
                                  TOV_MVE_MANFAIL,
                                  TOV_MVE_STOPFAIL,
                                  TOV_MVE_STARTFAIL,
                                  TOV_MVE_INVALIDATTEMPTS,
                                  TOV_POLLTIME_ERROR,
                                  TOV_PARSE_STRTOINT,
                                  TOV_RANGE_INITIMEOUT,
                                  TOV_RANGE_RUNTIMEOUT,
                                  TOV_RNC_CORRUPTENTRY,
                                  TOV_RNC_INFOVALUE,
                                  TOV_RNC_INVALIDFLAG,
                                  TOV_RNC_LETTER_ID,
                                  TOV_RNC_OUTOFRANGE,
                                  TOV_RNC_UNKNOWNNODE,
                                  TOV_RNC_CLEARCACHE,
                                  TOV_RNC_CLEARHOST,
                                  TOV_SOCK_CONNECT,
                                  TOV_SOCK_CREATE,
                                  TOV_SOCK_GETOPTS,
                                  TOV_SOCK_NTOP,
                                  TOV_SOCK_RECV,
                                  TOV_SOCK_RESOLVE_HOST,
                                  TOV_SOCK_SELECT,
                                  TOV_SOCK_SEND,
                                  TOV_SOCK_SETOPT,
                                  TOV_SOCK_TIMEOUT,
                                  TOV_SVC_ALREADYRUNNING,
                                  TOV_SVC_ATTEMPT_EXPIRE,
                                  TOV_SVC_INVALID,
                                  TOV_SVC_NOINSTANCES,
                                  TOV_SVC_UNCONFNODE,
                                  TOV_SVC_UNKNOWN,
                                  TOV_UNKNOWN_AFINET,
                                  TOV_UNKNOWN_EXTCMD,
                                  TOV_UNKNOWN_NODE,
                                  TOV_UNKNOWN_SUBCMD,
                                  TOV_UNKNOWN_SVCCMD,
                                  TOV_ERR_COUNT};
  ASSERT_EQ(std::size(codes), 90u);
  unsigned expected = 0;
  for (tov_error_enum code : codes) {
    if (expected == 56) ++expected;
    EXPECT_EQ(static_cast<unsigned>(code), expected);
    ++expected;
  }
  EXPECT_EQ(TOV_ERR_COUNT, 90u);

  // Letters are their own character codes.
  EXPECT_EQ(req_sayrunning, 91u);
  EXPECT_EQ(req_extended, 64u);
  EXPECT_EQ(req_aux, 97u);
  EXPECT_EQ(req2a_halt, 65u);
  EXPECT_EQ(rep_atend, 122u);
  EXPECT_EQ(rep_busy, static_cast<unsigned>('k'));
  const std::string replyLetters = "abcdefghijklmnopuwz";
  const response_packet_code replies[] = {
      rep_ok,        rep_already,    rep_notrun,  rep_fail,    rep_passfail,
      rep_stopping,  rep_badservice, rep_manual,  rep_sysdown, rep_not_broken,
      rep_busy,      rep_args,       rep_locked,  rep_data,    rep_rate_limit,
      rep_ll_locked, rep_unknown,    rep_waiting, rep_atend};
  for (std::size_t i = 0; i < replyLetters.size(); ++i)
    EXPECT_EQ(static_cast<char>(replies[i]), replyLetters[i]);
  const std::string requestLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ[";
  const request_packet_code requests[] = {
      req_config,    req_bounce,         req_info,      req_timeout,
      req_restart,   req_pass,           req_stop,      req_manual,
      req_automatic, req_chkpw,          req_bstop,     req_sysdown,
      req_maint,     req_heartbeats,     req_servlist,  req_hostlist,
      req_hblist,    req_events,         req_getconf,   req_getstat,
      req_repair,    req_version,        req_block,     req_unblock,
      req_log,       req_requesthandler, req_sayrunning};
  for (std::size_t i = 0; i < requestLetters.size(); ++i)
    EXPECT_EQ(static_cast<char>(requests[i]), requestLetters[i]);

  EXPECT_EQ(tovInfo_MISC, 0u);
  EXPECT_EQ(tovInfo_N, 7u);
  EXPECT_EQ(tovInfo_COUNT, 13u);
  EXPECT_EQ(c_cluster_name, 1u);
  EXPECT_EQ(c_machine_desc, 12u);
  EXPECT_EQ(c_SIZE_OK, 13u);
  EXPECT_EQ(n_inet_family, 3u);
  EXPECT_EQ(n_SIZE_OK, 4u);
  EXPECT_EQ(tov_discover_cluster, 2u);
}

TEST(ClientObject, GlobalIsAnnouncedDuringStaticInitialisation) {
  // The global client announced itself once, before main(), as "TOVNet".
  EXPECT_GE(clienttest::classMsgCallsBeforeMain, 1);
  EXPECT_STREQ(doubles::classMsgName, "TOVNet");
  EXPECT_FALSE(doubles::classMsgFlag);
  EXPECT_EQ(privileged::timeoutSec(tovNet), 3);
  EXPECT_EQ(privileged::timeoutUsec(tovNet), 0);
  EXPECT_EQ(tovNet.pref_AF, 0);
}

TEST_F(ClientTest, NewObjectStartsLikeTheGlobal) {
  const int before = doubles::classMsgCount;
  TOVNet fresh;
  EXPECT_EQ(doubles::classMsgCount, before + 1);
  EXPECT_EQ(privileged::timeoutSec(fresh), 3);
  EXPECT_EQ(privileged::timeoutUsec(fresh), 0);
  EXPECT_EQ(fresh.pref_AF, 0);
}

TEST_F(ClientTest, SetTimeoutTruncatesTwiceInSinglePrecision) {
  const struct {
    float in;
    int sec;
    int usec;
  } cases[] = {{0.5f, 0, 500000},     {2.3f, 2, 299999},  {10.7f, 10, 699999},
               {100.01f, 100, 10002}, {0.0000005f, 0, 0}, {0.000001f, 0, 1},
               {-1.5f, -1, -500000},  {3.0f, 3, 0},       {0.0f, 0, 0}};
  for (const auto& c : cases) {
    net.setTimeout(c.in);
    EXPECT_EQ(privileged::timeoutSec(net), c.sec) << c.in;
    EXPECT_EQ(privileged::timeoutUsec(net), c.usec) << c.in;
  }
}

TEST(ClientObject, IpFamilyNumbers) {
  EXPECT_EQ(getIpFamily(AF_INET), 4);
  EXPECT_EQ(getIpFamily(AF_INET6), 6);
  EXPECT_EQ(getIpFamily(AF_UNSPEC), 0);
  EXPECT_EQ(getIpFamily(1), 1);
  EXPECT_EQ(getIpFamily(17), 1);
  EXPECT_EQ(getIpFamily(-3), 1);
}

TEST_F(ClientTest, ReadtovWarnsAlwaysAndCollapsesTheCacheResult) {
  for (int cacheResult : {0, 5, -1, -74}) {
    doubles::reset();
    rec().refresh = [&](const std::string&, const std::string&, bool) {
      return cacheResult;
    };
    clienttest::Capture out(std::cout);
    const int rc = net.readtov("node1", "2000", true);
    EXPECT_EQ(rc, cacheResult == 0 ? 0 : -1);
    EXPECT_EQ(out.text(),
              "Warning: TOVNet::readtov() is deprecated! Use "
              "TOVNetCache::refreshCache() instead!\n");
    ASSERT_EQ(rec().refreshCalls.size(), 1u);
    EXPECT_EQ(rec().refreshCalls[0].address, "node1");
    EXPECT_EQ(rec().refreshCalls[0].port, "2000");
    EXPECT_TRUE(rec().refreshCalls[0].force);
  }
}

}  // namespace
