// Salts and the check of a request's authentication line.
#ifndef TOVSIM_AUTH_H
#define TOVSIM_AUTH_H

#include <string>
#include <vector>

#include "config.h"

namespace tovsim {

// 8 lower-case hex digits from the system's random source.
std::string makeSalt();

// The bytes a client mixes into the digest for the salt text it received:
// the 4 bytes encoded by 8 hex digits, otherwise the 8 bytes as they are.
std::string binarySalt(const std::string& saltText);

// True for "<user> <64 lower-case hex digits>".
bool looksLikeAuthLine(const std::string& line);

// Lower-case hex of HMAC-SHA-256(key, binsalt + requestLine).
std::string authDigest(const std::array<unsigned char, 32>& key,
                       const std::string& binsalt,
                       const std::string& requestLine);

// Constant-time check of user + digest against the configured users.
bool verifyAuth(const std::vector<UserConfig>& users, const std::string& user,
                const std::string& digestHex, const std::string& binsalt,
                const std::string& requestLine);

}  // namespace tovsim

#endif  // TOVSIM_AUTH_H
