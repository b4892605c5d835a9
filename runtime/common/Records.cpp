// Functions of the framework records: error texts and browse-node fill helpers.
#include "VMInfoStructs.h"

namespace VMInfoStructs {

const char* EVMInfoErrorText(EVMInfoError code) {
    switch (code) {
    case VMINFO_ERR_NONE: return "No error";
    case VMINFO_ERR_VM_NOT_FOUND: return "The instance was not found";
    case VMINFO_ERR_VM_ALREADY_EXISTS: return "An instance with the restore name already exists";
    case VMINFO_ERR_SNAPSHOT_CREATE: return "A snapshot could not be created";
    case VMINFO_ERR_DISKINFO_CONNECT: return "The disk registry could not take the instance";
    case VMINFO_ERR_RESTORE_VM: return "The restored instance could not be created";
    case VMINFO_ERR_DISK_HANDLE: return "A disk handle is invalid";
    case VMINFO_ERR_DISK_CREATE: return "A disk could not be created";
    case VMINFO_ERR_CONFIG_READ: return "The instance configuration could not be read";
    case VMINFO_ERR_DISK_ATTACH: return "A disk could not be attached to the proxy";
    case VMINFO_ERR_VM_DELETE: return "The existing instance could not be replaced";
    case VMINFO_ERR_ALL_DISKS_FILTERED: return "All disks of the instance are filtered";
    case VMINFO_ERR_SNAPSHOT_CLEANUP: return "Snapshots could not be cleaned up";
    case VMINFO_ERR_DISK_CLEANUP: return "Disks could not be cleaned up";
    case VMINFO_ERR_CONFIG_NOT_FOUND: return "No instance configuration file was found";
    case VMINFO_ERR_PROXY_SELF_BACKUP: return "The proxy cannot back itself up";
    case VMINFO_ERR_NO_DISKS: return "The instance has no disks";
    case VMINFO_ERR_DUPLICATE_VM_NAME: return "Several instances bear the restore name";
    case VMINFO_ERR_ZONE_MISMATCH: return "The proxy is in another zone";
    case VMINFO_ERR_PROXY_NOT_CLOUD_VM: return "The proxy is not an ECS instance";
    case VMINFO_ERR_PROXY_DISK_LIMIT: return "The proxy cannot take another disk";
    case VMINFO_ERR_PROXY_INFO: return "The proxy's description could not be read";
    case VMINFO_ERR_JOB_CANCELLED: return "The job was cancelled";
    }
    return "Unknown error";
}

void SInventoryInfo::FillInventoryInfoFromDatacenterInfo(const SDataCenterInfo& dc, SInventoryInfo& out) {
    out = SInventoryInfo{};
    out.name = dc.name;
    out.id = dc.name;
    out.type = INVENTORY_DATACENTER;
}

void SInventoryInfo::FillInventoryInfoListFromDatacenterInfoList(const std::vector<SDataCenterInfo>& list,
                                                                 std::vector<SInventoryInfo>& out) {
    for (const auto& dc : list) {
        SInventoryInfo node;
        FillInventoryInfoFromDatacenterInfo(dc, node);
        out.push_back(std::move(node));
    }
}

void SInventoryInfo::FillInventoryInfoListFromHostInfoList(const std::vector<SHostInfo>& list,
                                                           std::vector<SInventoryInfo>& out) {
    for (const auto& host : list) {
        SInventoryInfo node;
        node.name = host.name;
        node.id = host.name;
        node.type = INVENTORY_HOST;
        out.push_back(std::move(node));
    }
}

void SInventoryInfo::FillInventoryInfoListFromVMInfoList(const std::vector<SVMInfo>& list,
                                                         std::vector<SInventoryInfo>& out) {
    for (const auto& vm : list) {
        SInventoryInfo node;
        node.name = vm.name;
        node.id = vm.guid;
        node.type = INVENTORY_VM;
        out.push_back(std::move(node));
    }
}

}  // namespace VMInfoStructs
