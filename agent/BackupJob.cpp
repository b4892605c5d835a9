#include "BackupJob.h"

#include <chrono>
#include <filesystem>
#include <iostream>

#include "DataMover.h"
#include "InventoryCommands.h"
#include "OwnershipSweep.h"
#include "Preflight.h"
#include "Version.h"
#include "io/BackgroundSync.h"
#include "hxruntime/HostApi.h"
#include "storage/RepositoryBackupJob.h"

namespace hxagent {

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

double Since(std::chrono::steady_clock::time_point t) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

std::int64_t NowSeconds() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

bool Cancelled() { return hxruntime::IsCancelRaised(); }


// DIR/<id>/<stamp>, with -2, -3 ... when a backup of the same second exists.
bool MakeBackupFolder(const std::string& dest, const std::string& id, const std::string& stamp, std::string& folder,
                      std::string& error) {
    std::error_code ec;
    fs::path parent = fs::path(dest) / id;
    fs::create_directories(parent, ec);
    if (ec) {
        error = "cannot create " + parent.string() + ": " + ec.message();
        return false;
    }
    for (int n = 1; n < 1000; ++n) {
        fs::path p = parent / (n == 1 ? stamp : stamp + "-" + std::to_string(n));
        if (fs::create_directory(p, ec)) {
            folder = p.string();
            return true;
        }
        if (ec) {
            error = "cannot create " + p.string() + ": " + ec.message();
            return false;
        }
    }
    error = "too many backups of " + id + " in " + parent.string() + " at " + stamp;
    return false;
}

const SDisk* FindDisk(const SVMInfo& info, const std::string& id) {
    for (const auto& d : info.disks)
        if (d.diskId == id) return &d;
    return nullptr;
}

}  // namespace

std::string CleanConfigFileName(const std::string& devicePath, const std::string& instanceId) {
    auto cut = devicePath.find_last_of("\\/");
    std::string name = cut == std::string::npos ? devicePath : devicePath.substr(cut + 1);
    if (name.empty() || name == "." || name == "..") name = instanceId + "_InstanceConfig.json";
    if (name.size() < 5 || name.compare(name.size() - 5, 5, ".json") != 0) name += ".json";
    return name;
}

BackupOutcome RunBackup(AgentContext& context, const BackupRequest& request, Progress& progress,
                        long long jobIdOffset) {
    BackupOutcome out;
    const auto started = std::chrono::steady_clock::now();
    const std::int64_t startedAt = NowSeconds();
    auto session = context.OpenPlugin(out.failure, jobIdOffset);
    if (!session) return out;
    CVMInfo& vm = session->vm();

    SVMInfo instance;
    // The disks are looked up only to check --exclude-disk before anything changes.
    if (!ResolveInstance(vm, request.instance, !request.excludedDisks.empty(), instance, out.failure)) return out;
    if (const std::string why = CheckExcludedDisks(instance, request.excludedDisks); !why.empty()) {
        out.failure = LocalFailure("backup refused: " + why, kExitUsage);
        return out;
    }
    SweepBeforeJob(context, progress, out.warnings);

    std::string error, work;
    if (!context.MakeWorkFolder("backup", work, error)) {
        out.failure = LocalFailure(error);
        return out;
    }
    std::string folder;
    // A repository backup streams each disk into restic; its folder only stages the
    // configuration document until the manifest goes in last.
    SVMInfo proxy;
    JobFailure noProxy;
    const bool proxyKnown = context.Proxy(proxy, noProxy);
    std::unique_ptr<RepositoryBackupJob> repo;
    if (request.toRepository) {
        repo = RepositoryBackupJob::Start(context, request.repository, request.createRepository, instance.guid,
                                          proxyKnown ? proxy.guid : "unknown-proxy", JobStamp(startedAt), error);
        if (!repo) {
            fs::remove_all(work);
            out.failure = LocalFailure(error, kExitUsage);
            return out;
        }
        folder = repo->stage();
    } else if (!MakeBackupFolder(request.destination, instance.guid, JobStamp(startedAt), folder, error)) {
        fs::remove_all(work);
        out.failure = LocalFailure(error);
        return out;
    }

    if (!repo) context.record().SetBackupFolder(folder);  // a killed job's partial folder is found by cleanup

    MountCtx ctx;  // one object for the whole job: the plug-in writes into it
    ctx.vmName = instance.name;
    ctx.vmGuid = instance.guid;
    ctx.vmInfo.guid = instance.guid;  // UnmountVM works from it even if MountVM stops early
    ctx.mountPath = work + "/mount";
    ctx.excludedDisks = request.excludedDisks;

    Manifest& m = out.manifest;
    m.instanceId = instance.guid;
    m.instanceName = instance.name;
    m.regionId = instance.regionId;
    m.zoneId = instance.hostName;
    m.instanceType = instance.vmProfile;
    m.guestOS = instance.guestOS;
    m.jobId = context.jobId() + jobIdOffset;
    m.jobStamp = fs::path(folder).filename().string();
    m.startedAt = IsoTime(startedAt);
    m.proxyId = proxyKnown ? proxy.guid : "";
    m.cloud = context.target().Describe();
    m.agentVersion = kAgentVersion;

    bool ok = true;
    auto fail = [&](JobFailure f) {
        if (ok) out.failure = std::move(f);
        ok = false;
    };

    progress.Step("Backing up " + instance.guid + " (" + instance.name + ") into " +
                  (repo ? "the repository " + repo->repositoryDisplay() : folder));
    progress.Step("Snapshotting the disks and making copies of them...");
    if (vm.MountVM(ctx) != 1) fail(PluginFailure(vm, "MountVM", "backup of " + instance.guid + " failed"));
    m.mountSeconds = Since(started);

    std::vector<SMountInfoFull> entries;
    if (ok && vm.GetFullMountInfo(ctx, entries) != 1)
        fail(PluginFailure(vm, "GetFullMountInfo", "backup of " + instance.guid + " failed"));

    // The configuration document first: UnmountVM deletes it.
    if (ok) {
        for (const auto& e : entries) {
            if (e.entryType != 0 || e.disks.empty()) continue;
            const std::string name = CleanConfigFileName(e.disks.front().fileName.empty() ? e.disks.front().devicePath
                                                                                          : e.disks.front().fileName,
                                                         instance.guid);
            std::error_code ec;
            fs::copy_file(e.disks.front().devicePath, fs::path(folder) / name, fs::copy_options::overwrite_existing, ec);
            if (ec) {
                fail(LocalFailure("cannot copy the configuration file " + e.disks.front().devicePath + ": " +
                                  ec.message()));
                break;
            }
            m.configFile = name;
        }
        if (ok && m.configFile.empty())
            fail(LocalFailure("the plug-in reported no configuration file for " + instance.guid +
                              "; a backup without it cannot be restored"));
    }

    const auto copyStarted = std::chrono::steady_clock::now();
    // Each image is flushed while the next disk is attached and read; all of them are
    // durable before the manifest says the backup is complete.
    io::BackgroundSync flushes;
    for (const auto& e : entries) {
        if (!ok) break;
        if (e.entryType != 1 || e.disks.empty()) continue;
        const std::string diskId = e.disks.front().diskId;
        // Until it is attached, a mount entry's device path names the copy made from the
        // snapshot: that copy is what the disk registry opens.
        const std::string openId = e.disks.front().devicePath.empty() ? diskId : e.disks.front().devicePath;
        if (Cancelled()) {
            fail(LocalFailure("backup of " + instance.guid + " cancelled", kExitCancelled));
            break;
        }
        progress.Step("Attaching a copy of disk " + diskId + " to the proxy...");
        VmdkHandle handle;
        if (vm.OpenVmdk(ctx.vmName, ctx.vmGuid, openId, handle) != 1) {
            fail(PluginFailure(vm, "OpenVmdk", "cannot open disk " + diskId + " of " + instance.guid));
            break;
        }
        SDisk opened;
        if (vm.GetVmdkInfo(handle, opened) != 1 || opened.devicePath.empty()) {
            fail(PluginFailure(vm, "GetVmdkInfo", "no device for disk " + diskId + " of " + instance.guid));
            vm.CloseVmdk(handle);
            break;
        }
        std::int64_t size = DeviceOrFileSize(opened.devicePath, error);
        // The copy made from the snapshot can be larger than the source disk (the bridge
        // raises it to its category's minimum size); the source's own size is what holds
        // data and what a restore recreates.
        const SDisk* source = FindDisk(ctx.vmInfo, diskId);
        if (source && source->diskSize > 0 && (source->diskSize << 30) < size) size = source->diskSize << 30;
        MoveResult moved;
        if (size <= 0) {
            moved.error = size == 0 ? opened.devicePath + " reports 0 bytes" : error;
        } else {
            const std::string image = diskId + ".img";
            progress.Begin(diskId, static_cast<std::uint64_t>(size));
            MoveOptions mo;
            mo.progress = [&](std::uint64_t done, std::uint64_t) { progress.Update(done); };
            mo.cancelled = Cancelled;
            mo.sync = &flushes;
            std::string snapshot;
            moved = repo ? repo->PutDisk(opened.devicePath, static_cast<std::uint64_t>(size), image, mo, snapshot)
                         : ReadToImage(opened.devicePath, static_cast<std::uint64_t>(size), folder + "/" + image, mo);
            progress.End(moved.ok);
            if (moved.ok) {
                ManifestDisk d;
                const SDisk* src = FindDisk(ctx.vmInfo, diskId);
                d.id = diskId;
                d.name = src ? src->diskName : opened.diskName;
                d.isOSDisk = src ? src->isOSDisk : e.disks.front().isOSDisk;
                d.size = static_cast<std::uint64_t>(size);
                d.diskSize = src && src->diskSize > 0 ? src->diskSize : (size + (1ll << 30) - 1) >> 30;
                d.category = src ? src->category : opened.category;
                d.performanceLevel = src ? src->performanceLevel : "";
                d.encrypted = src ? src->createFlag : false;
                d.zone = src && !src->zone.empty() ? src->zone : instance.hostName;
                d.image = image;
                d.blockSha256 = moved.digest;
                d.dataBytes = moved.dataBytes;
                d.seconds = moved.seconds;
                d.snapshot = snapshot;
                m.disks.push_back(d);
            }
        }
        if (vm.CloseVmdk(handle) != 1 && ok && moved.ok)
            out.warnings.push_back("CloseVmdk of " + diskId + " failed (error " + std::to_string(vm.GetLastVMError()) +
                                   "); UnmountVM detaches it");
        if (!moved.ok) {
            fail(moved.cancelled ? LocalFailure("backup of " + instance.guid + " cancelled", kExitCancelled)
                                 : LocalFailure("cannot read disk " + diskId + ": " + moved.error));
            break;
        }
    }
    if (!flushes.Wait(error) && ok) fail(LocalFailure("cannot write the backup: " + error));
    m.copySeconds = Since(copyStarted);
    if (ok && m.disks.empty()) fail(LocalFailure("the plug-in reported no disk to back up for " + instance.guid));

    // Teardown always runs, with the cancel flag cleared so that its own waits are not cut
    // short (a second Ctrl-C raises it again).
    const auto unmountStarted = std::chrono::steady_clock::now();
    if (hxruntime::IsCancelRaised()) progress.Note("Cancelled; removing the snapshots and disk copies...");
    else progress.Step("Removing the snapshots and disk copies...");
    hxruntime::ClearCancel();
    if (vm.UnmountVM(ctx) != 1) {
        const std::string text = "UnmountVM failed with error " + std::to_string(vm.GetLastVMError()) + " (" +
                                 EVMInfoErrorText(vm.GetLastVMError()) + ")" +
                                 (vm.GetLastVMErrorDetails().empty() ? "" : ": " + vm.GetLastVMErrorDetails()) +
                                 "; run 'hxagent cleanup' to remove what is left";
        if (ok) out.warnings.push_back(text);
        else out.failure.details += (out.failure.details.empty() ? "" : "; ") + text;
    }
    SweepAfterJob(context, jobIdOffset, ok && out.warnings.empty(), progress, out.warnings);
    m.unmountSeconds = Since(unmountStarted);
    std::error_code ec;
    fs::remove_all(work, ec);

    if (ok) {
        m.totalSeconds = Since(started);
        m.finishedAt = IsoTime(NowSeconds());
        if (repo) {
            if (!repo->Finish(m, out.backupId, error)) fail(LocalFailure(error));
        } else if (!WriteManifest(folder, m, error)) {
            fail(LocalFailure(error));
        }
    }
    if (!ok) {
        if (repo) repo->Abandon();
        fs::remove_all(folder, ec);
        std::error_code ignore;
        if (!repo) fs::remove(fs::path(folder).parent_path(), ignore);  // only when empty
        context.record().SetBackupFolder("");
        for (const auto& w : out.warnings) out.failure.details += (out.failure.details.empty() ? "" : "; ") + w;
        context.KeepState();
        return out;
    }
    context.record().SetBackupFolder("");
    out.ok = true;
    if (repo) {
        out.repository = repo->repositoryDisplay();
        out.addedBytes = repo->added();
        return out;
    }
    out.folder = folder;
    return out;
}

json BackupOutcomeJson(const BackupOutcome& o) {
    json j = {{"ok", o.ok}};
    if (o.ok) {
        if (o.backupId.empty()) j["folder"] = o.folder;
        else j.update({{"backupId", o.backupId}, {"repository", o.repository}, {"addedBytes", o.addedBytes}});
        j["manifest"] = json::parse(ManifestToJson(o.manifest));
    } else {
        j["error"] = {{"operation", o.failure.operation},
                      {"code", o.failure.code},
                      {"text", o.failure.operation.empty() ? "" : EVMInfoErrorText(static_cast<EVMInfoError>(o.failure.code))},
                      {"message", FormatFailure(o.failure)}};
    }
    j["warnings"] = o.warnings;
    return j;
}

void PrintBackupOutcome(const BackupOutcome& o) {
    for (const auto& w : o.warnings) std::cerr << "hxagent: warning: " << w << "\n";
    if (!o.ok) return;
    std::uint64_t total = 0, data = 0;
    for (const auto& d : o.manifest.disks) {
        total += d.size;
        data += d.dataBytes;
    }
    std::cout << "Backup of " << o.manifest.instanceId << " (" << o.manifest.instanceName << ") complete: "
              << o.manifest.disks.size() << " disk(s), " << FormatBytes(total) << " (" << FormatBytes(data)
              << " of data) in " << FormatDuration(o.manifest.totalSeconds) << "\n  "
              << (o.backupId.empty() ? o.folder
                                     : "backup " + o.backupId.substr(0, 8) + " in " + o.repository + ", " +
                                           FormatBytes(o.addedBytes) + " added to the repository")
              << "\n";
}

}  // namespace hxagent
