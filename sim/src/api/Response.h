// Response bodies as ECS writes them: JSON by default, XML when Format=XML, success
// bodies carrying RequestId and no Code, error bodies carrying Code/Message/RequestId/
// HostId/Recommend.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace hxsim::api {

struct HttpReply {
  int status = 200;
  std::string contentType;
  std::string body;
};

// A fresh request id in the service's shape (uppercase UUID).
std::string NewRequestId();

// Adds RequestId to fields. The XML root is <ActionResponse>.
HttpReply SuccessReply(nlohmann::json fields, const std::string& requestId, const std::string& action, bool xml);
HttpReply ErrorReply(int status, const std::string& code, const std::string& message, const std::string& requestId,
                     const std::string& hostId, bool xml);

// Converts the JSON shape of a response into ECS's XML: objects become elements, and an
// array under key K becomes repeated <K> elements ({"Disks":{"Disk":[a,b]}} gives
// <Disks><Disk>a</Disk><Disk>b</Disk></Disks>).
std::string JsonToXml(const nlohmann::json& value, const std::string& root);

}  // namespace hxsim::api
