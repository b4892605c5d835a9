// API flow control as ECS applies it: a quota of calls per action per minute; once an
// action has used its quota, every further call is refused with Throttling.User until the
// next minute begins (a throttled caller cannot get through earlier by retrying fast).
// Minutes are scaled by the time scale and counted from the moment the mode is set.
//
// Control: POST /_sim/throttle {"perMinute": N, "actions": ["CreateDisk", ...]} (no
// "actions" or "*": every action, STS included); {"perMinute": 0} turns it off.
// Thread-safe.
#pragma once

#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>

#include "api/ApiError.h"
#include "model/Clock.h"

namespace hxsim::server {

class Throttle {
 public:
  explicit Throttle(const model::Clock& clock) : clock_(clock) {}

  // Returns an error text for a malformed body, empty on success.
  std::string Configure(const nlohmann::json& body);
  void Clear();
  // The refusal for this call, or nullopt when it is within the quota.
  std::optional<api::ApiError> Admit(const std::string& action);

 private:
  const model::Clock& clock_;
  std::mutex mutex_;
  int perMinute_ = 0;
  std::set<std::string> actions_;  // empty: all
  model::SteadyTime origin_{};
  long long window_ = -1;
  std::map<std::string, int> used_;
};

}  // namespace hxsim::server
