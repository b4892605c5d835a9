#include "hxutil/IsoTime.h"

#include <cstdio>
#include <ctime>

namespace hxutil {

namespace {

std::tm Broken(std::chrono::system_clock::time_point t, bool local) {
    // Whole seconds rounded down (to_time_t may round toward zero before 1970).
    const std::time_t secs = static_cast<std::time_t>(
        std::chrono::floor<std::chrono::seconds>(t.time_since_epoch()).count());
    std::tm tm{};
    if (local) ::localtime_r(&secs, &tm);
    else ::gmtime_r(&secs, &tm);
    return tm;
}

// Milliseconds past the whole second, also for times before 1970.
long Millis(std::chrono::system_clock::time_point t) {
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count() % 1000;
    return static_cast<long>(ms < 0 ? ms + 1000 : ms);
}

}  // namespace

std::string IsoUtc(std::chrono::system_clock::time_point t, IsoPrecision precision) {
    const std::tm tm = Broken(t, false);
    char buf[40];
    size_t n = std::strftime(buf, sizeof buf, precision == IsoPrecision::Minutes ? "%Y-%m-%dT%H:%M" : "%Y-%m-%dT%H:%M:%S",
                             &tm);
    if (precision == IsoPrecision::Millis) n += std::snprintf(buf + n, sizeof buf - n, ".%03ld", Millis(t));
    return std::string(buf, n) + "Z";
}

std::string IsoLocalMillis(std::chrono::system_clock::time_point t) {
    const std::tm tm = Broken(t, true);
    char buf[48];
    size_t n = std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    n += std::snprintf(buf + n, sizeof buf - n, ".%03ld", Millis(t));
    n += std::strftime(buf + n, sizeof buf - n, "%z", &tm);
    return std::string(buf, n);
}

std::string CompactUtc(std::chrono::system_clock::time_point t) {
    const std::tm tm = Broken(t, false);
    char buf[24];
    const size_t n = std::strftime(buf, sizeof buf, "%Y%m%dT%H%M%SZ", &tm);
    return std::string(buf, n);
}

}  // namespace hxutil
