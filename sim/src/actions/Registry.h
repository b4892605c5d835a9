// Action handlers: one function per ECS action, grouped by resource in the
// *Actions.cpp files. A handler runs with the store lock held and returns the
// response fields (RequestId is added by the pipeline); it reports failures by
// throwing api::ApiError.
#pragma once

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "api/ApiError.h"
#include "api/Params.h"
#include "faults/Faults.h"
#include "model/Store.h"

namespace hxsim::actions {

struct Context {
  model::Store& store;
  faults::Faults& faults;
  const api::Params& params;
  std::string action;
};

using Handler = std::function<nlohmann::json(Context&)>;
using HandlerMap = std::map<std::string, Handler>;

// Every supported action, by name.
const HandlerMap& Handlers();

void RegisterRegionActions(HandlerMap& map);
void RegisterInstanceActions(HandlerMap& map);
void RegisterInstanceAttributeActions(HandlerMap& map);
void RegisterDiskActions(HandlerMap& map);
void RegisterSnapshotActions(HandlerMap& map);
void RegisterImageActions(HandlerMap& map);
void RegisterTagActions(HandlerMap& map);
void RegisterSecurityGroupActions(HandlerMap& map);

// ---- helpers shared by the handlers ----

// The RegionId parameter, required and known (MissingRegionId / InvalidRegionId.NotFound).
std::string RequiredRegion(Context& ctx);
// RegionId when given (validated), else "" (lookups then ignore the region).
std::string OptionalRegion(Context& ctx);

// 400 MissingParameter naming `name`: what the network actions (CreateInstance's
// vSwitch and group, JoinSecurityGroup, LeaveSecurityGroup) answer for an absent input,
// where the disk actions use Missing<Name> codes.
api::ApiError MissingInput(const std::string& name);

// When DryRun=true the request stops after validation with 400 DryRunOperation.
void FinishDryRun(Context& ctx);

// ClientToken idempotency: Replay returns the first response for a token already used by
// this action (IdempotentParameterMismatch when the parameters differ); Remember records
// a successful create. Tokens longer than 64 characters are InvalidParameter.
std::optional<nlohmann::json> ReplayClientToken(Context& ctx);
void RememberClientToken(Context& ctx, const nlohmann::json& result);

// "2-128 characters, starting with a letter, not with http:// or https://".
void CheckName(const std::string& value, const std::string& code, bool allowEmpty = true);

// Supported size range (GiB) of a disk category / performance level; nullopt for an
// unknown category.
std::optional<std::pair<int64_t, int64_t>> DiskSizeRange(const std::string& category, const std::string& level);

// '*' matches any run of characters; everything else literally.
bool WildcardMatch(const std::string& pattern, const std::string& text);

// True when `tags` has every Tag.N.Key (and its Value, when one is given) in filters.
bool TagsMatch(const model::Tags& tags, const std::vector<std::pair<std::string, std::string>>& filters);
// Adds Tag.N entries to a resource (used by the Create* actions).
void ApplyTags(model::Tags& tags, const std::vector<std::pair<std::string, std::string>>& add);

bool Contains(const std::vector<std::string>& list, const std::string& value);

// 403 InstanceLockedForSecurity when the instance carries the "security" operation lock.
void CheckNotLockedForSecurity(const model::Instance& instance);

}  // namespace hxsim::actions
