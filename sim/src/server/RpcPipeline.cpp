#include "server/RpcPipeline.h"

#include "actions/Registry.h"

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
    const std::string version = params.GetOr("Version", Header(request.headers, "x-acs-version").value_or(""));
    if (outcome.action.empty()) throw api::MissingParameter("Action");
    if (version.empty()) throw api::MissingParameter("Version");
    if (version != kApiVersion) throw api::BadRequest("InvalidVersion", "Specified parameter Version is not valid.");
    const auto& handlers = actions::Handlers();
    auto handler = handlers.find(outcome.action);
    if (handler == handlers.end()) {
      throw api::NotFound("InvalidAction.NotFound", "Specified api is not found, please check your url and method.");
    }

    api::RequestView view{request.method, request.path.empty() ? "/" : request.path, &params, &request.headers,
                          &request.body};
    world.auth().Verify(view, world.clock().WallNow());

    faults::Decision fault = HeaderFault(request.headers);
    faults::Decision ruled = world.faults().Decide(outcome.action);
    outcome.latency = fault.latency + ruled.latency;
    outcome.drop = fault.drop || ruled.drop;
    if (fault.error) throw *fault.error;
    if (ruled.error) throw *ruled.error;

    nlohmann::json result;
    {
      auto lock = world.store().Lock();
      world.store().Advance();
      actions::Context ctx{world.store(), world.faults(), params, outcome.action};
      result = handler->second(ctx);
    }
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
