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
    const std::string_view code = error.code();
    if (code.rfind("Throttling", 0) == 0 || code == "Rejected.Throttling") return true;
    if (code == "ServiceUnavailable" || code == "InternalError" || code == "SignatureNonceUsed") return true;
    if (code == "OperationConflict.DisksAttachingParallellyExceed") return true;
    return error.httpStatus() >= 500;
}

std::chrono::milliseconds RetryPolicy::Delay(int retry, double unit) const {
    double d = static_cast<double>(baseDelay.count());
    for (int i = 1; i < retry && d < static_cast<double>(maxDelay.count()); ++i) d *= 2;
    d = std::min(d, static_cast<double>(maxDelay.count()));
    unit = std::clamp(unit, 0.0, 1.0);
    return std::chrono::milliseconds(static_cast<long long>(d / 2 + unit * d / 2));
}

}  // namespace hxbridge
