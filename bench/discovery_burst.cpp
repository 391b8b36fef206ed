// How many answers one discovery collects when they all arrive at once: a
// responder on a loopback address answers the probe with N datagrams, each a
// distinct cluster, and the report's count is compared with N. Also times
// the processing after the collection window for the same N answers.
//   discovery_burst [N ...]      (default: 10 100 1000 10000)
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tovapi/internal_discovery.h"
#include "tovapi/libtovapi.h"

namespace {

const char* const kResponder = "127.0.8.1";

std::string answer(int i) {
  const std::string n = std::to_string(i);
  return "C cluster" + n + " 2 3 crc" + n +
         " 1 1000 42 1 2000 0 ident desc\nN a 127.0.8.1 4\nN b 127.0.8.2 4";
}

// Answers one probe with `count` datagrams, within five seconds.
void respond(int fd, int count) {
  pollfd p{fd, POLLIN, 0};
  if (poll(&p, 1, 5000) <= 0) return;
  char probe[64];
  sockaddr_in from{};
  socklen_t len = sizeof from;
  if (recvfrom(fd, probe, sizeof probe, 0, reinterpret_cast<sockaddr*>(&from),
               &len) <= 0)
    return;
  for (int i = 0; i < count; ++i) {
    const std::string text = answer(i);
    sendto(fd, text.data(), text.size(), 0, reinterpret_cast<sockaddr*>(&from),
           len);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<int> counts;
  for (int i = 1; i < argc; ++i) counts.push_back(std::atoi(argv[i]));
  if (counts.empty()) counts = {10, 100, 1000, 10000};

  for (int count : counts) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(1195);
    inet_pton(AF_INET, kResponder, &addr.sin_addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
      std::cerr << "UDP " << kResponder << ":1195 is taken\n";
      return 1;
    }
    std::thread responder(respond, fd, count);
    std::stringstream report;
    std::streambuf* saved = std::cout.rdbuf(report.rdbuf());
    tov1::tovNet.discoverClusters(kResponder, tov1::tov_discover_all, true);
    std::cout.rdbuf(saved);
    responder.join();
    close(fd);
    const std::string text = report.str();
    const auto at = text.find(" Found ");
    const int found = at == std::string::npos ? -1 : std::atoi(&text[at + 7]);

    std::vector<std::string> lines;
    for (int i = 0; i < count; ++i) tovUtils::tokenizer(answer(i), lines, "\n");
    std::ostringstream sink;
    const auto start = std::chrono::steady_clock::now();
    tov1::discovery::reportAnswers(lines, tov1::tov_discover_all, true, sink);
    const double ms = std::chrono::duration<double, std::milli>(
                          std::chrono::steady_clock::now() - start)
                          .count();
    std::cout << "burst " << count << ": collected " << found << " ("
              << (found == count ? "no loss" : "LOST ANSWERS")
              << "), processing after the window " << ms << " ms\n";
  }
  return 0;
}
