#include "http_transport.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <mutex>

namespace hxbridge {

namespace {

void GlobalInitOnce() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct BodySink {
    std::string* body;
    std::size_t limit;
    bool overflow = false;
};

size_t OnBody(char* data, size_t size, size_t count, void* user) {
    auto* sink = static_cast<BodySink*>(user);
    if (sink->body->size() + size * count > sink->limit) {
        sink->overflow = true;
        return 0;  // libcurl stops with CURLE_WRITE_ERROR
    }
    sink->body->append(data, size * count);
    return size * count;
}

// Failures that a repetition cannot change: the peer's certificate or our trust store.
bool IsPermanent(CURLcode rc) {
    switch (rc) {
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_PINNEDPUBKEYNOTMATCH:
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_URL_MALFORMAT:
            return true;
        default:
            return false;
    }
}

size_t OnHeader(char* data, size_t size, size_t count, void* user) {
    auto* headers = static_cast<std::map<std::string, std::string>*>(user);
    std::string line(data, size * count);
    if (line.rfind("HTTP/", 0) == 0) {
        headers->clear();  // a new response (after 100-continue or a redirect) starts over
        return size * count;
    }
    const auto colon = line.find(':');
    if (colon == std::string::npos) return size * count;
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    std::string value = line.substr(colon + 1);
    const auto first = value.find_first_not_of(" \t");
    const auto last = value.find_last_not_of(" \t\r\n");
    value = first == std::string::npos ? std::string() : value.substr(first, last - first + 1);
    (*headers)[name] = value;
    return size * count;
}

}  // namespace

CurlTransport::CurlTransport(TransportOptions options) : options_(std::move(options)) {
    GlobalInitOnce();
    handle_ = curl_easy_init();
    if (handle_ == nullptr) throw TransportError("cannot initialise libcurl");
}

CurlTransport::~CurlTransport() {
    if (handle_ != nullptr) curl_easy_cleanup(static_cast<CURL*>(handle_));
}

HttpResponse CurlTransport::Send(const HttpRequest& request) {
    std::lock_guard<std::mutex> lock(mutex_);
    CURL* curl = static_cast<CURL*>(handle_);
    // Reset per-request options but keep the handle: its connection cache survives.
    curl_easy_reset(curl);

    HttpResponse response;
    char errorBuffer[CURL_ERROR_SIZE] = {0};
    curl_easy_setopt(curl, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
    if (!options_.caFile.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, options_.caFile.c_str());
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(options_.connectTimeout.count()));
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(options_.totalTimeout.count()));
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, static_cast<long>(options_.stallTimeout.count()));
    curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(curl, CURLOPT_USERAGENT, options_.userAgent.c_str());
    curl_easy_setopt(curl, CURLOPT_ACCEPT_ENCODING, "");  // any encoding libcurl can decode
    if (options_.bypassProxy) curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");

    if (request.method == "GET") {
        curl_easy_setopt(curl, CURLOPT_HTTPGET, 1L);
    } else if (request.method == "POST") {
        curl_easy_setopt(curl, CURLOPT_POST, 1L);
        curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.c_str());
    } else {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
        if (!request.body.empty()) {
            curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
            curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.c_str());
        }
    }

    curl_slist* headerList = nullptr;
    for (const auto& [name, value] : request.headers) {
        headerList = curl_slist_append(headerList, (name + ": " + value).c_str());
    }
    if (request.method != "GET" && request.body.empty()) {
        headerList = curl_slist_append(headerList, "Content-Length: 0");
    }
    headerList = curl_slist_append(headerList, "Expect:");  // no 100-continue round trip
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headerList);

    BodySink sink{&response.body, options_.maxBodyBytes};
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, OnBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, OnHeader);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &response.headers);

    const CURLcode rc = curl_easy_perform(curl);
    curl_slist_free_all(headerList);
    if (rc != CURLE_OK) {
        if (sink.overflow) {
            throw TransportError("the response from " + request.url + " exceeds " +
                                     std::to_string(options_.maxBodyBytes >> 20) + " MiB; refused",
                                 true);
        }
        std::string detail = errorBuffer[0] != '\0' ? errorBuffer : curl_easy_strerror(rc);
        if (!detail.empty() && detail.back() == '\n') detail.pop_back();
        throw TransportError(detail, IsPermanent(rc), rc == CURLE_OPERATION_TIMEDOUT);
    }
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
    return response;
}

}  // namespace hxbridge
