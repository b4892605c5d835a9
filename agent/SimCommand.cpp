#include "SimCommand.h"

#include <time.h>

#include <iostream>
#include <nlohmann/json.hpp>

#include "CloudTarget.h"
#include "Errors.h"
#include "Signals.h"
#include "hxsim/Emulator.h"

namespace hxagent {

int RunSim(const SimRequestOptions& o) {
    hxsim::Options options;
    options.port = o.port;
    options.stateDir = o.stateDir;
    options.scenarioFile = o.scenario;
    options.timeScale = o.timeScale;
    hxsim::Emulator emulator(options);
    auto started = emulator.Start();
    if (!started.ok()) {
        std::cerr << "hxagent: error: the emulator did not start: " << started.error << "\n";
        return kExitLocal;
    }
    // The scenario's demo AccessKey is public (it is in the emulator's source): printing it
    // is how another shell gets to use this emulator.
    auto keys = emulator.DemoCredentials();
    char scale[32];
    std::snprintf(scale, sizeof scale, "%.6g", o.timeScale > 1 ? 1.0 : o.timeScale);
    if (o.json) {
        std::cout << nlohmann::json{{"endpoint", started.endpoint},
                                    {"metadataEndpoint", emulator.MetadataEndpoint()},
                                    {"deviceRoot", emulator.DeviceRoot().string()},
                                    {"stateDir", emulator.StateDir().string()},
                                    {"proxyInstanceId", emulator.ProxyInstanceId()},
                                    {"regionId", emulator.ProxyRegionId()},
                                    {"zoneId", emulator.ProxyZoneId()},
                                    {"accessKeyId", keys.accessKeyId},
                                    {"accessKeySecret", keys.accessKeySecret},
                                    {"timeScale", o.timeScale}}
                         .dump()
                  << std::endl;
    } else {
        std::cout << "ECS emulator listening on " << started.endpoint << " (time scale " << o.timeScale << ")\n"
                  << "  proxy instance " << emulator.ProxyInstanceId() << " in " << emulator.ProxyZoneId() << "\n"
                  << "  disks attached to the proxy appear in " << emulator.ByIdDir().string() << "\n"
                  << "Use it from another shell with:\n"
                  << "  export ALIBABA_CLOUD_ECS_ENDPOINT=" << started.endpoint << "\n"
                  << "  export ALIBABA_CLOUD_METADATA_ENDPOINT=" << emulator.MetadataEndpoint() << "\n"
                  << "  export ALIBABA_CLOUD_ACCESS_KEY_ID=" << keys.accessKeyId << "\n"
                  << "  export ALIBABA_CLOUD_ACCESS_KEY_SECRET=" << keys.accessKeySecret << "\n"
                  << "  export ALIBABA_CLOUD_BRIDGE_TIME_SCALE=" << scale << "\n"
                  << "Ctrl-C stops it." << std::endl;
    }
    InstallCancelHandlers();
    while (CancelSignalsReceived() == 0) {
        struct timespec ts{0, 50 * 1000 * 1000};
        ::nanosleep(&ts, nullptr);
    }
    emulator.Stop();
    return kExitOk;
}

}  // namespace hxagent
