// JoinSecurityGroup, LeaveSecurityGroup: an instance's membership of security groups.
//
// Checks in the order ECS documents them: the instance, then the group (404 for either
// unknown), the security lock, the status (Stopped or Running only), then the
// membership rules. An instance is in one to five groups, all of its own VPC.
//
// Decisions where the service's documentation is silent:
// - NetworkInterfaceId: the emulator has no elastic network interfaces, so any id given
//   is unknown (InvalidNetworkInterfaceId.NotFound); with InstanceId as well it is
//   InvalidParameter, the two being exclusive.
// - Leaving a group the instance is not in answers InvalidSecurityGroupAssociation.NotFound
//   (the code ECS has used since July 2024) with status 404.
#include <algorithm>

#include "actions/Registry.h"

namespace hxsim::actions {

using api::BadRequest;
using api::Forbidden;
using nlohmann::json;

namespace {

constexpr size_t kMaxGroupsPerInstance = 5;

// The instance and group a membership request names, checked up to the status.
struct Membership {
  model::Instance* instance = nullptr;
  const model::SecurityGroup* group = nullptr;
};

Membership Resolve(Context& ctx) {
  const auto& p = ctx.params;
  const std::string region = OptionalRegion(ctx);
  const std::string groupId = p.GetOr("SecurityGroupId", "");
  const std::string instanceId = p.GetOr("InstanceId", "");
  const std::string eniId = p.GetOr("NetworkInterfaceId", "");
  if (groupId.empty()) throw MissingInput("SecurityGroupId");
  if (!instanceId.empty() && !eniId.empty()) {
    throw api::InvalidParameter("NetworkInterfaceId", "InstanceId and NetworkInterfaceId cannot be given together.");
  }
  if (!eniId.empty()) {
    throw api::NotFound("InvalidNetworkInterfaceId.NotFound", "The specified network interface does not exist.");
  }
  if (instanceId.empty()) throw MissingInput("InstanceId");

  Membership m;
  m.instance = &ctx.store.InstanceOrThrow(instanceId, region);
  m.group = &ctx.store.SecurityGroupOrThrow(groupId, m.instance->regionId);
  CheckNotLockedForSecurity(*m.instance);
  if (m.instance->status != "Stopped" && m.instance->status != "Running") throw api::IncorrectInstanceStatus();
  return m;
}

json JoinSecurityGroup(Context& ctx) {
  Membership m = Resolve(ctx);
  auto& groups = m.instance->securityGroupIds;
  if (m.group->vpcId != m.instance->vpcId) {
    throw BadRequest("InvalidInstanceId.Mismatch", "Specified instance and security group are not in the same VPC.");
  }
  if (Contains(groups, m.group->id)) {
    throw Forbidden("InvalidInstanceId.AlreadyExists", "The specified instance already exists in the specified "
                                                       "security group.");
  }
  if (groups.size() >= kMaxGroupsPerInstance) {
    throw BadRequest("InstanceSecurityGroupLimitExceeded", "Exceeding the allowed amount of security groups that an "
                                                           "instance can be in.");
  }
  FinishDryRun(ctx);
  groups.push_back(m.group->id);
  return json::object();
}

json LeaveSecurityGroup(Context& ctx) {
  Membership m = Resolve(ctx);
  auto& groups = m.instance->securityGroupIds;
  auto it = std::find(groups.begin(), groups.end(), m.group->id);
  if (it == groups.end()) {
    throw api::NotFound("InvalidSecurityGroupAssociation.NotFound", "The specified instance is not in the specified "
                                                                    "security group.");
  }
  if (groups.size() == 1) {
    throw Forbidden("InstanceLastSecurityGroup", "The specified security group is the last security group for the "
                                                 "instance.");
  }
  FinishDryRun(ctx);
  groups.erase(it);
  return json::object();
}

}  // namespace

void RegisterSecurityGroupActions(HandlerMap& map) {
  map["JoinSecurityGroup"] = JoinSecurityGroup;
  map["LeaveSecurityGroup"] = LeaveSecurityGroup;
}

}  // namespace hxsim::actions
