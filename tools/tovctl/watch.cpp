// The live view of the cluster: `tovctl status --watch`.
//
// Every refresh runs in a child process of its own: the library keeps its
// state per process and a snapshot may take up to the command's deadline, so
// the view process never calls into the library. It stays responsive to keys
// and signals, and kills a refresh that outlives the deadline.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "codes.h"
#include "common/child.h"
#include "common/text.h"
#include "status.h"
#include "tovapi/libtovapi.h"

// Last: its macros would otherwise rename the tool's own functions.
#define NCURSES_NOMACROS
#include <curses.h>

namespace tovctl {

namespace {

using Clock = std::chrono::steady_clock;
using tovtools::Snapshot;

// Seconds between refreshes before a snapshot has told the poll time.
constexpr double kFirstInterval = 2;
constexpr double kMinInterval = 1;
constexpr double kMaxInterval = 60;
// A refresh is killed this long after the deadline it was given.
constexpr double kGrace = 1;
constexpr std::size_t kMaxJson = 64u << 20;
constexpr std::size_t kMaxDiagnostics = 64u << 10;

// Signals reach the loop through a pipe, so that poll() cannot miss one.
volatile sig_atomic_t gSignal = 0;
volatile sig_atomic_t gResized = 0;
int gWake[2] = {-1, -1};

void wake() {
  const int saved = errno;
  const char c = 0;
  ssize_t ignored = write(gWake[1], &c, 1);
  (void)ignored;
  errno = saved;
}
void onStop(int sig) {
  gSignal = sig;
  wake();
}
void onResize(int) {
  gResized = 1;
  wake();
}
void onChild(int) { wake(); }

// The view's signal handlers while it lives; a refresh child puts the
// previous ones back before it does anything else.
class Signals {
 public:
  Signals() {
    if (pipe2(gWake, O_CLOEXEC | O_NONBLOCK) != 0) gWake[0] = gWake[1] = -1;
    gSignal = 0;
    gResized = 0;
    catchSignal(SIGINT, onStop);
    catchSignal(SIGTERM, onStop);
    catchSignal(SIGHUP, onStop);
    catchSignal(SIGWINCH, onResize);
    catchSignal(SIGCHLD, onChild);
    // A reader that goes away shows as a failed write instead.
    catchSignal(SIGPIPE, SIG_IGN);
  }
  ~Signals() {
    restore();
    for (int& fd : gWake) {
      if (fd >= 0) close(fd);
      fd = -1;
    }
  }
  Signals(const Signals&) = delete;
  Signals& operator=(const Signals&) = delete;

  void restore() {
    for (const Saved& s : saved_) sigaction(s.sig, &s.old, nullptr);
    saved_.clear();
  }

  bool ok() const { return gWake[0] >= 0; }

  // Empties the wake-up pipe.
  static void drain() {
    char buf[64];
    while (read(gWake[0], buf, sizeof buf) > 0) {
    }
  }

 private:
  struct Saved {
    int sig;
    struct sigaction old;
  };

  void catchSignal(int sig, void (*handler)(int)) {
    struct sigaction sa {};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART | (sig == SIGCHLD ? SA_NOCLDSTOP : 0);
    Saved s{sig, {}};
    if (sigaction(sig, &sa, &s.old) == 0) saved_.push_back(s);
  }

  std::vector<Saved> saved_;
};

std::string clockText(double unixTime) {
  const std::time_t t = static_cast<std::time_t>(unixTime);
  std::tm tm{};
  char buf[32] = "?";
  if (localtime_r(&t, &tm) != nullptr) {
    std::strftime(buf, sizeof buf, "%H:%M:%S", &tm);
  }
  return buf;
}

double unixNow() {
  return std::chrono::duration<double>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

double secondsUntil(Clock::time_point t) {
  return std::chrono::duration<double>(t - Clock::now()).count();
}

Clock::time_point after(Clock::time_point t, double seconds) {
  return t + std::chrono::duration_cast<Clock::duration>(
                 std::chrono::duration<double>(seconds));
}

// What one refresh brought: a snapshot, or why there is none.
struct Result {
  std::optional<Snapshot> snapshot;
  std::string failure;  // "" when the snapshot is good
  int status = kExitOk;
  std::string diagnostics;  // what the refresh wrote on standard error
};

// Why a snapshot that came back is not good, as the status line says it.
void judge(Result& r, const Options& o) {
  const Snapshot& s = *r.snapshot;
  if (s.ok()) return;
  if (s.expired) {
    r.failure = "deadline of " + tovtools::secondsText(o.deadline) +
                " s expired while awaiting the cluster information from " +
                tovctl::hostPortLabel(s.host, s.port);
    r.status = kExitDeadline;
    return;
  }
  const std::string name = codeName(s.code);
  r.failure = codeText(s.code) + " (" + (name.empty() ? "-" : name) +
              ", code " + std::to_string(s.code) + ")";
  r.status = exitStatusFor(-s.code);
}

// The last line a failed refresh wrote, without the program's name.
std::string lastLine(const std::string& text) {
  std::size_t end = text.find_last_not_of("\r\n");
  if (end == std::string::npos) return "";
  const std::size_t begin = text.find_last_of('\n', end);
  std::string line =
      text.substr(begin == std::string::npos ? 0 : begin + 1,
                  end + 1 - (begin == std::string::npos ? 0 : begin + 1));
  const std::string prefix = "tovctl: ";
  const std::size_t at = line.find(prefix);
  if (at != std::string::npos) line.erase(0, at + prefix.size());
  return line;
}

bool writeAll(int fd, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<std::size_t>(n);
  }
  return true;
}

// One refresh at a time, in a child process.
class Refresh {
 public:
  Refresh(const Options& o, Signals& signals)
      : o_(o), signals_(signals), child_({kMaxJson, kMaxDiagnostics}) {}
  Refresh(const Refresh&) = delete;
  Refresh& operator=(const Refresh&) = delete;

  bool busy() const { return child_.running(); }
  Clock::time_point begun() const { return begun_; }

  // Starts a refresh; false, with `r` filled, when none could start.
  bool begin(Result& r) {
    begun_ = Clock::now();
    std::string why;
    if (child_.spawn([this](int out) { return inChild(out); }, why)) {
      return true;
    }
    r = Result{};
    r.failure = "cannot start a refresh: " + why;
    r.status = kExitUnexpected;
    return false;
  }

  void addTo(std::vector<pollfd>& fds) const { child_.addTo(fds); }

  // When the refresh is killed unless it has ended.
  std::optional<Clock::time_point> killAt() const {
    if (!busy() || o_.deadline <= 0) return std::nullopt;
    return after(begun_, o_.deadline + kGrace);
  }

  // Takes what the child sent; true once it has ended, with `r` filled.
  bool collect(Result& r) {
    if (!busy()) return false;
    if (!child_.collect()) {
      const auto limit = killAt();
      if (!limit || Clock::now() < *limit) return false;
      stop();
      r = Result{};
      r.failure = "no snapshot within the deadline of " +
                  tovtools::secondsText(o_.deadline) +
                  " s; the refresh was stopped";
      r.status = kExitDeadline;
      return true;
    }
    r = Result{};
    r.diagnostics = child_.errors();
    const int st = child_.status();
    if (st < 0 || !WIFEXITED(st)) {
      r.failure = st < 0 ? std::string("the refresh was lost")
                         : "the refresh ended by signal " +
                               std::to_string(WTERMSIG(st));
      r.status = kExitUnexpected;
    } else if (WEXITSTATUS(st) != 0) {
      const std::string said = lastLine(child_.errors());
      r.failure = said.empty() ? "the refresh ended with status " +
                                     std::to_string(WEXITSTATUS(st))
                               : said;
      r.status = WEXITSTATUS(st);
    } else {
      try {
        if (child_.outputCut()) throw std::length_error("too large");
        r.snapshot =
            tovtools::snapshotFromJson(nlohmann::json::parse(child_.output()));
        judge(r, o_);
      } catch (const std::exception& e) {
        r.snapshot.reset();
        r.failure = std::string("unreadable snapshot: ") + e.what();
        r.status = kExitUnexpected;
      }
    }
    return true;
  }

  // Kills a refresh still running and reaps it.
  void stop() { child_.kill(); }

 private:
  // The refresh itself, in the child: `out` takes the snapshot as JSON.
  int inChild(int out) {
    signals_.restore();
    for (const int fd : gWake) close(fd);
    // The library does not need the terminal's character set.
    std::setlocale(LC_CTYPE, "C");
    // Its lines are read here, not shown on a terminal as they are.
    tov1::Debug::useColour = false;
    int status = kExitOk;
    try {
      const Snapshot s = snapshotOf(o_);
      if (!writeAll(out, tovtools::jsonText(tovtools::snapshotJson(s), -1))) {
        status = kExitUnexpected;
      }
    } catch (const ExitNow& e) {
      status = e.status == 0 ? kExitUnexpected : e.status;
    } catch (const std::exception& e) {
      std::cerr << "tovctl: unexpected error: " << e.what() << std::endl;
      status = kExitUnexpected;
    }
    std::cerr.flush();
    return status;
  }

  const Options& o_;
  Signals& signals_;
  tovtools::ChildProcess child_;
  Clock::time_point begun_;
};

// What the view shows: the last good snapshot and the last failure.
struct State {
  StatusFilter filter;
  std::optional<Snapshot> good;
  StatusScreen screen;  // of `good`, against the one before it
  std::string failure;  // of the last refresh, "" when it was good
  double failedAt = 0;
  int status = kExitOk;  // of the last refresh
  unsigned refreshes = 0;

  void take(const Result& r) {
    ++refreshes;
    status = r.status;
    if (r.failure.empty() && r.snapshot) {
      screen = statusScreen(*r.snapshot, good ? &*good : nullptr, filter);
      good = r.snapshot;
      failure.clear();
    } else {
      failure = r.failure;
      failedAt = unixNow();
    }
  }
};

double intervalOf(const StatusOptions& s, const State& st) {
  if (s.interval > 0) return s.interval;
  if (!st.good) return kFirstInterval;
  return std::clamp(static_cast<double>(st.good->cluster.pollTime),
                    kMinInterval, kMaxInterval);
}

// Where the refreshes go.
class Display {
 public:
  virtual ~Display() = default;
  // The descriptor keys arrive on, -1 for none.
  virtual int input() const { return -1; }
  // Reads the keys there are; false when the user asks to leave.
  virtual bool keys() { return true; }
  virtual void resized() {}
  // Shows the state after a refresh (`r`: what it brought); false when
  // nobody can see it any longer.
  virtual bool show(const State& st, const Result& r, double interval) = 0;
};

// Not on a terminal: one snapshot after the other, as text or JSON lines.
class PlainDisplay : public Display {
 public:
  explicit PlainDisplay(const Options& o) : o_(o) {}

  bool show(const State& st, const Result& r, double) override {
    if (o_.debug > 0) std::cerr << r.diagnostics << std::flush;
    if (o_.json && r.snapshot) {
      // A failed snapshot too: its code says so.
      std::cout << tovtools::jsonText(statusJson(*r.snapshot, st.filter), -1)
                << '\n';
    } else if (!o_.json && r.failure.empty()) {
      if (shown_++ > 0) std::cout << '\n';
      for (const ScreenLine& l : st.screen.lines()) {
        std::cout << l.text << '\n';
      }
    }
    std::cout.flush();
    if (!r.failure.empty()) {
      warn("refresh at " + clockText(st.failedAt) + " failed: " + r.failure);
    }
    return static_cast<bool>(std::cout);
  }

 private:
  const Options& o_;
  unsigned shown_ = 0;
};

// How many bytes of `text` fit in `columns` columns of the terminal.
std::size_t fitting(const std::string& text, int columns) {
  std::mbstate_t state{};
  std::size_t at = 0;
  int used = 0;
  while (at < text.size()) {
    wchar_t wc = 0;
    std::size_t n =
        std::mbrtowc(&wc, text.data() + at, text.size() - at, &state);
    int width = 0;
    if (n == 0 || n == static_cast<std::size_t>(-1) ||
        n == static_cast<std::size_t>(-2)) {
      // Not a character here: curses shows the byte as it sees fit.
      state = std::mbstate_t{};
      n = 1;
      const char* shownAs =
          unctrl(static_cast<chtype>(static_cast<unsigned char>(text[at])));
      width = shownAs != nullptr ? static_cast<int>(std::strlen(shownAs)) : 1;
    } else {
      width = std::max(0, wcwidth(wc));
    }
    if (used + width > columns) break;
    used += width;
    at += n;
  }
  return at;
}

// What a key does in the live view.
enum class Move { None, LineUp, LineDown, PageUp, PageDown, Top, Bottom };

Move moveOf(int key) {
  switch (key) {
    case KEY_UP:
    case 'k':
      return Move::LineUp;
    case KEY_DOWN:
    case 'j':
      return Move::LineDown;
    case KEY_PPAGE:
    case 'b':
      return Move::PageUp;
    case KEY_NPAGE:
    case ' ':
      return Move::PageDown;
    case KEY_HOME:
    case 'g':
      return Move::Top;
    case KEY_END:
    case 'G':
      return Move::Bottom;
    default:
      return Move::None;
  }
}

// A line pinned above the scrolling body. When the window is too small for
// them all, those of the lowest rank stay: the summary goes last.
struct Pinned {
  std::string text;
  attr_t attr;
  int rank;
};

// On a terminal: the screen, redrawn in place. The header, the summary and
// a failure stay at the top, the position and the keys at the bottom; the
// cluster lines and tables scroll between them.
class TerminalDisplay : public Display {
 public:
  TerminalDisplay(const Options& o, SCREEN* screen, double interval)
      : screen_(screen), interval_(interval) {
    cbreak();
    noecho();
    nonl();
    curs_set(0);
    nodelay(stdscr, TRUE);
    keypad(stdscr, TRUE);
    // A lone Escape need not hold up the keys after it.
    set_escdelay(25);
    leaveok(stdscr, TRUE);
    if (!o.noColour && std::getenv("NO_COLOR") == nullptr && has_colors() &&
        start_color() == OK) {
      use_default_colors();
      init_pair(1, COLOR_RED, -1);
      init_pair(2, COLOR_GREEN, -1);
      colour_ = true;
    }
  }
  ~TerminalDisplay() override {
    endwin();
    delscreen(screen_);
  }

  int input() const override {
    return isatty(STDIN_FILENO) ? STDIN_FILENO : -1;
  }

  bool keys() override {
    const std::size_t was = top_;
    for (int ch = wgetch(stdscr); ch != ERR; ch = wgetch(stdscr)) {
      if (ch == 'q' || ch == 'Q') return false;
      scroll(moveOf(ch));
    }
    if (top_ != was) draw();
    return true;
  }

  void resized() override {
    winsize ws{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_row > 0 &&
        ws.ws_col > 0) {
      resizeterm(ws.ws_row, ws.ws_col);
    }
    clearok(curscr, TRUE);
    draw();
  }

  bool show(const State& st, const Result&, double interval) override {
    state_ = &st;
    interval_ = interval;
    draw();
    return true;
  }

  void draw() {
    werase(stdscr);
    row_ = 0;
    rows_ = getmaxy(stdscr);
    cols_ = getmaxx(stdscr);
    const std::vector<Pinned> top = pinned();
    // The pinned lines of the lowest ranks that fit.
    std::vector<int> ranks;
    for (const Pinned& p : top) ranks.push_back(p.rank);
    std::sort(ranks.begin(), ranks.end());
    const std::size_t kept =
        std::min(ranks.size(), static_cast<std::size_t>(std::max(rows_, 0)));
    const int cut = kept == 0 ? -1 : ranks[kept - 1];
    for (const Pinned& p : top) {
      if (p.rank <= cut) line(p.text, p.attr);
    }
    const int left = rows_ - static_cast<int>(kept);
    const std::vector<ScreenLine>& body = bodyLines();
    // The position line needs a body line beside it to be of use.
    const bool footer = body.empty() ? left >= 1 : left >= 2;
    page_ = body.empty() ? 0 : left - (footer ? 1 : 0);
    top_ = std::min(top_, lastTop());
    const std::size_t end =
        std::min(body.size(), top_ + static_cast<std::size_t>(page_));
    for (std::size_t i = top_; i < end; ++i) {
      attr_t a = toneAttr(body[i].tone);
      if (body[i].changed) a |= A_REVERSE;
      line(body[i].text, a);
    }
    if (footer) {
      row_ = rows_ - 1;
      line(body.empty() ? "q: quit"
                        : "lines " + std::to_string(top_ + 1) + "-" +
                              std::to_string(end) + " of " +
                              std::to_string(body.size()) +
                              "  Up/Down j/k  PgUp/PgDn  Home/End  q: quit",
           A_BOLD);
    }
    wrefresh(stdscr);
  }

 private:
  // In the order they show: the header, the summary and what a filter
  // shows, the failure of the last refresh.
  std::vector<Pinned> pinned() const {
    const std::string every =
        "every " + tovtools::secondsText(interval_) + " s";
    std::vector<Pinned> out;
    if (state_ == nullptr || (!state_->good && state_->failure.empty())) {
      out.push_back({"waiting for the first snapshot; " + every, A_BOLD, 2});
    } else if (state_->good) {
      const Snapshot& s = *state_->good;
      out.push_back({"snapshot of " + clockText(s.takenAt) + " took " +
                         tovtools::secondsText(s.seconds) + " s" +
                         (state_->failure.empty() ? "" : " (stale)") + "; " +
                         every,
                     A_BOLD, 2});
    } else {
      out.push_back({"no snapshot yet; " + every, A_BOLD, 2});
    }
    if (state_ == nullptr) return out;
    const std::vector<ScreenLine>& summary = state_->screen.summary;
    for (std::size_t i = 0; i < summary.size(); ++i) {
      out.push_back(
          {summary[i].text, toneAttr(summary[i].tone), i == 0 ? 0 : 3});
    }
    if (!state_->failure.empty()) {
      out.push_back({"refresh at " + clockText(state_->failedAt) + " failed: " +
                         tovtools::escapeControls(state_->failure, false),
                     toneAttr(Tone::Problem), 1});
    }
    return out;
  }

  const std::vector<ScreenLine>& bodyLines() const {
    static const std::vector<ScreenLine> none;
    return state_ != nullptr ? state_->screen.body : none;
  }

  // The first body line of the last page.
  std::size_t lastTop() const {
    const std::size_t n = bodyLines().size();
    const std::size_t page = static_cast<std::size_t>(std::max(page_, 1));
    return n > page ? n - page : 0;
  }

  void scroll(Move m) {
    const std::size_t page = static_cast<std::size_t>(std::max(page_, 1));
    switch (m) {
      case Move::LineUp:
        top_ = top_ > 0 ? top_ - 1 : 0;
        break;
      case Move::LineDown:
        top_ = std::min(top_ + 1, lastTop());
        break;
      case Move::PageUp:
        top_ = top_ > page ? top_ - page : 0;
        break;
      case Move::PageDown:
        top_ = std::min(top_ + page, lastTop());
        break;
      case Move::Top:
        top_ = 0;
        break;
      case Move::Bottom:
        top_ = lastTop();
        break;
      case Move::None:
        break;
    }
  }

  attr_t toneAttr(Tone t) const {
    switch (t) {
      case Tone::Heading:
        return A_BOLD;
      case Tone::Problem:
        return colour_ ? COLOR_PAIR(1) : A_BOLD;
      case Tone::Good:
        return colour_ ? COLOR_PAIR(2) : A_NORMAL;
      case Tone::Plain:
        break;
    }
    return A_NORMAL;
  }

  void line(const std::string& text, attr_t a) {
    if (row_ >= rows_) return;
    wattrset(stdscr, a);
    mvwaddnstr(stdscr, row_, 0, text.c_str(),
               static_cast<int>(fitting(text, cols_)));
    wattrset(stdscr, A_NORMAL);
    ++row_;
  }

  SCREEN* screen_;
  double interval_;
  bool colour_ = false;
  const State* state_ = nullptr;
  int row_ = 0;
  int rows_ = 0;
  int cols_ = 0;
  // The first body line shown, kept across refreshes (and made to fit the
  // new length), and how many body lines the window shows.
  std::size_t top_ = 0;
  int page_ = 1;
};

// Runs refreshes into `d` until the user leaves, a signal ends the view or
// `s.count` refreshes are shown.
int run(const Options& o, const StatusOptions& s, Signals& signals, Display& d,
        State& st) {
  Refresh refresh(o, signals);
  Clock::time_point next = Clock::now();
  for (;;) {
    if (gSignal != 0) {
      // Ctrl-C is how a user leaves; other signals end it as signals do.
      return gSignal == SIGINT ? kExitOk : 128 + gSignal;
    }
    if (gResized != 0) {
      gResized = 0;
      d.resized();
    }
    if (!refresh.busy()) {
      if (s.count > 0 && st.refreshes >= s.count) return st.status;
      if (Clock::now() >= next) {
        Result r;
        if (!refresh.begin(r)) {
          st.take(r);
          if (!d.show(st, r, intervalOf(s, st))) return kExitOk;
          next = after(Clock::now(), intervalOf(s, st));
          continue;
        }
      }
    }

    std::vector<pollfd> fds{{gWake[0], POLLIN, 0}};
    const int in = d.input();
    if (in >= 0) fds.push_back({in, POLLIN, 0});
    refresh.addTo(fds);
    // Until the next refresh is due or the current one is to be killed;
    // a wake-up a second at the latest, for a child ended unnoticed.
    double wait = 1;
    if (!refresh.busy()) wait = std::min(wait, secondsUntil(next));
    if (const auto limit = refresh.killAt()) {
      wait = std::min(wait, secondsUntil(*limit));
    }
    const int ms = static_cast<int>(std::max(0.0, wait) * 1000) + 1;
    if (poll(fds.data(), fds.size(), ms) < 0 && errno != EINTR) {
      std::cerr << "tovctl: cannot wait: " << std::strerror(errno) << '\n';
      return kExitUnexpected;
    }
    Signals::drain();
    if (in >= 0) {
      const short ev = fds[1].revents;
      if ((ev & (POLLHUP | POLLERR | POLLNVAL)) != 0) return 128 + SIGHUP;
      if ((ev & POLLIN) != 0 && !d.keys()) return kExitOk;
    }
    Result r;
    if (refresh.collect(r)) {
      st.take(r);
      const double interval = intervalOf(s, st);
      if (!d.show(st, r, interval)) return kExitOk;
      next = after(refresh.begun(), interval);
    }
  }
}

}  // namespace

int watchStatus(const Options& o, const StatusOptions& s) {
  Signals signals;
  if (!signals.ok()) {
    std::cerr << "tovctl: cannot watch: " << std::strerror(errno) << '\n';
    return kExitUnexpected;
  }
  State st;
  st.filter = s.filter;
  if (!o.json && isatty(STDOUT_FILENO)) {
    // Names in UTF-8 take the columns they show in.
    std::setlocale(LC_CTYPE, "");
    SCREEN* screen = newterm(nullptr, stdout, stdin);
    // A terminal that cannot place the cursor (TERM=dumb) gets text.
    const char* cup = screen != nullptr ? tigetstr("cup") : nullptr;
    if (screen != nullptr &&
        (cup == nullptr || cup == reinterpret_cast<char*>(-1L))) {
      endwin();
      delscreen(screen);
      screen = nullptr;
    }
    if (screen != nullptr) {
      int status = kExitOk;
      {
        TerminalDisplay terminal(o, screen,
                                 s.interval > 0 ? s.interval : kFirstInterval);
        terminal.draw();
        status = run(o, s, signals, terminal, st);
      }
      // With --count the view may end on a failed refresh: say which, now
      // that the screen is gone.
      if (status != kExitOk && status < 128 && !st.failure.empty()) {
        std::cerr << "tovctl: status failed: "
                  << tovtools::escapeControls(st.failure, false) << std::endl;
      }
      return status;
    }
    const char* term = std::getenv("TERM");
    warn("cannot draw on the terminal (TERM=" +
         std::string(term != nullptr ? term : "") +
         "); printing snapshots instead");
  }
  PlainDisplay plain(o);
  return run(o, s, signals, plain, st);
}

}  // namespace tovctl
