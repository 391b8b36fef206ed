// Readable tables and JSON forms of the daemon's records.
#ifndef TOOLS_TOVCTL_REPORT_H
#define TOOLS_TOVCTL_REPORT_H

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "session.h"

namespace tovctl {

using Row = std::vector<std::string>;

// Left-aligned columns, two blanks apart, no trailing blanks; cells are shown
// escaped on a terminal.
void printTable(std::ostream& out, const std::vector<Row>& rows);
std::vector<std::string> tableLines(const std::vector<Row>& rows);

// A record field as a JSON number when it is a decimal integer, else as text.
nlohmann::json numberOrText(const std::string& field);

nlohmann::json serviceJson(const ServiceRecord& s);
void printServices(std::ostream& out, const std::vector<ServiceRecord>& list);

// A cluster record (letter at position 0, 13 fields).
nlohmann::json clusterJson(const std::vector<std::string>& rec);
std::vector<Row> clusterRows(const std::vector<std::string>& rec);

// A node record: letter, name, address, family.
nlohmann::json nodeJson(const std::vector<std::string>& rec);

// Splits a record line at blanks.
std::vector<std::string> splitRecord(const std::string& line);

}  // namespace tovctl

#endif  // TOOLS_TOVCTL_REPORT_H
