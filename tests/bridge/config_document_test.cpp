// The instance configuration document: round trip, and refusal of what it cannot read.
#include <gtest/gtest.h>

#include "api_error.h"
#include "config_document.h"

using namespace hxbridge;
using nlohmann::json;

namespace {

ConfigDocument Sample() {
    ConfigDocument doc;
    doc.createdAt = "2024-05-01T10:00:00Z";
    doc.regionId = "cn-hangzhou";
    doc.architecture = "x86_64";
    doc.instance = json::parse(R"({"InstanceId":"i-1","InstanceName":"db","ZoneId":"cn-hangzhou-k",
        "InstanceType":"ecs.g7.large","OSName":"Debian 12 64 bit","Status":"Stopped","Description":"main db",
        "Tags":{"Tag":[{"TagKey":"team","TagValue":"data"},{"TagKey":"acs:system","TagValue":"x"},
                        {"TagKey":"aliyun-managed","TagValue":"y"}]}})");
    doc.disks = {json::parse(R"({"DiskId":"d-data","DiskName":"data","Size":100,"Type":"data",
                                  "Category":"cloud_essd","ZoneId":"cn-hangzhou-k"})"),
                 json::parse(R"({"DiskId":"d-sys","DiskName":"sys","Size":40,"Type":"system",
                                  "Category":"cloud_auto","ZoneId":"cn-hangzhou-k"})")};
    doc.instanceType = json::parse(R"({"InstanceTypeId":"ecs.g7.large","DiskQuantity":17})");
    return doc;
}

TEST(ConfigDocument, RoundTripGivesTheInstanceWithItsDisksSystemFirst) {
    const std::string text = Sample().Serialize();
    const ConfigDocument back = ConfigDocument::Parse(text);
    EXPECT_EQ(back.version, 1);
    EXPECT_EQ(back.instanceType["DiskQuantity"], 17);
    auto vm = back.ToVMInfo();
    EXPECT_EQ(vm.guid, "i-1");
    EXPECT_EQ(vm.name, "db");
    EXPECT_EQ(vm.regionId, "cn-hangzhou");  // from the document when the instance lacks it
    EXPECT_EQ(vm.hostName, "cn-hangzhou-k");
    EXPECT_EQ(vm.guestOS, "Debian 12 64 bit;x86_64");
    EXPECT_EQ(vm.description, "main db");
    ASSERT_EQ(vm.disks.size(), 2u);
    const auto& sys = vm.disks[0];
    EXPECT_EQ(sys.diskId, "d-sys");
    EXPECT_TRUE(sys.isOSDisk);
    EXPECT_EQ(sys.diskType, 1u);
    EXPECT_EQ(sys.diskSize, 40);
    EXPECT_EQ(sys.size, 40LL << 30);
    EXPECT_EQ(sys.category, "cloud_auto");
    EXPECT_EQ(sys.zone, "cn-hangzhou-k");
    EXPECT_EQ(sys.diskName, "sys");
    EXPECT_EQ(vm.disks[1].diskId, "d-data");
    EXPECT_FALSE(vm.disks[1].isOSDisk);
    ASSERT_NE(back.SystemDisk(), nullptr);
    EXPECT_EQ((*back.SystemDisk())["DiskId"], "d-sys");
}

TEST(ConfigDocument, UserTagsLeaveOutReservedKeys) {
    auto tags = Sample().UserTags();
    ASSERT_EQ(tags.size(), 1u);
    EXPECT_EQ(tags[0], (std::pair<std::string, std::string>{"team", "data"}));
}

TEST(ConfigDocument, RefusesWhatItCannotRead) {
    json good = json::parse(Sample().Serialize());
    struct Case {
        std::string name;
        std::string text;
        std::string code;
    };
    std::vector<Case> cases;
    cases.push_back({"not json", "{oops", "InvalidConfigDocument"});
    cases.push_back({"array", "[]", "InvalidConfigDocument"});
    {
        json j = good;
        j["kind"] = "something.else";
        cases.push_back({"foreign kind", j.dump(), "InvalidConfigDocument"});
    }
    {
        json j = good;
        j["version"] = 2;
        cases.push_back({"newer version", j.dump(), "UnsupportedConfigDocumentVersion"});
    }
    {
        json j = good;
        j["version"] = "1";
        cases.push_back({"version as text", j.dump(), "InvalidConfigDocument"});
    }
    {
        json j = good;
        j["instance"].erase("InstanceId");
        cases.push_back({"no instance id", j.dump(), "InvalidConfigDocument"});
    }
    {
        json j = good;
        j["disks"] = "d-1";
        cases.push_back({"disks not a list", j.dump(), "InvalidConfigDocument"});
    }
    for (const auto& c : cases) {
        try {
            ConfigDocument::Parse(c.text);
            ADD_FAILURE() << c.name << ": accepted";
        } catch (const ApiError& e) {
            EXPECT_EQ(e.code(), c.code) << c.name;
        }
    }
    try {
        json j = good;
        j["version"] = 7;
        ConfigDocument::Parse(j.dump());
    } catch (const ApiError& e) {
        EXPECT_NE(e.Describe().find("version 7 is not supported"), std::string::npos) << e.Describe();
    }
}

}  // namespace
