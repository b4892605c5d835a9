// The one entry point the framework looks up in the plug-in library.
#include <new>

#include "AliCloudInfo.h"
#include "LogTags.h"

extern "C" __attribute__((visibility("default"))) int CreateAliCloudInfoObject(VirtualServerInstanceType type,
                                                                                IVMInfo** out) {
    EvDebug log;
    log.DebugLvl(AliCloudLogTags::kCreateAliCloudInfoObject, 2, "Creating AliCloudInfo object");
    CAliCloudInfo* object = nullptr;
    try {
        object = new (std::nothrow) CAliCloudInfo(type);
    } catch (...) {
        // A member's constructor failed; what was built has been unwound.
        object = nullptr;
    }
    *out = object;
    return object ? 1 : 0;
}
