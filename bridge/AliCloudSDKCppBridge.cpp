// CAliCloudSDKCppBridge: each operation forwards to Impl inside Impl::Run, which turns
// every exception into false + GetLastError. Nothing here throws.
#include "AliCloudSDKCppBridge.h"

#include "bridge_impl.h"

namespace AliCloudSDKCppBridge {

using namespace VMInfoStructs;

CAliCloudSDKCppBridge::CAliCloudSDKCppBridge() : impl(std::make_unique<Impl>()) {}
CAliCloudSDKCppBridge::~CAliCloudSDKCppBridge() = default;

bool CAliCloudSDKCppBridge::Connect(const std::string& userName, const std::string& password) {
    return impl->Run([&] { impl->Connect(userName, password); });
}
bool CAliCloudSDKCppBridge::Disconnect() {
    return impl->Run([&] { impl->Disconnect(); });
}
std::string CAliCloudSDKCppBridge::GetLastError() {
    try {
        return impl->LastError();
    } catch (...) {
        return {};
    }
}

bool CAliCloudSDKCppBridge::GetDCInfoList(std::vector<SDataCenterInfo>& out, UINT64 flags, UINT64) {
    return impl->Run([&] { impl->GetDCInfoList(out, flags); });
}
bool CAliCloudSDKCppBridge::GetDCInfoForDC(const std::string& regionId, UINT64 flags, UINT64, SDataCenterInfo& out) {
    return impl->Run([&] { impl->GetDCInfoForDC(regionId, flags, out); });
}
bool CAliCloudSDKCppBridge::GetHostInfoList(std::vector<SHostInfo>& out, UINT64 flags, UINT64) {
    return impl->Run([&] { impl->GetHostInfoList(out, flags); });
}
bool CAliCloudSDKCppBridge::GetHostInfoForHost(const std::string& zoneId, UINT64 flags, UINT64, SHostInfo& out,
                                               const std::string& regionId) {
    return impl->Run([&] { impl->GetHostInfoForHost(zoneId, flags, out, regionId); });
}
bool CAliCloudSDKCppBridge::GetVMInfoList(std::vector<SVMInfo>& out) {
    return impl->Run([&] { impl->GetVMInfoList(out); });
}
bool CAliCloudSDKCppBridge::RefreshVMInfoCache() {
    return impl->Run([&] { impl->RefreshVMInfoCache(); });
}
bool CAliCloudSDKCppBridge::GetVMInfoListForRegion(const std::string& regionId, std::vector<SVMInfo>& out,
                                                   const std::string& instanceName) {
    return impl->Run([&] { impl->GetVMInfoListForRegion(regionId, out, instanceName); });
}
bool CAliCloudSDKCppBridge::GetInstanceTypesForZone(const std::string& regionId, const std::string& zoneId,
                                                    std::vector<SVMSizeInfo>& out) {
    return impl->Run([&] { impl->GetInstanceTypesForZone(regionId, zoneId, out); });
}
bool CAliCloudSDKCppBridge::GetInstanceTypesForRegion(const std::string& regionId, std::vector<SVMSizeInfo>& out) {
    return impl->Run([&] { impl->GetInstanceTypesForRegion(regionId, out); });
}

bool CAliCloudSDKCppBridge::GetVMInfoForVM(const std::string& instanceId, SVMInfo& out, UINT64, int) {
    return impl->Run([&] { impl->GetVMInfoForVM(instanceId, out); });
}
bool CAliCloudSDKCppBridge::GetVMInfoAndConfigFile(const std::string& instanceId, UINT64, int, SVMInfo& out,
                                                   std::string& configText) {
    return impl->Run([&] { impl->GetVMInfoAndConfigFile(instanceId, out, configText); });
}
bool CAliCloudSDKCppBridge::GetVMInfoFromConfigFile(const std::string& configText, SVMInfo& out) {
    return impl->Run([&] { impl->GetVMInfoFromConfigFile(configText, out); });
}
bool CAliCloudSDKCppBridge::CreateInstance(const SVMInfo& vmInfo, const std::string& imageId,
                                           const std::string& configText, std::string& newInstanceId) {
    return impl->Run([&] { impl->CreateInstance(vmInfo, imageId, configText, newInstanceId); });
}
bool CAliCloudSDKCppBridge::AddPeripheralComponents(const SVMInfo& vmInfo, const std::string& configText) {
    return impl->Run([&] { impl->AddPeripheralComponents(vmInfo, configText); });
}
bool CAliCloudSDKCppBridge::PowerOnInstance(const std::string& instanceId) {
    return impl->Run([&] { impl->PowerOnInstance(instanceId); });
}
bool CAliCloudSDKCppBridge::PowerOffInstance(const std::string& instanceId, bool forceStop, bool waitUntilStopped,
                                             bool stopCharging) {
    return impl->Run([&] { impl->PowerOffInstance(instanceId, forceStop, waitUntilStopped, stopCharging); });
}
bool CAliCloudSDKCppBridge::GetInstanceStatus(const std::string& instanceId, std::string& status) {
    return impl->Run([&] { impl->GetInstanceStatus(instanceId, status); });
}
bool CAliCloudSDKCppBridge::DeleteInstance(const std::string& instanceId) {
    return impl->Run([&] { impl->DeleteInstance(instanceId); });
}
bool CAliCloudSDKCppBridge::GetLocalInstanceId(std::string& instanceId) {
    return impl->Run([&] { impl->GetLocalInstanceId(instanceId); });
}

bool CAliCloudSDKCppBridge::CreateDisk(const std::string& regionId, const std::string& zoneId, SDisk& disk,
                                       const std::string& snapshotId, const std::string& diskName,
                                       const std::string& category, long long sizeGiB, bool encrypted,
                                       const std::string& description) {
    return impl->Run(
        [&] { impl->CreateDisk(regionId, zoneId, disk, snapshotId, diskName, category, sizeGiB, encrypted, description); });
}
bool CAliCloudSDKCppBridge::GetDiskInfo(const std::string& regionId, const std::string& diskId, SDisk& out) {
    return impl->Run([&] { impl->GetDiskInfo(regionId, diskId, out); });
}
bool CAliCloudSDKCppBridge::DoesDiskExist(const std::string& regionId, const std::string& diskId, bool& exists) {
    return impl->Run([&] { impl->DoesDiskExist(regionId, diskId, exists); });
}
bool CAliCloudSDKCppBridge::AttachDisk(const std::string& instanceId, const std::string& diskId, bool& limitReached,
                                       bool waitUntilAttached) {
    return impl->Run([&] { impl->AttachDisk(instanceId, diskId, limitReached, waitUntilAttached); });
}
bool CAliCloudSDKCppBridge::DetachDisk(const std::string& instanceId, const std::string& diskId,
                                       const std::string& regionId) {
    return impl->Run([&] { impl->DetachDisk(instanceId, diskId, regionId); });
}
bool CAliCloudSDKCppBridge::DeleteDisk(const std::string& diskId) {
    return impl->Run([&] { impl->DeleteDisk(diskId); });
}

bool CAliCloudSDKCppBridge::CreateSnapshot(const std::string& diskId, SChildDisk& snapshot,
                                           const std::string& snapshotName, const std::string& description) {
    return impl->Run([&] { impl->CreateSnapshot(diskId, snapshot, snapshotName, description); });
}
bool CAliCloudSDKCppBridge::IsSnapshotCompleted(const std::string& regionId, const std::string& snapshotId,
                                                bool& completed) {
    return impl->Run([&] { impl->IsSnapshotCompleted(regionId, snapshotId, completed); });
}
bool CAliCloudSDKCppBridge::DoesSnapshotExist(const std::string& regionId, const std::string& snapshotId,
                                              bool& exists) {
    return impl->Run([&] { impl->DoesSnapshotExist(regionId, snapshotId, exists); });
}
bool CAliCloudSDKCppBridge::DeleteSnapshot(const std::string& snapshotId) {
    return impl->Run([&] { impl->DeleteSnapshot(snapshotId); });
}
bool CAliCloudSDKCppBridge::CreateImageFromDiskSnapshots(const std::string& regionId,
                                                         const std::string& systemSnapshotId,
                                                         const std::vector<std::string>& dataSnapshotIds,
                                                         const std::string& architecture, const std::string& platform,
                                                         std::string& imageId, const std::string& imageName,
                                                         const std::string& description) {
    return impl->Run([&] {
        impl->CreateImageFromDiskSnapshots(regionId, systemSnapshotId, dataSnapshotIds, architecture, platform, imageId,
                                           imageName, description);
    });
}
bool CAliCloudSDKCppBridge::DeleteImage(const std::string& regionId, const std::string& imageId, bool force) {
    return impl->Run([&] { impl->DeleteImage(regionId, imageId, force); });
}

}  // namespace AliCloudSDKCppBridge
