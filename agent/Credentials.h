// Which credentials hxagent hands to the plug-in, following the order of the official
// Alibaba Cloud credentials chain:
//   1. ALIBABA_CLOUD_ACCESS_KEY_ID + ALIBABA_CLOUD_ACCESS_KEY_SECRET (+ ALIBABA_CLOUD_SECURITY_TOKEN);
//   2. OIDC (ALIBABA_CLOUD_ROLE_ARN, ALIBABA_CLOUD_OIDC_PROVIDER_ARN, ALIBABA_CLOUD_OIDC_TOKEN_FILE);
//   3. a profile of the aliyun CLI's ~/.aliyun/config.json: the one named by --profile, else by
//      ALIBABA_CLOUD_PROFILE, else the file's "current", else "default";
//   4. ALIBABA_CLOUD_ECS_METADATA (a RAM role name), ALIBABA_CLOUD_CREDENTIALS_URI;
//   5. the instance's RAM role through the metadata service (probed by CloudTarget).
// Permanent keys and fixed STS tokens (environment, modes AK and StsToken) are passed to
// Connect as they always were. Every source whose credentials expire (OIDC, RamRoleArn,
// ChainableRamRoleArn, EcsRamRole, CredentialsURI, the metadata service) is "chain": the
// bridge resolves and refreshes it itself (see CloudTarget.h); hxagent only decides that
// one is configured, and never reads a secret it does not pass on.
// Nothing here prints or logs a secret.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace hxagent {

struct CloudCredentials {
    std::string accessKeyId;
    std::string accessKeySecret;
    std::string securityToken;  // empty for a permanent AccessKey
    std::string regionId;       // the profile's region_id; empty from the environment
    std::string source;         // where they came from, for messages ("environment", "profile 'x' of ...")
    // The bridge's credentials chain resolves and refreshes them; the key fields are empty.
    bool chain = false;
};

// Reads one environment variable; empty when unset. Tests pass their own.
using EnvLookup = std::function<std::string(const char*)>;
EnvLookup ProcessEnvironment();

struct CredentialLookup {
    std::optional<CloudCredentials> credentials;  // none configured when empty and error empty
    std::string error;                            // a configuration that cannot be used
};

// Picks the profile `wanted` (empty: ALIBABA_CLOUD_PROFILE, "current", "default") out of the
// text of an aliyun CLI config file.
CredentialLookup ParseAliyunConfig(const std::string& text, const std::string& wanted, const std::string& fileName);

// The whole lookup. `configPath` empty means $HOME/.aliyun/config.json. A missing file is
// "nothing configured" unless a profile was asked for by name.
CredentialLookup ResolveCredentials(const EnvLookup& env, const std::string& profile, std::string configPath = {});

// "LTAI****1234": enough to tell keys apart in messages, never the secret.
std::string MaskKeyId(const std::string& id);

}  // namespace hxagent
