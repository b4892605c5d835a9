// ECS answers to framework records, and the small naming tables.
#include <gtest/gtest.h>

#include "mapping.h"
#include "platform_names.h"

using namespace hxbridge;
using nlohmann::json;

namespace {

const json kInstance = json::parse(R"({
  "InstanceId": "i-bp1", "InstanceName": "web-1", "Description": "front", "RegionId": "cn-hangzhou",
  "ZoneId": "cn-hangzhou-k", "Status": "Running", "InstanceType": "ecs.g7.large", "ImageId": "ubuntu_22_04",
  "OSName": "Ubuntu 22.04 64 bit", "OSType": "linux", "Cpu": 2, "Memory": 8192, "HostName": "guest-host",
  "VpcAttributes": {"VpcId": "vpc-1", "VSwitchId": "vsw-1", "PrivateIpAddress": {"IpAddress": ["10.0.0.5"]}},
  "NetworkInterfaces": {"NetworkInterface": [
     {"NetworkInterfaceId": "eni-2", "MacAddress": "00:16:3e:00:00:02", "PrimaryIpAddress": "10.0.0.9", "Type": "Secondary"},
     {"NetworkInterfaceId": "eni-1", "MacAddress": "00:16:3e:00:00:01", "PrimaryIpAddress": "10.0.0.5", "Type": "Primary"}]},
  "SecurityGroupIds": {"SecurityGroupId": ["sg-1", "sg-2"]}
})");

TEST(Mapping, InstanceRecord) {
    auto vm = InstanceFromJson(kInstance, "x86_64");
    EXPECT_EQ(vm.guid, "i-bp1");
    EXPECT_EQ(vm.name, "web-1");
    EXPECT_EQ(vm.hostName, "cn-hangzhou-k");  // the zone, not the guest's HostName
    EXPECT_EQ(vm.regionId, "cn-hangzhou");
    EXPECT_EQ(vm.guestOS, "Ubuntu 22.04 64 bit;x86_64");
    EXPECT_EQ(vm.vmProfile, "ecs.g7.large");
    EXPECT_EQ(vm.powerState, 1u);
    EXPECT_EQ(vm.cpuCount, 2);
    EXPECT_EQ(vm.memoryMiB, 8192);
    ASSERT_EQ(vm.networkCards.size(), 2u);
    const auto& primary = vm.networkCards[1];
    EXPECT_TRUE(primary.primary);
    EXPECT_EQ(primary.networkInterfaceId, "eni-1");
    EXPECT_EQ(primary.vSwitchId, "vsw-1");
    EXPECT_EQ(primary.vpcId, "vpc-1");
    EXPECT_EQ(primary.privateIp, "10.0.0.5");
    EXPECT_EQ(primary.macAddress, "00:16:3e:00:00:01");
    EXPECT_FALSE(vm.networkCards[0].primary);
    EXPECT_EQ(vm.networkCards[0].vSwitchId, "");  // ECS does not say for secondary cards
    ASSERT_EQ(vm.securityGroups.size(), 2u);
    EXPECT_EQ(vm.securityGroups[1].id, "sg-2");
}

TEST(Mapping, InstanceWithoutInterfaceEntriesGetsOnePrimaryCard) {
    json i = kInstance;
    i.erase("NetworkInterfaces");
    auto vm = InstanceFromJson(i, "arm64");
    ASSERT_EQ(vm.networkCards.size(), 1u);
    EXPECT_TRUE(vm.networkCards[0].primary);
    EXPECT_EQ(vm.networkCards[0].privateIp, "10.0.0.5");
    EXPECT_EQ(vm.guestOS, "Ubuntu 22.04 64 bit;arm64");
}

TEST(Mapping, DiskRecordUnitsAndKinds) {
    auto d = DiskFromJson(json::parse(R"({"DiskId":"d-1","DiskName":"sys","Size":40,"Type":"system",
        "Category":"cloud_essd","PerformanceLevel":"PL1","ZoneId":"cn-hangzhou-k","SerialNumber":"bp1abc",
        "Encrypted":true,"Device":"/dev/xvda","Status":"In_use"})"));
    EXPECT_EQ(d.diskId, "d-1");
    EXPECT_EQ(d.diskSize, 40);
    EXPECT_EQ(d.size, 40LL * 1024 * 1024 * 1024);
    EXPECT_TRUE(d.isOSDisk);
    EXPECT_EQ(d.diskType, 1u);
    EXPECT_TRUE(d.createFlag);
    EXPECT_EQ(d.serialNumber, "bp1abc");
    EXPECT_EQ(d.zone, "cn-hangzhou-k");

    auto local = DiskFromJson(json::parse(R"({"DiskId":"d-2","Size":"100","Type":"data","Category":"local_ssd_pro"})"));
    EXPECT_EQ(local.diskType, 0u);
    EXPECT_FALSE(local.isOSDisk);
    EXPECT_EQ(local.diskSize, 100);  // sizes as strings are read too
}

TEST(Mapping, InstanceTypeRecord) {
    auto t = InstanceTypeFromJson(json::parse(
        R"({"InstanceTypeId":"ecs.g7.large","CpuCoreCount":2,"MemorySize":8.0,"DiskQuantity":17,"CpuArchitecture":"X86"})"));
    EXPECT_EQ(t.name, "ecs.g7.large");
    EXPECT_EQ(t.specValue1, 2);
    EXPECT_EQ(t.specValue2, 8192);
    EXPECT_EQ(t.maxDisks, 17);
    EXPECT_EQ(InstanceTypeFromJson(json::parse(R"({"InstanceTypeId":"t","MemorySize":0.5})")).specValue2, 512);
}

TEST(PlatformNames, FromDisplayNames) {
    struct Case {
        const char* os;
        const char* platform;
    } cases[] = {
        {"Ubuntu 22.04 64 bit", "Ubuntu"},
        {"CentOS 7.9 64位", "CentOS"},
        {"CentOS Stream 9 64 bit", "CentOS Stream"},
        {"Alibaba Cloud Linux 3.2104 LTS 64 bit", "Aliyun"},
        {"Windows Server 2012 R2 数据中心版 64位中文版", "Windows Server 2012"},
        {"Windows Server  2016 Datacenter Edition 64bit Chinese Edition", "Windows Server 2016"},
        {"Windows Server  2008 R2 Enterprise 64bit", "Windows Server 2008"},
        {"Windows 11", "Windows Server 2022"},
        {"Red Hat Enterprise Linux 9", "RedHat"},
        {"Kylin Linux Advanced Server V10", "Kylin"},
        {"UOS Server 20 1070e", "UOS"},
        {"Gentoo 2.14", "Gentoo"},
        {"Fedora CoreOS 39", "Fedora CoreOS"},
        {"Fedora 39 64 bit", "Fedora"},
        {"openSUSE 15.5 64 bit", "OpenSUSE"},
        {"Arch Linux", "Others Linux"},
    };
    for (const auto& c : cases) EXPECT_EQ(ImagePlatformFor(c.os), c.platform) << c.os;
}

}  // namespace
