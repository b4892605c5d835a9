// Fault injection, for testing how clients cope with a misbehaving cloud.
//
// Rules (JSON, POSTed to /_sim/faults; each names an action or "*" for all):
//   {"action":"AttachDisk","failNext":2,"code":"Throttling.User"}  fail the next 2 calls
//   {"action":"*","rate":0.1,"code":"ServiceUnavailable"}          fail 10% (seeded RNG)
//   {"action":"DescribeDisks","forMs":500,"code":"Throttling.User"} fail every call for 500 ms
//   {"action":"CreateDisk","dropNext":1}   perform the call, then drop the response
//   {"action":"*","latencyMs":200}          delay every answer by 200 ms (real time)
//   {"action":"DescribeDisks","failAfter":"CreateDisk","code":"Forbidden.RAM"}
//                                           after every CreateDisk, fail the next DescribeDisks
//                                           once (a failed status poll inside each wait)
// Optional per rule: "status" (HTTP status; default from the code) and "message".
// A body may also carry "seed" (reseeds the RNG) and "stallSnapshots": N (the next N
// snapshots stay progressing forever).
//
// A single request can ask for a fault itself with headers (not part of any signature):
//   x-hxsim-fault: <Code> | drop    x-hxsim-fault-status: <HTTP status>
//   x-hxsim-latency-ms: <ms>
//
// Thread-safe. Faults are checked after authentication, so a rule never hides a
// signature error.
#pragma once

#include <chrono>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "api/ApiError.h"

namespace hxsim::faults {

struct Decision {
  std::optional<api::ApiError> error;  // answer with this instead of running the action
  bool drop = false;                   // run the action, then drop the connection unanswered
  std::chrono::milliseconds latency{0};
};

class Faults {
 public:
  explicit Faults(uint64_t seed) : rng_(seed) {}

  // Adds the rules of a control request. Returns an error text for a malformed body
  // (nothing is added then), empty on success.
  std::string Add(const nlohmann::json& body);
  void Clear();
  nlohmann::json Describe() const;

  // The fault (if any) for one call of `action`; consumes "next N" counters.
  Decision Decide(const std::string& action);
  // True when the snapshot being created now must never complete.
  bool TakeSnapshotStall();

  // The error an injected code produces (standard message and status unless given).
  static api::ApiError MakeError(const std::string& code, int status, const std::string& message);

 private:
  struct Rule {
    std::string action;
    std::string kind;  // failNext | rate | forMs | dropNext | latencyMs | failAfter
    std::string trigger;  // failAfter: the action whose calls arm this rule
    int64_t remaining = 0;  // failNext/dropNext: calls left; failAfter: failures armed
    double rate = 0;
    std::chrono::steady_clock::time_point until{};
    int64_t latencyMs = 0;
    std::string code;
    int status = 0;
    std::string message;
  };

  mutable std::mutex mutex_;
  std::vector<Rule> rules_;
  std::mt19937_64 rng_;
  int64_t stallSnapshots_ = 0;
};

}  // namespace hxsim::faults
