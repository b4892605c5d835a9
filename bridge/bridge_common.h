// Small pieces the files of the bridge's Impl share: error constructors, argument checks
// and the names and NotFound codes of the resource kinds (indexed like Impl::Kind).
#pragma once

#include <string>

#include "api_error.h"

namespace hxbridge::bridge_detail {

inline constexpr const char* kDefaultDescription = "Created by HXAliCloudSDKCppBridge";
// Every status DescribeImages knows; without the list it reports Available images only.
inline constexpr const char* kAllImageStatuses = "Creating,Waiting,Available,UnAvailable,CreateFailed,Deprecated";

inline ApiError NotFound(const std::string& code, const std::string& what) {
    return ApiError(ApiError::Kind::Service, code, what, {}, 404);
}

inline ApiError ClientError(const std::string& code, const std::string& what) {
    return ApiError(ApiError::Kind::Client, code, what);
}

// Throws MissingParameter (a client error) when `value` is empty.
inline void RequireArg(const std::string& value, const std::string& name) {
    if (value.empty()) throw ClientError("MissingParameter", name + " is empty");
}

// `kind` is static_cast<int>(Impl::Kind): instance, disk, snapshot, image.
inline const char* NotFoundCode(int kind) {
    switch (kind) {
        case 0: return "InvalidInstanceId.NotFound";
        case 1: return "InvalidDiskId.NotFound";
        case 2: return "InvalidSnapshotId.NotFound";
        default: return "InvalidImageId.NotFound";
    }
}

inline const char* KindName(int kind) {
    switch (kind) {
        case 0: return "instance";
        case 1: return "disk";
        case 2: return "snapshot";
        default: return "image";
    }
}

}  // namespace hxbridge::bridge_detail
