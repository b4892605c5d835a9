#include "RestoreJob.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "DataMover.h"
#include "io/BackgroundSync.h"
#include "OwnershipSweep.h"
#include "hxruntime/HostApi.h"

namespace hxagent {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {
bool Cancelled() { return hxruntime::IsCancelRaised(); }

// The plug-in deletes a data disk whose attach to the new instance failed and still
// reports success; the instance as the cloud describes it tells. Returns the lost disks.
std::vector<std::string> LostDataDisks(hxbridge::HostBridge& cloud, const std::string& instanceId,
                                       const std::vector<RestoredDisk>& disks, std::string& error) {
    VMInfoStructs::SVMInfo instance;
    if (!cloud.DescribeInstance(instanceId, instance)) {
        error = "cannot describe the restored instance " + instanceId + ": " + cloud.LastError();
        return {};
    }
    std::vector<std::string> lost;
    for (const auto& d : disks) {
        if (d.isOSDisk) continue;
        const bool attached = std::any_of(instance.disks.begin(), instance.disks.end(),
                                          [&](const auto& have) { return have.diskId == d.newId; });
        if (!attached) lost.push_back(d.sourceId + " (restored as " + d.newId + ")");
    }
    return lost;
}

// After the plug-in's last step: the data disks are checked, then the instance stops being
// an "incomplete restore" for the ownership sweep. True once it is marked complete (the
// instance is the user's from then on, also when a data disk was lost).
bool FinishRestoredInstance(AgentContext& context, const RestoreCtx& ctx, RestoreOutcome& out,
                            const std::function<void(JobFailure)>& fail) {
    JobFailure failure;
    hxbridge::HostBridge* cloud = context.Cloud(failure);
    if (!cloud) {
        fail(failure);
        return false;
    }
    std::string error;
    const std::vector<std::string> lost = LostDataDisks(*cloud, ctx.vmInfo.guid, out.disks, error);
    if (!error.empty()) {
        fail(LocalFailure(error, kExitPluginFailed));
        return false;
    }
    if (!cloud->FinishRestore(ctx.regionName, ctx.vmInfo.guid)) {
        fail(LocalFailure("the restored instance " + ctx.vmInfo.guid + " could not be marked complete (" +
                              cloud->LastError() + "); it is removed as an unfinished restore",
                          kExitPluginFailed));
        return false;
    }
    if (!lost.empty()) {
        std::string list;
        for (const auto& l : lost) list += (list.empty() ? "" : ", ") + l;
        fail(LocalFailure("the restored instance " + ctx.vmInfo.guid + " lacks data disk(s) " + list +
                              ": their attach failed and the plug-in deleted them",
                          kExitPluginFailed));
    }
    return true;
}
}  // namespace

bool CheckBackupFiles(const std::string& folder, const Manifest& m, std::string& error) {
    std::error_code ec;
    if (!fs::is_regular_file(fs::path(folder) / m.configFile, ec)) {
        error = "the configuration file " + m.configFile + " is missing from " + folder;
        return false;
    }
    bool hasOS = false;
    for (const auto& d : m.disks) {
        hasOS = hasOS || d.isOSDisk;
        const std::string path = folder + "/" + d.image;
        std::string why;
        const std::int64_t size = DeviceOrFileSize(path, why);
        if (size < 0) {
            error = "image of disk " + d.id + ": " + why;
            return false;
        }
        if (static_cast<std::uint64_t>(size) != d.size) {
            error = "image " + path + " holds " + std::to_string(size) + " bytes, the manifest says " +
                    std::to_string(d.size);
            return false;
        }
    }
    if (!hasOS) {
        error = "the backup holds no system disk (was it excluded?); an instance cannot be restored from it";
        return false;
    }
    return true;
}

bool VerifyBackup(const std::string& folder, const Manifest& m, Progress& progress, std::string& error) {
    if (!CheckBackupFiles(folder, m, error)) return false;
    for (const auto& d : m.disks) {
        const std::string path = folder + "/" + d.image;
        progress.Begin("verify " + d.id, d.size);
        MoveOptions mo;
        mo.progress = [&](std::uint64_t done, std::uint64_t) { progress.Update(done); };
        mo.cancelled = Cancelled;
        mo.digest = DigestKindOf(d);
        MoveResult r = HashFile(path, mo);
        progress.End(r.ok && r.digest == DigestOf(d));
        if (!r.ok) {
            error = r.cancelled ? "verification cancelled" : r.error;
            return false;
        }
        if (r.digest != DigestOf(d)) {
            error = ChecksumMismatch("image " + path, d, r.digest);
            return false;
        }
    }
    return true;
}

std::vector<SDisk> RestoreDisksFromManifest(const Manifest& m, const std::string& zone) {
    std::vector<SDisk> disks;
    for (const auto& d : m.disks) {
        SDisk s;
        s.diskId = d.id;
        s.diskName = d.name;
        s.diskType = 1;
        s.isOSDisk = d.isOSDisk;
        s.diskSize = d.diskSize;
        s.size = static_cast<std::int64_t>(d.size);
        s.category = d.category;
        s.performanceLevel = d.performanceLevel;
        s.createFlag = d.encrypted;
        s.zone = zone;
        disks.push_back(s);
    }
    return disks;
}

RestoreOutcome RunRestore(AgentContext& context, const Manifest& m, const RestoreRequest& request,
                          Progress& progress, long long jobIdOffset) {
    RestoreOutcome out;
    out.name = request.name;
    const auto started = std::chrono::steady_clock::now();
    auto session = context.OpenPlugin(out.failure, jobIdOffset);
    if (!session) return out;
    CVMInfo& vm = session->vm();
    SweepBeforeJob(context, progress, out.warnings);

    std::string error, work;
    if (!context.MakeWorkFolder("restore", work, error)) {
        out.failure = LocalFailure(error);
        return out;
    }
    // The configuration document alone, so the plug-in cannot pick manifest.json.
    const std::string restorePath = work + "/config";
    std::error_code ec;
    fs::create_directories(restorePath, ec);
    if (!ec && request.stored) {
        std::ofstream config(fs::path(restorePath) / m.configFile, std::ios::binary);
        config << request.stored->configText();
        config.close();
        if (!config) ec = std::make_error_code(std::errc::io_error);
    } else if (!ec) {
        fs::copy_file(fs::path(request.backupFolder) / m.configFile, fs::path(restorePath) / m.configFile, ec);
    }
    if (ec) {
        fs::remove_all(work, ec);
        out.failure = LocalFailure("cannot prepare the configuration file for the plug-in: " + ec.message());
        return out;
    }

    RestoreCtx ctx;  // one object for the whole job: the plug-in writes into it
    ctx.restoreFlavor = 1;
    ctx.vmName = request.name;
    ctx.sourceVMName = m.instanceName;
    ctx.restorePath = restorePath;
    ctx.regionName = request.region.empty() ? m.regionId : request.region;
    ctx.zoneName = request.zone.empty() ? m.zoneId : request.zone;
    ctx.powerOnAfterRestore = request.powerOn;
    ctx.overwriteExisting = request.overwrite;
    ctx.vmProfileOverride = request.instanceType;
    ctx.keepConfigNetworkSettings = true;
    ctx.disks = RestoreDisksFromManifest(m, ctx.zoneName);

    bool ok = true;
    auto fail = [&](JobFailure f) {
        if (ok) out.failure = std::move(f);
        ok = false;
    };
    const std::string what = "restore of " + m.instanceId + " as '" + request.name + "'";

    progress.Step("Restoring " + m.instanceId + " (" + m.instanceName + ") as '" + request.name + "' in " +
                  ctx.regionName + "/" + ctx.zoneName);
    progress.Step("Creating empty disks and attaching them to the proxy...");
    if (vm.InitRestoreVM(ctx) != 1) fail(PluginFailure(vm, "InitRestoreVM", what + " failed"));

    // Each target is flushed while the next disk is written; all are before the detach.
    io::BackgroundSync flushes;
    for (size_t i = 0; ok && i < m.disks.size(); ++i) {
        const ManifestDisk& d = m.disks[i];
        if (i >= ctx.disks.size() || ctx.disks[i].devicePath.empty()) {
            fail(LocalFailure("the plug-in attached no device for disk " + d.id));
            break;
        }
        const SDisk& target = ctx.disks[i];
        progress.Begin(d.id + " -> " + target.diskId, d.size);
        MoveOptions mo;
        mo.progress = [&](std::uint64_t done, std::uint64_t) { progress.Update(done); };
        mo.cancelled = Cancelled;
        mo.digest = DigestKindOf(d);
        mo.sync = &flushes;
        MoveResult r = request.stored ? request.stored->ReadDisk(d, target.devicePath, mo)
                                      : WriteImageToDevice(request.backupFolder + "/" + d.image, target.devicePath, mo);
        progress.End(r.ok);
        if (!r.ok) {
            fail(r.cancelled ? LocalFailure(what + " cancelled", kExitCancelled)
                             : LocalFailure("cannot write disk " + target.diskId + ": " + r.error));
            break;
        }
        // The one check of a plain-folder image, in the pass that wrote it; a repository
        // disk was checked by ReadDisk. Either way before anything is built from the disks.
        if (!request.stored && r.digest != DigestOf(d)) {
            fail(LocalFailure(ChecksumMismatch("image " + request.backupFolder + "/" + d.image, d, r.digest)));
            break;
        }
        out.disks.push_back({d.id, target.diskId, d.isOSDisk, d.size});
    }
    if (!flushes.Wait(error) && ok) fail(LocalFailure("cannot write the restored disks: " + error));
    if (ok) {
        progress.Step("Detaching the written disks...");
        if (vm.PreRestoreVM(ctx) != 1) fail(PluginFailure(vm, "PreRestoreVM", what + " failed"));
    }
    if (ok) {
        progress.Step("Building the image and creating the instance...");
        if (vm.RestoreVM(ctx) != 1) fail(PluginFailure(vm, "RestoreVM", what + " failed"));
    }
    if (ok) {
        progress.Step(request.powerOn ? "Starting the instance and removing temporary objects..."
                                      : "Removing temporary objects...");
        if (vm.PostRestoreVM(ctx) != 1) fail(PluginFailure(vm, "PostRestoreVM", what + " failed"));
    }
    const bool finished = ok && FinishRestoredInstance(context, ctx, out, fail);
    if (!ok) {
        if (hxruntime::IsCancelRaised()) progress.Note("Cancelled; removing what the restore created...");
        else progress.Step("Removing what the restore created...");
        hxruntime::ClearCancel();
        // Without a temporary id nothing was registered, so nothing was created either.
        if (!finished && !ctx.tempVMId.empty() && vm.CleanupRestoreVM(ctx) != 1)
            out.failure.details += std::string(out.failure.details.empty() ? "" : "; ") +
                                   "CleanupRestoreVM failed too (error " + std::to_string(vm.GetLastVMError()) +
                                   "); run 'hxagent cleanup'";
        context.KeepState();
    }
    SweepAfterJob(context, jobIdOffset, ok && out.warnings.empty(), progress, out.warnings);
    if (!ok)
        for (const auto& w : out.warnings) out.failure.details += (out.failure.details.empty() ? "" : "; ") + w;
    fs::remove_all(work, ec);
    out.instanceId = ctx.vmInfo.guid;
    out.tempVMId = ctx.tempVMId;
    out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    out.ok = ok;
    return out;
}

json RestoreOutcomeJson(const RestoreOutcome& o) {
    json j = {{"ok", o.ok}, {"name", o.name}, {"seconds", o.seconds}};
    if (o.ok) {
        j["instanceId"] = o.instanceId;
        json disks = json::array();
        for (const auto& d : o.disks)
            disks.push_back({{"sourceId", d.sourceId}, {"newId", d.newId}, {"isOSDisk", d.isOSDisk}, {"size", d.size}});
        j["disks"] = disks;
    } else {
        j["error"] = {{"operation", o.failure.operation},
                      {"code", o.failure.code},
                      {"message", FormatFailure(o.failure)}};
    }
    j["warnings"] = o.warnings;
    return j;
}

void PrintRestoreOutcome(const RestoreOutcome& o) {
    for (const auto& w : o.warnings) std::cerr << "hxagent: warning: " << w << "\n";
    if (!o.ok) return;
    std::cout << "Restored as " << o.instanceId << " ('" << o.name << "') in " << FormatDuration(o.seconds) << "\n";
    for (const auto& d : o.disks)
        std::cout << "  " << d.sourceId << " -> " << (d.isOSDisk ? "system disk of the image" : d.newId) << " ("
                  << FormatBytes(d.size) << ")\n";
}

}  // namespace hxagent
