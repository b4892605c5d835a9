// What the framework relies on beyond single operations: the numbers behind the codes and
// enums it receives, the symbols the shipped library exports, and the session's lifetime
// rules (error clearing, the virtual Init hook, the proxy identity across reconnects).
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <sstream>
#include <string>

#include "BackupWorld.h"
#include "ExpectedTags.h"

using namespace expected_tags;

namespace {

// The job controller, the cleaner's store and the console exchange these as plain numbers,
// so a renumbered enumerator is a protocol break even when everything still compiles.
TEST(ContractTest, CodesAndEnumValuesKeepTheirNumbers) {
    struct Case {
        const char* name;
        long long actual;
        long long expected;
    };
    const Case cases[] = {
        {"VMINFO_ERR_NONE", VMINFO_ERR_NONE, 0},
        {"VMINFO_ERR_VM_NOT_FOUND", VMINFO_ERR_VM_NOT_FOUND, 1},
        {"VMINFO_ERR_VM_ALREADY_EXISTS", VMINFO_ERR_VM_ALREADY_EXISTS, 10},
        {"VMINFO_ERR_SNAPSHOT_CREATE", VMINFO_ERR_SNAPSHOT_CREATE, 17},
        {"VMINFO_ERR_DISKINFO_CONNECT", VMINFO_ERR_DISKINFO_CONNECT, 19},
        {"VMINFO_ERR_RESTORE_VM", VMINFO_ERR_RESTORE_VM, 20},
        {"VMINFO_ERR_DISK_HANDLE", VMINFO_ERR_DISK_HANDLE, 23},
        {"VMINFO_ERR_DISK_CREATE", VMINFO_ERR_DISK_CREATE, 24},
        {"VMINFO_ERR_CONFIG_READ", VMINFO_ERR_CONFIG_READ, 42},
        {"VMINFO_ERR_DISK_ATTACH", VMINFO_ERR_DISK_ATTACH, 54},
        {"VMINFO_ERR_VM_DELETE", VMINFO_ERR_VM_DELETE, 61},
        {"VMINFO_ERR_ALL_DISKS_FILTERED", VMINFO_ERR_ALL_DISKS_FILTERED, 65},
        {"VMINFO_ERR_SNAPSHOT_CLEANUP", VMINFO_ERR_SNAPSHOT_CLEANUP, 116},
        {"VMINFO_ERR_DISK_CLEANUP", VMINFO_ERR_DISK_CLEANUP, 117},
        {"VMINFO_ERR_CONFIG_NOT_FOUND", VMINFO_ERR_CONFIG_NOT_FOUND, 118},
        {"VMINFO_ERR_PROXY_SELF_BACKUP", VMINFO_ERR_PROXY_SELF_BACKUP, 151},
        {"VMINFO_ERR_NO_DISKS", VMINFO_ERR_NO_DISKS, 172},
        {"VMINFO_ERR_DUPLICATE_VM_NAME", VMINFO_ERR_DUPLICATE_VM_NAME, 173},
        {"VMINFO_ERR_ZONE_MISMATCH", VMINFO_ERR_ZONE_MISMATCH, 178},
        {"VMINFO_ERR_PROXY_NOT_CLOUD_VM", VMINFO_ERR_PROXY_NOT_CLOUD_VM, 179},
        {"VMINFO_ERR_PROXY_DISK_LIMIT", VMINFO_ERR_PROXY_DISK_LIMIT, 189},
        {"VMINFO_ERR_PROXY_INFO", VMINFO_ERR_PROXY_INFO, 237},
        {"VMINFO_ERR_JOB_CANCELLED", VMINFO_ERR_JOB_CANCELLED, 4000},
        {"VM_CLEANER_MODE_BACKUP", VM_CLEANER_MODE_BACKUP, 0},
        {"VM_CLEANER_MODE_RESTORE", VM_CLEANER_MODE_RESTORE, 1},
        {"VM_CLEANER_MODE_NONE", VM_CLEANER_MODE_NONE, 2},
        {"VM_CLEANER_ENTITY_VM", VM_CLEANER_ENTITY_VM, 1},
        {"VM_CLEANER_ENTITY_SNAPSHOT", VM_CLEANER_ENTITY_SNAPSHOT, 2},
        {"VM_CLEANER_ENTITY_DISK", VM_CLEANER_ENTITY_DISK, 3},
        {"VM_CLEANER_ENTITY_TEMPLATE", VM_CLEANER_ENTITY_TEMPLATE, 4},
        {"INVENTORY_VIEW", INVENTORY_VIEW, 0},
        {"INVENTORY_ROOT", INVENTORY_ROOT, 1},
        {"INVENTORY_DATACENTER", INVENTORY_DATACENTER, 2},
        {"INVENTORY_HOST", INVENTORY_HOST, 5},
        {"FILTER_NONE", FILTER_NONE, 0},
        {"ALICLOUD_REGION_VIEW", ALICLOUD_REGION_VIEW, 0},
        {"ALICLOUD_INSTANCE_VIEW", ALICLOUD_INSTANCE_VIEW, 1},
    };
    for (const Case& c : cases) EXPECT_EQ(c.expected, c.actual) << c.name;
}

// The framework finds the factory by name and the device layer calls GetDiskInfo; anything
// else exported would be a symbol other plug-ins in the same process could collide with.
TEST(ContractTest, TheLibraryExportsOnlyTheFactoryAndGetDiskInfo) {
    const std::string command = std::string("nm -D --defined-only --demangle '") + HX_PLUGIN_LIBRARY + "' 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(nullptr, pipe);
    std::string output;
    char buffer[512];
    while (fgets(buffer, sizeof buffer, pipe)) output += buffer;
    ASSERT_EQ(0, pclose(pipe)) << output;

    // Lines read "<address> <type> <name>"; only code and data symbols count, not the
    // linker's section markers (_edata, _end, __bss_start) or version definitions.
    std::set<std::string> exported;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string address, type;
        fields >> address >> type;
        std::string name;
        std::getline(fields >> std::ws, name);
        if (type.size() == 1 && std::string("TtWwDdBbRrVvi").find(type[0]) != std::string::npos) exported.insert(name);
    }
    const std::set<std::string> expected = {
        "CreateAliCloudInfoObject",
        "GetDiskInfo(VmdkHandle const&, VMInfoStructs::SDisk&, bool&)",
    };
    EXPECT_EQ(expected, exported) << output;
}

class SessionContractTest : public BackupFixture {};

// A subclass's Init is the one a connect runs: the framework may layer its own start-up.
class CountingPlugin : public TestPlugin {
public:
    int Init() override {
        ++initCalls;
        return TestPlugin::Init();
    }
    int initCalls = 0;
};

TEST_F(SessionContractTest, EntryPointsClearTheLastErrorAndConnectRunsTheVirtualInit) {
    CountingPlugin plugin;
    plugin.SetLastVMError(VMINFO_ERR_DISK_ATTACH);
    EXPECT_EQ(1, plugin.DeInit());
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());

    plugin.SetLastVMError(VMINFO_ERR_DISK_ATTACH);
    EXPECT_EQ(1, plugin.Connect("", "LTAIkey", "secret"));
    EXPECT_EQ(1, plugin.initCalls);
    EXPECT_EQ(VMINFO_ERR_NONE, plugin.GetLastVMError());
    EXPECT_TRUE(fakefw::HasLine("virtual int CAliCloudInfo::Connect(const string&, const string&, const string&)",
                                "Connecting with user name [LTAIkey]."));
}

TEST_F(SessionContractTest, TheProxyIdentitySurvivesDisconnectAndReconnect) {
    TestPlugin plugin;
    ASSERT_EQ(1, plugin.Connect("", "LTAIkey", "secret"));
    ASSERT_EQ("i-proxy", plugin.GetProxyUUID());
    // Had the identity been dropped, a new detection would now find this other id.
    cloud().localInstanceId = "i-other";
    ASSERT_EQ(1, plugin.Disconnect());
    ASSERT_EQ(1, plugin.Connect("", "LTAIkey", "secret"));
    EXPECT_EQ("i-proxy", plugin.GetProxyUUID());
    EXPECT_EQ(1, cloud().Count("GetLocalInstanceId"));
}

}  // namespace
