// The STS actions a credentials chain needs (API version 2015-04-01), served on the same
// endpoint and RPC protocol as ECS: AssumeRole (signed, by a permanent or a temporary key,
// so roles can be chained) and AssumeRoleWithOIDC (anonymous; the OIDC token proves the
// caller). Both hand out temporary keys the emulator's API accepts until they expire;
// DurationSeconds is stretched by the time scale like every duration. Any role ARN of the
// form acs:ram::<account id>:role/<name> exists; a name starting with "missing" does not.
// Failures are thrown as api::ApiError with the codes STS uses.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "api/Params.h"
#include "server/World.h"

namespace hxsim::server {

constexpr char kStsVersion[] = "2015-04-01";

bool IsStsAction(const std::string& action);
// Whether the action is answered without a signature.
bool IsAnonymousStsAction(const std::string& action);

// Runs an STS action for the caller `accessKeyId` ("" when anonymous).
nlohmann::json HandleSts(World& world, const std::string& action, const api::Params& params,
                         const std::string& accessKeyId);

}  // namespace hxsim::server
