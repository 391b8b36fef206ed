#include "discovery.h"

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "codes.h"
#include "common/text.h"
#include "report.h"
#include "tovapi/libtovapi.h"

namespace tovctl {

namespace {

using Clock = std::chrono::steady_clock;
using tovtools::DiscoveredRecord;
using tovtools::DiscoverySelection;

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

std::string timeText(const std::string& field) {
  return tovUtils::getTimeStr(
      static_cast<time_t>(tovUtils::stringToInt(field)));
}

void printRecord(std::ostream& out, const DiscoveredRecord& r, int mode) {
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

void printReport(std::ostream& out, const DiscoverySelection& found, int mode) {
  for (const DiscoveredRecord& r : found.records) printRecord(out, r, mode);
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

nlohmann::json selectionJson(const DiscoverySelection& found, int mode) {
  nlohmann::json clusters = nlohmann::json::array();
  for (const DiscoveredRecord& r : found.records) {
    nlohmann::json c = clusterJson(r.cluster);
    c["nodes"] = nlohmann::json::array();
    for (const auto& node : r.nodes) c["nodes"].push_back(nodeJson(node));
    c["sender"] = r.sender;
    clusters.push_back(std::move(c));
  }
  nlohmann::json skipped = nlohmann::json::array();
  for (const tovtools::SkippedAnswer& s : found.skipped) {
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
          {"limits",
           {{"records", tovtools::kDiscoveryMaxRecords},
            {"bytes", tovtools::kDiscoveryMaxBytes}}}};
}

namespace {

// One line for each malformed answer named, and one each for those left
// unnamed, those dropped at the caps and those the queue lost.
void warnAboutLosses(const DiscoverySelection& found) {
  for (const tovtools::SkippedAnswer& s : found.skipped) {
    warn("skipped the answer from " + s.sender + ": " + s.reason);
  }
  if (found.skippedCount > found.skipped.size()) {
    warn(std::to_string(found.skippedCount - found.skipped.size()) +
         " more malformed answer(s) skipped");
  }
  if (found.dropped > 0) {
    warn(std::to_string(found.dropped) + " answer(s) dropped (" +
         std::to_string(found.droppedBytes) + " bytes): at most " +
         std::to_string(tovtools::kDiscoveryMaxRecords) + " records and " +
         std::to_string(tovtools::kDiscoveryMaxBytes / 1024) +
         " KiB of answers are kept");
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
  setTarget(host, tovtools::kDiscoveryPort);
  setActivity(what);
  const bool dots = isatty(STDERR_FILENO) && o.debug == 0;
  if (raw && !o.json)
    return discoverRaw(host, mode, what, target, waiting, dots);

  tovtools::AnswerSelector selector(mode);
  tovtools::DiscoveryRun run;
  if (!o.json) std::cout << "Searching for Clusters..." << std::flush;
  {
    Progress progress(dots, o.json || !stdoutIsTerminal());
    run = tovtools::collectAnswers(target, deadline(), selector);
  }
  if (run.result != 0) {
    if (!o.json) std::cout << std::endl;
    if (deadline().expired()) {
      throw ExitNow{reportDeadline(what, deadline().seconds(), waiting)};
    }
    failWith(what, run.result);
  }
  if (!o.json) std::cout << " Done" << std::endl;

  const DiscoverySelection& found = selector.selection();
  warnAboutLosses(found);
  if (!o.json) printReport(std::cout, found, mode);
  if (run.cutShort) {
    throw ExitNow{reportDeadline(
        what, deadline().seconds(), waiting,
        o.json ? selectionJson(found, mode) : nlohmann::json(nullptr))};
  }
  if (o.json)
    std::cout << tovtools::jsonText(selectionJson(found, mode)) << std::endl;
  return kExitOk;
}

}  // namespace tovctl
