// hxagent end to end: the real plug-in, runtime and bridge against an emulator that this
// test process runs, with hxagent started as a child process for every command.
#include <chrono>
#include <thread>

#include "AgentFixture.h"

#include "AliCloudSDKCppBridge.h"
#include "hx_build_info.h"

namespace {

using namespace hxe2e;

// The backup of an instance with four disks, restored under a new name, is byte-identical,
// and nothing is left in the cloud or in the cleaner store.
TEST_F(AgentE2E, BackupAndRestoreUnderANewNameIsByteIdentical) {
    const json* source = Find(before_, "instances", [](const json& i) { return i["InstanceName"] == "app-01"; });
    ASSERT_TRUE(source);
    const std::string sourceId = (*source)["InstanceId"];

    hxagent::Manifest m;
    const std::string folder = Backup("app-01", m);
    ASSERT_FALSE(folder.empty());
    EXPECT_EQ(fs::path(folder).parent_path().filename(), sourceId);
    ASSERT_EQ(m.disks.size(), 4u);
    EXPECT_EQ(std::count_if(m.disks.begin(), m.disks.end(), [](auto& d) { return d.isOSDisk; }), 1);
    for (const auto& d : m.disks) {
        const json* disk = Find(before_, "disks", [&](const json& x) { return x["DiskId"] == d.id; });
        ASSERT_TRUE(disk) << d.id;
        EXPECT_EQ(d.diskSize, (*disk)["Size"].get<int64_t>()) << d.id;
        EXPECT_EQ(d.size, static_cast<uint64_t>(d.diskSize) << 30) << d.id;
        EXPECT_EQ(d.category, (*disk)["Category"].get<std::string>()) << d.id;
        // The image is the source disk, and its checksum is the image's.
        std::string why;
        EXPECT_TRUE(hxagent::SameContent(folder + "/" + d.image, (*disk)["File"], d.size, why)) << d.id << why;
        EXPECT_EQ(hxagent::DigestKindOf(d), hxagent::io::DigestKind::kBlockSha256) << d.id;
        EXPECT_EQ(hxagent::HashFile(folder + "/" + d.image, {}).digest, hxagent::DigestOf(d)) << d.id;
    }
    // The configuration document is there under a clean name, and is the only other JSON.
    EXPECT_TRUE(fs::is_regular_file(folder + "/" + m.configFile));
    EXPECT_EQ(m.configFile, sourceId + "_InstanceConfig.json");
    // The manifest and the job log name the hxagent that wrote them.
    EXPECT_EQ(m.agentVersion, HX_VERSION);
    const std::string suffix = "-job-" + std::to_string(m.jobId) + ".log";
    std::string firstLine;
    for (const auto& e : fs::directory_iterator(dir_ + "/state/logs"))
        if (e.path().filename().string().ends_with(suffix)) std::getline(std::ifstream(e.path()), firstLine);
    EXPECT_NE(firstLine.find("[hxagent] hxagent " HX_VERSION " backup on "), std::string::npos) << firstLine;
    ExpectNothingLeft();

    RunResult r = Run({"restore", folder, "--name", "app-01-copy", "--power-on"});
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    const std::string newId = r.doc.value("instanceId", "");
    ASSERT_FALSE(newId.empty()) << r.out;
    EXPECT_NE(newId, sourceId);

    // --power-on starts the instance and does not wait for Running: give it its start time.
    json after = State();
    const json* restored = nullptr;
    for (int i = 0; i < 500; ++i) {
        after = State();
        restored = Find(after, "instances", [&](const json& x) { return x["InstanceId"] == newId; });
        if (!restored || (*restored)["Status"] != "Starting") break;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(restored);
    EXPECT_EQ((*restored)["InstanceName"], "app-01-copy");
    EXPECT_EQ((*restored)["Status"], "Running");
    EXPECT_EQ((*restored)["InstanceType"], (*source)["InstanceType"]);
    int attached = 0;
    for (size_t i = 0; i < m.disks.size(); ++i) {
        const auto& d = m.disks[i];
        const std::string newDisk = r.doc["disks"][i].value("newId", "");
        const json* target = Find(after, "disks", [&](const json& x) {
            return x["InstanceId"] == newId && (d.isOSDisk ? x["Type"] == "system" : x["DiskId"] == newDisk);
        });
        ASSERT_TRUE(target) << "no restored disk for " << d.id;
        const json* src = Find(after, "disks", [&](const json& x) { return x["DiskId"] == d.id; });
        std::string why;
        EXPECT_TRUE(hxagent::SameContent((*src)["File"], (*target)["File"], d.size, why)) << d.id << why;
        EXPECT_EQ((*target)["Category"], d.category) << d.id;
        ++attached;
    }
    EXPECT_EQ(attached, 4);
    ExpectNothingLeft();
}

// A backup whose image was damaged fails the restore in the pass that writes the disk: no
// image or instance is built, and the disks the job made are removed.
TEST_F(AgentE2E, RestoreOfADamagedBackupFailsBeforeAnythingIsBuilt) {
    hxagent::Manifest m;
    const std::string folder = Backup("db-01", m);
    ASSERT_FALSE(folder.empty());
    {
        std::fstream f(folder + "/" + m.disks.back().image, std::ios::in | std::ios::out | std::ios::binary);
        f.seekg(12345);
        char byte = 0;
        f.get(byte);
        f.seekp(12345);
        f.put(static_cast<char>(~byte));
    }
    json ignored;
    std::string error;
    ASSERT_TRUE(hxagent::SimRequest(sim_->Endpoint(), "DELETE", "/_sim/calls", "", ignored, error)) << error;
    RunResult r = Run({"restore", folder, "--name", "db-01-copy"});
    EXPECT_EQ(r.exitCode, 3) << r.out << r.err;
    const std::string damaged = folder + "/" + m.disks.back().image;
    EXPECT_NE(r.out.find("image " + damaged + " does not match its checksum (block SHA-256"), std::string::npos) << r.out;
    const json calls = Calls();
    for (const char* never : {"CreateImage", "RunInstances", "CreateInstance"})
        EXPECT_FALSE(calls["actions"].contains(never)) << never;
    EXPECT_TRUE(Instances(State(), "db-01-copy").empty());
    ExpectNothingLeft();
}

// --overwrite replaces an existing instance of the same name; without it the restore is
// refused before anything is made.
TEST_F(AgentE2E, RestoreOverwritesAnExistingInstanceOnlyWhenAsked) {
    hxagent::Manifest m;
    const std::string folder = Backup("db-01", m);
    ASSERT_FALSE(folder.empty());
    auto existing = Instances(before_, "web-01");
    ASSERT_EQ(existing.size(), 1u);
    const std::string oldId = existing[0]["InstanceId"];

    RunResult refused = Run({"restore", folder, "--name", "web-01"});
    EXPECT_EQ(refused.exitCode, 2) << refused.out << refused.err;
    EXPECT_NE(refused.doc["error"].value("message", "").find(oldId), std::string::npos) << refused.out;
    auto still = Instances(State(), "web-01");
    ASSERT_EQ(still.size(), 1u);
    EXPECT_EQ(still[0]["InstanceId"], oldId);
    ExpectNothingLeft();

    RunResult r = Run({"restore", folder, "--name", "web-01", "--overwrite"});
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    auto now = Instances(State(), "web-01");
    ASSERT_EQ(now.size(), 1u);
    EXPECT_NE(now[0]["InstanceId"], oldId);
    EXPECT_EQ(now[0]["InstanceId"], r.doc.value("instanceId", ""));
    EXPECT_EQ(now[0]["InstanceType"], "ecs.g7.xlarge");  // db-01's type, not web-01's
    ExpectNothingLeft();
}

// Ctrl-C while disks are being read: the backup stops, tears down, writes no manifest;
// `hxagent cleanup` afterwards finds nothing to do and leaves nothing.
TEST_F(AgentE2E, CtrlCDuringBackupThenCleanupLeavesNothing) {
    auto child = Start({"backup", "app-01", "--to", dir_ + "/backups"});
    // Wait until a disk copy is attached to the proxy, i.e. the data is being read.
    bool attached = false;
    for (int i = 0; i < 3000 && child->Running() && !attached; ++i) {
        attached = State()["deviceLinks"].size() > before_["deviceLinks"].size();
        if (!attached) std::this_thread::sleep_for(10ms);
    }
    ASSERT_TRUE(attached) << "the backup never attached a disk";
    child->Signal(SIGINT);
    RunResult r = child->Wait();
    EXPECT_EQ(r.exitCode, 130) << r.out << r.err;
    EXPECT_NE(r.out.find("cancel"), std::string::npos) << r.out;
    bool manifest = false;
    if (fs::exists(dir_ + "/backups"))
        for (auto& e : fs::recursive_directory_iterator(dir_ + "/backups")) manifest |= e.path().filename() == "manifest.json";
    EXPECT_FALSE(manifest);

    RunResult c = Run({"cleanup"});
    EXPECT_EQ(c.exitCode, 0) << c.out << c.err;
    ExpectNothingLeft();
}

// A backup killed outright leaves snapshots and disk copies; `hxagent cleanup` finds them
// through the cleaner store and removes them all.
TEST_F(AgentE2E, CleanupRemovesWhatAKilledBackupLeft) {
    auto child = Start({"backup", "db-01", "--to", dir_ + "/backups"});
    bool attached = false;
    for (int i = 0; i < 3000 && child->Running() && !attached; ++i) {
        attached = State()["deviceLinks"].size() > before_["deviceLinks"].size();
        if (!attached) std::this_thread::sleep_for(10ms);
    }
    ASSERT_TRUE(attached);
    child->Signal(SIGKILL);
    RunResult killed = child->Wait();
    EXPECT_EQ(killed.signal, SIGKILL);
    hxagent::SimLeftovers left = hxagent::FindLeftovers(before_, State());
    EXPECT_FALSE(left.snapshots.empty()) << left.Describe();
    EXPECT_FALSE(left.disks.empty()) << left.Describe();

    RunResult dry = Run({"cleanup", "--dry-run"});
    EXPECT_EQ(dry.exitCode, 0) << dry.out << dry.err;
    ASSERT_EQ(dry.doc["orphans"].size(), 1u) << dry.out;
    EXPECT_EQ(dry.doc["orphans"][0]["mode"], "backup");

    RunResult c = Run({"cleanup"});
    EXPECT_EQ(c.exitCode, 0) << c.out << c.err;
    EXPECT_EQ(c.doc["orphans"][0].value("removed", false), true) << c.out;
    ExpectNothingLeft();
}

// A proxy with every disk slot taken: the backup waits, and completes once a slot frees.
class AgentDiskLimitE2E : public AgentE2E {
protected:
    std::string Scenario() override {
        json s = json::parse(hxsim::Emulator::DefaultScenarioJson());
        for (auto& i : s["instances"]) {
            if (i["instanceId"] != s["proxyInstanceId"]) continue;
            i["instanceType"] = "ecs.t6-c1m2.large";  // 5 disks at most
            for (int n = 1; n <= 4; ++n)
                i["disks"].push_back({{"diskId", "d-hxsim0proxyfill0000" + std::to_string(n)},
                                      {"type", "data"},
                                      {"sizeGiB", 1},
                                      {"content", {{"pattern", "marker"}, {"dataMiB", 1}}}});
        }
        return s.dump();
    }
};

TEST_F(AgentDiskLimitE2E, BackupWaitsForAFreeSlot) {
    auto child = Start({"backup", "db-01", "--to", dir_ + "/backups"});
    // Wait until the plug-in has been refused at least once for the disk limit.
    auto refusedAttaches = [&] {
        json calls = Calls();
        return calls["actions"].contains("AttachDisk") ? calls["actions"]["AttachDisk"].value("errors", 0) : 0;
    };
    int refused = 0;
    for (int i = 0; i < 3000 && child->Running() && refused < 2; ++i) {
        refused = refusedAttaches();
        if (refused < 2) std::this_thread::sleep_for(10ms);
    }
    ASSERT_GE(refused, 2) << Calls().dump();
    EXPECT_TRUE(child->Running());  // still waiting, not failed

    // Free one slot: detach one of the proxy's own data disks, as an operator would.
    AliCloudSDKCppBridge::CAliCloudSDKCppBridge bridge;
    ::setenv("ALIBABA_CLOUD_ECS_ENDPOINT", sim_->Endpoint().c_str(), 1);
    ::setenv("ALIBABA_CLOUD_METADATA_ENDPOINT", sim_->MetadataEndpoint().c_str(), 1);
    ::setenv("ALIBABA_CLOUD_BRIDGE_TIME_SCALE", "0.01", 1);
    auto keys = sim_->DemoCredentials();
    ASSERT_TRUE(bridge.Connect(keys.accessKeyId, keys.accessKeySecret)) << bridge.GetLastError();
    ASSERT_TRUE(bridge.DetachDisk(sim_->ProxyInstanceId(), "d-hxsim0proxyfill00001", sim_->ProxyRegionId()))
        << bridge.GetLastError();

    RunResult r = child->Wait();
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_EQ(r.doc["manifest"]["disks"].size(), 2u);
    // Apart from the disk detached by hand, the proxy is as it was.
    json after = State();
    int onProxy = 0;
    for (const auto& d : after["disks"]) onProxy += d["InstanceId"] == sim_->ProxyInstanceId();
    EXPECT_EQ(onProxy, 4);
    ExpectNothingLeft();
}

// With --embedded, hxagent starts the built-in emulator and says so; the demo
// verifies its own round trip.
TEST(AgentEmbeddedE2E, DemoVerifiesOnTheBuiltInEmulator) {
    std::vector<std::string> env;
    const std::string home = (fs::temp_directory_path() / ("hxagent-e2e-home-" + std::to_string(::getpid()))).string();
    fs::create_directories(home);
    for (char** e = environ; *e; ++e)
        if (std::string(*e).rfind("ALIBABA_CLOUD_", 0) != 0 && std::string(*e).rfind("HOME=", 0) != 0)
            env.push_back(*e);
    env.push_back("HOME=" + home);
    RunResult list = Child({"--embedded", "list", "--name", "web-*"}, env, home).Wait();
    EXPECT_EQ(list.exitCode, 0) << list.err;
    EXPECT_NE(list.err.find("built-in ECS emulator"), std::string::npos) << list.err;
    EXPECT_NE(list.out.find("web-01"), std::string::npos) << list.out;
    EXPECT_NE(list.out.find("web-02"), std::string::npos) << list.out;
    EXPECT_EQ(list.out.find("db-01"), std::string::npos) << list.out;
    RunResult listJson = Child({"--embedded", "--json", "list", "--name", "web-*"}, env, home).Wait();
    ASSERT_EQ(listJson.exitCode, 0) << listJson.err;
    EXPECT_EQ(listJson.doc["cloud"]["kind"], "built-in emulator") << listJson.out;
    ASSERT_EQ(listJson.doc["instances"].size(), 2u) << listJson.out;
    EXPECT_EQ(listJson.doc["instances"][0]["name"], "web-01");

    RunResult demo = Child({"demo", "--json", "--instance", "db-01"}, env, home).Wait();
    EXPECT_EQ(demo.exitCode, 0) << demo.out << demo.err;
    ASSERT_FALSE(demo.doc.is_discarded()) << demo.out;
    EXPECT_TRUE(demo.doc.value("ok", false));
    ASSERT_EQ(demo.doc["disks"].size(), 2u);
    for (const auto& d : demo.doc["disks"]) EXPECT_TRUE(d.value("identical", false)) << d.dump();
    fs::remove_all(home);
}

}  // namespace
