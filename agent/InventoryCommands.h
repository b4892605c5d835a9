// `browse`, `list` and `types`: the inventory as the framework's console shows it.
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
    std::vector<std::vector<std::string>> rows;  // what a person sees (first row: header)
};

InventoryOutcome RunBrowse(AgentContext& context, const std::string& path);
InventoryOutcome RunList(AgentContext& context, const std::string& region, const std::string& zone,
                         const std::string& pattern);
InventoryOutcome RunTypes(AgentContext& context, const std::string& host);

// Prints rows as aligned columns.
void PrintTable(const std::vector<std::vector<std::string>>& rows);

}  // namespace hxagent
