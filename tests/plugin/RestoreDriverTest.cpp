// The restore driver: snapshot of the written OS disk, image, instance; the guest OS string
// and the image request; what each failure leaves registered for the clean-up.
#include <gtest/gtest.h>

#include <algorithm>

#include "ExpectedTags.h"
#include "RestoreWorld.h"

using namespace expected_tags;

namespace {

constexpr const char kVmId[] = "tmp-vm";

// The state after InitRestoreVM and PreRestoreVM: the written disks exist, detached and
// registered under the restore's temporary id; the configuration file is in the folder.
class RestoreDriverTest : public RestoreFixture {
protected:
    void SetUp() override {
        RestoreFixture::SetUp();
        plugin.SetProxy(restoreworld::Proxy());
        ASSERT_TRUE(plugin.Cleaner().Init(restoreworld::kProxyId));
        ASSERT_TRUE(plugin.Cleaner().RegisterVM(VM_CLEANER_MODE_RESTORE, kVmId));
        folder.File("i-web_InstanceConfig.json", restoreworld::kConfigText);
        ctx = restoreworld::Request(folder.path());
        ctx.tempVMId = kVmId;
        ctx.disks[0].diskId = ctx.disks[0].newDiskId = Written("d-new-os", 40);
        ctx.disks[1].diskId = ctx.disks[1].newDiskId = Written("d-new-data", 100);
    }
    std::string Written(const std::string& id, long long sizeGiB) {
        auto& d = cloud().disks[id];
        d.info.diskId = id;
        d.info.diskType = 1;
        d.info.zone = restoreworld::kZone;
        d.info.diskSize = sizeGiB;
        d.regionId = restoreworld::kRegion;
        EXPECT_TRUE(plugin.Cleaner().RegisterDisk(VM_CLEANER_MODE_RESTORE, kVmId, id));
        return id;
    }
    std::vector<std::string> Registered(VM_Cleaner_EntityType kind) { return store().ChildrenOf(kVmId, kind); }
    std::vector<std::string> Keys(const auto& map) {
        std::vector<std::string> keys;
        for (const auto& [key, value] : map) keys.push_back(key);
        return keys;
    }

    restoreworld::TempDir folder;
    RestoreCtx ctx;
};

TEST_F(RestoreDriverTest, ParseGuestOSStringWantsExactlyTwoPartsAndKeepsThemAsTheyAre) {
    struct Case {
        std::string text;
        bool ok;
        std::string os, arch;
    };
    const Case cases[] = {
        {"CentOS 7.9 64 bit;x86_64", true, "CentOS 7.9 64 bit", "x86_64"},
        {" Ubuntu 22.04 ; arm64 ", true, " Ubuntu 22.04 ", " arm64 "},
        {";", true, "", ""},
        {"Windows;x86_64;extra", false, "", ""},
        {"Linux", false, "", ""},
        {"", false, "", ""},
    };
    for (const Case& c : cases) {
        fakefw::Reset();
        std::string os = "before-os";
        std::string arch = "before-arch";
        EXPECT_EQ(c.ok, plugin.ParseGuestOSString(c.text, os, arch)) << c.text;
        EXPECT_EQ(c.ok ? c.os : "before-os", os) << c.text;
        EXPECT_EQ(c.ok ? c.arch : "before-arch", arch) << c.text;
        const std::vector<std::string> expected =
            c.ok ? std::vector<std::string>{}
                 : std::vector<std::string>{"Guest OS name not in proper format. Value is [" + c.text + "]."};
        EXPECT_EQ(expected, fakefw::ErrorTexts()) << c.text;
    }
}

TEST_F(RestoreDriverTest, TheImageComesFromTheOSDiskSnapshotAndNamesTheJobAndTheProxy) {
    ctx.disks[0].snapshotId = "s-os";
    cloud().snapshots["s-os"] = fakecloud::Snapshot{"s-os", "d-new-os", restoreworld::kRegion, 0, false};
    std::string imageId;
    ASSERT_TRUE(plugin.CreateImage(ctx, imageId, "CentOS 7.9 64 bit", "x86_64"));
    auto calls = cloud().CallsTo("CreateImageFromDiskSnapshots");
    ASSERT_EQ(1u, calls.size());
    // region, system snapshot, data snapshots, architecture, platform, name, description
    EXPECT_EQ((std::vector<std::string>{"cn-hangzhou", "s-os", "", "x86_64", "CentOS 7.9 64 bit", "",
                                        "Snapshot Created by Tarnelo for Job 1234 from proxy1(i-proxy)"}),
              calls[0].args);
    EXPECT_EQ(std::vector<std::string>{imageId}, Keys(cloud().images));
    EXPECT_EQ(std::vector<std::string>{imageId}, Registered(VM_CLEANER_ENTITY_TEMPLATE));
    EXPECT_TRUE(fakefw::HasLine(kCreateImage, "Created image [" + imageId + "] for restore."));
}

TEST_F(RestoreDriverTest, ImageFailuresSetCode20WithoutALineAndARefusedRegistrationIsOnlyLogged) {
    ctx.disks[0].snapshotId = "s-os";
    cloud().snapshots["s-os"] = fakecloud::Snapshot{"s-os", "d-new-os", restoreworld::kRegion, 0, false};
    std::string imageId;
    cloud().FailNext("CreateImageFromDiskSnapshots", "QuotaExceed.Image: too many images");
    EXPECT_FALSE(plugin.CreateImage(ctx, imageId, "os", "arch"));
    EXPECT_EQ(VMINFO_ERR_RESTORE_VM, plugin.GetLastVMError());
    EXPECT_EQ("QuotaExceed.Image: too many images", plugin.GetLastVMErrorDetails());
    EXPECT_TRUE(fakefw::Logs().empty()) << fakefw::Dump();

    ctx.tempVMId = "never-registered";
    ASSERT_TRUE(plugin.CreateImage(ctx, imageId, "os", "arch"));
    EXPECT_EQ(std::vector<std::string>{"Failed to register image [" + imageId + "] with cleaner."},
              fakefw::ErrorTexts());

    ctx.disks[0].isOSDisk = false;
    plugin.SetLastVMError(VMINFO_ERR_NONE);
    EXPECT_FALSE(plugin.CreateImage(ctx, imageId, "os", "arch"));
    EXPECT_EQ(VMINFO_ERR_RESTORE_VM, plugin.GetLastVMError());
    EXPECT_EQ("OS disk not found. Please check if the OS disk was filtered as part of the backup.",
              plugin.GetLastVMErrorDetails());
    EXPECT_EQ(2, cloud().Count("CreateImageFromDiskSnapshots"));  // the last call never reached the bridge
}

TEST_F(RestoreDriverTest, TheInstanceIsMadeFromAnImageOfTheOSDiskAloneWithTheJobsProperties) {
    ASSERT_EQ(1, plugin.RestoreVirtualMachine(ctx));

    EXPECT_EQ((std::vector<std::string>{"CreateSnapshot", "GetVMInfoFromConfigFile", "IsSnapshotCompleted",
                                        "CreateImageFromDiskSnapshots", "CreateInstance"}),
              cloud().CallNames());
    EXPECT_EQ("d-new-os", cloud().CallsTo("CreateSnapshot")[0].Arg(0));
    const std::string snapshot = ctx.disks[0].snapshotId;
    ASSERT_FALSE(snapshot.empty());
    EXPECT_EQ("", ctx.disks[1].snapshotId);
    ASSERT_EQ(2u, ctx.vmInfo.disks.size());
    EXPECT_EQ(snapshot, ctx.vmInfo.disks[0].snapshotId);
    EXPECT_EQ(std::vector<std::string>{snapshot}, Registered(VM_CLEANER_ENTITY_SNAPSHOT));

    const auto image = cloud().CallsTo("CreateImageFromDiskSnapshots")[0];
    EXPECT_EQ(snapshot, image.Arg(1));
    EXPECT_EQ("x86_64", image.Arg(3));
    EXPECT_EQ("CentOS 7.9 64 bit", image.Arg(4));
    EXPECT_TRUE(fakefw::HasLine(kRestoreVirtualMachine, "Obtained OS : [CentOS 7.9 64 bit] and architecture [x86_64]."));

    const auto create = cloud().CallsTo("CreateInstance")[0];
    EXPECT_EQ("web-restored", create.Arg(0));
    EXPECT_EQ(cloud().images.begin()->first, create.Arg(1));
    EXPECT_EQ(restoreworld::kConfigText, create.Arg(2));
    ASSERT_EQ(1u, cloud().CreatedInstances().size());
    const std::string instance = cloud().CreatedInstances()[0];
    EXPECT_EQ(instance, ctx.vmInfo.guid);
    EXPECT_EQ(restoreworld::kZone, cloud().instances.at(instance).info.hostName);
    EXPECT_EQ("ecs.g6.large", cloud().instances.at(instance).info.vmProfile);
    EXPECT_TRUE(fakefw::HasLine(kRestoreVirtualMachine, "Restored instance : [" + instance + "]."));
}

TEST_F(RestoreDriverTest, AMalformedGuestOSOnlyWarnsAndTheImageIsRequestedWithoutOSAndArchitecture) {
    ctx.guestOSOverride = "Windows Server;x86_64;2019";
    ASSERT_EQ(1, plugin.RestoreVirtualMachine(ctx));
    EXPECT_EQ((std::vector<std::string>{"Guest OS name not in proper format. Value is [Windows Server;x86_64;2019].",
                                        "WARNING : Failed to get OS name and architecture."}),
              fakefw::ErrorTexts());
    const auto image = cloud().CallsTo("CreateImageFromDiskSnapshots")[0];
    EXPECT_EQ("", image.Arg(3));
    EXPECT_EQ("", image.Arg(4));
    EXPECT_EQ(1u, cloud().CreatedInstances().size());
}

TEST_F(RestoreDriverTest, EachFailureLeavesWhatWasMadeRegisteredAndNeitherWaitsNorAttaches) {
    struct Case {
        const char* name;
        std::function<void(RestoreCtx&)> arrange;
        EVMInfoError code;
        std::string details;
        std::vector<std::string> errorLines;
        size_t snapshots;  // registered afterwards
        size_t images;     // registered afterwards
    };
    const std::string noOS = "OS disk was not found. Please check if the OS disk was filtered as part of backup.";
    const Case cases[] = {
        {"no OS disk", [](RestoreCtx& c) { c.disks[0].isOSDisk = false; }, VMINFO_ERR_RESTORE_VM, noOS, {noOS}, 0, 0},
        {"snapshot refused",
         [](RestoreCtx&) { fakecloud::TheCloud().FailNext("CreateSnapshot", "IncorrectDiskStatus: busy"); },
         VMINFO_ERR_SNAPSHOT_CREATE, "Failed to create snapshot for disk [d-new-os]. Error: [IncorrectDiskStatus: busy].",
         {"Failed to create snapshot for disk [d-new-os]. Error: [IncorrectDiskStatus: busy]."}, 0, 0},
        {"configuration file missing", [](RestoreCtx& c) { c.restorePath += "/missing"; }, VMINFO_ERR_CONFIG_NOT_FOUND,
         "", {}, 1, 0},
        {"snapshot status unreadable",
         [](RestoreCtx&) { fakecloud::TheCloud().FailNext("IsSnapshotCompleted", "InternalError: status"); },
         VMINFO_ERR_RESTORE_VM, "InternalError: status",
         {"Failed to get snapshot status. Error [InternalError: status]"}, 1, 0},
        {"image refused",
         [](RestoreCtx&) { fakecloud::TheCloud().FailNext("CreateImageFromDiskSnapshots", "QuotaExceed.Image: full"); },
         VMINFO_ERR_RESTORE_VM, "QuotaExceed.Image: full", {}, 1, 0},
        {"instance refused",
         [](RestoreCtx&) { fakecloud::TheCloud().FailNext("CreateInstance", "OperationDenied.NoStock: sold out"); },
         VMINFO_ERR_RESTORE_VM, "OperationDenied.NoStock: sold out", {}, 1, 1},
    };
    for (const Case& c : cases) {
        fakecloud::Reset();
        fakefw::Reset();
        restoreworld::Build();
        TestPlugin fresh;
        fresh.SetProxy(restoreworld::Proxy());
        ASSERT_TRUE(fresh.Cleaner().Init(restoreworld::kProxyId));
        ASSERT_TRUE(fresh.Cleaner().RegisterVM(VM_CLEANER_MODE_RESTORE, kVmId));
        RestoreCtx job = restoreworld::Request(folder.path());
        job.tempVMId = kVmId;
        for (SDisk& d : job.disks) {
            d.diskId = d.newDiskId = "d-new-" + std::string(d.isOSDisk ? "os" : "data");
            cloud().disks[d.diskId].info = d;
            cloud().disks[d.diskId].regionId = restoreworld::kRegion;
        }
        c.arrange(job);

        EXPECT_EQ(0, fresh.RestoreVM(job)) << c.name;
        EXPECT_EQ(c.code, fresh.GetLastVMError()) << c.name;
        EXPECT_EQ(c.details, fresh.GetLastVMErrorDetails()) << c.name;
        // The driver's own error lines (helpers below it may add theirs); none where the
        // failure is only reported through the code.
        const auto errors = fakefw::ErrorTexts();
        for (const auto& line : c.errorLines)
            EXPECT_NE(errors.end(), std::find(errors.begin(), errors.end(), line)) << c.name << ": " << line;
        if (c.errorLines.empty() && c.code != VMINFO_ERR_CONFIG_NOT_FOUND) {
            EXPECT_TRUE(errors.empty()) << c.name;
        }
        EXPECT_EQ(c.snapshots, store().ChildrenOf(kVmId, VM_CLEANER_ENTITY_SNAPSHOT).size()) << c.name;
        EXPECT_EQ(c.images, store().ChildrenOf(kVmId, VM_CLEANER_ENTITY_TEMPLATE).size()) << c.name;
        EXPECT_TRUE(cloud().CreatedInstances().empty()) << c.name;
        EXPECT_EQ("", job.vmInfo.guid) << c.name;
        EXPECT_EQ(0, cloud().Count("GetInstanceStatus")) << c.name;
        EXPECT_EQ(0, cloud().Count("AttachDisk")) << c.name;
        EXPECT_EQ(0, cloud().Count("AddPeripheralComponents")) << c.name;
        EXPECT_TRUE(fakefw::HasLine(kRestoreVM, "Creating VM [web-restored].")) << c.name;
    }
}

TEST_F(RestoreDriverTest, ACancelDuringTheSnapshotWaitReports4000NotAStatusFailure) {
    cloud().snapshotPolls = 3;
    fakefw::OnSleep([](const fakefw::SleepRecord&) { fakefw::CancelAfterChecks(0); });
    EXPECT_EQ(0, plugin.RestoreVM(ctx));
    EXPECT_EQ(VMINFO_ERR_JOB_CANCELLED, plugin.GetLastVMError());
    EXPECT_TRUE(fakefw::HasLine(kRestoreVirtualMachine, "Detected Quit flag"));
    EXPECT_TRUE(fakefw::ErrorTexts().empty()) << fakefw::Dump();
    EXPECT_EQ(0, cloud().Count("CreateImageFromDiskSnapshots"));
}

TEST_F(RestoreDriverTest, OnceTheInstanceExistsTheRestoreSucceedsWhateverFollows) {
    // The new instance never reports Stopped, no data disk attaches, components fail.
    cloud().beforeCall = [](const fakecloud::Call& call) {
        if (call.op == "GetInstanceStatus") fakecloud::TheCloud().instances.at(call.Arg(0)).status = "Starting";
    };
    cloud().FailWhen("AttachDisk", [](const fakecloud::Call&) { return true; }, {"InvalidDevice.InUse: taken", false});
    cloud().FailNext("AddPeripheralComponents", "InvalidTagKey: bad tag");

    EXPECT_EQ(1, plugin.RestoreVM(ctx));
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
    const std::string instance = ctx.vmInfo.guid;
    ASSERT_FALSE(instance.empty());
    EXPECT_EQ(6, cloud().Count("GetInstanceStatus"));
    EXPECT_EQ(0u, cloud().disks.count("d-new-data"));  // deleted after the failed attach
    EXPECT_TRUE(fakefw::HasLine(kAttachDataDisksToRestoredVM,
                                "Failed to attach data disk [d-new-data] to instance [" + instance + "]."));
    EXPECT_TRUE(fakefw::HasLine(kAddPeripheralComponents,
                                "WARNING!! Failed to add peripheral components. Error - [InvalidTagKey: bad tag]"));
    // Wait, data disks, components: in this order, after the instance.
    auto names = cloud().CallNames();
    auto created = std::find(names.begin(), names.end(), "CreateInstance");
    ASSERT_NE(names.end(), created);
    EXPECT_EQ((std::vector<std::string>{"GetInstanceStatus", "GetInstanceStatus", "GetInstanceStatus",
                                        "GetInstanceStatus", "GetInstanceStatus", "GetInstanceStatus", "AttachDisk",
                                        "DeleteDisk", "AddPeripheralComponents"}),
              std::vector<std::string>(created + 1, names.end()));
}

}  // namespace
