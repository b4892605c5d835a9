// One command's environment (AgentContext: the cloud target, the runtime's settings, the
// state folder) and one job's plug-in object (PluginSession: loaded, initialised,
// connected; disconnected and destroyed at the end).
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "CloudTarget.h"
#include "Errors.h"
#include "JobRecords.h"
#include "PluginLoader.h"
#include "Progress.h"
#include "hxbridge/HostBridge.h"

namespace hxagent {

// Options shared by every command (see Cli.cpp for their help texts).
struct GlobalOptions {
    std::string pluginPath;
    std::string stateDir;
    std::string logDir;
    int verbosity = 2;
    bool logEcho = false;
    std::optional<double> timeScale;
    long long jobId = 0;  // 0: derived from the clock
    bool json = false;
    bool embedded = false;
    std::string scenario;
    std::string deviceRoot;
    std::string profile;
    std::string command;  // the subcommand, recorded with the job
};

class PluginSession;

class AgentContext {
public:
    // Decides the cloud (starting the embedded emulator if that is the one), prepares the
    // state folder and applies the runtime settings. Null with `failure` on error.
    static std::unique_ptr<AgentContext> Create(const GlobalOptions& options, bool forceEmbedded, Progress& progress,
                                                JobFailure& failure);
    ~AgentContext();  // stops the embedded emulator; removes a temporary state folder unless kept
    AgentContext(const AgentContext&) = delete;
    AgentContext& operator=(const AgentContext&) = delete;

    // Loads the plug-in, Init, Connect; the job id selects the log file. Before that it
    // connects the host's own bridge (Cloud), so that a connection failure names its cause,
    // and announces the job to the bridge for its ownership tags. Null with `failure`.
    std::unique_ptr<PluginSession> OpenPlugin(JobFailure& failure, long long jobIdOffset = 0);

    // A private folder for one job step (<state>/jobs/<job id>.work/<prefix>-XXXXXX), 0700.
    // A killed job's folders are removed by `cleanup` (ReapKilledJobs).
    bool MakeWorkFolder(const std::string& prefix, std::string& path, std::string& error);
    // The job's record (backup folder in progress).
    JobRecord& record() { return *record_; }

    // The host's connection to the cloud (ownership sweep, pre-flight), made on first use;
    // null with `failure` naming the cause (API code and RequestId, or the transport error).
    hxbridge::HostBridge* Cloud(JobFailure& failure);
    // The proxy (this machine's instance) as the cloud describes it, read once.
    bool Proxy(VMInfoStructs::SVMInfo& out, JobFailure& failure);
    // The job label the ownership tags carry: the job id (with the offset of the job step)
    // and this process's tag.
    std::string JobTag(long long jobIdOffset = 0) const { return std::to_string(jobId_ + jobIdOffset); }
    const std::string& OwnerTag() const { return ownerTag_; }

    CloudTarget& target() { return target_; }
    const CloudTarget& target() const { return target_; }
    const std::string& stateDir() const { return stateDir_; }
    const GlobalOptions& options() const { return options_; }
    long long jobId() const { return jobId_; }
    // The emulator's API endpoint when the cloud is an emulator (embedded or external), else "".
    std::string EmulatorEndpoint() const;
    // After a failure: keep a temporary state folder (logs) and name it in messages.
    void KeepState() { keepState_ = true; }
    std::string LogHint() const;

private:
    AgentContext() = default;
    GlobalOptions options_;
    CloudTarget target_;
    std::string stateDir_;
    bool temporaryState_ = false;
    bool keepState_ = false;
    long long jobId_ = 0;
    std::unique_ptr<JobRecord> record_;
    std::unique_ptr<hxbridge::HostBridge> cloud_;
    std::optional<VMInfoStructs::SVMInfo> proxy_;
    std::string ownerTag_;
};

class PluginSession {
public:
    PluginSession(std::unique_ptr<LoadedPlugin> plugin) : plugin_(std::move(plugin)) {}
    ~PluginSession();  // Disconnect, DeInit, destroy the object, dlclose
    PluginSession(const PluginSession&) = delete;
    PluginSession& operator=(const PluginSession&) = delete;
    CVMInfo& vm() { return plugin_->vm(); }

private:
    std::unique_ptr<LoadedPlugin> plugin_;
};

}  // namespace hxagent
