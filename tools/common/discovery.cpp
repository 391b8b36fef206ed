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
#include <cstdint>
#include <cstring>
#include <iterator>

#include "tovapi/libtovapi.h"

namespace tovtools {

namespace {

using Clock = std::chrono::steady_clock;

std::vector<std::string> split(const std::string& text, const char* at) {
  std::vector<std::string> parts;
  tovUtils::tokenizer(text, parts, at);
  return parts;
}

// The fields of a node line of the cluster `name`, which has `count` node
// lines before it, or why the line makes its answer malformed. Only the
// fields shown are kept.
std::string nodeFields(const std::string& line, const std::string& name,
                       std::size_t count, std::vector<std::string>& fields) {
  if (count == kDiscoveryMaxNodeLines) {
    return "cluster " + name + " has more than " +
           std::to_string(kDiscoveryMaxNodeLines) + " node lines";
  }
  fields = split(line, " ");
  if (fields.size() <= tov1::n_ip_address) {
    return "node line " + std::to_string(count + 1) + " of cluster " + name +
           " has " + std::to_string(fields.size()) +
           " field(s), at least 3 needed";
  }
  fields.resize(std::min<std::size_t>(fields.size(), tov1::n_SIZE_OK));
  return "";
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

int failed(tov1::tov_error_enum code) { return -static_cast<int>(code); }

// A socket that may broadcast, with the probe sent to `target`: its file
// descriptor in `sock`, and 0 or the negated code of the step that failed.
int sendProbe(const std::string& target, Socket& sock) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* resolved = nullptr;
  if (getaddrinfo(target.c_str(), nullptr, &hints, &resolved) != 0 ||
      resolved == nullptr) {
    return failed(tov1::TOV_SOCK_RESOLVE_HOST);
  }
  sockaddr_in dest{};
  std::memcpy(&dest, resolved->ai_addr, sizeof dest);
  freeaddrinfo(resolved);
  dest.sin_port = htons(kDiscoveryPort);

  sock.fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (sock.fd < 0) return failed(tov1::TOV_SOCK_CREATE);
  const int one = 1;
  if (setsockopt(sock.fd, SOL_SOCKET, SO_BROADCAST, &one, sizeof one) != 0) {
    return failed(tov1::TOV_SOCK_GETOPTS);
  }
  // Room for a burst of answers; less is granted without complaint.
  const int room = 4 * 1024 * 1024;
  setsockopt(sock.fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
  const unsigned char probe[8] = {0xCD, 0xCD, 0xCD, 0xCD,
                                  0xCD, 0xCD, 0xCD, 0xCD};
  if (sendto(sock.fd, probe, sizeof probe, 0,
             reinterpret_cast<const sockaddr*>(&dest), sizeof dest) < 0) {
    return failed(tov1::TOV_SOCK_SEND);
  }
  return 0;
}

// Hands every datagram that arrives before `until` to `selector`.
void listen(int fd, Clock::time_point until, const Deadline& deadline,
            AnswerSelector& selector) {
  std::vector<char> buffer(65536);
  // Checked before every datagram: a flood cannot hold the loop open.
  while (Clock::now() < until) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        until - Clock::now());
    pollfd p{fd, POLLIN, 0};
    const int ready = poll(&p, 1, static_cast<int>(left.count()) + 1);
    if (ready < 0 && errno == EINTR && !deadline.expired()) continue;
    if (ready <= 0) break;
    sockaddr_in from{};
    socklen_t fromLen = sizeof from;
    const ssize_t got = recvfrom(fd, buffer.data(), buffer.size(), MSG_DONTWAIT,
                                 reinterpret_cast<sockaddr*>(&from), &fromLen);
    if (got < 0) continue;
    char sender[INET_ADDRSTRLEN] = "?";
    inet_ntop(AF_INET, &from.sin_addr, sender, sizeof sender);
    const std::size_t length =
        strnlen(buffer.data(), static_cast<std::size_t>(got));
    selector.add({sender, std::string(buffer.data(), length)});
  }
}

}  // namespace

struct AnswerSelector::Parsed {
  // Node lines at the start that continue the open record.
  std::vector<std::vector<std::string>> continuing;
  std::vector<DiscoveredRecord> records;  // those the answer starts
  bool endsOpen = false;  // the last line is a cluster or node line
};

// The answer's lines as the library groups them, or why it is malformed.
std::string AnswerSelector::parse(const DiscoveryAnswer& a, Parsed& p) const {
  bool continuing = open_ != Open::None;  // node lines join the open record
  bool inRecord = false;  // node lines join the answer's last record
  bool sawOther = false;
  for (const std::string& line : split(a.text, "\n")) {
    if (line[0] == 'C') {
      p.records.push_back({a.sender, split(line, " "), {}});
      const std::size_t n = p.records.back().cluster.size();
      if (n != tov1::c_SIZE_OK) {
        return "cluster line with " + std::to_string(n) +
               " field(s) instead of 13";
      }
      continuing = false;
      inRecord = true;
    } else if (line[0] == 'N' && (continuing || inRecord)) {
      std::vector<std::string> fields;
      const std::string why =
          inRecord
              ? nodeFields(line, p.records.back().cluster[tov1::c_cluster_name],
                           p.records.back().nodes.size(), fields)
              : nodeFields(line, openName_, openNodes_ + p.continuing.size(),
                           fields);
      if (!why.empty()) return why;
      (inRecord ? p.records.back().nodes : p.continuing)
          .push_back(std::move(fields));
    } else if (line[0] == 'N') {
      return sawOther ? "node line after a line that is neither a cluster "
                        "nor a node line"
                      : "node line before any cluster line";
    } else {
      // The library makes an empty record of it, which ends the one before.
      continuing = inRecord = false;
      sawOther = true;
    }
    p.endsOpen = continuing || inRecord;
  }
  if (p.records.empty() && p.continuing.empty()) return "no cluster line";
  return "";
}

bool AnswerSelector::passes(const DiscoveredRecord& r,
                            const std::unordered_set<std::string>& crcs) const {
  const int bootstrap =
      tovUtils::stringToInt(r.cluster[tov1::c_machine_bootstrap]);
  if (mode_ == tov1::tov_discover_bootstrap && bootstrap == 0) return false;
  if (mode_ == tov1::tov_discover_cluster && bootstrap != 0) return false;
  const std::string& crc = r.cluster[tov1::c_config_file_crc];
  return bootstrap != 0 || (crcs_.count(crc) == 0 && crcs.count(crc) == 0);
}

void AnswerSelector::judge(const DiscoveryAnswer& a, Parsed& p) {
  Open next = p.endsOpen ? open_ : Open::None;
  if (p.endsOpen && !p.records.empty()) {
    openName_ = p.records.back().cluster[tov1::c_cluster_name];
    openNodes_ = p.records.back().nodes.size();
  } else {
    openNodes_ += p.continuing.size();
  }
  std::vector<DiscoveredRecord> kept;
  std::unordered_set<std::string> crcs;  // of this answer's kept records
  for (DiscoveredRecord& r : p.records) {
    const bool pass = passes(r, crcs);
    if (p.endsOpen) next = pass ? Open::Kept : Open::LeftOut;
    if (!pass) continue;
    crcs.insert(r.cluster[tov1::c_config_file_crc]);
    kept.push_back(std::move(r));
  }
  const bool continues = !p.continuing.empty() && open_ != Open::LeftOut;
  if (kept.empty() && !continues) {
    open_ = next;
    return;
  }
  // Whole answers are kept or dropped, so that none is shown in part.
  if ((continues && open_ == Open::Dropped) ||
      found_.records.size() + kept.size() > kDiscoveryMaxRecords ||
      keptBytes_ + a.text.size() > kDiscoveryMaxBytes) {
    ++found_.dropped;
    found_.droppedBytes += a.text.size();
    open_ = next == Open::Kept ? Open::Dropped : next;
    return;
  }
  keptBytes_ += a.text.size();
  if (continues) {
    auto& nodes = found_.records.back().nodes;
    nodes.insert(nodes.end(), std::make_move_iterator(p.continuing.begin()),
                 std::make_move_iterator(p.continuing.end()));
  }
  crcs_.insert(crcs.begin(), crcs.end());
  for (DiscoveredRecord& r : kept) found_.records.push_back(std::move(r));
  open_ = next;
}

void AnswerSelector::add(const DiscoveryAnswer& a) {
  Parsed p;
  const std::string why = parse(a, p);
  if (why.empty()) {
    judge(a, p);
  } else if (found_.skippedCount++ < kDiscoveryMaxListedSkips) {
    found_.skipped.push_back({a.sender, why});
  }
}

DiscoveryRun collectAnswers(const std::string& target, Deadline& deadline,
                            AnswerSelector& selector) {
  DiscoveryRun run;
  Deadline::Guard guard(deadline);
  const Clock::duration window =
      std::min<Clock::duration>(kDiscoveryWindow, deadline.remaining());
  run.cutShort = window < kDiscoveryWindow;
  const Clock::time_point until = Clock::now() + window;
  Socket sock;
  run.result = sendProbe(target, sock);
  if (run.result == 0) {
    listen(sock.fd, until, deadline, selector);
    selector.selection().lost = lostInQueue(sock.fd);
  }
  run.cutShort = run.cutShort || deadline.expired();
  return run;
}

}  // namespace tovtools
