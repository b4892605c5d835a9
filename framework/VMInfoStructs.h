// Records and enums the agent framework exchanges with its hypervisor plug-ins.
//
// Every record is a plain value type: copy construction and assignment copy every field
// (vectors element by element), and a default-constructed record has empty strings and
// vectors, zero numbers and false flags. Only the fields an ECS plug-in needs are carried.
//
// Units: fields named `size` hold bytes; fields named `diskSize` hold GiB (the unit ECS
// uses for disk sizes). Identifiers are the strings ECS issues ("i-...", "d-...", "s-...",
// "m-...", region ids such as "cn-hangzhou", zone ids such as "cn-hangzhou-k").
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

typedef std::uint64_t UINT64;

namespace VMInfoStructs {

// Error codes the framework reports for a failed plug-in operation. 0 means no error.
enum EVMInfoError : std::uint32_t {
    VMINFO_ERR_NONE = 0,
    VMINFO_ERR_VM_NOT_FOUND = 1,              // the instance to back up does not exist
    VMINFO_ERR_VM_ALREADY_EXISTS = 10,        // restore target name taken, overwrite not allowed
    VMINFO_ERR_SNAPSHOT_CREATE = 17,          // a snapshot could not be created
    VMINFO_ERR_DISKINFO_CONNECT = 19,         // the disk registry could not take the instance
    VMINFO_ERR_RESTORE_VM = 20,               // image or instance creation during restore failed
    VMINFO_ERR_DISK_HANDLE = 23,              // a disk handle does not resolve
    VMINFO_ERR_DISK_CREATE = 24,              // a disk could not be created / snapshot never usable
    VMINFO_ERR_CONFIG_READ = 42,              // the instance configuration could not be read
    VMINFO_ERR_DISK_ATTACH = 54,              // a disk could not be attached to the proxy
    VMINFO_ERR_VM_DELETE = 61,                // an existing instance could not be replaced
    VMINFO_ERR_ALL_DISKS_FILTERED = 65,       // nothing left to back up
    VMINFO_ERR_SNAPSHOT_CLEANUP = 116,        // snapshots of a job could not all be removed
    VMINFO_ERR_DISK_CLEANUP = 117,            // disks of a job could not all be removed
    VMINFO_ERR_CONFIG_NOT_FOUND = 118,        // no configuration file in the restore folder
    VMINFO_ERR_PROXY_SELF_BACKUP = 151,       // the proxy was asked to back itself up
    VMINFO_ERR_NO_DISKS = 172,                // the instance has no disks
    VMINFO_ERR_DUPLICATE_VM_NAME = 173,       // several instances bear the restore's name
    VMINFO_ERR_ZONE_MISMATCH = 178,           // proxy and instance/destination in different zones
    VMINFO_ERR_PROXY_NOT_CLOUD_VM = 179,      // the proxy is not an ECS instance
    VMINFO_ERR_PROXY_DISK_LIMIT = 189,        // the proxy cannot take another disk
    VMINFO_ERR_PROXY_INFO = 237,              // the proxy's own description is unreadable
    VMINFO_ERR_JOB_CANCELLED = 4000,          // the job was told to stop
};

// A human-readable text for a code, for hosts that print errors. Never empty.
const char* EVMInfoErrorText(EVMInfoError code);

// Kind of a browse node.
enum EInventoryType : std::uint32_t {
    INVENTORY_VIEW = 0,        // a view node ("Region View", "Instance View"); default
    INVENTORY_ROOT = 1,        // the whole account
    INVENTORY_DATACENTER = 2,  // a region
    INVENTORY_FOLDER = 3,      // not used by ECS
    INVENTORY_CLUSTER = 4,     // not used by ECS
    INVENTORY_HOST = 5,        // a zone
    INVENTORY_VM = 6,          // an instance
};

// How `CVMInfo::_FilterVMInfoList` matches instance names. Name comparisons ignore case.
enum EFilterType : std::uint32_t {
    FILTER_NONE = 0,             // no filtering: every instance
    FILTER_INCLUDE_NAMES = 1,    // only instances whose name or id equals one of the names
    FILTER_EXCLUDE_NAMES = 2,    // all instances except those whose name or id equals one
    FILTER_INCLUDE_PATTERN = 3,  // only instances whose name matches one of the glob patterns (* and ?)
    FILTER_EXCLUDE_PATTERN = 4,  // all instances except those whose name matches a pattern
};

// One elastic network interface of an instance.
struct SVMNetworkCard {
    std::string networkInterfaceId;  // "eni-..."; empty for the primary card of a new instance
    std::string vSwitchId;           // "vsw-..."
    std::string vpcId;               // "vpc-..."
    std::string privateIp;           // dotted IPv4; empty = let ECS choose
    std::string macAddress;          // "00:16:3e:..."; informational
    bool primary = false;            // the instance's primary card
};

// One security group.
struct SSecurityGroupInfo {
    std::string id;    // "sg-..."
    std::string name;  // display name; may be empty
};

// One disk of an instance, or one entry of the mount information (see SMountInfoFull).
struct SDisk {
    std::string devicePath;    // the disk as opened on the proxy (block device path); cleared when detached
    std::string diskId;        // cloud disk id
    std::int64_t size = 0;     // bytes; refreshed from the block device after attaching
    std::int64_t diskSize = 0; // GiB; the size handed to disk creation
    std::string diskLabel;     // second name printed beside the id; may be empty
    std::string diskName;      // display name
    std::uint32_t diskType = 0;  // 1 = cloud disk (the only kind that is snapshotted, created, attached)
    bool filtered = false;     // excluded from the backup by the job's filters
    bool isOSDisk = false;     // the instance's system disk
    std::string snapshotId;    // snapshot of this disk taken in this job
    std::string zone;          // zone of the disk
    std::string category;      // storage category as ECS reports it ("cloud_essd", ...)
    bool createFlag = false;   // create the disk encrypted (ECS "Encrypted")
    std::string mappedDevice;  // second proxy-side name of the disk; cleared when detached
    std::string newDiskId;     // id of the disk created from snapshotId (the copy attached to the proxy)
    std::string fileName;      // mount-information entry: disk id, or the configuration file's name
    std::int32_t formatCode = 0;    // mount-information entry: 35 for a disk, 0 for a file
    std::int64_t contentKind = 0;   // mount-information entry: 4 for a configuration file
    std::string performanceLevel;   // ESSD performance level ("PL0".."PL3"); empty when not applicable
    std::string serialNumber;       // serial the guest sees; empty = disk id without "d-"
};

// One virtual machine: an ECS instance.
struct SVMInfo {
    std::string name;       // instance name
    std::string guestOS;    // "<OS name>;<architecture>", e.g. "Ubuntu 22.04 64 bit;x86_64"
    std::string guid;       // instance id
    std::string regionId;   // region of the instance
    std::string hostName;   // zone of the instance
    std::vector<SDisk> disks;
    std::vector<SVMNetworkCard> networkCards;
    std::uint32_t powerState = 0;  // 1 = powered on (Running/Starting), 0 otherwise
    std::vector<SSecurityGroupInfo> securityGroups;
    std::string vmProfile;  // instance type, e.g. "ecs.g7.large"
    std::string status;     // ECS status text ("Running", "Stopped", ...)
    std::string imageId;    // image the instance was created from
    std::int32_t cpuCount = 0;      // vCPUs
    std::int64_t memoryMiB = 0;     // memory, MiB
    std::string description;        // instance description
};

struct SDataCenterInfo;
struct SHostInfo;

// One browse node.
struct SInventoryInfo {
    std::string name;  // shown text
    std::string id;    // identifier passed to the bridge (region, zone or instance id)
    EInventoryType type = INVENTORY_VIEW;
    std::vector<SInventoryInfo> children;

    // The framework's fill helpers. Each makes a fresh node: regions become {name = id =
    // region id, INVENTORY_DATACENTER}, zones {name = id = zone id, INVENTORY_HOST},
    // instances {name = instance name, id = instance id, INVENTORY_VM}. The list forms
    // append one node per record, in order, to `out` without clearing it.
    static void FillInventoryInfoFromDatacenterInfo(const SDataCenterInfo& dc, SInventoryInfo& out);
    static void FillInventoryInfoListFromDatacenterInfoList(const std::vector<SDataCenterInfo>& list,
                                                            std::vector<SInventoryInfo>& out);
    static void FillInventoryInfoListFromHostInfoList(const std::vector<SHostInfo>& list,
                                                      std::vector<SInventoryInfo>& out);
    static void FillInventoryInfoListFromVMInfoList(const std::vector<SVMInfo>& list,
                                                    std::vector<SInventoryInfo>& out);
};

// A zone of a region.
struct SHostInfo {
    std::string name;      // zone id
    std::string regionId;  // region the zone belongs to
    std::vector<SVMInfo> vmList;  // its instances, when asked for
};

// A region.
struct SDataCenterInfo {
    std::string name;       // region id
    std::string localName;  // region's display name ("China (Hangzhou)"); may be empty
    std::vector<SVMInfo> vmList;     // its instances, when flag bit 29 was asked
    std::vector<SHostInfo> hostList; // its zones, when flag bit 53 was asked
};

// An instance type.
struct SVMSizeInfo {
    std::string name;             // instance type id, e.g. "ecs.g7.large"
    std::int32_t specValue1 = 0;  // vCPU count (only the region's list carries it)
    std::int32_t specValue2 = 0;  // memory in MiB (only the region's list carries it)
    std::int32_t maxDisks = 0;    // most disks an instance of the type can attach; 0 = unknown
};

// A snapshot of one disk.
struct SChildDisk {
    std::string snapshotId;    // "s-..."; filled by the bridge on creation
    std::string parentDiskId;  // disk the snapshot was taken of
    std::string name;          // snapshot name; may be empty
    std::int64_t diskSize = 0; // GiB of the source disk
    std::int32_t progress = 0; // percent, 0..100
};

// One entry of the mount information handed to the agent after a backup mount.
struct SMountInfoFull {
    std::int32_t entryType = 0;  // 1 = a disk, 0 = the configuration file
    std::vector<SDisk> disks;    // exactly one record describing the entry
};

// One file of a file-level mount (not offered by the ECS plug-in).
struct SMountInfoFile {
    std::string filePath;
    std::int64_t fileSize = 0;  // bytes
};

}  // namespace VMInfoStructs

// Which kind of job created a cleaner entity.
enum VM_Cleaner_Mode : std::uint32_t {
    VM_CLEANER_MODE_BACKUP = 0,
    VM_CLEANER_MODE_RESTORE = 1,
    VM_CLEANER_MODE_NONE = 2,  // create without registering anything
};

// Kind of a cleaner entity. The VM is the root; the others are its children.
enum VM_Cleaner_EntityType : std::uint32_t {
    VM_CLEANER_ENTITY_VM = 1,
    VM_CLEANER_ENTITY_SNAPSHOT = 2,
    VM_CLEANER_ENTITY_DISK = 3,
    VM_CLEANER_ENTITY_TEMPLATE = 4,  // a custom image
};

// A backup mount request from the framework. Passed as a const reference, but the plug-in
// writes into it (instance record, snapshot ids, new disk ids); later calls of the same job
// read those writes, so the host keeps one object per job.
struct MountCtx {
    std::string vmName;    // instance name as the job gives it (for logs)
    std::string vmGuid;    // instance id
    std::string mountPath; // job's mount directory; the configuration file is written here
    VMInfoStructs::SVMInfo vmInfo;       // filled at mount
    std::int32_t filteredDiskCount = 0;  // incremented once per disk found filtered
    // Disks excluded from the backup: each entry is a disk id, a disk name or a glob pattern
    // (* and ?) over either, compared without regard to case.
    std::vector<std::string> excludedDisks;
};

// A restore request from the framework. Passed as a const reference and written into on
// purpose (tempVMId, configFilePath, vmInfo, disks); later restore calls read those writes.
struct RestoreCtx {
    std::uint32_t restoreFlavor = 0;    // 1 = to an ECS instance through the proxy (hot-add)
    bool vmInfoPrefilled = false;       // vmInfo is filled; the configuration file is not read
    std::string vmName;                 // name of the instance to create
    std::string restorePath;            // folder holding the backed-up configuration file
    std::string zoneName;               // destination zone
    bool powerOnAfterRestore = false;
    bool overwriteExisting = false;     // delete an existing instance of the same name
    std::string regionName;             // destination region
    bool snapRestore = false;           // not supported
    std::vector<VMInfoStructs::SVMNetworkCard> networkCards;
    std::vector<VMInfoStructs::SSecurityGroupInfo> securityGroups;
    std::string vmProfileOverride;      // instance type to use instead of the backed-up one
    std::string guestOSOverride;        // "<OS>;<arch>" to use instead of the backed-up one
    std::string configFilePath;         // full path of the configuration file found
    std::string sourceVMName;           // instance name at backup time
    std::string tempVMId;               // GUID under which the restore is registered with the cleaner
    VMInfoStructs::SVMInfo vmInfo;      // properties of the instance to create
    std::vector<VMInfoStructs::SDisk> disks;  // backed-up disks to restore (diskSize in GiB)
    bool keepConfigNetworkSettings = false;   // keep the configuration file's cards and groups
};

// An open disk as the framework holds it. Both pointers point into the plug-in's disk
// registry, which owns what they point at; the handle owns nothing.
struct VmdkHandle {
    void* vmHandle = nullptr;
    void* diskHandle = nullptr;
};

// One registered cloud object of the persistent cleaner.
struct CleanerEntity {
    std::uint32_t entityType = 0;  // a VM_Cleaner_EntityType
    std::string entityId;          // the cloud id registered
    std::string cleanerPath;       // the handle under which it is registered and unregistered
    std::map<std::string, std::string> properties;  // store-defined extras (owner, times)
};
