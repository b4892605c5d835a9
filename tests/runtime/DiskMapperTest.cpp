// The Linux disk mapper against a device root made of files, as the emulator presents
// disks: by-id links to sparse files, and sysfs serial files.
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "DiskMapperLinux.h"
#include "RuntimeTestSupport.h"

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

long long ElapsedMs(Clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count();
}

class DiskMapperTest : public RuntimeTest {
protected:
    void SetUp() override {
        RuntimeTest::SetUp();
        fs::create_directories(dir / "dev/disk/by-id");
        fs::create_directories(dir / "store");
    }

    // A sparse "disk" of `bytes` in the store folder.
    std::string MakeImage(const std::string& name, long long bytes) {
        std::string path = dir / ("store/" + name);
        std::ofstream(path).close();
        fs::resize_file(path, static_cast<uintmax_t>(bytes));
        return path;
    }

    // What attaching does on the emulator: a by-id link to the disk's image.
    std::string Attach(const std::string& linkName, long long bytes) {
        std::string link = dir / ("dev/disk/by-id/" + linkName);
        fs::create_symlink(MakeImage(linkName + ".img", bytes), link);
        return link;
    }

    CDiskMapperLinux mapper;
};

TEST_F(DiskMapperTest, FindsADiskThatAppearsWhileWaiting) {
    ASSERT_TRUE(mapper.Init());
    ASSERT_TRUE(mapper.PreAttachDisk());
    std::string link = dir / "dev/disk/by-id/virtio-late0001";
    std::thread attacher([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        Attach("virtio-late0001", 8ll << 20);
    });
    std::string name;
    long long size = 0;
    auto start = Clock::now();
    bool ok = mapper.PostAttachDisk("d-late0001", name, size, false);
    long long waited = ElapsedMs(start);
    attacher.join();
    ASSERT_TRUE(ok);
    EXPECT_EQ(name, link) << "a regular-file disk is reported by its link";
    EXPECT_EQ(size, 8ll << 20);
    EXPECT_GE(waited, 400);
    EXPECT_LT(waited, 3000);
}

TEST_F(DiskMapperTest, GivesUpOnADiskThatNeverAppears) {
    hxruntime::SetAttachWaitMs(300);
    Attach("virtio-someoneelse", 1 << 20);
    std::string name = "unchanged";
    long long size = -1;
    auto start = Clock::now();
    EXPECT_FALSE(mapper.PostAttachDisk("d-missing01", name, size, false));
    long long waited = ElapsedMs(start);
    EXPECT_GE(waited, 300);
    EXPECT_LT(waited, 1500);
    EXPECT_EQ(name, "unchanged");
    EXPECT_EQ(size, -1);

    std::vector<std::string> names;
    EXPECT_FALSE(mapper.PostAttachDisk({"d-someoneelse", "d-missing01"}, names, false)) << "one missing disk fails the list";
    EXPECT_TRUE(mapper.PostAttachDisk("", name, size, true)) << "closing a failed bracket always succeeds";
}

TEST_F(DiskMapperTest, CancelEndsTheWait) {
    hxruntime::SetAttachWaitMs(20000);
    std::thread canceller([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        hxruntime::RaiseCancel();
    });
    std::string name;
    long long size = 0;
    auto start = Clock::now();
    EXPECT_FALSE(mapper.PostAttachDisk("d-never", name, size, false));
    canceller.join();
    EXPECT_LT(ElapsedMs(start), 2000);
}

TEST_F(DiskMapperTest, EveryLookupRouteFindsItsDisk) {
    const long long kSize = 3 << 20;
    // Routes: udev links of both buses, a virtio serial cut to 20 characters, and the sysfs
    // serial files (virtio: block/<dev>/serial, NVMe: block/<dev>/device/serial).
    Attach("nvme-Alibaba_Cloud_Elastic_Block_Storage_nvme0001", kSize);
    Attach("virtio-abcdefghij0123456789", kSize);  // 20 characters of a 22-character serial
    fs::create_directories(dir / "sys/block/vdc");
    std::ofstream(dir / "sys/block/vdc/serial") << "sysvirtio01\n";
    fs::copy_file(MakeImage("vdc", kSize), dir / "dev/vdc");
    fs::create_directories(dir / "sys/block/nvme3n1/device");
    std::ofstream(dir / "sys/block/nvme3n1/device/serial") << "  sysnvme0001   \n";
    fs::copy_file(MakeImage("nvme3n1", kSize), dir / "dev/nvme3n1");

    struct Case {
        std::string diskId;
        std::string expected;
    };
    const Case cases[] = {
        {"d-nvme0001", dir / "dev/disk/by-id/nvme-Alibaba_Cloud_Elastic_Block_Storage_nvme0001"},
        {"d-abcdefghij0123456789ab", dir / "dev/disk/by-id/virtio-abcdefghij0123456789"},
        {"d-sysvirtio01", dir / "dev/vdc"},
        {"d-sysnvme0001", dir / "dev/nvme3n1"},
    };
    for (const auto& c : cases) {
        std::string name;
        long long size = 0;
        EXPECT_TRUE(mapper.PostAttachDisk(c.diskId, name, size, false)) << c.diskId;
        EXPECT_EQ(name, c.expected) << c.diskId;
        EXPECT_EQ(size, kSize) << c.diskId;
    }

    std::vector<std::string> names{"stale"};
    ASSERT_TRUE(mapper.PostAttachDisk({"d-sysvirtio01", "d-nvme0001"}, names, false));
    EXPECT_EQ(names, (std::vector<std::string>{cases[2].expected, cases[0].expected}));
}

TEST_F(DiskMapperTest, AnEmptyDeviceIsNotReportedUntilItHasASize) {
    std::string link = dir / "dev/disk/by-id/virtio-growing01";
    fs::create_symlink(MakeImage("growing.img", 0), link);
    std::thread grower([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        fs::resize_file(dir / "store/growing.img", 1 << 20);
    });
    std::string name;
    long long size = 0;
    bool ok = mapper.PostAttachDisk("d-growing01", name, size, false);
    grower.join();
    ASSERT_TRUE(ok);
    EXPECT_EQ(size, 1 << 20);
}

TEST_F(DiskMapperTest, DetachWaitsForAFlushedDiskToGo) {
    std::string a = Attach("virtio-detach0001", 1 << 20);
    Attach("virtio-detach0002", 1 << 20);
    std::string name;
    long long size = 0;
    ASSERT_TRUE(mapper.PostAttachDisk("d-detach0001", name, size, false));
    ASSERT_TRUE(mapper.PostAttachDisk("d-detach0002", name, size, false));

    // The caller does not say which disk goes: every mapped disk is flushed, and the first
    // one to disappear ends the wait.
    ASSERT_TRUE(mapper.PreDetatchDisk(""));
    std::thread detacher([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        fs::remove(a);
    });
    auto start = Clock::now();
    EXPECT_TRUE(mapper.PostDetatchDisk());
    detacher.join();
    EXPECT_GE(ElapsedMs(start), 250);

    // A detach that did not happen: the remaining disk stays, the wait is bounded and fails.
    hxruntime::SetDetachWaitMs(300);
    ASSERT_TRUE(mapper.PreDetatchDisk(""));
    start = Clock::now();
    EXPECT_FALSE(mapper.PostDetatchDisk());
    EXPECT_LT(ElapsedMs(start), 1500);

    // Once the last disk is gone nothing is left to flush or wait for.
    fs::remove(dir / "dev/disk/by-id/virtio-detach0002");
    ASSERT_TRUE(mapper.PreDetatchDisk(""));
    start = Clock::now();
    EXPECT_TRUE(mapper.PostDetatchDisk());
    EXPECT_LT(ElapsedMs(start), 200);
}

TEST_F(DiskMapperTest, DeviceSettingsAndLocks) {
    std::string link = Attach("virtio-ro000001", 1 << 20);
    EXPECT_TRUE(mapper.MakeDiskWriteable(link)) << "a regular file needs no ioctl";
    EXPECT_TRUE(mapper.MakeDiskReadOnly(link));
    EXPECT_FALSE(mapper.MakeDiskWriteable(dir / "dev/nothing"));
    EXPECT_TRUE(mapper.BringDiskOffline(link));
    EXPECT_TRUE(mapper.BringDiskOnline(link));

    EXPECT_FALSE(mapper.Unlock()) << "nothing to unlock";
    ASSERT_TRUE(mapper.Lock());
    CDiskMapperLinux other;  // the lock is process-wide, not per mapper
    std::atomic<bool> entered{false};
    std::thread second([&] {
        other.Lock();
        entered = true;
        other.Unlock();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(entered);
    EXPECT_TRUE(mapper.Unlock());
    second.join();
    EXPECT_TRUE(entered);

    hxruntime::SetDeviceRoots(dir / "no-such-dev", "");
    EXPECT_FALSE(mapper.Init()) << "a missing device root fails at once";
}

}  // namespace
