#include "Errors.h"

namespace hxagent {

JobFailure PluginFailure(CVMInfo& vm, const std::string& operation, const std::string& message) {
    JobFailure f;
    f.operation = operation;
    f.code = vm.GetLastVMError();
    f.details = vm.GetLastVMErrorDetails();
    f.message = message;
    f.status = f.code == VMINFO_ERR_JOB_CANCELLED ? kExitCancelled : kExitPluginFailed;
    return f;
}

JobFailure LocalFailure(const std::string& message, ExitStatus status) {
    JobFailure f;
    f.status = status;
    f.message = message;
    return f;
}

std::string HintFor(std::uint32_t code) {
    switch (code) {
        case VMINFO_ERR_VM_NOT_FOUND: return "Check the instance id with 'hxagent list'.";
        case VMINFO_ERR_VM_ALREADY_EXISTS: return "Choose another --name or pass --overwrite.";
        case VMINFO_ERR_ZONE_MISMATCH: return "Run hxagent on a proxy in the instance's (or destination's) zone.";
        case VMINFO_ERR_PROXY_NOT_CLOUD_VM:
        case VMINFO_ERR_PROXY_INFO: return "hxagent must run on an ECS instance (the proxy) with the metadata service reachable.";
        case VMINFO_ERR_PROXY_DISK_LIMIT: return "Detach disks from the proxy or use a proxy type that takes more disks.";
        case VMINFO_ERR_ALL_DISKS_FILTERED: return "Fewer --exclude-disk patterns.";
        case VMINFO_ERR_PROXY_SELF_BACKUP: return "Back up the proxy from another proxy.";
        case VMINFO_ERR_DUPLICATE_VM_NAME: return "Several instances bear that name; rename or remove the extra ones.";
        case VMINFO_ERR_JOB_CANCELLED: return "Run 'hxagent cleanup' if anything was left behind.";
        case VMINFO_ERR_SNAPSHOT_CLEANUP:
        case VMINFO_ERR_DISK_CLEANUP: return "Run 'hxagent cleanup' to retry the removal.";
        default: return {};
    }
}

std::string FormatFailure(const JobFailure& f) {
    std::string line = f.message;
    // An operation that failed without a code says nothing by "error 0 (No error)": the
    // details carry the cause then.
    if (!f.operation.empty()) {
        line += " in " + f.operation;
        if (f.code != 0)
            line += ": error " + std::to_string(f.code) + " (" + EVMInfoErrorText(static_cast<EVMInfoError>(f.code)) + ")";
    }
    if (!f.details.empty()) line += (f.operation.empty() ? ": " : ": ") + f.details;
    std::string hint = f.operation.empty() ? std::string() : HintFor(f.code);
    if (!hint.empty()) line += ". " + hint;
    for (char& c : line)
        if (c == '\n' || c == '\r') c = ' ';
    return line;
}

}  // namespace hxagent
