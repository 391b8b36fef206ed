// The network client: host validation, bounded connect, the salted request
// exchange, service commands with busy retry, cluster discovery and the quiet
// node probe. It compiles against the public header alone and talks to the
// rest of the library only through the global collaborator objects.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "internal_discovery.h"
#include "libtovapi.h"

namespace tov1 {

TOVNet tovNet;

int getIpFamily(int family) {
  if (family == AF_INET) return 4;
  if (family == AF_INET6) return 6;
  if (family == AF_UNSPEC) return 0;
  return 1;
}

namespace {

int level() { return tovDebug.getDebugLevel(); }

// One piece of a diagnostic line, already in its printed form, so that the
// line helpers below need no template per combination of argument types.
class Piece {
 public:
  Piece(const char* text) : text_(text ? text : "") {}
  Piece(const std::string& text) : text_(text) {}
  Piece(char c) : text_(1, c) {}
  Piece(int n) : text_(std::to_string(n)) {}
  Piece(long n) : text_(std::to_string(n)) {}
  Piece(unsigned n) : text_(std::to_string(n)) {}
  Piece(unsigned long n) : text_(std::to_string(n)) {}
  Piece(const void* pointer) {
    std::ostringstream os;
    os << pointer;
    text_ = os.str();
  }
  const std::string& text() const { return text_; }

 private:
  std::string text_;
};

void compose(std::ostringstream& os, std::initializer_list<Piece> parts) {
  for (const Piece& part : parts) os << part.text();
  os << std::endl;
}

// One diagnostic line: composed in a fresh stream, ended, handed over.
void trace(std::initializer_list<Piece> parts) {
  std::ostringstream os;
  compose(os, parts);
  tovDebug.write(os);
}

void report(const std::string& where, std::initializer_list<Piece> parts) {
  std::ostringstream os;
  compose(os, parts);
  tovDebug.error(where, os);
}

// select() cannot watch a descriptor at or beyond FD_SETSIZE; such a wait is
// reported as a failing select instead of overrunning the set.
bool selectable(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

// send() that never raises SIGPIPE in the caller: the signal is blocked for
// the call, and one that the call itself made pending is consumed.
ssize_t sendWithoutSigpipe(int fd, const char* data, size_t len) {
  sigset_t pipeSet, oldSet, pending;
  sigemptyset(&pipeSet);
  sigaddset(&pipeSet, SIGPIPE);
  sigemptyset(&pending);
  sigpending(&pending);
  const bool wasPending = sigismember(&pending, SIGPIPE) == 1;
  pthread_sigmask(SIG_BLOCK, &pipeSet, &oldSet);
  const ssize_t sent = send(fd, data, len, 0);
  const int sendErrno = errno;
  if (sent < 0 && sendErrno == EPIPE && !wasPending) {
    const timespec zero{0, 0};
    sigtimedwait(&pipeSet, nullptr, &zero);
  }
  pthread_sigmask(SIG_SETMASK, &oldSet, nullptr);
  errno = sendErrno;
  return sent;
}

// ---- The steps of one request exchange, in the order tovcomms takes them.

const char* const kExchange = "TOVNet::tovcomms()";

void traceExchangeCall(const std::string& address, const std::string& port,
                       const std::string& command,
                       const std::vector<std::string>& authvec,
                       const std::string& data) {
  if (level() > 1) trace({"TOVNet::tovcomms(): called"});
  if (level() > 1) trace({"TOVNet::tovcomms(): address  = ", address});
  if (level() > 1) trace({"TOVNet::tovcomms(): port     = ", port});
  if (level() > 1) trace({"TOVNet::tovcomms(): command  = ", command});
  if (level() == 3)
    trace({"TOVNet::tovcomms(): authvec  = ", tovUtils::vectostr(authvec)});
  if (level() == 3) trace({"TOVNet::tovcomms(): data     = ", data});
  if (level() == 3)
    trace(
        {"TOVNet::tovcomms(): ===== TOVCOMMS OUTPUT FOR ", address, " ====="});
}

// An authentication vector is empty (no authentication) or a user and a
// digest; anything else is refused before any traffic.
int checkAuthVector(const std::vector<std::string>& authvec) {
  if (authvec.empty()) {
    if (level() > 1)
      trace({"TOVNet::tovcomms(): warning: empty authentication ",
             "vector detected"});
  } else if (authvec.size() == 1) {
    report(kExchange, {"authentication vector with no digest detected"});
    return tovDebug.setError(TOV_AUTH_DIGEST);
  } else if (authvec.size() > 2) {
    report(kExchange, {"invalid authentication vector detected"});
    return tovDebug.setError(TOV_AUTH_INVALID);
  }
  return 0;
}

// Empty address and port mean the local daemon on its usual port.
int resolve(std::string& address, std::string& port, int prefAF,
            addrinfo*& res) {
  addrinfo hints;
  std::memset(&hints, 0, sizeof hints);
  hints.ai_flags = AI_PASSIVE;
  hints.ai_family =
      (prefAF == AF_INET || prefAF == AF_INET6) ? prefAF : AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  if (address.empty()) address = "127.0.0.1";
  if (port.empty()) port = "1195";
  if (getaddrinfo(address.c_str(), port.c_str(), &hints, &res) != 0) {
    report(kExchange, {"failed to get address info for ", address, ":", port});
    return tovDebug.setError(TOV_SOCK_RESOLVE_HOST);
  }
  return 0;
}

// Waits for the salt to arrive within the client's timeout; a timeout of
// zero waits without bound.
int awaitSalt(int sock, int timeoutSec, int timeoutUsec,
              const std::string& address, const std::string& port) {
  timeval saltWait;
  saltWait.tv_sec = timeoutSec;
  saltWait.tv_usec = timeoutUsec;
  if (saltWait.tv_sec == 0 && saltWait.tv_usec == 0) return 0;
  fd_set readSet;
  FD_ZERO(&readSet);
  if (level() == 3) trace({"TOVNet::tovcomms(): calling select()"});
  int sel = -1;
  if (selectable(sock)) {
    FD_SET(sock, &readSet);
    sel = select(sock + 1, &readSet, nullptr, nullptr, &saltWait);
  } else {
    errno = EINVAL;
  }
  if (sel == 0) {
    report(kExchange, {"network timed out connecting to ", address, ":", port});
    return tovDebug.setError(TOV_SOCK_TIMEOUT);
  }
  if (sel == -1) {
    report(kExchange, {"select() error [", std::strerror(errno),
                       "] address:port=", address, ":", port});
    return tovDebug.setError(TOV_SOCK_SELECT);
  }
  return 0;
}

// One receive of up to 8 bytes; the salt is always taken as 8 bytes,
// NUL-padded when fewer arrived.
int readSalt(int sock, const std::string& address, const std::string& port,
             std::string& saltStr) {
  char saltBuf[8];
  std::memset(saltBuf, 0, sizeof saltBuf);
  errno = 0;  // a closed connection sets none; show no stale text
  const ssize_t saltCount = recv(sock, saltBuf, sizeof saltBuf, 0);
  const int saltErrno = errno;
  if (level() > 1)
    trace({"TOVNet::tovcomms(): received ", saltCount,
           " byte(s) in salt response"});
  if (saltCount < 0) {
    report(kExchange, {"failed to receive salt from host: ", address, ":", port,
                       " [", std::strerror(saltErrno), "]"});
    return tovDebug.setError(TOV_COMMS_SALT);
  }
  if (saltCount == 0) {
    report(kExchange, {"host didn't return a salt: ", address, ":", port, " [",
                       std::strerror(saltErrno), "]"});
    return tovDebug.setError(TOV_COMMS_SALT);
  }
  saltStr.append(saltBuf, sizeof saltBuf);
  return 0;
}

// Each search starts one past the previous position, so a line feed at
// position 0, and the second of two adjacent ones, stay.
void stripLineFeeds(std::string& command) {
  if (level() == 3)
    trace({"TOVNet::tovcomms(): checking command string for ",
           "newline characters"});
  std::string::size_type found = 0;
  while (found != std::string::npos) {
    found = command.find('\n', found + 1);
    if (found != std::string::npos) {
      if (level() == 3)
        trace({"TOVNet::tovcomms(): erasing newline found at: ", found});
      command.erase(found, 1);
    } else if (level() == 3) {
      trace({"TOVNet::tovcomms(): newline not found in string"});
    }
  }
  if (level() > 1) trace({"TOVNet::tovcomms(): command string : ", command});
}

// Adds the authentication line made from the salt to the command.
void sign(std::string& command, const std::vector<std::string>& authvec,
          const std::string& saltStr) {
  if (level() > 1) trace({"TOVNet::tovcomms(): auth object provided"});
  std::ostringstream saltStream;
  saltStream << std::setw(8) << std::setfill('0') << saltStr;
  if (level() == 3) trace({"TOVNet::tovcomms(): saltStr = ", saltStr});
  std::stringstream hexStream;
  hexStream << std::setw(8) << std::setfill('0') << saltStr;
  std::uint32_t saltValue = 0;
  hexStream >> std::hex >> saltValue;
  static_cast<void>(saltValue);
  const std::string binsalt = tovAuth.getBin(saltStream.str());
  const std::string authline =
      tovAuth.generateAuthline(authvec, binsalt, command);
  command = command + "\n" + authline;
  if (level() > 1)
    trace({"TOVNet::tovcomms(): output content [Length = ", command.length(),
           "] = ", command});
}

// The request frame: command, line feed, data, and a terminating NUL.
int sendFrame(int sock, const std::string& command, const std::string& data) {
  std::string request = command + "\n";
  if (!data.empty()) request += data;
  // A NUL inside the text cuts the copy there; the length sent stays.
  std::vector<char> frame(request.length() + 1, '\0');
  std::strcpy(frame.data(), request.c_str());
  if (level() == 3) {
    const std::size_t frameLen = std::strlen(frame.data());
    trace({"TOVNet::tovcomms(): command length = ", command.length()});
    trace({"TOVNet::tovcomms(): data length = ", data.length()});
    trace({"TOVNet::tovcomms(): command length (with newline) = ", frameLen});
    trace({"TOVNet::tovcomms(): message to tov [length = ", frameLen,
           "]\n*****start of message buffer*****\n", frame.data(),
           "\n*****end of message buffer *****\n"});
  }
  const ssize_t sent =
      sendWithoutSigpipe(sock, frame.data(), request.length() + 1);
  if (sent < 0) {
    report(kExchange,
           {"send() command reported an error [", std::strerror(errno), "]"});
    return tovDebug.setError(TOV_SOCK_SEND);
  }
  if (level() == 3) trace({"TOVNet::tovcomms(): sent ", sent, " bytes"});
  return 0;
}

// Reads the reply until the daemon closes the connection. Only a close ends
// a reply; the buffer is stored only then.
int collectReply(int sock, char*& buffer, const std::string& saltStr,
                 bool authenticated) {
  const std::size_t fragSize = 8192;
  char frag[fragSize];
  std::memset(frag, 0, fragSize);
  std::string reply;
  int result = 0;
  int count = 1;
  while (count > 0) {
    count = static_cast<int>(recv(sock, frag, fragSize, 0));
    const int recvErrno = errno;
    if (level() > 1)
      trace({"TOVNet::tovcomms(): recieved ", count, " byte(s) from server"});
    if (count == 0) {
      std::memset(frag, 0, fragSize);
      if (level() == 3)
        trace({"TOVNet::tovcomms(): Server closed the socket connection"});
      buffer = tovUtils::stringToChar(std::move(reply));
    } else if (count < 0) {
      report("TOVNet::tovcomms()", {"recv() command reported an error [",
                                    std::strerror(recvErrno), "]"});
      result = tovDebug.setError(TOV_SOCK_RECV);
    } else {
      const std::size_t len = strnlen(frag, fragSize);
      if (level() > 1)
        trace({"TOVNet::tovcomms(): appending fragment to buffer:\n",
               std::string(frag, len)});
      reply.append(frag, len);
      if (len == fragSize && level() == 3)
        trace({"TOVNet::tovcomms(): removing excess tail from response"});
      std::memset(frag, 0, fragSize);
    }
  }
  if (level() == 3) {
    if (authenticated) trace({"TOVNet::tovcomms(): salt value = ", saltStr});
    trace({"TOVNet::tovcomms(): received response"});
  }
  return result;
}

// Descriptions of the command letters that compose "<letter> <service>".
const char* plainCommandDescription(char cmd) {
  switch (cmd) {
    case req_bounce:
      return "Bounce: Shutdown & restart service here";
    case req_info:
      return "Get info";
    case req_timeout:
      return "Set timeouts";
    case req_restart:
      return "Re-run startup scripts";
    case req_pass:
      return "Pass: run stop scrips, leave automatic";
    case req_stop:
      return "Stop: Set manual mode & stop service";
    case req_manual:
      return "Manual: Set manual mode";
    case req_automatic:
      return "Automatic: Set automatic mode";
    case req_bstop:
      return "Block & Stop: Block & Stope service";
    case req_maint:
      return "Maintenence";
    case req_heartbeats:
      return "List Heartbeats";
    case req_servlist:
      return "List Services";
    case req_events:
      return "Request event stream";
    case req_repair:
      return "Repair a broken service";
    case req_version:
      return "Get tovmon version";
    case req_block:
      return "Block - enable starting a service";
    case req_unblock:
      return "Unblock - block starting a service";
    case req_log:
      return "Make log entry";
    case req_requesthandler:
      return "Client requests for protocol >= 2.2";
    case req_sayrunning:
      return "Set recovered state";
    default:
      return nullptr;
  }
}

// ---- The steps of one service command, in the order serviceCommand takes
// them.

const char* const kService = "TOVNet::serviceCommand()";

void traceServiceCall(const std::string& address, const std::string& port,
                      const std::string& command,
                      const std::vector<std::string>& authvec,
                      unsigned serviceNum, const std::string& cmdSuffix) {
  if (level() > 1) trace({"TOVNet::serviceCommand(): called"});
  if (level() > 1) trace({"TOVNet::serviceCommand(): address     = ", address});
  if (level() > 1) trace({"TOVNet::serviceCommand(): port        = ", port});
  if (level() > 1) trace({"TOVNet::serviceCommand(): command     = ", command});
  if (level() > 1)
    trace({"TOVNet::serviceCommand(): cmdSuffix   = ", cmdSuffix});
  if (level() > 1)
    trace({"TOVNet::serviceCommand(): serviceNum  = ", serviceNum});
  if (level() == 3)
    trace(
        {"TOVNet::serviceCommand(): authvec  = ", tovUtils::vectostr(authvec)});
}

// The check binds every letter, also those that send no service number.
int checkServiceNumber(const std::string& address, unsigned serviceNum) {
  const int svcCntInt = tovCluster.getServiceCount(address);
  const unsigned svcCount =
      svcCntInt < 0 ? 0u : static_cast<unsigned>(svcCntInt);
  if (!(serviceNum < svcCount)) {
    if (level() > 1)
      report(kService, {"invalid service number provided [", serviceNum, "]"});
    return tovDebug.setError(TOV_SVC_INVALID);
  }
  return 0;
}

// The request line a command's letters stand for.
struct Composed {
  std::string line;
  bool send = false;  // an empty command sends nothing and succeeds
  bool echo = false;  // the log command's line is echoed on success
};

int compose(const std::string& command, unsigned serviceNum,
            const std::string& cmdSuffix, Composed& out) {
  const std::string sn_str =
      tovUtils::intToString(static_cast<int>(serviceNum), 0);
  std::string& tovcommand = out.line;
  char sub_cmd = ' ';
  char ext_cmd = ' ';
  if (command.length() > 1) {
    sub_cmd = command[1];
    if (command.length() > 2) ext_cmd = command[2];
  }
  if (command.empty()) return TOV_OK;

  const char cmd = command[0];
  if (level() > 1)
    trace({"TOVNet::serviceCommand(): SERVICE COMMAND INPUT\n",
           "\tFull Command: ", command, "\n\tCMD: ", cmd,
           "\n\tSUB CMD: ", sub_cmd, "\n\tEXT CMD: ", ext_cmd});

  auto describe = [](const char* description) {
    if (level() == 3) trace({"TOVNet::serviceCommand(): ", description});
  };
  switch (cmd) {
    case req_sysdown:
      describe("Shutdown tovmon");
      tovcommand = "L ";
      break;
    case req_chkpw:
      tovcommand = "J";
      if (sub_cmd == '\0') {
        describe("User/Pass check");
      } else if (sub_cmd == static_cast<char>(req2a_halt)) {
        describe("Halting (unclean shutdown)");
        tovcommand += static_cast<char>(req2a_halt);
      } else {
        report(kService, {"Unrecognised secondary command passed"});
        return tovDebug.setError(TOV_UNKNOWN_SUBCMD);
      }
      break;
    case req_extended:
      if (sub_cmd == '\0') {
        report(kService, {"Nothing passed to extended request packet"});
        return tovDebug.setError(TOV_EMPTY_SUBCMD);
      }
      if (sub_cmd != 'A') {
        report(kService, {"Unrecognised Extended Command passed: ", sub_cmd});
        return tovDebug.setError(TOV_UNKNOWN_SUBCMD);
      }
      if (ext_cmd == '\0') {
        report(kService,
               {"Unrecognised request passed to extended service command: ",
                ext_cmd});
        return tovDebug.setError(TOV_UNKNOWN_EXTCMD);
      }
      // Any other extended letter deliberately sends an empty command.
      if (ext_cmd == 'Q') {
        describe("Quickstart mode");
        tovcommand = "@AQ " + sn_str;
      }
      break;
    default: {
      const char* description = plainCommandDescription(cmd);
      if (description == nullptr) {
        report(kService, {"Unrecognised Input Error"});
        return tovDebug.setError(TOV_UNKNOWN_SVCCMD);
      }
      describe(description);
      tovcommand = std::string(1, cmd) + " " + sn_str;
      if (cmd == static_cast<char>(req_log)) out.echo = true;
    }
  }

  if (!cmdSuffix.empty()) tovcommand += " " + cmdSuffix;
  if (level() > 0)
    trace({"TOVNet::serviceCommand(): TOV Command to be sent: ", tovcommand});
  out.send = true;
  return 0;
}

// Sends the line, again while the daemon answers busy, waiting the poll
// time in between. `tmp_buf` is left holding the last reply, or null.
int dispatch(TOVNet& net, const std::string& address, const std::string& port,
             const std::string& tovcommand,
             const std::vector<std::string>& authvec, unsigned attempts,
             char*& tmp_buf) {
  for (unsigned att_no = 0; att_no < attempts; ++att_no) {
    const int ret =
        net.tovcomms(tmp_buf, address, port, tovcommand, authvec, "");
    if (ret != 0) return ret;
    if (tmp_buf == nullptr || tmp_buf[1] != static_cast<char>(rep_busy)) break;
    // Never true inside the loop; kept as the last line of defence.
    if (!(att_no < attempts)) {
      if (level() > 1)
        trace({"TOVNet::serviceCommand(): Reached maximum ",
               "number of attempts: Aborting"});
      delete[] tmp_buf;
      return tovDebug.setError(TOV_SVC_ATTEMPT_EXPIRE);
    }
    if (tmp_buf == nullptr && level() > 1)
      trace({"TOVNet::serviceCommand(): ", "NULL buffer detected"});
    const int pt = tovCache.getPollTime(address);
    if (level() > 1)
      trace({"TOVNet::serviceCommand(): TOV is busy - ", "Retrying in ", pt,
             " second(s)"});
    sleep(pt);
    // Busy replies are abandoned, not released: only the last one is.
    tmp_buf = nullptr;
  }
  return 0;
}

// Dumps the last reply at level 3, turns it into the result and releases it.
int decode(char* tmp_buf) {
  if (level() == 3) {
    std::ostringstream dump;
    dump << "TOVNet::serviceCommand()"
         << "***** Start of temp buffer *****\n";
    if (tmp_buf != nullptr)
      dump << tmp_buf << "\n***** End of Temp Buffer *****" << std::endl;
    tovDebug.write(dump);
  }
  const int retComms = tovResponse.getTOVResponseStatus(tmp_buf);
  if (tmp_buf != nullptr) delete[] tmp_buf;
  return retComms;
}

}  // namespace

TOVNet::TOVNet() {
  tovUtils::printClassMsg("TOVNet", false);
  setTimeout(3.0);
}

// Truncates twice in single precision; callers rely on exactly these values.
void TOVNet::setTimeout(float timeout) {
  timeoutSec = static_cast<int>(timeout);
  const float fraction = timeout - static_cast<float>(timeoutSec);
  const float micro = 1000000.0f * fraction;
  timeoutUsec = static_cast<int>(micro);
}

int TOVNet::readtov(std::string address, std::string port, bool forceUpdate) {
  std::cout << "Warning: TOVNet::readtov() is deprecated! "
            << "Use TOVNetCache::refreshCache() instead!" << std::endl;
  return tovCache.refreshCache(address, port, forceUpdate) == 0 ? 0 : -1;
}

int TOVNet::validateAddressFamily(std::string ipaddr, int* version) {
  const std::string where = "TOVNet::validateAddressFamily()";
  if (level() > 0)
    trace({"TOVNet::validateAddressFamily(): called [ipaddr=", ipaddr,
           ", version=", static_cast<const void*>(version), "]"});
  int result = 0;
  addrinfo* list = nullptr;
  int ipVersion = 0;
  addrinfo hints;
  std::memset(&hints, 0, sizeof hints);
  hints.ai_flags = AI_NUMERICHOST;
  hints.ai_family = AF_UNSPEC;

  if (level() == 3)
    trace({"TOVNet::validateAddressFamily(): calling getaddrinfo"});
  const int rv = getaddrinfo(ipaddr.c_str(), nullptr, &hints, &list);
  if (level() == 3)
    trace({"TOVNet::validateAddressFamily(): getaddrinfo returned [", rv, "]"});
  if (rv != 0) {
    report(where, {"invalid address - ", gai_strerror(rv)});
    if (list != nullptr) freeaddrinfo(list);
    return tovDebug.setError(TOV_SOCK_RESOLVE_HOST);
  }

  const int family = list->ai_family;
  if (family == AF_INET) {
    if (level() > 0)
      trace(
          {"TOVNet::validateAddressFamily(): ", ipaddr, " is an ipv4 address"});
    ipVersion = 4;
  } else if (family == AF_INET6) {
    if (level() > 0)
      trace(
          {"TOVNet::validateAddressFamily(): ", ipaddr, " is an ipv6 address"});
    ipVersion = 6;
  } else {
    report(where, {ipaddr, " is an is unknown address format ", family});
    result = TOV_INVALID_ADDR;
    ipVersion = -1;
  }

  if (version != nullptr) {
    if (level() > 0)
      trace({"TOVNet::validateAddressFamily(): ", "copying IP version to arg"});
    *version = ipVersion;
  } else if (level() > 0) {
    trace({"TOVNet::validateAddressFamily(): ", "NULL passed to version arg"});
  }

  if (list != nullptr) {
    if (level() == 3)
      trace({"TOVNet::validateAddressFamily(): ", "calling freeaddrinfo()"});
    freeaddrinfo(list);
  }
  if (level() > 0)
    trace({"TOVNet::validateAddressFamily(): returned [", result, "]"});
  return result;
}

int TOVNet::validateHost(std::string host, char** ip) {
  const std::string where = "TOVNet::validateHost()";
  if (host.empty()) {
    report(where, {"empty string provided to host"});
    return tovDebug.setError(TOV_EMPTY_COMMAND);
  }

  addrinfo* list = nullptr;
  char ipv4[INET_ADDRSTRLEN];
  char ipv6[INET6_ADDRSTRLEN];
  std::memset(ipv4, 0, sizeof ipv4);
  std::memset(ipv6, 0, sizeof ipv6);

  if (ip != nullptr) {
    if (level() > 1)
      trace({"TOVNet::validateHost(): ", "calling malloc() for ip arg"});
    // The one-byte block is abandoned on purpose: callers see *ip null from
    // here until an address is stored.
    *ip = static_cast<char*>(std::malloc(1));
    if (*ip != nullptr) **ip = '\0';
    *ip = nullptr;
  }

  addrinfo hints;
  std::memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  const int rv = getaddrinfo(host.c_str(), nullptr, &hints, &list);
  if (rv != 0) {
    report(where, {"getaddrinfo: ", host, ": ", gai_strerror(rv)});
    if (list != nullptr) freeaddrinfo(list);
    return tovDebug.setError(TOV_SOCK_RESOLVE_HOST);
  }

  // The last address of each family wins.
  for (addrinfo* walk = list; walk != nullptr; walk = walk->ai_next) {
    const void* current = nullptr;
    if (walk->ai_family == AF_INET) {
      current = &reinterpret_cast<sockaddr_in*>(walk->ai_addr)->sin_addr;
      if (inet_ntop(AF_INET, current, ipv4, sizeof ipv4) == nullptr) {
        report(where, {"inet_ntop failed - ", std::strerror(errno)});
        return tovDebug.setError(TOV_SOCK_NTOP);
      }
    } else if (walk->ai_family == AF_INET6) {
      current = &reinterpret_cast<sockaddr_in6*>(walk->ai_addr)->sin6_addr;
      if (inet_ntop(AF_INET6, current, ipv6, sizeof ipv6) == nullptr) {
        report(where, {"inet_ntop failed - ", std::strerror(errno)});
        return tovDebug.setError(TOV_SOCK_NTOP);
      }
    } else {
      report(where, {"unknown address family detected"});
      return tovDebug.setError(TOV_UNKNOWN_AFINET);
    }
  }

  int result = 0;
  if (level() == 3) {
    trace({"TOVNet::validateHost(): Resolution results for ", host});
    trace({"TOVNet::validateHost(): IPv4 = ", ipv4});
    trace({"TOVNet::validateHost(): IPv6 = ", ipv6});
  }
  const bool haveIpv6 = ipv6[0] != '\0';
  if (!haveIpv6 && std::strcmp(ipv4, "0.0.0.0") == 0) {
    report(where, {"failed to resolve the hostname ", host});
    result = tovDebug.setError(TOV_SOCK_RESOLVE_HOST);
  } else if (ip != nullptr) {
    if (level() == 3)
      trace({"TOVNet::validateHost(): ", "calling malloc() for ip arg"});
    std::free(*ip);
    const char* text = haveIpv6 ? ipv6 : ipv4;
    const std::size_t size = haveIpv6 ? sizeof ipv6 : sizeof ipv4;
    *ip = static_cast<char*>(std::malloc(size));
    if (*ip != nullptr) std::memcpy(*ip, text, size);
  }
  if (list != nullptr) freeaddrinfo(list);
  return result;
}

int TOVNet::connectTimeout(int sockfd, const sockaddr* addr, socklen_t addrlen,
                           int timeoutSec, int timeoutUsec) {
  if (level() == 3) trace({"TOVNet::connectTimeout(): called"});
  int flags = fcntl(sockfd, F_GETFL, 0);
  fcntl(sockfd, F_SETFL, flags | O_NONBLOCK);

  const int con = connect(sockfd, addr, addrlen);
  const int connectErrno = errno;
  if (level() == 3)
    trace({"TOVNet::connectTimeout(): connect() return value = ", con});

  if (con < 0) {
    // Written at every level, also for the normal "in progress" case.
    trace({"TOVNet::connectTimeout(): connect() reported error [",
           std::strerror(connectErrno), "]"});
    if (connectErrno != EINPROGRESS) {
      trace({"TOVNet::connectTimeout(): connect() returned ", connectErrno,
             " [", std::strerror(connectErrno), "]"});
      return tovDebug.setError(TOV_SOCK_CONNECT);
    }
    timeval tv;
    tv.tv_sec = timeoutSec;
    tv.tv_usec = timeoutUsec;
    fd_set writeSet;
    FD_ZERO(&writeSet);
    int sel_stat = -1;
    if (selectable(sockfd)) {
      FD_SET(sockfd, &writeSet);
      sel_stat = select(sockfd + 1, nullptr, &writeSet, nullptr, &tv);
    }
    if (level() == 3)
      trace({"TOVNet::connectTimeout(): select() return value = ", sel_stat});
    // The caller's message shows errno: make it name what really happened.
    if (sel_stat == 0) {
      errno = ETIMEDOUT;
      return tovDebug.setError(TOV_SOCK_TIMEOUT);
    }
    if (sel_stat < 0) return tovDebug.setError(TOV_SOCK_SELECT);

    int valopt = 0;
    socklen_t lon = sizeof(int);
    const int gso_stat =
        getsockopt(sockfd, SOL_SOCKET, SO_ERROR, &valopt, &lon);
    if (level() == 3)
      trace(
          {"TOVNet::connectTimeout(): getsockopt() return value = ", gso_stat});
    if (level() > 1)
      trace({"TOVNet::connectTimeout(): valopt from getsockopt() ",
             "return value = ", valopt});
    if (valopt != 0) {
      errno = valopt;
      return tovDebug.setError(TOV_SOCK_GETOPTS);
    }
  }

  flags = fcntl(sockfd, F_GETFL, 0);
  fcntl(sockfd, F_SETFL, flags & ~O_NONBLOCK);
  return 0;
}

int TOVNet::tovcomms(char*& buffer, std::string address, std::string port,
                     std::string command, std::vector<std::string> authvec,
                     std::string data) {
  traceExchangeCall(address, port, command, authvec, data);
  const int refused = checkAuthVector(authvec);
  if (refused != 0) return refused;
  const bool authenticated = authvec.size() == 2;

  addrinfo* res = nullptr;
  const int unresolved = resolve(address, port, pref_AF, res);
  if (unresolved != 0) return unresolved;
  if (level() == 3)
    trace({"TOVNet::tovcomms(): creating socket with IP version : ",
           getIpFamily(res->ai_family)});

  const int sock = socket(res->ai_family, res->ai_socktype, res->ai_protocol);
  // Everything from here on ends in the common closing step below.
  auto exchange = [&]() -> int {
    if (sock == -1) {
      report(kExchange, {"Failed to create the socket"});
      return tovDebug.setError(TOV_SOCK_CREATE);
    }
    if (level() > 1)
      trace({"TOVNet::tovcomms(): setting socket timeout of ", timeoutSec,
             " second(s) and ", timeoutUsec, " micro-second(s)"});
    // Only a negative result counts as a failed connect here.
    if (connectTimeout(sock, res->ai_addr, res->ai_addrlen, timeoutSec,
                       timeoutUsec) < 0) {
      report(kExchange, {"cannot connect to server ", address, ": ",
                         std::strerror(errno)});
      return tovDebug.setError(TOV_SOCK_CONNECT);
    }
    int rc = awaitSalt(sock, timeoutSec, timeoutUsec, address, port);
    if (rc != 0) return rc;
    if (command.empty()) command = "CCN";
    std::string saltStr;
    rc = readSalt(sock, address, port, saltStr);
    if (rc != 0) return rc;
    stripLineFeeds(command);
    if (authenticated) {
      sign(command, authvec, saltStr);
    } else if (level() > 1) {
      trace({"TOVNet::tovcomms(): auth object NOT provided"});
    }
    rc = sendFrame(sock, command, data);
    if (rc != 0) return rc;
    return collectReply(sock, buffer, saltStr, authenticated);
  };

  const int result = exchange();
  close(sock);
  if (level() > 1)
    trace({"TOVNet::tovcomms(): TOV response message: ",
           tovResponse.getTOVResponseMsg(buffer)});
  if (res != nullptr) freeaddrinfo(res);
  return result;
}

int TOVNet::serviceCommand(std::string address, std::string port,
                           std::string command,
                           std::vector<std::string> authvec,
                           unsigned serviceNum, unsigned attempts,
                           std::string cmdSuffix) {
  traceServiceCall(address, port, command, authvec, serviceNum, cmdSuffix);
  try {
    int rc = checkServiceNumber(address, serviceNum);
    if (rc != 0) return rc;
    if (level() > 0)
      trace({"TOVNet::serviceCommand(): forcing a cache refresh"});
    const int refreshStat = tovCache.refreshCache(address, port, true);
    if (refreshStat < 0) return refreshStat;

    Composed request;
    rc = compose(command, serviceNum, cmdSuffix, request);
    if (rc != 0 || !request.send) return rc;

    char* tmp_buf = nullptr;
    rc = dispatch(*this, address, port, request.line, authvec, attempts,
                  tmp_buf);
    if (rc != 0) return rc;
    rc = decode(tmp_buf);
    if (rc != 0) return rc;

    if (request.echo) std::cout << request.line << std::endl;
    return TOV_OK;
  } catch (std::exception& e) {
    report(kService, {"EXCEPTION - ", e.what()});
    return tovDebug.setError(TOV_EXCEPT_SVCCMD);
  }
}

namespace discovery {

namespace {

struct Record {
  std::vector<std::string> clusterLines;
  std::vector<std::string> nodeLines;
};

const std::string sepStrMaj(54, '=');
const std::string sepStrMin = " " + std::string(52, '-') + " ";

void printLabelled(std::ostream& out, const std::vector<std::string>& f,
                   const std::vector<std::string>& nodeLines, int mode) {
  out << std::endl;
  out << sepStrMaj << std::endl;
  out << " Cluster Name : " << f[c_cluster_name] << std::endl;
  out << sepStrMin << std::endl;
  out << " Number of Nodes     : " << f[c_node_count] << std::endl;
  unsigned number = 1;
  for (const std::string& line : nodeLines) {
    std::vector<std::string> nf;
    tovUtils::tokenizer(line, nf, " ");
    out << "\n  [" << number++ << "] " << nf.at(n_machine_name) << " ["
        << nf.at(n_ip_address) << "]";
  }
  out << "\n\n" << sepStrMin << std::endl;
  out << " Number of Services  : " << f[c_service_count] << std::endl;
  out << " Serial Number       : "
      << (f[c_serial_number] == "-1" ? std::string("<n/a>")
                                     : f[c_serial_number])
      << std::endl;
  out << " Poll Time           : " << tovUtils::stringToInt(f[c_poll_time])
      << std::endl;
  out << " Start Time          : "
      << tovUtils::getTimeStr(static_cast<std::int64_t>(
             tovUtils::stringToInt(f[c_startup_time])))
      << std::endl;
  out << " Bootstrap Mode      : "
      << (tovUtils::stringToInt(f[c_machine_bootstrap]) != 0 ? "Enabled"
                                                             : "Disabled")
      << std::endl;
  if (mode != tov_discover_cluster) {
    out << " Machine Identifier  : " << f[c_machine_ident] << std::endl;
    out << " Machine Description : " << f[c_machine_desc] << std::endl;
  }
  out << sepStrMin << std::endl;
  out << " Config File Size    : "
      << tovUtils::stringToInt(f[c_config_file_size]) << " byte(s)"
      << std::endl;
  out << "  CRC                  : " << f[c_config_file_crc] << std::endl;
  out << "  Last Modified        : "
      << tovUtils::getTimeStr(static_cast<std::int64_t>(
             tovUtils::stringToInt(f[c_config_file_mtime])))
      << std::endl;
}

void printRaw(std::ostream& out, const Record& record) {
  out << "\n" << record.clusterLines.front() << std::endl;
  for (const std::string& line : record.nodeLines) out << line << std::endl;
}

void printSummary(std::ostream& out, unsigned count, int mode) {
  out << "\n" << sepStrMin << std::endl;
  out << " Found " << count;
  if (mode == tov_discover_cluster)
    out << " configured cluster(s)";
  else if (mode == tov_discover_bootstrap)
    out << " bootstrap node(s)";
  else
    out << " cluster(s)";
  out << "\n" << sepStrMin << std::endl << std::endl;
}

}  // namespace

unsigned reportAnswers(const std::vector<std::string>& pooledLines, int mode,
                       bool prettyPrint, std::ostream& out) {
  // Node lines join the nearest cluster line before them, across datagrams.
  std::vector<Record> records;
  for (std::size_t a = 0; a < pooledLines.size(); ++a) {
    Record record;
    if (pooledLines.at(a).at(0) == 'C') {
      record.clusterLines.push_back(pooledLines[a]);
      for (std::size_t b = a + 1;
           b < pooledLines.size() && pooledLines.at(b).at(0) == 'N'; ++b, ++a)
        record.nodeLines.push_back(pooledLines[b]);
    }
    records.push_back(std::move(record));
  }

  // Bootstrap records are never duplicates, but their CRCs still hide a
  // configured cluster with the same CRC that comes later.
  unsigned reported = 0;
  std::unordered_set<std::string> reportedCrcs;
  for (const Record& record : records) {
    if (record.clusterLines.empty()) continue;
    std::vector<std::string> fields;
    tovUtils::tokenizer(record.clusterLines.front(), fields, " ");
    if (fields.size() != c_SIZE_OK) continue;
    const std::string& crc = fields[c_config_file_crc];
    const int bootstrap = tovUtils::stringToInt(fields[c_machine_bootstrap]);
    if (mode == tov_discover_bootstrap && bootstrap == 0) continue;
    if (mode == tov_discover_cluster && bootstrap != 0) continue;
    if (bootstrap == 0 && reportedCrcs.count(crc) != 0) continue;
    if (prettyPrint)
      printLabelled(out, fields, record.nodeLines, mode);
    else
      printRaw(out, record);
    reportedCrcs.insert(crc);
    ++reported;
  }
  printSummary(out, reported, mode);
  return reported;
}

}  // namespace discovery

int TOVNet::discoverClusters(std::string address, int mode, bool prettyPrint) {
  const std::string where = "TOVNet::discoverClusters()";
  const std::string target = address.empty() ? "255.255.255.255" : address;
  const hostent* host = gethostbyname(target.c_str());
  if (host == nullptr) {
    report(where, {"gethostbyname"});
    return TOV_SOCK_RESOLVE_HOST;
  }
  const int sock = socket(AF_INET, SOCK_DGRAM, 0);
  if (sock == -1) {
    report(where, {"socket"});
    return TOV_SOCK_CREATE;
  }
  // Always set, so that a directed broadcast address works as a target too.
  const int broadcast = 1;
  if (setsockopt(sock, SOL_SOCKET, SO_BROADCAST, &broadcast,
                 sizeof broadcast) == -1) {
    report(where, {"setsockopt (SO_BROADCAST)"});
    return TOV_SOCK_GETOPTS;
  }
  // Room for many answers arriving at once; the kernel may grant less, and
  // a refusal only means the default buffer.
  const int answerRoom = 4 * 1024 * 1024;
  setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &answerRoom, sizeof answerRoom);

  sockaddr_in dest;
  std::memset(&dest, 0, sizeof dest);
  dest.sin_family = AF_INET;
  dest.sin_port = htons(1195);
  std::memcpy(&dest.sin_addr, host->h_addr_list[0], sizeof dest.sin_addr);
  std::memset(dest.sin_zero, 0, sizeof dest.sin_zero);
  static const char probe[] = "\xCD\xCD\xCD\xCD\xCD\xCD\xCD\xCD";
  if (sendto(sock, probe, std::strlen(probe), 0,
             reinterpret_cast<const sockaddr*>(&dest), 16) == -1) {
    report(where, {"sendto"});
    return TOV_SOCK_SEND;
  }

  // One window for the whole collection: the wait time is never re-armed,
  // so a stream of answers cannot prolong it.
  char answer[2048];
  std::memset(answer, 0, sizeof answer);
  sockaddr_in from;
  socklen_t fromLen = 16;
  timeval wait;
  wait.tv_sec = 2;
  wait.tv_usec = 500000;
  fd_set readSet;
  FD_ZERO(&readSet);
  if (selectable(sock)) FD_SET(sock, &readSet);
  std::cout << "Searching for Clusters..." << std::flush;

  std::vector<std::string> pooledLines;
  while (selectable(sock) &&
         select(sock + 1, &readSet, nullptr, nullptr, &wait) > 0) {
    recvfrom(sock, answer, sizeof answer - 1, 0,
             reinterpret_cast<sockaddr*>(&from), &fromLen);
    if (level() == 3)
      trace({"TOVNet::discoverClusters():\n",
             "\n*****CLUSTER DISCOVERY RESPONSE START*****\n", answer,
             "\n******CLUSTER DISCOVERY RESPONSE END******\n"});
    tovUtils::tokenizer(answer, pooledLines, "\n");
    std::memset(answer, 0, sizeof answer);
  }
  close(sock);
  if (level() > 1)
    trace(
        {"TOVNet::discoverClusters(): ", "Search (with debugging output)..."});
  std::cout << " Done" << std::endl;

  discovery::reportAnswers(pooledLines, mode, prettyPrint, std::cout);
  return TOV_OK;
}

int TOVNet::testNode(std::string address, std::string port) {
  if (level() > 0)
    trace({"TOVNet::test_node(): called [address=", address, ", port=", port,
           "]"});
  const int sc_bkp = timeoutSec;
  const int usc_bkp = timeoutUsec;
  setTimeout(2.0);
  if (level() > 1)
    trace({"TOVNet::test_node(): set temporary timeout of ", timeoutSec,
           " second(s) and ", timeoutUsec, " micro-second(s)"});

  // Only the buffer of std::cerr changes hands; the stream object stays.
  std::stringstream ss;
  std::streambuf* backup = std::cerr.rdbuf();
  std::streambuf* psbuf = ss.rdbuf();
  std::cerr.rdbuf(psbuf);

  const bool colourState = Debug::useColour;
  if (colourState) Debug::useColour = false;
  if (level() > 1)
    trace({"TOVNet::test_node(): ", "calling tovcomms to test the node"});
  const int rc = tovCache.refreshCache(address, port, false);
  if (colourState) Debug::useColour = true;

  if (!ss.str().empty()) {
    std::ostringstream os;
    os << ss.str() << std::endl;
    tovDebug.error("TOVNet::test_node()", os);
  }
  timeoutSec = sc_bkp;
  timeoutUsec = usc_bkp;
  if (level() > 1)
    trace({"TOVNet::test_node(): restored timeout of ", timeoutSec,
           " second(s) and ", timeoutUsec, " micro-second(s)"});
  std::cerr.rdbuf(backup);
  if (level() > 0) trace({"TOVNet::test_node(): returning [", rc, "]"});
  return rc;
}

}  // namespace tov1
