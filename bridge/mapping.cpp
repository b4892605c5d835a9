#include "mapping.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "json_util.h"

namespace hxbridge {

using nlohmann::json;
using namespace hxbridge::jv;

bool IsCloudDiskCategory(const std::string& category) {
    return category.rfind("cloud", 0) == 0 || category.rfind("elastic_ephemeral_disk", 0) == 0;
}

std::int64_t MinimumDiskSizeGiB(const std::string& category, const std::string& performanceLevel) {
    if (category == "cloud") return 5;
    if (category == "cloud_efficiency" || category == "cloud_ssd") return 20;
    if (category == "cloud_essd_entry") return 10;
    if (category == "cloud_essd") {
        if (performanceLevel == "PL0") return 1;
        if (performanceLevel == "PL2") return 461;
        if (performanceLevel == "PL3") return 1261;
        return 20;
    }
    return 1;
}

VMInfoStructs::SDisk DiskFromJson(const nlohmann::json& disk) {
    VMInfoStructs::SDisk d;
    d.diskId = Str(disk, "DiskId");
    d.diskName = Str(disk, "DiskName");
    d.diskSize = Int(disk, "Size");
    d.size = d.diskSize * kBytesPerGiB;
    d.category = Str(disk, "Category");
    d.performanceLevel = Str(disk, "PerformanceLevel");
    d.zone = Str(disk, "ZoneId");
    d.isOSDisk = Str(disk, "Type") == "system";
    d.diskType = IsCloudDiskCategory(d.category) ? 1u : 0u;
    d.createFlag = Bool(disk, "Encrypted");
    d.serialNumber = Str(disk, "SerialNumber");
    d.diskLabel = Str(disk, "Device");
    return d;
}

std::string OsNameOf(const nlohmann::json& instance) {
    std::string os = Str(instance, "OSName");
    return os.empty() ? Str(instance, "OSNameEn") : os;
}

std::string ArchitectureOf(const std::string& cpuArchitecture, const std::string& osName) {
    std::string cpu = cpuArchitecture;
    std::transform(cpu.begin(), cpu.end(), cpu.begin(), [](unsigned char c) { return std::tolower(c); });
    if (cpu == "arm" || cpu == "arm64" || cpu == "aarch64") return "arm64";
    if (osName.find("32 bit") != std::string::npos || osName.find("32位") != std::string::npos ||
        osName.find("32-bit") != std::string::npos) {
        return "i386";
    }
    return "x86_64";
}

VMInfoStructs::SVMInfo InstanceFromJson(const nlohmann::json& instance, const std::string& architecture) {
    VMInfoStructs::SVMInfo vm;
    vm.guid = Str(instance, "InstanceId");
    vm.name = Str(instance, "InstanceName");
    vm.description = Str(instance, "Description");
    vm.regionId = Str(instance, "RegionId");
    vm.hostName = Str(instance, "ZoneId");
    vm.status = Str(instance, "Status");
    vm.powerState = (vm.status == "Running" || vm.status == "Starting") ? 1u : 0u;
    vm.vmProfile = Str(instance, "InstanceType");
    vm.imageId = Str(instance, "ImageId");
    vm.cpuCount = static_cast<std::int32_t>(Int(instance, "Cpu"));
    vm.memoryMiB = Int(instance, "Memory");
    vm.guestOS = OsNameOf(instance) + ";" + architecture;

    json vpc = instance.contains("VpcAttributes") ? instance["VpcAttributes"] : json::object();
    const std::string vpcId = Str(vpc, "VpcId");
    const std::string vSwitchId = Str(vpc, "VSwitchId");
    std::string vpcIp;
    if (vpc.is_object() && vpc.contains("PrivateIpAddress")) {
        auto ips = WrappedList(vpc, "PrivateIpAddress", "IpAddress");
        if (!ips.empty() && ips.front().is_string()) vpcIp = ips.front().get<std::string>();
    }
    for (const json& ni : WrappedList(instance, "NetworkInterfaces", "NetworkInterface")) {
        VMInfoStructs::SVMNetworkCard card;
        card.networkInterfaceId = Str(ni, "NetworkInterfaceId");
        card.macAddress = Str(ni, "MacAddress");
        card.privateIp = Str(ni, "PrimaryIpAddress");
        const std::string type = Str(ni, "Type", "Primary");
        card.primary = type == "Primary";
        card.vpcId = vpcId;
        if (card.primary) {
            card.vSwitchId = vSwitchId;
            if (card.privateIp.empty()) card.privateIp = vpcIp;
        }
        vm.networkCards.push_back(card);
    }
    if (vm.networkCards.empty() && (!vpcId.empty() || !vSwitchId.empty())) {
        VMInfoStructs::SVMNetworkCard card;
        card.vpcId = vpcId;
        card.vSwitchId = vSwitchId;
        card.privateIp = vpcIp;
        card.primary = true;
        vm.networkCards.push_back(card);
    }
    for (const json& sg : WrappedList(instance, "SecurityGroupIds", "SecurityGroupId")) {
        if (sg.is_string()) vm.securityGroups.push_back({sg.get<std::string>(), {}});
    }
    return vm;
}

VMInfoStructs::SVMSizeInfo InstanceTypeFromJson(const nlohmann::json& type) {
    VMInfoStructs::SVMSizeInfo s;
    s.name = Str(type, "InstanceTypeId");
    s.specValue1 = static_cast<std::int32_t>(Int(type, "CpuCoreCount"));
    double gib = 0;
    if (auto it = type.find("MemorySize"); it != type.end()) {
        if (it->is_number()) gib = it->get<double>();
        else if (it->is_string()) gib = std::atof(it->get<std::string>().c_str());
    }
    s.specValue2 = static_cast<std::int32_t>(std::llround(gib * 1024));
    s.maxDisks = static_cast<std::int32_t>(Int(type, "DiskQuantity"));
    return s;
}

VMInfoStructs::SDataCenterInfo RegionFromJson(const nlohmann::json& region) {
    VMInfoStructs::SDataCenterInfo dc;
    dc.name = Str(region, "RegionId");
    dc.localName = Str(region, "LocalName");
    return dc;
}

VMInfoStructs::SHostInfo ZoneFromJson(const nlohmann::json& zone, const std::string& regionId) {
    VMInfoStructs::SHostInfo h;
    h.name = Str(zone, "ZoneId");
    h.regionId = regionId;
    return h;
}

}  // namespace hxbridge
