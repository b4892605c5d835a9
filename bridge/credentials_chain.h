// The default credentials chain, in the order of the official Alibaba Cloud credentials
// libraries; the first source that is configured is used (a later one is never tried when
// an earlier one is configured but fails: a broken configuration must not silently fall
// through to another identity):
//
//   1. ALIBABA_CLOUD_ACCESS_KEY_ID + ALIBABA_CLOUD_ACCESS_KEY_SECRET
//      (+ ALIBABA_CLOUD_SECURITY_TOKEN, used as given and not refreshed);
//   2. OIDC: ALIBABA_CLOUD_ROLE_ARN, ALIBABA_CLOUD_OIDC_PROVIDER_ARN and
//      ALIBABA_CLOUD_OIDC_TOKEN_FILE, through STS AssumeRoleWithOIDC;
//   3. a profile of ~/.aliyun/config.json (ALIBABA_CLOUD_CONFIG_FILE overrides the path;
//      the profile named by ALIBABA_CLOUD_PROFILE, else "current", else "default"), of mode
//      AK, StsToken, RamRoleArn, ChainableRamRoleArn (source_profile), EcsRamRole,
//      CredentialsURI or OIDC;
//   4. ALIBABA_CLOUD_ECS_METADATA (a RAM role name, fetched from the metadata service);
//   5. ALIBABA_CLOUD_CREDENTIALS_URI;
//   6. the RAM role attached to this instance, discovered through the metadata service.
//
// ALIBABA_CLOUD_ECS_METADATA_DISABLED=true skips 4 and 6 (and refuses EcsRamRole
// profiles); ALIBABA_CLOUD_IMDSV1_DISABLED=true makes the hardened metadata mode (session
// token) mandatory. STS is https://sts.aliyuncs.com, sts.<ALIBABA_CLOUD_STS_REGION>.aliyuncs.com
// when that is set, or ALIBABA_CLOUD_STS_ENDPOINT (an emulator) when that is.
//
// Temporary credentials are refreshed `refreshMargin` before they expire (5 minutes at
// time scale 1). Nothing here logs; messages name sources, files and variables, never a
// secret or a token.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "credentials_provider.h"
#include "http_transport.h"

namespace hxbridge {

// Reads one environment variable; empty when unset.
using EnvReader = std::function<std::string(const char*)>;

struct ChainDependencies {
    EnvReader env;                                  // required
    std::shared_ptr<HttpTransport> http;            // STS and credentials URI
    std::shared_ptr<HttpTransport> metadataHttp;    // the metadata service
    std::string metadataEndpoint;                   // scheme://host[:port]
    std::chrono::milliseconds refreshMargin{std::chrono::minutes(5)};
};

// The provider of the first configured source. Throws ApiError (CredentialsUnavailable)
// when no source is configured or a configured one is unusable (a profile without its
// keys, an unknown mode, an unreadable file); fetching itself happens on the first Get.
std::shared_ptr<CredentialsProvider> ResolveCredentialChain(const ChainDependencies& deps);

}  // namespace hxbridge
