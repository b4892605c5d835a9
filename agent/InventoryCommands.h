// `browse`, `list`, `types` and `describe INSTANCE`: the inventory as the framework's
// console shows it.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Session.h"

namespace hxagent {

// "\Region View\cn-hangzhou" -> {"Region View", "cn-hangzhou"}; "" and "\" -> {}.
// A path without the leading backslash is accepted as well.
std::vector<std::string> SplitBrowsePath(const std::string& path);
// The tree the console hands BrowseInventory: the chain of single children from the view
// node down to the node being expanded (`chain` front = view node).
SInventoryInfo BuildBrowseTree(const std::vector<SInventoryInfo>& chain);
const char* InventoryTypeName(EInventoryType type);

struct InventoryOutcome {
    bool ok = false;
    JobFailure failure;
    std::string resultKey;  // --json prints {"ok": true, <resultKey>: result, "cloud": ...}
    nlohmann::json result;
    std::string heading;  // a line a person sees above the rows; may be empty
    std::vector<std::vector<std::string>> rows;  // what a person sees (first row: header)
};

InventoryOutcome RunBrowse(AgentContext& context, const std::string& path);
// With `withDisks` every instance's disks are read too (two more cloud calls per instance:
// the plug-in's list answer carries none).
InventoryOutcome RunList(AgentContext& context, const std::string& region, const std::string& zone,
                         const std::string& pattern, bool withDisks);
// One instance (id or exact name) with its disks: id, system flag, size, category, the
// device name ECS reports, zone.
InventoryOutcome RunDescribeInstance(AgentContext& context, const std::string& instance);

// Finds the instance by id or by exact name (exactly one must match; several of one name is
// a usage error that asks for the id). With `withDisks` the answer has the disks even when
// it was found by name. False with `failure` set otherwise.
bool ResolveInstance(CVMInfo& vm, const std::string& wanted, bool withDisks, SVMInfo& out, JobFailure& failure);
InventoryOutcome RunTypes(AgentContext& context, const std::string& host);

// Prints rows as aligned columns.
void PrintTable(const std::vector<std::vector<std::string>>& rows);

}  // namespace hxagent
