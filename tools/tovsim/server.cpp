#include "server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "auth.h"
#include "log.h"

namespace tovsim {

namespace {

// Blocking waits are cut into slices so that a stop is noticed quickly.
constexpr int kSliceMs = 50;

// Pending connections per listening socket (the kernel may cap it lower).
constexpr int kBacklog = 256;

// How long accepting rests after running out of file descriptors.
constexpr int kAcceptPauseMs = 100;

std::string sysError(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

std::string peerName(const sockaddr_storage& ss) {
  char host[INET6_ADDRSTRLEN] = "?";
  int port = 0;
  if (ss.ss_family == AF_INET) {
    const auto* a = reinterpret_cast<const sockaddr_in*>(&ss);
    inet_ntop(AF_INET, &a->sin_addr, host, sizeof host);
    port = ntohs(a->sin_port);
    return std::string(host) + ":" + std::to_string(port);
  }
  if (ss.ss_family == AF_INET6) {
    const auto* a = reinterpret_cast<const sockaddr_in6*>(&ss);
    inet_ntop(AF_INET6, &a->sin6_addr, host, sizeof host);
    port = ntohs(a->sin6_port);
    return "[" + std::string(host) + "]:" + std::to_string(port);
  }
  return "?";
}

// Binds a socket of `type` to address:port; returns the descriptor or -1
// with errno set.
int bindSocket(const std::string& address, int port, int type) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = type;
  addrinfo* res = nullptr;
  const std::string portText = std::to_string(port);
  if (getaddrinfo(address.c_str(), portText.c_str(), &hints, &res) != 0 ||
      res == nullptr) {
    errno = EINVAL;
    return -1;
  }
  int fd =
      socket(res->ai_family, res->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
             res->ai_protocol);
  if (fd >= 0) {
    const int one = 1;
    if (type == SOCK_STREAM) {
      setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    }
    if (res->ai_family == AF_INET6) {
      setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof one);
    }
    if (bind(fd, res->ai_addr, res->ai_addrlen) != 0 ||
        (type == SOCK_STREAM && listen(fd, kBacklog) != 0)) {
      const int saved = errno;
      close(fd);
      fd = -1;
      errno = saved;
    }
  }
  freeaddrinfo(res);
  return fd;
}

int localPort(int fd) {
  sockaddr_storage ss{};
  socklen_t len = sizeof ss;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0) return -1;
  if (ss.ss_family == AF_INET) {
    return ntohs(reinterpret_cast<sockaddr_in*>(&ss)->sin_port);
  }
  return ntohs(reinterpret_cast<sockaddr_in6*>(&ss)->sin6_port);
}

}  // namespace

Server::Server(Daemon& daemon, ServerOptions opts)
    : daemon_(daemon), opts_(std::move(opts)) {}

Server::~Server() {
  abort_ = true;
  reap(true);
  closeAll();
  for (int& fd : wakePipe_) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
}

void Server::open() {
  if (pipe2(wakePipe_, O_NONBLOCK | O_CLOEXEC) != 0) {
    throw std::runtime_error(sysError("pipe"));
  }
  for (std::size_t i = 0; i < opts_.listen.size(); ++i) {
    muteIdx_.push_back(daemon_.muteAt(i));
  }
  checkFdLimit();
  openTcp();
  openUdp();
  writeReadyFile();
}

void Server::checkFdLimit() {
  // Listening sockets, one thread's connection each, held mute connections,
  // and a few for everything else (standard streams, signals, the pipe, the
  // ready file, the random source).
  const bool anyMute =
      std::find(muteIdx_.begin(), muteIdx_.end(), true) != muteIdx_.end();
  const rlim_t needed =
      static_cast<rlim_t>(opts_.listen.size() * (opts_.udpPort != 0 ? 2 : 1) +
                          static_cast<std::size_t>(opts_.maxConnections) +
                          (anyMute ? kMaxMuteHeld : 0) + 32);
  rlimit rl{};
  if (getrlimit(RLIMIT_NOFILE, &rl) != 0) return;
  if (rl.rlim_cur == RLIM_INFINITY || rl.rlim_cur >= needed) return;
  rlimit want = rl;
  want.rlim_cur = rl.rlim_max == RLIM_INFINITY || rl.rlim_max >= needed
                      ? needed
                      : rl.rlim_max;
  if (want.rlim_cur > rl.rlim_cur && setrlimit(RLIMIT_NOFILE, &want) == 0) {
    TOVSIM_LOG(2, "open file limit raised from " << rl.rlim_cur << " to "
                                                 << want.rlim_cur);
    rl = want;
  }
  if (rl.rlim_cur < needed) {
    logLine(0, "warning: the limit of " + std::to_string(rl.rlim_cur) +
                   " open files is below the " + std::to_string(needed) +
                   " this configuration may use; connections beyond it wait "
                   "in the listen backlog");
  }
}

void Server::openTcp() {
  // With a kernel-picked port the other addresses reuse it; should one of
  // them have it taken already, pick again.
  const int tries = opts_.port == 0 ? 5 : 1;
  for (int attempt = 1; attempt <= tries; ++attempt) {
    int port = opts_.port;
    std::string failure;
    for (const std::string& addr : opts_.listen) {
      const int fd = bindSocket(addr, port, SOCK_STREAM);
      if (fd < 0) {
        failure = sysError("cannot listen on " + addr + " port " +
                           std::to_string(port));
        break;
      }
      if (port == 0) port = localPort(fd);
      tcpFds_.push_back(fd);
    }
    if (failure.empty()) {
      tcpPort_ = port;
      return;
    }
    for (int fd : tcpFds_) close(fd);
    tcpFds_.clear();
    if (attempt == tries) {
      throw std::runtime_error(
          failure + (opts_.listen.size() > 1
                         ? " (serving " + std::to_string(opts_.listen.size()) +
                               " addresses)"
                         : std::string()));
    }
    TOVSIM_LOG(1, failure << "; trying another port");
  }
}

void Server::openUdp() {
  if (opts_.udpPort == 0) return;
  for (const std::string& addr : opts_.listen) {
    const int fd = bindSocket(addr, opts_.udpPort, SOCK_DGRAM);
    if (fd < 0) {
      throw std::runtime_error(sysError("cannot bind UDP " + addr + " port " +
                                        std::to_string(opts_.udpPort)));
    }
    udpFds_.push_back(fd);
  }
}

void Server::writeReadyFile() {
  if (opts_.readyFile.empty()) return;
  // Written aside and renamed, so a reader never sees half a number.
  const std::string tmp =
      opts_.readyFile + ".tmp." + std::to_string(static_cast<long>(getpid()));
  {
    std::ofstream out(tmp, std::ios::trunc);
    out << tcpPort_ << '\n';
    if (!out) throw std::runtime_error("cannot write " + tmp);
  }
  if (std::rename(tmp.c_str(), opts_.readyFile.c_str()) != 0) {
    const std::string err = sysError("cannot rename " + tmp);
    std::remove(tmp.c_str());
    throw std::runtime_error(err);
  }
  readyWritten_ = true;
}

void Server::closeAll() {
  for (int fd : tcpFds_) close(fd);
  for (int fd : udpFds_) close(fd);
  for (const MuteConn& m : mute_) close(m.fd);
  tcpFds_.clear();
  udpFds_.clear();
  mute_.clear();
}

void Server::wake() {
  const char b = 1;
  // A full pipe already means "wake up".
  [[maybe_unused]] const ssize_t n = write(wakePipe_[1], &b, 1);
}

void Server::reap(bool all) {
  for (auto it = workers_.begin(); it != workers_.end();) {
    if (all || it->done->load()) {
      if (it->thread.joinable()) it->thread.join();
      it = workers_.erase(it);
    } else {
      ++it;
    }
  }
}

int Server::run(int signalFd) {
  const auto deadline =
      Clock::now() + std::chrono::seconds(opts_.maxLifetimeSec);
  while (!abort_ && !drain_) pollOnce(signalFd, deadline);
  finish();
  return 0;
}

void Server::pollOnce(int signalFd, Clock::time_point deadline) {
  reap(false);
  PollSet ps = pollSet(signalFd);
  int timeout = ps.paused ? kAcceptPauseMs : 1000;
  if (!lifetimeLeft(deadline, timeout)) return;
  const int n = poll(ps.fds.data(), ps.fds.size(), timeout);
  if (n < 0) {
    if (errno != EINTR) {
      logLine(0, sysError("poll"));
      abort_ = true;
    }
    return;
  }
  handleEvents(ps, signalFd);
}

Server::PollSet Server::pollSet(int signalFd) const {
  PollSet ps;
  ps.fds.push_back({wakePipe_[0], POLLIN, 0});
  ps.fds.push_back({signalFd, POLLIN, 0});
  for (int fd : udpFds_) ps.fds.push_back({fd, POLLIN, 0});
  // Listening sockets with room behind them: a thread for an answering
  // node, a held slot for a mute one; none for a moment after running out
  // of descriptors.
  ps.paused = Clock::now() < acceptPausedUntil_;
  const bool room =
      !ps.paused && static_cast<int>(workers_.size()) < opts_.maxConnections;
  const bool muteRoom = !ps.paused && mute_.size() < kMaxMuteHeld;
  for (std::size_t i = 0; i < tcpFds_.size(); ++i) {
    if (muteIdx_[i] ? muteRoom : room) {
      ps.fds.push_back({tcpFds_[i], POLLIN, 0});
      ps.polledTcp.push_back(i);
    }
  }
  ps.polledMute = mute_.size();
  for (const MuteConn& m : mute_) ps.fds.push_back({m.fd, POLLIN, 0});
  return ps;
}

bool Server::lifetimeLeft(Clock::time_point deadline, int& timeout) {
  if (opts_.maxLifetimeSec <= 0) return true;
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - Clock::now())
                        .count();
  if (left <= 0) {
    logLine(0, "maximum lifetime of " + std::to_string(opts_.maxLifetimeSec) +
                   " s reached, stopping");
    abort_ = true;
    return false;
  }
  timeout = static_cast<int>(std::min<long long>(timeout, left));
  return true;
}

void Server::handleEvents(const PollSet& ps, int signalFd) {
  const std::vector<pollfd>& fds = ps.fds;
  if (fds[0].revents & POLLIN) {
    char buf[64];
    while (read(wakePipe_[0], buf, sizeof buf) > 0) {
    }
  }
  if (fds[1].revents & POLLIN) {
    signalfd_siginfo si{};
    if (read(signalFd, &si, sizeof si) == static_cast<ssize_t>(sizeof si)) {
      logLine(0, std::string("received ") +
                     strsignal(static_cast<int>(si.ssi_signo)) + ", stopping");
    }
    abort_ = true;
    return;
  }
  for (std::size_t i = 0; i < udpFds_.size(); ++i) {
    if (fds[2 + i].revents & POLLIN) answerProbe(i);
  }
  // Mute connections first, from the back, so that closing one keeps the
  // indices of the others; accepting appends behind them.
  const std::size_t tcpBase = 2 + udpFds_.size();
  const std::size_t muteBase = tcpBase + ps.polledTcp.size();
  for (std::size_t k = ps.polledMute; k-- > 0;) {
    if (fds[muteBase + k].revents != 0 && !readMute(mute_[k])) {
      mute_.erase(mute_.begin() + static_cast<std::ptrdiff_t>(k));
    }
  }
  for (std::size_t k = 0; k < ps.polledTcp.size(); ++k) {
    if (fds[tcpBase + k].revents & POLLIN) acceptOn(ps.polledTcp[k]);
  }
}

void Server::finish() {
  // No new clients from here on; running exchanges finish (shutdown
  // request) or are cut short (signal, lifetime, halt).
  closeAll();
  if (!workers_.empty()) {
    TOVSIM_LOG(1, "waiting for " << workers_.size() << " connection(s)");
  }
  // A shutdown request lets running exchanges finish, within reason.
  const auto drainUntil =
      Clock::now() + std::chrono::milliseconds(opts_.readTimeoutMs + 1000);
  while (!abort_ && !workers_.empty() && Clock::now() < drainUntil) {
    reap(false);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  abort_ = true;
  reap(true);
  if (readyWritten_) std::remove(opts_.readyFile.c_str());
  logLine(0, "stopped");
}

void Server::acceptOn(std::size_t idx) {
  for (int i = 0; i < 16; ++i) {
    if (muteIdx_[idx]
            ? mute_.size() >= kMaxMuteHeld
            : static_cast<int>(workers_.size()) >= opts_.maxConnections) {
      return;
    }
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    const int fd = accept4(tcpFds_[idx], reinterpret_cast<sockaddr*>(&ss), &len,
                           SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EMFILE || errno == ENFILE) {
        // The connection stays in the backlog; rest a moment instead of
        // spinning on a socket that stays readable.
        if (!acceptFailing_) {
          logLine(0, sysError("accept") + "; pausing, connections wait");
        }
        acceptFailing_ = true;
        acceptPausedUntil_ =
            Clock::now() + std::chrono::milliseconds(kAcceptPauseMs);
      } else if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR &&
                 errno != ECONNABORTED) {
        logLine(0, sysError("accept"));
      }
      return;
    }
    acceptFailing_ = false;
    const std::string peer = peerName(ss);
    if (muteIdx_[idx]) {
      holdMute(fd, idx, peer);
      continue;
    }
    auto done = std::make_shared<std::atomic<bool>>(false);
    try {
      workers_.push_back({std::thread([this, fd, idx, peer, done] {
                            serve(fd, idx, peer);
                            done->store(true);
                            wake();
                          }),
                          done});
    } catch (const std::system_error& e) {
      logLine(0, std::string("cannot start a connection thread: ") + e.what());
      close(fd);
      return;
    }
  }
}

void Server::holdMute(int fd, std::size_t idx, const std::string& peer) {
  TOVSIM_LOG(1, "connection from " << peer << " on " << opts_.listen[idx]
                                   << " held without a salt (mute node)");
  mute_.push_back({fd, idx, peer, Clock::now(), 0});
}

bool Server::readMute(MuteConn& m) {
  char buf[4096];
  for (int i = 0; i < 16; ++i) {
    const ssize_t n = recv(m.fd, buf, sizeof buf, 0);
    if (n > 0) {
      m.received += static_cast<std::size_t>(n);
      TOVSIM_LOG(
          3, m.peer << ": ignoring \""
                    << printable(std::string(buf, static_cast<std::size_t>(n)))
                    << "\" (mute node)");
      continue;
    }
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
      return true;
    }
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                        Clock::now() - m.since)
                        .count();
    TOVSIM_LOG(2, m.peer << " left mute " << opts_.listen[m.idx] << " after "
                         << ms << " ms (" << m.received
                         << " byte(s) received and ignored)");
    close(m.fd);
    return false;
  }
  return true;
}

void Server::answerProbe(std::size_t idx) {
  for (int i = 0; i < 16; ++i) {
    unsigned char buf[2048];
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    const ssize_t n = recvfrom(udpFds_[idx], buf, sizeof buf, 0,
                               reinterpret_cast<sockaddr*>(&ss), &len);
    if (n < 0) return;
    const std::string peer = peerName(ss);
    const bool probe = n == 8 && std::all_of(buf, buf + 8, [](unsigned char c) {
                         return c == 0xCD;
                       });
    if (!probe) {
      TOVSIM_LOG(2, "udp " << opts_.listen[idx] << ": ignored " << n
                           << "-byte datagram from " << peer);
      continue;
    }
    if (muteIdx_[idx]) {
      TOVSIM_LOG(1, "udp " << opts_.listen[idx] << ": discovery probe from "
                           << peer << " not answered (mute node)");
      continue;
    }
    // Only ever to the probe's sender: nothing unasked, nothing broadcast.
    const std::vector<UdpAnswer>& fake = daemon_.config().faults.udpAnswers;
    const std::vector<std::string> answers =
        daemon_.discoveryAnswers(idx, opts_.udpDatagramSize);
    for (std::size_t k = 0; k < answers.size(); ++k) {
      const std::string& answer = answers[k];
      if (sendto(udpFds_[idx], answer.data(), answer.size(), 0,
                 reinterpret_cast<sockaddr*>(&ss), len) < 0) {
        logLine(0,
                sysError("udp " + opts_.listen[idx] + ": answer to " + peer));
        break;
      }
      std::string which;
      if (!fake.empty() || answers.size() > 1) {
        which = ", datagram " + std::to_string(k + 1) + " of " +
                std::to_string(answers.size());
      }
      if (!fake.empty()) {
        which += fake[k].own ? ": own answer" : ": given bytes";
      }
      TOVSIM_LOG(1, "udp " << opts_.listen[idx] << ": discovery probe from "
                           << peer << " answered (" << answer.size() << " bytes"
                           << which << ")");
    }
  }
}

int Server::waitFd(int fd, short events, Clock::time_point deadline) {
  while (!abort_) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                          deadline - Clock::now())
                          .count();
    if (left <= 0) return 0;
    pollfd p{fd, events, 0};
    const int n =
        poll(&p, 1, static_cast<int>(std::min<long long>(left, kSliceMs)));
    if (n > 0) return 1;
    if (n < 0 && errno != EINTR) return -1;
  }
  return -1;
}

bool Server::pause(int ms, int fd) {
  const auto until = Clock::now() + std::chrono::milliseconds(ms);
  while (!abort_) {
    const auto left = until - Clock::now();
    if (left <= Clock::duration::zero()) return true;
    const auto slice =
        std::min<Clock::duration>(left, std::chrono::milliseconds(kSliceMs));
    // A client that has gone away frees its thread at once: a daemon that
    // stalls must not stall the next client as well.
    pollfd p{fd, POLLRDHUP, 0};
    const int waitMs = static_cast<int>(
        std::chrono::ceil<std::chrono::milliseconds>(slice).count());
    if (poll(&p, 1, waitMs) > 0 &&
        (p.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0) {
      return false;
    }
  }
  return false;
}

bool Server::writeAll(int fd, const char* p, std::size_t n) {
  while (n > 0) {
    const ssize_t sent = send(fd, p, n, MSG_NOSIGNAL);
    if (sent > 0) {
      p += sent;
      n -= static_cast<std::size_t>(sent);
      continue;
    }
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      // A client that stops reading is given up after the read timeout.
      const auto deadline =
          Clock::now() + std::chrono::milliseconds(opts_.readTimeoutMs);
      if (waitFd(fd, POLLOUT, deadline) == 1) continue;
      errno = ETIMEDOUT;
    }
    return false;
  }
  return true;
}

bool Server::readFrame(int fd, const std::string& peer, std::string& content) {
  const auto deadline =
      Clock::now() + std::chrono::milliseconds(opts_.readTimeoutMs);
  std::string buf;
  char chunk[4096];
  for (;;) {
    const std::size_t nul = buf.find('\0');
    if (nul != std::string::npos) {
      if (nul + 1 < buf.size()) {
        TOVSIM_LOG(2, peer << ": ignoring " << buf.size() - nul - 1
                           << " byte(s) after the request frame");
      }
      content = buf.substr(0, nul);
      return true;
    }
    if (buf.size() > opts_.maxFrame) {
      logLine(0, peer + ": request frame larger than " +
                     std::to_string(opts_.maxFrame) +
                     " bytes, closing the connection");
      return false;
    }
    const int w = waitFd(fd, POLLIN, deadline);
    if (w == 0) {
      logLine(0, peer + ": no complete request frame within " +
                     std::to_string(opts_.readTimeoutMs) + " ms (" +
                     std::to_string(buf.size()) +
                     " byte(s) received), closing the connection");
      return false;
    }
    if (w < 0) return false;
    const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
    if (n == 0) {
      logLine(0, peer + ": connection closed " +
                     (buf.empty() ? std::string("before any request")
                                  : "in the middle of a request frame (" +
                                        std::to_string(buf.size()) +
                                        " byte(s), no NUL)"));
      return false;
    }
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK) continue;
      logLine(0, sysError(peer + ": receive failed"));
      return false;
    }
    buf.append(chunk, static_cast<std::size_t>(n));
  }
}

bool Server::sendSalt(int fd, const std::string& peer, std::string& seen) {
  const Faults& f = daemon_.config().faults;
  if (f.noSalt) {
    TOVSIM_LOG(1, peer << ": closing without a salt (fault)");
    return false;
  }
  if (f.lateSaltMs > 0 && !pause(f.lateSaltMs, fd)) return false;
  std::string salt;
  try {
    salt = f.salt.empty() ? makeSalt() : f.salt;
  } catch (const std::exception& e) {
    logLine(0, peer + ": " + e.what());
    return false;
  }
  std::string sent = salt;
  if (f.shortSalt >= 0)
    sent = salt.substr(0, static_cast<std::size_t>(f.shortSalt));
  // What the client works with: the bytes it got, zero-filled to 8.
  seen = sent;
  seen.resize(8, '\0');
  TOVSIM_LOG(2, peer << ": salt \"" << printable(sent) << "\"");
  // A split salt reaches the client in two segments: its first four bytes,
  // then, after the pause, the rest. The digest is still checked against
  // the whole salt, as the daemon knows it.
  const std::size_t first =
      f.splitSaltMs > 0 ? std::min<std::size_t>(4, sent.size()) : sent.size();
  bool sentAll = writeAll(fd, sent.data(), first);
  if (sentAll && first < sent.size()) {
    if (!pause(f.splitSaltMs, fd)) return false;
    sentAll = writeAll(fd, sent.data() + first, sent.size() - first);
  }
  if (!sentAll) logLine(0, sysError(peer + ": sending the salt failed"));
  return sentAll;
}

void Server::serve(int fd, std::size_t idx, const std::string& peer) {
  const Faults& f = daemon_.config().faults;
  TOVSIM_LOG(2, "connection from " << peer << " on " << opts_.listen[idx]);
  struct Closer {
    int fd;
    ~Closer() { close(fd); }
  } closer{fd};

  std::string seen;
  if (!sendSalt(fd, peer, seen)) return;

  std::string content;
  if (!readFrame(fd, peer, content)) return;
  TOVSIM_LOG(3, peer << ": frame \"" << printable(content, 4096) << "\"");
  const Request req = parseFrame(content);
  const Outcome out = daemon_.handle(req, seen, idx);
  TOVSIM_LOG(1, peer << " -> " << opts_.listen[idx] << ": \""
                     << printable(req.line, 200) << "\""
                     << (req.hasAuth ? " [auth " + req.user + "]" : "")
                     << " => \""
                     << printable(out.text.substr(0, out.text.find('\n')), 200)
                     << "\"");

  const bool faulty = daemon_.faultsApply(req.line);
  std::string wire = out.text;
  if (faulty && f.padTo > 0) wire = padReply(wire, f.padTo);
  wire += '\0';
  if (faulty && f.replyDelayMs > 0 && !pause(f.replyDelayMs, fd)) return;

  std::size_t limit = wire.size();
  bool reset = false;
  if (faulty && f.resetAfter >= 0) {
    limit = std::min(limit, static_cast<std::size_t>(f.resetAfter));
    reset = true;
  } else if (faulty && f.cutAfter >= 0) {
    limit = std::min(limit, static_cast<std::size_t>(f.cutAfter));
  }
  const std::size_t piece = faulty && f.chunkBytes > 0
                                ? static_cast<std::size_t>(f.chunkBytes)
                                : limit;
  bool ok = true;
  for (std::size_t off = 0; ok && off < limit; off += piece) {
    if (off > 0 && faulty && f.chunkPauseMs > 0 && !pause(f.chunkPauseMs, fd)) {
      return;
    }
    ok = writeAll(fd, wire.data() + off, std::min(piece, limit - off));
  }
  if (!ok) {
    logLine(0, sysError(peer + ": sending the reply failed"));
  } else if (limit < wire.size()) {
    TOVSIM_LOG(1, peer << ": reply " << (reset ? "reset" : "cut") << " after "
                       << limit << " of " << wire.size() << " bytes (fault)");
  }
  if (reset) {
    // Let the bytes reach the peer first: an abortive close drops whatever
    // is still queued.
    for (int i = 0; i < 100; ++i) {
      int queued = 0;
      if (ioctl(fd, SIOCOUTQ, &queued) != 0 || queued == 0) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const linger lg{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
  }

  if (out.after == Outcome::After::Shutdown) {
    logLine(0, "shutdown requested by " + peer);
    drain_ = true;
    wake();
  } else if (out.after == Outcome::After::Halt) {
    logLine(0, "halt requested by " + peer);
    abort_ = true;
    wake();
  }
}

}  // namespace tovsim
