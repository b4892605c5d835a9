// When and how long to wait before repeating a failed API call.
#pragma once

#include <chrono>
#include <functional>

#include "api_error.h"

namespace hxbridge {

struct RetryPolicy {
    // Attempts in all, the first included, for every retryable error but throttling. With
    // the defaults a call gives up after about 0.5+1+2+4+8 s (halved at worst by the
    // jitter) of back-off.
    int maxAttempts = 6;
    std::chrono::milliseconds baseDelay{500};
    std::chrono::milliseconds maxDelay{8000};

    // Throttling is counted in time, not attempts: ECS throttles per API per minute and a
    // throttled caller stays refused until the next minute begins, so a few quick retries
    // only burn the budget. Back-off grows to throttleMaxDelay (about one probe per
    // 8-16 s, as ECS asks) and the call gives up only once it has waited throttleBudget in
    // all, so throttling that clears within two minutes never fails a job.
    std::chrono::milliseconds throttleMaxDelay{16000};
    std::chrono::milliseconds throttleBudget{150000};

    // Whether the error is worth another attempt: throttling (see IsThrottling),
    // ServiceUnavailable, InternalError and any other 5xx, SignatureNonceUsed (a new
    // attempt gets a new nonce), too many parallel attaches, LastTokenProcessing (a create
    // with the same ClientToken is still running: the repetition, with the same token,
    // returns its result), Operation.Conflict (ECS: "retry later"), and every network
    // error but a permanent one (certificate, size cap; the caller makes creating calls
    // idempotent with a ClientToken). ApiClient also stops after two stalled attempts.
    static bool IsRetryable(const ApiError& error);
    // Throttling*, Rejected.Throttling: handled with the time budget above.
    static bool IsThrottling(const ApiError& error);

    // Every duration multiplied by `scale` (the bridge time scale of tests), at least 1 ms.
    RetryPolicy Scaled(double scale) const;

    // Back-off before attempt `retry` + 1 (retry = 1 for the first repetition): exponential
    // from baseDelay, capped at maxDelay, with "equal jitter": a uniformly drawn value in
    // [d/2, d]. `unit` is a draw from [0, 1).
    std::chrono::milliseconds Delay(int retry, double unit) const;
    // The same for the `retry`-th repetition after throttling, capped at throttleMaxDelay.
    std::chrono::milliseconds ThrottleDelay(int retry, double unit) const;
};

}  // namespace hxbridge
