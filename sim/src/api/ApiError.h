// The error an action reports to the caller: HTTP status plus the ECS error Code and
// Message. Thrown only inside the request pipeline (action handlers, auth) and always
// caught there; it never leaves the library.
#pragma once

#include <stdexcept>
#include <string>

namespace hxsim::api {

struct ApiError : std::runtime_error {
  ApiError(int httpStatus, std::string errorCode, std::string errorMessage)
      : std::runtime_error(errorCode + ": " + errorMessage),
        status(httpStatus),
        code(std::move(errorCode)),
        message(std::move(errorMessage)) {}
  int status;
  std::string code;
  std::string message;
};

inline ApiError BadRequest(std::string code, std::string message) { return {400, std::move(code), std::move(message)}; }
inline ApiError Forbidden(std::string code, std::string message) { return {403, std::move(code), std::move(message)}; }
inline ApiError NotFound(std::string code, std::string message) { return {404, std::move(code), std::move(message)}; }

// "The specified parameter \"Size\" is not valid." (400 InvalidParameter)
inline ApiError InvalidParameter(const std::string& name, const std::string& detail = "") {
  return BadRequest("InvalidParameter",
                    "The specified parameter \"" + name + "\" is not valid." + (detail.empty() ? "" : " " + detail));
}

// ECS names a missing mandatory parameter in the code itself: MissingRegionId, MissingDiskId...
inline ApiError MissingParameter(const std::string& name) {
  return BadRequest("Missing" + name, name + " is mandatory for this action.");
}

// 403 codes used for every "the resource is in the wrong state" answer.
inline ApiError IncorrectDiskStatus(const std::string& detail = "The current disk status does not support this operation.") {
  return Forbidden("IncorrectDiskStatus", detail);
}
inline ApiError IncorrectInstanceStatus(int status = 403) {
  return ApiError(status, "IncorrectInstanceStatus", "The current status of the resource does not support this operation.");
}

// The HTTP status ECS uses for a code when a fault injection names only the code.
int DefaultStatusForCode(const std::string& code);

}  // namespace hxsim::api
