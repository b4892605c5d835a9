// The public library API: values instead of exceptions, lifecycle, and the facts the
// host program relies on (demo credentials, proxy, device root).
#include <gtest/gtest.h>

#include <fstream>
#include <mutex>

#include "SimClient.h"
#include "hxsim/Emulator.h"

namespace fs = std::filesystem;

namespace hxsim {
namespace {

TEST(Emulator, DefaultScenarioStartsAndStopsCleanly) {
  std::mutex mutex;
  std::vector<std::string> log;
  Options options;
  options.requestLog = [&](const std::string& line) {
    std::lock_guard lock(mutex);
    log.push_back(line);
  };
  Emulator sim(options);
  EXPECT_EQ(sim.Endpoint(), "");
  auto started = sim.Start();
  ASSERT_TRUE(started.ok()) << started.error;
  EXPECT_GT(started.port, 0);
  EXPECT_EQ(started.endpoint, "http://127.0.0.1:" + std::to_string(started.port));
  EXPECT_EQ(sim.HostPort(), "127.0.0.1:" + std::to_string(started.port));
  EXPECT_EQ(sim.ProxyInstanceId(), "i-hxsim0proxy000000001");
  EXPECT_EQ(sim.ProxyRegionId(), "cn-hangzhou");
  EXPECT_EQ(sim.DemoCredentials().accessKeyId, Emulator::BuiltInDemoCredentials().accessKeyId);
  EXPECT_EQ(sim.DemoCredentials().accessKeySecret, Emulator::BuiltInDemoCredentials().accessKeySecret);
  EXPECT_TRUE(fs::is_symlink(sim.ByIdDir() / "virtio-hxsim0proxy000000001"));
  EXPECT_EQ(sim.ByIdDir(), sim.DeviceRoot() / "dev/disk/by-id");
  EXPECT_FALSE(sim.Start().ok()) << "a second Start is refused";

  test::SimClient client(sim);
  auto r = client.Call("DescribeInstances", {{"RegionId", "cn-hangzhou"}, {"MaxResults", "100"}});
  ASSERT_EQ(r.status, 200) << r.raw;
  EXPECT_EQ(r.body["Instances"]["Instance"].size(), 5u);
  EXPECT_EQ(client.Call("DeleteDisk", {{"DiskId", "d-none"}}).status, 404);
  {
    std::lock_guard lock(mutex);
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].rfind("DescribeInstances 200 OK ", 0), 0u) << log[0];
    EXPECT_EQ(log[1].rfind("DeleteDisk 404 InvalidDiskId.NotFound ", 0), 0u) << log[1];
  }

  fs::path state = sim.StateDir();
  ASSERT_TRUE(fs::exists(state));
  sim.Stop();
  EXPECT_FALSE(fs::exists(state)) << "a temporary state folder is removed";
  EXPECT_FALSE(sim.Running());
  sim.Stop();
}

TEST(Emulator, StartReportsProblemsAsValues) {
  {
    Options o;
    o.scenarioFile = "/nonexistent/scenario.json";
    Emulator sim(o);
    auto r = sim.Start();
    EXPECT_FALSE(r.ok());
    EXPECT_NE(r.error.find("scenario"), std::string::npos);
  }
  {
    Options o;
    o.scenarioJson = "{\"accessKeys\": []}";
    EXPECT_FALSE(Emulator(o).Start().ok());
  }
  {
    Options o;
    o.timeScale = 0;
    EXPECT_FALSE(Emulator(o).Start().ok());
  }
  Emulator first;
  auto started = first.Start();
  ASSERT_TRUE(started.ok());
  Options o;
  o.port = started.port;
  auto clash = Emulator(o).Start();
  EXPECT_FALSE(clash.ok());
  EXPECT_NE(clash.error.find("listen"), std::string::npos);
}

TEST(Emulator, AGivenStateFolderIsKeptAndReused) {
  std::string pattern = (fs::temp_directory_path() / "hxsim-keep-XXXXXX").string();
  ASSERT_TRUE(mkdtemp(pattern.data()));
  fs::path dir = pattern;
  std::ofstream(dir / "notes.txt") << "mine";
  {
    Options o;
    o.stateDir = dir;
    o.scenarioFile = dir / "scenario.json";
    std::ofstream(o.scenarioFile) << Emulator::DefaultScenarioJson();
    Emulator sim(o);
    ASSERT_TRUE(sim.Start().ok());
    EXPECT_EQ(fs::file_size(dir / "disks/d-hxsim0disk0000000003.img"), uint64_t{2} << 30);
  }
  EXPECT_TRUE(fs::exists(dir / "notes.txt"));
  EXPECT_TRUE(fs::exists(dir / "disks"));
  fs::remove_all(dir);
  EXPECT_EQ(Emulator::ValidateScenario("{").rfind("invalid scenario", 0), 0u);
  EXPECT_EQ(Emulator::ValidateScenario(Emulator::DefaultScenarioJson()), "");
}

}  // namespace
}  // namespace hxsim
