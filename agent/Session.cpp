#include "Session.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include "EvDebug.h"
#include "RuntimeSetup.h"
#include "Version.h"
#include "hxruntime/HostApi.h"

namespace hxagent {

namespace fs = std::filesystem;

namespace {
// The state folder holds the cleaner store, logs and job records: owner-only, whatever
// the umask said when it was made, and also when an earlier version made it wider.
bool MakeDirs(const std::string& path, std::string& error) {
    std::error_code ec;
    fs::create_directories(path, ec);
    if (ec) {
        error = "cannot create " + path + ": " + ec.message();
        return false;
    }
    ::chmod(path.c_str(), 0700);
    return true;
}

// The first line of every job log: which hxagent wrote it, for what, against which cloud.
void LogStart(const std::string& command, const CloudTarget& target) {
    const std::string what = command.empty() ? std::string() : " " + command;
    EvDebug::Write(EvLogKind::Debug, 0, "hxagent", std::string("hxagent ") + kAgentVersion + what + " on " + target.Describe());
}

// A failed command on the built-in emulator keeps its log and nothing else (the emulator's
// disk files are tens of MiB and describe a world that is gone).
void KeepOnlyLogs(const std::string& stateDir) {
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(stateDir, ec)) {
        if (entry.path().filename() == "logs") continue;
        std::error_code ignored;
        fs::remove_all(entry.path(), ignored);
    }
}
}  // namespace

std::unique_ptr<AgentContext> AgentContext::Create(const GlobalOptions& options, bool forceEmbedded,
                                                   Progress& progress, JobFailure& failure) {
    std::unique_ptr<AgentContext> ctx(new AgentContext());
    ctx->options_ = options;
    ctx->ownerTag_ = hxruntime::CurrentProcessTag();
    const long long wantedJobId =
        options.jobId > 0 ? options.jobId
                          : static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(
                                                       std::chrono::system_clock::now().time_since_epoch())
                                                       .count());
    const EnvLookup env = ProcessEnvironment();
    const bool embedded = forceEmbedded || options.embedded ||
                          (env("ALIBABA_CLOUD_ECS_ENDPOINT").empty() && !ResolveCredentials(env, options.profile).credentials &&
                           ResolveCredentials(env, options.profile).error.empty());
    std::string error;
    if (!options.stateDir.empty()) {
        ctx->stateDir_ = options.stateDir;
        if (!MakeDirs(ctx->stateDir_, error)) {
            failure = LocalFailure(error);
            return nullptr;
        }
    } else if (embedded) {
        // The embedded world lives as long as the command: so do its cleaner store and logs.
        std::string tmpl = (fs::temp_directory_path() / "hxagent-XXXXXX").string();
        if (::mkdtemp(tmpl.data()) == nullptr) {
            failure = LocalFailure("cannot create a temporary state folder in " + fs::temp_directory_path().string());
            return nullptr;
        }
        ctx->stateDir_ = tmpl;
        ctx->temporaryState_ = true;
    } else {
        ctx->stateDir_ = hxruntime::GetStateDirectory();
        if (!MakeDirs(ctx->stateDir_, error)) {
            failure = LocalFailure(error);
            return nullptr;
        }
    }

    // The job id is claimed in the state folder: two jobs of one second get two ids.
    ctx->record_ = JobRecord::Claim(ctx->stateDir_, wantedJobId, options.command, error);
    if (!ctx->record_) {
        failure = LocalFailure(error);
        return nullptr;
    }
    ctx->jobId_ = ctx->record_->id();

    CloudRequest request;
    request.forceEmbedded = forceEmbedded || options.embedded;
    request.profile = options.profile;
    request.timeScale = options.timeScale;
    request.emulatorStateDir = ctx->stateDir_ + "/emulator";
    request.scenarioFile = options.scenario;
    request.deviceRoot = options.deviceRoot;
    if (!PrepareCloudTarget(request, env, ctx->target_, error)) {
        failure = LocalFailure(error, kExitUsage);
        return nullptr;
    }
    if (ctx->target_.kind == CloudKind::Embedded) {
        // A cleaner store of an earlier embedded world names objects this one never had.
        std::error_code ec;
        for (const char* f : {"/cleaner.db", "/cleaner.db-wal", "/cleaner.db-shm"}) fs::remove(ctx->stateDir_ + f, ec);
    }
    progress.Note("Cloud: " + ctx->target_.Describe());

    RuntimeConfig rc;
    rc.stateDir = ctx->stateDir_;
    rc.logDir = options.logDir.empty() ? ctx->stateDir_ + "/logs" : options.logDir;
    rc.verbosity = options.verbosity;
    rc.echo = options.logEcho;
    rc.timeScale = ctx->target_.timeScale;
    rc.jobId = ctx->jobId_;
    rc.devRoot = ctx->target_.devRoot;
    rc.sysRoot = ctx->target_.sysRoot;
    if (!ApplyRuntimeConfig(rc, error)) {
        failure = LocalFailure(error, kExitUsage);
        return nullptr;
    }
    LogStart(options.command, ctx->target_);
    return ctx;
}

AgentContext::~AgentContext() {
    cloud_.reset();
    record_.reset();
    target_.emulator.reset();  // stops it
    hxruntime::CloseLog();
    if (temporaryState_) {
        std::error_code ec;
        if (!keepState_) fs::remove_all(stateDir_, ec);
        else KeepOnlyLogs(stateDir_);
    }
}

hxbridge::HostBridge* AgentContext::Cloud(JobFailure& failure) {
    if (cloud_) return cloud_.get();
    auto cloud = std::make_unique<hxbridge::HostBridge>();
    const auto& c = target_.credentials;
    if (!cloud->Connect(c.accessKeyId, c.accessKeySecret)) {
        failure = LocalFailure("cannot connect to " + target_.Describe() + ": " + cloud->LastError(),
                               kExitPluginFailed);
        return nullptr;
    }
    cloud_ = std::move(cloud);
    return cloud_.get();
}

bool AgentContext::Proxy(VMInfoStructs::SVMInfo& out, JobFailure& failure) {
    if (proxy_) {
        out = *proxy_;
        return true;
    }
    hxbridge::HostBridge* cloud = Cloud(failure);
    if (!cloud) return false;
    std::string id;
    VMInfoStructs::SVMInfo proxy;
    if (!cloud->ProxyInstanceId(id) || !cloud->DescribeInstance(id, proxy)) {
        failure = LocalFailure("cannot tell which proxy this is: " + cloud->LastError(), kExitPluginFailed);
        return false;
    }
    proxy_ = proxy;
    out = proxy;
    return true;
}

std::string AgentContext::EmulatorEndpoint() const {
    return target_.kind == CloudKind::Cloud ? std::string() : target_.endpoint;
}

std::string AgentContext::LogHint() const {
    std::string file = hxruntime::GetLogFilePath();
    return file.empty() ? std::string() : "log: " + file;
}

bool AgentContext::MakeWorkFolder(const std::string& prefix, std::string& path, std::string& error) {
    std::string parent;
    if (!record_->WorkFolder(parent, error)) return false;
    std::string tmpl = parent + "/" + prefix + "-XXXXXX";
    if (::mkdtemp(tmpl.data()) == nullptr) {
        error = "cannot create a work folder in " + parent;
        return false;
    }
    path = tmpl;
    return true;
}

std::unique_ptr<PluginSession> AgentContext::OpenPlugin(JobFailure& failure, long long jobIdOffset) {
    hxruntime::SetJobId(jobId_ + jobIdOffset);
    if (jobIdOffset != 0) LogStart(options_.command, target_);  // a log file of its own
    hxruntime::ClearCancel();
    if (!Cloud(failure)) return nullptr;
    // Read by the bridge when the plug-in connects: every object it creates for this job
    // carries them (bridge/ownership.h).
    ::setenv("ALIBABA_CLOUD_BRIDGE_JOB", JobTag(jobIdOffset).c_str(), 1);
    ::setenv("ALIBABA_CLOUD_BRIDGE_JOB_OWNER", ownerTag_.c_str(), 1);
    std::string error;
    const std::string path = options_.pluginPath.empty() ? DefaultPluginPath() : options_.pluginPath;
    auto plugin = LoadedPlugin::Load(path, VSI_TYPE_ALIBABA_CLOUD_ECS, error);
    if (!plugin) {
        failure = LocalFailure(error);
        return nullptr;
    }
    auto session = std::make_unique<PluginSession>(std::move(plugin));
    CVMInfo& vm = session->vm();
    if (vm.Init() != 1) {
        failure = PluginFailure(vm, "Init", "the plug-in did not initialise");
        return nullptr;
    }
    const auto& c = target_.credentials;
    // The plug-in takes no server name; the bridge finds the endpoint itself.
    if (vm.Connect("", c.accessKeyId, c.accessKeySecret) != 1) {
        failure = PluginFailure(vm, "Connect", "cannot connect to " + target_.Describe());
        if (failure.details.empty()) failure.details = "check the AccessKey and the endpoint; " + LogHint();
        return nullptr;
    }
    return session;
}

PluginSession::~PluginSession() {
    CVMInfo& vm = plugin_->vm();
    vm.Disconnect();
    vm.DeInit();
    plugin_.reset();
}

}  // namespace hxagent
