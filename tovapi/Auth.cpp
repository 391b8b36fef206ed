// Authentication: password digests, the salt conversion and the
// authentication line that accompanies a request. All hashing is done by
// libcrypto.
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "internal_secrets.h"
#include "libtovapi.h"

namespace tov1 {

Auth tovAuth;

namespace {

const std::size_t kDigestBytes = 32;  // SHA-256
const std::size_t kDigestHex = 2 * kDigestBytes;
const std::size_t kDigestWords = 8;
const std::size_t kSaltHex = 8;

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isHex(const std::string& text, std::size_t length) {
  if (text.size() != length) return false;
  for (char c : text) {
    if (hexValue(c) < 0) return false;
  }
  return true;
}

std::string toHex(const unsigned char* bytes, std::size_t length) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  out.reserve(2 * length);
  for (std::size_t i = 0; i < length; ++i) {
    out += kDigits[bytes[i] >> 4];
    out += kDigits[bytes[i] & 0x0f];
  }
  return out;
}

// Bytes encoded by an even-length run of hex digits (validated by caller).
std::string fromHex(const std::string& hex) {
  std::string out;
  out.reserve(hex.size() / 2);
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    out += static_cast<char>((hexValue(hex[i]) << 4) | hexValue(hex[i + 1]));
  }
  return out;
}

void reportError(const char* location, const std::string& message) {
  std::stringstream ss;
  ss << message << std::endl;
  tovDebug.error(location, ss);
}

// A password prompt on a terminal. While the typing is hidden, the signals
// that end a process from the keyboard or the session are caught first: the
// handler puts the terminal and the previous dispositions back and raises
// the signal again, so that the process ends as it would have, but with its
// terminal echoing. A stop (SIGTSTP) is treated the same way; when the
// process continues, the typing is hidden again and the prompt shown anew.
// The handler reaches its data through globals, so there is one prompt at a
// time (promptLock).
const int kPromptSignals[] = {SIGINT, SIGTERM, SIGQUIT, SIGHUP, SIGTSTP};
constexpr std::size_t kPromptSignalCount =
    sizeof kPromptSignals / sizeof kPromptSignals[0];

std::mutex promptLock;
int promptFd = -1;
termios promptSaved{};
struct sigaction promptOld[kPromptSignalCount];
bool promptCaught[kPromptSignalCount];
volatile std::sig_atomic_t promptSignal = 0;

void restoreDispositions() {
  for (std::size_t i = 0; i < kPromptSignalCount; ++i) {
    if (promptCaught[i]) sigaction(kPromptSignals[i], &promptOld[i], nullptr);
  }
}

extern "C" void onPromptSignal(int sig) {
  const int savedErrno = errno;
  promptSignal = sig;
  tcsetattr(promptFd, TCSANOW, &promptSaved);
  restoreDispositions();
  // Blocked until this handler returns; then it takes its old course.
  raise(sig);
  errno = savedErrno;
}

class QuietTerminal {
 public:
  explicit QuietTerminal(int fd) {
    if (!isatty(fd)) return;
    lock_ = std::unique_lock<std::mutex>(promptLock);
    promptFd = fd;
    active_ = hide();
    if (!active_) lock_.unlock();
  }
  ~QuietTerminal() {
    if (!active_) return;
    tcsetattr(promptFd, TCSAFLUSH, &promptSaved);
    restoreDispositions();
  }
  QuietTerminal(const QuietTerminal&) = delete;
  QuietTerminal& operator=(const QuietTerminal&) = delete;

  bool active() const { return active_; }

  // After an interrupted read: 0 when none of the prompt's signals came,
  // else the signal, whose handler has already put everything back.
  int takeSignal() {
    const int sig = promptSignal;
    promptSignal = 0;
    if (sig != 0) active_ = false;
    return sig;
  }

  // Back from a stop: hide the typing again.
  bool resume() {
    active_ = hide();
    return active_;
  }

 private:
  // Handlers first, then echo off: a signal in between finds the terminal
  // settings it has to restore already saved.
  bool hide() {
    if (tcgetattr(promptFd, &promptSaved) != 0) return false;
    promptSignal = 0;
    struct sigaction catcher {};
    catcher.sa_handler = onPromptSignal;
    sigemptyset(&catcher.sa_mask);
    catcher.sa_flags = 0;  // no SA_RESTART: the read has to end
    for (std::size_t i = 0; i < kPromptSignalCount; ++i) {
      promptCaught[i] = false;
      struct sigaction old {};
      if (sigaction(kPromptSignals[i], nullptr, &old) != 0) continue;
      // An ignored signal stays ignored (nohup, background jobs).
      if (old.sa_handler == SIG_IGN) continue;
      promptOld[i] = old;
      promptCaught[i] = sigaction(kPromptSignals[i], &catcher, nullptr) == 0;
    }
    termios quiet = promptSaved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    quiet.c_lflag |= ECHONL;
    if (tcsetattr(promptFd, TCSAFLUSH, &quiet) != 0) {
      restoreDispositions();
      return false;
    }
    return true;
  }

  std::unique_lock<std::mutex> lock_;
  bool active_ = false;
};

// The buffer through which std::cin reads file descriptor 0. While it is in
// place, a prompt reads the descriptor itself, so that a signal ends the read
// reliably; a caller that swapped in another buffer is read through it.
std::streambuf* const standardInputBuffer = [] {
  std::ios_base::Init streamsReady;
  return std::cin.rdbuf();
}();

// One line from the terminal, byte by byte so that nothing after the line
// end is consumed. False when a signal ended the prompt.
bool readTerminalLine(QuietTerminal& quiet, const std::string& prompt,
                      std::string& line) {
  for (;;) {
    char c = 0;
    const ssize_t n = read(promptFd, &c, 1);
    if (n == 1) {
      if (c == '\n') return true;
      line += c;
      continue;
    }
    if (n == 0) return true;  // end of input
    if (errno != EINTR) return true;
    const int sig = quiet.takeSignal();
    if (sig == 0) continue;  // some other signal's handler ran
    // A terminating signal whose handler kept the process alive: the
    // prompt is over.
    if (sig != SIGTSTP || !quiet.resume()) return false;
    // The terminal dropped the partly typed line when it stopped the job.
    OPENSSL_cleanse(&line[0], line.size());
    line.clear();
    std::cerr << prompt << std::flush;
  }
}

}  // namespace

std::string Auth::generateAuthline(std::vector<std::string> authvec,
                                   std::string binsalt, std::string command) {
  if (authvec.size() != 2) {
    reportError("Auth::generateAuthline()",
                "authentication vector must hold a user and a digest, got " +
                    std::to_string(authvec.size()) + " element(s)");
    tovDebug.setError(TOV_AUTH_GENDIGEST);
    return "";
  }
  if (!isHex(authvec[1], kDigestHex)) {
    reportError("Auth::generateAuthline()",
                "password digest of user \"" + authvec[0] +
                    "\" is not 64 hexadecimal digits");
    tovDebug.setError(TOV_AUTH_GENDIGEST);
    return "";
  }
  // A vector built without genObject still holds a usable key.
  secrets::remember(authvec[1]);
  std::string key = fromHex(authvec[1]);
  std::string message = binsalt + command;
  unsigned char mac[EVP_MAX_MD_SIZE];
  std::size_t macLength = 0;
  unsigned char* done =
      EVP_Q_mac(nullptr, "HMAC", nullptr, "SHA256", nullptr,
                reinterpret_cast<const unsigned char*>(key.data()), key.size(),
                reinterpret_cast<const unsigned char*>(message.data()),
                message.size(), mac, sizeof mac, &macLength);
  OPENSSL_cleanse(&key[0], key.size());
  if (done == nullptr) {
    reportError("Auth::generateAuthline()", "HMAC-SHA-256 computation failed");
    tovDebug.setError(TOV_AUTH_GENDIGEST);
    return "";
  }
  if (tovDebug.getDebugLevel() == 3) {
    std::stringstream ss;
    ss << "Auth::generateAuthline(): authentication line for user "
       << authvec[0] << std::endl;
    tovDebug.write(ss);
  }
  return authvec[0] + " " + toHex(mac, macLength);
}

std::string Auth::getBin(std::string salt) {
  if (!isHex(salt, kSaltHex)) return salt;
  return fromHex(salt);
}

int Auth::asciiToDigest(std::string hex, unsigned* words) {
  if (words == nullptr || !isHex(hex, kDigestHex)) {
    return tovDebug.setError(TOV_AUTH_GENDIGEST);
  }
  for (std::size_t w = 0; w < kDigestWords; ++w) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 8; ++i) {
      value =
          (value << 4) | static_cast<std::uint32_t>(hexValue(hex[w * 8 + i]));
    }
    words[w] = value;
  }
  return 0;
}

std::string Auth::getPwdDigest(std::string password) {
  unsigned char md[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(password.data(), password.size(), md, &length, EVP_sha256(),
                 nullptr) != 1) {
    reportError("Auth::getPwdDigest()", "SHA-256 computation failed");
    tovDebug.setError(TOV_AUTH_GENDIGEST);
    return "";
  }
  std::string digest = toHex(md, length);
  // The digest is the key of every authentication line: as good as the
  // password itself, so diagnostics must never show it.
  secrets::remember(digest);
  return digest;
}

std::string Auth::msgHexDigest(unsigned* words) {
  std::string raw = msgDigest(words);
  return toHex(reinterpret_cast<const unsigned char*>(raw.data()), raw.size());
}

std::string Auth::msgDigest(unsigned* words) {
  if (words == nullptr) return "";
  std::string out;
  out.reserve(kDigestBytes);
  for (std::size_t w = 0; w < kDigestWords; ++w) {
    out += intToBin(words[w]);
  }
  return out;
}

std::string Auth::getAdminDigest() {
  return getAdminHash(getUserPass("admin password: "));
}

std::string Auth::getAdminHash(std::string password) {
  return getPwdDigest(password);
}

std::string Auth::getUserPass(std::string prompt) {
  std::string password;
  {
    // On a terminal the typed text stays hidden; anything else (a pipe, a
    // file) is simply read, one line. Echo goes off before the prompt shows,
    // so nothing typed in answer to it is ever echoed.
    QuietTerminal quiet(STDIN_FILENO);
    std::cerr << prompt << std::flush;
    if (quiet.active() && std::cin.rdbuf() == standardInputBuffer) {
      if (!readTerminalLine(quiet, prompt, password)) {
        OPENSSL_cleanse(&password[0], password.size());
        password.clear();
      }
    } else {
      std::getline(std::cin, password);
    }
  }
  if (!password.empty() && password.back() == '\r') password.pop_back();
  return password;
}

std::string Auth::intToBin(unsigned long value) {
  std::string out(4, '\0');
  for (int i = 3; i >= 0; --i) {
    out[static_cast<std::size_t>(i)] = static_cast<char>(value & 0xff);
    value >>= 8;
  }
  return out;
}

std::vector<std::string> Auth::genObject(std::string user, std::string password,
                                         std::string digest) {
  if (digest.empty()) return {user, getPwdDigest(password)};
  if (!isHex(digest, kDigestHex)) {
    // A vector without a digest makes any exchange refuse it plainly,
    // instead of sending a request with an authentication line that can
    // never match.
    reportError("Auth::genObject()",
                "given password digest is not 64 hexadecimal digits");
    tovDebug.setError(TOV_AUTH_GENDIGEST);
    return {user};
  }
  secrets::remember(digest);
  for (char& c : digest) {
    if (c >= 'A' && c <= 'F') c = static_cast<char>(c - 'A' + 'a');
  }
  secrets::remember(digest);
  return {user, digest};
}

}  // namespace tov1
