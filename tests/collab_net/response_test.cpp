// The reply decoder: letter table, degenerate buffers, message text.
#include <gtest/gtest.h>

#include <map>
#include <string>

#include "tovapi/libtovapi.h"

using tov1::tovDebug;
using tov1::tovResponse;

TEST(ReplyDecoder, StatusOfEveryLetter) {
  const std::map<char, tov1::tov_error_enum> known = {
      {'a', tov1::TOV_OK},
      {'f', tov1::TOV_OK},
      {'n', tov1::TOV_OK},
      {'w', tov1::TOV_OK},
      {'z', tov1::TOV_OK},
      {'b', tov1::TOV_COMMS_ALREADY},
      {'c', tov1::TOV_COMMS_NOTRUN},
      {'d', tov1::TOV_COMMS_FAIL},
      {'h', tov1::TOV_COMMS_FAIL},
      {'e', tov1::TOV_COMMS_PASSFAIL},
      {'g', tov1::TOV_COMMS_BADSERVICE},
      {'i', tov1::TOV_COMMS_SYSDOWN},
      {'j', tov1::TOV_COMMS_NOT_BROKEN},
      {'k', tov1::TOV_COMMS_BUSY},
      {'o', tov1::TOV_COMMS_BUSY},
      {'l', tov1::TOV_COMMS_ARGS},
      {'m', tov1::TOV_COMMS_LOCKED},
      {'p', tov1::TOV_COMMS_LOCKED},
      {'u', tov1::TOV_COMMS_TOVERR},
  };
  for (int c = 1; c < 256; ++c) {
    char reply[] = {'B', static_cast<char>(c), ' ', 'x', '\0'};
    auto it = known.find(static_cast<char>(c));
    tov1::tov_error_enum code =
        it == known.end() ? tov1::TOV_COMMS_BADRESPONSE : it->second;
    tovDebug.setError(tov1::TOV_OK);
    EXPECT_EQ(tovResponse.getTOVResponseStatus(reply), -static_cast<int>(code))
        << "letter " << c;
    EXPECT_EQ(tovDebug.getError(), static_cast<int>(code)) << "letter " << c;
  }
}

TEST(ReplyDecoder, StatusOfDegenerateBuffers) {
  EXPECT_EQ(tovResponse.getTOVResponseStatus(nullptr),
            -static_cast<int>(tov1::TOV_COMMS_NORESPONSE));
  EXPECT_EQ(tovDebug.getError(), tov1::TOV_COMMS_NORESPONSE);
  char empty[] = "";
  char single[] = "C";
  char twoOnly[] = "Ca";
  EXPECT_EQ(tovResponse.getTOVResponseStatus(empty),
            -static_cast<int>(tov1::TOV_COMMS_BADRESPONSE));
  EXPECT_EQ(tovResponse.getTOVResponseStatus(single),
            -static_cast<int>(tov1::TOV_COMMS_BADRESPONSE));
  EXPECT_EQ(tovResponse.getTOVResponseStatus(twoOnly), 0);
}

TEST(ReplyDecoder, MessageIsTheFirstLineAfterTheLetters) {
  const struct {
    const char* reply;
    const char* message;
  } cases[] = {
      {"Ba service 0 (web) bounced", "service 0 (web) bounced"},
      {"Cn cluster information\nC alpha 2\n", "cluster information"},
      {"Bk daemon busy\r\n", "daemon busy"},
      {"Zu", ""},
      {"Zu\nsecond line", ""},
      {"C", ""},
      {"", ""},
  };
  for (const auto& c : cases) {
    std::string copy = c.reply;
    EXPECT_EQ(tovResponse.getTOVResponseMsg(&copy[0]), c.message) << c.reply;
  }
  EXPECT_EQ(tovResponse.getTOVResponseMsg(nullptr), "");
}

TEST(ReplyDecoder, ServiceStateWords) {
  const char* const expected[] = {"unknown",  "running", "stopped", "starting",
                                  "stopping", "broken",  "unknown"};
  for (int state = -1; state <= 5; ++state) {
    EXPECT_EQ(tovResponse.getTOVServiceState(state), expected[state + 1]);
  }
  EXPECT_EQ(tovResponse.getTOVServiceState(1000), "unknown");
}
