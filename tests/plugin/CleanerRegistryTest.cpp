// The cleaner registry: typed registration of a job's VM and its children over the
// framework's entity store, as later clean-ups find them again.
#include <gtest/gtest.h>

#include "AliCloudCleaner.h"
#include "FakeFramework.h"

namespace {

class CleanerRegistryTest : public ::testing::Test {
protected:
    void SetUp() override {
        fakefw::Reset();
        ASSERT_TRUE(cleaner.Init("i-proxy"));
    }
    std::string PathOf(VM_Cleaner_Mode mode, const std::string& vm, bool orphansOnly = false) {
        std::string path;
        EXPECT_TRUE(cleaner.GetRegisteredVM(mode, vm, path, orphansOnly)) << vm;
        return path;
    }
    CAliCloudCleaner cleaner;
};

TEST_F(CleanerRegistryTest, InitOpensTheStoreOfTheProxy) {
    EXPECT_EQ("i-proxy", fakefw::Cleaner().initIdentity);
    fakefw::Cleaner().FailNext("Init");
    EXPECT_FALSE(cleaner.Init("i-proxy"));
}

TEST_F(CleanerRegistryTest, ChildrenLandUnderTheVMOfTheSameModeAndAreListedInOrder) {
    ASSERT_TRUE(cleaner.RegisterVM(VM_CLEANER_MODE_BACKUP, "i-1"));
    ASSERT_TRUE(cleaner.RegisterVM(VM_CLEANER_MODE_RESTORE, "i-1"));
    EXPECT_TRUE(cleaner.RegisterSnapshot(VM_CLEANER_MODE_BACKUP, "i-1", "s-a"));
    EXPECT_TRUE(cleaner.RegisterDisk(VM_CLEANER_MODE_BACKUP, "i-1", "d-a"));
    EXPECT_TRUE(cleaner.RegisterDisk(VM_CLEANER_MODE_BACKUP, "i-1", "d-b"));
    EXPECT_TRUE(cleaner.RegisterTemplate(VM_CLEANER_MODE_RESTORE, "i-1", "m-a"));

    const std::string backup = PathOf(VM_CLEANER_MODE_BACKUP, "i-1");
    const std::string restore = PathOf(VM_CLEANER_MODE_RESTORE, "i-1");
    EXPECT_NE(backup, restore);

    std::vector<VMInfoStructs::SDisk> disks(1);  // outputs are appended to
    ASSERT_TRUE(cleaner.GetRegisteredDisks(backup, disks));
    ASSERT_EQ(3u, disks.size());
    EXPECT_EQ("d-a", disks[1].diskId);
    EXPECT_EQ("d-a", disks[1].diskName);
    EXPECT_EQ(1u, disks[1].diskType);
    EXPECT_EQ("d-b", disks[2].diskId);

    std::vector<std::string> ids;
    ASSERT_TRUE(cleaner.GetRegisteredSnapshots(backup, ids));
    EXPECT_EQ(std::vector<std::string>{"s-a"}, ids);
    ids.clear();
    ASSERT_TRUE(cleaner.GetRegisteredTemplates(backup, ids));
    EXPECT_TRUE(ids.empty());
    ASSERT_TRUE(cleaner.GetRegisteredTemplates(restore, ids));
    EXPECT_EQ(std::vector<std::string>{"m-a"}, ids);
}

TEST_F(CleanerRegistryTest, NothingIsRegisteredUnderAVMThatIsNot) {
    EXPECT_FALSE(cleaner.RegisterDisk(VM_CLEANER_MODE_BACKUP, "i-none", "d-a"));
    EXPECT_FALSE(cleaner.RegisterSnapshot(VM_CLEANER_MODE_BACKUP, "i-none", "s-a"));
    EXPECT_FALSE(cleaner.RegisterTemplate(VM_CLEANER_MODE_RESTORE, "i-none", "m-a"));
    // A VM of the other mode does not count either.
    ASSERT_TRUE(cleaner.RegisterVM(VM_CLEANER_MODE_RESTORE, "i-1"));
    EXPECT_FALSE(cleaner.RegisterDisk(VM_CLEANER_MODE_BACKUP, "i-1", "d-a"));
    EXPECT_EQ(1u, fakefw::Cleaner().Entities().size());
}

TEST_F(CleanerRegistryTest, ARefusedImageStillCountsAsRegisteredOnceItsVMIs) {
    ASSERT_TRUE(cleaner.RegisterVM(VM_CLEANER_MODE_RESTORE, "i-1"));
    fakefw::Cleaner().FailNext("RegisterEntity");
    EXPECT_TRUE(cleaner.RegisterTemplate(VM_CLEANER_MODE_RESTORE, "i-1", "m-a"));
    EXPECT_TRUE(fakefw::Cleaner().ChildrenOf("i-1", VM_CLEANER_ENTITY_TEMPLATE).empty());
    // Disks and snapshots report the store's refusal.
    fakefw::Cleaner().FailNext("RegisterEntity");
    EXPECT_FALSE(cleaner.RegisterDisk(VM_CLEANER_MODE_RESTORE, "i-1", "d-a"));
}

TEST_F(CleanerRegistryTest, UnregisteringTakesTheFirstChildOfThatIdAndKindOnly) {
    ASSERT_TRUE(cleaner.RegisterVM(VM_CLEANER_MODE_BACKUP, "i-1"));
    ASSERT_TRUE(cleaner.RegisterDisk(VM_CLEANER_MODE_BACKUP, "i-1", "d-a"));
    ASSERT_TRUE(cleaner.RegisterDisk(VM_CLEANER_MODE_BACKUP, "i-1", "d-a"));
    ASSERT_TRUE(cleaner.RegisterSnapshot(VM_CLEANER_MODE_BACKUP, "i-1", "d-a"));
    const std::string vm = PathOf(VM_CLEANER_MODE_BACKUP, "i-1");

    EXPECT_TRUE(cleaner.UnRegisterDisk(vm, "d-a"));
    EXPECT_EQ(std::vector<std::string>{"d-a"}, fakefw::Cleaner().ChildrenOf("i-1", VM_CLEANER_ENTITY_DISK));
    EXPECT_EQ(std::vector<std::string>{"d-a"}, fakefw::Cleaner().ChildrenOf("i-1", VM_CLEANER_ENTITY_SNAPSHOT));

    const size_t before = fakefw::Cleaner().Entities().size();
    EXPECT_FALSE(cleaner.UnRegisterDisk(vm, "D-A"));       // ids compare exactly
    EXPECT_FALSE(cleaner.UnRegisterTemplate(vm, "d-a"));   // wrong kind
    EXPECT_FALSE(cleaner.UnRegisterSnapshot("/cleaner/999", "d-a"));  // unknown VM path
    EXPECT_EQ(before, fakefw::Cleaner().Entities().size());

    EXPECT_TRUE(cleaner.UnRegisterVM(vm));
    EXPECT_TRUE(fakefw::Cleaner().Empty());
}

TEST_F(CleanerRegistryTest, RegisteredVMIsFoundLiveFirstThenAmongOrphans) {
    int orphan = fakefw::Cleaner().AddOrphanVM(VM_CLEANER_MODE_BACKUP, "i-1");
    fakefw::Cleaner().AddChild(orphan, VM_CLEANER_ENTITY_DISK, "d-old");
    ASSERT_TRUE(cleaner.RegisterVM(VM_CLEANER_MODE_BACKUP, "i-1"));
    ASSERT_TRUE(cleaner.RegisterDisk(VM_CLEANER_MODE_BACKUP, "i-1", "d-new"));

    auto disksAt = [&](const std::string& path) {
        std::vector<VMInfoStructs::SDisk> disks;
        EXPECT_TRUE(cleaner.GetRegisteredDisks(path, disks));
        return disks.empty() ? std::string() : disks[0].diskId;
    };
    EXPECT_EQ("d-new", disksAt(PathOf(VM_CLEANER_MODE_BACKUP, "i-1")));
    const int lookups = fakefw::Cleaner().CallCount("LookupEntity");
    EXPECT_EQ("d-old", disksAt(PathOf(VM_CLEANER_MODE_BACKUP, "i-1", /*orphansOnly=*/true)));
    EXPECT_EQ(lookups, fakefw::Cleaner().CallCount("LookupEntity"));  // orphans only: no live lookup

    std::string path;
    EXPECT_FALSE(cleaner.GetRegisteredVM(VM_CLEANER_MODE_RESTORE, "i-1", path, false));
    fakefw::Cleaner().FailNext("GetOrphanedRootEntityListByType");
    EXPECT_FALSE(cleaner.GetRegisteredVM(VM_CLEANER_MODE_BACKUP, "i-1", path, true));
}

TEST_F(CleanerRegistryTest, ListingFailuresAreReportedAndLeaveOutputsAlone) {
    ASSERT_TRUE(cleaner.RegisterVM(VM_CLEANER_MODE_BACKUP, "i-1"));
    const std::string vm = PathOf(VM_CLEANER_MODE_BACKUP, "i-1");
    std::vector<VMInfoStructs::SDisk> disks;
    EXPECT_TRUE(cleaner.GetRegisteredDisks(vm, disks));  // no disks is success
    EXPECT_TRUE(disks.empty());
    fakefw::Cleaner().FailNext("FillItemsFromCleanerPath");
    EXPECT_FALSE(cleaner.GetRegisteredDisks(vm, disks));
    std::vector<std::string> ids{"keep"};
    fakefw::Cleaner().FailNext("FillItemsFromCleanerPath");
    EXPECT_FALSE(cleaner.GetRegisteredSnapshots(vm, ids));
    EXPECT_EQ(std::vector<std::string>{"keep"}, ids);
}

}  // namespace
