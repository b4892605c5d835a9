#include "Session.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>

#include "RuntimeSetup.h"
#include "hxruntime/HostApi.h"

namespace hxagent {

namespace fs = std::filesystem;

namespace {
bool MakeDirs(const std::string& path, std::string& error) {
    std::error_code ec;
    fs::create_directories(path, ec);
    if (ec) {
        error = "cannot create " + path + ": " + ec.message();
        return false;
    }
    return true;
}
}  // namespace

std::unique_ptr<AgentContext> AgentContext::Create(const GlobalOptions& options, bool forceEmbedded,
                                                   Progress& progress, JobFailure& failure) {
    std::unique_ptr<AgentContext> ctx(new AgentContext());
    ctx->options_ = options;
    ctx->jobId_ = options.jobId > 0
                      ? options.jobId
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
    return ctx;
}

AgentContext::~AgentContext() {
    if (target_.emulator) target_.emulator->Stop();
    target_.emulator.reset();
    hxruntime::CloseLog();
    if (temporaryState_ && !keepState_) {
        std::error_code ec;
        fs::remove_all(stateDir_, ec);
    }
}

std::string AgentContext::EmulatorEndpoint() const {
    return target_.kind == CloudKind::Cloud ? std::string() : target_.endpoint;
}

std::string AgentContext::LogHint() const {
    std::string file = hxruntime::GetLogFilePath();
    return file.empty() ? std::string() : "log: " + file;
}

bool AgentContext::MakeWorkFolder(const std::string& prefix, std::string& path, std::string& error) {
    std::string parent = stateDir_ + "/jobs";
    if (!MakeDirs(parent, error)) return false;
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
    hxruntime::ClearCancel();
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
