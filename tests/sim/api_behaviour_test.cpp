// The emulator's cloud behaviour through its HTTP API: preconditions and their error
// codes, the data plane seen through device links, asynchronous transitions,
// idempotency, fault injection and the control and metadata endpoints.
#include <nlohmann/json.hpp>

#include "SimFixture.h"

namespace hxsim::test {
namespace {

using nlohmann::json;
namespace fs = std::filesystem;

class ApiTest : public SimFixture {};

TEST_F(ApiTest, AttachRefusesADiskFromAnotherZoneAndLeavesItUntouched) {
  auto r = client->Call("AttachDisk", {{"InstanceId", "i-proxy"}, {"DiskId", "d-looseb"}});
  EXPECT_EQ(r.status, 403);
  EXPECT_EQ(r.code(), "ResourcesNotInSameZone");
  EXPECT_EQ(client->Disk("r1", "d-looseb")["Status"], "Available");
  EXPECT_EQ(client->Disk("r1", "d-looseb")["InstanceId"], "");
  EXPECT_FALSE(HasLink("d-looseb"));
}

TEST_F(ApiTest, AttachBeyondTheInstanceTypesDiskQuantityIsRefused) {
  // i-small (DiskQuantity 3) already has a system and a data disk.
  std::string third = NewDisk();
  Attach("i-small", third);
  std::string fourth = NewDisk();
  auto r = client->Call("AttachDisk", {{"InstanceId", "i-small"}, {"DiskId", fourth}});
  EXPECT_EQ(r.status, 403);
  EXPECT_EQ(r.code(), "InstanceDiskLimitExceeded");
  EXPECT_EQ(client->Disk("r1", fourth)["Status"], "Available");
  // The limit is per instance: the proxy still takes it.
  Attach("i-proxy", fourth);
}

TEST_F(ApiTest, SnapshotFreezesTheDiskAndDisksFromItStartWithThatContent) {
  std::string disk = NewDisk();
  Attach("i-proxy", disk);
  ASSERT_TRUE(HasLink(disk));
  WriteAt(LinkOf(disk), 4096, "BEFORE-SNAPSHOT");
  auto snap = client->Call("CreateSnapshot", {{"DiskId", disk}, {"SnapshotName", "frozen"}});
  ASSERT_EQ(snap.status, 200) << snap.raw;
  const std::string snapshotId = snap.body["SnapshotId"];
  WriteAt(LinkOf(disk), 4096, "AFTER--SNAPSHOT");  // while the snapshot is still progressing
  EXPECT_EQ(client->WaitSnapshot("r1", snapshotId, "accomplished")["Progress"], "100%");

  auto restored = client->Call("CreateDisk", {{"RegionId", "r1"},
                                              {"ZoneId", "r1-a"},
                                              {"SnapshotId", snapshotId},
                                              {"DiskCategory", "cloud_auto"}});
  ASSERT_EQ(restored.status, 200) << restored.raw;
  const std::string copy = restored.body["DiskId"];
  auto described = client->WaitDisk("r1", copy, "Available");
  EXPECT_EQ(described["Size"], 1);
  EXPECT_EQ(described["SourceSnapshotId"], snapshotId);
  Attach("i-proxy", copy);
  EXPECT_EQ(fs::file_size(LinkOf(copy)), uint64_t{1} << 30);
  EXPECT_EQ(ReadAt(LinkOf(copy), 4096, 15), "BEFORE-SNAPSHOT");
  EXPECT_EQ(ReadAt(LinkOf(disk), 4096, 15), "AFTER--SNAPSHOT");
}

TEST_F(ApiTest, DeviceLinksExistOnlyForDisksOnTheProxyWhileAttached) {
  // Scenario state: only the proxy's own system disk is linked.
  auto links = client->Control("GET", "/_sim/state")["deviceLinks"];
  EXPECT_EQ(links, json::array({"virtio-proxysys"}));

  std::string other = NewDisk();
  Attach("i-small", other);
  EXPECT_FALSE(HasLink(other)) << "a disk on another instance is invisible to the proxy";

  std::string mine = NewDisk();
  Attach("i-proxy", mine);
  ASSERT_TRUE(HasLink(mine));
  EXPECT_EQ(fs::canonical(LinkOf(mine)).filename(), mine + ".img");

  auto detach = client->Call("DetachDisk", {{"InstanceId", "i-proxy"}, {"DiskId", mine}});
  ASSERT_EQ(detach.status, 200) << detach.raw;
  EXPECT_FALSE(HasLink(mine)) << "the guest loses the device as soon as the detach starts";
  EXPECT_EQ(client->WaitDisk("r1", mine, "Available")["InstanceId"], "");
  EXPECT_FALSE(HasLink(mine));

  // Deleting an instance does not leave links or disks with DeleteWithInstance behind.
  ASSERT_EQ(client->Call("DeleteInstance", {{"InstanceId", "i-small"}, {"Force", "true"}}).status, 200);
  EXPECT_TRUE(client->Disk("r1", "d-smallsys").is_null());
  EXPECT_EQ(client->Disk("r1", other)["Status"], "Available");
  EXPECT_EQ(client->Control("GET", "/_sim/state")["deviceLinks"], json::array({"virtio-proxysys"}));
}

TEST_F(ApiTest, UnknownIdsAnswer404WithTheResourceSpecificCode) {
  struct Case {
    const char* action;
    ParamMap params;
    int status;
    const char* code;
  } cases[] = {
      {"AttachDisk", {{"InstanceId", "i-proxy"}, {"DiskId", "d-nothere"}}, 404, "InvalidDiskId.NotFound"},
      {"AttachDisk", {{"InstanceId", "i-nothere"}, {"DiskId", "d-loosea"}}, 404, "InvalidInstanceId.NotFound"},
      {"StartInstance", {{"InstanceId", "i-nothere"}}, 404, "InvalidInstanceId.NotFound"},
      // ECS ignores a delete of a snapshot it does not have, as it does for images.
      {"DeleteSnapshot", {{"SnapshotId", "s-nothere"}}, 200, ""},
      {"CreateDisk", {{"RegionId", "r1"}, {"ZoneId", "r1-a"}, {"DiskCategory", "cloud_auto"}, {"SnapshotId", "s-nothere"}}, 404,
       "InvalidSnapshotId.NotFound"},
      {"DescribeDisks", {{"RegionId", "mars-1"}}, 404, "InvalidRegionId.NotFound"},
      {"CreateImage", {{"RegionId", "r1"}, {"SnapshotId", "s-nothere"}}, 404, "InvalidSnapshotId.NotFound"},
      {"RunInstances", {{"RegionId", "r1"}, {"InstanceType", "ecs.big"}, {"ImageId", "img-none"}}, 404,
       "InvalidImageId.NotFound"},
      // A disk looked up in the wrong region does not exist there.
      {"DeleteDisk", {{"RegionId", "r2"}, {"DiskId", "d-loosea"}}, 404, "InvalidDiskId.NotFound"},
      {"DescribeDisks", {}, 400, "MissingRegionId"},
      {"DeleteImage", {{"RegionId", "r1"}, {"ImageId", "m-nothere"}}, 200, ""},
  };
  for (const auto& c : cases) {
    auto r = client->Call(c.action, c.params);
    EXPECT_EQ(r.status, c.status) << c.action << " " << r.raw;
    EXPECT_EQ(r.code(), c.code) << c.action;
  }
}

TEST_F(ApiTest, WrongStatesAreRefused) {
  std::string fresh = NewDisk();  // never attached
  struct Case {
    const char* what;
    const char* action;
    ParamMap params;
    int status;
    const char* code;
  } cases[] = {
      {"delete an attached disk", "DeleteDisk", {{"DiskId", "d-smalldata"}}, 403, "IncorrectDiskStatus"},
      {"attach an attached disk", "AttachDisk", {{"InstanceId", "i-proxy"}, {"DiskId", "d-smalldata"}}, 403,
       "IncorrectDiskStatus"},
      {"detach an unattached disk", "DetachDisk", {{"InstanceId", "i-proxy"}, {"DiskId", "d-loosea"}}, 403,
       "IncorrectDiskStatus"},
      {"detach from the wrong instance", "DetachDisk", {{"InstanceId", "i-proxy"}, {"DiskId", "d-smalldata"}}, 403,
       "IncorrectDiskStatus"},
      {"detach a running system disk", "DetachDisk", {{"InstanceId", "i-small"}, {"DiskId", "d-smallsys"}}, 403,
       "IncorrectInstanceStatus"},
      {"start a running instance", "StartInstance", {{"InstanceId", "i-small"}}, 403, "IncorrectInstanceStatus"},
      {"delete a running instance", "DeleteInstance", {{"InstanceId", "i-small"}}, 403, "IncorrectInstanceStatus"},
      {"snapshot a never attached disk", "CreateSnapshot", {{"DiskId", fresh.c_str()}}, 403, "IncorrectDiskStatus"},
      {"disk below its category's size", "CreateDisk",
       {{"RegionId", "r1"}, {"ZoneId", "r1-a"}, {"Size", "5"}, {"DiskCategory", "cloud_essd"}}, 400,
       "InvalidDiskSize.ValueNotSupported"},
      {"category the zone lacks", "CreateDisk",
       {{"RegionId", "r1"}, {"ZoneId", "r1-b"}, {"Size", "20"}, {"DiskCategory", "cloud_auto"}}, 400,
       "InvalidDiskCategory.ValueNotSupported"},
      {"dry run", "DeleteDisk", {{"DiskId", "d-loosea"}, {"DryRun", "true"}}, 400, "DryRunOperation"},
  };
  for (const auto& c : cases) {
    auto r = client->Call(c.action, c.params);
    EXPECT_EQ(r.status, c.status) << c.what << ": " << r.raw;
    EXPECT_EQ(r.code(), c.code) << c.what;
  }
  EXPECT_FALSE(client->Disk("r1", "d-loosea").is_null()) << "a dry run deletes nothing";
}

// Repeats a create until it is no longer answered LastTokenProcessing (at most 2 s).
Reply RepeatUntilReplayed(SimClient& client, const std::string& action, const ParamMap& params) {
  for (int attempt = 0;; ++attempt) {
    auto r = client.Call(action, params);
    if (r.code() != "LastTokenProcessing" || attempt == 200) return r;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

TEST_F(ApiTest, ClientTokenMakesCreatesIdempotent) {
  ParamMap create = {{"RegionId", "r1"},        {"ZoneId", "r1-a"},         {"Size", "1"},
                     {"DiskCategory", "cloud_auto"}, {"ClientToken", "tok-1"}};
  auto count = [&] { return client->Call("DescribeDisks", {{"RegionId", "r1"}, {"PageSize", "100"}}).body["TotalCount"]; };
  auto before = count();
  auto first = client->Call("CreateDisk", create);
  ASSERT_EQ(first.status, 200);
  auto early = client->Call("CreateDisk", create);
  EXPECT_EQ(early.status, 400) << "a repetition while the first create still runs: " << early.raw;
  EXPECT_EQ(early.code(), "LastTokenProcessing");
  auto second = RepeatUntilReplayed(*client, "CreateDisk", create);
  ASSERT_EQ(second.status, 200) << second.raw;
  EXPECT_EQ(first.body["DiskId"], second.body["DiskId"]);
  EXPECT_NE(first.body["RequestId"], second.body["RequestId"]);
  EXPECT_EQ(count(), before.get<int>() + 1);

  create["Size"] = "2";
  auto mismatch = client->Call("CreateDisk", create);
  EXPECT_EQ(mismatch.status, 400);
  EXPECT_EQ(mismatch.code(), "IdempotentParameterMismatch");

  ParamMap run = {{"RegionId", "r1"}, {"InstanceType", "ecs.big"}, {"ImageId", "img-linux"}, {"Amount", "2"},
                  {"ClientToken", "run-1"}};
  auto a = client->Call("RunInstances", run);
  auto b = RepeatUntilReplayed(*client, "RunInstances", run);
  ASSERT_EQ(a.status, 200) << a.raw;
  EXPECT_EQ(a.body["InstanceIdSets"]["InstanceIdSet"].size(), 2u);
  EXPECT_EQ(a.body["InstanceIdSets"], b.body["InstanceIdSets"]);
}

TEST_F(ApiTest, ADroppedResponseCanBeRetriedWithTheSameClientToken) {
  client->Control("POST", "/_sim/faults", {{"rules", {{{"action", "CreateDisk"}, {"dropNext", 1}}}}});
  ParamMap create = {{"RegionId", "r1"}, {"ZoneId", "r1-a"}, {"Size", "1"}, {"DiskCategory", "cloud_auto"},
                     {"ClientToken", "retry-me"}};
  auto lost = client->Call("CreateDisk", create);
  EXPECT_EQ(lost.status, 0) << "the client must see a transport failure, got " << lost.raw;
  auto retried = RepeatUntilReplayed(*client, "CreateDisk", create);
  ASSERT_EQ(retried.status, 200) << retried.raw;
  auto disks = client->Call("DescribeDisks", {{"RegionId", "r1"}, {"ZoneId", "r1-a"}, {"DiskType", "data"}});
  int created = 0;
  for (const auto& d : disks.body["Disks"]["Disk"]) created += d["DiskId"] != "d-smalldata" && d["DiskId"] != "d-loosea";
  EXPECT_EQ(created, 1) << "the dropped call created the disk once, the retry created nothing";
}

TEST_F(ApiTest, InjectedFaultsAreAnsweredAndCounted) {
  client->Control("POST", "/_sim/faults",
                  {{"rules", {{{"action", "DescribeRegions"}, {"failNext", 2}, {"code", "Throttling.User"}},
                              {{"action", "DescribeZones"}, {"failNext", 1}, {"code", "ServiceUnavailable"}}}}});
  auto t1 = client->Call("DescribeRegions", {});
  auto t2 = client->Call("DescribeRegions", {});
  auto ok = client->Call("DescribeRegions", {});
  auto unavailable = client->Call("DescribeZones", {{"RegionId", "r1"}});
  EXPECT_EQ(t1.status, 400);
  EXPECT_EQ(t1.code(), "Throttling.User");
  EXPECT_EQ(t2.code(), "Throttling.User");
  EXPECT_EQ(ok.status, 200);
  EXPECT_EQ(unavailable.status, 503);
  auto calls = client->Control("GET", "/_sim/calls");
  EXPECT_EQ(calls["actions"]["DescribeRegions"]["calls"], 3);
  EXPECT_EQ(calls["actions"]["DescribeRegions"]["errors"], 2);
  EXPECT_EQ(calls["actions"]["DescribeZones"]["errors"], 1);
}

TEST_F(ApiTest, AStalledSnapshotNeverCompletesAndFailsWhenItsInstanceChangesState) {
  client->Control("POST", "/_sim/faults", {{"stallSnapshots", 1}});
  auto snap = client->Call("CreateSnapshot", {{"DiskId", "d-smalldata"}});
  ASSERT_EQ(snap.status, 200) << snap.raw;
  const std::string id = snap.body["SnapshotId"];
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // 5x its duration
  auto s = client->WaitSnapshot("r1", id, "accomplished", std::chrono::milliseconds(50));
  EXPECT_EQ(s["Status"], "progressing");
  EXPECT_EQ(s["Available"], false);
  EXPECT_NE(s["Progress"], "100%");
  auto image = client->Call("CreateImage", {{"RegionId", "r1"}, {"SnapshotId", id}});
  EXPECT_EQ(image.code(), "InvalidSnapshotId.NotReady");

  ASSERT_EQ(client->Call("StopInstance", {{"InstanceId", "i-small"}}).status, 200);
  EXPECT_EQ(client->WaitSnapshot("r1", id, "failed")["Status"], "failed");
}

TEST_F(ApiTest, ImagesCarrySnapshotContentIntoNewInstances) {
  WriteAt(sim->StateDir() / "disks/d-smallsys.img", 0, "SYSTEM-DISK-CONTENT");
  auto snap = client->Call("CreateSnapshot", {{"DiskId", "d-smallsys"}});
  ASSERT_EQ(snap.status, 200) << snap.raw;
  const std::string snapshotId = snap.body["SnapshotId"];
  client->WaitSnapshot("r1", snapshotId, "accomplished");
  auto image = client->Call("CreateImage", {{"RegionId", "r1"}, {"SnapshotId", snapshotId}, {"ImageName", "golden"}});
  ASSERT_EQ(image.status, 200) << image.raw;
  const std::string imageId = image.body["ImageId"];

  // Default listing shows Available images only.
  auto listed = [&](const std::string& status) {
    ParamMap p = {{"RegionId", "r1"}, {"ImageId", imageId}};
    if (!status.empty()) p["Status"] = status;
    return client->Call("DescribeImages", p).body["Images"]["Image"];
  };
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (listed("").empty() && std::chrono::steady_clock::now() < deadline) {
    EXPECT_EQ(listed("Creating,Available").size(), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  auto ready = listed("");
  ASSERT_EQ(ready.size(), 1u);
  EXPECT_EQ(ready[0]["DiskDeviceMappings"]["DiskDeviceMapping"][0]["SnapshotId"], snapshotId);
  EXPECT_EQ(client->Call("DeleteSnapshot", {{"SnapshotId", snapshotId}}).code(), "SnapshotCreatedImage");

  auto run = client->Call("RunInstances", {{"RegionId", "r1"}, {"ZoneId", "r1-a"}, {"InstanceType", "ecs.big"},
                                           {"ImageId", imageId}, {"InstanceName", "from-image"}});
  ASSERT_EQ(run.status, 200) << run.raw;
  const std::string instanceId = run.body["InstanceIdSets"]["InstanceIdSet"][0];
  auto state = client->Control("GET", "/_sim/state");
  std::string file;
  for (const auto& d : state["disks"])
    if (d["InstanceId"] == instanceId && d["Type"] == "system") file = d["File"];
  ASSERT_FALSE(file.empty());
  EXPECT_EQ(ReadAt(file, 0, 19), "SYSTEM-DISK-CONTENT");
  EXPECT_EQ(fs::file_size(file), uint64_t{20} << 30) << "system disk defaults to max(20, image size) GiB";
}

TEST_F(ApiTest, TagsAreStoredListedAndFiltered) {
  auto tag = client->Call("TagResources", {{"RegionId", "r1"}, {"ResourceType", "disk"}, {"ResourceId.1", "d-loosea"},
                                           {"Tag.1.Key", "backup"}, {"Tag.1.Value", "yes"}});
  ASSERT_EQ(tag.status, 200) << tag.raw;
  auto listed = client->Call("ListTagResources", {{"RegionId", "r1"}, {"ResourceType", "disk"}, {"Tag.1.Key", "backup"}});
  ASSERT_EQ(listed.body["TagResources"]["TagResource"].size(), 1u);
  EXPECT_EQ(listed.body["TagResources"]["TagResource"][0]["ResourceId"], "d-loosea");
  auto filtered = client->Call("DescribeDisks", {{"RegionId", "r1"}, {"Tag.1.Key", "backup"}, {"Tag.1.Value", "yes"}});
  ASSERT_EQ(filtered.body["Disks"]["Disk"].size(), 1u);
  EXPECT_EQ(filtered.body["Disks"]["Disk"][0]["Tags"]["Tag"][0]["TagKey"], "backup");
  auto instances = client->Call("DescribeInstances", {{"RegionId", "r1"}, {"Tag.1.Key", "env"}});
  ASSERT_EQ(instances.body["Instances"]["Instance"].size(), 1u);
  EXPECT_EQ(instances.body["Instances"]["Instance"][0]["InstanceId"], "i-small");
  EXPECT_EQ(client->Call("TagResources", {{"RegionId", "r1"}, {"ResourceType", "disk"}, {"ResourceId.1", "d-nope"},
                                          {"Tag.1.Key", "k"}})
                .code(),
            "InvalidResourceId.NotFound");
}

TEST_F(ApiTest, ResetRestoresTheScenarioWithFilesAndLinks) {
  ASSERT_EQ(client->Call("DeleteDisk", {{"DiskId", "d-loosea"}}).status, 200);
  ASSERT_EQ(client->Call("DetachDisk", {{"InstanceId", "i-small"}, {"DiskId", "d-smalldata"}}).status, 200);
  client->Control("POST", "/_sim/faults", {{"rules", {{{"action", "*"}, {"failNext", 5}}}}});
  client->Control("POST", "/_sim/reset");
  EXPECT_EQ(client->Disk("r1", "d-loosea")["Status"], "Available");
  EXPECT_EQ(client->Disk("r1", "d-smalldata")["Status"], "In_use");
  EXPECT_TRUE(fs::exists(sim->StateDir() / "disks/d-loosea.img"));
  EXPECT_TRUE(HasLink("d-proxysys"));
  auto calls = client->Control("GET", "/_sim/calls");
  EXPECT_EQ(calls["total"], 2) << "counters restart at reset: " << calls.dump();
  EXPECT_EQ(calls["actions"]["DescribeDisks"]["errors"], 0) << "faults are cleared by reset";
}

TEST_F(ApiTest, MetadataAnswersForTheProxy) {
  EXPECT_EQ(client->Raw("GET", "/latest/meta-data/instance-id").raw, "i-proxy");
  EXPECT_EQ(client->Raw("GET", "/latest/meta-data/region-id").raw, "r1");
  EXPECT_EQ(client->Raw("GET", "/latest/meta-data/zone-id").raw, "r1-a");
  auto doc = json::parse(client->Raw("GET", "/latest/dynamic/instance-identity/document").raw);
  EXPECT_EQ(doc["instance-id"], "i-proxy");
  EXPECT_EQ(doc["instance-type"], "ecs.big");

  EXPECT_EQ(client->Raw("PUT", "/latest/api/token").status, 400) << "ttl header is required";
  EXPECT_EQ(client->Raw("PUT", "/latest/api/token", {{"X-aliyun-ecs-metadata-token-ttl-seconds", "99999"}}).status, 400);
  auto token = client->Raw("PUT", "/latest/api/token", {{"X-aliyun-ecs-metadata-token-ttl-seconds", "60"}});
  ASSERT_EQ(token.status, 200);
  EXPECT_EQ(client->Raw("GET", "/latest/meta-data/instance-id", {{"X-aliyun-ecs-metadata-token", token.raw}}).raw,
            "i-proxy");
  EXPECT_EQ(client->Raw("GET", "/latest/meta-data/instance-id", {{"X-aliyun-ecs-metadata-token", "forged"}}).status,
            401);
  client->Control("POST", "/_sim/metadata", {{"tokenRequired", true}});
  EXPECT_EQ(client->Raw("GET", "/latest/meta-data/instance-id").status, 401);
  EXPECT_EQ(client->Raw("GET", "/latest/meta-data/nothing").status, 401);
  EXPECT_EQ(client->Raw("GET", "/latest/meta-data/nothing", {{"X-aliyun-ecs-metadata-token", token.raw}}).status, 404);
}

// Transitions observed at a scale where each step lasts long enough to be seen.
class TransitionTest : public SimFixture {
 protected:
  void SetUp() override { StartSim(0.5); }  // 1 s steps take 500 ms, plenty even on a loaded machine
};

TEST_F(TransitionTest, ResourcesPassThroughTheirIntermediateStates) {
  auto created = client->Call("CreateDisk", {{"RegionId", "r1"}, {"ZoneId", "r1-a"}, {"Size", "1"},
                                             {"DiskCategory", "cloud_auto"}});
  const std::string disk = created.body["DiskId"];
  EXPECT_EQ(client->Disk("r1", disk)["Status"], "Creating");
  EXPECT_EQ(client->WaitDisk("r1", disk, "Available")["Status"], "Available");

  ASSERT_EQ(client->Call("AttachDisk", {{"InstanceId", "i-proxy"}, {"DiskId", disk}}).status, 200);
  EXPECT_EQ(client->Disk("r1", disk)["Status"], "Attaching");
  EXPECT_FALSE(HasLink(disk)) << "no device before the attach completes";
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client->WaitDisk("r1", disk, "In_use")["Status"], "In_use");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(300)) << "time scale honoured";
  EXPECT_TRUE(HasLink(disk));

  ASSERT_EQ(client->Call("StopInstance", {{"InstanceId", "i-far"}}).status, 200);
  auto status = [&] {
    auto r = client->Call("DescribeInstanceStatus", {{"RegionId", "r1"}, {"InstanceId.1", "i-far"}});
    return r.body["InstanceStatuses"]["InstanceStatus"][0]["Status"].get<std::string>();
  };
  EXPECT_EQ(status(), "Stopping");
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (status() != "Stopped" && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(status(), "Stopped");

  auto created2 = client->Call("CreateInstance", {{"RegionId", "r1"}, {"InstanceType", "ecs.small"},
                                                  {"ImageId", "img-linux"}, {"ZoneId", "r1-a"}});
  ASSERT_EQ(created2.status, 200) << created2.raw;
  const std::string id = created2.body["InstanceId"];
  auto instanceStatus = [&] {
    auto r = client->Call("DescribeInstances", {{"RegionId", "r1"}, {"InstanceIds", json::array({id}).dump()}});
    return r.body["Instances"]["Instance"][0]["Status"].get<std::string>();
  };
  EXPECT_EQ(instanceStatus(), "Pending");
  deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (instanceStatus() == "Pending" && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(instanceStatus(), "Stopped") << "CreateInstance leaves the instance stopped";

  auto snap = client->Call("CreateSnapshot", {{"DiskId", disk}});
  auto progressing = client->WaitSnapshot("r1", snap.body["SnapshotId"], "progressing");
  EXPECT_EQ(progressing["Status"], "progressing");
  EXPECT_NE(progressing["Progress"], "100%");
  EXPECT_GT(progressing["RemainTime"].get<int>(), 0);
}

}  // namespace
}  // namespace hxsim::test
