#include "report.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "tovapi/libtovapi.h"

namespace tovctl {

namespace {

std::string at(const std::vector<std::string>& rec, std::size_t i) {
  return i < rec.size() ? rec[i] : std::string();
}

std::string timeText(const std::string& field) {
  return tovUtils::getTimeStr(
      static_cast<time_t>(tovUtils::stringToInt(field)));
}

bool isInteger(const std::string& s) {
  std::size_t i = (!s.empty() && s[0] == '-') ? 1 : 0;
  if (i == s.size()) return false;
  for (; i < s.size(); ++i) {
    if (s[i] < '0' || s[i] > '9') return false;
  }
  return true;
}

}  // namespace

std::vector<std::string> tableLines(const std::vector<Row>& given) {
  // Cells hold daemon text: escaped first, so the columns still line up.
  std::vector<Row> rows = given;
  for (Row& r : rows) {
    for (std::string& cell : r) cell = shown(cell);
  }
  std::vector<std::size_t> width;
  for (const Row& r : rows) {
    if (width.size() < r.size()) width.resize(r.size(), 0);
    for (std::size_t c = 0; c < r.size(); ++c) {
      width[c] = std::max(width[c], r[c].size());
    }
  }
  std::vector<std::string> lines;
  for (const Row& r : rows) {
    std::string line;
    for (std::size_t c = 0; c < r.size(); ++c) {
      line += r[c];
      if (c + 1 < r.size()) line.append(width[c] - r[c].size() + 2, ' ');
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

void printTable(std::ostream& out, const std::vector<Row>& rows) {
  for (const std::string& line : tableLines(rows)) out << line << '\n';
}

nlohmann::json numberOrText(const std::string& field) {
  if (isInteger(field)) {
    errno = 0;
    char* end = nullptr;
    const long long v = std::strtoll(field.c_str(), &end, 10);
    if (errno == 0 && end != nullptr && *end == '\0') return v;
  }
  return field;
}

nlohmann::json serviceJson(const ServiceRecord& s) {
  return nlohmann::json{
      {"index", s.index},
      {"name", s.name},
      {"state", s.state},
      {"mode", s.mode},
      {"blocked", s.blocked},
      {"node", s.node == "-" || s.node.empty() ? nlohmann::json(nullptr)
                                               : nlohmann::json(s.node)}};
}

void printServices(std::ostream& out, const std::vector<ServiceRecord>& list) {
  std::vector<Row> rows{{"INDEX", "NAME", "STATE", "MODE", "BLOCKED", "NODE"}};
  for (const ServiceRecord& s : list) {
    rows.push_back({std::to_string(s.index), s.name, s.state, s.mode,
                    s.blocked ? "yes" : "no", s.node.empty() ? "-" : s.node});
  }
  printTable(out, rows);
}

nlohmann::json clusterJson(const std::vector<std::string>& rec) {
  using namespace tov1;
  const std::string serial = at(rec, c_serial_number);
  return nlohmann::json{
      {"name", at(rec, c_cluster_name)},
      {"node_count", numberOrText(at(rec, c_node_count))},
      {"service_count", numberOrText(at(rec, c_service_count))},
      {"config_crc", at(rec, c_config_file_crc)},
      {"serial",
       serial == "-1" ? nlohmann::json(nullptr) : nlohmann::json(serial)},
      {"config_mtime", numberOrText(at(rec, c_config_file_mtime))},
      {"config_size", numberOrText(at(rec, c_config_file_size))},
      {"poll_time", numberOrText(at(rec, c_poll_time))},
      {"startup_time", numberOrText(at(rec, c_startup_time))},
      {"bootstrap", tovUtils::stringToInt(at(rec, c_machine_bootstrap)) != 0},
      {"machine_ident", at(rec, c_machine_ident)},
      {"machine_desc", at(rec, c_machine_desc)}};
}

std::vector<Row> clusterRows(const std::vector<std::string>& rec) {
  using namespace tov1;
  const std::string serial = at(rec, c_serial_number);
  return {
      {"Cluster", at(rec, c_cluster_name)},
      {"Nodes", at(rec, c_node_count)},
      {"Services", at(rec, c_service_count)},
      {"Configuration CRC", at(rec, c_config_file_crc)},
      {"Serial number", serial == "-1" ? "<n/a>" : serial},
      {"Configuration modified", timeText(at(rec, c_config_file_mtime))},
      {"Configuration size", at(rec, c_config_file_size) + " byte(s)"},
      {"Poll time", at(rec, c_poll_time) + " s"},
      {"Daemon started", timeText(at(rec, c_startup_time))},
      {"Bootstrap mode",
       tovUtils::stringToInt(at(rec, c_machine_bootstrap)) != 0 ? "enabled"
                                                                : "disabled"},
      {"Machine identifier", at(rec, c_machine_ident)},
      {"Machine description", at(rec, c_machine_desc)}};
}

nlohmann::json nodeJson(const std::vector<std::string>& rec) {
  using namespace tov1;
  return nlohmann::json{{"name", at(rec, n_machine_name)},
                        {"address", at(rec, n_ip_address)},
                        {"family", numberOrText(at(rec, n_inet_family))}};
}

std::vector<std::string> splitRecord(const std::string& line) {
  std::vector<std::string> out;
  tovUtils::tokenizer(line, out, " \t\r");
  return out;
}

}  // namespace tovctl
