// When and how long to wait before repeating a failed API call.
#pragma once

#include <chrono>
#include <functional>

#include "api_error.h"

namespace hxbridge {

struct RetryPolicy {
    // Attempts in all, the first included. With the defaults a call gives up after about
    // 0.5+1+2+4+8 s (halved at worst by the jitter) of back-off.
    int maxAttempts = 6;
    std::chrono::milliseconds baseDelay{500};
    std::chrono::milliseconds maxDelay{8000};

    // Whether the error is worth another attempt: throttling (Throttling*,
    // Rejected.Throttling), ServiceUnavailable, InternalError and any other 5xx,
    // SignatureNonceUsed (a new attempt gets a new nonce), too many parallel attaches, and
    // every network error but a permanent one (certificate, size cap; the caller makes creating
    // calls idempotent with a ClientToken). ApiClient also stops after two stalled attempts.
    static bool IsRetryable(const ApiError& error);

    // Back-off before attempt `retry` + 1 (retry = 1 for the first repetition): exponential
    // from baseDelay, capped at maxDelay, with "equal jitter": a uniformly drawn value in
    // [d/2, d]. `unit` is a draw from [0, 1).
    std::chrono::milliseconds Delay(int retry, double unit) const;
};

}  // namespace hxbridge
