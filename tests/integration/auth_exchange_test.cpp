// Authentication end to end: the real digests, the real exchange and a
// daemon that checks them.
#include <cstring>

#include "sim_fixture.h"

namespace {

using integration::SimTest;
using namespace tov1;

class AuthExchange : public SimTest {
 protected:
  // The reply to one state-changing request, or "" when the exchange failed.
  std::string exchange(const std::vector<std::string>& auth,
                       const std::string& line = "G 0") {
    char* buffer = nullptr;
    const int rc = tovNet.tovcomms(buffer, host, port, line, auth, "");
    EXPECT_EQ(rc, 0);
    const std::string reply = buffer ? buffer : "";
    delete[] buffer;
    return reply;
  }
};

TEST_F(AuthExchange, WrongPasswordIsRefusedAndTheRightOneAccepted) {
  start();
  const std::string refused =
      exchange(tovAuth.genObject("admin", "not-the-password", ""));
  EXPECT_EQ(refused.substr(0, 2), "Gd") << refused;
  EXPECT_EQ(tovResponse.getTOVResponseMsg(const_cast<char*>(refused.c_str())),
            "authentication failed");
  EXPECT_EQ(exchange({}).substr(0, 2), "Gd");  // none at all
  EXPECT_EQ(exchange(tovAuth.genObject("nobody", "secret", "")).substr(0, 2),
            "Gd");
  EXPECT_EQ(state(0), "running");  // nothing changed

  EXPECT_EQ(exchange(admin()).substr(0, 2), "Ga");
  EXPECT_EQ(state(0), "stopped");
}

TEST_F(AuthExchange, ReadsNeedNoAuthentication) {
  start();
  EXPECT_EQ(exchange({}, "V 0").substr(0, 2), "Vn");
  EXPECT_EQ(exchange({}, "").substr(0, 2), "Cn");  // the information request
}

TEST_F(AuthExchange, PasswordCheckThroughServiceCommand) {
  start();
  ASSERT_EQ(tovCache.refreshCache(host, port, false), 0);
  const std::string check("J\0", 2);
  EXPECT_EQ(command(check, 0, admin()), 0);
  EXPECT_EQ(command(check, 0, tovAuth.genObject("admin", "guess", "")),
            integration::fail(TOV_COMMS_FAIL));
}

TEST_F(AuthExchange, PaddedReplyArrivesWholeInPieces) {
  start({"--pad-to", "20000", "--chunk", "3000", "--chunk-pause", "2",
         "--fault-letter", "V"});
  char* buffer = nullptr;
  ASSERT_EQ(tovNet.tovcomms(buffer, host, port, "V 0", {}, ""), 0);
  EXPECT_EQ(std::string(buffer).substr(0, 2), "Vn");
  EXPECT_GE(std::strlen(buffer), 19990u);
  delete[] buffer;
}

}  // namespace
