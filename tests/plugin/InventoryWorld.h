// A small account for the inventory and browse tests: three regions, three zones, four
// instances, with names whose case-sensitive and case-insensitive orders differ, listed in
// the fake cloud in an order that is neither.
#pragma once

#include <string>
#include <vector>

#include "FakeCloud.h"
#include "VMInfoStructs.h"

namespace inventoryworld {

inline VMInfoStructs::SVMInfo Vm(const std::string& id, const std::string& name, const std::string& region,
                                 const std::string& zone) {
    VMInfoStructs::SVMInfo vm;
    vm.guid = id;
    vm.name = name;
    vm.regionId = region;
    vm.hostName = zone;
    return vm;
}

// Regions in cloud order: cn-hangzhou, Eu-central-1, ap-southeast-1.
// cn-hangzhou: zones cn-hangzhou-k (web-01, DB-main) and cn-hangzhou-a (app-7).
// ap-southeast-1: zone ap-southeast-1a (sg-node). Eu-central-1: empty.
inline void Build() {
    auto& cloud = fakecloud::TheCloud();
    const auto web = Vm("i-web", "web-01", "cn-hangzhou", "cn-hangzhou-k");
    const auto db = Vm("i-db", "DB-main", "cn-hangzhou", "cn-hangzhou-k");
    const auto app = Vm("i-app", "app-7", "cn-hangzhou", "cn-hangzhou-a");
    const auto sg = Vm("i-sg", "sg-node", "ap-southeast-1", "ap-southeast-1a");
    for (const auto& vm : {web, db, app, sg}) cloud.AddInstance(vm.guid, vm.name, vm.regionId, vm.hostName);

    VMInfoStructs::SHostInfo zoneK{"cn-hangzhou-k", "cn-hangzhou", {web, db}};
    VMInfoStructs::SHostInfo zoneA{"cn-hangzhou-a", "cn-hangzhou", {app}};
    VMInfoStructs::SHostInfo zoneSg{"ap-southeast-1a", "ap-southeast-1", {sg}};
    cloud.zones = {zoneK, zoneA, zoneSg};

    VMInfoStructs::SDataCenterInfo hangzhou{"cn-hangzhou", "China (Hangzhou)", {web, db, app}, {zoneK, zoneA}};
    VMInfoStructs::SDataCenterInfo frankfurt{"Eu-central-1", "Germany (Frankfurt)", {}, {}};
    VMInfoStructs::SDataCenterInfo singapore{"ap-southeast-1", "Singapore", {sg}, {zoneSg}};
    cloud.regions = {hangzhou, frankfurt, singapore};
}

template <class Record>
std::vector<std::string> Names(const std::vector<Record>& records) {
    std::vector<std::string> names;
    for (const auto& r : records) names.push_back(r.name);
    return names;
}

}  // namespace inventoryworld
