// Authentication against reference values computed elsewhere.
#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/stream_capture.h"
#include "tovapi/internal_secrets.h"
#include "tovapi/libtovapi.h"

using namespace tov1;
using Strings = std::vector<std::string>;

namespace {

const std::string kSecretDigest =  // of "secret"
    "2bb80d537b1da3e38bd30361aa855686bde0eacd7162fef6a25fe97bf527a25b";
const std::string kHunterDigest =  // of "hunter2"
    "f52fbd32b2b3b86ff88ef6c490628285f482af15ddcb29541f94bcf526a3f6c7";

// Lower-case hex SHA-256 of every byte; a bad given digest gives no vector.
TEST(Authentication, PasswordDigestsAndAuthenticationVectors) {
  const std::pair<std::string, std::string> cases[] = {
      {"abc",
       "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {std::string("pa\0ss", 5),
       "7e89ef5fe0fb288715d9be33011d0238159a58dffefc2af01321a1afa84f87d4"}};
  for (const auto& [password, digest] : cases) {
    EXPECT_EQ(tovAuth.getPwdDigest(password), digest) << password;
  }
  EXPECT_EQ(tovAuth.getAdminHash("secret"), kSecretDigest);

  EXPECT_EQ(tovAuth.genObject("ops", "secret", ""),
            (Strings{"ops", kSecretDigest}));
  std::string upper = kSecretDigest;
  for (char& c : upper) c = static_cast<char>(std::toupper(c));
  EXPECT_EQ(tovAuth.genObject("ops", "ignored", upper),
            (Strings{"ops", kSecretDigest}));

  testsupport::StreamCapture cerr;
  EXPECT_EQ(tovAuth.genObject("ops", "secret", "1234"), Strings{"ops"});
  EXPECT_EQ(tovDebug.getError(), TOV_AUTH_GENDIGEST);
  EXPECT_NE(cerr.text().find("Auth::genObject()"), std::string::npos);
}

// However Auth comes to hold a digest (a key), diagnostics must blank it.
TEST(Authentication, DigestsAreRememberedAsSecrets) {
  const auto remembered = [](const std::string& value) {
    std::string text = value;
    const bool blanked = value.size() == 64 && secrets::redact(text);
    secrets::forgetAll();
    return blanked;
  };
  const std::string given =
      "ABCDEF0123456789abcdef0123456789ABCDEF0123456789abcdef0123456789";
  secrets::forgetAll();
  EXPECT_TRUE(remembered(tovAuth.getPwdDigest("secret")));
  EXPECT_TRUE(remembered(tovAuth.getAdminHash("other")));
  EXPECT_TRUE(remembered(tovAuth.genObject("ops", "pw", "")[1]));
  EXPECT_TRUE(remembered(tovAuth.genObject("ops", "", given)[1]));
  tovAuth.genObject("ops", "", given);
  EXPECT_TRUE(remembered(given)) << "as typed";
  const std::string line =
      tovAuth.generateAuthline({"ops", kHunterDigest}, "salt", "B 1");
  EXPECT_FALSE(remembered(line.substr(line.find(' ') + 1)));
}

TEST(Authentication, GetBinDecodesAHexSaltAndKeepsAnythingElse) {
  const std::pair<std::string, std::string> cases[] = {
      {"0a1b2c3d", std::string("\x0a\x1b\x2c\x3d", 4)},
      {"FFffFF00", std::string("\xff\xff\xff\x00", 4)},
      {"0a1b2c3g", "0a1b2c3g"},
      {std::string("0a1b2\0\0\0", 8), std::string("0a1b2\0\0\0", 8)},
      {"0a1b2c3", "0a1b2c3"},
      {"0a1b2c3d4", "0a1b2c3d4"},
      {"", ""}};
  for (const auto& [salt, expected] : cases) {
    EXPECT_EQ(tovAuth.getBin(salt), expected) << "salt " << salt;
  }
}

TEST(Authentication, AuthlineIsUserAndHmacOfSaltAndCommand) {
  // Digest, salt, command, and the HMAC that the line must carry.
  using Case = std::tuple<std::string, std::string, std::string, std::string>;
  const Case cases[] = {
      {kSecretDigest, "0a1b2c3d", "B 1",
       "3769cbeeac29f045e8d04c4ab1d512a6a3e49761dcc0c775b7da5c038e11a1bc"},
      // A salt that is no hex is used byte for byte, NULs included.
      {kSecretDigest, std::string("\0\1ab\0\0\0\0", 8), "CCN",
       "e69f70f567a5cfbe8fd04b10dacb9f6e12eb7955d7325c6f236c9662a082d37f"},
      {kHunterDigest, "12345678", "G 3",
       "cc37f3d830f9868caf8224c994d124963e2c90db82e9e2ff7a81e338b01c9467"},
  };
  for (const auto& [digest, salt, command, mac] : cases) {
    EXPECT_EQ(tovAuth.generateAuthline({"ops", digest}, tovAuth.getBin(salt),
                                       command),
              "ops " + mac)
        << command;
  }

  const std::vector<Strings> bad = {{},
                                    {"ops"},
                                    {"ops", kSecretDigest, "extra"},
                                    {"ops", kSecretDigest.substr(1)},
                                    {"ops", kSecretDigest + "0"},
                                    {"ops", std::string(63, 'a') + "g"}};
  for (const auto& authvec : bad) {
    SCOPED_TRACE(tovUtils::vectostr(authvec));
    testsupport::StreamCapture cerr;
    tovDebug.setError(TOV_OK);
    EXPECT_EQ(tovAuth.generateAuthline(authvec, "salt", "B 1"), "");
    EXPECT_EQ(tovDebug.getError(), TOV_AUTH_GENDIGEST);
    EXPECT_NE(cerr.text().find("Auth::generateAuthline()"), std::string::npos);
  }
}

TEST(Authentication, DigestWordsAndBigEndianBytes) {
  const std::string digest =
      "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
  unsigned words[8] = {};
  ASSERT_EQ(tovAuth.asciiToDigest(digest, words), 0);
  EXPECT_EQ(words[0], 0xba7816bfu);
  EXPECT_EQ(words[7], 0xf20015adu);
  EXPECT_EQ(tovAuth.msgHexDigest(words), digest);
  const std::string raw = tovAuth.msgDigest(words);
  ASSERT_EQ(raw.size(), 32u);
  EXPECT_EQ(raw.substr(0, 2) + raw.substr(30), "\xba\x78\x15\xad");

  const int refused = -static_cast<int>(TOV_AUTH_GENDIGEST);
  for (const std::string& badText :
       {digest.substr(2), digest + "00", std::string(64, 'z')}) {
    EXPECT_EQ(tovAuth.asciiToDigest(badText, words), refused) << badText;
    EXPECT_EQ(words[0], 0xba7816bfu) << "left untouched";
  }
  EXPECT_EQ(tovAuth.asciiToDigest(digest, nullptr), refused);
  EXPECT_EQ(tovAuth.msgDigest(nullptr), "");

  EXPECT_EQ(tovAuth.intToBin(0x0a1b2c3dul), "\x0a\x1b\x2c\x3d");
  EXPECT_EQ(tovAuth.intToBin(0), std::string(4, '\0'));
  EXPECT_EQ(tovAuth.intToBin(0xffffffff12345678ul), "\x12\x34\x56\x78");
}

// One line, without its CR LF, and nothing after it is consumed.
TEST(Authentication, PasswordFromNonTerminalIsOneLine) {
  std::istringstream typed("s3cret pass\r\nsecret\n");
  std::streambuf* const oldIn = std::cin.rdbuf(typed.rdbuf());
  testsupport::StreamCapture cerr;
  EXPECT_EQ(tovAuth.getUserPass("Password: "), "s3cret pass");
  EXPECT_EQ(tovAuth.getAdminDigest(), kSecretDigest);
  EXPECT_EQ(tovAuth.getUserPass("? "), "");
  EXPECT_EQ(cerr.text(), "Password: admin password: ? ");
  std::cin.rdbuf(oldIn);
  std::cin.clear();
}

}  // namespace
