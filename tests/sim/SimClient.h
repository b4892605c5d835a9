// Test-side client for a running emulator: signs ECS RPC calls (V2 by default, V3 on
// request) with httplib, and reaches the control and metadata endpoints.
#pragma once

#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "hxsim/Emulator.h"

namespace hxsim::test {

struct Reply {
  int status = 0;  // 0 when the transport failed (e.g. a dropped response)
  nlohmann::json body;
  std::string raw;
  std::string code() const { return body.is_object() ? body.value("Code", "") : ""; }
};

using ParamMap = std::map<std::string, std::string>;

class SimClient {
 public:
  SimClient(const Emulator& emulator);
  SimClient(const std::string& host, int port, Credentials credentials);

  // V2-signed RPC call; GET puts everything in the query, POST in a form body.
  Reply Call(const std::string& action, ParamMap params, const std::string& method = "GET",
             const std::map<std::string, std::string>& headers = {});
  // V3-signed RPC call (POST, parameters in the query, empty body), like the official SDK.
  Reply CallV3(const std::string& action, ParamMap params, const std::map<std::string, std::string>& extraHeaders = {});
  // Unsigned request, for protocol edge cases.
  Reply Raw(const std::string& method, const std::string& target, const std::map<std::string, std::string>& headers = {},
            const std::string& body = "", const std::string& contentType = "");

  nlohmann::json Control(const std::string& method, const std::string& path, const nlohmann::json& body = nullptr);

  // Polls Describe* until the resource reaches `status`; returns its last description.
  nlohmann::json WaitDisk(const std::string& region, const std::string& diskId, const std::string& status,
                          std::chrono::milliseconds timeout = std::chrono::seconds(10));
  nlohmann::json WaitSnapshot(const std::string& region, const std::string& snapshotId, const std::string& status,
                              std::chrono::milliseconds timeout = std::chrono::seconds(10));
  nlohmann::json Disk(const std::string& region, const std::string& diskId);

  Credentials& credentials() { return credentials_; }

 private:
  std::string host_;
  int port_;
  Credentials credentials_;
};

std::string Nonce();

}  // namespace hxsim::test
