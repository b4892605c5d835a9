#include "Cli.h"

#include <charconv>

#include <CLI/CLI.hpp>
#include <iostream>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "BackupJob.h"
#include "BuiltInEmulator.h"
#include "EvDebug.h"
#include "CleanupJob.h"
#include "DemoCommand.h"
#include "InventoryCommands.h"
#include "Preflight.h"
#include "RestoreJob.h"
#include "Signals.h"
#include "SimCommand.h"
#include "Version.h"
#include "commands/CatalogueCommands.h"
#include "commands/RepositoryRestore.h"
#include "storage/RepositoryCleanup.h"

namespace hxagent {

namespace {

// A job id is a whole number from 1 up; CLI11's own positive-number check would answer 0 with
// the range of a double, 300 digits long.
CLI::Validator JobIdValidator() {
    return CLI::Validator(
        [](std::string& value) -> std::string {
            long long id = 0;
            const auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), id);
            if (ec != std::errc() || end != value.data() + value.size() || id < 1)
                return "must be a whole number from 1 up, not '" + value + "'";
            return {};
        },
        "JOB-ID");
}

// Every JSON document names the cloud that answered (endpoint, region, emulator or not).
nlohmann::json WithCloud(nlohmann::json doc, const AgentContext* context) {
    if (context && doc.is_object()) doc["cloud"] = context->target().DescribeJson();
    return doc;
}

int Fail(const JobFailure& f, AgentContext* context, bool json) {
    std::string line = FormatFailure(f);
    // The job log keeps the cause too, for whoever reads it after the terminal is gone.
    if (context) EvDebug::Write(EvLogKind::Error, 0, "hxagent", line);
    if (context) {
        context->KeepState();  // the log named below must outlive a temporary state folder
        std::string log = context->LogHint();
        if (!log.empty()) line += " (" + log + ")";
    }
    if (json)
        std::cout << WithCloud({{"ok", false}, {"error", {{"operation", f.operation}, {"code", f.code}, {"message", line}}}},
                               context)
                         .dump(2)
                  << std::endl;
    else
        std::cerr << "hxagent: error: " << line << std::endl;
    return f.status == kExitOk ? kExitLocal : f.status;
}

std::unique_ptr<AgentContext> OpenContext(const GlobalOptions& g, Progress& progress, int& status) {
    JobFailure failure;
    auto context = AgentContext::Create(g, false, progress, failure);
    if (!context) status = Fail(failure, nullptr, g.json);
    return context;
}

int Inventory(const GlobalOptions& g, const std::function<InventoryOutcome(AgentContext&)>& run) {
    Progress progress(DetectOutputStyle(g.json));
    int status = kExitOk;
    auto context = OpenContext(g, progress, status);
    if (!context) return status;
    InventoryOutcome out = run(*context);
    if (!out.ok) return Fail(out.failure, context.get(), g.json);
    if (g.json) std::cout << WithCloud({{"ok", true}, {out.resultKey, out.result}}, context.get()).dump(2) << std::endl;
    else {
        if (!out.heading.empty()) std::cout << out.heading << "\n";
        PrintTable(out.rows);
    }
    return kExitOk;
}

std::string ReadFile(const std::string& path, std::string& error) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error = "cannot read " + path;
        return {};
    }
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void PrintPlan(const RestorePlan& plan, bool json, const AgentContext* context) {
    if (json) {
        std::cout << WithCloud({{"ok", true},
                                    {"dryRun", true},
                                    {"plan",
                                     {{"region", plan.regionId},
                                      {"zone", plan.zoneId},
                                      {"instanceType", plan.instanceType},
                                      {"name", plan.name},
                                      {"proxyId", plan.proxyId},
                                      {"replaces", plan.replaces},
                                      {"steps", plan.Lines()}}}},
                               context)
                         .dump(2)
                  << std::endl;
        return;
    }
    std::cout << "Dry run: the restore would\n";
    for (const auto& line : plan.Lines()) std::cout << "  - " << line << "\n";
    std::cout << "Nothing was changed.\n";
}

// `restore`: every check that can refuse comes first (name, backup, cloud, the backup's
// files), then the job; nothing in the cloud changes before the job.
int RestoreCommand(GlobalOptions g, RestoreRequest request, bool dryRun, const RepositoryOptions& repo) {
    Progress progress(DetectOutputStyle(g.json));
    const std::string why = CheckInstanceName(request.name);
    if (!why.empty())
        return Fail(LocalFailure("restore refused: --name '" + request.name + "' " + why, kExitUsage), nullptr, g.json);
    Manifest manifest;
    std::string error, configText;
    // From a repository, the manifest and the configuration document are read first, so the
    // same checks run before any disk data is read.
    if (!repo.repository.empty() && !LoadRepositoryBackup(repo, request, manifest, configText, error))
        return Fail(LocalFailure("restore refused: " + error, kExitUsage), nullptr, g.json);
    std::error_code noFolder;
    if (repo.repository.empty() && !std::filesystem::is_directory(request.backupFolder, noFolder))
        return Fail(LocalFailure("restore refused: no backup folder " + request.backupFolder, kExitUsage), nullptr,
                    g.json);
    if (repo.repository.empty() && !ReadManifest(request.backupFolder, manifest, error))
        return Fail(LocalFailure("restore refused: " + error), nullptr, g.json);
    if (repo.repository.empty()) configText = ReadFile(request.backupFolder + "/" + manifest.configFile, error);
    if (!error.empty()) return Fail(LocalFailure("restore refused: " + error), nullptr, g.json);
    int status = kExitOk;
    g.command = "restore";
    auto context = OpenContext(g, progress, status);
    if (!context) return status;
    RestorePlan plan;
    JobFailure failure;
    if (!PreflightRestoreJob(*context, manifest, configText, request, plan, failure))
        return Fail(failure, context.get(), g.json);
    if (dryRun) {
        PrintPlan(plan, g.json, context.get());
        return kExitOk;
    }
    // The images' digests are checked as the job writes them, before anything is built.
    if (!request.stored && !CheckBackupFiles(request.backupFolder, manifest, error))
        return Fail(LocalFailure("restore refused: " + error), context.get(), g.json);
    RestoreOutcome out = RunRestore(*context, manifest, request, progress);
    if (!out.ok) return Fail(out.failure, context.get(), g.json);
    if (g.json) std::cout << WithCloud(RestoreOutcomeJson(out), context.get()).dump(2) << std::endl;
    else PrintRestoreOutcome(out);
    return kExitOk;
}

}  // namespace

int RunCli(int argc, char** argv) {
    // Backups, logs and the state folder are the operator's alone, whatever umask we inherit.
    ::umask(077);
    CLI::App app{
        std::string("hxagent: backs up and restores Alibaba Cloud ECS instances through the ECS plug-in.\n"
                    "Credentials follow the Alibaba Cloud chain: ALIBABA_CLOUD_ACCESS_KEY_ID and "
                    "ALIBABA_CLOUD_ACCESS_KEY_SECRET\n"
                    "(+ ALIBABA_CLOUD_SECURITY_TOKEN), OIDC, a profile of ~/.aliyun/config.json (any mode),\n"
                    "ALIBABA_CLOUD_ECS_METADATA, ALIBABA_CLOUD_CREDENTIALS_URI, then the instance's RAM role. With "
                    "none of\nthem a command fails; ") +
            (HasBuiltInEmulator() ? "the built-in ECS emulator runs only for demo, sim and --embedded."
                                  : "this build has no ECS emulator (demo, sim and --embedded are not available)."),
        "hxagent"};
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", std::string("hxagent ") + kAgentVersion, "Print the version and exit");

    GlobalOptions g;
    double timeScale = -1;
    app.add_option("--plugin", g.pluginPath,
                   "Plug-in library (default: libAliCloudInfo.so next to hxagent, else in ../lib/hxagent)");
    app.add_option("--state-dir", g.stateDir,
                   "Folder for the cleaner store, logs and job work folders (default: $XDG_STATE_HOME/hxagent; "
                   "with the built-in emulator a temporary folder)");
    app.add_option("--log-dir", g.logDir, "Folder for the per-job log files (default: <state-dir>/logs)");
    app.add_option("-v,--verbosity", g.verbosity, "Log detail 0..9")->check(CLI::Range(0, 9))->capture_default_str();
    app.add_flag("--log-echo", g.logEcho, "Copy every log line to stderr");
    app.add_option("--time-scale", timeScale,
                   "Factor for every wait (1 = real time; the built-in emulator defaults to 0.01)")
        ->check(CLI::Range(0.0, 1000.0));
    app.add_option("--job-id", g.jobId, "Job id written in the log (default: the current Unix time)")
        ->check(JobIdValidator());
    app.add_flag("--json", g.json, "Print one JSON document on stdout instead of text and progress");
    app.add_flag("--embedded", g.embedded, "Use the built-in emulator even when a cloud is configured");
    app.add_option("--scenario", g.scenario, "World of the built-in emulator (JSON file; default: the demo world)")
        ->check(CLI::ExistingFile);
    app.add_option("--device-root", g.deviceRoot, "Folder that plays /dev for attached disks (default: /dev)");
    app.add_option("--profile", g.profile, "Profile of ~/.aliyun/config.json to use");

    // ---- inventory ----
    std::string browsePath;
    auto* browse = app.add_subcommand("browse", "Browse the inventory as the console does: '\\Region View\\<region>\\<zone>' "
                                                "or '\\Instance View\\<region>'");
    browse->add_option("path", browsePath, "Node to expand (default: the root)");

    std::string listRegion, listZone, listName;
    auto* list = app.add_subcommand("list", "List instances");
    auto* regionOpt = list->add_option("--region", listRegion, "Only the instances of this region");
    list->add_option("--zone", listZone, "Only the instances of this zone")->excludes(regionOpt);
    list->add_option("--name", listName, "Only names matching this glob pattern (* and ?)");

    std::string typesHost;
    auto* types = app.add_subcommand("types", "List the instance types of a zone");
    types->add_option("host", typesHost, "REGION|ZONE, or a zone id")->required();

    // ---- backup ----
    BackupRequest backupReq;
    auto* backup = app.add_subcommand(
        "backup", "Back up an instance into DIR/<instance id>/<job stamp>/ (--to) or a restic repository (--repo)");
    backup->add_option("instance", backupReq.instance, "Instance id (i-...) or exact name")->required();
    auto* backupTo = backup->add_option("--to", backupReq.destination, "Backup folder");
    RepositoryOptions backupRepo;
    AddRepositoryOptions(backup, backupRepo);
    backup->add_flag("--init", backupReq.createRepository, "Create the --repo repository when it does not exist");
    backup->add_option("--exclude-disk", backupReq.excludedDisks,
                       "Leave a disk out: disk id, disk name or a glob pattern (repeatable)");

    // ---- restore ----
    RestoreRequest restoreReq;
    auto* restore = app.add_subcommand("restore", "Restore a backup folder as a new instance");
    restore->add_option("backup", restoreReq.backupFolder,
                        "Backup folder (the one holding manifest.json), or with --repo a backup id")
        ->required();
    RepositoryOptions restoreRepo;
    AddRepositoryOptions(restore, restoreRepo);
    restore->add_option("--name", restoreReq.name, "Name of the restored instance")->required();
    restore->add_option("--region", restoreReq.region, "Destination region (default: the backed-up instance's)");
    restore->add_option("--zone", restoreReq.zone, "Destination zone, the proxy's (default: the backed-up instance's)");
    restore->add_option("--instance-type", restoreReq.instanceType, "Instance type instead of the backed-up one");
    restore->add_flag("--power-on", restoreReq.powerOn, "Start the instance once restored");
    restore->add_flag("--overwrite", restoreReq.overwrite, "Replace an existing instance of the same name");
    bool restoreDryRun = false;
    restore->add_flag("--dry-run", restoreDryRun,
                      "Check everything and print what the restore would create, stop and delete; change nothing");

    // ---- cleanup ----
    bool dryRun = false;
    auto* cleanup = app.add_subcommand("cleanup", "Remove what interrupted jobs of this proxy left in the cloud");
    cleanup->add_flag("--dry-run", dryRun, "Only list what would be removed");
    RepositoryOptions cleanupRepo;
    AddRepositoryOptions(cleanup, cleanupRepo);
    CatalogueCli catalogue(app);

    // ---- emulator ----
    SimRequestOptions simOpt;
    auto* sim = app.add_subcommand(
        "sim", "Run the ECS emulator in the foreground and print how to use it (--state-dir: its disk files)");
    sim->add_option("--port", simOpt.port, "Port (default: a free one)");

    DemoOptions demoOpt;
    auto* demo = app.add_subcommand("demo", "Back up and restore an instance on the built-in emulator and verify the result");
    demo->add_option("--instance", demoOpt.instance, "Instance of the demo world to back up")->capture_default_str();
    demo->add_option("--restore-name", demoOpt.restoreName, "Name of the restored instance (default: <name>-restored)");
    demo->add_option("--to", demoOpt.destination, "Keep the backup in this folder (default: a temporary one)");
    demo->add_option("--repo", demoOpt.repository,
                     "Restic repository for the repository part (default: a new one in the state folder)");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        int code = app.exit(e);
        return code == 0 ? kExitOk : kExitUsage;
    }
    if (timeScale >= 0) g.timeScale = timeScale;
    if ((*sim || *demo || g.embedded) && !HasBuiltInEmulator())
        return Fail(LocalFailure(kNoEmulatorMessage, kExitUsage), nullptr, g.json);
    InstallCancelHandlers();

    if (*browse) return Inventory(g, [&](AgentContext& c) { return RunBrowse(c, browsePath); });
    if (*list) return Inventory(g, [&](AgentContext& c) { return RunList(c, listRegion, listZone, listName, g.json); });
    if (*types) return Inventory(g, [&](AgentContext& c) { return RunTypes(c, typesHost); });

    if (*backup) {
        g.command = "backup";
        if (backupTo->count() == 0) {  // a repository: --repo, else RESTIC_REPOSITORY
            auto where = backupRepo.Location(true);
            if (!where) return Fail(LocalFailure("give --to DIR or --repo REPO", kExitUsage), nullptr, g.json);
            backupReq.toRepository = true;
            backupReq.repository = *where;
        } else if (!backupRepo.repository.empty()) {
            return Fail(LocalFailure("give --to DIR or --repo REPO, not both", kExitUsage), nullptr, g.json);
        }
        Progress progress(DetectOutputStyle(g.json));
        int status = kExitOk;
        auto context = OpenContext(g, progress, status);
        if (!context) return status;
        BackupOutcome out = RunBackup(*context, backupReq, progress);
        if (!out.ok) return Fail(out.failure, context.get(), g.json);
        if (g.json) std::cout << WithCloud(BackupOutcomeJson(out), context.get()).dump(2) << std::endl;
        else PrintBackupOutcome(out);
        return kExitOk;
    }
    if (*restore) return RestoreCommand(g, restoreReq, restoreDryRun, restoreRepo);
    if (catalogue.DescribesInstance())
        return Inventory(g, [&](AgentContext& c) { return RunDescribeInstance(c, catalogue.DescribeTarget()); });
    if (catalogue.Selected()) return catalogue.Run(g);
    if (*cleanup) {
        g.command = "cleanup";
        Progress progress(DetectOutputStyle(g.json));
        int status = kExitOk;
        auto context = OpenContext(g, progress, status);
        if (!context) return status;
        CleanupOutcome out = RunCleanup(*context, dryRun, progress);
        if (!out.proxyId.empty()) AddRepositoryCleanup(*context, cleanupRepo.Location(true), dryRun, out);
        if (!g.json) PrintCleanupOutcome(out, dryRun);
        if (!out.ok) return Fail(out.failure, context.get(), g.json);
        if (g.json) std::cout << WithCloud(CleanupOutcomeJson(out), context.get()).dump(2) << std::endl;
        return kExitOk;
    }
    if (*sim) {
        simOpt.stateDir = g.stateDir;  // for `sim`, the emulator's own folder
        simOpt.scenario = g.scenario;
        simOpt.timeScale = g.timeScale.value_or(kEmbeddedTimeScale);
        simOpt.json = g.json;
        return RunSim(simOpt);
    }
    if (*demo) return RunDemo(g, demoOpt);
    return kExitUsage;
}

}  // namespace hxagent
