// The backed-up instance configuration file at restore time: find it in the folder the
// framework restored it to, read it, and have the bridge turn it into instance properties.
#include "AliCloudInfo.h"
#include "AliCloudRestoreContext.h"
#include "FxUtil.h"
#include "LogTags.h"

using namespace AliCloudLogTags;

bool CAliCloudInfo::FindVMConfigFile(const RestoreCtx& ctx) {
    RestoreCtx& job = WritableRestoreCtx(ctx);
    const std::string& folder = job.restorePath;
    CZuDirectory dir;
    CZuError err = dir.Open(folder, "*", true);
    if (err.IsError()) {
        log.Error(kFindVMConfigFile, "Error Accessing Restore Path[%s], Error = [%s]", folder, err.AsString());
        return false;
    }
    SZuDirEntry entry;
    bool end = false;
    err = dir.GetEntry(&entry, end);
    if (err.IsError()) {
        log.Debug(kFindVMConfigFile, "Error Getting First Entry at [%s], Error = [%s]", folder, err.AsString());
        return false;
    }
    // The backup writes exactly one configuration file; should the folder hold several, the
    // first in directory order is taken. The first entry is examined even when the reader
    // already reported the end (it then has an empty name and cannot match).
    for (;;) {
        if (FXString::CompareNoCase(CZuPath::GetExt(entry.name), "json") == 0) {
            job.configFilePath = CZuPath::Append(folder, entry.name);
            log.Debug(kFindVMConfigFile, "Found VM Config File [%s]", job.configFilePath);
            break;
        }
        err = dir.GetEntry(&entry, end);
        if (err.IsError()) {
            log.Debug(kFindVMConfigFile, "Error Getting Next Entry at [%s], Error = [%s]", folder, err.AsString());
            return false;
        }
        if (end) break;
    }
    dir.Close();
    // configFilePath is not cleared first: a path a previous call of the job found stays
    // usable when the folder no longer shows the file.
    if (job.configFilePath.empty()) {
        log.Error(kFindVMConfigFile, "Could not find a .xml config file at [%s]", folder);
        return false;
    }
    return true;
}

bool CAliCloudInfo::ReadConfigFile(const RestoreCtx& ctx) {
    if (!FindVMConfigFile(ctx)) {
        SetLastVMError(VMINFO_ERR_CONFIG_NOT_FOUND);
        return false;
    }
    if (!ReadWholeFile(ctx.configFilePath, vmConfigFileContent)) {
        const std::string text = FXString::Format("Failed to read from the config file [%s].", ctx.configFilePath);
        log.Error(kReadConfigFile, "%s", text);
        SetLastVMError(VMINFO_ERR_CONFIG_READ);
        SetLastVMErrorDetails(text);
        return false;
    }
    return true;
}

bool CAliCloudInfo::PrepareRestoreCtxVMInfoFromConfigFile(const RestoreCtx& ctx) {
    if (ctx.vmInfoPrefilled) return true;
    if (!ReadConfigFile(ctx)) return false;
    log.Debug(kPrepareRestoreCtxVMInfoFromConfigFile, "Restored config file is [%s].", ctx.configFilePath);
    if (!bridge->GetVMInfoFromConfigFile(vmConfigFileContent, WritableRestoreCtx(ctx).vmInfo)) {
        const std::string error = bridge->GetLastError();
        log.Error(kPrepareRestoreCtxVMInfoFromConfigFile, "Failed to load properties from config file. Error : [%s]",
                  error);
        SetLastVMError(VMINFO_ERR_CONFIG_READ);
        SetLastVMErrorDetails(error);
        return false;
    }
    return true;
}
