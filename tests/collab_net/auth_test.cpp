// Authentication digests and lines, checked against values computed
// independently (OpenSSL one-shot functions and fixed reference vectors).
#include <gtest/gtest.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>

#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "tovapi/internal_secrets.h"
#include "tovapi/libtovapi.h"

using tov1::tovAuth;
using tov1::tovDebug;

namespace {

std::string hex(const unsigned char* p, std::size_t n) {
  static const char d[] = "0123456789abcdef";
  std::string s;
  for (std::size_t i = 0; i < n; ++i) {
    s += d[p[i] >> 4];
    s += d[p[i] & 15];
  }
  return s;
}

std::string sha256Hex(const std::string& text) {
  unsigned char md[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(text.data()), text.size(), md);
  return hex(md, sizeof md);
}

// Swaps std::cin and std::cerr for the duration of a test.
class Console {
 public:
  explicit Console(const std::string& input)
      : in_(input),
        oldIn_(std::cin.rdbuf(in_.rdbuf())),
        oldErr_(std::cerr.rdbuf(err_.rdbuf())) {}
  ~Console() {
    std::cin.rdbuf(oldIn_);
    std::cin.clear();
    std::cerr.rdbuf(oldErr_);
  }
  std::string err() const { return err_.str(); }

 private:
  std::istringstream in_;
  std::ostringstream err_;
  std::streambuf* oldIn_;
  std::streambuf* oldErr_;
};

const char kSecretDigest[] =
    "2bb80d537b1da3e38bd30361aa855686bde0eacd7162fef6a25fe97bf527a25b";

}  // namespace

TEST(Authentication, PasswordDigestIsLowerHexSha256) {
  EXPECT_EQ(tovAuth.getPwdDigest("abc"),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(tovAuth.getPwdDigest("secret"), kSecretDigest);
  EXPECT_EQ(tovAuth.getPwdDigest(""), sha256Hex(""));
  std::string withNul("pa\0ss", 5);
  EXPECT_EQ(tovAuth.getPwdDigest(withNul), sha256Hex(withNul));
  EXPECT_EQ(tovAuth.getAdminHash("secret"), kSecretDigest);
}

TEST(Authentication, GenObjectBuildsUserAndDigest) {
  EXPECT_EQ(tovAuth.genObject("ops", "secret", ""),
            (std::vector<std::string>{"ops", kSecretDigest}));

  std::string upper = kSecretDigest;
  for (char& c : upper) c = static_cast<char>(std::toupper(c));
  EXPECT_EQ(tovAuth.genObject("ops", "ignored", upper),
            (std::vector<std::string>{"ops", kSecretDigest}));

  // A bad precomputed digest leaves a vector the exchange refuses.
  Console console("");
  EXPECT_EQ(tovAuth.genObject("ops", "secret", "1234"),
            (std::vector<std::string>{"ops"}));
  EXPECT_EQ(tovDebug.getError(), tov1::TOV_AUTH_GENDIGEST);
  EXPECT_NE(console.err().find("Auth::genObject()"), std::string::npos);
}

// A password digest is the key of every authentication line: whatever way
// Auth produces or receives one, traces show it blanked. The authentication
// line itself is no key and is shown.
TEST(Authentication, DigestsAreBlankedInTraces) {
  const std::string given =
      "ABCDEF0123456789abcdef0123456789ABCDEF0123456789abcdef0123456789";
  std::string lower = given;
  for (char& c : lower) c = static_cast<char>(std::tolower(c));
  const struct {
    const char* name;
    std::function<std::string()> produce;  // the value a trace shows
  } cases[] = {
      {"getPwdDigest", [] { return tovAuth.getPwdDigest("secret"); }},
      {"getAdminHash", [] { return tovAuth.getAdminHash("other"); }},
      {"genObject", [] { return tovAuth.genObject("ops", "pw", "")[1]; }},
      {"given digest", [&] { return tovAuth.genObject("ops", "", given)[1]; }},
      {"given, as typed",
       [&] {
         tovAuth.genObject("ops", "", given);
         return given;
       }},
      {"authline",
       [&] {
         return tovAuth.generateAuthline({"ops", lower}, "salt", "B 1")
             .substr(4);
       }},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    tov1::secrets::forgetAll();
    const std::string value = c.produce();
    ASSERT_EQ(value.size(), 64u);
    std::ostringstream trace;
    trace << "authvec  = ops, " << value << "\n";
    Console console("");
    tovDebug.setDebugLevel(3);
    tovDebug.write(trace);
    tovDebug.setDebugLevel(0);
    const bool isKey = std::string(c.name) != "authline";
    EXPECT_EQ(console.err().find(value) == std::string::npos, isKey);
    EXPECT_EQ(console.err().find("<redacted>") != std::string::npos, isKey);
  }
  tov1::secrets::forgetAll();
}

TEST(Authentication, GetBinDecodesHexSaltAndKeepsAnythingElse) {
  struct Case {
    std::string salt;
    std::string expected;
  } cases[] = {
      {"0a1b2c3d", std::string("\x0a\x1b\x2c\x3d", 4)},
      {"FFffFF00", std::string("\xff\xff\xff\x00", 4)},
      {"00000000", std::string(4, '\0')},
      {"0a1b2c3g", "0a1b2c3g"},
      {std::string("0a1b2\0\0\0", 8), std::string("0a1b2\0\0\0", 8)},
      {std::string(8, '\0'), std::string(8, '\0')},
      {"0a1b2c3", "0a1b2c3"},
      {"0a1b2c3d4", "0a1b2c3d4"},
      {"", ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(tovAuth.getBin(c.salt), c.expected) << "salt " << c.salt;
  }
}

TEST(Authentication, AuthlineMatchesReferenceHmac) {
  std::vector<std::string> authvec{"ops", kSecretDigest};
  // Reference value computed outside OpenSSL.
  EXPECT_EQ(
      tovAuth.generateAuthline(authvec, tovAuth.getBin("0a1b2c3d"), "B 1"),
      "ops 3769cbeeac29f045e8d04c4ab1d512a6a3e49761dcc0c775b7da5c038e11a1bc");
  // A short salt with NULs is used byte for byte.
  std::string salt(
      "\x00\x01"
      "ab\0\0\0\0",
      8);
  EXPECT_EQ(
      tovAuth.generateAuthline(authvec, tovAuth.getBin(salt), "CCN"),
      "ops e69f70f567a5cfbe8fd04b10dacb9f6e12eb7955d7325c6f236c9662a082d37f");

  // And against OpenSSL's one-shot HMAC for another key and message.
  std::string digest = tovAuth.getPwdDigest("hunter2");
  std::string key;
  for (std::size_t i = 0; i < digest.size(); i += 2)
    key += static_cast<char>(std::stoi(digest.substr(i, 2), nullptr, 16));
  std::string message = std::string("\x12\x34\x56\x78", 4) + "G 3";
  unsigned char mac[EVP_MAX_MD_SIZE];
  unsigned int macLength = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(message.data()), message.size(),
       mac, &macLength);
  EXPECT_EQ(tovAuth.generateAuthline({"root", digest},
                                     tovAuth.getBin("12345678"), "G 3"),
            "root " + hex(mac, macLength));
}

TEST(Authentication, AuthlineRefusesBadVectors) {
  const std::vector<std::vector<std::string>> bad = {
      {},
      {"ops"},
      {"ops", kSecretDigest, "extra"},
      {"ops", std::string(kSecretDigest).substr(1)},
      {"ops", std::string(kSecretDigest) + "0"},
      {"ops", std::string(63, 'a') + "g"},
  };
  for (const auto& authvec : bad) {
    Console console("");
    tovDebug.setError(tov1::TOV_OK);
    EXPECT_EQ(tovAuth.generateAuthline(authvec, "salt", "B 1"), "")
        << tovUtils::vectostr(authvec);
    EXPECT_EQ(tovDebug.getError(), tov1::TOV_AUTH_GENDIGEST);
    EXPECT_NE(console.err().find("Auth::generateAuthline()"),
              std::string::npos);
  }
}

TEST(Authentication, DigestWordsRoundTrip) {
  const std::string digest =
      "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
  unsigned words[8] = {};
  ASSERT_EQ(tovAuth.asciiToDigest(digest, words), 0);
  EXPECT_EQ(words[0], 0xba7816bfu);
  EXPECT_EQ(words[7], 0xf20015adu);
  EXPECT_EQ(tovAuth.msgHexDigest(words), digest);
  std::string raw = tovAuth.msgDigest(words);
  ASSERT_EQ(raw.size(), 32u);
  EXPECT_EQ(static_cast<unsigned char>(raw[0]), 0xba);
  EXPECT_EQ(static_cast<unsigned char>(raw[31]), 0xad);

  unsigned untouched[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  for (const std::string& badText :
       {digest.substr(2), digest + "00", std::string(64, 'z')}) {
    EXPECT_EQ(tovAuth.asciiToDigest(badText, untouched),
              -static_cast<int>(tov1::TOV_AUTH_GENDIGEST));
    EXPECT_EQ(untouched[0], 1u);
  }
  EXPECT_EQ(tovAuth.asciiToDigest(digest, nullptr),
            -static_cast<int>(tov1::TOV_AUTH_GENDIGEST));
  EXPECT_EQ(tovAuth.msgDigest(nullptr), "");
}

TEST(Authentication, IntToBinIsBigEndianLow32Bits) {
  EXPECT_EQ(tovAuth.intToBin(0x0a1b2c3dul), std::string("\x0a\x1b\x2c\x3d", 4));
  EXPECT_EQ(tovAuth.intToBin(0), std::string(4, '\0'));
  EXPECT_EQ(tovAuth.intToBin(0xffffffff12345678ul),
            std::string("\x12\x34\x56\x78", 4));
}

TEST(Authentication, PasswordFromNonTerminalIsOneLine) {
  {
    Console console("s3cret pass\r\nnext line\n");
    EXPECT_EQ(tovAuth.getUserPass("Password: "), "s3cret pass");
    EXPECT_EQ(console.err(), "Password: ");
  }
  {
    Console console("secret\n");
    EXPECT_EQ(tovAuth.getAdminDigest(), kSecretDigest);
    EXPECT_EQ(console.err(), "admin password: ");
  }
  {
    Console console("");
    EXPECT_EQ(tovAuth.getUserPass("? "), "");
  }
}
