// A time limit for a whole command, for tools that drive the library.
//
// The library waits without bound where its protocol says so (the reply is
// read until the daemon closes, a busy daemon is waited for). A tool gives
// every command a deadline instead: once it has passed, the thread inside a
// library call is interrupted by a signal whose handler does nothing, so the
// blocked system call fails with EINTR and the library ends through its own
// failure path, closing its socket. The library stays usable afterwards.
#ifndef TOOLS_COMMON_DEADLINE_H
#define TOOLS_COMMON_DEADLINE_H

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace tovtools {

class Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  // `seconds` of 0 (or less) means no deadline. The clock starts with
  // start(), not here, so that prompts before the first request do not
  // count.
  explicit Deadline(double seconds);
  ~Deadline();
  Deadline(const Deadline&) = delete;
  Deadline& operator=(const Deadline&) = delete;

  bool active() const { return seconds_ > 0; }
  double seconds() const { return seconds_; }

  // Starts the clock; later calls do nothing.
  void start();
  bool expired() const;
  // Time left, at least zero; a very long time without a deadline.
  Clock::duration remaining() const;

  // Last resort for a call that a signal cannot end (a name lookup retries
  // by itself): `overrun` runs on the watchdog thread once `grace` has
  // passed after the deadline while a guard is still held. A tool uses it
  // to say so and exit.
  void onOverrun(Clock::duration grace, std::function<void()> overrun);

  // While a guard lives, its thread is interrupted when the deadline passes,
  // and again every few milliseconds until the guard ends, so that a
  // blocking call begun after the first interruption is cut short as well.
  // One guard at a time.
  class Guard {
   public:
    explicit Guard(Deadline& d);
    ~Guard();
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

   private:
    Deadline& d_;
  };

 private:
  void watch();

  double seconds_;
  Clock::time_point end_{};
  bool started_ = false;
  bool expired_ = false;
  bool stopping_ = false;
  bool guarded_ = false;
  pthread_t target_{};
  Clock::duration grace_{};
  std::function<void()> overrun_;
  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::thread watchdog_;
};

// How long the next of `left` entry nodes may take before the one after it
// is asked, in seconds; 0 when it may take all that remains (the last one).
// With a deadline, each entry node but the last gets an equal part of what
// remains once `reserve` seconds are set aside for the work that follows
// (but at least half of what remains is shared out). Without one, each but
// the last gets kEntryCap seconds.
constexpr double kEntryCap = 30;
double entryShare(const Deadline& d, std::size_t left, double reserve);

// A duration in seconds as an operator reads it: "2", "0.5", "1.25".
std::string secondsText(double seconds);

// Seconds with a fixed number of decimals ("0.010"), for times in tables
// and performance data, whose columns must line up.
std::string fixedSeconds(double seconds, int digits);

}  // namespace tovtools

#endif  // TOOLS_COMMON_DEADLINE_H
