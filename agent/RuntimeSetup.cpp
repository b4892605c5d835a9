#include "RuntimeSetup.h"

#include "hxruntime/HostApi.h"

namespace hxagent {

bool ApplyRuntimeConfig(const RuntimeConfig& c, std::string& error) {
    if (!hxruntime::SetStateDirectory(c.stateDir)) {
        error = "state folder " + c.stateDir + " cannot be used";
        return false;
    }
    hxruntime::SetCleanerDatabasePath("");  // <state folder>/cleaner.db
    if (!hxruntime::SetLogDirectory(c.logDir)) {
        error = "log folder " + c.logDir + " cannot be created";
        return false;
    }
    hxruntime::SetApplicationName("hxagent");
    hxruntime::SetFocusName("hxagent");
    hxruntime::SetLogVerbosity(c.verbosity);
    hxruntime::SetLogEcho(c.echo);
    if (!hxruntime::SetTimeScale(c.timeScale)) {
        error = "time scale " + std::to_string(c.timeScale) + " is outside 0..1000";
        return false;
    }
    if (!hxruntime::SetJobId(c.jobId)) {
        error = "job id " + std::to_string(c.jobId) + " is refused";
        return false;
    }
    hxruntime::SetDeviceRoots(c.devRoot, c.sysRoot);
    hxruntime::ClearCancel();
    return true;
}

}  // namespace hxagent
