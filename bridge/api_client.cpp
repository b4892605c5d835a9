#include "api_client.h"

#include <random>
#include <thread>

#include "percent_encode.h"

namespace hxbridge {

std::string EndpointResolver::BaseUrl(const std::string& regionId) const {
    if (!overrideEndpoint.empty()) {
        std::string url = overrideEndpoint;
        if (url.rfind("http://", 0) != 0 && url.rfind("https://", 0) != 0) url = "https://" + url;
        while (!url.empty() && url.back() == '/') url.pop_back();
        return url;
    }
    if (regionId.empty()) throw ApiError(ApiError::Kind::Client, "MissingRegion", "no region to send the request to");
    return std::string("https://") + (vpc ? "ecs-vpc." : "ecs.") + regionId + ".aliyuncs.com";
}

nlohmann::json ParseResponse(const HttpResponse& response) {
    nlohmann::json body = nlohmann::json::parse(response.body, nullptr, /*allow_exceptions=*/false);
    const bool ok = response.status >= 200 && response.status < 300;
    if (body.is_discarded() || !body.is_object()) {
        // A gateway in between (proxy, load balancer) may answer with HTML: an error status
        // stays a service error so that 5xx is still retried; a 2xx is unusable.
        const std::string what = "HTTP " + std::to_string(response.status) + " with a body that is not a JSON object";
        if (ok) throw ApiError(ApiError::Kind::Malformed, "MalformedResponse", what, {}, response.status);
        throw ApiError(ApiError::Kind::Service, "HTTP" + std::to_string(response.status), what, {}, response.status);
    }
    auto text = [&](const char* key) -> std::string {
        auto it = body.find(key);
        if (it == body.end() || it->is_null()) return {};
        return it->is_string() ? it->get<std::string>() : it->dump();
    };
    const std::string code = text("Code");
    const bool codeSaysOk = code.empty() || code == "200" || code == "OK" || code == "Success";
    if (ok && codeSaysOk) return body;
    throw ApiError(ApiError::Kind::Service, code.empty() ? "HTTP" + std::to_string(response.status) : code,
                   text("Message"), text("RequestId"), response.status);
}

ApiClient::ApiClient(std::shared_ptr<HttpTransport> transport, RequestSigner signer, Credentials credentials,
                     EndpointResolver endpoints, ApiClientOptions options)
    : ApiClient(std::move(transport), std::move(signer),
                std::make_shared<StaticCredentialsProvider>(std::move(credentials), "the given AccessKey"),
                std::move(endpoints), std::move(options)) {}

ApiClient::ApiClient(std::shared_ptr<HttpTransport> transport, RequestSigner signer,
                     std::shared_ptr<CredentialsProvider> credentials, EndpointResolver endpoints,
                     ApiClientOptions options)
    : transport_(std::move(transport)),
      signer_(std::move(signer)),
      credentials_(std::move(credentials)),
      endpoints_(std::move(endpoints)),
      options_(std::move(options)) {
    if (!options_.sleep) options_.sleep = [](std::chrono::milliseconds d) { std::this_thread::sleep_for(d); };
    if (!options_.random) {
        options_.random = [engine = std::make_shared<std::mt19937_64>(std::random_device{}())]() {
            return std::uniform_real_distribution<double>(0.0, 1.0)(*engine);
        };
    }
}

std::string ApiClient::Redact(std::string text, const Credentials& used) {
    // A SignatureDoesNotMatch message quotes the server's string to sign, which carries the
    // security token (percent-encoded once or twice); transport errors could echo anything.
    for (const std::string& secret : {used.accessKeySecret, used.securityToken}) {
        if (secret.size() < 4) continue;
        for (const std::string& form : {secret, PercentEncode(secret), PercentEncode(PercentEncode(secret))}) {
            for (size_t pos = text.find(form); pos != std::string::npos; pos = text.find(form, pos)) {
                text.replace(pos, form.size(), "<redacted>");
            }
        }
    }
    return text;
}

nlohmann::json ApiClient::CallOnce(const std::string& action, const std::string& regionId, const Params& params,
                                   long& status) {
    const Credentials used = credentials_->Get();
    const Params signedParams = signer_.Sign("POST", action, options_.version, params, used);
    HttpRequest request;
    request.method = "POST";
    request.url = endpoints_.BaseUrl(regionId) + "/";
    request.headers.emplace_back("Content-Type", "application/x-www-form-urlencoded");
    request.headers.emplace_back("Accept", "application/json");
    for (const auto& [key, value] : signedParams) {
        if (!request.body.empty()) request.body.push_back('&');
        request.body += PercentEncode(key) + "=" + PercentEncode(value);
    }
    HttpResponse response;
    try {
        response = transport_->Send(request);
    } catch (const TransportError& e) {
        const char* code = e.permanent() ? kPermanentNetworkError : e.timedOut() ? kNetworkTimeout : "NetworkError";
        throw ApiError(ApiError::Kind::Network, code, Redact(e.what(), used));
    }
    status = response.status;
    try {
        return ParseResponse(response);
    } catch (const ApiError& e) {
        ApiError clean(e.kind(), e.code(), Redact(e.message(), used), e.requestId(), e.httpStatus());
        throw clean;
    }
}

nlohmann::json ApiClient::Call(const std::string& action, const std::string& regionId, Params params) {
    if (!regionId.empty() && params.find("RegionId") == params.end()) params["RegionId"] = regionId;
    const auto started = std::chrono::steady_clock::now();
    bool outcomeUnknown = false;  // an earlier attempt may have been performed by the server
    int timeouts = 0;             // attempts the peer accepted and never answered
    // The back-off keeps growing across kinds of failure; only the attempt bound counts
    // throttling apart (it has its own time budget).
    int retries = 0, otherRetries = 0;
    std::chrono::milliseconds throttleWaited{0};
    for (int attempt = 1;; ++attempt) {
        long status = 0;
        auto traceLine = [&](const std::string& requestId, const std::string& outcome) {
            if (!options_.trace) return;
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                                  started);
            options_.trace("action=" + action + " region=" + (regionId.empty() ? "-" : regionId) +
                           " status=" + std::to_string(status) + " requestId=" + (requestId.empty() ? "-" : requestId) +
                           " attempt=" + std::to_string(attempt) + " elapsed_ms=" + std::to_string(ms.count()) +
                           " outcome=" + outcome);
        };
        try {
            nlohmann::json body = CallOnce(action, regionId, params, status);
            std::string requestId;
            if (auto it = body.find("RequestId"); it != body.end() && it->is_string()) requestId = *it;
            traceLine(requestId, "ok");
            return body;
        } catch (ApiError& e) {
            traceLine(e.requestId(), e.code());
            if (e.code() == kNetworkTimeout) ++timeouts;
            const bool throttled = RetryPolicy::IsThrottling(e);
            // A peer that stalls twice is not going to answer: each stall costs the whole
            // stall timeout, so a third attempt would only hold the job longer.
            const bool retry = RetryPolicy::IsRetryable(e) && timeouts < 2 &&
                               (throttled ? throttleWaited < options_.retry.throttleBudget
                                          : otherRetries + 1 < options_.retry.maxAttempts);
            if (!retry) {
                e.setMayHaveSucceeded(outcomeUnknown);
                throw;
            }
            if (e.kind() == ApiError::Kind::Network) outcomeUnknown = true;
            if (throttled) {
                const auto delay = options_.retry.ThrottleDelay(++retries, options_.random());
                throttleWaited += delay;
                options_.sleep(delay);
            } else {
                ++otherRetries;
                options_.sleep(options_.retry.Delay(++retries, options_.random()));
            }
        }
    }
}

}  // namespace hxbridge
