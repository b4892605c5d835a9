// The instance metadata service as seen from the proxy instance (the real one lives at
// http://100.100.100.200/latest/...): instance-id, region-id, zone-id, a few more
// meta-data items, the instance identity document, and the hardened-mode token
// (PUT /latest/api/token with X-aliyun-ecs-metadata-token-ttl-seconds: 1..21600).
// A request that presents a token must present a valid, unexpired one (401 otherwise);
// when World::metadataTokenRequired is set every request needs one.
// meta-data/ram/security-credentials/ lists the proxy's RAM role (WorldConfig::ramRoleName)
// and .../<role> hands out temporary credentials the API accepts until their Expiration
// (WorldConfig::roleCredentialSeconds, time-scaled).
#pragma once

#include "api/Response.h"
#include "api/Signature.h"
#include "server/World.h"

namespace hxsim::server {

api::HttpReply HandleMetadata(World& world, const std::string& method, const std::string& path,
                              const sig::HeaderMap& headers);

}  // namespace hxsim::server
