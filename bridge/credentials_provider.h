// Where the signer's AccessKey comes from. The API client asks its provider before every
// request, so temporary credentials (STS tokens, the instance's RAM role) are replaced
// while a long job runs instead of expiring under it.
//
// Failure behaviour: Get() throws ApiError (Client "CredentialsUnavailable" when no source
// can give credentials, or the source's own Network/Service error). No message names a
// secret or a security token; only the source and, at most, a masked AccessKey id.
// Thread safety: every provider may be shared and called from any thread.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "api_error.h"
#include "signer.h"

namespace hxbridge {

// Credentials with the instant they stop being accepted; no expiration = permanent.
struct TimedCredentials {
    Credentials credentials;
    std::optional<std::chrono::system_clock::time_point> expiration;
};

class CredentialsProvider {
public:
    virtual ~CredentialsProvider() = default;
    // Credentials valid for at least the provider's refresh margin (or permanent).
    virtual Credentials Get() = 0;
    // Where they come from, for messages ("environment", "ECS RAM role 'x'"); never a secret.
    virtual std::string Describe() const = 0;
};

class StaticCredentialsProvider final : public CredentialsProvider {
public:
    StaticCredentialsProvider(Credentials credentials, std::string source);
    Credentials Get() override { return credentials_; }
    std::string Describe() const override { return source_; }

private:
    Credentials credentials_;
    std::string source_;
};

// Calls `fetch` for the first credentials and again once fewer than `margin` remain of
// their life. If a refresh fails while the held credentials are still valid, they are
// kept and the refresh is tried again on a later Get (after `retryAfter`); once they have
// expired the failure is thrown. `fetch` runs under the provider's lock: one refresh at a
// time, other callers wait for it.
class RefreshingCredentialsProvider final : public CredentialsProvider {
public:
    using Fetch = std::function<TimedCredentials()>;
    using Clock = std::function<std::chrono::system_clock::time_point()>;

    RefreshingCredentialsProvider(Fetch fetch, std::string source, std::chrono::milliseconds margin,
                                  Clock clock = nullptr,
                                  std::chrono::milliseconds retryAfter = std::chrono::seconds(10));
    Credentials Get() override;
    std::string Describe() const override { return source_; }
    int Fetches() const;  // how many times `fetch` succeeded (tests, diagnostics)

private:
    Fetch fetch_;
    std::string source_;
    std::chrono::milliseconds margin_;
    Clock clock_;
    std::chrono::milliseconds retryAfter_;
    mutable std::mutex mutex_;
    std::optional<TimedCredentials> held_;
    std::chrono::system_clock::time_point nextAttempt_{};
    int fetches_ = 0;
};

// The error every source throws when it cannot give credentials; `what` names the source
// and the cause, never a secret.
ApiError CredentialsUnavailable(const std::string& what);

// "LTAI****1234": enough to tell keys apart in messages.
std::string MaskAccessKeyId(const std::string& id);

}  // namespace hxbridge
