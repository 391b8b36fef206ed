#include "commands.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <nlohmann/json.hpp>

#include "codes.h"
#include "common/cli.h"
#include "common/text.h"
#include "report.h"
#include "tovapi/libtovapi.h"

namespace tovctl {

namespace {

using nlohmann::json;

void printJson(const json& j) {
  std::cout << tovtools::jsonText(j) << std::endl;
}

json serviceRefJson(const ServiceRef& s) {
  return json{{"index", s.index},
              {"name", s.name.empty() ? json(nullptr) : json(s.name)}};
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

int cmdProbe(const Options& o, const std::string& hostArg) {
  std::string host;
  int port = o.port;
  std::string why;
  if (!hostArg.empty() && !splitHostPort(hostArg, host, port, why)) {
    usageError("probe: " + why);
  }
  Session s = hostArg.empty() ? Session(o) : Session(o, host, port);
  const std::string what = "probe of " + s.target();
  // The probe swaps the buffer of std::cerr, switches colour off and lowers
  // the timeout, and leaves all three behind when the refresh throws (an
  // information reply too large for memory, say): put them back here.
  std::streambuf* const errBuffer = std::cerr.rdbuf();
  const bool colour = tov1::Debug::useColour;
  std::string exception;
  const int rc = s.firstAnswering(what, HandOver::AnyFailure, [&] {
    try {
      return tov1::tovNet.testNode(s.host(), s.port());
    } catch (const std::exception& e) {
      exception = e.what();
    } catch (...) {
      exception = "an exception that is not a standard one";
    }
    std::cerr.rdbuf(errBuffer);
    tov1::Debug::useColour = colour;
    tov1::tovNet.setTimeout(static_cast<float>(o.timeout));
    return -static_cast<int>(tov1::TOV_EXCEPT_ALLINFO);
  });
  if (!exception.empty()) {
    failWith(what, rc, "reading the cluster information threw: " + exception);
  }
  if (rc != 0) failWith(what, rc, s.skippedDetail());
  const std::string cluster = tov1::tovCache.tovInfoGetValue(
      s.host(), tov1::tovInfo_C, 0, tov1::c_cluster_name);
  if (o.json) {
    printJson(json{{"host", s.host()},
                   {"port", s.portNumber()},
                   {"answers", true},
                   {"cluster", cluster}});
  } else {
    std::cout << shown(s.label() + " answers (cluster " + cluster + ")")
              << std::endl;
  }
  return kExitOk;
}

int cmdResolve(const Options& o, const std::string& host) {
  char* ip = nullptr;
  const int rc = bounded("resolving " + host, host,
                         [&] { return tov1::tovNet.validateHost(host, &ip); });
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
  const int rc = bounded("address family of " + address, address, [&] {
    return tov1::tovNet.validateAddressFamily(address, &version);
  });
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
//
// The library is given one attempt at a time and the tool repeats it: a
// busy reply is then seen as such (the library reports a busy daemon's last
// attempt as "no response", after waiting the poll time itself), and a
// deadline that ends the library's wait after a busy reply is told apart
// from one that ends an exchange.
std::string sendServiceCommand(Session& s, const std::string& letters,
                               unsigned service, const std::string& suffix,
                               const std::string& what) {
  const std::vector<std::string> auth = s.authVector();
  const unsigned attempts = s.options().attempts;
  std::string echoed;
  const int rc =
      s.retryWhileBusy(attempts, BusyWait::InCall, what, [&](bool& busy) {
        int result = 0;
        {
          // The echo of the log command is caught; the report of a deadline
          // must not be.
          StreamCapture out(std::cout, true);
          result = withinDeadline([&] {
            return tov1::tovNet.serviceCommand(s.host(), s.port(), letters,
                                               auth, service, 1, suffix);
          });
          echoed = out.text();
        }
        checkDeadline(what, s.label(), result);
        busy = codeOf(result) == tov1::TOV_COMMS_NORESPONSE;
        return result;
      });
  if (codeOf(rc) == tov1::TOV_COMMS_BUSY) {
    failWith(what, rc, stillBusy(attempts));
  }
  if (rc != 0) {
    // The daemon refuses a missing or wrong authentication with its plain
    // failure letter; say so, since the library keeps the reply's text.
    std::string hint;
    if (codeOf(rc) == tov1::TOV_COMMS_FAIL) {
      hint = s.options().user.empty()
                 ? "the daemon may want a user (-u USER)"
                 : "check user " + s.options().user + " and the password";
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
  Session s(o);
  s.authVector();
  const ServiceRef ref = s.resolveService(service);
  const std::string what = a.name + " of " + describe(ref) + " on " + s.label();
  sendServiceCommand(s, a.letters, ref.index, suffix, what);
  if (o.json) {
    printJson(json{{"command", a.name},
                   {"host", s.host()},
                   {"port", s.portNumber()},
                   {"service", serviceRefJson(ref)},
                   {"result", 0}});
  } else {
    std::cout << shown("ok: " + what) << std::endl;
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
  Session s(o);
  s.authVector();
  const ServiceRef ref = s.resolveService(service);
  const std::string what =
      "log entry for " + describe(ref) + " on " + s.label();
  const std::string sent = sendServiceCommand(
      s, std::string(1, static_cast<char>(req_log)), ref.index, message, what);
  if (o.json) {
    printJson(json{{"command", "log"},
                   {"host", s.host()},
                   {"port", s.portNumber()},
                   {"service", serviceRefJson(ref)},
                   {"sent", sent},
                   {"result", 0}});
  } else {
    std::cout << shown("ok: " + what + ": " + sent) << std::endl;
  }
  return kExitOk;
}

namespace {

// Shutdown and halt end the daemon: on a terminal the operator confirms,
// elsewhere --yes must say so in advance.
void confirm(const Options& o, const std::string& what,
             const std::string& question) {
  if (o.yes) return;
  if (isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0) {
    usageError(what + " needs --yes: there is no terminal to confirm on");
  }
  std::cerr << question << " [y/N] " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  if (answer != "y" && answer != "Y" && answer != "yes") {
    failWith(what, -static_cast<int>(tov1::TOV_CLI_QUIT),
             "not confirmed, nothing was sent");
  }
}

}  // namespace

int cmdDaemonAction(const Options& o, const ServiceAction& a) {
  const bool ends = a.letters == "JA" || a.letters == "L";
  if (ends && o.entries.size() > 1) {
    // Handing over would end another daemon than the one meant.
    usageError(a.name + " ends one daemon: give exactly one -H");
  }
  Session s(o);
  const bool check = a.letters.size() == 2 && a.letters[1] == '\0';
  if (check && o.user.empty()) {
    usageError("check-password needs a user (-u USER)");
  }
  const std::string what =
      check ? "password check for " + o.user + " on " + s.label()
            : a.name + " of the daemon on " + s.label();
  if (a.letters == "JA") {
    confirm(o, what,
            "Halt the daemon on " + s.label() +
                " at once? Its services are not stopped cleanly.");
  } else if (a.letters == "L") {
    confirm(o, what, "Shut down the daemon on " + s.label() + "?");
  }
  s.authVector();
  s.refreshCache(false, "reading the cluster information from " + s.target());
  sendServiceCommand(s, a.letters, 0, "", what);
  if (o.json) {
    json j{{"command", a.name},
           {"host", s.host()},
           {"port", s.portNumber()},
           {"result", 0}};
    if (check) j["user"] = o.user;
    printJson(j);
  } else {
    std::cout << shown("ok: " + what) << std::endl;
  }
  return kExitOk;
}

namespace {

// Sends "<letter> <service>" the way the library composes it and returns the
// reply; the service number is checked against the daemon's count first.
Reply serviceData(Session& s, char letter, const std::string& service,
                  bool authenticate, ServiceRef& ref, std::string& what,
                  const std::string& doing) {
  const std::vector<std::string> auth =
      authenticate ? s.authVector() : std::vector<std::string>{};
  ref = s.resolveService(service);
  what = doing + " of " + describe(ref) + " on " + s.label();
  const int count = bounded(what, s.label(), [&] {
    return tov1::tovCluster.getServiceCount(s.host());
  });
  if (count <= 0 || ref.index >= static_cast<unsigned>(count)) {
    failWith(what, -static_cast<int>(tov1::TOV_SVC_INVALID));
  }
  const std::string line =
      std::string(1, letter) + " " + std::to_string(ref.index);
  Reply reply;
  const int rc = s.request(line, auth, s.options().attempts, reply, what);
  if (codeOf(rc) == tov1::TOV_COMMS_BUSY) {
    failWith(what, rc, stillBusy(s.options().attempts));
  }
  if (rc != 0) failWith(what, rc, daemonSays(reply));
  return reply;
}

}  // namespace

int cmdServiceData(const Options& o, char letter, const std::string& service,
                   bool authenticate) {
  Session s(o);
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
    std::cout << shown(reply.message) << std::endl;
  } else {
    for (const std::string& l : reply.lines) std::cout << shown(l) << '\n';
    std::cout.flush();
  }
  return kExitOk;
}

int cmdVersion(const Options& o, const std::string& service) {
  Session s(o);
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
             {"port", s.portNumber()},
             {"version", version.empty() ? json(nullptr) : json(version)},
             {"protocol", protocol.empty() ? json(nullptr) : json(protocol)},
             {"message", reply.message}});
  } else if (!version.empty()) {
    std::cout << shown("daemon version " + version + ", protocol " + protocol)
              << std::endl;
  } else {
    std::cout << shown(reply.message) << std::endl;
  }
  return kExitOk;
}

int cmdInfo(const Options& o, const std::string& service) {
  if (!service.empty()) {
    return cmdServiceData(o, static_cast<char>(req_info), service, false);
  }
  Session s(o);
  s.refreshCache(true, "reading the cluster information from " + s.target());
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
           {"port", s.portNumber()},
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
  Session s(o);
  s.refreshCache(true, "reading the service list from " + s.target());
  const std::vector<ServiceRecord> list = s.services();
  if (o.json) {
    json arr = json::array();
    for (const ServiceRecord& r : list) arr.push_back(serviceJson(r));
    printJson(
        json{{"host", s.host()}, {"port", s.portNumber()}, {"services", arr}});
  } else {
    printServices(std::cout, list);
    std::cout.flush();
  }
  return kExitOk;
}

int cmdSend(const Options& o, const std::string& line) {
  if (line.empty()) usageError("send: the request line is empty");
  checkLineText(line, "send: the request line");
  Session s(o);
  const std::vector<std::string> auth = s.authVector();
  const std::string what = "request \"" + line + "\" to " + s.target();
  Reply reply;
  // A raw request is sent once: no busy retry.
  const int rc = s.request(line, auth, 1, reply, what);
  if (rc != 0 && reply.text.empty()) failWith(what, rc);
  const json result{
      {"request", line},
      {"letter", reply.letter == '\0' ? json(nullptr)
                                      : json(std::string(1, reply.letter))},
      {"message", reply.message},
      {"lines", reply.lines},
      {"result", codeOf(reply.status)}};
  if (!o.json) {
    std::cout << shown(reply.text, true);
    if (!reply.text.empty() && reply.text.back() != '\n') std::cout << '\n';
    std::cout.flush();
  }
  if (reply.status != 0) {
    failWith(what, reply.status, daemonSays(reply), result);
  }
  if (o.json) printJson(result);
  return kExitOk;
}

namespace {

// Damerau-Levenshtein distance of two short words.
std::size_t distance(const std::string& a, const std::string& b) {
  std::vector<std::vector<std::size_t>> d(
      a.size() + 1, std::vector<std::size_t>(b.size() + 1, 0));
  for (std::size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
  for (std::size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t cost = a[i - 1] == b[j - 1] ? 0 : 1;
      d[i][j] =
          std::min({d[i - 1][j] + 1, d[i][j - 1] + 1, d[i - 1][j - 1] + cost});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
      }
    }
  }
  return d[a.size()][b.size()];
}

std::vector<std::string> commandNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::App* sub : app.get_subcommands({})) {
    names.push_back(sub->get_name());
  }
  return names;
}

// The first word of the command line that is neither an option nor an
// option's value: the command the user meant.
std::string commandWord(const CLI::App& app, int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--") return i + 1 < argc ? argv[i + 1] : "";
    if (arg.size() < 2 || arg[0] != '-') return arg;
    if (arg.find('=') != std::string::npos) continue;
    const CLI::Option* opt = app.get_option_no_throw(arg);
    if (opt != nullptr && opt->get_expected_min() > 0) ++i;
  }
  return "";
}

}  // namespace

CLI::App* CommandTable::add(const std::string& name, const std::string& help,
                            std::function<int()> run) {
  CLI::App* sub = app.add_subcommand(name, help);
  entries_.push_back({sub, std::move(run), false, nullptr});
  return sub;
}

CLI::App* CommandTable::addOwn(
    const std::string& name, const std::string& help, std::function<int()> run,
    std::function<int(const std::string& why)> refused) {
  CLI::App* sub = app.add_subcommand(name, help);
  entries_.push_back({sub, std::move(run), true, std::move(refused)});
  return sub;
}

std::string CommandTable::unknownCommand(const std::string& word) const {
  std::string best;
  std::size_t bestDistance = 3;  // further away is no longer a typo
  for (const std::string& name : commandNames(app)) {
    const std::size_t d = distance(word, name);
    const bool prefix =
        word.size() >= 3 && name.compare(0, word.size(), word) == 0;
    if (d < bestDistance || (prefix && best.empty())) {
      best = name;
      bestDistance = prefix ? 0 : d;
    }
  }
  std::string text = "unknown command \"" + word + "\"";
  if (!best.empty()) text += "; did you mean \"" + best + "\"?";
  return text + " (see tovctl help)";
}

int CommandTable::refuse(const CLI::ParseError& e, int argc,
                         char** argv) const {
  const std::string word = commandWord(app, argc, argv);
  for (const Entry& c : entries_) {
    if (c.refused && c.command->get_name() == word) {
      return c.refused(tovtools::parseErrorText(e));
    }
  }
  // The options were not all read: --json counts as given anyway.
  setJsonOutput(std::find_if(argv + 1, argv + argc, [](const char* a) {
                  return std::string(a) == "--json";
                }) != argv + argc);
  setTarget("", 0);
  bool known = false;
  for (const Entry& c : entries_) known = known || c.command->parsed();
  if (!known && !word.empty()) {
    const std::vector<std::string> names = commandNames(app);
    if (std::find(names.begin(), names.end(), word) == names.end()) {
      return reportUsage(unknownCommand(word));
    }
  }
  return reportUsage(
      tovtools::usageText("tovctl", tovtools::parseErrorText(e)));
}

// The usual way also reports out of memory and any other exception in one
// line (and one JSON document), wherever they come from.
int CommandTable::runChosen() const {
  const Entry* chosen = nullptr;
  for (const Entry& c : entries_) {
    if (chosen == nullptr && c.command->parsed()) chosen = &c;
  }
  if (chosen != nullptr && chosen->own) return chosen->run();
  try {
    if (chosen != nullptr) {
      setActivity("the " + chosen->command->get_name() + " command");
    }
    applyGlobals(o);
    if (chosen != nullptr) return chosen->run();
    return reportUsage(tovtools::usageText("tovctl", "no command given"));
  } catch (const ExitNow& e) {
    return e.status;
  } catch (const std::exception& e) {
    return reportException(&e);
  } catch (...) {
    return reportException(nullptr);
  }
}

}  // namespace tovctl
