// The fake cloud: a link-time stand-in for the cloud bridge in plug-in tests.
//
// Every CAliCloudSDKCppBridge object in the test process talks to one in-memory cloud of
// regions, zones, instances, disks, snapshots and images with ECS-like rules (zones must
// match to attach, an instance takes at most `diskLimit` disks, an attached disk cannot be
// deleted, snapshots complete after a scripted number of polls). A test builds the cloud,
// lets the plug-in run, and then reads the calls made (in order, with arguments) and what
// is left. Any operation can be made to fail on demand with a given last-error text.
// State is process-wide: call fakecloud::Reset() in each test's set-up.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "VMInfoStructs.h"

namespace fakecloud {

struct Instance {
    VMInfoStructs::SVMInfo info;  // disks are filled from the disks attached to it
    std::string status = "Running";
    int diskLimit = 0;            // most disks it can take; 0 = no limit
    std::string configText;       // its configuration document (default: derived from the id)
    std::vector<std::string> statusScript;  // answers GetInstanceStatus pops first, when present
};

struct Disk {
    VMInfoStructs::SDisk info;  // diskId, zone, category, diskSize (GiB), isOSDisk, diskName, ...
    std::string regionId;
    std::string attachedTo;     // instance id, or empty
    long long attachOrder = 0;
    bool deleteWithInstance = false;
    std::string sourceSnapshot;
    std::string description;
};

struct Snapshot {
    std::string id;
    std::string diskId;
    std::string regionId;
    int pollsUntilDone = 0;      // IsSnapshotCompleted answers false this many times first
    bool neverCompletes = false;
};

struct Image {
    std::string id;
    std::string regionId;
    std::string snapshotId;
    std::string architecture;
    std::string platform;
    std::string description;
};

struct Call {
    std::string op;
    std::vector<std::string> args;  // strings as given, numbers in decimal, bools "true"/"false"
    std::string Arg(size_t i) const { return i < args.size() ? args[i] : std::string(); }
};

struct Fault {
    std::string error;          // last-error text of the failed call
    bool limitReached = false;  // AttachDisk: also report a full instance
};

class Cloud {
public:
    // ---- Model ----
    std::vector<VMInfoStructs::SDataCenterInfo> regions;  // GetDCInfoList / GetDCInfoForDC answers
    std::vector<VMInfoStructs::SHostInfo> zones;          // GetHostInfoList / GetHostInfoForHost answers
    std::map<std::string, Instance> instances;
    std::map<std::string, Disk> disks;
    std::map<std::string, Snapshot> snapshots;
    std::map<std::string, Image> images;
    std::vector<VMInfoStructs::SVMInfo> vmCache;  // GetVMInfoList answers; RefreshVMInfoCache fills it from instances
    std::map<std::string, std::vector<VMInfoStructs::SVMSizeInfo>> zoneTypes;    // key "region|zone"
    std::map<std::string, std::vector<VMInfoStructs::SVMSizeInfo>> regionTypes;  // key region
    std::map<std::string, VMInfoStructs::SVMInfo> configDocuments;  // GetVMInfoFromConfigFile answers by text
    std::string localInstanceId;  // GetLocalInstanceId answer; empty = not an ECS instance
    int snapshotPolls = 0;        // pollsUntilDone of new snapshots

    // Convenience builders. The region and zone records (regions, zones) are the test's to fill.
    Instance& AddInstance(const std::string& id, const std::string& name, const std::string& region,
                          const std::string& zone, std::string status = "Running");
    // Adds a disk attached to `instanceId` (isOSDisk for the first one unless told otherwise).
    Disk& AddDisk(const std::string& diskId, const std::string& instanceId, long long sizeGiB, bool isOSDisk = false,
                  const std::string& category = "cloud_essd");

    // ---- Faults ----
    // The next `times` calls of `op` fail with `fault` (no effect on the model).
    void FailNext(const std::string& op, Fault fault, int times = 1);
    void FailNext(const std::string& op, const std::string& error = "InternalError: injected", int times = 1);
    // The `nth` call (1-based, counted from now) of `op` fails.
    void FailCall(const std::string& op, int nth, Fault fault);
    // Every call of `op` whose arguments satisfy `when` fails.
    void FailWhen(const std::string& op, std::function<bool(const Call&)> when, Fault fault);
    // Runs before each call is answered (after it is recorded), e.g. to change the model.
    std::function<void(const Call&)> beforeCall;

    // ---- Inspection ----
    std::vector<Call> calls;
    std::vector<std::string> CallNames() const;
    std::vector<Call> CallsTo(const std::string& op) const;
    int Count(const std::string& op) const;
    // Objects created by the plug-in through the bridge and still present.
    std::vector<std::string> CreatedDisks() const;
    std::vector<std::string> CreatedInstances() const;
    std::vector<std::string> DisksAttachedTo(const std::string& instanceId) const;

    // ---- used by the fake bridge ----
    // Records the call; returns the fault to report, if any.
    const Fault* Begin(const std::string& op, std::vector<std::string> args);
    std::string NewId(const std::string& prefix);
    VMInfoStructs::SVMInfo Describe(const Instance& instance) const;
    std::vector<std::string> createdDisks_;
    std::vector<std::string> createdInstances_;

private:
    struct Rule {
        std::string op;
        int remaining = 0;   // FailNext
        int nth = 0;         // FailCall: fail when the op's count reaches this
        std::function<bool(const Call&)> when;
        Fault fault;
    };
    std::vector<Rule> rules_;
    Fault current_;
    std::map<std::string, int> counts_;
    int idCounter_ = 0;
    long long attachCounter_ = 0;

public:
    long long NextAttachOrder() { return ++attachCounter_; }
};

Cloud& TheCloud();
void Reset();

}  // namespace fakecloud
