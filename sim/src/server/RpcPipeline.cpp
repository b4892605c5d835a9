#include "server/RpcPipeline.h"

#include "actions/Registry.h"
#include "server/Sts.h"

namespace hxsim::server {

namespace {

std::optional<std::string> Header(const sig::HeaderMap& headers, const std::string& name) {
  auto it = headers.find(name);
  if (it == headers.end()) return std::nullopt;
  return it->second;
}

api::Params ParseParams(const RawRequest& request) {
  api::Params params;
  for (auto& [k, v] : enc::ParseQuery(request.query)) params.AddQuery(k, v);
  auto type = Header(request.headers, "content-type");
  if (type && enc::ToLower(*type).rfind("application/x-www-form-urlencoded", 0) == 0) {
    for (auto& [k, v] : enc::ParseQuery(request.body)) params.AddBody(k, v);
  }
  return params;
}

// Fault requested by the request itself through x-hxsim-* headers.
faults::Decision HeaderFault(const sig::HeaderMap& headers) {
  faults::Decision decision;
  if (auto fault = Header(headers, "x-hxsim-fault")) {
    if (*fault == "drop") {
      decision.drop = true;
    } else {
      int status = 0;
      if (auto s = Header(headers, "x-hxsim-fault-status")) status = std::atoi(s->c_str());
      decision.error = faults::Faults::MakeError(*fault, status, "");
    }
  }
  if (auto latency = Header(headers, "x-hxsim-latency-ms")) {
    decision.latency = std::chrono::milliseconds(std::max(0, std::atoi(latency->c_str())));
  }
  return decision;
}

}  // namespace

namespace {

// Checks version, signature and injected faults, then runs the action; fills
// outcome.latency/drop and returns the response fields. Throws api::ApiError.
nlohmann::json Dispatch(World& world, const RawRequest& request, const api::Params& params, RpcOutcome& outcome) {
  const std::string version = params.GetOr("Version", Header(request.headers, "x-acs-version").value_or(""));
  if (outcome.action.empty()) throw api::MissingParameter("Action");
  if (version.empty()) throw api::MissingParameter("Version");
  const bool sts = IsStsAction(outcome.action);
  if (version != (sts ? kStsVersion : kApiVersion)) {
    throw api::BadRequest("InvalidVersion", "Specified parameter Version is not valid.");
  }
  const auto& handlers = actions::Handlers();
  auto handler = handlers.find(outcome.action);
  if (!sts && handler == handlers.end()) {
    throw api::NotFound("InvalidAction.NotFound", "Specified api is not found, please check your url and method.");
  }

  std::string caller;
  if (!(sts && IsAnonymousStsAction(outcome.action))) {
    api::RequestView view{request.method, request.path.empty() ? "/" : request.path, &params, &request.headers,
                          &request.body};
    caller = world.auth().Verify(view, world.clock().WallNow()).accessKeyId;
  }

  if (auto refused = world.throttle().Admit(outcome.action)) throw *refused;
  faults::Decision fault = HeaderFault(request.headers);
  faults::Decision ruled = world.faults().Decide(outcome.action);
  outcome.latency = fault.latency + ruled.latency;
  outcome.drop = fault.drop || ruled.drop;
  if (fault.error) throw *fault.error;
  if (ruled.error) throw *ruled.error;

  if (sts) return HandleSts(world, outcome.action, params, caller);
  auto lock = world.store().Lock();
  world.store().Advance();
  actions::Context ctx{world.store(), world.faults(), params, outcome.action};
  return handler->second(ctx);
}

}  // namespace

RpcOutcome HandleRpc(World& world, const RawRequest& request) {
  const auto started = std::chrono::steady_clock::now();
  RpcOutcome outcome;
  const std::string requestId = api::NewRequestId();
  api::Params params = ParseParams(request);
  const bool xml = enc::ToLower(params.GetOr("Format", "JSON")) == "xml";
  const std::string region = params.GetOr("RegionId", "");
  const std::string hostId = region.empty() ? "ecs.aliyuncs.com" : "ecs." + region + ".aliyuncs.com";

  try {
    outcome.action = params.GetOr("Action", Header(request.headers, "x-acs-action").value_or(""));
    nlohmann::json result = Dispatch(world, request, params, outcome);
    outcome.reply = api::SuccessReply(std::move(result), requestId, outcome.action, xml);
  } catch (const api::ApiError& e) {
    outcome.reply = api::ErrorReply(e.status, e.code, e.message, requestId, hostId, xml);
  } catch (const std::exception& e) {
    outcome.reply = api::ErrorReply(500, "InternalError",
                                    std::string("The request processing has failed due to some unknown error. (") +
                                        e.what() + ")",
                                    requestId, hostId, xml);
  }
  if (!outcome.action.empty()) world.counter().Record(outcome.action, outcome.reply.status >= 400);
  if (const auto& log = world.config().requestLog) {
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
    std::string code = "OK";
    if (outcome.reply.status >= 400) {
      auto body = nlohmann::json::parse(outcome.reply.body, nullptr, false);
      code = body.is_object() ? body.value("Code", "?") : "?";
    }
    log((outcome.action.empty() ? "-" : outcome.action) + " " + std::to_string(outcome.reply.status) + " " + code +
        " " + std::to_string(ms.count()) + "ms" + (outcome.drop ? " (dropped)" : ""));
  }
  return outcome;
}

}  // namespace hxsim::server
