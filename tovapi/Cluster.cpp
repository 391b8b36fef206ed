// Cluster-wide queries, answered from the cluster record that the cache holds
// for a host. A host the cache does not know yet is fetched first.
#include <sstream>
#include <string>
#include <vector>

#include "internal_cache.h"
#include "libtovapi.h"

namespace tov1 {

Cluster tovCluster;

namespace {

// The cluster record of a host, fetched (not forced) when the cache has none.
std::vector<std::string> clusterRecord(std::string address) {
  address = tovCache.addrHandler(address);
  if (tovCache.getNumberOfLetterEntries(address, tovInfo_C) < 0) {
    tovCache.refreshCache(
        address, cacheinternal::rememberedPort(tovCache, address), false);
  }
  return tovCache.tovInfoGetValueVector(address, tovInfo_C, 0);
}

std::string clusterText(const std::string& address, tovInfo_C_values field) {
  std::vector<std::string> record = clusterRecord(address);
  return field < record.size() ? record[field] : std::string();
}

// -1 when the host is unknown or the field holds no number.
int clusterInt(const std::string& address, tovInfo_C_values field) {
  int value = 0;
  if (!cacheinternal::fieldToInt(clusterText(address, field), value)) return -1;
  return value;
}

std::string asTime(const std::string& field) {
  int seconds = 0;
  if (!cacheinternal::fieldToInt(field, seconds)) return field;
  return tovUtils::getTimeStr(static_cast<time_t>(seconds));
}

std::string asYesNo(const std::string& field) {
  if (field == "0") return "no";
  if (field == "1") return "yes";
  return field;
}

}  // namespace

Cluster::Cluster() { tovUtils::printClassMsg("Cluster", false); }

Cluster::~Cluster() { tovUtils::printClassMsg("Cluster", true); }

int Cluster::getServiceCount(std::string address) {
  return clusterInt(address, c_service_count);
}

std::string Cluster::getClusterName(std::string address) {
  return clusterText(address, c_cluster_name);
}

int Cluster::getNodeCount(std::string address) {
  return clusterInt(address, c_node_count);
}

std::string Cluster::getConfigCRC(std::string address) {
  return clusterText(address, c_config_file_crc);
}

std::string Cluster::getSerialNumber(std::string address) {
  return clusterText(address, c_serial_number);
}

int Cluster::getConfigMakeTime(std::string address) {
  return clusterInt(address, c_config_file_mtime);
}

int Cluster::getConfigSize(std::string address) {
  return clusterInt(address, c_config_file_size);
}

int Cluster::getPollTime(std::string address) {
  return clusterInt(address, c_poll_time);
}

int Cluster::getStartupTime(std::string address) {
  return clusterInt(address, c_startup_time);
}

int Cluster::getMachineBootstrap(std::string address) {
  return clusterInt(address, c_machine_bootstrap);
}

std::string Cluster::getClusterID(std::string address) {
  std::vector<std::string> record = clusterRecord(address);
  if (record.size() != c_SIZE_OK) return "";
  return record[c_cluster_name] + ":" + record[c_config_file_crc];
}

std::string Cluster::getAllClusterInfo(std::string address, bool pretty) {
  std::vector<std::string> record = clusterRecord(address);
  if (record.size() != c_SIZE_OK) return "";
  std::stringstream ss;
  if (!pretty) {
    for (std::size_t i = 0; i < record.size(); ++i) {
      if (i > 0) ss << ' ';
      ss << record[i];
    }
    return ss.str();
  }
  ss << "Cluster name       : " << record[c_cluster_name] << '\n'
     << "Nodes              : " << record[c_node_count] << '\n'
     << "Services           : " << record[c_service_count] << '\n'
     << "Configuration CRC  : " << record[c_config_file_crc] << '\n'
     << "Serial number      : " << record[c_serial_number] << '\n'
     << "Configuration time : " << asTime(record[c_config_file_mtime]) << '\n'
     << "Configuration size : " << record[c_config_file_size] << " bytes\n"
     << "Poll time          : " << record[c_poll_time] << " second(s)\n"
     << "Started            : " << asTime(record[c_startup_time]) << '\n'
     << "Bootstrap mode     : " << asYesNo(record[c_machine_bootstrap]) << '\n'
     << "Machine            : " << record[c_machine_ident] << '\n'
     << "Description        : " << record[c_machine_desc] << '\n';
  return ss.str();
}

}  // namespace tov1
