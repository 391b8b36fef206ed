#include "scraper.h"

#include <algorithm>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <system_error>
#include <utility>

#include "common/codenames.h"

namespace tovexporter {

namespace {

const std::pair<std::string, std::string> kDeadline{"deadline", "deadline"};

double secondsSince(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

Clock::time_point after(Clock::time_point t, double seconds) {
  return t + std::chrono::duration_cast<Clock::duration>(
                 std::chrono::duration<double>(seconds));
}

}  // namespace

struct Scraper::Waiter {
  explicit Waiter(boost::asio::io_context& io) : timer(io) {}
  Done done;  // empty once answered
  std::string target;
  Clock::time_point begun;
  std::optional<Clock::time_point> end;
  boost::asio::steady_timer timer;
};

struct Scraper::Flight {
  explicit Flight(boost::asio::io_context& io) : work(io.get_executor()) {}
  // A snapshot being taken is work for the I/O thread: its end is posted.
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work;
  std::string target;
  std::vector<std::shared_ptr<Waiter>> waiters;
  std::atomic<bool> stop{false};
  std::thread thread;
};

struct Scraper::Queued {
  Target target;
  std::shared_ptr<Waiter> waiter;
};

Scraper::Scraper(boost::asio::io_context& io, Taker taker, std::string pinned,
                 std::size_t slots)
    : io_(io),
      taker_(std::move(taker)),
      pinned_(std::move(pinned)),
      slots_(std::max<std::size_t>(slots, 1)) {}

Scraper::~Scraper() {
  for (auto& f : flights_) f.second->stop = true;
  for (auto& f : flights_) {
    if (f.second->thread.joinable()) f.second->thread.join();
  }
}

void Scraper::scrape(const Target& target, double deadline, Done done) {
  auto w = std::make_shared<Waiter>(io_);
  w->done = std::move(done);
  w->target = target.name;
  w->begun = Clock::now();
  if (deadline > 0) w->end = after(w->begun, deadline);
  const auto found = flights_.find(target.name);
  if (found != flights_.end()) {
    join(*found->second, w);
  } else if (flights_.size() < slots_) {
    start(target, w);
  } else {
    queue_.push_back({target, w});
    arm(w, w->end);
  }
}

std::string Scraper::own(const BuildInfo& build) {
  return ownExposition(build, totals_);
}

void Scraper::join(Flight& f, const std::shared_ptr<Waiter>& w) {
  f.waiters.push_back(w);
  arm(w, w->end);
}

void Scraper::start(const Target& target, const std::shared_ptr<Waiter>& w) {
  auto f = std::make_shared<Flight>(io_);
  f->target = target.name;
  f->waiters.push_back(w);
  // The snapshot ends by this scrape's deadline by itself, or is ended
  // then: this scrape waits for that, a little past its deadline.
  arm(w, w->end ? std::optional(after(*w->end, kAnswerGrace)) : std::nullopt);
  try {
    f->thread = std::thread([this, f, target, end = w->end] {
      Taken taken = taker_(target, end, f->stop);
      boost::asio::post(io_, [this, f, taken = std::move(taken)]() mutable {
        finish(f, std::move(taken));
      });
    });
  } catch (const std::system_error&) {
    // No thread to take it: the scrape is answered without the cluster.
    f->waiters.clear();
    std::string text = clusterExposition(nullptr, secondsSince(w->begun));
    Done done = std::move(w->done);
    w->done = nullptr;
    w->timer.cancel();
    done(text);
    return;
  }
  flights_[target.name] = f;
}

void Scraper::arm(const std::shared_ptr<Waiter>& w,
                  std::optional<Clock::time_point> at) {
  w->timer.cancel();
  if (!at) return;
  w->timer.expires_at(*at);
  w->timer.async_wait(
      [this, weak = std::weak_ptr<Waiter>(w)](boost::system::error_code ec) {
        const auto w = weak.lock();
        if (!ec && w) giveUp(w);
      });
}

void Scraper::giveUp(const std::shared_ptr<Waiter>& w) {
  if (!w->done) return;
  ++totalsOf(w->target).errors[kDeadline];
  Done done = std::move(w->done);
  w->done = nullptr;
  done(clusterExposition(nullptr, secondsSince(w->begun)));
}

void Scraper::finish(const std::shared_ptr<Flight>& f, Taken taken) {
  if (f->thread.joinable()) f->thread.join();  // it has posted: its last act
  f->work.reset();
  flights_.erase(f->target);
  Totals& totals = totalsOf(f->target);
  ++totals.scrapes;
  const tovtools::Snapshot* snap = nullptr;
  if (taken.snapshot) {
    const tovtools::Snapshot& s = *taken.snapshot;
    totals.exchanges += s.exchanges;
    for (const tovtools::EntryAttempt& a : s.entries) {
      if (a.answered()) continue;
      ++totals.errors[a.expired ? kDeadline
                                : std::make_pair(std::to_string(a.code),
                                                 tovtools::codeName(a.code))];
    }
    if (s.entries.empty() && s.expired) ++totals.errors[kDeadline];
    if (s.ok()) snap = &s;
  }
  const bool waited = std::any_of(f->waiters.begin(), f->waiters.end(),
                                  [](const auto& w) { return bool(w->done); });
  // An overrun ends the scrapes still waiting for it; those that gave up
  // before have counted theirs.
  if (taken.overran && waited) ++totals.errors[kDeadline];
  for (const std::shared_ptr<Waiter>& w : f->waiters) {
    if (!w->done) continue;
    Done done = std::move(w->done);
    w->done = nullptr;
    w->timer.cancel();
    done(clusterExposition(snap, secondsSince(w->begun)));
  }
  startQueued();
}

void Scraper::startQueued() {
  while (flights_.size() < slots_ && !queue_.empty()) {
    Queued q = std::move(queue_.front());
    queue_.pop_front();
    if (!q.waiter->done) continue;  // its deadline came first
    const auto found = flights_.find(q.target.name);
    if (found != flights_.end()) {
      join(*found->second, q.waiter);
    } else {
      start(q.target, q.waiter);
    }
  }
}

Totals& Scraper::totalsOf(const std::string& target) {
  auto found = totals_.find(target);
  if (found == totals_.end()) {
    if (totals_.size() >= kMaxTargets) {
      auto oldest = totals_.end();
      for (auto it = totals_.begin(); it != totals_.end(); ++it) {
        if (it->first == pinned_) continue;
        if (oldest == totals_.end() ||
            it->second.lastUse < oldest->second.lastUse) {
          oldest = it;
        }
      }
      if (oldest != totals_.end()) totals_.erase(oldest);
    }
    found = totals_.emplace(target, Totals{}).first;
  }
  found->second.lastUse = ++uses_;
  return found->second;
}

}  // namespace tovexporter
