#include "metrics.h"

#include <cmath>
#include <cstdio>
#include <iostream>
#include <sstream>

#include "common/codenames.h"
#include "common/text.h"
#include "tovapi/libtovapi.h"

namespace tovexporter {

namespace {

using Clock = std::chrono::steady_clock;
using Labels = std::vector<std::pair<std::string, std::string>>;

const char* const kStates[] = {"running", "stopped", "starting", "stopping",
                               "broken"};

std::string number(double v) {
  if (std::isnan(v)) return "NaN";
  char buf[40];
  // Counts and times of day exactly; durations to a nanosecond or so.
  if (v == std::floor(v) && std::fabs(v) < 1e15) {
    std::snprintf(buf, sizeof buf, "%.0f", v);
  } else {
    std::snprintf(buf, sizeof buf, "%.9g", v);
  }
  return buf;
}

// Writes one metric family: HELP, TYPE, then its samples.
class Family {
 public:
  Family(std::ostringstream& out, const std::string& name, const char* type,
         const char* help)
      : out_(out), name_(name) {
    out_ << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' '
         << type << '\n';
  }
  void sample(const Labels& labels, double value) {
    out_ << name_;
    if (!labels.empty()) {
      out_ << '{';
      for (std::size_t i = 0; i < labels.size(); ++i) {
        out_ << (i ? "," : "") << labels[i].first << "=\""
             << labelValue(labels[i].second) << '"';
      }
      out_ << '}';
    }
    out_ << ' ' << number(value) << '\n';
  }
  void sample(double value) { sample({}, value); }

 private:
  std::ostringstream& out_;
  std::string name_;
};

void clusterSeries(std::ostringstream& out, const tovtools::Snapshot& s) {
  const tovtools::ClusterRecord& c = s.cluster;
  Family(out, "tov_cluster_info", "gauge",
         "The cluster read, by name, serial number and configuration CRC, "
         "and the node that gave the information.")
      .sample({{"cluster", c.name},
               {"serial", c.serial},
               {"crc", c.crc},
               {"host", s.host}},
              1);
  Family(out, "tov_cluster_poll_interval_seconds", "gauge",
         "How often the daemons poll each other.")
      .sample(static_cast<double>(c.pollTime));
  Family(out, "tov_cluster_config_size_bytes", "gauge",
         "Size of the cluster configuration.")
      .sample(static_cast<double>(c.configSize));
  Family(out, "tov_cluster_start_time_seconds", "gauge",
         "Start time of the daemon asked, in seconds since the epoch.")
      .sample(static_cast<double>(c.startTime));
  Family(out, "tov_cluster_config_modified_time_seconds", "gauge",
         "Last change of the cluster configuration, in seconds since the "
         "epoch.")
      .sample(static_cast<double>(c.lastModified));

  Family up(out, "tov_node_up", "gauge",
            "Whether the daemon of the node answers the probe (1) or not (0).");
  for (const tovtools::NodeStatus& n : s.nodes) {
    up.sample({{"node", n.name}, {"address", n.address}}, n.answers ? 1 : 0);
  }
  Family took(out, "tov_node_probe_duration_seconds", "gauge",
              "How long the probe of the node took.");
  for (const tovtools::NodeStatus& n : s.nodes) {
    took.sample({{"node", n.name}, {"address", n.address}}, n.seconds);
  }

  Family state(out, "tov_service_state", "gauge",
               "The state of the service: 1 for its current state, 0 for the "
               "others.");
  for (const tovtools::ServiceStatus& v : s.services) {
    const std::string index = std::to_string(v.index);
    bool known = false;
    for (const char* st : kStates) {
      known = known || v.state == st;
      state.sample({{"service", v.name}, {"index", index}, {"state", st}},
                   v.state == st ? 1 : 0);
    }
    if (!known) {
      state.sample({{"service", v.name}, {"index", index}, {"state", v.state}},
                   1);
    }
  }
  Family blocked(out, "tov_service_blocked", "gauge",
                 "Whether the service is blocked from starting.");
  for (const tovtools::ServiceStatus& v : s.services) {
    blocked.sample({{"service", v.name}, {"index", std::to_string(v.index)}},
                   v.blocked ? 1 : 0);
  }
  Family where(out, "tov_service_node_info", "gauge",
               "The node a service runs on.");
  for (const tovtools::ServiceStatus& v : s.services) {
    if (v.node.empty() || v.node == "-") continue;
    where.sample({{"service", v.name},
                  {"index", std::to_string(v.index)},
                  {"node", v.node}},
                 1);
  }
}

}  // namespace

std::string labelValue(const std::string& raw) {
  const std::string text = tovtools::validUtf8(raw);
  std::string out;
  out.reserve(text.size());
  for (char ch : text) {
    if (ch == '\\') {
      out += "\\\\";
    } else if (ch == '"') {
      out += "\\\"";
    } else if (ch == '\n') {
      out += "\\n";
    } else {
      out += ch;
    }
  }
  return out;
}

std::string exposition(const tovtools::Snapshot* snapshot, double seconds,
                       const Totals& totals) {
  std::ostringstream out;
  Family(out, "tov_up", "gauge",
         "Whether this scrape read the cluster information through one of "
         "the nodes given.")
      .sample(snapshot != nullptr ? 1 : 0);
  if (snapshot != nullptr) clusterSeries(out, *snapshot);
  Family(out, "tov_scrape_duration_seconds", "gauge",
         "How long this scrape took to take its snapshot of the cluster.")
      .sample(seconds);
  Family(out, "tov_scrapes_total", "counter",
         "Snapshots of the cluster taken for scrapes.")
      .sample(static_cast<double>(totals.scrapes));
  Family(out, "tov_exchanges_total", "counter",
         "Information requests and node probes sent to daemons.")
      .sample(static_cast<double>(totals.exchanges));
  Family errors(out, "tov_scrape_errors_total", "counter",
                "Attempts to read the cluster information that failed, by "
                "result code.");
  for (const auto& e : totals.errors) {
    errors.sample({{"code", e.first.first}, {"name", e.first.second}},
                  static_cast<double>(e.second));
  }
  return out.str();
}

std::string Scraper::scrape(double deadline) {
  std::unique_lock<std::mutex> lock(mu_);
  if (busy_) {
    // Serve the snapshot being taken, if it ends in time.
    const std::uint64_t seen = generation_;
    const auto until =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(deadline));
    if (done_.wait_until(lock, until, [&] { return generation_ != seen; })) {
      return last_;
    }
    ++totals_.errors[{"deadline", "deadline"}];
    return exposition(nullptr, deadline, totals_);
  }
  busy_ = true;
  lock.unlock();
  std::string text;
  try {
    text = take(deadline);
  } catch (...) {
    lock.lock();
    busy_ = false;
    done_.notify_all();
    throw;
  }
  lock.lock();
  last_ = text;
  ++generation_;
  busy_ = false;
  done_.notify_all();
  return text;
}

// Runs with `busy_` set: the only thread in the library.
std::string Scraper::take(double deadlineSeconds) {
  const auto begun = Clock::now();
  tovtools::Deadline deadline(deadlineSeconds);
  tovtools::Snapshot snap;
  bool up = false;
  Totals counted;
  {
    // The library's diagnostics are not the exporter's output: below level
    // 1 they are withheld.
    std::ostringstream quiet;
    std::streambuf* const saved = tov1::tovDebug.getDebugLevel() > 0
                                      ? nullptr
                                      : std::cerr.rdbuf(quiet.rdbuf());
    tovtools::SnapshotOptions so;
    for (const Target& t : targets_) so.entries.push_back({t.host, t.port});
    snap = tovtools::takeSnapshot(so, deadline);
    counted.exchanges += snap.exchanges;
    up = snap.ok();
    for (const tovtools::EntryAttempt& a : snap.entries) {
      if (a.answered()) continue;
      if (a.expired) {
        ++counted.errors[{"deadline", "deadline"}];
      } else {
        ++counted.errors[{std::to_string(a.code), tovtools::codeName(a.code)}];
      }
    }
    if (snap.entries.empty() && snap.expired) {
      ++counted.errors[{"deadline", "deadline"}];
    }
    if (saved != nullptr) std::cerr.rdbuf(saved);
  }
  const double seconds =
      std::chrono::duration<double>(Clock::now() - begun).count();
  std::lock_guard<std::mutex> lock(mu_);
  ++totals_.scrapes;
  totals_.exchanges += counted.exchanges;
  for (const auto& e : counted.errors) totals_.errors[e.first] += e.second;
  return exposition(up ? &snap : nullptr, seconds, totals_);
}

}  // namespace tovexporter
