#include "server/Throttle.h"

namespace hxsim::server {

std::string Throttle::Configure(const nlohmann::json& body) {
  if (!body.is_object() || !body.contains("perMinute") || !body["perMinute"].is_number_integer() ||
      body["perMinute"].get<int>() < 0) {
    return "expected {\"perMinute\": N, \"actions\": [...]} with N >= 0";
  }
  std::set<std::string> actions;
  if (auto it = body.find("actions"); it != body.end()) {
    if (!it->is_array()) return "\"actions\" must be a list of action names";
    for (const auto& a : *it) {
      if (!a.is_string()) return "\"actions\" must be a list of action names";
      if (a.get<std::string>() != "*") actions.insert(a.get<std::string>());
    }
  }
  std::lock_guard lock(mutex_);
  perMinute_ = body["perMinute"].get<int>();
  actions_ = std::move(actions);
  origin_ = clock_.Now();
  window_ = -1;
  used_.clear();
  return "";
}

void Throttle::Clear() {
  std::lock_guard lock(mutex_);
  perMinute_ = 0;
  actions_.clear();
  used_.clear();
}

std::optional<api::ApiError> Throttle::Admit(const std::string& action) {
  std::lock_guard lock(mutex_);
  if (perMinute_ <= 0 || (!actions_.empty() && !actions_.count(action))) return std::nullopt;
  const long long window = static_cast<long long>(clock_.Unscaled(clock_.Now() - origin_) / 60.0);
  if (window != window_) {
    window_ = window;
    used_.clear();
  }
  if (++used_[action] <= perMinute_) return std::nullopt;
  return api::BadRequest("Throttling.User", "Request was denied due to user flow control.");
}

}  // namespace hxsim::server
