// The ECS API layer: sends one action (signed, POST form body), returns the parsed JSON
// answer or throws ApiError, and repeats retryable failures under one RetryPolicy.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "api_error.h"
#include "credentials_provider.h"
#include "http_transport.h"
#include "retry_policy.h"
#include "signer.h"

namespace hxbridge {

// Where a region's ECS API is. An override (tests, the emulator, private deployments) wins
// for every region; it may be "http://host:port", "https://host" or a bare host (HTTPS).
// Otherwise https://ecs.<region>.aliyuncs.com, or ecs-vpc.<region> when `vpc` is set.
struct EndpointResolver {
    std::string overrideEndpoint;
    bool vpc = false;
    std::string BaseUrl(const std::string& regionId) const;  // without a trailing '/'
};

// Turns an HTTP answer into the action's JSON body, or throws ApiError(Service) when the
// status is not 2xx or the body carries a Code (ECS reports errors both ways), and
// ApiError(Malformed) when the body is not a JSON object.
nlohmann::json ParseResponse(const HttpResponse& response);

struct ApiClientOptions {
    std::string version = "2014-05-26";
    RetryPolicy retry;
    std::function<void(std::chrono::milliseconds)> sleep;  // default: this_thread::sleep_for
    std::function<double()> random;                         // default: uniform [0,1)
    // Receives one line per call (action, region, status, RequestId, attempts, duration);
    // never parameters. Null = no tracing.
    std::function<void(const std::string&)> trace;
};

class ApiClient {
public:
    // Signs every request with whatever `credentials` gives at that moment, so refreshed
    // temporary credentials take effect on the next attempt. A provider failure ends the
    // call with its ApiError (retried like any other when it is a network error).
    ApiClient(std::shared_ptr<HttpTransport> transport, RequestSigner signer,
              std::shared_ptr<CredentialsProvider> credentials, EndpointResolver endpoints,
              ApiClientOptions options = {});
    // Fixed credentials (a permanent AccessKey or a token that is not refreshed).
    ApiClient(std::shared_ptr<HttpTransport> transport, RequestSigner signer, Credentials credentials,
              EndpointResolver endpoints, ApiClientOptions options = {});

    // Calls `action` in `regionId` (also sent as RegionId unless `params` has one or the
    // region is empty) and returns its JSON body. Retries per the policy, each attempt
    // freshly signed (new nonce and timestamp). Throws ApiError; its text never contains
    // the secret or the security token.
    nlohmann::json Call(const std::string& action, const std::string& regionId, Params params);

    const CredentialsProvider& credentials() const { return *credentials_; }

private:
    nlohmann::json CallOnce(const std::string& action, const std::string& regionId, const Params& params,
                            long& status);
    static std::string Redact(std::string text, const Credentials& used);

    std::shared_ptr<HttpTransport> transport_;
    RequestSigner signer_;
    std::shared_ptr<CredentialsProvider> credentials_;
    EndpointResolver endpoints_;
    ApiClientOptions options_;
};

}  // namespace hxbridge
