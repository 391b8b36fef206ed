#include "auth.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <cstdio>
#include <stdexcept>

namespace tovsim {

namespace {

std::string toHex(const unsigned char* p, std::size_t n) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * n);
  for (std::size_t i = 0; i < n; ++i) {
    out += digits[p[i] >> 4];
    out += digits[p[i] & 0x0F];
  }
  return out;
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

std::string makeSalt() {
  unsigned char raw[4];
  if (RAND_bytes(raw, sizeof raw) != 1) {
    throw std::runtime_error("random source failed");
  }
  return toHex(raw, sizeof raw);
}

std::string binarySalt(const std::string& saltText) {
  if (saltText.size() == 8) {
    std::string out;
    for (std::size_t i = 0; i < 8; i += 2) {
      const int hi = hexValue(saltText[i]);
      const int lo = hexValue(saltText[i + 1]);
      if (hi < 0 || lo < 0) return saltText;
      out += static_cast<char>(hi * 16 + lo);
    }
    return out;
  }
  return saltText;
}

bool looksLikeAuthLine(const std::string& line) {
  const std::size_t blank = line.find(' ');
  if (blank == std::string::npos || blank == 0) return false;
  for (std::size_t i = 0; i < blank; ++i) {
    const unsigned char c = static_cast<unsigned char>(line[i]);
    if (c <= ' ' || c == 0x7f) return false;
  }
  if (line.size() - blank - 1 != 64) return false;
  for (std::size_t i = blank + 1; i < line.size(); ++i) {
    const char c = line[i];
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

std::string authDigest(const std::array<unsigned char, 32>& key,
                       const std::string& binsalt,
                       const std::string& requestLine) {
  const std::string msg = binsalt + requestLine;
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  if (HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
           reinterpret_cast<const unsigned char*>(msg.data()), msg.size(), md,
           &len) == nullptr) {
    throw std::runtime_error("HMAC-SHA-256 failed");
  }
  return toHex(md, len);
}

bool verifyAuth(const std::vector<UserConfig>& users, const std::string& user,
                const std::string& digestHex, const std::string& binsalt,
                const std::string& requestLine) {
  // An unknown user costs the same work as a known one.
  static const std::array<unsigned char, 32> dummy{};
  const std::array<unsigned char, 32>* key = &dummy;
  bool known = false;
  for (const UserConfig& u : users) {
    if (u.user == user) {
      key = &u.key;
      known = true;
    }
  }
  const std::string expected = authDigest(*key, binsalt, requestLine);
  if (digestHex.size() != expected.size()) return false;
  const bool same =
      CRYPTO_memcmp(expected.data(), digestHex.data(), expected.size()) == 0;
  return known && same;
}

}  // namespace tovsim
