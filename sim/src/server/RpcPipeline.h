// One ECS RPC request from raw HTTP parts to the reply: parameter merging, Action and
// Version checks, authentication, call counting, fault injection, the action handler
// (under the store lock) and the error mapping. No sockets here, so it is testable
// directly; Server adds the transport.
#pragma once

#include <chrono>
#include <string>

#include "api/Response.h"
#include "api/Signature.h"
#include "server/World.h"

namespace hxsim::server {

constexpr char kApiVersion[] = "2014-05-26";

struct RawRequest {
  std::string method;  // GET, POST
  std::string path;    // "/" for RPC
  std::string query;   // raw query string, without '?'
  sig::HeaderMap headers;  // lowercase names
  std::string body;
};

struct RpcOutcome {
  api::HttpReply reply;
  std::string action;  // empty when the request named none
  bool drop = false;   // the transport must close the connection without answering
  std::chrono::milliseconds latency{0};  // the transport waits this long before answering
};

RpcOutcome HandleRpc(World& world, const RawRequest& request);

}  // namespace hxsim::server
