#include "hxsim/Emulator.h"

#include <fstream>
#include <sstream>

#include "scenario/Scenario.h"
#include "server/Server.h"
#include "server/World.h"

namespace fs = std::filesystem;

namespace hxsim {

struct Emulator::Impl {
  Options options;
  std::unique_ptr<server::World> world;
  std::unique_ptr<server::Server> server;
  fs::path tempDir;  // removed by Stop when we created it
  uint16_t port = 0;
  std::string endpoint;
  std::string proxyId, proxyRegion, proxyZone;
  Credentials demo;

  void Cleanup() noexcept {
    if (server) server->Stop();
    server.reset();
    if (world) {
      world->store().StopTicker();
      world.reset();
    }
    if (!tempDir.empty()) {
      std::error_code ec;
      fs::remove_all(tempDir, ec);
      tempDir.clear();
    }
    port = 0;
    endpoint.clear();
  }
};

Emulator::Emulator(Options options) : impl_(std::make_unique<Impl>()) { impl_->options = std::move(options); }

Emulator::~Emulator() { Stop(); }

StartResult Emulator::Start() noexcept {
  StartResult result;
  if (impl_->server) {
    result.error = "already running";
    return result;
  }
  try {
    const Options& o = impl_->options;
    std::string text = o.scenarioJson;
    if (!o.scenarioFile.empty()) {
      std::ifstream in(o.scenarioFile);
      if (!in) {
        result.error = "cannot read scenario file " + o.scenarioFile.string();
        return result;
      }
      std::stringstream buffer;
      buffer << in.rdbuf();
      text = buffer.str();
    } else if (text.empty()) {
      text = scenario::DefaultScenarioJson();
    }
    std::string error;
    auto parsed = scenario::Parse(text, &error);
    if (!parsed) {
      result.error = error;
      return result;
    }
    if (!(o.timeScale > 0)) {
      result.error = "time scale must be positive";
      return result;
    }

    server::WorldConfig config;
    config.stateDir = o.stateDir;
    if (config.stateDir.empty()) {
      std::string pattern = (fs::temp_directory_path() / "hxsim-XXXXXX").string();
      if (!mkdtemp(pattern.data())) {
        result.error = "cannot create a temporary state folder";
        return result;
      }
      impl_->tempDir = config.stateDir = pattern;
    }
    config.stateDir = fs::absolute(config.stateDir);
    config.deviceRoot = o.deviceRoot.empty() ? config.stateDir / "root" : fs::absolute(o.deviceRoot);
    config.timeScale = o.timeScale;
    config.seed = o.seed;
    config.scenario = *parsed;
    config.requestLog = o.requestLog;
    config.ramRoleName = o.ramRoleName;
    config.roleCredentialSeconds = o.roleCredentialSeconds;
    impl_->world = std::make_unique<server::World>(std::move(config));
    if (std::string e = impl_->world->Reset(); !e.empty()) {
      impl_->Cleanup();
      result.error = e;
      return result;
    }
    impl_->world->store().StartTicker();

    impl_->server = std::make_unique<server::Server>(*impl_->world);
    uint16_t bound = 0;
    if (std::string e = impl_->server->Start(o.bindAddress, o.port, &bound); !e.empty()) {
      impl_->Cleanup();
      result.error = e;
      return result;
    }
    impl_->port = bound;
    impl_->endpoint = "http://" + o.bindAddress + ":" + std::to_string(bound);
    {
      auto lock = impl_->world->store().Lock();  // the control endpoint reads it under this lock
      impl_->world->endpoint = impl_->endpoint;
    }

    const auto& s = impl_->world->config().scenario;
    impl_->proxyId = s.proxyInstanceId;
    for (const auto& i : s.instances) {
      if (i.id == s.proxyInstanceId) {
        impl_->proxyRegion = i.regionId;
        impl_->proxyZone = i.zoneId;
      }
    }
    const auto& key = s.accessKeys.front();
    impl_->demo = {key.id, key.secret, key.securityToken};
    result.port = bound;
    result.endpoint = impl_->endpoint;
  } catch (const std::exception& e) {
    impl_->Cleanup();
    result.error = std::string("cannot start the emulator: ") + e.what();
  }
  return result;
}

void Emulator::Stop() noexcept {
  if (impl_) impl_->Cleanup();
}

std::string Emulator::Reset() noexcept {
  if (!impl_->world) return "not running";
  try {
    return impl_->world->Reset();
  } catch (const std::exception& e) {
    return e.what();
  }
}

bool Emulator::Running() const noexcept { return impl_->server != nullptr; }
uint16_t Emulator::Port() const noexcept { return impl_->port; }
std::string Emulator::Endpoint() const noexcept { return impl_->endpoint; }
std::string Emulator::HostPort() const noexcept {
  return impl_->port ? impl_->options.bindAddress + ":" + std::to_string(impl_->port) : "";
}
std::string Emulator::MetadataEndpoint() const noexcept { return impl_->endpoint; }
fs::path Emulator::DeviceRoot() const noexcept {
  return impl_->world ? impl_->world->dataPlane().DeviceRoot() : fs::path{};
}
fs::path Emulator::ByIdDir() const noexcept { return impl_->world ? impl_->world->dataPlane().ByIdDir() : fs::path{}; }
fs::path Emulator::StateDir() const noexcept {
  return impl_->world ? impl_->world->dataPlane().StateDir() : fs::path{};
}
std::string Emulator::ProxyInstanceId() const noexcept { return impl_->world ? impl_->proxyId : ""; }
std::string Emulator::ProxyRegionId() const noexcept { return impl_->world ? impl_->proxyRegion : ""; }
std::string Emulator::ProxyZoneId() const noexcept { return impl_->world ? impl_->proxyZone : ""; }
Credentials Emulator::DemoCredentials() const noexcept { return impl_->world ? impl_->demo : Credentials{}; }

int Emulator::CredentialsIssued() const noexcept {
  return impl_->world ? impl_->world->credentialsIssued.load() : 0;
}

Credentials Emulator::BuiltInDemoCredentials() noexcept {
  try {
    auto s = scenario::Parse(scenario::DefaultScenarioJson(), nullptr);
    return {s->accessKeys.front().id, s->accessKeys.front().secret, ""};
  } catch (...) {
    return {};
  }
}

std::string Emulator::DefaultScenarioJson() noexcept {
  try {
    return scenario::DefaultScenarioJson();
  } catch (...) {
    return "";
  }
}

std::string Emulator::ValidateScenario(const std::string& json) noexcept {
  try {
    std::string error;
    return scenario::Parse(json, &error) ? "" : error;
  } catch (const std::exception& e) {
    return e.what();
  }
}

}  // namespace hxsim
