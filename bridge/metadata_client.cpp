#include "metadata_client.h"

namespace hxbridge {

namespace {
constexpr int kTokenTtlSeconds = 21600;
constexpr const char* kTokenTtlHeader = "X-aliyun-ecs-metadata-token-ttl-seconds";
constexpr const char* kTokenHeader = "X-aliyun-ecs-metadata-token";

std::string Trim(const std::string& s) {
    const auto first = s.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return {};
    const auto last = s.find_last_not_of(" \t\r\n");
    return s.substr(first, last - first + 1);
}
}  // namespace

TransportOptions MetadataTransportOptions() {
    TransportOptions o;
    o.connectTimeout = std::chrono::milliseconds(1000);
    o.totalTimeout = std::chrono::milliseconds(3000);
    o.bypassProxy = true;
    return o;
}

MetadataClient::MetadataClient(std::shared_ptr<HttpTransport> transport, std::string baseUrl)
    : transport_(std::move(transport)), baseUrl_(std::move(baseUrl)) {
    while (!baseUrl_.empty() && baseUrl_.back() == '/') baseUrl_.pop_back();
}

std::optional<std::string> MetadataClient::FetchToken(bool& reachable) {
    reachable = true;
    if (!token_.empty() && std::chrono::steady_clock::now() < tokenExpiry_) return token_;
    HttpRequest req;
    req.method = "PUT";
    req.url = baseUrl_ + "/latest/api/token";
    req.headers.emplace_back(kTokenTtlHeader, std::to_string(kTokenTtlSeconds));
    try {
        HttpResponse resp = transport_->Send(req);
        if (resp.status != 200) return std::nullopt;  // no hardened mode: plain requests
        token_ = Trim(resp.body);
        if (token_.empty()) return std::nullopt;
        // Renew a minute early so that a token never expires between fetch and use.
        tokenExpiry_ = std::chrono::steady_clock::now() + std::chrono::seconds(kTokenTtlSeconds - 60);
        return token_;
    } catch (const TransportError&) {
        reachable = false;
        return std::nullopt;
    }
}

std::optional<std::string> MetadataClient::Get(const std::string& path) {
    for (int round = 0; round < 2; ++round) {
        bool reachable = true;
        const std::optional<std::string> token = FetchToken(reachable);
        if (!reachable) return std::nullopt;
        HttpRequest req;
        req.method = "GET";
        req.url = baseUrl_ + "/latest/meta-data/" + path;
        if (token) req.headers.emplace_back(kTokenHeader, *token);
        HttpResponse resp;
        try {
            resp = transport_->Send(req);
        } catch (const TransportError&) {
            return std::nullopt;
        }
        if (resp.status == 200) {
            std::string value = Trim(resp.body);
            if (value.empty()) return std::nullopt;
            return value;
        }
        if ((resp.status == 401 || resp.status == 403) && token && round == 0) {
            token_.clear();  // revoked or expired early: fetch a new one once
            continue;
        }
        return std::nullopt;
    }
    return std::nullopt;
}

}  // namespace hxbridge
