#include "commands.h"

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "codes.h"
#include "report.h"
#include "tovapi/libtovapi.h"

namespace tovctl {

namespace {

using nlohmann::json;

void printJson(const json& j) { std::cout << j.dump(2) << std::endl; }

json serviceRefJson(const ServiceRef& s) {
  return json{{"index", s.index},
              {"name", s.name.empty() ? json(nullptr) : json(s.name)}};
}

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
    const auto start = std::chrono::steady_clock::now();
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

std::string daemonSays(const Reply& r) {
  return r.message.empty() ? "" : "the daemon says \"" + r.message + "\"";
}

void checkLineText(const std::string& text, const std::string& what) {
  if (text.find('\n') != std::string::npos ||
      text.find('\r') != std::string::npos) {
    usageError(what + " must be one line");
  }
}

}  // namespace

int cmdDiscover(const Options& o, const std::string& host, int mode, bool raw) {
  const bool stdoutShown = !o.json && isatty(STDOUT_FILENO);
  int rc;
  std::string captured;
  {
    Progress progress(isatty(STDERR_FILENO) && o.debug == 0, !stdoutShown);
    QuietLibrary quiet;
    StreamCapture out(std::cout, o.json);
    rc = tov1::tovNet.discoverClusters(host, mode, o.json ? false : !raw);
    captured = out.text();
  }
  if (rc != 0) {
    failWith("discovery " + (host.empty() ? std::string("on the local network")
                                          : "at " + host),
             rc);
  }
  if (o.json) {
    const json clusters = parseDiscoveryReport(captured);
    printJson(json{{"mode", modeName(mode)},
                   {"count", clusters.size()},
                   {"clusters", clusters}});
  }
  return kExitOk;
}

int cmdProbe(const Options& o, const std::string& host) {
  Session s(o, host);
  int rc;
  {
    QuietLibrary quiet;
    rc = tov1::tovNet.testNode(s.host(), s.port());
  }
  if (rc != 0) failWith("probe of " + s.label(), rc);
  const std::string cluster = tov1::tovCache.tovInfoGetValue(
      s.host(), tov1::tovInfo_C, 0, tov1::c_cluster_name);
  if (o.json) {
    printJson(json{{"host", s.host()},
                   {"port", o.port},
                   {"answers", true},
                   {"cluster", cluster}});
  } else {
    std::cout << s.label() << " answers (cluster " << cluster << ")"
              << std::endl;
  }
  return kExitOk;
}

int cmdResolve(const Options& o, const std::string& host) {
  char* ip = nullptr;
  int rc;
  {
    QuietLibrary quiet;
    rc = tov1::tovNet.validateHost(host, &ip);
  }
  const std::string address = ip != nullptr ? ip : "";
  std::free(ip);
  if (rc != 0) failWith("resolving " + host, rc);
  if (o.json) {
    printJson(json{{"host", host}, {"address", address}});
  } else {
    std::cout << address << std::endl;
  }
  return kExitOk;
}

int cmdFamily(const Options& o, const std::string& address) {
  int version = 0;
  int rc;
  {
    QuietLibrary quiet;
    rc = tov1::tovNet.validateAddressFamily(address, &version);
  }
  if (rc != 0) failWith("address family of " + address, rc);
  if (o.json) {
    printJson(json{{"address", address}, {"family", version}});
  } else {
    std::cout << version << std::endl;
  }
  return kExitOk;
}

namespace {

// Hands the letters to the library's service command and reports the result.
// Returns what the library echoed on standard output (the log command).
std::string sendServiceCommand(Session& s, const std::string& letters,
                               unsigned service, const std::string& suffix,
                               const std::string& what) {
  const std::vector<std::string> auth = s.authVector();
  int rc;
  std::string echoed;
  {
    QuietLibrary quiet;
    StreamCapture out(std::cout, true);
    rc = tov1::tovNet.serviceCommand(s.host(), s.port(), letters, auth, service,
                                     s.options().attempts, suffix);
    echoed = out.text();
  }
  if (rc != 0) {
    // The daemon refuses a missing or wrong authentication with its plain
    // failure letter; say so, since the library keeps the reply's text.
    std::string hint;
    if (codeOf(rc) == tov1::TOV_COMMS_FAIL) {
      hint = s.options().user.empty()
                 ? "the daemon may want a user (-u USER)"
                 : "check user " + s.options().user + " and the password";
    } else if (codeOf(rc) == tov1::TOV_COMMS_NORESPONSE) {
      // What the library reports when every attempt was answered busy.
      hint = "the daemon may have been busy for all " +
             std::to_string(s.options().attempts) + " attempt(s) (-a N)";
    }
    failWith(what, rc, hint);
  }
  while (!echoed.empty() && (echoed.back() == '\n' || echoed.back() == '\r')) {
    echoed.pop_back();
  }
  return echoed;
}

}  // namespace

int cmdServiceAction(const Options& o, const ServiceAction& a,
                     const std::string& service, const std::string& suffix) {
  Session s(o, o.host);
  const ServiceRef ref = s.resolveService(service);
  const std::string what = a.name + " of " + describe(ref) + " on " + s.label();
  sendServiceCommand(s, a.letters, ref.index, suffix, what);
  if (o.json) {
    printJson(json{{"command", a.name},
                   {"host", s.host()},
                   {"port", o.port},
                   {"service", serviceRefJson(ref)},
                   {"result", 0}});
  } else {
    std::cout << "ok: " << what << std::endl;
  }
  return kExitOk;
}

int cmdLog(const Options& o, const std::string& service,
           const std::vector<std::string>& words) {
  std::string message;
  for (const std::string& w : words) {
    message += (message.empty() ? "" : " ") + w;
  }
  if (message.empty()) usageError("log: the message is empty");
  checkLineText(message, "log: the message");
  Session s(o, o.host);
  const ServiceRef ref = s.resolveService(service);
  const std::string what =
      "log entry for " + describe(ref) + " on " + s.label();
  const std::string sent = sendServiceCommand(
      s, std::string(1, static_cast<char>(req_log)), ref.index, message, what);
  if (o.json) {
    printJson(json{{"command", "log"},
                   {"host", s.host()},
                   {"port", o.port},
                   {"service", serviceRefJson(ref)},
                   {"sent", sent},
                   {"result", 0}});
  } else {
    std::cout << "ok: " << what << ": " << sent << std::endl;
  }
  return kExitOk;
}

int cmdDaemonAction(const Options& o, const ServiceAction& a) {
  Session s(o, o.host);
  const bool check = a.letters.size() == 2 && a.letters[1] == '\0';
  if (check && o.user.empty()) {
    usageError("check-password needs a user (-u USER)");
  }
  const std::string what =
      check ? "password check for " + o.user + " on " + s.label()
            : a.name + " of the daemon on " + s.label();
  s.refreshCache(false, "reading the cluster information from " + s.label());
  sendServiceCommand(s, a.letters, 0, "", what);
  if (o.json) {
    json j{{"command", a.name},
           {"host", s.host()},
           {"port", o.port},
           {"result", 0}};
    if (check) j["user"] = o.user;
    printJson(j);
  } else {
    std::cout << "ok: " << what << std::endl;
  }
  return kExitOk;
}

namespace {

// Sends "<letter> <service>" the way the library composes it and returns the
// reply; the service number is checked against the daemon's count first.
Reply serviceData(Session& s, char letter, const std::string& service,
                  bool authenticate, ServiceRef& ref, std::string& what,
                  const std::string& doing) {
  ref = s.resolveService(service);
  what = doing + " of " + describe(ref) + " on " + s.label();
  int count;
  {
    QuietLibrary quiet;
    count = tov1::tovCluster.getServiceCount(s.host());
  }
  if (count <= 0 || ref.index >= static_cast<unsigned>(count)) {
    failWith(what, -static_cast<int>(tov1::TOV_SVC_INVALID));
  }
  const std::vector<std::string> auth =
      authenticate ? s.authVector() : std::vector<std::string>{};
  const std::string line =
      std::string(1, letter) + " " + std::to_string(ref.index);
  Reply reply;
  const int rc = s.request(line, auth, s.options().attempts, reply);
  if (rc != 0) failWith(what, rc, daemonSays(reply));
  return reply;
}

}  // namespace

int cmdServiceData(const Options& o, char letter, const std::string& service,
                   bool authenticate) {
  Session s(o, o.host);
  ServiceRef ref;
  std::string what;
  const char* doing = letter == req_heartbeats ? "heartbeats"
                      : letter == req_events   ? "events"
                                               : "details";
  const Reply reply =
      serviceData(s, letter, service, authenticate, ref, what, doing);
  if (o.json) {
    printJson(json{
        {"request", std::string(1, letter) + " " + std::to_string(ref.index)},
        {"service", serviceRefJson(ref)},
        {"message", reply.message},
        {"lines", reply.lines}});
  } else if (reply.lines.empty()) {
    std::cout << reply.message << std::endl;
  } else {
    for (const std::string& l : reply.lines) std::cout << l << '\n';
    std::cout.flush();
  }
  return kExitOk;
}

int cmdVersion(const Options& o, const std::string& service) {
  Session s(o, o.host);
  ServiceRef ref;
  std::string what;
  const Reply reply = serviceData(s, static_cast<char>(req_version), service,
                                  false, ref, what, "version query");
  std::string version;
  std::string protocol;
  for (const std::string& l : reply.lines) {
    const std::vector<std::string> rec = splitRecord(l);
    if (rec.size() >= 3 && rec[0] == "V") {
      version = rec[1];
      protocol = rec[2];
    }
  }
  if (o.json) {
    printJson(
        json{{"host", s.host()},
             {"port", o.port},
             {"version", version.empty() ? json(nullptr) : json(version)},
             {"protocol", protocol.empty() ? json(nullptr) : json(protocol)},
             {"message", reply.message}});
  } else if (!version.empty()) {
    std::cout << "daemon version " << version << ", protocol " << protocol
              << std::endl;
  } else {
    std::cout << reply.message << std::endl;
  }
  return kExitOk;
}

int cmdInfo(const Options& o, const std::string& service) {
  if (!service.empty()) {
    return cmdServiceData(o, static_cast<char>(req_info), service, false);
  }
  Session s(o, o.host);
  s.refreshCache(true, "reading the cluster information from " + s.label());
  const std::vector<std::string> cluster =
      tov1::tovCache.tovInfoGetValueVector(s.host(), tov1::tovInfo_C, 0);
  std::vector<std::vector<std::string>> nodes;
  const int n =
      tov1::tovCache.getNumberOfLetterEntries(s.host(), tov1::tovInfo_N);
  for (int i = 0; i < n; ++i) {
    nodes.push_back(tov1::tovCache.tovInfoGetValueVector(
        s.host(), tov1::tovInfo_N, static_cast<unsigned>(i)));
  }
  const std::vector<std::string> v =
      tov1::tovCache.tovInfoGetValueVector(s.host(), tov1::tovInfo_V, 0);

  if (o.json) {
    json j{{"host", s.host()},
           {"port", o.port},
           {"cluster", clusterJson(cluster)}};
    json nodeList = json::array();
    for (const auto& rec : nodes) nodeList.push_back(nodeJson(rec));
    j["nodes"] = nodeList;
    if (v.size() >= 3) {
      j["daemon"] = json{{"version", v[1]}, {"protocol", v[2]}};
    }
    printJson(j);
    return kExitOk;
  }
  std::vector<Row> rows = clusterRows(cluster);
  for (Row& r : rows) r[0] += ":";
  if (v.size() >= 3) {
    rows.push_back({"Daemon version:", v[1] + " (protocol " + v[2] + ")"});
  }
  printTable(std::cout, rows);
  std::cout << '\n';
  std::vector<Row> nodeRows{{"NODE", "ADDRESS", "FAMILY"}};
  for (const auto& rec : nodes) {
    nodeRows.push_back({rec.size() > 1 ? rec[1] : "",
                        rec.size() > 2 ? rec[2] : "",
                        rec.size() > 3 ? "IPv" + rec[3] : ""});
  }
  printTable(std::cout, nodeRows);
  std::cout.flush();
  return kExitOk;
}

int cmdServices(const Options& o) {
  Session s(o, o.host);
  s.refreshCache(true, "reading the service list from " + s.label());
  const std::vector<ServiceRecord> list = s.services();
  if (o.json) {
    json arr = json::array();
    for (const ServiceRecord& r : list) arr.push_back(serviceJson(r));
    printJson(json{{"host", s.host()}, {"port", o.port}, {"services", arr}});
  } else {
    printServices(std::cout, list);
    std::cout.flush();
  }
  return kExitOk;
}

int cmdSend(const Options& o, const std::string& line) {
  if (line.empty()) usageError("send: the request line is empty");
  checkLineText(line, "send: the request line");
  Session s(o, o.host);
  const std::vector<std::string> auth = s.authVector();
  Reply reply;
  // A raw request is sent once: no busy retry.
  const int rc = s.request(line, auth, 1, reply);
  const std::string what = "request \"" + line + "\" to " + s.label();
  if (rc != 0 && reply.text.empty()) failWith(what, rc);
  if (o.json) {
    printJson(json{
        {"request", line},
        {"letter", reply.letter == '\0' ? json(nullptr)
                                        : json(std::string(1, reply.letter))},
        {"message", reply.message},
        {"lines", reply.lines},
        {"result", codeOf(reply.status)}});
  } else {
    std::cout << reply.text;
    if (!reply.text.empty() && reply.text.back() != '\n') std::cout << '\n';
    std::cout.flush();
  }
  if (reply.status != 0) failWith(what, reply.status, daemonSays(reply));
  return kExitOk;
}

}  // namespace tovctl
