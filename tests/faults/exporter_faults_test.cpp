// The exporter's HTTP side in the fault matrix: hostile clients, a taken
// address, what its children hold, and scrapes that must end by their
// deadline whatever the network does. Every row is bounded in time and
// checks the exporter's descriptors (/proc/PID/fd) and child processes
// before and after; the figures are printed for docs/fault-matrix.md.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "netns/netns_lab.h"
#include "support/sim.h"

namespace {

using Clock = std::chrono::steady_clock;
using Strings = std::vector<std::string>;

constexpr double kRequestDeadline = 5;  // the exporter's, for a whole request
constexpr int kCrowd = 100;

double since(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

bool pollFor(double seconds, const std::function<bool()>& done) {
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  while (!done()) {
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// What the entries of /proc/PID/fd link to.
Strings descriptors(pid_t pid) {
  Strings links;
  std::error_code ec;
  const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
  for (const auto& e : std::filesystem::directory_iterator(dir, ec)) {
    links.push_back(std::filesystem::read_symlink(e.path(), ec).string());
  }
  return links;
}

// Every process below `pid`: its children, theirs, and so on.
std::vector<pid_t> descendants(pid_t pid) {
  std::multimap<pid_t, pid_t> children;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator("/proc", ec)) {
    const std::string name = e.path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const std::string stat = readFile(e.path() / "stat");
    const std::size_t close = stat.rfind(')');
    if (close == std::string::npos) continue;
    std::istringstream rest(stat.substr(close + 2));
    char state;
    pid_t parent = 0;
    rest >> state >> parent;
    children.emplace(parent, std::stoi(name));
  }
  std::vector<pid_t> found;
  for (std::vector<pid_t> next{pid}; !next.empty();) {
    const pid_t p = next.back();
    next.pop_back();
    for (auto [it, end] = children.equal_range(p); it != end; ++it) {
      found.push_back(it->second);
      next.push_back(it->second);
    }
  }
  return found;
}

// The exporter as a program, in a directory of its own. Forked and exec'd
// at once: other threads of the row may be running.
class Exporter {
 public:
  explicit Exporter(Strings args, const std::string& listen = "127.0.0.1:0") {
    char templ[] = "/tmp/tovexporter-faults-XXXXXX";
    dir_ = mkdtemp(templ) != nullptr ? templ : "/tmp";
    std::ofstream(dir_ + "/clusters.toml");
    args.insert(args.begin(),
                {TOVEXPORTER_PATH, "--listen", listen, "--ready-file",
                 dir_ + "/port", "--config", dir_ + "/clusters.toml"});
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    const std::string log = dir_ + "/log";
    const pid_t parent = getpid();
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (getppid() != parent || out < 0) _exit(127);
      dup2(out, 1);
      dup2(out, 2);
      execv(argv[0], argv.data());
      _exit(127);
    }
    pollFor(20, [&] {
      const std::string ready = readFile(dir_ + "/port");
      if (!ready.empty() && ready.back() == '\n') port_ = std::stoi(ready);
      return port_ > 0 || !running();
    });
  }
  // One that served ends cleanly on SIGTERM (no sanitizer report either).
  ~Exporter() {
    const int status = stop();
    if (port_ > 0) {
      EXPECT_EQ(status, 0) << log();
    }
    std::filesystem::remove_all(dir_);
  }

  pid_t pid() const { return pid_; }
  int port() const { return port_; }
  std::string log() const { return readFile(dir_ + "/log"); }
  bool running() {
    int st = 0;
    if (pid_ <= 0 || waitpid(pid_, &st, WNOHANG) != pid_) return pid_ > 0;
    status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    pid_ = -1;
    return false;
  }
  // Waits up to `seconds` for it to end by itself, then ends it: SIGTERM,
  // SIGKILL 5 s later. The exit status; -1 after a signal.
  int stop(double seconds = 0) {
    pollFor(seconds, [this] { return !running(); });
    for (const int sig : {SIGTERM, SIGKILL}) {
      if (running()) kill(pid_, sig);
      pollFor(5, [this] { return !running(); });
    }
    return status_;
  }

 private:
  std::string dir_;
  pid_t pid_ = -1;
  int port_ = 0;
  int status_ = -1;
};

// The exporter's descriptors and processes when the row begins; check()
// waits (a few seconds at most) until they are back to that.
class Footprint {
 public:
  explicit Footprint(pid_t pid)
      : pid_(pid),
        fds_(descriptors(pid).size()),
        children_(descendants(pid).size()) {}
  void check(const std::string& row) {
    std::size_t fds = 0, children = 0;
    const auto begun = Clock::now();
    pollFor(kRequestDeadline + 2, [&] {
      fds = descriptors(pid_).size();
      children = descendants(pid_).size();
      return fds == fds_ && children == children_;
    });
    EXPECT_EQ(fds, fds_) << "descriptors left open";
    EXPECT_EQ(children, children_) << "processes left behind";
    std::printf(
        "[ figures  ] %s: descriptors %zu before, %zu after; "
        "processes %zu before, %zu after (settled in %.2f s)\n",
        row.c_str(), fds_, fds, children_, children, since(begun));
  }

 private:
  pid_t pid_;
  std::size_t fds_, children_;
};

struct Scrape {
  int status = 0;
  std::string body;
  double seconds = 0;
};

// A scrape as Prometheus sends it, with its timeout header unless "".
Scrape scrape(int port, const std::string& path, const std::string& timeout) {
  httplib::Client client("127.0.0.1", port);
  client.set_read_timeout(20, 0);
  httplib::Headers headers;
  if (!timeout.empty()) {
    headers = {{"X-Prometheus-Scrape-Timeout-Seconds", timeout}};
  }
  const auto begun = Clock::now();
  const auto res = client.Get(path, headers);
  Scrape s;
  s.seconds = since(begun);
  if (res) {
    s.status = res->status;
    s.body = res->body;
  }
  return s;
}

bool has(const std::string& body, const std::string& line) {
  return ("\n" + body).find("\n" + line) != std::string::npos;
}

int connectTo(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd >= 0 &&
      connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
    return fd;
  }
  if (fd >= 0) close(fd);
  return -1;
}

void sendAll(int fd, const std::string& bytes) {
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t n =
        send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n <= 0) return;
    done += static_cast<std::size_t>(n);
  }
}

// What the exporter sends on `fd` until it closes, or `seconds` pass.
std::string readToEnd(int fd, double seconds, bool* closed) {
  std::string got;
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  *closed = false;
  while (Clock::now() < end) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 20) <= 0) continue;
    char buf[65536];
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0) {
      *closed = true;
      break;
    }
    got.append(buf, static_cast<std::size_t>(n));
  }
  return got;
}

struct Response {
  std::string status;  // "200"
  std::string head;
  std::string body;
};

// The responses in `raw`, one after the other, each as long as its
// Content-Length says.
std::vector<Response> responses(std::string raw) {
  std::vector<Response> out;
  for (;;) {
    const std::size_t headEnd = raw.find("\r\n\r\n");
    if (raw.compare(0, 5, "HTTP/") != 0 || headEnd == std::string::npos) break;
    Response r;
    r.head = raw.substr(0, headEnd);
    r.status = raw.substr(9, 3);
    const std::size_t at = r.head.find("Content-Length: ");
    const std::size_t length =
        at == std::string::npos ? 0 : std::stoul(r.head.substr(at + 16));
    r.body = raw.substr(headEnd + 4, length);
    out.push_back(r);
    raw.erase(0, std::min(raw.size(), headEnd + 4 + length));
  }
  return out;
}

std::unique_ptr<simtest::SimProcess> startSim(const std::string& address,
                                              int port = 0,
                                              Strings extra = {}) {
  simtest::SimOptions o;
  o.configJson = R"({"cluster": {"name": "c", "poll_time": 1},
    "nodes": [{"name": "n1", "address": "127.0.96.1"},
              {"name": "n2", "address": "127.0.96.2"}],
    "services": [{"name": "web", "state": "running", "mode": "auto",
                  "node": "n1"}]})";
  o.listen = {address};
  o.port = port;
  o.extraArgs = std::move(extra);
  o.maxLifetimeSec = 60;
  return std::make_unique<simtest::SimProcess>(o);
}

// ---------------------------------------------------------------------
// Held connections: many clients that never finish a request, slowly or
// not at all, while a real scrape comes in.

struct Crowd {
  const char* name;
  bool trickles;  // the request line, then one byte a second
};
void PrintTo(const Crowd& c, std::ostream* os) { *os << c.name; }

class HeldConnections : public testing::TestWithParam<Crowd> {};

// The scrape is answered within its deadline (1.5 s: the header's 2 less
// the margin), and every held connection is closed by the request deadline
// counted from its accept, however its bytes trickle in.
TEST_P(HeldConnections, AScrapeIsAnsweredAndEachIsClosedAtTheRequestDeadline) {
  auto sim = startSim("127.0.96.1");
  Exporter e({"-p", sim->portStr()});
  ASSERT_GT(e.port(), 0) << e.log();
  Footprint footprint(e.pid());
  const std::size_t idle = descriptors(e.pid()).size();
  const auto begun = Clock::now();
  std::vector<int> held;
  for (int i = 0; i < kCrowd; ++i) {
    held.push_back(connectTo(e.port()));
    ASSERT_GE(held.back(), 0);
    if (GetParam().trickles) sendAll(held.back(), "GET /metrics HTTP/1.1\r\n");
  }
  ASSERT_TRUE(pollFor(3, [&] {
    return descriptors(e.pid()).size() >= idle + kCrowd;
  })) << "the connections were not taken";
  Scrape real;
  std::thread prometheus(
      [&] { real = scrape(e.port(), "/probe?target=127.0.96.1", "2"); });
  // Until each is closed by the exporter: one byte a second meanwhile.
  std::vector<double> closedAt(held.size(), -1);
  auto tick = Clock::now();
  while (since(begun) < kRequestDeadline + 3 &&
         std::count(closedAt.begin(), closedAt.end(), -1) > 0) {
    if (GetParam().trickles && Clock::now() >= tick) {
      for (std::size_t i = 0; i < held.size(); ++i) {
        if (closedAt[i] < 0) sendAll(held[i], "X");
      }
      tick += std::chrono::seconds(1);
    }
    std::vector<pollfd> fds;
    for (const int fd : held) fds.push_back({fd, POLLIN, 0});
    if (poll(fds.data(), fds.size(), 50) <= 0) continue;
    for (std::size_t i = 0; i < held.size(); ++i) {
      char c;
      if (fds[i].revents != 0 && closedAt[i] < 0 &&
          recv(held[i], &c, 1, MSG_DONTWAIT) <= 0) {
        closedAt[i] = since(begun);
      }
    }
  }
  prometheus.join();
  for (const int fd : held) close(fd);
  EXPECT_EQ(real.status, 200);
  EXPECT_TRUE(has(real.body, "tov_up 1")) << real.body;
  EXPECT_LT(real.seconds, 1.5);
  const auto [first, last] =
      std::minmax_element(closedAt.begin(), closedAt.end());
  EXPECT_GE(*first, kRequestDeadline - 0.1) << "closed before its deadline";
  EXPECT_LE(*last, kRequestDeadline + 0.5) << "held past its deadline";
  std::printf(
      "[ figures  ] %s: scrape %.3f s with %d held; held ones "
      "closed at %.2f-%.2f s\n",
      GetParam().name, real.seconds, kCrowd, *first, *last);
  footprint.check(GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(ExporterFaults, HeldConnections,
                         testing::Values(Crowd{"slow_connections", true},
                                         Crowd{"idle_connections", false}),
                         [](const testing::TestParamInfo<Crowd>& info) {
                           return info.param.name;
                         });

// Beyond the bound on connections held (512) one more is closed as soon as
// it is accepted; once they go, scrapes are answered again.
TEST(ExporterFaults, AConnectionBeyondTheBoundIsClosedAtOnce) {
  constexpr int kBound = 512;
  Exporter e({});
  ASSERT_GT(e.port(), 0) << e.log();
  Footprint footprint(e.pid());
  const std::size_t idle = descriptors(e.pid()).size();
  std::vector<int> held;
  for (int i = 0; i < kBound; ++i) {
    held.push_back(connectTo(e.port()));
    ASSERT_GE(held.back(), 0);
  }
  ASSERT_TRUE(pollFor(3, [&] {
    return descriptors(e.pid()).size() >= idle + kBound;
  })) << "the connections were not taken";
  const int extra = connectTo(e.port());
  ASSERT_GE(extra, 0);
  const auto begun = Clock::now();
  bool closed = false;
  readToEnd(extra, 1, &closed);
  const double took = since(begun);
  close(extra);
  EXPECT_TRUE(closed);
  EXPECT_LT(took, 0.5);
  for (const int fd : held) close(fd);
  const Scrape after = scrape(e.port(), "/metrics", "");
  EXPECT_EQ(after.status, 200);
  std::printf(
      "[ figures  ] connections_beyond_512: closed in %.3f s; a "
      "scrape after %.3f s\n",
      took, after.seconds);
  footprint.check("connections_beyond_512");
}

// ---------------------------------------------------------------------
// Requests as a hostile client writes them, each answered as HTTP wants
// within a second.

struct Exchange {
  const char* name;
  std::string request;
  bool halfClose;
  Strings statuses;  // of the responses, in order
  bool closes;       // the exporter closes after them
};
void PrintTo(const Exchange& x, std::ostream* os) { *os << x.name; }

std::string manyRanges() {
  std::string r = "bytes=0-0";
  for (int i = 1; i < 1000; ++i) r += ",0-";
  return r;
}

const std::string kGet = "GET /metrics HTTP/1.1\r\nHost: t\r\n\r\n";

const Exchange kExchanges[] = {
    {"pipelined",
     "GET / HTTP/1.1\r\nHost: t\r\n\r\n" + kGet +
         "GET /nope HTTP/1.1\r\nHost: t\r\n\r\n",
     false,
     {"200", "200", "404"},
     false},
    {"half_closed", kGet, true, {"200"}, true},
    {"range_of_1000_parts",
     "GET / HTTP/1.1\r\nHost: t\r\nRange: " + manyRanges() +
         "\r\nConnection: close\r\n\r\n",
     false,
     {"200"},
     true},
    {"headers_beyond_8_kib",
     "GET / HTTP/1.1\r\nHost: t\r\nX-Big: " + std::string(9000, 'a') +
         "\r\n\r\n",
     false,
     {"431"},
     true},
    {"body_beyond_4_kib",
     "POST / HTTP/1.1\r\nHost: t\r\nContent-Length: 5000\r\n\r\n",
     false,
     {"413"},
     true},
};

class Request : public testing::TestWithParam<Exchange> {};

TEST_P(Request, IsAnsweredInOrderAndWhole) {
  const Exchange& x = GetParam();
  Exporter e({});
  ASSERT_GT(e.port(), 0) << e.log();
  Footprint footprint(e.pid());
  const std::string landing =
      scrape(e.port(), "/", "").body;  // a plain GET of the small page
  ASSERT_FALSE(landing.empty());
  const int fd = connectTo(e.port());
  ASSERT_GE(fd, 0);
  const auto begun = Clock::now();
  sendAll(fd, x.request);
  if (x.halfClose) shutdown(fd, SHUT_WR);
  bool closed = false;
  std::string raw;
  std::vector<Response> got;
  // Until the exporter closes, or every response is in.
  while (since(begun) < 1 && !closed && got.size() < x.statuses.size()) {
    raw += readToEnd(fd, 0.05, &closed);
    got = responses(raw);
  }
  if (x.closes && !closed) raw += readToEnd(fd, 1 - since(begun), &closed);
  const double took = since(begun);
  close(fd);
  got = responses(raw);
  Strings statuses;
  for (const Response& r : got) statuses.push_back(r.status);
  EXPECT_EQ(statuses, x.statuses) << raw.substr(0, 2000);
  EXPECT_EQ(closed, x.closes);
  EXPECT_LT(took, 1);
  for (const Response& r : got) {
    // Never a part of a page: always the whole of it.
    EXPECT_EQ(r.head.find("Content-Range"), std::string::npos);
    if (r.body.rfind("<!DOCTYPE", 0) == 0) {
      EXPECT_EQ(r.body, landing);
    }
  }
  if (x.statuses[0] == "200" && x.statuses.size() > 1) {
    EXPECT_TRUE(has(got[1].body, "tov_exporter_build_info")) << got[1].body;
  }
  std::printf("[ figures  ] %s: %zu response(s) in %.3f s, %zu bytes\n", x.name,
              got.size(), took, raw.size());
  footprint.check(x.name);
}

INSTANTIATE_TEST_SUITE_P(ExporterFaults, Request, testing::ValuesIn(kExchanges),
                         [](const testing::TestParamInfo<Exchange>& info) {
                           return std::string(info.param.name);
                         });

// ---------------------------------------------------------------------
// The listening socket.

// Status 2 and one line naming the address; the first exporter goes on
// serving every scrape.
TEST(ExporterFaults, ASecondExporterOnATakenAddressIsRefused) {
  Exporter first({});
  ASSERT_GT(first.port(), 0) << first.log();
  Footprint footprint(first.pid());
  const std::string address = "127.0.0.1:" + std::to_string(first.port());
  const auto begun = Clock::now();
  Exporter second({}, address);
  EXPECT_EQ(second.stop(10), 2);
  const double took = since(begun);
  EXPECT_EQ(second.log(), "tovexporter: cannot listen on " + address +
                              ": Address already in use\n");
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(scrape(first.port(), "/metrics", "").status, 200);
  }
  std::printf("[ figures  ] taken_address: refused in %.3f s\n", took);
  footprint.check("taken_address");
}

// During a scrape that probes a stalled node, the snapshot process and its
// probe worker hold none of the exporter's sockets.
TEST(ExporterFaults, ChildrenHoldNoneOfTheExportersSockets) {
  auto sim = startSim("127.0.96.1");
  auto stalled =
      startSim("127.0.96.2", sim->port(), {"--reply-delay", "600000"});
  Exporter e({"-p", sim->portStr(), "--deadline", "4"});
  ASSERT_GT(e.port(), 0) << e.log();
  Footprint footprint(e.pid());
  Scrape s;
  std::thread prometheus(
      [&] { s = scrape(e.port(), "/probe?target=127.0.96.1", ""); });
  std::vector<pid_t> children;
  EXPECT_TRUE(pollFor(2, [&] {
    children = descendants(e.pid());
    return children.size() >= 2;
  })) << "no snapshot process with a probe worker";
  std::set<std::string> sockets;
  for (const std::string& link : descriptors(e.pid())) {
    if (link.rfind("socket:", 0) == 0) sockets.insert(link);
  }
  EXPECT_GE(sockets.size(), 2u);  // listening, and the scrape's connection
  std::size_t shared = 0, held = 0;
  for (const pid_t child : children) {
    for (const std::string& link : descriptors(child)) {
      ++held;
      shared += sockets.count(link);
    }
  }
  prometheus.join();
  EXPECT_EQ(shared, 0u);
  EXPECT_TRUE(has(s.body, "tov_up 1")) << s.body;
  EXPECT_TRUE(has(s.body, R"(tov_node_up{node="n2",address="127.0.96.2"} 0)"));
  std::printf(
      "[ figures  ] children_hold_no_socket: %zu processes below the "
      "exporter, %zu descriptors, %zu of the exporter's %zu sockets; "
      "scrape %.2f s\n",
      children.size(), held, shared, sockets.size(), s.seconds);
  footprint.check("children_hold_no_socket");
}

// ---------------------------------------------------------------------
// Deadlines.

// --deadline 0 is no deadline: a scrape that comes while its target's
// snapshot is being taken (the daemon answers after 1.5 s) waits for it
// and is answered from it, not failed at once.
TEST(ExporterFaults, DeadlineZeroWaitsForTheSnapshotInFlight) {
  auto sim = startSim("127.0.96.1", 0, {"--reply-delay", "1500"});
  Exporter e({"-p", sim->portStr(), "--deadline", "0"});
  ASSERT_GT(e.port(), 0) << e.log();
  Footprint footprint(e.pid());
  const std::string path = "/probe?target=127.0.96.1";
  Scrape first, second;
  std::thread one([&] { first = scrape(e.port(), path, ""); });
  EXPECT_TRUE(pollFor(2, [&] { return !descendants(e.pid()).empty(); }));
  std::thread two([&] { second = scrape(e.port(), path, ""); });
  one.join();
  two.join();
  for (const Scrape* s : {&first, &second}) {
    EXPECT_TRUE(has(s->body, "tov_up 1")) << s->body;
  }
  EXPECT_GE(second.seconds, 0.5) << "it did not wait for the snapshot";
  const std::string metrics = scrape(e.port(), "/metrics", "").body;
  EXPECT_TRUE(has(metrics, "tov_scrapes_total{target=\"127.0.96.1:" +
                               sim->portStr() + "\"} 1"))
      << metrics;
  EXPECT_FALSE(has(metrics, "tov_scrape_errors_total")) << metrics;
  std::printf(
      "[ figures  ] deadline_zero: first %.2f s, second %.2f s, one "
      "snapshot\n",
      first.seconds, second.seconds);
  footprint.check("deadline_zero");
}

// The first nameserver of /etc/resolv.conf (the resolver's default when
// there is none).
std::string nameserver() {
  std::istringstream in(readFile("/etc/resolv.conf"));
  for (std::string line; std::getline(in, line);) {
    std::istringstream words(line);
    std::string key, value;
    if (words >> key >> value && key == "nameserver") return value;
  }
  return "127.0.0.1";
}

// Runs `row` with this thread in a private network where the nameserver's
// address is on loopback, held by a UDP socket that takes queries and
// never answers; `queries` is how many came. Why it cannot, or "".
std::string withSilentNameserver(const std::function<void()>& row,
                                 int& queries) {
  if (geteuid() != 0) return "a private network namespace needs root";
  const std::string server = nameserver();
  const bool v6 = server.find(':') != std::string::npos;
  netnstest::PrivateNetwork net;
  std::string skip = net.ready() ? "" : "a private network needs iproute2";
  const int fd = socket(v6 ? AF_INET6 : AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_storage addr{};
  auto* a4 = reinterpret_cast<sockaddr_in*>(&addr);
  auto* a6 = reinterpret_cast<sockaddr_in6*>(&addr);
  a4->sin_family = v6 ? AF_INET6 : AF_INET;
  const bool parsed = v6 ? inet_pton(AF_INET6, server.c_str(), &a6->sin6_addr)
                         : inet_pton(AF_INET, server.c_str(), &a4->sin_addr);
  (v6 ? a6->sin6_port : a4->sin_port) = htons(53);
  const std::string add = "ip addr add " + server + (v6 ? "/128" : "/32") +
                          " dev lo >/dev/null 2>&1";
  if (skip.empty() && server.rfind("127.", 0) != 0 && server != "::1" &&
      std::system(add.c_str()) != 0) {
    skip = "cannot put " + server + " on loopback";
  }
  if (skip.empty() && (!parsed || fd < 0 ||
                       bind(fd, reinterpret_cast<sockaddr*>(&addr),
                            v6 ? sizeof *a6 : sizeof *a4) != 0)) {
    skip = "cannot hold " + server + " port 53";
  }
  if (skip.empty()) row();
  char buf[512];
  for (queries = 0; fd >= 0 && recv(fd, buf, sizeof buf, MSG_DONTWAIT) > 0;) {
    ++queries;
  }
  if (fd >= 0) close(fd);
  EXPECT_TRUE(net.leave()) << "still in the namespace";
  return skip;
}

// Both scrapes end by their deadlines (--deadline 2; the header's 1.5 s
// less the margin), killing the snapshot stuck in the lookup.
TEST(ExporterFaults, ANameLookupNeverAnsweredEndsWithTheDeadline) {
  int queries = 0;
  const std::string skip = withSilentNameserver(
      [] {
        Exporter e({"--deadline", "2"});
        ASSERT_GT(e.port(), 0) << e.log();
        Footprint footprint(e.pid());
        Scrape plain, prometheus;
        std::thread one([&] {
          plain = scrape(e.port(), "/probe?target=node.example.test", "");
        });
        prometheus =
            scrape(e.port(), "/probe?target=other.example.test", "1.5");
        one.join();
        for (const Scrape* s : {&plain, &prometheus}) {
          EXPECT_TRUE(has(s->body, "tov_up 0")) << s->body;
        }
        EXPECT_GE(plain.seconds, 2);
        EXPECT_LT(plain.seconds, 2.5);
        EXPECT_GE(prometheus.seconds, 1);
        EXPECT_LT(prometheus.seconds, 1.5);
        EXPECT_TRUE(has(scrape(e.port(), "/metrics", "").body,
                        "tov_scrape_errors_total{target=\"node.example."
                        "test:1195\",code=\"deadline\",name=\"deadline\"} 1"));
        std::printf(
            "[ figures  ] name_lookup_never_answered: %.2f s "
            "(deadline 2), %.2f s (header 1.5)\n",
            plain.seconds, prometheus.seconds);
        footprint.check("name_lookup_never_answered");
      },
      queries);
  if (!skip.empty()) GTEST_SKIP() << skip;
  EXPECT_GT(queries, 0) << "no lookup reached the nameserver";
  std::printf(
      "[ figures  ] name_lookup_never_answered: %d queries, none "
      "answered\n",
      queries);
}

}  // namespace
