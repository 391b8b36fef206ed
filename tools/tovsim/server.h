// Sockets of the simulated daemon: TCP request service and UDP discovery on
// every listen address.
#ifndef TOVSIM_SERVER_H
#define TOVSIM_SERVER_H

#include <poll.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "daemon.h"

namespace tovsim {

struct ServerOptions {
  std::vector<std::string> listen;
  int port = 1195;     // 0: the kernel picks, reused for every address
  int udpPort = 1195;  // 0: no discovery side
  int readTimeoutMs = 5000;
  int maxLifetimeSec = 0;  // 0: no limit
  std::string readyFile;
  int maxConnections = 256;
  std::size_t maxFrame = 65536;
  // Largest datagram of the own discovery answer.
  std::size_t udpDatagramSize = kDefaultAnswerDatagram;
};

// Connections held open at the addresses of mute nodes; past this many,
// further ones wait in the listen backlog (without a salt all the same).
constexpr std::size_t kMaxMuteHeld = 1024;

class Server {
 public:
  Server(Daemon& daemon, ServerOptions opts);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Binds and listens on every address; throws std::runtime_error.
  void open();
  int tcpPort() const { return tcpPort_; }

  // Serves until a signal on `signalFd`, the lifetime, or a shutdown
  // request; then closes everything and joins the workers. Returns the exit
  // status.
  int run(int signalFd);

 private:
  using Clock = std::chrono::steady_clock;
  struct Worker {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
  };
  // A connection to a mute node: accepted, read and ignored, never answered.
  struct MuteConn {
    int fd;
    std::size_t idx;
    std::string peer;
    Clock::time_point since;
    std::size_t received;
  };

  // One round of the main loop's poll: what is polled, and where.
  struct PollSet {
    std::vector<pollfd> fds;             // wake pipe, signals, UDP, TCP, mute
    std::vector<std::size_t> polledTcp;  // listen index of each TCP entry
    std::size_t polledMute = 0;          // mute connections polled
    bool paused = false;                 // accepting rests (no descriptors)
  };

  void checkFdLimit();
  void openTcp();
  void openUdp();
  void closeAll();
  void writeReadyFile();
  void pollOnce(int signalFd, Clock::time_point deadline);
  PollSet pollSet(int signalFd) const;
  // The poll timeout until the lifetime ends; false (and stopping) once it
  // has.
  bool lifetimeLeft(Clock::time_point deadline, int& timeout);
  void handleEvents(const PollSet& ps, int signalFd);
  void finish();
  void acceptOn(std::size_t idx);
  void holdMute(int fd, std::size_t idx, const std::string& peer);
  bool readMute(MuteConn& m);
  void answerProbe(std::size_t idx);
  void serve(int fd, std::size_t idx, const std::string& peer);
  // Sends the salt as the salt faults say; `seen` is what a client that
  // reads all of it works with. False when the connection is to end.
  bool sendSalt(int fd, const std::string& peer, std::string& seen);
  bool readFrame(int fd, const std::string& peer, std::string& content);
  bool writeAll(int fd, const char* p, std::size_t n);
  int waitFd(int fd, short events, Clock::time_point deadline);
  bool pause(int ms, int fd);
  void wake();
  void reap(bool all);

  Daemon& daemon_;
  ServerOptions opts_;
  int tcpPort_ = 0;
  std::vector<int> tcpFds_;
  std::vector<int> udpFds_;
  int wakePipe_[2] = {-1, -1};
  std::atomic<bool> abort_{false};  // stop now: signal, lifetime, halt
  std::atomic<bool> drain_{false};  // stop accepting, finish what runs
  std::list<Worker> workers_;
  std::vector<MuteConn> mute_;
  std::vector<bool> muteIdx_;              // listen index -> serves a mute node
  Clock::time_point acceptPausedUntil_{};  // out of descriptors until then
  bool acceptFailing_ = false;
  bool readyWritten_ = false;
};

}  // namespace tovsim

#endif  // TOVSIM_SERVER_H
