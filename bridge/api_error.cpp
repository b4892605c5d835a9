#include "api_error.h"

namespace hxbridge {

namespace {
std::string Compose(const std::string& code, const std::string& message, const std::string& requestId) {
    std::string text = code + ": " + message;
    if (!requestId.empty()) text += " (RequestId " + requestId + ")";
    return text;
}
}  // namespace

ApiError::ApiError(Kind kind, std::string code, std::string message, std::string requestId, long httpStatus)
    : std::runtime_error(Compose(code, message, requestId)),
      kind_(kind),
      code_(std::move(code)),
      message_(std::move(message)),
      requestId_(std::move(requestId)),
      httpStatus_(httpStatus) {}

std::string ApiError::Describe() const { return what(); }

bool ApiError::IsNotFound() const {
    constexpr std::string_view suffix = ".NotFound";
    return code_.size() >= suffix.size() && code_.compare(code_.size() - suffix.size(), suffix.size(), suffix) == 0;
}

}  // namespace hxbridge
