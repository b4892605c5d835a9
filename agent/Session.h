// One command's environment (AgentContext: the cloud target, the runtime's settings, the
// state folder) and one job's plug-in object (PluginSession: loaded, initialised,
// connected; disconnected and destroyed at the end).
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "CloudTarget.h"
#include "Errors.h"
#include "PluginLoader.h"
#include "Progress.h"

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

    // Loads the plug-in, Init, Connect; the job id selects the log file. Null with `failure`.
    std::unique_ptr<PluginSession> OpenPlugin(JobFailure& failure, long long jobIdOffset = 0);

    // A private folder for one job (<state>/jobs/<prefix>-XXXXXX), created 0700.
    bool MakeWorkFolder(const std::string& prefix, std::string& path, std::string& error);

    CloudTarget& target() { return target_; }
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
