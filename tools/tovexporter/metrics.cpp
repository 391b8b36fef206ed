#include "metrics.h"

#include <cmath>
#include <cstdio>
#include <set>
#include <sstream>
#include <vector>

#include "common/text.h"

namespace tovexporter {

namespace {

using Labels = std::vector<std::pair<std::string, std::string>>;

const char* const kStates[] = {"running", "stopped", "starting", "stopping",
                               "broken"};
const char* const kModes[] = {"auto", "manual"};

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

// Writes one metric family: HELP, TYPE, then its samples, each label set
// once: a daemon may send what makes two of them alike (a record repeated,
// names that differ only in bytes that are not UTF-8), and a repeated series
// makes Prometheus refuse the whole scrape.
class Family {
 public:
  Family(std::ostringstream& out, const std::string& name, const char* type,
         const char* help)
      : out_(out), name_(name) {
    out_ << "# HELP " << name << ' ' << help << "\n# TYPE " << name << ' '
         << type << '\n';
  }
  void sample(const Labels& labels, double value) {
    std::string series = name_;
    if (!labels.empty()) {
      series += '{';
      for (std::size_t i = 0; i < labels.size(); ++i) {
        series += (i ? "," : "") + labels[i].first + "=\"" +
                  labelValue(labels[i].second) + '"';
      }
      series += '}';
    }
    if (!seen_.insert(series).second) return;  // the first one wins
    out_ << series << ' ' << number(value) << '\n';
  }
  void sample(double value) { sample({}, value); }

 private:
  std::ostringstream& out_;
  std::string name_;
  std::set<std::string> seen_;
};

// One series for each of the `known` values of `key`, 1 for the current one,
// and one more for a current value that is none of them.
template <std::size_t N>
void oneHot(Family& family, const Labels& labels, const char* key,
            const char* const (&known)[N], const std::string& current) {
  Labels with = labels;
  with.emplace_back(key, "");
  bool isKnown = false;
  for (const char* k : known) {
    isKnown = isKnown || current == k;
    with.back().second = k;
    family.sample(with, current == k ? 1 : 0);
  }
  if (!isKnown) {
    with.back().second = current;
    family.sample(with, 1);
  }
}

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
  Family(out, "tov_duplicate_records", "gauge",
         "Node and service records the daemon repeated, left out of this "
         "scrape.")
      .sample(static_cast<double>(s.duplicates));
}

void nodeSeries(std::ostringstream& out, const tovtools::Snapshot& s) {
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
}

void serviceSeries(std::ostringstream& out, const tovtools::Snapshot& s) {
  const auto labels = [](const tovtools::ServiceStatus& v) {
    return Labels{{"service", v.name}, {"index", std::to_string(v.index)}};
  };
  Family state(out, "tov_service_state", "gauge",
               "The state of the service: 1 for its current state, 0 for the "
               "others.");
  for (const tovtools::ServiceStatus& v : s.services) {
    oneHot(state, labels(v), "state", kStates, v.state);
  }
  Family mode(out, "tov_service_mode", "gauge",
              "The mode of the service: 1 for its current mode, 0 for the "
              "other.");
  for (const tovtools::ServiceStatus& v : s.services) {
    oneHot(mode, labels(v), "mode", kModes, v.mode);
  }
  Family blocked(out, "tov_service_blocked", "gauge",
                 "Whether the service is blocked from starting.");
  for (const tovtools::ServiceStatus& v : s.services) {
    blocked.sample(labels(v), v.blocked ? 1 : 0);
  }
  Family where(out, "tov_service_node_info", "gauge",
               "The node a service runs on.");
  for (const tovtools::ServiceStatus& v : s.services) {
    if (v.node.empty() || v.node == "-") continue;
    Labels on = labels(v);
    on.emplace_back("node", v.node);
    where.sample(on, 1);
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

std::string clusterExposition(const tovtools::Snapshot* snapshot,
                              double seconds) {
  std::ostringstream out;
  Family(out, "tov_up", "gauge",
         "Whether this scrape read the cluster information through one of "
         "the entry nodes given.")
      .sample(snapshot != nullptr ? 1 : 0);
  if (snapshot != nullptr) {
    clusterSeries(out, *snapshot);
    nodeSeries(out, *snapshot);
    serviceSeries(out, *snapshot);
  }
  Family(out, "tov_scrape_duration_seconds", "gauge",
         "How long this scrape took, its wait for a snapshot included.")
      .sample(seconds);
  return out.str();
}

std::string ownExposition(const BuildInfo& build,
                          const std::map<std::string, Totals>& totals) {
  std::ostringstream out;
  Family(out, "tov_exporter_build_info", "gauge",
         "The version of the exporter and the commit it was built from.")
      .sample({{"version", build.version}, {"revision", build.revision}}, 1);
  Family scrapes(out, "tov_scrapes_total", "counter",
                 "Snapshots of the target's cluster taken for scrapes.");
  for (const auto& t : totals) {
    scrapes.sample({{"target", t.first}},
                   static_cast<double>(t.second.scrapes));
  }
  Family exchanges(out, "tov_exchanges_total", "counter",
                   "Information requests and node probes sent to the "
                   "target's daemons.");
  for (const auto& t : totals) {
    exchanges.sample({{"target", t.first}},
                     static_cast<double>(t.second.exchanges));
  }
  Family errors(out, "tov_scrape_errors_total", "counter",
                "Attempts to read the target's cluster information that "
                "failed, by result code.");
  for (const auto& t : totals) {
    for (const auto& e : t.second.errors) {
      errors.sample({{"target", t.first},
                     {"code", e.first.first},
                     {"name", e.first.second}},
                    static_cast<double>(e.second));
    }
  }
  return out.str();
}

}  // namespace tovexporter
