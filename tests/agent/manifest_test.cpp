#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>

#include "Manifest.h"

namespace hxagent {
namespace {

Manifest Sample() {
    Manifest m;
    m.instanceId = "i-abc";
    m.instanceName = "web";
    m.regionId = "cn-hangzhou";
    m.zoneId = "cn-hangzhou-h";
    m.instanceType = "ecs.g7.large";
    m.guestOS = "Alibaba Cloud Linux;x86_64";
    m.jobStamp = "20240101T000000Z";
    m.jobId = 1704067200;
    m.configFile = "i-abc_InstanceConfig.json";
    ManifestDisk d;
    d.id = "d-sys";
    d.isOSDisk = true;
    d.size = 1ull << 30;
    d.diskSize = 1;
    d.category = "cloud_essd";
    d.image = "d-sys.img";
    d.blockSha256 = std::string(64, 'a');
    d.dataBytes = 4096;
    m.disks.push_back(d);
    d.id = "d-data";
    d.isOSDisk = false;
    d.size = 3ull << 30;
    d.diskSize = 3;
    d.category = "cloud_auto";
    d.encrypted = true;
    d.image = "d-data.img";
    d.blockSha256 = std::string(64, 'b');
    m.disks.push_back(d);
    m.totalSeconds = 1.5;
    return m;
}

TEST(Manifest, RoundTripKeepsWhatRestoreNeeds) {
    Manifest in = Sample(), out;
    std::string error;
    ASSERT_TRUE(ManifestFromJson(ManifestToJson(in), out, error)) << error;
    EXPECT_EQ(out.instanceId, in.instanceId);
    EXPECT_EQ(out.zoneId, in.zoneId);
    EXPECT_EQ(out.configFile, in.configFile);
    ASSERT_EQ(out.disks.size(), 2u);
    EXPECT_TRUE(out.disks[0].isOSDisk);
    EXPECT_EQ(out.disks[1].size, 3ull << 30);
    EXPECT_EQ(out.disks[1].diskSize, 3);
    EXPECT_EQ(out.disks[1].category, "cloud_auto");
    EXPECT_TRUE(out.disks[1].encrypted);
    EXPECT_EQ(out.disks[1].blockSha256, std::string(64, 'b'));
    EXPECT_EQ(DigestKindOf(out.disks[1]), io::DigestKind::kBlockSha256);
    EXPECT_DOUBLE_EQ(out.totalSeconds, 1.5);
}

TEST(Manifest, RefusesDocumentsRestoreCannotTrust) {
    using nlohmann::json;
    const json good = json::parse(ManifestToJson(Sample()));
    struct Case {
        const char* what;
        std::function<void(json&)> spoil;
    } cases[] = {
        {"other format", [](json& j) { j["format"] = "something-else"; }},
        {"future version", [](json& j) { j["version"] = kManifestVersion + 1; }},
        {"no instance id", [](json& j) { j["instance"]["id"] = ""; }},
        {"config outside the folder", [](json& j) { j["configFile"] = "../etc/passwd.json"; }},
        {"image outside the folder", [](json& j) { j["disks"][0]["image"] = "/tmp/x.img"; }},
        {"short checksum", [](json& j) { j["disks"][0]["blockSha256"] = "abc"; }},
        {"upper-case checksum", [](json& j) { j["disks"][0]["blockSha256"] = std::string(64, 'A'); }},
        {"whole-image checksum in a block-digest version",
         [](json& j) {
             j["disks"][0].erase("blockSha256");
             j["disks"][0]["sha256"] = std::string(64, 'a');
         }},
        {"block digest in a version 1 manifest", [](json& j) { j["version"] = 1; }},
        {"zero size", [](json& j) { j["disks"][1]["size"] = 0; }},
        {"no GiB size", [](json& j) { j["disks"][1]["diskSize"] = 0; }},
        {"no disks", [](json& j) { j["disks"] = json::array(); }},
        {"size of the wrong type", [](json& j) { j["disks"][0]["size"] = "big"; }},
    };
    for (const auto& c : cases) {
        json j = good;
        c.spoil(j);
        Manifest m;
        std::string error;
        EXPECT_FALSE(ManifestFromJson(j.dump(), m, error)) << c.what;
        EXPECT_FALSE(error.empty()) << c.what;
    }
    Manifest m;
    std::string error;
    EXPECT_FALSE(ManifestFromJson("{not json", m, error));
}

// Backups written before the block digest carry the whole image's SHA-256 under version 1;
// they stay readable, and are checked against that SHA-256.
TEST(Manifest, ReadsVersionOneWithItsWholeImageChecksum) {
    nlohmann::json j = nlohmann::json::parse(ManifestToJson(Sample()));
    j["version"] = 1;
    for (auto& d : j["disks"]) {
        d["sha256"] = d["blockSha256"];
        d.erase("blockSha256");
    }
    Manifest m;
    std::string error;
    ASSERT_TRUE(ManifestFromJson(j.dump(), m, error)) << error;
    EXPECT_EQ(m.version, 1);
    EXPECT_EQ(DigestKindOf(m.disks[1]), io::DigestKind::kSha256);
    EXPECT_EQ(DigestOf(m.disks[1]), std::string(64, 'b'));
    // Written back as it was read: version 1, "sha256".
    const nlohmann::json again = nlohmann::json::parse(ManifestToJson(m));
    EXPECT_EQ(again["version"], 1);
    EXPECT_EQ(again["disks"][1]["sha256"], std::string(64, 'b'));
    EXPECT_FALSE(again["disks"][1].contains("blockSha256"));
}

TEST(Manifest, WriteIsAtomicAndReadable) {
    namespace fs = std::filesystem;
    fs::path dir = fs::temp_directory_path() / ("hxagent-manifest-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    std::string error;
    Manifest m;
    EXPECT_FALSE(ReadManifest(dir.string(), m, error));  // an interrupted backup: no manifest
    EXPECT_NE(error.find("not a complete backup"), std::string::npos);
    ASSERT_TRUE(WriteManifest(dir.string(), Sample(), error)) << error;
    EXPECT_FALSE(fs::exists(dir / "manifest.json.tmp"));
    ASSERT_TRUE(ReadManifest(dir.string(), m, error)) << error;
    EXPECT_EQ(m.disks.size(), 2u);
    // Rewriting replaces the whole document.
    Manifest one = Sample();
    one.disks.pop_back();
    ASSERT_TRUE(WriteManifest(dir.string(), one, error));
    ASSERT_TRUE(ReadManifest(dir.string(), m, error));
    EXPECT_EQ(m.disks.size(), 1u);
    EXPECT_FALSE(WriteManifest((dir / "missing-folder").string(), Sample(), error));
    fs::remove_all(dir);
}

TEST(Manifest, StampsAreUtcAndSortable) {
    EXPECT_EQ(JobStamp(0), "19700101T000000Z");
    EXPECT_EQ(JobStamp(1717171717), "20240531T160837Z");
    EXPECT_EQ(IsoTime(1717171717), "2024-05-31T16:08:37Z");
    EXPECT_LT(JobStamp(1717171717), JobStamp(1717171718));
}

}  // namespace
}  // namespace hxagent
