// HTTP transport: one request in, one response out. The interface lets the API layer be
// tested with a scripted transport; CurlTransport is the real one.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace hxbridge {

struct HttpRequest {
    std::string method = "GET";  // GET, POST, PUT
    std::string url;             // absolute, http:// or https://
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
};

struct HttpResponse {
    long status = 0;
    std::map<std::string, std::string> headers;  // names lower-cased; last value wins
    std::string body;
};

// The request did not produce an HTTP response: connection refused or reset, DNS failure,
// TLS failure, timeout. Whether the server acted on the request is unknown. The message
// names the failure and never carries the request's body.
// `permanent` marks failures that another attempt cannot mend (a certificate the system
// does not trust, a response over the size cap): retrying them only delays the message.
class TransportError : public std::runtime_error {
public:
    explicit TransportError(const std::string& what, bool permanent = false, bool timedOut = false)
        : std::runtime_error(what), permanent_(permanent), timedOut_(timedOut) {}
    bool permanent() const { return permanent_; }
    // The peer accepted but did not answer in time (a stalled or overloaded endpoint).
    bool timedOut() const { return timedOut_; }

private:
    bool permanent_;
    bool timedOut_;
};

class HttpTransport {
public:
    virtual ~HttpTransport() = default;
    // Returns any HTTP response (4xx/5xx included); throws TransportError when there is none.
    virtual HttpResponse Send(const HttpRequest& request) = 0;
};

struct TransportOptions {
    std::chrono::milliseconds connectTimeout{5000};
    std::chrono::milliseconds totalTimeout{60000};
    // A peer that accepts and then sends nothing for this long is given up on (no ECS answer
    // takes that long to start), instead of holding the caller for the whole totalTimeout.
    std::chrono::seconds stallTimeout{20};
    // Largest response body accepted; ECS answers are kilobytes, a page of 100 disks well
    // under one MiB. A larger body is refused rather than held in memory.
    std::size_t maxBodyBytes = 16u << 20;
    // Proxies: libcurl honours https_proxy/HTTPS_PROXY, http_proxy and NO_PROXY from the
    // environment. `bypassProxy` ignores them (for the link-local metadata service).
    bool bypassProxy = false;
    std::string userAgent = "HXAliCloudSDKCppBridge/1.0";
    // Extra CA bundle file; empty = the system store. Verification is always on.
    std::string caFile;
};

// libcurl with TLS peer and host verification, the system CA store, and one easy handle
// reused across requests so that connections are kept alive. Calls are serialised.
class CurlTransport final : public HttpTransport {
public:
    explicit CurlTransport(TransportOptions options = {});
    ~CurlTransport() override;
    CurlTransport(const CurlTransport&) = delete;
    CurlTransport& operator=(const CurlTransport&) = delete;

    HttpResponse Send(const HttpRequest& request) override;

private:
    TransportOptions options_;
    void* handle_ = nullptr;  // CURL*
    std::mutex mutex_;
};

}  // namespace hxbridge
