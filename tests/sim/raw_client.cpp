#include "raw_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <stdexcept>

namespace rawtest {

Socket::~Socket() {
  if (fd_ >= 0) close(fd_);
}

Socket& Socket::operator=(Socket&& o) noexcept {
  if (this != &o) {
    if (fd_ >= 0) close(fd_);
    fd_ = o.fd_;
    o.fd_ = -1;
  }
  return *this;
}

Socket connectTcp(const std::string& address, int port) {
  sockaddr_in sa{};
  sa.sin_family = AF_INET;
  sa.sin_port = htons(static_cast<uint16_t>(port));
  if (inet_pton(AF_INET, address.c_str(), &sa.sin_addr) != 1) {
    throw std::runtime_error("bad address " + address);
  }
  Socket s(socket(AF_INET, SOCK_STREAM, 0));
  if (s.fd() < 0) throw std::runtime_error("socket failed");
  const timeval tv{5, 0};
  setsockopt(s.fd(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  setsockopt(s.fd(), SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  if (connect(s.fd(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) {
    throw std::runtime_error("connect to " + address + ":" +
                             std::to_string(port) +
                             " failed: " + std::strerror(errno));
  }
  return s;
}

std::string readSome(int fd, std::size_t n, int ms, int* err, bool* eof) {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::milliseconds(ms);
  std::string out;
  if (err) *err = 0;
  if (eof) *eof = false;
  while (out.size() < n) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - Clock::now())
                          .count();
    if (left <= 0) break;
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left)) <= 0) break;
    char buf[4096];
    const std::size_t want = std::min(sizeof buf, n - out.size());
    const ssize_t got = recv(fd, buf, want, 0);
    if (got == 0) {
      if (eof) *eof = true;
      break;
    }
    if (got < 0) {
      if (err) *err = errno;
      break;
    }
    out.append(buf, static_cast<std::size_t>(got));
  }
  return out;
}

std::string readToClose(int fd, int* err, std::vector<std::size_t>* pieces) {
  std::string out;
  if (err) *err = 0;
  for (int i = 0; i < 100000; ++i) {
    char buf[8192];
    const ssize_t got = recv(fd, buf, sizeof buf, 0);
    if (got == 0) break;
    if (got < 0) {
      if (errno == EINTR) continue;
      if (err) *err = errno;
      break;
    }
    if (pieces) pieces->push_back(static_cast<std::size_t>(got));
    out.append(buf, static_cast<std::size_t>(got));
  }
  return out;
}

void sendAll(int fd, const std::string& bytes) {
  std::size_t off = 0;
  while (off < bytes.size()) {
    const ssize_t n =
        send(fd, bytes.data() + off, bytes.size() - off, MSG_NOSIGNAL);
    if (n <= 0) throw std::runtime_error("send failed");
    off += static_cast<std::size_t>(n);
  }
}

std::string authLine(const std::string& user, const std::string& password,
                     const std::string& salt, const std::string& line) {
  unsigned char key[32];
  unsigned int keyLen = 0;
  EVP_Digest(password.data(), password.size(), key, &keyLen, EVP_sha256(),
             nullptr);
  // 8 hex digits stand for 4 bytes; anything else is used as it is.
  std::string bin = salt;
  if (salt.size() == 8 &&
      salt.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos) {
    bin.clear();
    for (int i = 0; i < 8; i += 2) {
      bin += static_cast<char>(std::stoi(salt.substr(i, 2), nullptr, 16));
    }
  }
  const std::string msg = bin + line;
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int mdLen = 0;
  HMAC(EVP_sha256(), key, static_cast<int>(keyLen),
       reinterpret_cast<const unsigned char*>(msg.data()), msg.size(), md,
       &mdLen);
  std::ostringstream os;
  os << user << ' ';
  static const char digits[] = "0123456789abcdef";
  for (unsigned int i = 0; i < mdLen; ++i) {
    os << digits[md[i] >> 4] << digits[md[i] & 15];
  }
  return os.str();
}

std::string frame(const std::string& line, const std::string& auth,
                  const std::string& data) {
  std::string f = line + "\n";
  if (!auth.empty()) f += auth + "\n";
  f += data;
  f += '\0';
  return f;
}

Reply exchange(int port, const std::string& line, const std::string& user,
               const std::string& password, const std::string& data,
               const std::string& address) {
  Socket s = connectTcp(address, port);
  Reply r;
  r.salt = readSome(s.fd(), 8, 5000);
  const std::string auth =
      user.empty() ? std::string() : authLine(user, password, r.salt, line);
  sendAll(s.fd(), frame(line, auth, data));
  r.bytes = readToClose(s.fd(), &r.err);
  return r;
}

std::vector<std::string> lines(const std::string& reply) {
  std::vector<std::string> out;
  std::string text = reply.substr(0, reply.find('\0'));
  std::istringstream in(text);
  std::string l;
  while (std::getline(in, l)) {
    if (!l.empty()) out.push_back(l);
  }
  return out;
}

std::vector<std::string> fields(const std::string& line) {
  // Split at every single blank, so that a doubled blank shows up as an
  // empty field.
  std::vector<std::string> out;
  std::size_t start = 0;
  for (;;) {
    const std::size_t blank = line.find(' ', start);
    out.push_back(line.substr(start, blank - start));
    if (blank == std::string::npos) return out;
    start = blank + 1;
  }
}

}  // namespace rawtest
