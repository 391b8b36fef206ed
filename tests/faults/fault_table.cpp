#include "fault_table.h"

#include "support/net_helpers.h"

#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <utility>

#include "tovapi/libtovapi.h"

namespace faults {

namespace {

using namespace tov1;

// tovctl's exit status when --deadline ends a command.
constexpr int kExitDeadline = 98;

Expect ok(const std::string& text = "") { return {0, text}; }
Expect fails(int code, const std::string& text) { return {code, text}; }

// The one line tovctl prints for a failure; the code's text and name are
// part of it.
std::string line(const std::string& doing, const std::string& tail) {
  return "tovctl: " + doing + " failed: " + tail;
}
const std::string kReadList = "reading the service list from {addr}:{port}";
const std::string kBounce = "bounce of service 0 (web) on {addr}:{port}";
std::string sendOf(const std::string& request) {
  return "request \"" + request + "\" to {addr}:{port}";
}
const std::string kBounced = "ok: bounce of service 0 (web) on {addr}:{port}";
const std::string kBounceReply = "Ba service 0 (web) bounced";

std::vector<Fault> makeTable() {
  std::vector<Fault> t;
  Fault f;

  // The daemon closes before it has said anything.
  f = Fault{};
  f.name = "no_salt";
  f.simArgs = {"--no-salt"};
  f.exchange = fails(TOV_COMMS_SALT,
                     "TOVNet::tovcomms(): host didn't return a salt: "
                     "{addr}:{port} [");
  // The cache cannot be filled, so the cluster lists no services and the
  // service number check refuses before anything is sent.
  f.service = fails(TOV_SVC_INVALID, "host didn't return a salt");
  f.bounce = fails(TOV_COMMS_SALT, line(kReadList,
                                        "salt not received (TOV_COMMS_SALT, "
                                        "code 31)"));
  f.send = fails(TOV_COMMS_SALT, line(sendOf("B 0"),
                                      "salt not received (TOV_COMMS_SALT, "
                                      "code 31)"));
  t.push_back(f);

  // Five bytes instead of eight: the client pads with NULs, the daemon
  // checks the digest the same way, and everything works.
  f = Fault{};
  f.name = "short_salt";
  f.simArgs = {"--short-salt", "5"};
  f.exchange = ok();
  f.service = ok();
  f.bounce = ok(kBounced);
  f.send = ok(kBounceReply);
  t.push_back(f);

  f = Fault{};
  f.name = "late_salt";
  f.simArgs = {"--late-salt", "1500"};
  f.exchange = fails(TOV_SOCK_TIMEOUT,
                     "TOVNet::tovcomms(): network timed out connecting to "
                     "{addr}:{port}");
  f.service = fails(TOV_SVC_INVALID, "network timed out connecting to");
  f.bounce =
      fails(TOV_SOCK_TIMEOUT,
            line(kReadList, "network timeout (TOV_SOCK_TIMEOUT, code 78)"));
  f.send =
      fails(TOV_SOCK_TIMEOUT,
            line(sendOf("B 0"), "network timeout (TOV_SOCK_TIMEOUT, code 78)"));
  t.push_back(f);

  // Every reply, the information reply included, padded to 400 bytes and
  // written three bytes at a time: it must arrive whole.
  f = Fault{};
  f.name = "dribbled_reply";
  f.simArgs = {"--pad-to", "400", "--chunk", "3", "--chunk-pause", "1"};
  f.exchange = ok();
  f.replyLength = 399;  // the daemon's NUL is not kept
  f.service = ok();
  f.bounce = ok(kBounced);
  f.send = ok(kBounceReply);
  t.push_back(f);

  // Only the first byte of the bounce reply: no reply letter.
  f = Fault{};
  f.name = "reply_cut_before_letter";
  f.simArgs = {"--cut-after", "1", "--fault-letter", "B"};
  f.exchange = ok();
  f.replyStatus = TOV_COMMS_BADRESPONSE;
  f.replyLength = 1;
  f.service = fails(TOV_COMMS_BADRESPONSE, "");
  f.bounce =
      fails(TOV_COMMS_BADRESPONSE, line(kBounce,
                                        "bad response from daemon "
                                        "(TOV_COMMS_BADRESPONSE, code 32)"));
  f.send =
      fails(TOV_COMMS_BADRESPONSE, line(sendOf("B 0"),
                                        "bad response from daemon "
                                        "(TOV_COMMS_BADRESPONSE, code 32)"));
  t.push_back(f);

  // The information reply cut inside the cluster record. Only a close ends
  // a reply, so the exchange hands the stump over as a success; the cache
  // is the one to notice.
  f = Fault{};
  f.name = "reply_cut_in_information";
  f.simArgs = {"--cut-after", "40"};
  f.request = "CCN";
  f.exchange = ok();
  f.replyLength = 40;  // the cut counts the bytes sent; no NUL among them
  f.service = fails(TOV_SVC_INVALID,
                    "TOVNetCache::refreshCache(): corrupt information reply "
                    "from {addr}:{port}");
  f.bounce =
      fails(TOV_RNC_CORRUPTENTRY, line(kReadList,
                                       "corrupt cache entry "
                                       "(TOV_RNC_CORRUPTENTRY, code 61)"));
  f.send = ok("Cn cluster information");
  t.push_back(f);

  // Half of a 1000-byte reply, then a reset: what came is dropped.
  f = Fault{};
  f.name = "reset_mid_reply";
  f.simArgs = {"--pad-to", "1000",           "--reset-after",
               "500",      "--fault-letter", "B"};
  f.exchange = fails(TOV_SOCK_RECV,
                     "TOVNet::tovcomms(): recv() command reported an error "
                     "[Connection reset by peer]");
  f.service = fails(TOV_SOCK_RECV, "[Connection reset by peer]");
  f.bounce = fails(TOV_SOCK_RECV,
                   line(kBounce, "receive failed (TOV_SOCK_RECV, code 73)"));
  f.send = fails(TOV_SOCK_RECV, line(sendOf("B 0"),
                                     "receive failed "
                                     "(TOV_SOCK_RECV, code 73)"));
  t.push_back(f);

  f = Fault{};
  f.name = "reply_of_16_mib";
  f.simArgs = {"--pad-to", "16777216", "--fault-letter", "B"};
  f.exchange = ok();
  f.replyLength = 16777215;
  f.service = ok();
  f.bounce = ok(kBounced);
  f.send = ok(kBounceReply);
  t.push_back(f);

  // Busy on every request (the information reply is never busy); with poll
  // time 0 the retries follow at once.
  f = Fault{};
  f.name = "busy_forever";
  f.simArgs = {"--busy", "1000000"};
  f.pollTime = 0;
  f.exchange = ok();
  f.replyStatus = TOV_COMMS_BUSY;
  // All attempts busy leaves the library no reply to decode; nothing is
  // said at level 0. tovctl calls it a busy daemon, as for every request.
  f.service = fails(TOV_COMMS_NORESPONSE, "");
  f.bounce = fails(TOV_COMMS_BUSY,
                   line(kBounce,
                        "daemon busy (TOV_COMMS_BUSY, code 26); still busy "
                        "after 3 attempt(s) (-a N)"));
  f.send = fails(TOV_COMMS_BUSY, line(sendOf("B 0"),
                                      "daemon busy (TOV_COMMS_BUSY, code 26); "
                                      "the daemon says \"daemon busy\""));
  t.push_back(f);

  f = Fault{};
  f.name = "wrong_password";
  f.wrongPassword = true;
  f.exchange = ok();
  f.replyStatus = TOV_COMMS_FAIL;
  f.service = fails(TOV_COMMS_FAIL, "");
  f.bounce =
      fails(TOV_COMMS_FAIL, line(kBounce,
                                 "daemon refused or failed the request "
                                 "(TOV_COMMS_FAIL, code 22); check user admin "
                                 "and the password"));
  f.send = fails(TOV_COMMS_FAIL,
                 line(sendOf("B 0"),
                      "daemon refused or failed the request (TOV_COMMS_FAIL, "
                      "code 22); the daemon says \"authentication failed\""));
  t.push_back(f);

  // The salt, then neither a reply nor a close: only a deadline ends the
  // wait, in the middle of reading the reply.
  const std::string deadline = "deadline of 2 s expired while ";
  const std::string awaitReply =
      deadline + "awaiting the reply from {addr}:{port}";
  f = Fault{};
  f.name = "salt_then_silence";
  f.simArgs = {"--reply-delay", "600000"};
  f.deadline = kDeadlineSec;
  f.exchange = fails(TOV_SOCK_RECV,
                     "TOVNet::tovcomms(): recv() command reported an error "
                     "[Interrupted system call]");
  f.service = fails(TOV_SVC_INVALID, "[Interrupted system call]");
  f.bounce = fails(kExitDeadline, line(kReadList, awaitReply));
  f.send = fails(kExitDeadline, line(sendOf("B 0"), awaitReply));
  t.push_back(f);

  // A reply streamed one byte a second never ends within a deadline.
  f = Fault{};
  f.name = "one_byte_a_second";
  f.simArgs = {"--pad-to",      "4000", "--chunk",        "1",
               "--chunk-pause", "1000", "--fault-letter", "B"};
  f.deadline = kDeadlineSec;
  f.exchange = fails(TOV_SOCK_RECV, "[Interrupted system call]");
  f.service = fails(TOV_SOCK_RECV, "[Interrupted system call]");
  f.bounce = fails(kExitDeadline, line(kBounce, awaitReply));
  f.send = fails(kExitDeadline, line(sendOf("B 0"), awaitReply));
  t.push_back(f);

  // A busy daemon announcing a poll time of 68 years: the cache hands the
  // retry at most a minute, and the deadline ends even that.
  f = Fault{};
  f.name = "busy_with_absurd_poll_time";
  f.simArgs = {"--busy", "1000000"};
  f.pollTime = 2147483647;
  f.deadline = kDeadlineSec;
  f.exchange = ok();
  f.replyStatus = TOV_COMMS_BUSY;
  f.service = {kAnyFailure, ""};
  f.bounce =
      fails(kExitDeadline,
            line(kBounce, deadline + "waiting to retry the busy daemon at "
                                     "{addr}:{port}"));
  f.send = fails(TOV_COMMS_BUSY, line(sendOf("B 0"),
                                      "daemon busy (TOV_COMMS_BUSY, code 26); "
                                      "the daemon says \"daemon busy\""));
  t.push_back(f);

  // Nobody answers the connect: refused at once, or never answered at all
  // (the connect itself times out). The exchange reports both as a connect
  // failure.
  for (const auto& [name, target] :
       {std::pair{"refused_port", Target::ClosedPort},
        std::pair{"blackholed_address", Target::Blackhole}}) {
    f = Fault{};
    f.name = name;
    f.target = target;
    f.exchange = fails(TOV_SOCK_CONNECT,
                       "TOVNet::tovcomms(): cannot connect to server {addr}: ");
    f.service = fails(TOV_SVC_INVALID, "cannot connect to server {addr}: ");
    f.bounce =
        fails(TOV_SOCK_CONNECT,
              line(kReadList, "cannot connect (TOV_SOCK_CONNECT, code 69)"));
    f.send = fails(
        TOV_SOCK_CONNECT,
        line(sendOf("B 0"), "cannot connect (TOV_SOCK_CONNECT, code 69)"));
    t.push_back(f);
  }

  return t;
}

}  // namespace

const std::vector<Fault>& faultTable() {
  static const std::vector<Fault> table = makeTable();
  return table;
}

std::string fill(std::string text, const std::string& addr,
                 const std::string& port) {
  const std::pair<std::string, std::string> keys[] = {{"{addr}", addr},
                                                      {"{port}", port}};
  for (const auto& [key, value] : keys) {
    for (std::size_t at = text.find(key); at != std::string::npos;
         at = text.find(key, at + value.size())) {
      text.replace(at, key.size(), value);
    }
  }
  return text;
}

int openDescriptors() {
  DIR* d = opendir("/proc/self/fd");
  if (d == nullptr) return -1;
  int n = 0;
  while (const dirent* e = readdir(d)) {
    if (e->d_name[0] != '.') ++n;
  }
  closedir(d);
  return n;
}

int closedPort() { return testsupport::closedPort(); }

const std::vector<std::string>& blackholeSetup() {
  static const std::vector<std::string> setup{
      "link add tvf0 type veth peer name tvf1",
      "addr add 198.18.0.1/24 dev tvf0", "link set tvf0 up"};
  return setup;
}

std::unique_ptr<simtest::SimProcess> startSimulator(const Fault& f) {
  simtest::SimOptions o;
  o.configJson = simtest::defaultConfigJson();
  if (f.pollTime != 1) {
    const std::string from = "\"poll_time\": 1";
    const std::size_t at = o.configJson.find(from);
    if (at == std::string::npos)
      throw std::runtime_error("test cluster has no \"poll_time\": 1");
    o.configJson.replace(at, from.size(),
                         "\"poll_time\": " + std::to_string(f.pollTime));
  }
  o.extraArgs = f.simArgs;
  o.maxLifetimeSec = 30;
  return std::make_unique<simtest::SimProcess>(o);
}

}  // namespace faults
