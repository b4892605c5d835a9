// ecs-sim: runs the ECS emulator until SIGINT/SIGTERM.
#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>
#include <mutex>

#include "hx_build_info.h"
#include "hxsim/Emulator.h"

namespace {
volatile std::sig_atomic_t g_stop = 0;
void OnSignal(int) { g_stop = 1; }
}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"ecs-sim: a local Alibaba Cloud ECS API (2014-05-26) emulator"};
  app.set_version_flag("--version", "ecs-sim " HX_VERSION, "Print the version and exit");
  hxsim::Options options;
  std::string stateDir, deviceRoot, scenario;
  bool printScenario = false;
  bool logRequests = false;
  app.add_option("--port", options.port, "Port to listen on (0: pick a free one)")->capture_default_str();
  app.add_option("--bind", options.bindAddress, "Address to listen on")->capture_default_str();
  app.add_option("--state-dir", stateDir, "Folder for disk/snapshot/image files (default: a temporary folder)");
  app.add_option("--device-root", deviceRoot, "Device root; links appear in <root>/dev/disk/by-id (default: <state-dir>/root)");
  app.add_option("--scenario", scenario, "Scenario JSON file (default: the built-in demo scenario)");
  app.add_option("--time-scale", options.timeScale, "Factor applied to all transition durations")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  app.add_option("--seed", options.seed, "Seed for generated ids and fault randomness")->capture_default_str();
  app.add_flag("--print-default-scenario", printScenario, "Print the built-in scenario as JSON and exit");
  app.add_flag("--log-requests", logRequests, "Print one line per API request to stderr");
  CLI11_PARSE(app, argc, argv);

  if (printScenario) {
    std::cout << hxsim::Emulator::DefaultScenarioJson();
    return 0;
  }
  options.stateDir = stateDir;
  options.deviceRoot = deviceRoot;
  options.scenarioFile = scenario;
  if (logRequests) {
    options.requestLog = [](const std::string& line) {
      static std::mutex mutex;
      std::lock_guard lock(mutex);
      std::cerr << "ecs-sim: " << line << "\n";
    };
  }

  hxsim::Emulator emulator(options);
  auto started = emulator.Start();
  if (!started.ok()) {
    std::cerr << "ecs-sim: " << started.error << "\n";
    return 1;
  }
  auto creds = emulator.DemoCredentials();
  std::cout << "ecs-sim listening on " << started.endpoint << "\n"
            << "  endpoint:        " << started.endpoint << "\n"
            << "  metadata:        " << emulator.MetadataEndpoint() << "/latest/meta-data/\n"
            << "  control:         " << started.endpoint << "/_sim/info\n"
            << "  device root:     " << emulator.DeviceRoot().string() << "\n"
            << "  state dir:       " << emulator.StateDir().string() << "\n"
            << "  proxy instance:  " << emulator.ProxyInstanceId() << " (" << emulator.ProxyRegionId() << ")\n"
            << "  access key id:   " << creds.accessKeyId << "\n"
            << "  access secret:   " << creds.accessKeySecret << "\n"
            << std::flush;

  std::signal(SIGINT, OnSignal);
  std::signal(SIGTERM, OnSignal);
  while (!g_stop) {
    struct timespec ts {0, 50 * 1000 * 1000};
    nanosleep(&ts, nullptr);
  }
  emulator.Stop();
  return 0;
}
