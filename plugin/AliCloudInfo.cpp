// The plug-in object's life and its session with the cloud.
#include "AliCloudInfo.h"

#include "FxUtil.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

namespace {
// The framework's job id when no job is running.
constexpr long long kNoJobId = -123456;
}  // namespace

CAliCloudInfo::CAliCloudInfo(VirtualServerInstanceType type)
    : CVMInfo(type),
      bridge(nullptr),
      jobId(0),
      localIdDetected(false),
      diskMapper(nullptr),
      diskInfo(nullptr),
      backupOrphansCleaned(false) {
    // If the mapper cannot be made the bridge must not leak: own it until both exist.
    std::unique_ptr<AliCloudSDKCppBridge::CAliCloudSDKCppBridge> newBridge(new AliCloudSDKCppBridge::CAliCloudSDKCppBridge());
    diskMapper = new CDiskMapper();
    bridge = newBridge.release();
}

CAliCloudInfo::~CAliCloudInfo() {
    delete bridge;
    bridge = nullptr;
    delete diskMapper;
    diskMapper = nullptr;
    if (diskInfo) {
        delete diskInfo;
        diskInfo = nullptr;
    }
}

int CAliCloudInfo::Init() {
    SetLastVMError(VMINFO_ERR_NONE);
    jobId = log.getJobId();
    log.Debug(kInit, "AliCloudInfo Focus: [%s] App: [%s] JobId: [%lld]", HXPI_Focus::getFocus(),
              EvDebug::getApplicationName(), jobId);
    if (jobId == kNoJobId) {
        log.Debug(kInit, "AliCloudInfo Focus: Job ID is -123456 setting it to Zero.");
        jobId = 0;
    }
    return 1;
}

int CAliCloudInfo::DeInit() {
    SetLastVMError(VMINFO_ERR_NONE);
    return 1;
}

int CAliCloudInfo::Connect(const string& /*server: ECS needs none; the bridge picks the endpoint*/,
                           const string& user, const string& pass) {
    Init();  // virtual on purpose: every connect starts with a cleared error and a fresh job id
    userName = user;
    password = pass;
    log.Debug(kConnect, "Connecting with user name [%s].", userName);
    if (!bridge->Connect(userName, password)) {
        log.Error(kConnect, "Connect failed.");
        return 0;
    }
    log.Debug(kConnect, "Connection successful.");
    return 1;
}

int CAliCloudInfo::Disconnect() {
    SetLastVMError(VMINFO_ERR_NONE);
    return bridge->Disconnect() ? 1 : 0;
}

// File-level mounts and metadata collection are not offered for ECS instances.
int CAliCloudInfo::GetFileMountInfo(const MountCtx&, vector<SMountInfoFile>&) { return 0; }
int CAliCloudInfo::CollectMetadata(const MountCtx&) { return 0; }
