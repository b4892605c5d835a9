// A restore's pre-flight: every input checked before the first creating, stopping or
// deleting call and before any data is written, so that a bad value costs seconds, not the
// hours of writing disks. A refusal is one line that names the bad value (exit 2).
#pragma once

#include <string>
#include <vector>

#include "Manifest.h"
#include "VMInfo.h"
#include "hxbridge/HostBridge.h"

namespace hxagent {

struct RestoreRequest;

// The ECS instance-name rule: 2-128 characters; begins with a letter or a Chinese
// character; then letters, Chinese characters, digits, ':', '_', '.', '-'; never
// "http://" or "https://" at the start. "" when valid, else why not.
std::string CheckInstanceName(const std::string& name);

// A backup's --exclude-disk patterns against the instance's disks (as the plug-in matches
// them: disk id or disk name, glob, case-insensitive). A pattern that matches no disk is
// almost always a typo that would back up a disk meant to be left out, so it is refused:
// "" when every pattern matches a disk, else the refusal naming the pattern and the disks.
std::string CheckExcludedDisks(const SVMInfo& instance, const std::vector<std::string>& patterns);

// The backup's own consistency: exactly one system disk, a configuration document the
// restore can read. "" when fine, else the refusal.
std::string CheckRestoreInputs(const Manifest& m, hxbridge::HostBridge& cloud, const std::string& configText);

// What a restore will do, for --dry-run and the job's first lines.
struct RestorePlan {
    std::string regionId, zoneId, instanceType, name;
    std::string proxyId;
    std::string replaces;  // instance --overwrite stops and deletes; "" when none
    size_t disks = 0, dataDisks = 0;
    bool powerOn = false;
    std::vector<std::string> Lines() const;
};

enum class PreflightResult { Ok, Refused, CloudError };

// The checks against the cloud: region exists; zone is in it and is the proxy's; the
// instance type and every disk category are offered there; an instance of the name is
// absent, or with --overwrite exactly one and never the proxy. Fills `plan`; on Refused or
// CloudError `message` is the one line to print.
PreflightResult PreflightRestore(hxbridge::HostBridge& cloud, const VMInfoStructs::SVMInfo& proxy, const Manifest& m,
                                 const RestoreRequest& request, RestorePlan& plan, std::string& message);

class AgentContext;
struct JobFailure;

// The whole pre-flight of a restore command: the backup's consistency and every cloud
// check, with the proxy of `context`. False with `failure` (exit 2 for a refusal, 1 when
// the cloud could not be asked).
bool PreflightRestoreJob(AgentContext& context, const Manifest& m, const std::string& configText,
                         const RestoreRequest& request, RestorePlan& plan, JobFailure& failure);

}  // namespace hxagent
