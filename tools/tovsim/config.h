// The simulated cluster: what the configuration file describes, with its
// defaults and validation.
#ifndef TOVSIM_CONFIG_H
#define TOVSIM_CONFIG_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace tovsim {

class ConfigError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Numbered as the client's reply decoder maps state numbers to words.
enum class ServiceState { Running, Stopped, Starting, Stopping, Broken };
const char* stateName(ServiceState s);

// How a node listed in the cluster fails to answer ("nodes[].silent").
enum class Silence {
  None,     // false: served like any node
  Refused,  // true: nothing listens at its address
  Mute,     // "mute": connections are accepted, nothing is ever sent
};

struct NodeConfig {
  std::string name;
  std::string address;
  int family = 4;
  Silence silence = Silence::None;
};

// Most nodes one cluster (and one process) may have.
constexpr std::size_t kMaxNodes = 256;

struct ServiceConfig {
  std::string name;
  ServiceState state = ServiceState::Stopped;
  bool automatic = false;
  bool blocked = false;
  std::string node;  // where it runs when started; "" = first node
};

struct UserConfig {
  std::string user;
  std::array<unsigned char, 32> key{};  // SHA-256 of the password
};

// One datagram sent in answer to a discovery probe.
struct UdpAnswer {
  bool own = false;   // the answering node's own record
  std::string bytes;  // otherwise these bytes, exactly
};

// Largest padded reply: big enough to exhaust a client run under a memory
// limit, small enough for the simulator to build.
constexpr long kMaxPad = 256L * 1024 * 1024;

// Misbehaviour on purpose. Negative sizes mean "off".
struct Faults {
  int busy = 0;         // answer the first N requests with 'k'
  int shortSalt = -1;   // send only the first N bytes of the salt
  bool noSalt = false;  // close right after accept
  int lateSaltMs = 0;   // wait before sending the salt
  int splitSaltMs = 0;  // send the salt in two segments, this far apart
  // "" for a fresh random salt on every connection; else these 8 lowercase
  // hex digits, so that what a client makes of a salt fault is repeatable.
  std::string salt;
  int replyDelayMs = 0;  // wait before sending the reply
  int chunkBytes = 0;    // write the reply in pieces of this size
  int chunkPauseMs = 0;  // pause between the pieces
  long cutAfter = -1;    // send only N bytes of the reply, then close
  long resetAfter = -1;  // send N bytes, then reset the connection
  long padTo = 0;        // pad the reply with filler lines to N bytes
  char onlyLetter = 0;   // reply faults only for this request letter
  std::vector<UdpAnswer> udpAnswers;  // empty: the node's own answer
};

// Longest delay or pause, in milliseconds: long enough to hold a client for
// as long as any test or demo runs; a stop still cuts it short.
constexpr int kMaxDelayMs = 3600000;

// Largest poll time in seconds: what the record's field can hold.
constexpr int kMaxPollTime = 2147483647;

// Limits of the discovery answer fault: datagrams per probe, bytes each.
constexpr std::size_t kMaxUdpAnswers = 64;
constexpr std::size_t kMaxDatagram = 65507;

// Datagrams of the own discovery answer: by default as large as the client
// reads one; the least size still holds a cluster line and a node line of
// ordinary length.
constexpr std::size_t kDefaultAnswerDatagram = 2047;
constexpr std::size_t kMinAnswerDatagram = 256;

struct Config {
  std::string clusterName = "tovsim";
  std::string serial = "-1";
  int pollTime = 1;
  bool bootstrap = false;
  std::string machineIdent;  // "" = name of the node that answers
  std::string machineDesc = "tovsim simulated daemon";
  std::vector<std::string> listen;  // empty = command line or default
  std::vector<NodeConfig> nodes;
  std::vector<ServiceConfig> services;
  std::vector<UserConfig> users;
  Faults faults;

  // Identity of the configuration for the cluster record.
  std::uint32_t crc = 0;
  long long mtime = 0;
  long long size = 0;
};

// Parses configuration text; throws ConfigError naming the offending key.
Config parseConfig(const std::string& text);

// Reads and parses a file; the checksum, time and size describe the file.
Config loadConfigFile(const std::string& path);

// The cluster used when no file is given.
Config builtinConfig(long long now);
const char* builtinConfigText();

// Fills in nodes from the listen addresses when the file has none, checks
// the nodes against the listen addresses (none may be that of a silent
// node; `listenOrigin` names where they came from in messages, "" for
// addresses derived from the nodes) and resolves each service's node;
// throws ConfigError.
void finishConfig(Config& cfg, const std::vector<std::string>& listen,
                  const std::string& listenOrigin = "listen");

// The nodes `--nodes N` makes: node1..nodeN on 127.0.1.1..127.0.1.N (node i
// on the i-th address after 127.0.1.0, so node256 is on 127.0.2.0).
std::vector<NodeConfig> generateNodes(int count);

// What the command line says about nodes and listen addresses.
struct NodeFlags {
  std::vector<std::string> listen;  // --listen, in order; empty: not given
  int generate = 0;                 // --nodes; 0: not given
  std::vector<std::string> silent;  // --silent NODE (escapes decoded)
  std::vector<std::string> mute;    // --mute NODE
};

// Settles nodes and listen addresses, then finishes the configuration:
// nodes from --nodes (only when the file lists none), else from the listen
// addresses when there are none; --silent and --mute applied; the addresses
// served are --listen, else the file's "listen", else every node's address
// except those of silent (not mute) nodes, else 127.0.0.1. Returns the
// listen addresses; throws ConfigError naming the flag or key.
std::vector<std::string> settleNodes(Config& cfg, const NodeFlags& flags);

// For each listen address, the index of the node it serves: the node with
// that address, else by position among the nodes that are not silent (the
// i-th address the i-th such node, the first one past their end).
std::vector<std::size_t> listenNodes(const Config& cfg,
                                     const std::vector<std::string>& listen);

// Validates one fault setting given on the command line or in the file.
void checkFaults(const Faults& f);

// Whether a fixed salt is 8 lowercase hex digits.
bool validSalt(const std::string& salt);

// Decodes \n, \r, \t, \\ and \xNN (two hex digits, any byte), so that a
// text can carry bytes that JSON or a command line cannot. Throws
// ConfigError naming the first invalid escape.
std::string decodeEscapes(const std::string& text);

// One discovery answer as given in the file or on the command line: "-"
// alone is the node's own answer, anything else is decoded. Throws
// ConfigError.
UdpAnswer parseUdpAnswer(const std::string& text);

std::uint32_t crc32(const std::string& bytes);

// Numeric address family of an address text: 4, 6, or 0 if not numeric.
int addressFamily(const std::string& address);

}  // namespace tovsim

#endif  // TOVSIM_CONFIG_H
