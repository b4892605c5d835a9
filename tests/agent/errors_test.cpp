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

namespace hxagent {
namespace {

// A plug-in operation that failed without a code carries its cause in the details; the line
// never says "error 0 (No error)".
TEST(Errors, AFailureWithoutACodeShowsItsDetailsNotErrorZero) {
    CVMInfo vm(VSI_TYPE_ALIBABA_CLOUD_ECS);
    vm.SetLastVMError(VMINFO_ERR_NONE, "SignatureDoesNotMatch: bad key (RequestId R-1)");
    const std::string line = FormatFailure(PluginFailure(vm, "Connect", "cannot connect"));
    EXPECT_EQ(line.find("error 0"), std::string::npos) << line;
    EXPECT_EQ(line, "cannot connect in Connect: SignatureDoesNotMatch: bad key (RequestId R-1)");
}

}  // namespace
}  // namespace hxagent
