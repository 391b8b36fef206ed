#include "snapshots.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "common/child.h"
#include "common/deadline.h"
#include "common/text.h"
#include "tovapi/libtovapi.h"

namespace tovexporter {

namespace {

// The largest cluster's snapshot is far smaller; more is not a snapshot.
constexpr std::size_t kMaxJson = 16u << 20;
constexpr std::size_t kMaxDiagnostics = 64u << 10;
constexpr std::size_t kMaxRequest = 1u << 20;
// How often a child is looked at without news from it, for `stop`.
constexpr auto kLook = std::chrono::milliseconds(100);

void say(const std::string& line) {
  std::fprintf(stderr, "tovexporter: %s\n", line.c_str());
}

// The child's request: what takeSnapshot needs, and the deadline as a
// point of the monotonic clock, which every process shares.
std::string requestJson(const Target& t, std::optional<Clock::time_point> end,
                        unsigned debug) {
  nlohmann::json entries = nlohmann::json::array();
  for (const tovtools::Endpoint& e : t.entries) {
    entries.push_back({e.host, e.port});
  }
  return nlohmann::json{
      {"entries", entries},
      {"timeout", t.timeout},
      {"debug", debug},
      {"end", end ? nlohmann::json(end->time_since_epoch().count())
                  : nlohmann::json(nullptr)}}
      .dump();
}

std::string endedText(int status) {
  if (status < 0) return "was lost";
  if (WIFSIGNALED(status)) {
    return "ended by signal " + std::to_string(WTERMSIG(status));
  }
  return "ended with status " + std::to_string(WEXITSTATUS(status));
}

bool readAll(int fd, std::string& into, std::size_t limit) {
  char buf[16384];
  for (;;) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    into.append(buf, static_cast<std::size_t>(n));
    if (into.size() > limit) return false;
  }
}

}  // namespace

Taken takeInChild(const Target& target, std::optional<Clock::time_point> end,
                  const std::atomic<bool>& stop, unsigned debug) {
  Taken taken;
  tovtools::ChildProcess child({kMaxJson, kMaxDiagnostics});
  std::string why;
  if (!child.spawn({"/proc/self/exe", kSnapshotMode},
                   requestJson(target, end, debug), why)) {
    say("cannot start the snapshot of " + target.name + ": " + why);
    return taken;
  }
  const auto killAt =
      end ? *end + std::chrono::duration_cast<Clock::duration>(
                       std::chrono::duration<double>(kKillGrace))
          : Clock::time_point::max();
  while (!child.waitUntil(std::min(killAt, Clock::now() + kLook))) {
    if (stop || Clock::now() >= killAt) {
      child.kill();
      taken.overran = !stop;
      break;
    }
  }
  if (!child.errors().empty()) {
    std::fwrite(child.errors().data(), 1, child.errors().size(), stderr);
  }
  if (child.killed()) return taken;
  const int st = child.status();
  if (st < 0 || !WIFEXITED(st) || WEXITSTATUS(st) != 0) {
    say("the snapshot of " + target.name + " " + endedText(st));
    return taken;
  }
  try {
    if (child.outputCut()) throw std::length_error("larger than 16 MiB");
    taken.snapshot =
        tovtools::snapshotFromJson(nlohmann::json::parse(child.output()));
  } catch (const std::exception& e) {
    say("unreadable snapshot of " + target.name + ": " + e.what());
  }
  return taken;
}

int snapshotChild() {
  // Standard output carries the snapshot alone: whatever the library
  // prints goes nowhere.
  const int out = dup(STDOUT_FILENO);
  const int null = open("/dev/null", O_WRONLY);
  if (out < 0 || null < 0 || dup2(null, STDOUT_FILENO) < 0) return 1;
  close(null);
  std::string text;
  tovtools::SnapshotOptions so;
  double seconds = 0;
  unsigned debug = 0;
  try {
    if (!readAll(STDIN_FILENO, text, kMaxRequest)) throw std::length_error("");
    const nlohmann::json in = nlohmann::json::parse(text);
    for (const auto& e : in.at("entries")) {
      so.entries.push_back(
          {e.at(0).get<std::string>(), e.at(1).get<std::string>()});
    }
    tov1::tovNet.setTimeout(in.at("timeout").get<float>());
    debug = in.at("debug").get<unsigned>();
    if (!in.at("end").is_null()) {
      const Clock::time_point end{
          Clock::duration(in.at("end").get<long long>())};
      // Already passed is the shortest deadline there is, not none.
      seconds = std::max(
          0.001, std::chrono::duration<double>(end - Clock::now()).count());
    }
  } catch (const std::exception& e) {
    say(std::string("snapshot: bad request: ") + e.what());
    return 1;
  }
  tov1::Debug::useColour = false;
  tov1::tovDebug.setDebugLevel(debug);
  tovtools::Snapshot snap;
  try {
    // Below level 1 the library's diagnostics are withheld; standard error
    // is given back however the snapshot ends.
    struct Quiet {
      std::ostringstream sink;
      std::streambuf* saved;
      explicit Quiet(bool on)
          : saved(on ? std::cerr.rdbuf(sink.rdbuf()) : nullptr) {}
      ~Quiet() {
        if (saved != nullptr) std::cerr.rdbuf(saved);
      }
    } quiet(debug == 0);
    tovtools::Deadline deadline(seconds);
    snap = tovtools::takeSnapshot(so, deadline);
  } catch (const std::exception& e) {
    say(std::string("snapshot: ") + e.what());
    return 1;
  }
  const std::string json = tovtools::jsonText(tovtools::snapshotJson(snap), -1);
  for (std::size_t done = 0; done < json.size();) {
    const ssize_t n = write(out, json.data() + done, json.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return 1;
    done += static_cast<std::size_t>(n);
  }
  close(out);
  return 0;
}

}  // namespace tovexporter
