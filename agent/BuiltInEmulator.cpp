#include "BuiltInEmulator.h"

#include "hxsim/Emulator.h"

namespace hxagent {

bool HasBuiltInEmulator() { return true; }

void EmulatorStop::operator()(hxsim::Emulator* emulator) const {
    emulator->Stop();
    delete emulator;
}

bool StartBuiltInEmulator(double timeScale, const std::string& stateDir, const std::string& scenarioFile,
                          EmulatorHandle& emulator, EmbeddedWorld& world, std::string& error) {
    hxsim::Options options;
    options.timeScale = timeScale;
    options.stateDir = stateDir;
    options.scenarioFile = scenarioFile;
    EmulatorHandle started(new hxsim::Emulator(options));
    auto result = started->Start();
    if (!result.ok()) {
        error = "the built-in emulator did not start: " + result.error;
        return false;
    }
    world.endpoint = result.endpoint;
    world.metadataEndpoint = started->MetadataEndpoint();
    world.devRoot = (started->DeviceRoot() / "dev").string();
    world.sysRoot = (started->DeviceRoot() / "sys").string();
    world.region = started->ProxyRegionId();
    auto demo = started->DemoCredentials();
    world.credentials = {demo.accessKeyId, demo.accessKeySecret, demo.securityToken, "", "the built-in emulator"};
    emulator = std::move(started);
    return true;
}

}  // namespace hxagent
