#include "server/World.h"

namespace hxsim::server {

void CallCounter::Record(const std::string& action, bool failed) {
  std::lock_guard lock(mutex_);
  auto& c = counts_[action];
  ++c.first;
  if (failed) ++c.second;
}

nlohmann::json CallCounter::Snapshot() const {
  std::lock_guard lock(mutex_);
  nlohmann::json actions = nlohmann::json::object();
  uint64_t total = 0;
  for (const auto& [action, c] : counts_) {
    actions[action] = {{"calls", c.first}, {"errors", c.second}};
    total += c.first;
  }
  return {{"total", total}, {"actions", actions}};
}

void CallCounter::Clear() {
  std::lock_guard lock(mutex_);
  counts_.clear();
}

World::World(WorldConfig config)
    : config_(std::move(config)),
      clock_(config_.timeScale),
      dataPlane_(config_.stateDir, config_.deviceRoot),
      store_(clock_, dataPlane_, config_.seed),
      auth_(config_.scenario.accessKeys),
      faults_(config_.seed) {}

api::AccessKey World::IssueTemporaryKey(double seconds) {
  const auto life = std::chrono::duration_cast<std::chrono::system_clock::duration>(clock_.Scaled(seconds));
  api::AccessKey key = auth_.IssueTemporary(clock_.WallNow() + life);
  ++credentialsIssued;
  return key;
}

std::string World::Reset() {
  try {
    auto lock = store_.Lock();
    store_.Clear();
    dataPlane_.Prepare();
    scenario::Apply(config_.scenario, store_);
  } catch (const std::exception& e) {
    return std::string("cannot build the scenario's state: ") + e.what();
  }
  auth_.ForgetNonces();
  faults_.Clear();
  throttle_.Clear();
  counter_.Clear();
  {
    std::lock_guard lock(metadataMutex);
    metadataTokens.clear();
  }
  store_.Notify();
  return "";
}

}  // namespace hxsim::server
