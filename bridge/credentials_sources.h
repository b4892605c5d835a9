// The places temporary credentials are fetched from: the instance metadata service (the
// ECS instance's RAM role), STS (AssumeRole, AssumeRoleWithOIDC) and a credentials URI.
// Each fetch is one exchange (no retry loop of its own beyond the API client's) and either
// returns credentials with their expiration or throws ApiError; messages name the source
// and the cause, never a secret, a security token or an OIDC token.
// Thread safety: the functions keep no state; the transports serialise their own calls.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "credentials_provider.h"
#include "http_transport.h"

namespace hxbridge {

// "2024-05-01T10:20:30Z" (seconds and a fraction optional) as a UTC instant.
std::optional<std::chrono::system_clock::time_point> ParseUtcTimestamp(const std::string& text);

// The instance's RAM role. `roleName` empty: discover it (the first name listed at
// meta-data/ram/security-credentials/). Hardened mode first (a session token from
// PUT /latest/api/token); without one a plain GET, unless `imdsV1Disabled`, which makes
// the token mandatory. `metadataBase` is scheme://host[:port] without "/latest".
TimedCredentials FetchEcsRamRole(HttpTransport& http, const std::string& metadataBase, const std::string& roleName,
                                 bool imdsV1Disabled);

// The role name the metadata service lists, or nullopt when the service is unreachable,
// refuses us or has no role attached. Never throws.
std::optional<std::string> DiscoverEcsRamRole(HttpTransport& http, const std::string& metadataBase,
                                              bool imdsV1Disabled);

struct RoleRequest {
    std::string roleArn;        // acs:ram::<account>:role/<name>
    std::string sessionName;    // default "hxagent-<unix time>"
    int durationSeconds = 3600; // STS accepts 900 .. the role's maximum
    std::string policy;         // optional inline policy narrowing the role
    std::string externalId;     // optional
};

// STS AssumeRole signed with credentials from `base` (which may itself be temporary: a
// chain of roles). `stsEndpoint` is the STS base URL (https://sts.aliyuncs.com, the
// regional sts.<region>.aliyuncs.com, or an emulator).
TimedCredentials AssumeRole(std::shared_ptr<HttpTransport> http, std::shared_ptr<CredentialsProvider> base,
                            const std::string& stsEndpoint, const RoleRequest& role);

// STS AssumeRoleWithOIDC: anonymous (not signed), proven by the OIDC token read from
// `tokenFile` on every call (the file is rotated by whoever mounts it).
TimedCredentials AssumeRoleWithOidc(HttpTransport& http, const std::string& stsEndpoint,
                                    const std::string& providerArn, const std::string& tokenFile,
                                    const RoleRequest& role);

// GET `uri`, which answers {"Code":"Success","AccessKeyId":..,"AccessKeySecret":..,
// "SecurityToken":..,"Expiration":..} (the credentials-URI convention).
TimedCredentials FetchCredentialsUri(HttpTransport& http, const std::string& uri);

}  // namespace hxbridge
