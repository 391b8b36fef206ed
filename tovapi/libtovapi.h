// Public interface of the tovapi client library: result codes, record and
// discovery identifiers, the library objects and their global instances, and
// the string utilities. A program includes this header and links tovapi.
#ifndef TOVAPI_LIBTOVAPI_H
#define TOVAPI_LIBTOVAPI_H

#include <netdb.h>
#include <sys/socket.h>

#include <cstdint>
#include <ctime>
#include <exception>
#include <fstream>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "../tovlib/tovcon.h"

namespace tov1 {

// Result codes shared by the whole library. The values cross the library's
// interface and must never change; 56 is reserved and has no name.
enum tov_error_enum : std::uint32_t {
  TOV_OK = 0,
  TOV_AUTH_DIGEST = 1,
  TOV_AUTH_GENDIGEST = 2,
  TOV_AUTH_INVALID = 3,
  TOV_CLI_DBGLVL = 4,
  TOV_CLI_INVALID_AF = 5,
  TOV_CLI_INVALID_ARG = 6,
  TOV_CLI_KILL_FAILED = 7,
  TOV_CLI_LOCALONLY = 8,
  TOV_CLI_QUIT = 9,
  TOV_CLI_NO_ARG = 10,
  TOV_CLI_PARSE_TOUT = 11,
  TOV_CLI_PIDERROR = 12,
  TOV_CLI_TOO_FEW_ARGS = 13,
  TOV_CLI_TOO_MANY_ARGS = 14,
  TOV_CLI_UNKNOWN_CMD = 15,
  TOV_CLI_UNKNOWN_FLAG = 16,
  TOV_CLI_VERSINFO = 17,
  TOV_COMMS_NORESPONSE = 18,
  TOV_COMMS_TOVERR = 19,
  TOV_COMMS_ALREADY = 20,
  TOV_COMMS_NOTRUN = 21,
  TOV_COMMS_FAIL = 22,
  TOV_COMMS_PASSFAIL = 23,
  TOV_COMMS_BADSERVICE = 24,
  TOV_COMMS_NOT_BROKEN = 25,
  TOV_COMMS_BUSY = 26,
  TOV_COMMS_ARGS = 27,
  TOV_COMMS_LOCKED = 28,
  TOV_COMMS_DATA = 29,
  TOV_COMMS_SYSDOWN = 30,
  TOV_COMMS_SALT = 31,
  TOV_COMMS_BADRESPONSE = 32,
  TOV_EMPTY_COMMAND = 33,
  TOV_EMPTY_SUBCMD = 34,
  TOV_NO_CLUSTER = 35,
  TOV_NO_DATA = 36,
  TOV_NO_NODES = 37,
  TOV_NO_RESPONSE = 38,
  TOV_EXCEPT_ALLINFO = 39,
  TOV_EXCEPT_GETQUADS = 40,
  TOV_EXCEPT_QUADINT = 41,
  TOV_EXCEPT_QUADSTR = 42,
  TOV_EXCEPT_SVCCMD = 43,
  TOV_EXCEPT_SVCINT = 44,
  TOV_EXCEPT_SVCMVE = 45,
  TOV_FORK_FAIL = 46,
  TOV_FILE_REMOVE = 47,
  TOV_FILE_WRITE = 48,
  TOV_HALT_DISABLED = 49,
  TOV_INVALID_ADDR = 50,
  TOV_INVALID_CLUSTER = 51,
  TOV_MVE_MANFAIL = 52,
  TOV_MVE_STOPFAIL = 53,
  TOV_MVE_STARTFAIL = 54,
  TOV_MVE_INVALIDATTEMPTS = 55,
  TOV_POLLTIME_ERROR = 57,
  TOV_PARSE_STRTOINT = 58,
  TOV_RANGE_INITIMEOUT = 59,
  TOV_RANGE_RUNTIMEOUT = 60,
  TOV_RNC_CORRUPTENTRY = 61,
  TOV_RNC_INFOVALUE = 62,
  TOV_RNC_INVALIDFLAG = 63,
  TOV_RNC_LETTER_ID = 64,
  TOV_RNC_OUTOFRANGE = 65,
  TOV_RNC_UNKNOWNNODE = 66,
  TOV_RNC_CLEARCACHE = 67,
  TOV_RNC_CLEARHOST = 68,
  TOV_SOCK_CONNECT = 69,
  TOV_SOCK_CREATE = 70,
  TOV_SOCK_GETOPTS = 71,
  TOV_SOCK_NTOP = 72,
  TOV_SOCK_RECV = 73,
  TOV_SOCK_RESOLVE_HOST = 74,
  TOV_SOCK_SELECT = 75,
  TOV_SOCK_SEND = 76,
  TOV_SOCK_SETOPT = 77,
  TOV_SOCK_TIMEOUT = 78,
  TOV_SVC_ALREADYRUNNING = 79,
  TOV_SVC_ATTEMPT_EXPIRE = 80,
  TOV_SVC_INVALID = 81,
  TOV_SVC_NOINSTANCES = 82,
  TOV_SVC_UNCONFNODE = 83,
  TOV_SVC_UNKNOWN = 84,
  TOV_UNKNOWN_AFINET = 85,
  TOV_UNKNOWN_EXTCMD = 86,
  TOV_UNKNOWN_NODE = 87,
  TOV_UNKNOWN_SUBCMD = 88,
  TOV_UNKNOWN_SVCCMD = 89,
  TOV_ERR_COUNT = 90
};

// Record kinds of the daemon's information reply.
enum tov_info_letters : std::uint32_t {
  tovInfo_MISC = 0,
  tovInfo_B = 1,
  tovInfo_C = 2,
  tovInfo_F = 3,
  tovInfo_G = 4,
  tovInfo_H = 5,
  tovInfo_I = 6,
  tovInfo_N = 7,
  tovInfo_P = 8,
  tovInfo_R = 9,
  tovInfo_S = 10,
  tovInfo_V = 11,
  tovInfo_W = 12,
  tovInfo_COUNT = 13
};

// Field positions of a cluster (C) record; position 0 holds the letter.
enum tovInfo_C_values : std::uint32_t {
  c_cluster_name = 1,
  c_node_count = 2,
  c_service_count = 3,
  c_config_file_crc = 4,
  c_serial_number = 5,
  c_config_file_mtime = 6,
  c_config_file_size = 7,
  c_poll_time = 8,
  c_startup_time = 9,
  c_machine_bootstrap = 10,
  c_machine_ident = 11,
  c_machine_desc = 12,
  c_SIZE_OK = 13
};

// Field positions of a node (N) record.
enum tovInfo_N_values : std::uint32_t {
  n_machine_name = 1,
  n_ip_address = 2,
  n_inet_family = 3,
  n_SIZE_OK = 4
};

// What a discovery keeps.
enum tov_discovery_modes : std::uint32_t {
  tov_discover_all = 0,
  tov_discover_bootstrap = 1,
  tov_discover_cluster = 2
};

// Diagnostics: debug level, last error, trace and error output.
class Debug {
 public:
  Debug();
  int getDebugLevel();
  int setDebugLevel(unsigned);
  int setError(tov_error_enum);
  int getError();
  void write(std::ostream&);
  void error(std::string, std::ostream&);
  void except(std::string, std::exception&);
  std::string tovErrorString(tov_error_enum);
  std::string getTraceStr(char, std::string);

  static bool useColour;

 private:
  std::ofstream logfile;

  Debug(const Debug&);
  Debug& operator=(const Debug&);
  void _initialChecks();
};

// Authentication digests and the authentication line of a request.
class Auth {
 public:
  Auth() = default;
  std::string generateAuthline(std::vector<std::string>, std::string,
                               std::string);
  std::string getBin(std::string);
  int asciiToDigest(std::string, unsigned*);
  std::string getPwdDigest(std::string);
  std::string msgHexDigest(unsigned*);
  std::string msgDigest(unsigned*);
  std::string getAdminDigest();
  std::string getAdminHash(std::string);
  std::string getUserPass(std::string);
  std::string intToBin(unsigned long);
  std::vector<std::string> genObject(std::string, std::string, std::string);

 private:
  Auth(const Auth&);
  Auth& operator=(const Auth&);
};

// Cache of the daemons' information replies, by host.
class TOVNetCache {
 public:
  TOVNetCache();
  int refreshCache(std::string address, std::string port, bool forceUpdate);
  int getPollTime(std::string);
  bool isLocalHost(std::string);
  int clearCache();
  std::string addrHandler(std::string);
  std::string getHostnameForNode(std::string);
  std::vector<std::string> tovInfoGetValueVector(std::string, tov_info_letters,
                                                 unsigned);
  std::string tovInfoGetValue(std::string, tov_info_letters, unsigned,
                              unsigned);
  int getNumberOfLetterEntries(std::string, tov_info_letters);
  std::string infoHandler(char, unsigned, unsigned, std::string, std::string);
  char infoCharHandler(char, unsigned, unsigned, std::string, std::string);
  int infoIntHandler(char, unsigned, unsigned, std::string, std::string);
  std::vector<std::string> infoVecHandler(char, unsigned, unsigned, std::string,
                                          std::string);
  std::vector<std::vector<std::string>> getAllLetterInfoHandler(char,
                                                                std::string,
                                                                bool,
                                                                std::string);

 private:
  addrinfo hints;
  addrinfo* res;
  char ipaddr[46];
  int PollTime;
  unsigned LastUpdated;
  unsigned now;
  std::string LocalHostName;
  std::string localRequestNode;
  std::vector<std::vector<std::vector<std::vector<std::string>>>> tovInfo;
  std::vector<std::string> tovInfoNodes;

  TOVNetCache(const TOVNetCache&);
  TOVNetCache& operator=(const TOVNetCache&);
  char getIDLetter(tov_info_letters);
  tov_info_letters getLetterID(char);
  int getLocalAddrs();
  std::string _getInfoMachineName(std::string);
  std::string _getInfoHostName(std::string);
  bool _nodeInfoExists(std::string);
  int _getNodePos(std::string);
  unsigned getCacheEndValue(unsigned);
  int read_tov(std::string, std::string, bool);
};

// Cluster-wide queries answered from the cache.
class Cluster {
 public:
  Cluster();
  ~Cluster();
  int getServiceCount(std::string);
  std::string getClusterName(std::string);
  int getNodeCount(std::string);
  std::string getConfigCRC(std::string);
  std::string getSerialNumber(std::string);
  int getConfigMakeTime(std::string);
  int getConfigSize(std::string);
  int getPollTime(std::string);
  int getStartupTime(std::string);
  int getMachineBootstrap(std::string);
  std::string getClusterID(std::string);
  std::string getAllClusterInfo(std::string, bool);
};

// Decoding of a daemon reply.
class TOVResponse {
 public:
  TOVResponse();
  ~TOVResponse();
  int getTOVResponseStatus(char*);
  std::string getTOVResponseMsg(char*);
  std::string getTOVServiceState(int);
};

// The network client: request exchange, service commands, node probe,
// cluster discovery and host validation.
class TOVNet {
 private:
  int timeoutSec;
  int timeoutUsec;

 public:
  int pref_AF = 0;

  TOVNet();
  void setTimeout(float timeout);
  int testNode(std::string address, std::string port);
  int validateAddressFamily(std::string ipaddr, int* version);
  int validateHost(std::string host, char** ip);
  int discoverClusters(std::string address, int mode, bool prettyPrint);
  int readtov(std::string address, std::string port, bool forceUpdate);
  int tovcomms(char*& buffer, std::string address, std::string port,
               std::string command, std::vector<std::string> authvec,
               std::string data);
  int serviceCommand(std::string address, std::string port, std::string command,
                     std::vector<std::string> authvec, unsigned serviceNum,
                     unsigned attempts, std::string cmdSuffix);

 private:
  int connectTimeout(int sockfd, const sockaddr* addr, socklen_t addrlen,
                     int timeoutSec, int timeoutUsec);
  TOVNet(const TOVNet&);
  TOVNet& operator=(const TOVNet&);
};

extern Debug tovDebug;
extern Auth tovAuth;
extern TOVNetCache tovCache;
extern Cluster tovCluster;
extern TOVResponse tovResponse;
extern TOVNet tovNet;

}  // namespace tov1

namespace tovUtils {

std::string intToString(int, unsigned);
char* stringToChar(std::string);
int stringToInt(std::string);
std::string getTimeStr(time_t);
void tokenizer(const std::string&, std::vector<std::string>&,
               const std::string&);
void printClassMsg(std::string, bool);

// Printable form of a list: the elements joined by ", ".
template <typename T, typename A>
std::string vectostr(const std::vector<T, A>& vec) {
  std::stringstream ss;
  for (typename std::vector<T, A>::size_type i = 0; i < vec.size(); ++i) {
    if (i > 0) ss << ", ";
    ss << vec[i];
  }
  return ss.str();
}

}  // namespace tovUtils

#endif  // TOVAPI_LIBTOVAPI_H
