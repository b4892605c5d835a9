#include "faults/Faults.h"

namespace hxsim::faults {

using nlohmann::json;

api::ApiError Faults::MakeError(const std::string& code, int status, const std::string& message) {
  std::string text = message;
  if (text.empty()) {
    if (code.rfind("Throttling", 0) == 0) {
      text = "Request was denied due to user flow control.";
    } else if (code == "InternalError") {
      text = "The request processing has failed due to some unknown error, exception or failure.";
    } else if (code == "ServiceUnavailable") {
      text = "The request has failed due to a temporary failure of the server.";
    } else {
      text = "The request has failed (injected fault).";
    }
  }
  return api::ApiError(status > 0 ? status : api::DefaultStatusForCode(code), code, text);
}

std::string Faults::Add(const json& body) {
  if (!body.is_object()) return "body must be a JSON object";
  std::vector<Rule> added;
  try {
    for (const auto& r : body.value("rules", json::array())) {
      Rule rule;
      rule.action = r.value("action", "*");
      rule.code = r.value("code", "InternalError");
      rule.status = r.value("status", 0);
      rule.message = r.value("message", "");
      int kinds = 0;
      if (r.contains("failNext")) {
        rule.kind = "failNext";
        rule.remaining = r.at("failNext").get<int64_t>();
        ++kinds;
      }
      if (r.contains("rate")) {
        rule.kind = "rate";
        rule.rate = r.at("rate").get<double>();
        if (rule.rate < 0 || rule.rate > 1) return "rate must be within [0, 1]";
        ++kinds;
      }
      if (r.contains("forMs")) {
        rule.kind = "forMs";
        rule.until = std::chrono::steady_clock::now() + std::chrono::milliseconds(r.at("forMs").get<int64_t>());
        ++kinds;
      }
      if (r.contains("dropNext")) {
        rule.kind = "dropNext";
        rule.remaining = r.at("dropNext").get<int64_t>();
        ++kinds;
      }
      if (r.contains("latencyMs")) {
        rule.kind = "latencyMs";
        rule.latencyMs = r.at("latencyMs").get<int64_t>();
        ++kinds;
      }
      if (r.contains("failAfter")) {
        rule.kind = "failAfter";
        rule.trigger = r.at("failAfter").get<std::string>();
        if (rule.trigger.empty() || rule.action == "*") return "failAfter needs an action and a trigger action";
        ++kinds;
      }
      if (kinds != 1) return "each rule needs exactly one of failNext, rate, forMs, dropNext, latencyMs, failAfter";
      added.push_back(rule);
    }
    std::lock_guard lock(mutex_);
    if (body.contains("seed")) rng_.seed(body.at("seed").get<uint64_t>());
    if (body.contains("stallSnapshots")) stallSnapshots_ += body.at("stallSnapshots").get<int64_t>();
    rules_.insert(rules_.end(), added.begin(), added.end());
  } catch (const std::exception& e) {
    return std::string("malformed fault rule: ") + e.what();
  }
  return "";
}

void Faults::Clear() {
  std::lock_guard lock(mutex_);
  rules_.clear();
  stallSnapshots_ = 0;
}

json Faults::Describe() const {
  std::lock_guard lock(mutex_);
  json rules = json::array();
  for (const auto& r : rules_) {
    json j = {{"action", r.action}, {"kind", r.kind}};
    if (r.kind == "failNext" || r.kind == "dropNext") j["remaining"] = r.remaining;
    if (r.kind == "failAfter") j["failAfter"] = r.trigger, j["armed"] = r.remaining;
    if (r.kind == "rate") j["rate"] = r.rate;
    if (r.kind == "latencyMs") j["latencyMs"] = r.latencyMs;
    if (r.kind != "dropNext" && r.kind != "latencyMs") j["code"] = r.code;
    rules.push_back(j);
  }
  return {{"rules", rules}, {"stallSnapshots", stallSnapshots_}};
}

Decision Faults::Decide(const std::string& action) {
  std::lock_guard lock(mutex_);
  Decision decision;
  const auto now = std::chrono::steady_clock::now();
  for (auto& r : rules_) {
    if (r.kind == "failAfter" && r.trigger == action) ++r.remaining;  // arms the next call of r.action
    if (r.action != "*" && r.action != action) continue;
    if (r.kind == "latencyMs") {
      decision.latency += std::chrono::milliseconds(r.latencyMs);
    } else if (r.kind == "dropNext") {
      if (r.remaining > 0 && !decision.drop && !decision.error) {
        --r.remaining;
        decision.drop = true;
      }
    } else if (decision.error || decision.drop) {
      continue;  // one failure per call; later rules keep their counters
    } else if ((r.kind == "failNext" || r.kind == "failAfter") && r.remaining > 0) {
      --r.remaining;
      decision.error = MakeError(r.code, r.status, r.message);
    } else if (r.kind == "forMs" && now < r.until) {
      decision.error = MakeError(r.code, r.status, r.message);
    } else if (r.kind == "rate" && std::uniform_real_distribution<double>(0, 1)(rng_) < r.rate) {
      decision.error = MakeError(r.code, r.status, r.message);
    }
  }
  // Spent one-shot rules disappear so that Describe shows what is still armed.
  std::erase_if(rules_, [&](const Rule& r) {
    return ((r.kind == "failNext" || r.kind == "dropNext") && r.remaining <= 0) || (r.kind == "forMs" && now >= r.until);
  });
  return decision;
}

bool Faults::TakeSnapshotStall() {
  std::lock_guard lock(mutex_);
  if (stallSnapshots_ <= 0) return false;
  --stallSnapshots_;
  return true;
}

}  // namespace hxsim::faults
