#include "server/Metadata.h"

#include <random>

#include "model/Render.h"

namespace hxsim::server {

namespace {

api::HttpReply Text(int status, const std::string& body) { return {status, "text/plain", body}; }

std::string NewToken() {
  thread_local std::mt19937_64 rng{std::random_device{}()};
  static constexpr char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::string token;
  for (int i = 0; i < 56; ++i) token += kChars[rng() % 62];
  return token + "==";
}

// The proxy's RAM role: its name at the folder, fresh temporary credentials at the role.
// Every fetch hands out new credentials with a full life; the real service rotates them
// on its own schedule, which a client must not depend on either way.
api::HttpReply RamRoleCredentials(World& world, const std::string& role) {
  const std::string& attached = world.config().ramRoleName;
  if (attached.empty()) return Text(404, "Not Found");
  if (role.empty()) return Text(200, attached);
  if (role != attached) return Text(404, "Not Found");
  api::AccessKey key = world.IssueTemporaryKey(world.config().roleCredentialSeconds);
  nlohmann::json doc = {{"AccessKeyId", key.id},
                        {"AccessKeySecret", key.secret},
                        {"SecurityToken", key.securityToken},
                        {"Expiration", timefmt::Iso8601(*key.expiration, true)},
                        {"LastUpdated", timefmt::Iso8601(world.clock().WallNow(), true)},
                        {"Code", "Success"}};
  return {200, "text/plain", doc.dump()};
}

}  // namespace

api::HttpReply HandleMetadata(World& world, const std::string& method, const std::string& path,
                              const sig::HeaderMap& headers) {
  const auto now = world.clock().Now();
  if (path == "/latest/api/token") {
    if (method != "PUT") return Text(405, "Method Not Allowed");
    auto ttl = headers.find("x-aliyun-ecs-metadata-token-ttl-seconds");
    int seconds = ttl == headers.end() ? 0 : std::atoi(ttl->second.c_str());
    if (seconds < 1 || seconds > 21600) return Text(400, "Bad Request");
    std::string token = NewToken();
    std::lock_guard lock(world.metadataMutex);
    // Expiry uses real time: token lifetimes are a client concern, not a transition.
    world.metadataTokens[token] = now + std::chrono::seconds(seconds);
    return Text(200, token);
  }
  if (method != "GET") return Text(405, "Method Not Allowed");

  auto presented = headers.find("x-aliyun-ecs-metadata-token");
  if (presented != headers.end()) {
    std::lock_guard lock(world.metadataMutex);
    auto it = world.metadataTokens.find(presented->second);
    if (it == world.metadataTokens.end() || it->second < now) return Text(401, "Unauthorized");
  } else if (world.metadataTokenRequired) {
    return Text(401, "Unauthorized");
  }

  constexpr std::string_view kRamPrefix = "/latest/meta-data/ram/security-credentials/";
  if (path.rfind(kRamPrefix, 0) == 0) return RamRoleCredentials(world, path.substr(kRamPrefix.size()));

  auto lock = world.store().Lock();
  auto& store = world.store();
  auto inst = store.instances.find(store.proxyInstanceId);
  if (inst == store.instances.end()) return Text(404, "Not Found");
  const model::Instance& i = inst->second;

  if (path == "/latest/meta-data/instance-id") return Text(200, i.id);
  if (path == "/latest/meta-data/region-id") return Text(200, i.regionId);
  if (path == "/latest/meta-data/zone-id") return Text(200, i.zoneId);
  if (path == "/latest/meta-data/hostname") return Text(200, i.hostName);
  if (path == "/latest/meta-data/instance/instance-type") return Text(200, i.instanceType);
  if (path == "/latest/meta-data/serial-number") return Text(200, i.serialNumber);
  if (path == "/latest/meta-data/private-ipv4") return Text(200, i.privateIp);
  if (path == "/latest/meta-data/image-id") return Text(200, i.imageId);
  if (path == "/latest/meta-data/vpc-id") return Text(200, i.vpcId);
  if (path == "/latest/meta-data/vswitch-id") return Text(200, i.vswitchId);
  if (path == "/latest/meta-data" || path == "/latest/meta-data/") {
    return Text(200,
                "hostname\nimage-id\ninstance/\ninstance-id\nprivate-ipv4\nregion-id\nserial-number\nvpc-id\n"
                "vswitch-id\nzone-id");
  }
  if (path == "/latest/dynamic/instance-identity/document") {
    nlohmann::json doc = {{"instance-id", i.id},
                          {"region-id", i.regionId},
                          {"zone-id", i.zoneId},
                          {"instance-type", i.instanceType},
                          {"image-id", i.imageId},
                          {"serial-number", i.serialNumber},
                          {"private-ipv4", i.privateIp},
                          {"owner-account-id", "1234567890123456"},
                          {"mac", "00:16:3e:00:00:01"}};
    return {200, "application/json", doc.dump()};
  }
  return Text(404, "Not Found");
}

}  // namespace hxsim::server
