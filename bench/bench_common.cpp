#include "bench_common.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>

namespace bench {

Sizes makeSizes(bool quick) {
  Sizes s;
  if (!quick) return s;
  s.quick = true;
  s.exchanges = 500;
  s.replyPairs1M = 20;
  s.replyPairs16M = 4;
  s.discoveryPairs = 5;
  s.serviceCalls = 100;
  s.snapshotPairs = 50;
  s.simLifetimeSec = 120;
  return s;
}

double threadCpuNanos() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

double median(std::vector<double> values) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  const std::size_t n = values.size();
  return (values[(n - 1) / 2] + values[n / 2]) / 2.0;
}

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0.0;
  std::sort(values.begin(), values.end());
  std::size_t rank =
      static_cast<std::size_t>(std::ceil(p / 100.0 * values.size()));
  if (rank == 0) rank = 1;
  return values[std::min(rank, values.size()) - 1];
}

sockaddr_in loopbackAddress(int port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

bool rawExchange(const sockaddr_in& addr, const char* frame,
                 std::size_t frameLen, std::string& reply) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  bool ok =
      connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
  char salt[8];
  if (ok) ok = recv(fd, salt, sizeof salt, 0) > 0;
  if (ok)
    ok = send(fd, frame, frameLen, MSG_NOSIGNAL) ==
         static_cast<ssize_t>(frameLen);
  char buf[8192];
  while (ok) {
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n == 0) break;
    if (n < 0) {
      ok = false;
      break;
    }
    reply.append(buf, static_cast<std::size_t>(n));
  }
  close(fd);
  return ok;
}

std::unique_ptr<simtest::SimProcess> startSimulator(benchmark::State& state,
                                                    const Sizes& sizes) {
  simtest::SimOptions opts;
  opts.configJson = simtest::defaultConfigJson();
  opts.maxLifetimeSec = sizes.simLifetimeSec;
  try {
    return std::make_unique<simtest::SimProcess>(opts);
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
    return nullptr;
  }
}

}  // namespace bench
