#include <gtest/gtest.h>

#include "Errors.h"

namespace hxagent {
namespace {

TEST(Errors, PluginFailureIsOneActionableLine) {
    CVMInfo vm(VSI_TYPE_ALIBABA_CLOUD_ECS);
    vm.SetLastVMError(VMINFO_ERR_ZONE_MISMATCH, "proxy in cn-hangzhou-h,\ninstance in cn-hangzhou-i");
    JobFailure f = PluginFailure(vm, "MountVM", "backup of i-1 failed");
    EXPECT_EQ(f.status, kExitPluginFailed);
    EXPECT_EQ(f.code, 178u);
    std::string line = FormatFailure(f);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_NE(line.find("backup of i-1 failed in MountVM: error 178 ("), std::string::npos) << line;
    EXPECT_NE(line.find(EVMInfoErrorText(VMINFO_ERR_ZONE_MISMATCH)), std::string::npos) << line;
    EXPECT_NE(line.find("instance in cn-hangzhou-i"), std::string::npos) << line;
    EXPECT_NE(line.find("proxy in the instance's"), std::string::npos) << line;  // the hint
}

TEST(Errors, ExitStatusFollowsTheCause) {
    CVMInfo vm(VSI_TYPE_ALIBABA_CLOUD_ECS);
    vm.SetLastVMError(VMINFO_ERR_JOB_CANCELLED);
    EXPECT_EQ(PluginFailure(vm, "MountVM", "x").status, kExitCancelled);
    vm.SetLastVMError(VMINFO_ERR_DISK_ATTACH);
    EXPECT_EQ(PluginFailure(vm, "OpenVmdk", "x").status, kExitPluginFailed);
    JobFailure local = LocalFailure("checksum mismatch");
    EXPECT_EQ(local.status, kExitLocal);
    EXPECT_EQ(FormatFailure(local), "checksum mismatch");  // no plug-in code for local failures
}

}  // namespace
}  // namespace hxagent
