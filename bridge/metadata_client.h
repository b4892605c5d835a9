// The instance metadata service (http://100.100.100.200 on ECS): who the proxy is.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "http_transport.h"

namespace hxbridge {

inline constexpr const char* kDefaultMetadataEndpoint = "http://100.100.100.200";

// Transport settings for the metadata service: it is link-local, so never through a proxy,
// and a machine that is not an ECS instance must be recognised in about a second.
TransportOptions MetadataTransportOptions();

class MetadataClient {
public:
    // `baseUrl`: scheme and host[:port] of the service, without "/latest".
    MetadataClient(std::shared_ptr<HttpTransport> transport, std::string baseUrl);

    // The text at latest/meta-data/<path> ("instance-id", "region-id", "zone-id"), trimmed.
    // Hardened mode first (a session token from PUT latest/api/token, cached for its life),
    // plain GET when the service issues no token. Returns nullopt when the service is not
    // reachable or has no such item; never throws.
    std::optional<std::string> Get(const std::string& path);

private:
    std::optional<std::string> FetchToken(bool& reachable);

    std::shared_ptr<HttpTransport> transport_;
    std::string baseUrl_;
    std::string token_;
    std::chrono::steady_clock::time_point tokenExpiry_{};
};

}  // namespace hxbridge
