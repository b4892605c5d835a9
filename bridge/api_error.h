// The typed failure of one ECS API call.
#pragma once

#include <stdexcept>
#include <string>

namespace hxbridge {

// Codes of network failures (Kind::Network): a certificate or size refusal that another
// attempt cannot change, and a peer that accepted but never answered.
inline constexpr const char* kPermanentNetworkError = "NetworkError.Permanent";
inline constexpr const char* kNetworkTimeout = "NetworkError.Timeout";

class ApiError : public std::runtime_error {
public:
    enum class Kind {
        Service,    // ECS answered with an error (Code/Message/RequestId, HTTP status)
        Network,    // no HTTP response (see TransportError); httpStatus is 0
        Malformed,  // a response that is not the JSON ECS sends
        Client,     // the bridge refused before sending (bad argument, missing setting)
        Timeout,    // a bounded wait of the bridge ran out
    };

    ApiError(Kind kind, std::string code, std::string message, std::string requestId = {},
             long httpStatus = 0);

    Kind kind() const { return kind_; }
    const std::string& code() const { return code_; }
    const std::string& message() const { return message_; }
    const std::string& requestId() const { return requestId_; }
    long httpStatus() const { return httpStatus_; }

    // Set when the failing call had already been retried after an attempt whose outcome is
    // unknown (network error): the server may have performed the operation.
    bool mayHaveSucceeded() const { return mayHaveSucceeded_; }
    void setMayHaveSucceeded(bool v) { mayHaveSucceeded_ = v; }

    // "Code: Message (RequestId ...)", or "Code: Message" without a request id.
    std::string Describe() const;

    // *.NotFound codes (InvalidDiskId.NotFound, ...).
    bool IsNotFound() const;

private:
    Kind kind_;
    std::string code_;
    std::string message_;
    std::string requestId_;
    long httpStatus_;
    bool mayHaveSucceeded_ = false;
};

}  // namespace hxbridge
