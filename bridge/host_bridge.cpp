// HostBridge: each operation forwards to Impl inside Impl::Run (exceptions become false +
// LastError), as CAliCloudSDKCppBridge does.
#include "hxbridge/HostBridge.h"

#include "bridge_impl.h"

namespace hxbridge {

HostBridge::HostBridge() : impl_(std::make_unique<AliCloudSDKCppBridge::CAliCloudSDKCppBridge::Impl>()) {}
HostBridge::~HostBridge() = default;

bool HostBridge::Connect(const std::string& accessKeyId, const std::string& accessKeySecret) {
    return impl_->Run([&] { impl_->Connect(accessKeyId, accessKeySecret); });
}
const std::string& HostBridge::LastError() const { return impl_->LastError(); }

bool HostBridge::ProxyInstanceId(std::string& id) {
    return impl_->Run([&] { impl_->GetLocalInstanceId(id); });
}
bool HostBridge::ListOwned(const std::string& regionId, std::vector<OwnedObject>& out) {
    return impl_->Run([&] { out = impl_->ListOwned(regionId); });
}
bool HostBridge::Remove(const std::vector<OwnedObject>& objects, RemovalReport& report) {
    report = RemovalReport{};
    if (!impl_->Run([&] { impl_->RemoveOwned(objects, report); })) return false;
    return report.failures.empty();
}
bool HostBridge::FinishRestore(const std::string& regionId, const std::string& instanceId) {
    return impl_->Run([&] { impl_->FinishRestore(regionId, instanceId); });
}
bool HostBridge::Regions(std::vector<std::string>& out) {
    return impl_->Run([&] { out = impl_->RegionIds(); });
}
bool HostBridge::DescribeZone(const std::string& regionId, const std::string& zoneId, ZoneOffer& out) {
    return impl_->Run([&] { out = impl_->DescribeZoneOffer(regionId, zoneId); });
}
bool HostBridge::DescribeInstance(const std::string& instanceId, VMInfoStructs::SVMInfo& out) {
    return impl_->Run([&] { impl_->GetVMInfoForVM(instanceId, out); });
}
bool HostBridge::InstancesNamed(const std::string& regionId, const std::string& name,
                                std::vector<VMInfoStructs::SVMInfo>& out) {
    return impl_->Run([&] {
        if (name.empty()) throw ApiError(ApiError::Kind::Client, "MissingParameter", "instance name is empty");
        impl_->GetVMInfoListForRegion(regionId, out, name);
    });
}

bool HostBridge::ParseConfigDocument(const std::string& text, VMInfoStructs::SVMInfo& out) {
    return impl_->Run([&] { impl_->GetVMInfoFromConfigFile(text, out); });
}
bool HostBridge::Ownership(const std::string& kind, const std::string& id, bool& exists, bool& owned) {
    return impl_->Run([&] { impl_->Ownership(kind, id, exists, owned); });
}

}  // namespace hxbridge
