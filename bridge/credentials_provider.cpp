#include "credentials_provider.h"

namespace hxbridge {

StaticCredentialsProvider::StaticCredentialsProvider(Credentials credentials, std::string source)
    : credentials_(std::move(credentials)), source_(std::move(source)) {}

RefreshingCredentialsProvider::RefreshingCredentialsProvider(Fetch fetch, std::string source,
                                                             std::chrono::milliseconds margin, Clock clock,
                                                             std::chrono::milliseconds retryAfter)
    : fetch_(std::move(fetch)),
      source_(std::move(source)),
      margin_(margin),
      clock_(clock ? std::move(clock) : Clock([] { return std::chrono::system_clock::now(); })),
      retryAfter_(retryAfter) {}

Credentials RefreshingCredentialsProvider::Get() {
    std::lock_guard lock(mutex_);
    const auto now = clock_();
    const bool permanent = held_ && !held_->expiration;
    if (permanent) return held_->credentials;
    const bool fresh = held_ && now + margin_ < *held_->expiration;
    if (fresh) return held_->credentials;
    const bool stillValid = held_ && now < *held_->expiration;
    if (stillValid && now < nextAttempt_) return held_->credentials;  // a refresh failed recently
    try {
        TimedCredentials next = fetch_();
        if (next.credentials.accessKeyId.empty() || next.credentials.accessKeySecret.empty())
            throw CredentialsUnavailable(source_ + " returned no AccessKey");
        held_ = std::move(next);
        ++fetches_;
        return held_->credentials;
    } catch (const ApiError&) {
        if (!stillValid) throw;
        nextAttempt_ = now + retryAfter_;
        return held_->credentials;
    }
}

int RefreshingCredentialsProvider::Fetches() const {
    std::lock_guard lock(mutex_);
    return fetches_;
}

ApiError CredentialsUnavailable(const std::string& what) {
    return ApiError(ApiError::Kind::Client, "CredentialsUnavailable", what);
}

std::string MaskAccessKeyId(const std::string& id) {
    if (id.size() <= 8) return std::string(id.size(), '*');
    return id.substr(0, 4) + "****" + id.substr(id.size() - 4);
}

}  // namespace hxbridge
