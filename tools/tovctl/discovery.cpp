#include "discovery.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <iostream>
#include <mutex>
#include <thread>
#include <unordered_set>

#include "codes.h"
#include "common/text.h"
#include "report.h"
#include "tovapi/libtovapi.h"

namespace tovctl {

namespace {

using Clock = std::chrono::steady_clock;

// The daemons listen for the probe on this port, whatever their TCP port.
constexpr int kDiscoveryPort = 1195;
constexpr auto kListenFor = std::chrono::milliseconds(2500);
// Answers are kept up to this many bytes in all; a flood beyond it is
// counted, not stored.
constexpr std::size_t kAnswerBytes = 16 * 1024 * 1024;

const std::string kMajor(54, '=');
const std::string kMinor = " " + std::string(52, '-') + " ";

// Dots on standard error while discovery listens for its 2.5 seconds. They
// never touch standard output, and stop before the report is printed.
class Progress {
 public:
  Progress(bool active, bool endLine) : endLine_(endLine) {
    if (active) thread_ = std::thread([this] { run(); });
  }
  ~Progress() {
    if (!thread_.joinable()) return;
    {
      std::lock_guard<std::mutex> lock(mu_);
      stop_ = true;
    }
    cv_.notify_all();
    thread_.join();
    if (wrote_ && endLine_) put("\n");
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

 private:
  static void put(const char* s) {
    // Raw writes: std::cerr may be captured while the library runs.
    if (::write(STDERR_FILENO, s, std::char_traits<char>::length(s)) < 0) {
      return;
    }
  }
  void run() {
    const auto start = Clock::now();
    const auto step = std::chrono::milliseconds(250);
    const auto last = std::chrono::milliseconds(2250);
    std::unique_lock<std::mutex> lock(mu_);
    for (int tick = 1; tick * step <= last; ++tick) {
      if (cv_.wait_until(lock, start + tick * step, [this] { return stop_; })) {
        return;
      }
      put(".");
      wrote_ = true;
    }
  }

  bool endLine_;
  bool stop_ = false;
  bool wrote_ = false;
  std::mutex mu_;
  std::condition_variable cv_;
  std::thread thread_;
};

const char* modeName(int mode) {
  switch (mode) {
    case tov1::tov_discover_bootstrap:
      return "bootstrap";
    case tov1::tov_discover_cluster:
      return "clusters";
    default:
      return "all";
  }
}

struct Socket {
  int fd = -1;
  ~Socket() {
    if (fd >= 0) close(fd);
  }
};

// Sends the 8-byte probe to port 1195 of `target` and keeps every answer
// that arrives before `until`. Returns 0 or the negated result code of the
// step that failed, with the same codes as the library's discovery.
int collectAnswers(const std::string& target, Clock::time_point until,
                   std::vector<Answer>& answers, std::size_t& dropped) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* resolved = nullptr;
  if (getaddrinfo(target.c_str(), nullptr, &hints, &resolved) != 0 ||
      resolved == nullptr) {
    return -static_cast<int>(tov1::TOV_SOCK_RESOLVE_HOST);
  }
  sockaddr_in dest{};
  std::memcpy(&dest, resolved->ai_addr, sizeof dest);
  freeaddrinfo(resolved);
  dest.sin_port = htons(kDiscoveryPort);

  Socket sock;
  sock.fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (sock.fd < 0) return -static_cast<int>(tov1::TOV_SOCK_CREATE);
  const int one = 1;
  if (setsockopt(sock.fd, SOL_SOCKET, SO_BROADCAST, &one, sizeof one) != 0) {
    return -static_cast<int>(tov1::TOV_SOCK_GETOPTS);
  }
  // Room for a burst of answers; less is granted without complaint.
  const int room = 4 * 1024 * 1024;
  setsockopt(sock.fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
  const unsigned char probe[8] = {0xCD, 0xCD, 0xCD, 0xCD,
                                  0xCD, 0xCD, 0xCD, 0xCD};
  if (sendto(sock.fd, probe, sizeof probe, 0,
             reinterpret_cast<const sockaddr*>(&dest), sizeof dest) < 0) {
    return -static_cast<int>(tov1::TOV_SOCK_SEND);
  }

  std::vector<char> buffer(65536);
  std::size_t kept = 0;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        until - Clock::now());
    if (left.count() <= 0) break;
    pollfd p{sock.fd, POLLIN, 0};
    const int ready = poll(&p, 1, static_cast<int>(left.count()) + 1);
    if (ready < 0 && errno == EINTR && !deadline().expired()) continue;
    if (ready <= 0) break;
    sockaddr_in from{};
    socklen_t fromLen = sizeof from;
    const ssize_t got =
        recvfrom(sock.fd, buffer.data(), buffer.size(), MSG_DONTWAIT,
                 reinterpret_cast<sockaddr*>(&from), &fromLen);
    if (got < 0) continue;
    const std::size_t length =
        strnlen(buffer.data(), static_cast<std::size_t>(got));
    if (kept + length > kAnswerBytes) {
      ++dropped;
      continue;
    }
    char sender[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &from.sin_addr, sender, sizeof sender);
    answers.push_back({sender, std::string(buffer.data(), length)});
    kept += length;
  }
  return 0;
}

std::vector<std::string> split(const std::string& text, const char* at) {
  std::vector<std::string> parts;
  tovUtils::tokenizer(text, parts, at);
  return parts;
}

// The records of one answer, or why the answer is unusable.
std::string recordsOf(const Answer& a, std::vector<FoundRecord>& records) {
  for (const std::string& line : split(a.text, "\n")) {
    if (line[0] == 'C') {
      records.push_back({a.sender, split(line, " "), {}});
      const std::size_t n = records.back().cluster.size();
      if (n != tov1::c_SIZE_OK) {
        return "cluster line with " + std::to_string(n) +
               " field(s) instead of 13";
      }
    } else if (line[0] == 'N') {
      if (records.empty()) return "node line before any cluster line";
      FoundRecord& r = records.back();
      r.nodes.push_back(split(line, " "));
      if (r.nodes.back().size() <= tov1::n_ip_address) {
        return "node line " + std::to_string(r.nodes.size()) + " of cluster " +
               r.cluster[tov1::c_cluster_name] + " has " +
               std::to_string(r.nodes.back().size()) +
               " field(s), at least 3 needed";
      }
    }
  }
  return records.empty() ? "no cluster line" : "";
}

std::string timeText(const std::string& field) {
  return tovUtils::getTimeStr(
      static_cast<time_t>(tovUtils::stringToInt(field)));
}

void printRecord(std::ostream& out, const FoundRecord& r, int mode) {
  using namespace tov1;
  const std::vector<std::string>& f = r.cluster;
  const auto number = [&f](unsigned i) {
    return std::to_string(tovUtils::stringToInt(f[i]));
  };
  out << '\n'
      << kMajor << "\n Cluster Name : " << shown(f[c_cluster_name]) << '\n'
      << kMinor << "\n Number of Nodes     : " << shown(f[c_node_count]);
  out << '\n';
  unsigned index = 1;
  for (const std::vector<std::string>& node : r.nodes) {
    out << "\n  [" << index++ << "] " << shown(node[n_machine_name]) << " ["
        << shown(node[n_ip_address]) << "]";
  }
  out << "\n\n" << kMinor << '\n';
  std::vector<std::pair<const char*, std::string>> rows{
      {" Number of Services  : ", shown(f[c_service_count])},
      {" Serial Number       : ",
       f[c_serial_number] == "-1" ? "<n/a>" : shown(f[c_serial_number])},
      {" Poll Time           : ", number(c_poll_time)},
      {" Start Time          : ", timeText(f[c_startup_time])},
      {" Bootstrap Mode      : ",
       tovUtils::stringToInt(f[c_machine_bootstrap]) != 0 ? "Enabled"
                                                          : "Disabled"}};
  if (mode != tov_discover_cluster) {
    rows.push_back({" Machine Identifier  : ", shown(f[c_machine_ident])});
    rows.push_back({" Machine Description : ", shown(f[c_machine_desc])});
  }
  for (const auto& row : rows) out << row.first << row.second << '\n';
  out << kMinor << "\n Config File Size    : " << number(c_config_file_size)
      << " byte(s)\n  CRC                  : " << shown(f[c_config_file_crc])
      << "\n  Last Modified        : " << timeText(f[c_config_file_mtime])
      << '\n';
}

}  // namespace

Selection selectAnswers(const std::vector<Answer>& answers, int mode) {
  Selection found;
  std::unordered_set<std::string> crcs;
  for (const Answer& a : answers) {
    std::vector<FoundRecord> records;
    const std::string why = recordsOf(a, records);
    if (!why.empty()) {
      found.skipped.push_back({a.sender, why});
      continue;
    }
    for (FoundRecord& r : records) {
      const int bootstrap =
          tovUtils::stringToInt(r.cluster[tov1::c_machine_bootstrap]);
      if (mode == tov1::tov_discover_bootstrap && bootstrap == 0) continue;
      if (mode == tov1::tov_discover_cluster && bootstrap != 0) continue;
      const std::string& crc = r.cluster[tov1::c_config_file_crc];
      if (bootstrap == 0 && crcs.count(crc) != 0) continue;
      crcs.insert(crc);
      found.records.push_back(std::move(r));
    }
  }
  return found;
}

void printReport(std::ostream& out, const Selection& found, int mode) {
  for (const FoundRecord& r : found.records) printRecord(out, r, mode);
  out << '\n' << kMinor << "\n Found " << found.records.size();
  if (mode == tov1::tov_discover_cluster) {
    out << " configured cluster(s)";
  } else if (mode == tov1::tov_discover_bootstrap) {
    out << " bootstrap node(s)";
  } else {
    out << " cluster(s)";
  }
  out << '\n' << kMinor << "\n\n";
  out.flush();
}

nlohmann::json selectionJson(const Selection& found, int mode) {
  nlohmann::json clusters = nlohmann::json::array();
  for (const FoundRecord& r : found.records) {
    nlohmann::json c = clusterJson(r.cluster);
    c["nodes"] = nlohmann::json::array();
    for (const auto& node : r.nodes) c["nodes"].push_back(nodeJson(node));
    c["sender"] = r.sender;
    clusters.push_back(c);
  }
  nlohmann::json skipped = nlohmann::json::array();
  for (const SkippedAnswer& s : found.skipped) {
    skipped.push_back({{"sender", s.sender}, {"reason", s.reason}});
  }
  return {{"mode", modeName(mode)},
          {"count", found.records.size()},
          {"clusters", clusters},
          {"skipped", skipped}};
}

int cmdDiscover(const Options& o, const std::string& host, int mode, bool raw) {
  const std::string what =
      "discovery " +
      (host.empty() ? std::string("on the local network") : "at " + host);
  const std::string target = host.empty() ? "255.255.255.255" : host;
  const std::string waiting =
      "awaiting answers to the discovery probe sent to " + target;
  setTarget(host, kDiscoveryPort);
  const bool dots = isatty(STDERR_FILENO) && o.debug == 0;

  if (raw && !o.json) {
    // The library's own report, byte for byte.
    int rc;
    {
      Progress progress(dots, false);
      rc = bounded(what, target, [&] {
        return tov1::tovNet.discoverClusters(host, mode, false);
      });
    }
    if (rc != 0) failWith(what, rc);
    if (deadline().expired()) {
      throw ExitNow{reportDeadline(what, deadline().seconds(), waiting)};
    }
    return kExitOk;
  }

  std::vector<Answer> answers;
  std::size_t dropped = 0;
  int rc;
  bool cutShort;
  if (!o.json) std::cout << "Searching for Clusters..." << std::flush;
  {
    Progress progress(dots, o.json || !stdoutIsTerminal());
    tovtools::Deadline::Guard guard(deadline());
    cutShort = deadline().remaining() < kListenFor;
    rc = collectAnswers(target,
                        Clock::now() + std::min<Clock::duration>(
                                           kListenFor, deadline().remaining()),
                        answers, dropped);
  }
  cutShort = cutShort || deadline().expired();
  if (rc != 0) {
    if (!o.json) std::cout << std::endl;
    if (deadline().expired()) {
      throw ExitNow{reportDeadline(what, deadline().seconds(), waiting)};
    }
    failWith(what, rc);
  }
  if (!o.json) std::cout << " Done" << std::endl;

  const Selection found = selectAnswers(answers, mode);
  for (const SkippedAnswer& s : found.skipped) {
    warn("skipped the answer from " + s.sender + ": " + s.reason);
  }
  if (dropped > 0) {
    warn(std::to_string(dropped) + " answer(s) dropped: more than " +
         std::to_string(kAnswerBytes / (1024 * 1024)) + " MiB of answers");
  }
  const nlohmann::json result = selectionJson(found, mode);
  if (!o.json) printReport(std::cout, found, mode);
  if (cutShort) {
    throw ExitNow{reportDeadline(what, deadline().seconds(), waiting,
                                 o.json ? result : nlohmann::json(nullptr))};
  }
  if (o.json) std::cout << tovtools::jsonText(result) << std::endl;
  return kExitOk;
}

}  // namespace tovctl
