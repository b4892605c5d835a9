#include "retry_policy.h"

#include <algorithm>
#include <string_view>

namespace hxbridge {

bool RetryPolicy::IsRetryable(const ApiError& error) {
    switch (error.kind()) {
        case ApiError::Kind::Network:
            return error.code() != kPermanentNetworkError;
        case ApiError::Kind::Service:
            break;
        default:
            return false;
    }
    if (IsThrottling(error)) return true;
    const std::string_view code = error.code();
    if (code == "LastTokenProcessing" || code == "Operation.Conflict") return true;
    if (code == "ServiceUnavailable" || code == "InternalError" || code == "SignatureNonceUsed") return true;
    if (code == "OperationConflict.DisksAttachingParallellyExceed") return true;
    return error.httpStatus() >= 500;
}

bool RetryPolicy::IsThrottling(const ApiError& error) {
    if (error.kind() != ApiError::Kind::Service) return false;
    const std::string_view code = error.code();
    return code.rfind("Throttling", 0) == 0 || code == "Rejected.Throttling";
}

namespace {
std::chrono::milliseconds Backoff(std::chrono::milliseconds base, std::chrono::milliseconds cap, int retry,
                                  double unit) {
    double d = static_cast<double>(base.count());
    for (int i = 1; i < retry && d < static_cast<double>(cap.count()); ++i) d *= 2;
    d = std::min(d, static_cast<double>(cap.count()));
    unit = std::clamp(unit, 0.0, 1.0);
    return std::chrono::milliseconds(static_cast<long long>(d / 2 + unit * d / 2));
}

std::chrono::milliseconds ScaleMs(std::chrono::milliseconds d, double scale) {
    return std::max(std::chrono::milliseconds(1),
                    std::chrono::milliseconds(static_cast<long long>(static_cast<double>(d.count()) * scale)));
}
}  // namespace

std::chrono::milliseconds RetryPolicy::Delay(int retry, double unit) const {
    return Backoff(baseDelay, maxDelay, retry, unit);
}

std::chrono::milliseconds RetryPolicy::ThrottleDelay(int retry, double unit) const {
    return Backoff(baseDelay, throttleMaxDelay, retry, unit);
}

RetryPolicy RetryPolicy::Scaled(double scale) const {
    RetryPolicy p = *this;
    p.baseDelay = ScaleMs(baseDelay, scale);
    p.maxDelay = ScaleMs(maxDelay, scale);
    p.throttleMaxDelay = ScaleMs(throttleMaxDelay, scale);
    p.throttleBudget = ScaleMs(throttleBudget, scale);
    return p;
}

}  // namespace hxbridge
