#include "deadline.h"

#include <signal.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <sstream>

namespace tovtools {

namespace {

// The interruption: a handler that does nothing, installed without
// SA_RESTART, so that the blocked call returns EINTR instead of resuming.
constexpr int kSignal = SIGALRM;
// How often an expired deadline interrupts again, for calls begun after the
// first interruption.
constexpr auto kRepeat = std::chrono::milliseconds(10);

void interrupted(int) {}

void installHandler() {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction sa {};
    sa.sa_handler = interrupted;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    sigaction(kSignal, &sa, nullptr);
  });
}

}  // namespace

Deadline::Deadline(double seconds)
    : seconds_(std::isfinite(seconds) && seconds > 0 ? seconds : 0) {}

Deadline::~Deadline() {
  {
    std::lock_guard<std::mutex> lock(mu_);
    stopping_ = true;
  }
  cv_.notify_all();
  if (watchdog_.joinable()) watchdog_.join();
}

void Deadline::start() {
  std::lock_guard<std::mutex> lock(mu_);
  if (started_ || !active()) return;
  started_ = true;
  end_ = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                            std::chrono::duration<double>(seconds_));
  installHandler();
  watchdog_ = std::thread([this] { watch(); });
}

bool Deadline::expired() const {
  std::lock_guard<std::mutex> lock(mu_);
  return started_ && Clock::now() >= end_;
}

Deadline::Clock::duration Deadline::remaining() const {
  std::lock_guard<std::mutex> lock(mu_);
  if (!active()) return std::chrono::hours(24 * 365);
  if (!started_) {
    return std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(seconds_));
  }
  const Clock::duration left = end_ - Clock::now();
  return left > Clock::duration::zero() ? left : Clock::duration::zero();
}

void Deadline::onOverrun(Clock::duration grace, std::function<void()> overrun) {
  std::lock_guard<std::mutex> lock(mu_);
  grace_ = grace;
  overrun_ = std::move(overrun);
}

void Deadline::watch() {
  std::unique_lock<std::mutex> lock(mu_);
  if (cv_.wait_until(lock, end_, [this] { return stopping_; })) return;
  expired_ = true;
  while (!stopping_) {
    if (!guarded_) {
      cv_.wait(lock, [this] { return stopping_ || guarded_; });
      continue;
    }
    // Sent under the lock: once a guard has ended, no further signal is
    // aimed at its thread.
    pthread_kill(target_, kSignal);
    if (overrun_ && Clock::now() >= end_ + grace_) {
      std::function<void()> last = std::move(overrun_);
      overrun_ = nullptr;
      lock.unlock();
      last();
      lock.lock();
    }
    cv_.wait_for(lock, kRepeat, [this] { return stopping_; });
  }
}

Deadline::Guard::Guard(Deadline& d) : d_(d) {
  d_.start();
  {
    std::lock_guard<std::mutex> lock(d_.mu_);
    d_.guarded_ = true;
    d_.target_ = pthread_self();
  }
  d_.cv_.notify_all();
}

Deadline::Guard::~Guard() {
  bool interrupted;
  {
    std::lock_guard<std::mutex> lock(d_.mu_);
    d_.guarded_ = false;
    interrupted = d_.expired_;
  }
  if (interrupted) {
    // A write to standard error cut short by the interruption leaves the
    // stream failed; later messages must still show.
    clearerr(stderr);
    clearerr(stdout);
    std::cerr.clear();
    std::cout.clear();
  }
}

double entryShare(const Deadline& d, std::size_t left, double reserve) {
  if (left <= 1) return 0;
  if (!d.active()) return kEntryCap;
  const double remaining = std::chrono::duration<double>(d.remaining()).count();
  const double shared = std::max(remaining - reserve, remaining / 2);
  // A share of zero would read as "no limit".
  return std::max(shared / static_cast<double>(left), 0.001);
}

std::string secondsText(double seconds) {
  std::ostringstream os;
  os.precision(3);
  os << std::fixed << seconds;
  std::string text = os.str();
  while (!text.empty() && text.back() == '0') text.pop_back();
  if (!text.empty() && text.back() == '.') text.pop_back();
  return text;
}

std::string fixedSeconds(double seconds, int digits) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.*f", digits, seconds);
  return buf;
}

}  // namespace tovtools
