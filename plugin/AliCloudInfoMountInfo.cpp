// Mount information handed to the agent after a backup mount (one entry per readable disk,
// one for the instance's configuration file), and the writing and removal of that file.
#include "AliCloudInfo.h"

#include "FxUtil.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

namespace {

// Values the framework expects in mount-information entries.
constexpr std::int32_t kEntryConfigFile = 0;
constexpr std::int32_t kEntryDisk = 1;
constexpr std::int32_t kDiskFormatCode = 35;
constexpr std::int64_t kConfigFileContentKind = 4;

// "<mount path>\<instance id>_InstanceConfig.json". The backslash is the separator on every
// platform and the mount path is taken as given: restore looks for exactly this name, so
// save, delete and mount information must all spell it the same way.
std::string ConfigFilePath(const std::string& mountPath, const std::string& instanceId) {
    return mountPath + "\\" + instanceId + "_" + ALICLOUD_VM_CONFIG_FILE;
}

}  // namespace

int CAliCloudInfo::GetFullMountInfo(const MountCtx& ctx, vector<SMountInfoFull>& out) {
    SetLastVMError(VMINFO_ERR_NONE);
    log.DebugLvl(kGetFullMountInfo, 2, "<<Start");
    if (!GetFullMountInfoDisks(ctx, out)) {
        log.Debug(kGetFullMountInfo, "GetFullMountInfoDisks failed.");
        return 0;
    }
    if (!GetFullMountInfoConfigFiles(ctx, out)) {
        log.Debug(kGetFullMountInfo, "GetFullMountInfoConfigFiles failed.");
        return 0;
    }
    log.DebugLvl(kGetFullMountInfo, 2, "<<End");
    return 1;
}

int CAliCloudInfo::GetFullMountInfoDisks(const MountCtx& ctx, vector<SMountInfoFull>& out) {
    for (const SDisk& disk : ctx.vmInfo.disks) {
        // A disk without a device path got no copy (no snapshot, or not of a cloud kind).
        if (disk.devicePath.empty() || disk.filtered) continue;
        SMountInfoFull entry;
        entry.entryType = kEntryDisk;
        SDisk info;
        info.devicePath = disk.devicePath;
        info.diskId = disk.diskId;
        info.fileName = disk.diskId;
        info.diskLabel = disk.diskLabel.empty() ? disk.diskId : disk.diskLabel;
        info.diskType = 1;
        info.formatCode = kDiskFormatCode;
        info.size = disk.size;
        info.diskSize = disk.size;
        info.isOSDisk = disk.isOSDisk;
        entry.disks.push_back(info);
        out.push_back(entry);
    }
    return 1;
}

int CAliCloudInfo::GetFullMountInfoConfigFiles(const MountCtx& ctx, vector<SMountInfoFull>& out) {
    const std::string path = ConfigFilePath(ctx.mountPath, ctx.vmInfo.guid);
    if (!FXPath::DoesPathExist(path)) {
        // Not an error: the disks can still be backed up without it.
        log.Debug(kGetFullMountInfoConfigFiles, "Config file [%s] does not exist.", path);
        return 1;
    }
    const size_t slash = path.rfind('\\');
    const std::string name = slash == std::string::npos ? std::string() : path.substr(slash + 1);
    long long size = 0;
    FileSize(path, size);
    SMountInfoFull entry;
    entry.entryType = kEntryConfigFile;
    SDisk info;
    info.devicePath = path;
    info.fileName = name;
    info.diskLabel = name;
    info.contentKind = kConfigFileContentKind;
    info.diskType = 0;
    info.formatCode = 0;
    info.size = size;
    info.diskSize = size;
    entry.disks.push_back(info);
    out.push_back(entry);
    return 1;
}

bool CAliCloudInfo::SaveVMConfigFile(const string& mountPath, const string& instanceId, const string& configText) {
    const std::string path = ConfigFilePath(mountPath, instanceId);
    if (!WriteWholeFile(path, configText)) {
        log.Error(kSaveVMConfigFile, "Failed to save VM configuration for VM [%s].", instanceId);
        return false;
    }
    log.Debug(kSaveVMConfigFile, "Saved the VM config file.");
    return true;
}

bool CAliCloudInfo::DeleteVMConfigFile(const MountCtx& ctx) {
    const std::string path = ConfigFilePath(ctx.mountPath, ctx.vmInfo.guid);
    const CZuError result = CZuFile::Delete(path);
    if (result.IsError()) {
        log.Error(kDeleteVMConfigFile, "Failed to delete VM config file [%s]. Error [%s]", path, result.AsString());
        return false;
    }
    return true;
}
