#include "common/clusters.h"

#include <sys/stat.h>

#include <toml++/toml.h>
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "common/access.h"
#include "common/text.h"

namespace tovtools {

namespace {

// A hand-written file is never this large; anything larger is not one.
constexpr std::size_t kMaxFileBytes = 1 << 20;
constexpr std::size_t kMaxHosts = 256;
constexpr double kMaxSeconds = 86400;
// Far more than a file of hundreds of clusters has, far less than it takes
// to exhaust the stack (see dotsOutsideStrings).
constexpr std::size_t kMaxKeyDots = 2048;
const char* const kKnownKeys =
    "hosts, port, user, password_file, deadline, timeout";

// toml++ 3.3 goes one call deeper for each level of nested tables, and each
// dot of a dotted key or a table header opens a level: a file of
// "a.a.a.a..." overflows the stack long before 1 MiB. Those dots stand
// outside strings and comments, so counting them there bounds the depth
// before the parser sees the text. Only the lexical rules that decide what
// is a string or a comment are followed; the parser judges the rest.
std::size_t dotsOutsideStrings(const std::string& text) {
  enum {
    kCode,
    kComment,
    kBasic,
    kLiteral,
    kLongBasic,
    kLongLiteral
  } state = kCode;
  // Quotes in a row from i, at most 5: a long string may end with up to two
  // quotes of its own before its closing three.
  auto quotesAt = [&text](std::size_t i, char q) {
    std::size_t n = 0;
    while (n < 5 && i + n < text.size() && text[i + n] == q) ++n;
    return n;
  };
  std::size_t dots = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const bool basic = state == kBasic || state == kLongBasic;
    if (basic && c == '\\') {
      ++i;  // an escaped character never ends the string
    } else if (state == kCode) {
      if (c == '.') ++dots;
      if (c == '#') state = kComment;
      if (c == '"' || c == '\'') {
        const bool longString = quotesAt(i, c) >= 3;
        state = c == '"' ? (longString ? kLongBasic : kBasic)
                         : (longString ? kLongLiteral : kLiteral);
        if (longString) i += 2;
      }
    } else if (state == kComment || state == kBasic || state == kLiteral) {
      const char end = state == kComment ? '\n' : state == kBasic ? '"' : '\'';
      if (c == end || c == '\n') state = kCode;
    } else {
      const char q = state == kLongBasic ? '"' : '\'';
      const std::size_t n = quotesAt(i, q);
      if (n >= 3) {
        state = kCode;
        i += n - 1;
      }
    }
  }
  return dots;
}

std::string errnoText(const std::string& path) {
  return "cannot read " + path + ": " + std::strerror(errno);
}

bool readText(const std::string& path, std::string& text, std::string& why) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) {
    why = errnoText(path);
    return false;
  }
  if (S_ISDIR(st.st_mode)) {
    errno = EISDIR;
    why = errnoText(path);
    return false;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    why = errnoText(path);
    return false;
  }
  // Read one byte past the limit rather than trust the size: the file may
  // be a pipe or still growing.
  text.assign(kMaxFileBytes + 1, '\0');
  in.read(&text[0], static_cast<std::streamsize>(text.size()));
  if (in.bad()) {
    why = errnoText(path);
    return false;
  }
  text.resize(static_cast<std::size_t>(in.gcount()));
  if (text.size() > kMaxFileBytes) {
    why = path + ": larger than 1 MiB, which no cluster file is";
    return false;
  }
  return true;
}

// A key as TOML would write it: bare when it can be, else quoted.
std::string keyText(std::string_view key) {
  static const std::regex bare("[A-Za-z0-9_-]+");
  std::string text(key);
  if (std::regex_match(text, bare)) return text;
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') quoted += '\\';
    quoted += c;
  }
  return quoted + "\"";
}

const char* typeName(toml::node_type type) {
  switch (type) {
    case toml::node_type::table:
      return "a table";
    case toml::node_type::array:
      return "an array";
    case toml::node_type::string:
      return "a string";
    case toml::node_type::integer:
      return "an integer";
    case toml::node_type::floating_point:
      return "a float";
    case toml::node_type::boolean:
      return "a boolean";
    case toml::node_type::date:
      return "a date";
    case toml::node_type::time:
      return "a time";
    case toml::node_type::date_time:
      return "a date-time";
    default:
      return "nothing";
  }
}

bool hasControls(const std::string& text) {
  return text.find('\t') != std::string::npos ||
         escapeControls(text, false) != text;
}

// Reads the parsed document into clusters, keeping the problem that comes
// first in the file: the parser hands a table's keys over sorted, not in the
// order they were written, and the first problem is the one to fix first.
class Reader {
 public:
  explicit Reader(const std::string& path)
      : path_(path),
        dir_(std::filesystem::path(path).parent_path()),
        home_(std::getenv("HOME") ? std::getenv("HOME") : "") {}

  void readRoot(const toml::table& root, ClusterFile& out);
  bool failed() const { return !problem_.empty(); }
  std::string problem() const { return escapeControls(problem_, false); }

 private:
  void fail(const toml::source_region& at, const std::string& what);
  void readCluster(const std::string& name, const toml::table& table,
                   ClusterConfig& out);
  void readHosts(const std::string& key, const toml::node& node,
                 ClusterConfig& out);
  std::optional<int> readPort(const std::string& key, const toml::node& node);
  std::optional<double> readSeconds(const std::string& key,
                                    const toml::node& node, double least);
  std::optional<std::string> readString(const std::string& key,
                                        const toml::node& node);
  std::optional<std::string> readUser(const std::string& key,
                                      const toml::node& node);
  std::optional<std::string> readPasswordFile(const std::string& key,
                                              const toml::node& node);

  std::string path_;
  std::filesystem::path dir_;
  std::string home_;
  std::string problem_;
  toml::source_position at_{};
};

void Reader::fail(const toml::source_region& at, const std::string& what) {
  const toml::source_position& p = at.begin;
  if (failed() &&
      !(p.line < at_.line || (p.line == at_.line && p.column < at_.column))) {
    return;
  }
  at_ = p;
  problem_ = path_ + ":" + std::to_string(p.line) + ":" +
             std::to_string(p.column) + ": " + what;
}

void Reader::readRoot(const toml::table& root, ClusterFile& out) {
  static const std::regex name("[A-Za-z0-9_.-]{1,64}");
  for (auto&& [key, node] : root) {
    if (key.str() != "clusters") {
      fail(key.source(), keyText(key.str()) +
                             ": unknown key; the file holds only the table "
                             "clusters");
      continue;
    }
    const toml::table* clusters = node.as_table();
    if (!clusters) {
      fail(node.source(), std::string("clusters: must be a table, not ") +
                              typeName(node.type()));
      continue;
    }
    for (auto&& [clusterKey, clusterNode] : *clusters) {
      const std::string clusterName(clusterKey.str());
      const std::string where = "clusters." + keyText(clusterName);
      if (!std::regex_match(clusterName, name)) {
        fail(clusterKey.source(),
             where + ": a cluster's name is 1 to 64 of A-Z a-z 0-9 _ . -");
      } else if (!clusterNode.is_table()) {
        fail(clusterNode.source(),
             where + ": must be a table, not " + typeName(clusterNode.type()));
      } else {
        readCluster(clusterName, *clusterNode.as_table(),
                    out.clusters[clusterName]);
      }
    }
  }
}

void Reader::readCluster(const std::string& name, const toml::table& table,
                         ClusterConfig& out) {
  const std::string where = "clusters." + keyText(name);
  out.name = name;
  out.source = path_ + ":" + std::to_string(table.source().begin.line);
  bool hosts = false;
  for (auto&& [key, node] : table) {
    const std::string k = where + "." + keyText(key.str());
    if (key.str() == "hosts") {
      hosts = true;
      readHosts(k, node, out);
    } else if (key.str() == "port") {
      out.port = readPort(k, node);
    } else if (key.str() == "user") {
      out.user = readUser(k, node);
    } else if (key.str() == "password_file") {
      out.passwordFile = readPasswordFile(k, node);
    } else if (key.str() == "deadline") {
      out.deadline = readSeconds(k, node, 0);
    } else if (key.str() == "timeout") {
      out.timeout = readSeconds(k, node, 0.001);
    } else if (key.str() == "password") {
      fail(key.source(), k + ": a password is never written here; put it in "
                             "a private file (chmod 600) named by "
                             "password_file");
    } else {
      fail(key.source(), k + ": unknown key (known: " + kKnownKeys + ")");
    }
  }
  if (!hosts) fail(table.source(), where + ": hosts is missing");
}

void Reader::readHosts(const std::string& key, const toml::node& node,
                       ClusterConfig& out) {
  const toml::array* hosts = node.as_array();
  if (!hosts) {
    fail(node.source(),
         key + ": must be an array of strings, not " + typeName(node.type()));
    return;
  }
  if (hosts->empty() || hosts->size() > kMaxHosts) {
    fail(node.source(), key + ": names " + std::to_string(hosts->size()) +
                            " hosts; it must name 1 to " +
                            std::to_string(kMaxHosts));
    return;
  }
  for (std::size_t i = 0; i < hosts->size(); ++i) {
    const std::string element = key + "[" + std::to_string(i) + "]";
    std::optional<std::string> text = readString(element, (*hosts)[i]);
    if (!text) continue;
    std::string host, why;
    int port = 0;
    if (hasControls(*text)) {
      fail((*hosts)[i].source(), element + ": has a control character");
    } else if (!splitHostPort(*text, host, port, why)) {
      fail((*hosts)[i].source(), element + ": " + why);
    } else {
      out.hosts.push_back(*text);
    }
  }
}

std::optional<int> Reader::readPort(const std::string& key,
                                    const toml::node& node) {
  const toml::value<int64_t>* port = node.as_integer();
  if (!port) {
    fail(node.source(), key + ": must be an integer from 1 to 65535, not " +
                            typeName(node.type()));
    return std::nullopt;
  }
  if (port->get() < 1 || port->get() > 65535) {
    fail(node.source(), key + ": " + std::to_string(port->get()) +
                            " is not a port from 1 to 65535");
    return std::nullopt;
  }
  return static_cast<int>(port->get());
}

std::optional<double> Reader::readSeconds(const std::string& key,
                                          const toml::node& node,
                                          double least) {
  std::ostringstream range;
  range << "from " << least << " to " << kMaxSeconds;
  double seconds = 0;
  if (const auto* integer = node.as_integer()) {
    seconds = static_cast<double>(integer->get());
  } else if (const auto* number = node.as_floating_point()) {
    seconds = number->get();
  } else {
    fail(node.source(), key + ": must be a number of seconds " + range.str() +
                            ", not " + typeName(node.type()));
    return std::nullopt;
  }
  // The comparisons are false for NaN, which is refused with the infinities.
  if (!(seconds >= least && seconds <= kMaxSeconds)) {
    std::ostringstream text;
    text << seconds;
    fail(node.source(), key + ": " + text.str() +
                            " is not a number of seconds " + range.str());
    return std::nullopt;
  }
  return seconds;
}

std::optional<std::string> Reader::readString(const std::string& key,
                                              const toml::node& node) {
  const toml::value<std::string>* text = node.as_string();
  if (!text) {
    fail(node.source(),
         key + ": must be a string, not " + typeName(node.type()));
    return std::nullopt;
  }
  if (text->get().empty()) {
    fail(node.source(), key + ": is empty");
    return std::nullopt;
  }
  return text->get();
}

std::optional<std::string> Reader::readUser(const std::string& key,
                                            const toml::node& node) {
  std::optional<std::string> user = readString(key, node);
  if (user && (user->find(' ') != std::string::npos || hasControls(*user))) {
    fail(node.source(), key +
                            ": a user name has no blanks or control "
                            "characters");
    return std::nullopt;
  }
  return user;
}

std::optional<std::string> Reader::readPasswordFile(const std::string& key,
                                                    const toml::node& node) {
  std::optional<std::string> file = readString(key, node);
  if (!file) return std::nullopt;
  std::string why;
  if (hasControls(*file)) {
    why = "has a control character";
  } else if (file->rfind("~/", 0) == 0) {
    if (home_.empty()) why = "starts with ~/, but HOME is not set";
    file = home_ + file->substr(1);
  } else if ((*file)[0] == '~') {
    why = "only ~/ is understood at the start (the home directory)";
  } else {
    file = (dir_ / *file).string();
  }
  if (why.empty()) return file;
  fail(node.source(), key + ": " + why);
  return std::nullopt;
}

}  // namespace

std::vector<std::string> clusterFileCandidates(
    const std::string& explicitPath) {
  if (!explicitPath.empty()) return {explicitPath};
  std::vector<std::string> places;
  // Relative directories are ignored, as the XDG base directories say.
  auto add = [&places](std::string dir) {
    if (dir.empty() || dir[0] != '/') return;
    while (!dir.empty() && dir.back() == '/') dir.pop_back();
    const std::string place = dir + "/tov/clusters.toml";
    if (std::find(places.begin(), places.end(), place) == places.end()) {
      places.push_back(place);
    }
  };
  const char* home = std::getenv("HOME");
  const char* configHome = std::getenv("XDG_CONFIG_HOME");
  if (configHome && configHome[0] == '/') {
    add(configHome);
  } else if (home && home[0] == '/') {
    add(std::string(home) + "/.config");
  }
  const char* dirs = std::getenv("XDG_CONFIG_DIRS");
  std::istringstream list(dirs && dirs[0] ? dirs : "/etc/xdg");
  for (std::string dir; std::getline(list, dir, ':');) add(dir);
  add("/etc");
  return places;
}

bool loadClusterFile(const std::string& path, ClusterFile& out,
                     std::string& why) {
  std::string text;
  if (!readText(path, text, why)) return false;
  if (dotsOutsideStrings(text) > kMaxKeyDots) {
    why = path + ": more than " + std::to_string(kMaxKeyDots) +
          " dots outside strings and comments, which no cluster file has";
    return false;
  }
  toml::table root;
  try {
    root = toml::parse(text, path);
  } catch (const toml::parse_error& e) {
    const toml::source_position& at = e.source().begin;
    why = escapeControls(path + ":" + std::to_string(at.line) + ":" +
                             std::to_string(at.column) + ": " +
                             std::string(e.description()),
                         false);
    return false;
  }
  ClusterFile file;
  file.path = path;
  Reader reader(path);
  reader.readRoot(root, file);
  if (reader.failed()) {
    why = reader.problem();
    return false;
  }
  out = std::move(file);
  return true;
}

bool findClusterFile(const std::string& explicitPath, ClusterFile& out,
                     std::string& why) {
  for (const std::string& place : clusterFileCandidates(explicitPath)) {
    struct stat st {};
    // A file that is there but cannot be read is an error, not a reason to
    // look further: the next one found would not be the one meant.
    const bool absent =
        stat(place.c_str(), &st) != 0 && (errno == ENOENT || errno == ENOTDIR);
    if (!absent || !explicitPath.empty()) {
      return loadClusterFile(place, out, why);
    }
  }
  out = ClusterFile{};
  return true;
}

bool findCluster(const std::string& explicitPath, const std::string& name,
                 ClusterConfig& out, std::string& why) {
  ClusterFile file;
  if (!findClusterFile(explicitPath, file, why)) return false;
  if (file.path.empty()) {
    why = "no cluster file for cluster \"" + name + "\"; looked for";
    const char* separator = " ";
    for (const std::string& place : clusterFileCandidates(explicitPath)) {
      why += separator + place;
      separator = ", ";
    }
    why = escapeControls(why, false);
    return false;
  }
  const auto found = file.clusters.find(name);
  if (found == file.clusters.end()) {
    why = file.path + ": no cluster \"" + name + "\"";
    const char* separator = "; it has ";
    for (const auto& cluster : file.clusters) {
      why += separator + cluster.first;
      separator = ", ";
    }
    if (file.clusters.empty()) why += "; it names none";
    why = escapeControls(why, false);
    return false;
  }
  out = found->second;
  return true;
}

}  // namespace tovtools
