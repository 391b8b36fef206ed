// Bounces one service of a running cluster and prints the outcome.
//   bounce [host] [port] [service] [user]
// The password is read from the terminal without echo (or one line of
// standard input when that is not a terminal).
#include <cstdlib>
#include <iostream>
#include <string>

#include "tovapi/libtovapi.h"

int main(int argc, char** argv) {
  using namespace tov1;
  const std::string host = argc > 1 ? argv[1] : "127.0.0.1";
  const std::string port = argc > 2 ? argv[2] : "1195";
  const unsigned service = argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 0;
  const std::string user = argc > 4 ? argv[4] : "demo";

  const auto auth =
      tovAuth.genObject(user, tovAuth.getUserPass("password: "), "");
  // The service-number check reads the cache, so fill it from this port.
  tovCache.refreshCache(host, port, false);
  const int rc = tovNet.serviceCommand(host, port, "B", auth, service, 3, "");
  if (rc != 0) {
    const auto code = static_cast<tov_error_enum>(-rc);
    std::cout << "bounce of service " << service
              << " failed: " << tovDebug.tovErrorString(code) << " (code "
              << -rc << ")\n";
    return 1;
  }
  std::cout << "service " << service << " ("
            << tovCache.tovInfoGetValue(host, tovInfo_S, service, 2)
            << ") bounced on " << host << ":" << port << "\n";
  return 0;
}
