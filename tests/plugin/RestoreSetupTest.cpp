// Restore set-up: refusals before anything is made, the cleaner registration under a
// temporary id, the empty disks attached to the proxy and detached again, and the
// properties of the instance to create.
#include <gtest/gtest.h>

#include <functional>

#include "ExpectedTags.h"
#include "RestoreWorld.h"

using namespace expected_tags;

namespace {

class RestoreSetupTest : public RestoreFixture {
protected:
    // Nothing of the restore exists: no disk, no registration, no instance handled.
    void ExpectNothingMade(const std::string& why) {
        EXPECT_EQ(0, cloud().Count("CreateDisk")) << why;
        EXPECT_EQ(0, cloud().Count("GetVMInfoListForRegion")) << why;
        EXPECT_EQ(0, store().CallCount("RegisterEntity")) << why;
        EXPECT_TRUE(store().Empty()) << why;
    }
};

TEST_F(RestoreSetupTest, RefusalsOfTheProxyOrTheDestinationComeBeforeAnythingIsMade) {
    struct Case {
        const char* name;
        std::function<void(RestoreCtx&)> arrange;
        EVMInfoError code;
        std::string details;
        std::string line;
        bool errorLevel;
    };
    const Case cases[] = {
        {"snap restore", [](RestoreCtx& ctx) { ctx.snapRestore = true; }, VMINFO_ERR_NONE, "",
         "Snap restore is currently not supported.", false},
        {"proxy is no ECS instance", [](RestoreCtx&) { fakecloud::TheCloud().localInstanceId.clear(); },
         VMINFO_ERR_NONE, "", "Proxy is not Alibaba Cloud Instance. Hotadd restore is not possible.", false},
        {"proxy cannot be described",
         [](RestoreCtx&) { fakecloud::TheCloud().FailNext("GetVMInfoForVM", "Throttling.User: slow down"); },
         VMINFO_ERR_PROXY_INFO, "Throttling.User: slow down", "Failed to get proxy VM Info.", true},
        {"other zone of the same region", [](RestoreCtx& ctx) { ctx.zoneName = "cn-hangzhou-j"; },
         VMINFO_ERR_ZONE_MISMATCH, "",
         "Proxy zone [cn-hangzhou-k] and restore VM destination zone [cn-hangzhou-j] is different. Hotadd restore is "
         "not possible.",
         false},
        {"zone differing in case only", [](RestoreCtx& ctx) { ctx.zoneName = "CN-HANGZHOU-K"; },
         VMINFO_ERR_ZONE_MISMATCH, "",
         "Proxy zone [cn-hangzhou-k] and restore VM destination zone [CN-HANGZHOU-K] is different. Hotadd restore is "
         "not possible.",
         false},
    };
    for (const Case& c : cases) {
        fakecloud::Reset();
        fakefw::Reset();
        restoreworld::Build();
        // The same name exists and may be overwritten: a refusal must come before that.
        cloud().AddInstance("i-old", "web-restored", restoreworld::kRegion, restoreworld::kZone, "Stopped");
        RestoreCtx ctx = restoreworld::Request();
        ctx.overwriteExisting = true;
        c.arrange(ctx);
        TestPlugin fresh;
        fresh.SetLastVMError(VMINFO_ERR_DISK_ATTACH, "stale");

        EXPECT_EQ(0, fresh.InitRestoreVM(ctx)) << c.name;
        EXPECT_EQ(c.code, fresh.GetLastVMError()) << c.name;
        EXPECT_EQ(c.details, fresh.GetLastVMErrorDetails()) << c.name;
        auto lines = fakefw::LinesWithText(c.line);
        ASSERT_EQ(1u, lines.size()) << c.name;
        EXPECT_EQ(kCheckFeasibility, lines[0].tag) << c.name;
        EXPECT_EQ(c.errorLevel, lines[0].isError()) << c.name;
        ExpectNothingMade(c.name);
        EXPECT_EQ(1u, cloud().instances.count("i-old")) << c.name;
        EXPECT_EQ("", ctx.tempVMId) << c.name;
    }
}

TEST_F(RestoreSetupTest, TheProxyIsDescribedByItsOwnIdIntoThePluginsRecord) {
    RestoreCtx ctx = restoreworld::Request();
    ASSERT_TRUE(plugin.CheckFeasibility(ctx));
    auto lookups = cloud().CallsTo("GetVMInfoForVM");
    ASSERT_EQ(1u, lookups.size());
    EXPECT_EQ((std::vector<std::string>{"i-proxy", "16", "0"}), lookups[0].args);
    EXPECT_EQ("i-proxy", plugin.Proxy().guid);
    EXPECT_EQ(restoreworld::kProxyName, plugin.Proxy().name);
    EXPECT_EQ(restoreworld::kRegion, plugin.Proxy().regionId);
    EXPECT_TRUE(fakefw::HasLine(kCheckFeasibility, "Instance id of proxy [i-proxy]"));
}

TEST_F(RestoreSetupTest, ACancelledJobStopsAtOnce) {
    fakefw::CancelAfterChecks(0);
    RestoreCtx ctx = restoreworld::Request();
    EXPECT_EQ(0, plugin.InitRestoreVM(ctx));
    EXPECT_EQ(VMINFO_ERR_JOB_CANCELLED, plugin.GetLastVMError());
    EXPECT_EQ(std::vector<std::string>{"Quit flag set, terminating JobWait"}, fakefw::TextsWithTag(kInitRestoreVM));
    EXPECT_TRUE(cloud().calls.empty());
}

TEST_F(RestoreSetupTest, AnUnknownFlavourIsRefusedWithoutACodeBeforeTheOverwriteHandling) {
    RestoreCtx ctx = restoreworld::Request();
    ctx.restoreFlavor = 2;
    EXPECT_EQ(0, plugin.InitRestoreVM(ctx));
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
    EXPECT_TRUE(fakefw::HasLine(kInitRestoreVM, "Restore flavor [2] not implemented."));
    ExpectNothingMade("flavour 2");
}

TEST_F(RestoreSetupTest, AMissingOSDiskFailsWithCode20AfterTheOldInstanceWasAlreadyDeleted) {
    cloud().AddInstance("i-old", "web-restored", restoreworld::kRegion, restoreworld::kZone, "Stopped");
    RestoreCtx ctx = restoreworld::Request();
    ctx.overwriteExisting = true;
    ctx.disks[0].isOSDisk = false;
    EXPECT_EQ(0, plugin.InitRestoreVM(ctx));
    const std::string text = "OS disk not found. Please check if the OS disk was filtered as part of backup.";
    EXPECT_EQ(VMINFO_ERR_RESTORE_VM, plugin.GetLastVMError());
    EXPECT_EQ(text, plugin.GetLastVMErrorDetails());
    auto lines = fakefw::LinesWithText(text);
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(lines[0].isError());
    EXPECT_EQ(kInitRestoreVM_AliCloudVMAsProxy, lines[0].tag);
    EXPECT_EQ(0u, cloud().instances.count("i-old"));
    EXPECT_EQ(0, cloud().Count("CreateDisk"));
    EXPECT_TRUE(store().Empty());
}

TEST_F(RestoreSetupTest, InitMakesRegistersAndAttachesTheDisksAndPreRestoreDetachesThem) {
    RestoreCtx ctx = restoreworld::Request();
    ctx.disks.push_back(restoreworld::Disk("d-src-skipped", 8, false));
    ctx.disks.back().filtered = true;
    ASSERT_EQ(1, plugin.InitRestoreVM(ctx));
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
    EXPECT_TRUE(fakefw::HasLine(kInitRestoreVM, "Original VMName : [web-01] Restore VMName  : [web-restored]"));
    EXPECT_TRUE(fakefw::HasLine(kInitRestoreVM,
                                "Restoring VM to Alibaba Cloud Zone : [cn-hangzhou-k], Alibaba Cloud Region : [cn-hangzhou]"));

    EXPECT_EQ("guid-1", ctx.tempVMId);
    EXPECT_TRUE(fakefw::HasLine(kRegisterCleanerForRestore, "Using temporary Id [guid-1] for VM [web-restored]."));
    EXPECT_EQ(restoreworld::kProxyId, store().initIdentity);
    const auto made = cloud().CreatedDisks();
    ASSERT_EQ(2u, made.size());
    EXPECT_EQ(made[0], ctx.disks[0].diskId);
    EXPECT_EQ(made[1], ctx.disks[1].diskId);
    EXPECT_EQ(made, store().ChildrenOf("guid-1", VM_CLEANER_ENTITY_DISK));
    EXPECT_EQ((std::vector<std::string>{"d-proxy-os", made[0], made[1]}),
              cloud().DisksAttachedTo(restoreworld::kProxyId));
    EXPECT_EQ(2, fakefw::Mapper().Count("PostAttachDisk"));
    bool restoreRoot = false;
    for (const auto& e : store().Entities())
        if (e.parentRow == 0) restoreRoot = e.id == "guid-1" && e.mode == VM_CLEANER_MODE_RESTORE;
    EXPECT_TRUE(restoreRoot);

    ASSERT_EQ(1, plugin.PreRestoreVM(ctx));
    EXPECT_TRUE(fakefw::HasLine(kPreRestoreVM, "Doing PreRestoreVM."));
    EXPECT_EQ(std::vector<std::string>{"d-proxy-os"}, cloud().DisksAttachedTo(restoreworld::kProxyId));
    auto detaches = cloud().CallsTo("DetachDisk");
    ASSERT_EQ(2u, detaches.size());
    EXPECT_EQ((std::vector<std::string>{"i-proxy", made[0], "cn-hangzhou"}), detaches[0].args);
    EXPECT_EQ(made, store().ChildrenOf("guid-1", VM_CLEANER_ENTITY_DISK));
}

TEST_F(RestoreSetupTest, AFailedAttachLeavesTheDisksRegisteredForTheCleanUp) {
    cloud().FailCall("AttachDisk", 2, {"InvalidOperation.Conflict: busy", false});
    RestoreCtx ctx = restoreworld::Request();
    EXPECT_EQ(0, plugin.InitRestoreVM(ctx));
    EXPECT_EQ(VMINFO_ERR_DISK_ATTACH, plugin.GetLastVMError());
    EXPECT_EQ(cloud().CreatedDisks(), store().ChildrenOf("guid-1", VM_CLEANER_ENTITY_DISK));
    EXPECT_EQ(2u, cloud().CreatedDisks().size());
}

class RegisterCleanerForRestoreTest : public RestoreSetupTest {};

TEST_F(RegisterCleanerForRestoreTest, AFailedRegistrationIsLoggedAndTheRestoreGoesOn) {
    store().FailNext("RegisterEntity");
    RestoreCtx ctx = restoreworld::Request();
    EXPECT_TRUE(plugin.RegisterCleanerForRestore(ctx));
    EXPECT_EQ(std::vector<std::string>{"Failed to register VM [guid-1]."}, fakefw::ErrorTexts());
    EXPECT_TRUE(store().Empty());
}

TEST_F(RegisterCleanerForRestoreTest, WithoutTheMountSideStateNothingIsRegistered) {
    fakefw::Mapper().FailNext("Init");
    RestoreCtx ctx = restoreworld::Request();
    EXPECT_FALSE(plugin.RegisterCleanerForRestore(ctx));
    EXPECT_EQ("guid-1", ctx.tempVMId);
    EXPECT_EQ(0, store().CallCount("RegisterEntity"));
    EXPECT_FALSE(plugin.OrphansCleaned());
}

TEST_F(RegisterCleanerForRestoreTest, WhatAnEarlierProcessLeftIsSweptOncePerPluginObject) {
    // An interrupted restore of an earlier process left a disk.
    cloud().disks["d-left"].info.diskId = "d-left";
    cloud().disks["d-left"].info.diskType = 1;
    const int orphan = store().AddOrphanVM(VM_CLEANER_MODE_RESTORE, "old-restore");
    store().AddChild(orphan, VM_CLEANER_ENTITY_DISK, "d-left");

    RestoreCtx first = restoreworld::Request();
    ASSERT_TRUE(plugin.RegisterCleanerForRestore(first));
    EXPECT_TRUE(plugin.OrphansCleaned());
    EXPECT_EQ(0u, cloud().disks.count("d-left"));
    EXPECT_FALSE(store().HasVM("old-restore"));
    EXPECT_EQ(1, store().postAllVMCleanupCalls);

    store().AddOrphanVM(VM_CLEANER_MODE_RESTORE, "later-orphan");
    RestoreCtx second = restoreworld::Request();
    ASSERT_TRUE(plugin.RegisterCleanerForRestore(second));
    EXPECT_TRUE(store().HasVM("later-orphan"));
    EXPECT_EQ(1, store().postAllVMCleanupCalls);
}

class PrepareRestoreCtxVMInfoTest : public RestoreSetupTest {};

TEST_F(PrepareRestoreCtxVMInfoTest, TheJobsChoicesAreLaidOverTheConfigFile) {
    const std::vector<SVMNetworkCard> chosenCards{{"", "vsw-new", "vpc-new", "", "", true}};
    const std::vector<SSecurityGroupInfo> chosenGroups{{"sg-new", "new"}};
    const SVMInfo fromFile = restoreworld::ConfigProperties();
    struct Case {
        const char* name;
        std::string profile, guestOS;
        bool keep;
        std::vector<SVMNetworkCard> cards;
        std::vector<SSecurityGroupInfo> groups;
        std::string expProfile, expGuestOS;
        size_t expCards;      // number of cards
        std::string expCard;  // vSwitch of the first card
        std::string expGroup;
    };
    const Case cases[] = {
        {"nothing chosen", "", "", false, {}, {}, "ecs.g6.large", "CentOS 7.9 64 bit;x86_64", 0, "", "sg-old"},
        {"all chosen", "ecs.c7.xlarge", "Windows Server 2019;x86_64", false, chosenCards, chosenGroups,
         "ecs.c7.xlarge", "Windows Server 2019;x86_64", 1, "vsw-new", "sg-new"},
        {"keep the file's network", "", "", true, chosenCards, chosenGroups, "ecs.g6.large",
         "CentOS 7.9 64 bit;x86_64", 1, "vsw-old", "sg-old"},
    };
    for (const Case& c : cases) {
        RestoreCtx ctx = restoreworld::Request();
        ctx.disks.push_back(restoreworld::Disk("d-local", 4, false));
        ctx.disks.back().diskType = 2;
        ctx.vmInfo = fromFile;
        ctx.vmProfileOverride = c.profile;
        ctx.guestOSOverride = c.guestOS;
        ctx.keepConfigNetworkSettings = c.keep;
        ctx.networkCards = c.cards;
        ctx.securityGroups = c.groups;

        EXPECT_TRUE(plugin.PrepareRestoreCtxVMInfoBasic(ctx)) << c.name;
        const SVMInfo& vm = ctx.vmInfo;
        EXPECT_EQ("", vm.guid) << c.name;
        EXPECT_EQ("web-restored", vm.name) << c.name;
        EXPECT_EQ(restoreworld::kZone, vm.hostName) << c.name;
        EXPECT_EQ(restoreworld::kRegion, vm.regionId) << c.name;
        EXPECT_EQ(c.expProfile, vm.vmProfile) << c.name;
        EXPECT_EQ(c.expGuestOS, vm.guestOS) << c.name;
        ASSERT_EQ(c.expCards, vm.networkCards.size()) << c.name;
        if (c.expCards) {
            EXPECT_EQ(c.expCard, vm.networkCards[0].vSwitchId) << c.name;
        }
        ASSERT_EQ(1u, vm.securityGroups.size()) << c.name;
        EXPECT_EQ(c.expGroup, vm.securityGroups[0].id) << c.name;
        // The restore's cloud disks, in order; the file's disks and other kinds are gone.
        ASSERT_EQ(2u, vm.disks.size()) << c.name;
        EXPECT_EQ("d-src-os", vm.disks[0].diskId) << c.name;
        EXPECT_TRUE(vm.disks[0].isOSDisk) << c.name;
        EXPECT_EQ("d-src-data", vm.disks[1].diskId) << c.name;
    }
}

TEST_F(PrepareRestoreCtxVMInfoTest, AnUnreadableConfigFileFailsButTheJobsChoicesAreStillApplied) {
    restoreworld::TempDir empty;
    RestoreCtx ctx = restoreworld::Request(empty.path());
    ctx.vmProfileOverride = "ecs.c7.xlarge";
    EXPECT_FALSE(plugin.PrepareRestoreCtxVMInfo(ctx));
    EXPECT_EQ(VMINFO_ERR_CONFIG_NOT_FOUND, plugin.GetLastVMError());
    EXPECT_EQ("web-restored", ctx.vmInfo.name);
    EXPECT_EQ(restoreworld::kZone, ctx.vmInfo.hostName);
    EXPECT_EQ("ecs.c7.xlarge", ctx.vmInfo.vmProfile);
    EXPECT_EQ(2u, ctx.vmInfo.disks.size());
}

TEST_F(PrepareRestoreCtxVMInfoTest, FindOSDiskTakesTheFirstSystemDiskWhateverItsKindOrFilter) {
    std::vector<SDisk> disks{restoreworld::Disk("d-a", 1, false), restoreworld::Disk("d-b", 1, true),
                             restoreworld::Disk("d-c", 1, true)};
    disks[1].diskType = 0;
    disks[1].filtered = true;
    SDisk* found = nullptr;
    ASSERT_TRUE(plugin.FindOSDisk(disks, found));
    EXPECT_EQ(&disks[1], found);
    disks[1].isOSDisk = disks[2].isOSDisk = false;
    found = nullptr;
    EXPECT_FALSE(plugin.FindOSDisk(disks, found));
}

}  // namespace
