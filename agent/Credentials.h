// Where hxagent takes the account's AccessKey from, following Alibaba Cloud conventions:
//   1. ALIBABA_CLOUD_ACCESS_KEY_ID + ALIBABA_CLOUD_ACCESS_KEY_SECRET (+ ALIBABA_CLOUD_SECURITY_TOKEN);
//   2. a profile of the aliyun CLI's ~/.aliyun/config.json: the one named by --profile, else by
//      ALIBABA_CLOUD_PROFILE, else the file's "current", else "default". Modes AK and
//      StsToken are understood (StsToken's sts_token becomes the security token).
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
