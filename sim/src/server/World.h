// Everything one emulator run owns, wired together: clock, data plane, store,
// authenticator, faults, call counters and the scenario it started from. The HTTP
// layer (Server) and the request handlers (RpcPipeline, Metadata, Control) work on it.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "api/Auth.h"
#include "data/DataPlane.h"
#include "faults/Faults.h"
#include "model/Clock.h"
#include "model/Store.h"
#include "scenario/Scenario.h"
#include "server/Throttle.h"

namespace hxsim::server {

// Calls per action, for benchmarks and leak checks. Thread-safe.
class CallCounter {
 public:
  void Record(const std::string& action, bool failed);
  nlohmann::json Snapshot() const;  // {"total":N,"actions":{"X":{"calls":N,"errors":M}}}
  void Clear();

 private:
  mutable std::mutex mutex_;
  std::map<std::string, std::pair<uint64_t, uint64_t>> counts_;
};

struct WorldConfig {
  std::filesystem::path stateDir;
  std::filesystem::path deviceRoot;
  double timeScale = 1.0;
  uint64_t seed = 1;
  scenario::Scenario scenario;
  std::function<void(const std::string&)> requestLog;  // may be empty; thread-safe
  std::string ramRoleName;            // the proxy's RAM role; empty = none
  double roleCredentialSeconds = 3600;  // at scale 1
};

class World {
 public:
  explicit World(WorldConfig config);

  // Rebuilds the state from the scenario: wipes the emulator's folders, recreates every
  // disk file and device link, forgets nonces, faults and ClientTokens. Returns an
  // error text, empty on success. Takes the store lock itself.
  std::string Reset();

  const WorldConfig& config() const { return config_; }
  model::Clock& clock() { return clock_; }
  data::DataPlane& dataPlane() { return dataPlane_; }
  model::Store& store() { return store_; }
  api::Authenticator& auth() { return auth_; }
  faults::Faults& faults() { return faults_; }
  CallCounter& counter() { return counter_; }
  Throttle& throttle() { return throttle_; }

  // "http://127.0.0.1:<port>", set once the server listens; guarded by the store lock.
  std::string endpoint;

  // Metadata-service tokens (PUT /latest/api/token): token -> expiry.
  std::mutex metadataMutex;
  std::map<std::string, model::SteadyTime> metadataTokens;
  std::atomic<bool> metadataTokenRequired{false};

  // New temporary credentials that the authenticator accepts until `seconds` (at scale
  // 1, stretched by the time scale) have passed. Counted in credentialsIssued.
  api::AccessKey IssueTemporaryKey(double seconds);
  std::atomic<int> credentialsIssued{0};

 private:
  WorldConfig config_;
  model::Clock clock_;
  data::DataPlane dataPlane_;
  model::Store store_;
  api::Authenticator auth_;
  faults::Faults faults_;
  CallCounter counter_;
  Throttle throttle_{clock_};
};

}  // namespace hxsim::server
