#include "fault_table.h"

#include <filesystem>
#include <iterator>
#include <map>
#include <regex>
#include <utility>

#include "netns/netns_lab.h"
#include "support/net_helpers.h"
#include "tovapi/libtovapi.h"

namespace faults {

namespace {

using namespace tov1;

// What tovctl is doing when it fails, as its error line names it.
const std::string kList = "reading the service list from {addr}:{port}";
const std::string kBounce = "bounce of service 0 (web) on {addr}:{port}";
const std::string kSend = "request \"B 0\" to {addr}:{port}";

const Expect kOk{0, ""};
const Expect kBounced{0, "ok: bounce of service 0 (web) on {addr}:{port}"};
const Expect kBounceReply{0, "Ba service 0 (web) bounced"};
const std::string kAwaitReply =
    "deadline of 2 s expired while awaiting the reply from {addr}:{port}";
const std::string kRecvError =
    "TOVNet::tovcomms(): recv() command reported an error [";
const std::string kBusySays = "; the daemon says \"daemon busy\"";
// The cache's line when the information reply does not start as one.
const Expect kNoInformation{
    TOV_SVC_INVALID,
    "TOVNetCache::refreshCache(): daemon at {addr}:{port} sent no cluster "
    "information ["};

// tovctl's one line for a failure: what it was doing, why (for a library
// code its text and name, for the deadline nothing), then `more`.
Expect tool(const std::string& doing, int code, std::string more = "") {
  static const std::map<int, std::string> why{
      {TOV_COMMS_SALT, "salt not received (TOV_COMMS_SALT"},
      {TOV_SOCK_TIMEOUT, "network timeout (TOV_SOCK_TIMEOUT"},
      {TOV_COMMS_BADRESPONSE,
       "bad response from daemon (TOV_COMMS_BADRESPONSE"},
      {TOV_RNC_CORRUPTENTRY, "corrupt cache entry (TOV_RNC_CORRUPTENTRY"},
      {TOV_SOCK_RECV, "receive failed (TOV_SOCK_RECV"},
      {TOV_COMMS_BUSY, "daemon busy (TOV_COMMS_BUSY"},
      {TOV_COMMS_FAIL, "daemon refused or failed the request (TOV_COMMS_FAIL"},
      {TOV_SOCK_CONNECT, "cannot connect (TOV_SOCK_CONNECT"},
      {TOV_NO_DATA, "no data (TOV_NO_DATA"},
  };
  if (code != kExitDeadline)
    more = why.at(code) + ", code " + std::to_string(code) + ")" + more;
  return {code, "tovctl: " + doing + " failed: " + more};
}

std::vector<Fault> faultTable() {
  std::vector<Fault> t;
  const auto add = [&t](const char* name, std::vector<std::string> simArgs,
                        Expect exchange, Expect service, Expect bounce,
                        Expect send) -> Fault& {
    t.push_back({name, std::move(simArgs), exchange, service, bounce, send});
    return t.back();
  };
  // The daemon closes before it has said anything. The cache cannot be
  // filled, so the cluster lists no services and serviceCommand refuses the
  // number before sending.
  add("no_salt", {"--no-salt"},
      {TOV_COMMS_SALT,
       "TOVNet::tovcomms(): host didn't return a salt: {addr}:{port} ["},
      {TOV_SVC_INVALID, "host didn't return a salt"},
      tool(kList, TOV_COMMS_SALT), tool(kSend, TOV_COMMS_SALT));
  // Five bytes instead of eight: both ends pad with NULs, so it works.
  add("short_salt", {"--short-salt", "5"}, kOk, kOk, kBounced, kBounceReply);
  // The salt in two segments: the client's one receive takes the first
  // four bytes for the salt, the signature is wrong and the daemon refuses,
  // and the rest of the salt ("c0de") leads the reply, whose letter is then
  // read from it: '0' is no letter.
  Fault* r = &add("split_salt", {"--split-salt", "200", "--salt", "0badc0de"},
                  kOk, kNoInformation, tool(kList, TOV_COMMS_BADRESPONSE),
                  tool(kSend, TOV_COMMS_BADRESPONSE,
                       "; the daemon says \"deBd authentication failed\""));
  r->replyStatus = TOV_COMMS_BADRESPONSE;
  r->replyLength = 29;
  // With "5afe" the letter read is 'a': the refusal reads as a success.
  r = &add("split_salt_read_as_success",
           {"--split-salt", "200", "--salt", "0bad5afe"}, kOk, kNoInformation,
           tool(kList, TOV_NO_DATA), {0, "5afeBd authentication failed"});
  r->replyLength = 29;
  add("late_salt", {"--late-salt", "1500"},
      {TOV_SOCK_TIMEOUT,
       "TOVNet::tovcomms(): network timed out connecting to {addr}:{port}"},
      {TOV_SVC_INVALID, "network timed out connecting to"},
      tool(kList, TOV_SOCK_TIMEOUT), tool(kSend, TOV_SOCK_TIMEOUT));
  // Every reply, the information reply too, written three bytes at a time;
  // the daemon's NUL is not kept.
  add("dribbled_reply",
      {"--pad-to", "400", "--chunk", "3", "--chunk-pause", "1"}, kOk, kOk,
      kBounced, kBounceReply)
      .replyLength = 399;
  r = &add("reply_cut_before_letter",
           {"--cut-after", "1", "--fault-letter", "B"}, kOk,
           {TOV_COMMS_BADRESPONSE, ""}, tool(kBounce, TOV_COMMS_BADRESPONSE),
           tool(kSend, TOV_COMMS_BADRESPONSE));
  r->replyStatus = TOV_COMMS_BADRESPONSE;
  r->replyLength = 1;
  // Only a close ends a reply, so the exchange hands the stump over as a
  // success; the cache is the one to notice.
  r = &add("reply_cut_in_information", {"--cut-after", "40"}, kOk,
           {TOV_SVC_INVALID,
            "TOVNetCache::refreshCache(): corrupt information reply from "
            "{addr}:{port}"},
           tool(kList, TOV_RNC_CORRUPTENTRY), {0, "Cn cluster information"});
  r->request = "CCN";
  r->replyLength = 40;
  // What came before the reset is dropped.
  add("reset_mid_reply",
      {"--pad-to", "1000", "--reset-after", "500", "--fault-letter", "B"},
      {TOV_SOCK_RECV, kRecvError + "Connection reset by peer]"},
      {TOV_SOCK_RECV, "[Connection reset by peer]"},
      tool(kBounce, TOV_SOCK_RECV), tool(kSend, TOV_SOCK_RECV));
  add("reply_of_16_mib", {"--pad-to", "16777216", "--fault-letter", "B"}, kOk,
      kOk, kBounced, kBounceReply)
      .replyLength = 16777215;
  // Busy on every request but the information one; with poll time 0 the
  // library's retries follow at once and leave it no reply to decode.
  r = &add(
      "busy_forever", {"--busy", "1000000"}, kOk, {TOV_COMMS_NORESPONSE, ""},
      tool(kBounce, TOV_COMMS_BUSY, "; still busy after 3 attempt(s) (-a N)"),
      tool(kSend, TOV_COMMS_BUSY, kBusySays));
  r->replyStatus = TOV_COMMS_BUSY;
  r->pollTime = 0;
  r = &add("wrong_password", {}, kOk, {TOV_COMMS_FAIL, ""},
           tool(kBounce, TOV_COMMS_FAIL, "; check user admin and the password"),
           tool(kSend, TOV_COMMS_FAIL,
                "; the daemon says \"authentication failed\""));
  r->replyStatus = TOV_COMMS_FAIL;
  r->wrongPassword = true;
  // The salt, then neither a reply nor a close.
  add("salt_then_silence", {"--reply-delay", "600000"},
      {TOV_SOCK_RECV, kRecvError + "Interrupted system call]"},
      {TOV_SVC_INVALID, "[Interrupted system call]"},
      tool(kList, kExitDeadline, kAwaitReply),
      tool(kSend, kExitDeadline, kAwaitReply))
      .stalls = true;
  add("one_byte_a_second",
      {"--pad-to", "4000", "--chunk", "1", "--chunk-pause", "1000",
       "--fault-letter", "B"},
      {TOV_SOCK_RECV, "[Interrupted system call]"},
      {TOV_SOCK_RECV, "[Interrupted system call]"},
      tool(kBounce, kExitDeadline, kAwaitReply),
      tool(kSend, kExitDeadline, kAwaitReply))
      .stalls = true;
  // A poll time of 68 years: the cache hands the retry at most a minute,
  // and the deadline ends even that, wherever the retry stands.
  r = &add("busy_with_absurd_poll_time", {"--busy", "1000000"}, kOk,
           {kAnyFailure, ""},
           tool(kBounce, kExitDeadline,
                "deadline of 2 s expired while waiting to retry the busy "
                "daemon at {addr}:{port}"),
           tool(kSend, TOV_COMMS_BUSY, kBusySays));
  r->replyStatus = TOV_COMMS_BUSY;
  r->pollTime = 2147483647;
  r->stalls = true;
  // Refused at once, never answered, or not routed: all a connect failure.
  for (const auto& [name, target] :
       {std::pair{"refused_port", Target::ClosedPort},
        std::pair{"blackholed_address", Target::Blackhole},
        std::pair{"no_route", Target::NoRoute}}) {
    add(name, {},
        {TOV_SOCK_CONNECT,
         "TOVNet::tovcomms(): cannot connect to server {addr}: "},
        {TOV_SVC_INVALID, "cannot connect to server {addr}: "},
        tool(kList, TOV_SOCK_CONNECT), tool(kSend, TOV_SOCK_CONNECT))
        .target = target;
  }
  return t;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Faults, FaultRow, testing::ValuesIn(faultTable()),
                         [](const testing::TestParamInfo<Fault>& info) {
                           return info.param.name;
                         });

std::string fill(const std::string& text, const std::string& addr,
                 const std::string& port) {
  return std::regex_replace(
      std::regex_replace(text, std::regex("\\{addr\\}"), addr),
      std::regex("\\{port\\}"), port);
}

int openDescriptors() {
  return static_cast<int>(
      std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

std::unique_ptr<simtest::SimProcess> startSimulator(
    const std::vector<std::string>& simArgs, long long pollTime) {
  std::string config = simtest::defaultConfigJson();
  const std::string from = "\"poll_time\": 1";
  config.replace(config.find(from), from.size(),
                 "\"poll_time\": " + std::to_string(pollTime));
  return simtest::startSim(simArgs, config);
}

std::string onTarget(const Fault& f,
                     void (*observe)(const Fault& f, const std::string& host,
                                     const std::string& port)) {
  if (f.target == Target::ClosedPort) {
    observe(f, "127.0.0.1", std::to_string(testsupport::closedPort()));
  } else if (f.target == Target::Simulator) {
    auto sim = startSimulator(f.simArgs, f.pollTime);
    observe(f, "127.0.0.1", sim->portStr());
    EXPECT_EQ(sim->stop(), 0) << sim->log();
  } else {
    netnstest::PrivateNetwork net;
    if (net.ready()) {
      observe(f,
              f.target == Target::NoRoute
                  ? netnstest::PrivateNetwork::kNoRoute
                  : netnstest::PrivateNetwork::kBlackhole,
              "1195");
    }
    EXPECT_TRUE(net.leave()) << "still in the namespace";
    if (!net.ready())
      return "a private network namespace needs root and iproute2";
  }
  return "";
}

}  // namespace faults
