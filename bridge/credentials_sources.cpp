#include "credentials_sources.h"

#include <cctype>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "api_client.h"
#include "percent_encode.h"
#include "hxutil/Random.h"
#include "hxutil/IsoTime.h"

namespace hxbridge {

namespace {

constexpr const char* kStsVersion = "2015-04-01";
constexpr const char* kTokenTtlHeader = "X-aliyun-ecs-metadata-token-ttl-seconds";
constexpr const char* kTokenHeader = "X-aliyun-ecs-metadata-token";

std::string Trim(const std::string& s) {
    const auto first = s.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return {};
    return s.substr(first, s.find_last_not_of(" \t\r\n") - first + 1);
}

std::string Str(const nlohmann::json& j, const char* key) {
    auto it = j.find(key);
    return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
}

// The credentials object every source answers with (STS nests it under "Credentials").
TimedCredentials FromJson(const nlohmann::json& j, const std::string& source) {
    TimedCredentials out;
    out.credentials = {Str(j, "AccessKeyId"), Str(j, "AccessKeySecret"), Str(j, "SecurityToken")};
    if (out.credentials.accessKeyId.empty() || out.credentials.accessKeySecret.empty())
        throw CredentialsUnavailable(source + " answered without an AccessKey");
    const std::string expiration = Str(j, "Expiration");
    if (!expiration.empty()) {
        out.expiration = ParseUtcTimestamp(expiration);
        if (!out.expiration) throw CredentialsUnavailable(source + " answered an unreadable Expiration");
    }
    return out;
}

HttpResponse SendOrThrow(HttpTransport& http, const HttpRequest& request, const std::string& source) {
    try {
        return http.Send(request);
    } catch (const TransportError& e) {
        throw ApiError(ApiError::Kind::Network, "NetworkError", source + " is unreachable: " + e.what());
    }
}

// Session token of the hardened metadata mode; nullopt when the service issues none.
std::optional<std::string> MetadataToken(HttpTransport& http, const std::string& base) {
    HttpRequest req;
    req.method = "PUT";
    req.url = base + "/latest/api/token";
    req.headers.emplace_back(kTokenTtlHeader, "21600");
    HttpResponse resp = SendOrThrow(http, req, "the metadata service");
    if (resp.status != 200 || Trim(resp.body).empty()) return std::nullopt;
    return Trim(resp.body);
}

HttpResponse MetadataGet(HttpTransport& http, const std::string& base, const std::string& path, bool imdsV1Disabled) {
    std::optional<std::string> token = MetadataToken(http, base);
    if (!token && imdsV1Disabled)
        throw CredentialsUnavailable("the metadata service issued no session token and ALIBABA_CLOUD_IMDSV1_DISABLED "
                                     "forbids plain requests");
    HttpRequest req;
    req.url = base + "/latest/meta-data/" + path;
    if (token) req.headers.emplace_back(kTokenHeader, *token);
    return SendOrThrow(http, req, "the metadata service");
}

std::string SessionName(const RoleRequest& role) {
    if (!role.sessionName.empty()) return role.sessionName;
    return "hxagent-" + std::to_string(std::time(nullptr));
}

}  // namespace

std::optional<std::chrono::system_clock::time_point> ParseUtcTimestamp(const std::string& text) {
    std::tm tm{};
    int consumed = 0;
    if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour,
                    &tm.tm_min, &consumed) != 5)
        return std::nullopt;
    size_t pos = static_cast<size_t>(consumed);
    if (pos < text.size() && text[pos] == ':') {
        int sec = 0, n = 0;
        if (std::sscanf(text.c_str() + pos + 1, "%2d%n", &sec, &n) != 1 || n != 2) return std::nullopt;
        tm.tm_sec = sec;
        pos += 3;
        if (pos < text.size() && text[pos] == '.') {
            ++pos;
            while (pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos]))) ++pos;
        }
    }
    if (pos + 1 != text.size() || text[pos] != 'Z') return std::nullopt;
    if (tm.tm_mon < 1 || tm.tm_mon > 12 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 || tm.tm_min > 59 ||
        tm.tm_sec > 60)
        return std::nullopt;
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    return std::chrono::system_clock::from_time_t(timegm(&tm));
}

std::optional<std::string> DiscoverEcsRamRole(HttpTransport& http, const std::string& metadataBase,
                                              bool imdsV1Disabled) {
    try {
        HttpResponse resp = MetadataGet(http, metadataBase, "ram/security-credentials/", imdsV1Disabled);
        if (resp.status != 200) return std::nullopt;
        std::istringstream lines(resp.body);
        std::string first;
        std::getline(lines, first);
        first = Trim(first);
        if (first.empty()) return std::nullopt;
        return first;
    } catch (const ApiError&) {
        return std::nullopt;
    }
}

TimedCredentials FetchEcsRamRole(HttpTransport& http, const std::string& metadataBase, const std::string& roleName,
                                 bool imdsV1Disabled) {
    std::string role = roleName;
    if (role.empty()) {
        auto found = DiscoverEcsRamRole(http, metadataBase, imdsV1Disabled);
        if (!found) throw CredentialsUnavailable("the metadata service lists no RAM role for this instance");
        role = *found;
    }
    const std::string source = "the RAM role '" + role + "' of this instance";
    HttpResponse resp = MetadataGet(http, metadataBase, "ram/security-credentials/" + role, imdsV1Disabled);
    if (resp.status != 200)
        throw CredentialsUnavailable(source + ": the metadata service answered HTTP " + std::to_string(resp.status));
    nlohmann::json body = nlohmann::json::parse(resp.body, nullptr, false);
    if (!body.is_object()) throw CredentialsUnavailable(source + ": the answer is not a JSON object");
    if (const std::string code = Str(body, "Code"); !code.empty() && code != "Success")
        throw CredentialsUnavailable(source + ": the metadata service answered Code " + code);
    return FromJson(body, source);
}

TimedCredentials AssumeRole(std::shared_ptr<HttpTransport> http, std::shared_ptr<CredentialsProvider> base,
                            const std::string& stsEndpoint, const RoleRequest& role) {
    ApiClientOptions options;
    options.version = kStsVersion;
    ApiClient sts(std::move(http), RequestSigner(), std::move(base), EndpointResolver{stsEndpoint, false}, options);
    Params params{{"RoleArn", role.roleArn},
                  {"RoleSessionName", SessionName(role)},
                  {"DurationSeconds", std::to_string(role.durationSeconds)}};
    if (!role.policy.empty()) params["Policy"] = role.policy;
    if (!role.externalId.empty()) params["ExternalId"] = role.externalId;
    nlohmann::json body = sts.Call("AssumeRole", "", params);
    auto it = body.find("Credentials");
    if (it == body.end() || !it->is_object())
        throw CredentialsUnavailable("STS AssumeRole of " + role.roleArn + " answered without Credentials");
    return FromJson(*it, "STS AssumeRole of " + role.roleArn);
}

TimedCredentials AssumeRoleWithOidc(HttpTransport& http, const std::string& stsEndpoint,
                                    const std::string& providerArn, const std::string& tokenFile,
                                    const RoleRequest& role) {
    std::ifstream in(tokenFile);
    std::ostringstream token;
    if (in) token << in.rdbuf();
    const std::string oidcToken = Trim(token.str());
    if (oidcToken.empty()) throw CredentialsUnavailable("the OIDC token file " + tokenFile + " is missing or empty");
    Params params{{"Action", "AssumeRoleWithOIDC"},
                  {"Version", kStsVersion},
                  {"Format", "JSON"},
                  {"Timestamp", hxutil::IsoUtc(std::chrono::system_clock::now())},
                  {"SignatureNonce", hxutil::RandomUuid()},
                  {"OIDCProviderArn", providerArn},
                  {"RoleArn", role.roleArn},
                  {"OIDCToken", oidcToken},
                  {"RoleSessionName", SessionName(role)},
                  {"DurationSeconds", std::to_string(role.durationSeconds)}};
    if (!role.policy.empty()) params["Policy"] = role.policy;
    HttpRequest req;
    req.method = "POST";
    std::string url = stsEndpoint;
    while (!url.empty() && url.back() == '/') url.pop_back();
    req.url = url + "/";
    req.headers.emplace_back("Content-Type", "application/x-www-form-urlencoded");
    req.body = CanonicalQuery(params);
    const std::string source = "STS AssumeRoleWithOIDC of " + role.roleArn;
    HttpResponse resp = SendOrThrow(http, req, source);
    nlohmann::json body;
    try {
        body = ParseResponse(resp);
    } catch (const ApiError& e) {
        // The server's message may quote the request; keep only its code and status.
        throw ApiError(e.kind(), e.code(), source + " was refused", e.requestId(), e.httpStatus());
    }
    auto it = body.find("Credentials");
    if (it == body.end() || !it->is_object()) throw CredentialsUnavailable(source + " answered without Credentials");
    return FromJson(*it, source);
}

TimedCredentials FetchCredentialsUri(HttpTransport& http, const std::string& uri) {
    HttpRequest req;
    req.url = uri;
    const std::string source = "the credentials URI";
    HttpResponse resp = SendOrThrow(http, req, source);
    if (resp.status != 200)
        throw CredentialsUnavailable(source + " answered HTTP " + std::to_string(resp.status));
    nlohmann::json body = nlohmann::json::parse(resp.body, nullptr, false);
    if (!body.is_object()) throw CredentialsUnavailable(source + " answered something that is not a JSON object");
    if (const std::string code = Str(body, "Code"); !code.empty() && code != "Success")
        throw CredentialsUnavailable(source + " answered Code " + code);
    return FromJson(body, source);
}

}  // namespace hxbridge
