// DescribeInstanceAttribute and ModifyInstanceAttribute.
//
// Decisions where the service's documentation is silent:
// - DescribeInstanceAttribute answers DescribeInstances' fields for the instance, flat,
//   without the ones only the list carries (tags, network interfaces, OS fields).
// - ModifyInstanceAttribute changes InstanceName, HostName and Description. A Password is
//   checked against ECS's rule and then discarded (the emulator keeps no secret);
//   UserData is checked for size only. SecurityGroupIds is not modelled and refused with
//   InvalidParameter, so a client never believes a change happened that did not.
#include <algorithm>
#include <cctype>

#include "actions/Registry.h"
#include "model/Render.h"

namespace hxsim::actions {

using api::BadRequest;
using nlohmann::json;

namespace {

json DescribeInstanceAttribute(Context& ctx) {
  const auto& inst = ctx.store.InstanceOrThrow(ctx.params.Required("InstanceId"), OptionalRegion(ctx));
  json out = model::RenderInstance(ctx.store, inst);
  for (const char* listOnly : {"Tags", "NetworkInterfaces", "OSName", "OSType", "InstanceTypeFamily", "HostName"}) {
    out.erase(listOnly);
  }
  out["HostName"] = inst.hostName;
  out["InnerIpAddress"] = {{"IpAddress", json::array()}};
  out["EipAddress"] = {{"AllocationId", ""}, {"IpAddress", ""}, {"InternetChargeType", ""}};
  return out;
}

// 8-30 characters with at least three of: upper case, lower case, digits, specials.
void CheckPassword(const std::string& password) {
  const std::string specials = "()`~!@#$%^&*-_+=|{}[]:;'<>,.?/";
  bool upper = false, lower = false, digit = false, special = false, other = false;
  for (char c : password) {
    if (c >= 'A' && c <= 'Z') upper = true;
    else if (c >= 'a' && c <= 'z') lower = true;
    else if (c >= '0' && c <= '9') digit = true;
    else if (specials.find(c) != std::string::npos) special = true;
    else other = true;
  }
  const int kinds = upper + lower + digit + special;
  if (password.size() < 8 || password.size() > 30 || kinds < 3 || other) {
    throw BadRequest("InvalidPassword.Malformed", "The specified parameter \"Password\" is not valid.");
  }
}

// 2-64 characters: dot-separated labels of letters, digits and '-', no empty label, no
// label starting or ending with '-'.
void CheckHostName(const std::string& host) {
  bool ok = host.size() >= 2 && host.size() <= 64;
  size_t start = 0;
  while (ok && start <= host.size()) {
    const size_t end = std::min(host.find('.', start), host.size());
    const std::string label = host.substr(start, end - start);
    ok = !label.empty() && label.front() != '-' && label.back() != '-';
    for (char c : label) ok = ok && (std::isalnum(static_cast<unsigned char>(c)) || c == '-');
    start = end + 1;
  }
  if (!ok) throw BadRequest("InvalidHostName.Malformed", "The specified parameter \"HostName\" is not valid.");
}

json ModifyInstanceAttribute(Context& ctx) {
  const auto& p = ctx.params;
  auto& inst = ctx.store.InstanceOrThrow(p.Required("InstanceId"), OptionalRegion(ctx));
  CheckNotLockedForSecurity(inst);
  const auto name = p.Get("InstanceName");
  const auto host = p.Get("HostName");
  const auto description = p.Get("Description");
  if (name) CheckName(*name, "InvalidInstanceName.Malformed", false);
  if (host) CheckHostName(*host);
  if (description && (description->size() > 256 || description->rfind("http://", 0) == 0 ||
                      description->rfind("https://", 0) == 0)) {
    throw BadRequest("InvalidDescription.Malformed", "The specified parameter \"Description\" is not valid.");
  }
  if (const auto password = p.Get("Password")) {
    CheckPassword(*password);
    if (inst.status == "Starting") throw api::IncorrectInstanceStatus();
  }
  if (const auto userData = p.Get("UserData"); userData && userData->size() > 32768) {
    throw BadRequest("InvalidUserData.SizeExceeded", "The specified parameter \"UserData\" exceeds the size limit.");
  }
  if (p.Has("SecurityGroupIds.1")) throw api::InvalidParameter("SecurityGroupIds");
  FinishDryRun(ctx);
  if (name) inst.name = *name;
  if (host) inst.hostName = *host;
  if (description) inst.description = *description;
  return json::object();
}

}  // namespace

void RegisterInstanceAttributeActions(HandlerMap& map) {
  map["DescribeInstanceAttribute"] = DescribeInstanceAttribute;
  map["ModifyInstanceAttribute"] = ModifyInstanceAttribute;
}

}  // namespace hxsim::actions
