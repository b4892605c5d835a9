// The empty disks a restore writes into: made in the proxy's zone, registered for the
// clean-up, reused by a retried job.
#include <gtest/gtest.h>

#include "ExpectedTags.h"
#include "RestoreWorld.h"

using namespace expected_tags;
using restoreworld::Disk;

namespace {

constexpr const char kVmId[] = "tmp-vm";

class CreateEmptyDisksTest : public RestoreFixture {
protected:
    void SetUp() override {
        RestoreFixture::SetUp();
        plugin.SetProxy(restoreworld::Proxy());
        ASSERT_TRUE(plugin.Cleaner().Init(restoreworld::kProxyId));
        ASSERT_TRUE(plugin.Cleaner().RegisterVM(VM_CLEANER_MODE_RESTORE, kVmId));
    }
    std::vector<std::string> RegisteredDisks() { return store().ChildrenOf(kVmId, VM_CLEANER_ENTITY_DISK); }
    bool Create(std::vector<SDisk>& disks, VM_Cleaner_Mode mode = VM_CLEANER_MODE_RESTORE) {
        return plugin._CreateEmptyDisks(kVmId, disks, mode);
    }
};

TEST_F(CreateEmptyDisksTest, EverySelectedDiskGetsAnEmptyDiskInTheProxysZone) {
    SDisk os = Disk("d-src-os", 40, true);
    os.createFlag = true;
    SDisk local = Disk("d-local", 10, false);
    local.diskType = 2;  // not a cloud disk: passed over in silence
    SDisk skipped = Disk("d-skipped", 50, false);
    skipped.filtered = true;
    SDisk data = Disk("d-src-data", 100, false, "cloud_efficiency");
    std::vector<SDisk> disks{os, local, skipped, data};

    ASSERT_TRUE(Create(disks));

    auto creates = cloud().CallsTo("CreateDisk");
    ASSERT_EQ(2u, creates.size());
    // region, zone, snapshot, name, category, size, encrypted, description
    EXPECT_EQ((std::vector<std::string>{"cn-hangzhou", "cn-hangzhou-k", "", "", "cloud_essd", "40", "true",
                                        "Created by Halvorix for restore"}),
              creates[0].args);
    EXPECT_EQ((std::vector<std::string>{"cn-hangzhou", "cn-hangzhou-k", "", "", "cloud_efficiency", "100", "false",
                                        "Created by Halvorix for restore"}),
              creates[1].args);
    const auto created = cloud().CreatedDisks();
    ASSERT_EQ(2u, created.size());
    EXPECT_EQ(created[0], disks[0].diskId);
    EXPECT_EQ(created[0], disks[0].newDiskId);
    EXPECT_EQ(created[1], disks[3].diskId);
    EXPECT_EQ(created[1], disks[3].newDiskId);
    EXPECT_EQ("d-local", disks[1].diskId);
    EXPECT_EQ("d-skipped", disks[2].diskId);
    EXPECT_EQ("", disks[2].newDiskId);
    EXPECT_EQ(created, RegisteredDisks());

    EXPECT_EQ((std::vector<std::string>{"Disk [" + created[0] + "] created successfully in zone [cn-hangzhou-b].",
                                        "Not creating new disk for filtered [d-skipped]",
                                        "Disk [" + created[1] + "] created successfully in zone [cn-hangzhou-b]."}),
              fakefw::TextsWithTag(k_CreateEmptyDisks));
}

TEST_F(CreateEmptyDisksTest, AListWhoseOnlySelectedDiskIsFilteredCreatesNothing) {
    SDisk only = Disk("d-src-os", 40, true);
    only.filtered = true;
    std::vector<SDisk> disks{only};
    EXPECT_TRUE(Create(disks));
    EXPECT_EQ(0, cloud().Count("CreateDisk"));
    EXPECT_TRUE(RegisteredDisks().empty());
}

TEST_F(CreateEmptyDisksTest, ARetriedJobReusesItsDiskWhileItExists) {
    // The earlier attempt made d-kept (still there) and d-lost (deleted since).
    cloud().disks["d-kept"].info.diskId = "d-kept";
    SDisk kept = Disk("d-src-os", 40, true);
    kept.newDiskId = "d-kept";
    SDisk lost = Disk("d-src-data", 100, false);
    lost.newDiskId = "d-lost";
    std::vector<SDisk> disks{kept, lost};

    ASSERT_TRUE(Create(disks));

    EXPECT_EQ("d-kept", disks[0].diskId);
    auto lookups = cloud().CallsTo("GetDiskInfo");
    ASSERT_EQ(2u, lookups.size());
    EXPECT_EQ((std::vector<std::string>{"cn-hangzhou", "d-kept"}), lookups[0].args);
    EXPECT_EQ((std::vector<std::string>{"cn-hangzhou", "d-lost"}), lookups[1].args);
    ASSERT_EQ(1, cloud().Count("CreateDisk"));
    const std::string remade = cloud().CreatedDisks().at(0);
    EXPECT_EQ(remade, disks[1].diskId);
    EXPECT_EQ(remade, disks[1].newDiskId);
    // The reused disk was registered by the earlier attempt; only the new one is registered now.
    EXPECT_EQ(std::vector<std::string>{remade}, RegisteredDisks());
    EXPECT_TRUE(fakefw::HasLine(k_CreateEmptyDisks, "Found the disk [d-kept], will be reusing it."));
    EXPECT_TRUE(fakefw::HasLine(k_CreateEmptyDisks,
                                "Failed to get information of disk [d-lost]. will re-create new disk. Error "
                                "[InvalidDiskId.NotFound: The specified disk does not exist.] "));
}

TEST_F(CreateEmptyDisksTest, ACancelBetweenDisksKeepsTheFirstDiskRegistered) {
    std::vector<SDisk> disks{Disk("d-src-os", 40, true), Disk("d-src-data", 100, false)};
    fakefw::CancelAfterChecks(1);
    EXPECT_FALSE(Create(disks));
    EXPECT_EQ(VMINFO_ERR_JOB_CANCELLED, plugin.GetLastVMError());
    EXPECT_TRUE(fakefw::HasLine(k_CreateEmptyDisks, "Detected Quit flag"));
    ASSERT_EQ(1u, cloud().CreatedDisks().size());
    EXPECT_EQ(cloud().CreatedDisks(), RegisteredDisks());
    EXPECT_EQ("d-src-data", disks[1].diskId);
}

TEST_F(CreateEmptyDisksTest, AFailedCreationStopsWithCode24AndKeepsWhatWasMade) {
    std::vector<SDisk> disks{Disk("d-src-os", 40, true), Disk("d-src-data", 100, false), Disk("d-third", 5, false)};
    cloud().FailCall("CreateDisk", 2, {"QuotaExceed.Disk: quota exceeded", false});
    EXPECT_FALSE(Create(disks));
    EXPECT_EQ(VMINFO_ERR_DISK_CREATE, plugin.GetLastVMError());
    EXPECT_EQ("QuotaExceed.Disk: quota exceeded", plugin.GetLastVMErrorDetails());
    EXPECT_EQ(std::vector<std::string>{"Failed to create new disk."}, fakefw::ErrorTexts());
    EXPECT_EQ(2, cloud().Count("CreateDisk"));
    EXPECT_EQ(cloud().CreatedDisks(), RegisteredDisks());
    EXPECT_EQ(1u, RegisteredDisks().size());
    EXPECT_EQ("d-src-data", disks[1].diskId);
    EXPECT_EQ("", disks[1].newDiskId);
}

TEST_F(CreateEmptyDisksTest, RegistrationIsSkippedInModeNoneAndItsFailureIsOnlyLogged) {
    std::vector<SDisk> unregistered{Disk("d-src-os", 40, true)};
    EXPECT_TRUE(Create(unregistered, VM_CLEANER_MODE_NONE));
    EXPECT_EQ(1u, cloud().CreatedDisks().size());
    EXPECT_TRUE(RegisteredDisks().empty());
    EXPECT_EQ(1, store().CallCount("RegisterEntity"));  // the VM of the set-up alone

    std::vector<SDisk> refused{Disk("d-src-os", 40, true), Disk("d-src-data", 100, false)};
    store().FailNext("RegisterEntity");
    EXPECT_TRUE(Create(refused));
    EXPECT_EQ(std::vector<std::string>{"Failed in registering disk [" + refused[0].diskId + "]."}, fakefw::ErrorTexts());
    EXPECT_EQ(std::vector<std::string>{refused[1].diskId}, RegisteredDisks());
}

}  // namespace
