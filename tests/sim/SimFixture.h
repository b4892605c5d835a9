// A running emulator on a small, fully known world, for tests that go through HTTP.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "SimClient.h"
#include "hxsim/Emulator.h"

namespace hxsim::test {

// Region r1: zones r1-a (proxy, i-small) and r1-b (i-far); region r2 is empty.
// Durations in seconds at scale 1; the fixture runs them at 1/100 (a create's ClientToken
// then stays "in progress" for 50 ms).
inline const char* kTestScenario = R"({
  "accessKeys": [{"accessKeyId": "AKTEST", "accessKeySecret": "SECRETTEST"}],
  "timings": {"diskCreateSeconds": 1, "diskAttachSeconds": 1, "diskDetachSeconds": 1, "snapshotSeconds": 2,
              "imageSeconds": 1, "instancePendingSeconds": 1, "instanceStartSeconds": 1, "instanceStopSeconds": 1,
              "tokenProcessingSeconds": 5},
  "instanceTypes": [
    {"instanceTypeId": "ecs.small", "cpu": 1, "memoryGiB": 2, "diskQuantity": 3},
    {"instanceTypeId": "ecs.big", "cpu": 8, "memoryGiB": 32, "diskQuantity": 17}
  ],
  "regions": [
    {"regionId": "r1", "localName": "Region One", "zones": [
      {"zoneId": "r1-a", "instanceTypes": ["ecs.small", "ecs.big"], "diskCategories": ["cloud_essd", "cloud_auto"]},
      {"zoneId": "r1-b", "instanceTypes": ["ecs.big"], "diskCategories": ["cloud_essd"]}]},
    {"regionId": "r2", "localName": "Region Two", "zones": [
      {"zoneId": "r2-a", "instanceTypes": ["ecs.big"], "diskCategories": ["cloud_essd"]}]}
  ],
  "images": [{"imageId": "img-linux", "imageName": "Linux", "sizeGiB": 20}],
  "proxyInstanceId": "i-proxy",
  "instances": [
    {"instanceId": "i-proxy", "regionId": "r1", "zoneId": "r1-a", "instanceType": "ecs.big", "imageId": "img-linux",
     "disks": [{"diskId": "d-proxysys", "type": "system", "sizeGiB": 1}]},
    {"instanceId": "i-small", "instanceName": "small-1", "regionId": "r1", "zoneId": "r1-a",
     "instanceType": "ecs.small", "imageId": "img-linux", "tags": {"env": "test"},
     "disks": [{"diskId": "d-smallsys", "type": "system", "sizeGiB": 1},
               {"diskId": "d-smalldata", "type": "data", "sizeGiB": 1, "content": {"pattern": "marker", "dataMiB": 2}}]},
    {"instanceId": "i-far", "instanceName": "far-1", "regionId": "r1", "zoneId": "r1-b", "instanceType": "ecs.big",
     "imageId": "img-linux",
     "disks": [{"diskId": "d-farsys", "type": "system", "sizeGiB": 1}]}
  ],
  "disks": [
    {"diskId": "d-loosea", "regionId": "r1", "zoneId": "r1-a", "sizeGiB": 1},
    {"diskId": "d-looseb", "regionId": "r1", "zoneId": "r1-b", "sizeGiB": 1}
  ]
})";

class SimFixture : public ::testing::Test {
 protected:
  double TimeScale() const { return timeScale_; }

  void StartSim(double timeScale = 0.01, const std::string& scenario = kTestScenario) {
    timeScale_ = timeScale;
    Options options;
    options.scenarioJson = scenario;
    options.timeScale = timeScale;
    sim = std::make_unique<Emulator>(options);
    auto started = sim->Start();
    ASSERT_TRUE(started.ok()) << started.error;
    client = std::make_unique<SimClient>(*sim);
  }
  void SetUp() override { StartSim(); }
  void TearDown() override {
    if (sim) sim->Stop();
  }

  std::filesystem::path LinkOf(const std::string& diskId) const {
    return sim->ByIdDir() / ("virtio-" + diskId.substr(2));
  }
  bool HasLink(const std::string& diskId) const {
    return std::filesystem::exists(std::filesystem::symlink_status(LinkOf(diskId)));
  }

  // A new Available disk in r1-a (or the given zone).
  std::string NewDisk(const std::string& zone = "r1-a", int sizeGiB = 1) {
    auto r = client->Call("CreateDisk", {{"RegionId", "r1"},
                                         {"ZoneId", zone},
                                         {"Size", std::to_string(sizeGiB)},
                                         {"DiskCategory", "cloud_essd"},
                                         {"PerformanceLevel", "PL0"}});
    EXPECT_EQ(r.status, 200) << r.raw;
    std::string id = r.body.value("DiskId", "");
    EXPECT_EQ(client->WaitDisk("r1", id, "Available")["Status"], "Available");
    return id;
  }
  void Attach(const std::string& instance, const std::string& disk) {
    auto r = client->Call("AttachDisk", {{"InstanceId", instance}, {"DiskId", disk}});
    ASSERT_EQ(r.status, 200) << r.raw;
    ASSERT_EQ(client->WaitDisk("r1", disk, "In_use")["Status"], "In_use");
  }

  static void WriteAt(const std::filesystem::path& path, uint64_t offset, const std::string& data) {
    std::fstream out(path, std::ios::in | std::ios::out | std::ios::binary);
    out.seekp(static_cast<std::streamoff>(offset));
    out.write(data.data(), static_cast<std::streamsize>(data.size()));
  }
  static std::string ReadAt(const std::filesystem::path& path, uint64_t offset, size_t size) {
    std::ifstream in(path, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(offset));
    std::string out(size, '\0');
    in.read(out.data(), static_cast<std::streamsize>(size));
    return out;
  }

  std::unique_ptr<Emulator> sim;
  std::unique_ptr<SimClient> client;

 private:
  double timeScale_ = 0.01;
};

}  // namespace hxsim::test
