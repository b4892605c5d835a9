// The bridge's settings, read from the environment when a connection is made.
//
//   ALIBABA_CLOUD_ECS_ENDPOINT       ECS API for every region ("http://127.0.0.1:PORT" for the
//                                    emulator; a bare host means HTTPS). Default: the
//                                    regional https://ecs.<region>.aliyuncs.com.
//   ALIBABA_CLOUD_ECS_NETWORK        "vpc": use ecs-vpc.<region>.aliyuncs.com (a proxy
//                                    without internet access). Ignored with an endpoint.
//   ALIBABA_CLOUD_METADATA_ENDPOINT  metadata service. Default http://100.100.100.200.
//   ALIBABA_CLOUD_REGION_ID          region for calls that name none before the proxy's
//                                    own region is known (DescribeRegions). Default: the
//                                    proxy's region from the metadata service, else cn-hangzhou.
//   ALIBABA_CLOUD_SECURITY_TOKEN     STS token sent with the AccessKey of Connect.
//   ALIBABA_CLOUD_BRIDGE_DEBUG       "1": one trace line per API call on stderr (action,
//                                    region, HTTP status, RequestId, attempt, duration).
//   ALIBABA_CLOUD_BRIDGE_CREDENTIALS "chain": Connect ignores its user name and password (the
//                                    host passes placeholders) and signs with the default
//                                    credentials chain (credentials_chain.h), refreshed
//                                    before expiry. Unset: the AccessKey given to Connect.
//                                    An environment variable, not a magic user name, so that
//                                    no AccessKey id can ever be mistaken for the switch and
//                                    the plug-in's Connect contract stays as it is.
//   ALIBABA_CLOUD_BRIDGE_TIME_SCALE  a factor in (0, 1] for every poll interval, wait bound
//                                    and retry back-off; for tests against a time-scaled
//                                    emulator. Default 1. Out-of-range values are ignored.
#pragma once

#include <string>

namespace hxbridge {

struct BridgeSettings {
    std::string ecsEndpoint;
    bool vpcNetwork = false;
    std::string metadataEndpoint;
    std::string defaultRegion;
    std::string securityToken;
    bool debug = false;
    bool credentialChain = false;
    double timeScale = 1.0;

    static BridgeSettings FromEnvironment();
};

// One variable of the process environment; empty when unset.
std::string ReadEnvironment(const char* name);

}  // namespace hxbridge
