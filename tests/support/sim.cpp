#include "support/sim.h"

#include <fstream>
#include <stdexcept>

#ifndef TOVSIM_PATH
#error "TOVSIM_PATH must name the tovsim binary"
#endif

namespace simtest {

const char* tovsimPath() { return TOVSIM_PATH; }

SimProcess::SimProcess(const SimOptions& opts) {
  std::vector<std::string> args{tovsimPath(),
                                "--port",
                                std::to_string(opts.port),
                                "--udp-port",
                                std::to_string(opts.udpPort),
                                "--max-lifetime",
                                std::to_string(opts.maxLifetimeSec),
                                "--ready-file",
                                dir_.file("ready"),
                                "-v"};
  for (const std::string& a : opts.listen) {
    args.insert(args.end(), {"--listen", a});
  }
  if (!opts.configJson.empty()) {
    std::ofstream(dir_.file("config.json")) << opts.configJson;
    args.insert(args.end(), {"--config", dir_.file("config.json")});
  }
  args.insert(args.end(), opts.extraArgs.begin(), opts.extraArgs.end());
  child_ = std::make_unique<testsupport::Child>(args, dir_.file("log"));
  std::string ready;
  testsupport::pollFor(10, [&] {
    ready = testsupport::readFile(dir_.file("ready"));
    return (!ready.empty() && ready.back() == '\n') || !running();
  });
  if (ready.empty() || ready.back() != '\n') {
    const std::string what = running() ? "did not become ready within 10 s"
                                       : "ended during start-up";
    const int status = stop();
    throw std::runtime_error("tovsim " + what + " (status " +
                             std::to_string(status) + "):\n" + log());
  }
  port_ = std::stoi(ready);
}

std::string defaultConfigJson() {
  return R"({
  "cluster": {"name": "testcluster", "serial": "-1", "poll_time": 1,
              "bootstrap": false, "machine_desc": "tovsim test node"},
  "nodes": [{"name": "node1", "address": "127.0.0.1", "family": 4}],
  "services": [
    {"name": "web", "state": "running", "mode": "auto", "blocked": false,
     "node": "node1"},
    {"name": "db", "state": "stopped", "mode": "manual", "blocked": false,
     "node": "node1"}
  ],
  "users": [{"user": "admin", "password": "secret"}]
}
)";
}

std::unique_ptr<SimProcess> startSim(std::vector<std::string> extraArgs,
                                     std::string configJson,
                                     std::vector<std::string> listen, int port,
                                     int udpPort) {
  SimOptions o;
  o.configJson = std::move(configJson);
  o.extraArgs = std::move(extraArgs);
  o.listen = std::move(listen);
  o.port = port;
  o.udpPort = udpPort;
  o.maxLifetimeSec = 60;
  return std::make_unique<SimProcess>(o);
}

}  // namespace simtest
