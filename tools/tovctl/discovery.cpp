#include "discovery.h"

#include <arpa/inet.h>
#include <linux/sock_diag.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
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

// Datagrams the kernel dropped because the socket's queue was full.
std::size_t lostInQueue(int fd) {
  std::uint32_t info[SK_MEMINFO_VARS] = {};
  socklen_t size = sizeof info;
  if (getsockopt(fd, SOL_SOCKET, SO_MEMINFO, info, &size) != 0 ||
      size <= SK_MEMINFO_DROPS * sizeof info[0]) {
    return 0;
  }
  return info[SK_MEMINFO_DROPS];
}

// Sends the 8-byte probe to port 1195 of `target` and hands every answer
// that arrives before `until` to `selector`. Returns 0 or the negated
// result code of the step that failed, with the same codes as the
// library's discovery.
int collectAnswers(const std::string& target, Clock::time_point until,
                   AnswerSelector& selector) {
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
  // Checked before every datagram: a flood cannot hold the loop open.
  while (Clock::now() < until) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        until - Clock::now());
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
    char sender[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &from.sin_addr, sender, sizeof sender);
    selector.add({sender, std::string(buffer.data(),
                                      strnlen(buffer.data(),
                                              static_cast<std::size_t>(got)))});
  }
  selector.selection().lost = lostInQueue(sock.fd);
  return 0;
}

std::vector<std::string> split(const std::string& text, const char* at) {
  std::vector<std::string> parts;
  tovUtils::tokenizer(text, parts, at);
  return parts;
}

// The records of one answer, or why the answer is unusable. Of a node line
// only the fields shown are kept.
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
      if (r.nodes.size() == kMaxNodeLines) {
        return "cluster " + r.cluster[tov1::c_cluster_name] +
               " has more than " + std::to_string(kMaxNodeLines) +
               " node lines";
      }
      std::vector<std::string> fields = split(line, " ");
      if (fields.size() <= tov1::n_ip_address) {
        return "node line " + std::to_string(r.nodes.size() + 1) +
               " of cluster " + r.cluster[tov1::c_cluster_name] + " has " +
               std::to_string(fields.size()) + " field(s), at least 3 needed";
      }
      fields.resize(std::min<std::size_t>(fields.size(), tov1::n_SIZE_OK));
      r.nodes.push_back(std::move(fields));
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

void AnswerSelector::add(const Answer& a) {
  std::vector<FoundRecord> records;
  const std::string why = recordsOf(a, records);
  if (!why.empty()) {
    if (found_.skippedCount++ < kMaxListedSkips) {
      found_.skipped.push_back({a.sender, why});
    }
    return;
  }
  std::vector<FoundRecord> kept;
  std::unordered_set<std::string> crcs;  // of this answer's kept records
  for (FoundRecord& r : records) {
    const int bootstrap =
        tovUtils::stringToInt(r.cluster[tov1::c_machine_bootstrap]);
    if (mode_ == tov1::tov_discover_bootstrap && bootstrap == 0) continue;
    if (mode_ == tov1::tov_discover_cluster && bootstrap != 0) continue;
    const std::string& crc = r.cluster[tov1::c_config_file_crc];
    if (bootstrap == 0 && (crcs_.count(crc) != 0 || crcs.count(crc) != 0)) {
      continue;
    }
    crcs.insert(crc);
    kept.push_back(std::move(r));
  }
  if (kept.empty()) return;
  // Whole answers are kept or dropped, so that none is shown in part.
  if (found_.records.size() + kept.size() > kMaxRecords ||
      keptBytes_ + a.text.size() > kMaxKeptBytes) {
    ++found_.dropped;
    found_.droppedBytes += a.text.size();
    return;
  }
  keptBytes_ += a.text.size();
  crcs_.insert(crcs.begin(), crcs.end());
  for (FoundRecord& r : kept) found_.records.push_back(std::move(r));
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
    clusters.push_back(std::move(c));
  }
  nlohmann::json skipped = nlohmann::json::array();
  for (const SkippedAnswer& s : found.skipped) {
    skipped.push_back({{"sender", s.sender}, {"reason", s.reason}});
  }
  return {{"mode", modeName(mode)},
          {"count", found.records.size()},
          {"clusters", std::move(clusters)},
          {"skipped", std::move(skipped)},
          {"skipped_count", found.skippedCount},
          {"dropped", found.dropped},
          {"dropped_bytes", found.droppedBytes},
          {"lost", found.lost},
          {"limits", {{"records", kMaxRecords}, {"bytes", kMaxKeptBytes}}}};
}

namespace {

// One line for each malformed answer named, and one each for those left
// unnamed, those dropped at the caps and those the queue lost.
void warnAboutLosses(const Selection& found) {
  for (const SkippedAnswer& s : found.skipped) {
    warn("skipped the answer from " + s.sender + ": " + s.reason);
  }
  if (found.skippedCount > found.skipped.size()) {
    warn(std::to_string(found.skippedCount - found.skipped.size()) +
         " more malformed answer(s) skipped");
  }
  if (found.dropped > 0) {
    warn(std::to_string(found.dropped) + " answer(s) dropped (" +
         std::to_string(found.droppedBytes) + " bytes): at most " +
         std::to_string(kMaxRecords) + " records and " +
         std::to_string(kMaxKeptBytes / 1024) + " KiB of answers are kept");
  }
  if (found.lost > 0) {
    warn(std::to_string(found.lost) +
         " answer(s) lost: they came faster than they could be read");
  }
}

// The library's own report, byte for byte.
int discoverRaw(const std::string& host, int mode, const std::string& what,
                const std::string& target, const std::string& waiting,
                bool dots) {
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

}  // namespace

int cmdDiscover(const Options& o, const std::string& host, int mode, bool raw) {
  const std::string what =
      "discovery " +
      (host.empty() ? std::string("on the local network") : "at " + host);
  const std::string target = host.empty() ? "255.255.255.255" : host;
  const std::string waiting =
      "awaiting answers to the discovery probe sent to " + target;
  setTarget(host, kDiscoveryPort);
  setActivity(what);
  const bool dots = isatty(STDERR_FILENO) && o.debug == 0;
  if (raw && !o.json)
    return discoverRaw(host, mode, what, target, waiting, dots);

  AnswerSelector selector(mode);
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
                        selector);
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

  const Selection& found = selector.selection();
  warnAboutLosses(found);
  if (!o.json) printReport(std::cout, found, mode);
  if (cutShort) {
    throw ExitNow{reportDeadline(
        what, deadline().seconds(), waiting,
        o.json ? selectionJson(found, mode) : nlohmann::json(nullptr))};
  }
  if (o.json)
    std::cout << tovtools::jsonText(selectionJson(found, mode)) << std::endl;
  return kExitOk;
}

}  // namespace tovctl
