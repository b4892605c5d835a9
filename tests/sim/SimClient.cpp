#include "SimClient.h"

#include <httplib.h>

#include <random>
#include <thread>

#include "api/Signature.h"
#include "util/Crypto.h"
#include "util/Time.h"

namespace hxsim::test {

using nlohmann::json;

std::string Nonce() {
  static std::mt19937_64 rng{std::random_device{}()};
  static std::mutex mutex;
  std::lock_guard lock(mutex);
  return crypto::Hex(std::to_string(rng()) + std::to_string(rng()));
}

namespace {

Reply ToReply(const httplib::Result& result) {
  Reply reply;
  if (!result) return reply;
  reply.status = result->status;
  reply.raw = result->body;
  reply.body = json::parse(result->body, nullptr, false);
  return reply;
}

std::string Encode(const ParamMap& params) {
  std::string out;
  for (const auto& [k, v] : params) {
    if (!out.empty()) out += '&';
    out += enc::PercentEncode(k) + "=" + enc::PercentEncode(v);
  }
  return out;
}

}  // namespace

SimClient::SimClient(const Emulator& emulator)
    : host_("127.0.0.1"), port_(emulator.Port()), credentials_(emulator.DemoCredentials()) {}

SimClient::SimClient(const std::string& host, int port, Credentials credentials)
    : host_(host), port_(port), credentials_(std::move(credentials)) {}

Reply SimClient::Call(const std::string& action, ParamMap params, const std::string& method,
                      const std::map<std::string, std::string>& headers) {
  params.emplace("Action", action);
  params.emplace("Version", "2014-05-26");
  params.emplace("Format", "JSON");
  params.emplace("AccessKeyId", credentials_.accessKeyId);
  params.emplace("SignatureMethod", "HMAC-SHA1");
  params.emplace("SignatureVersion", "1.0");
  params.emplace("SignatureNonce", Nonce());
  params.emplace("Timestamp", timefmt::Iso8601(std::chrono::system_clock::now()));
  if (!credentials_.securityToken.empty()) params.emplace("SecurityToken", credentials_.securityToken);
  enc::KeyValues kv(params.begin(), params.end());
  params["Signature"] = sig::V2Sign(credentials_.accessKeySecret, sig::V2StringToSign(method, kv));
  httplib::Client client(host_, port_);
  client.set_read_timeout(std::chrono::seconds(20));
  httplib::Headers h(headers.begin(), headers.end());
  if (method == "POST") return ToReply(client.Post("/", h, Encode(params), "application/x-www-form-urlencoded"));
  return ToReply(client.Get("/?" + Encode(params), h));
}

Reply SimClient::CallV3(const std::string& action, ParamMap params,
                        const std::map<std::string, std::string>& extraHeaders) {
  sig::HeaderMap headers = {
      {"host", host_ + ":" + std::to_string(port_)},
      {"x-acs-action", action},
      {"x-acs-version", "2014-05-26"},
      {"x-acs-date", timefmt::Iso8601(std::chrono::system_clock::now())},
      {"x-acs-signature-nonce", Nonce()},
      {"x-acs-content-sha256", crypto::Hex(crypto::Sha256(""))},
  };
  if (!credentials_.securityToken.empty()) headers.emplace("x-acs-security-token", credentials_.securityToken);
  for (const auto& [k, v] : extraHeaders) headers.emplace(k, v);
  std::vector<std::string> names;
  for (const auto& [k, v] : headers) names.push_back(k);
  enc::KeyValues query(params.begin(), params.end());
  std::string canonical = sig::V3CanonicalRequest("POST", "/", query, headers, names, headers.find("x-acs-content-sha256")->second);
  std::string signature = sig::V3Sign(credentials_.accessKeySecret, sig::V3StringToSign(canonical));
  std::string signedList;
  for (const auto& n : names) signedList += (signedList.empty() ? "" : ";") + n;
  httplib::Headers h;
  for (const auto& [k, v] : headers)
    if (k != "host") h.emplace(k, v);
  h.emplace("Authorization", "ACS3-HMAC-SHA256 Credential=" + credentials_.accessKeyId + ",SignedHeaders=" +
                                 signedList + ",Signature=" + signature);
  httplib::Client client(host_, port_);
  return ToReply(client.Post("/?" + Encode(params), h, "", ""));
}

Reply SimClient::Raw(const std::string& method, const std::string& target,
                     const std::map<std::string, std::string>& headers, const std::string& body,
                     const std::string& contentType) {
  httplib::Client client(host_, port_);
  httplib::Headers h(headers.begin(), headers.end());
  if (method == "GET") return ToReply(client.Get(target, h));
  if (method == "PUT") return ToReply(client.Put(target, h, body, contentType));
  if (method == "DELETE") return ToReply(client.Delete(target, h));
  return ToReply(client.Post(target, h, body, contentType));
}

json SimClient::Control(const std::string& method, const std::string& path, const json& body) {
  return Raw(method, path, {}, body.is_null() ? "" : body.dump(), "application/json").body;
}

json SimClient::Disk(const std::string& region, const std::string& diskId) {
  auto r = Call("DescribeDisks", {{"RegionId", region}, {"DiskIds", json::array({diskId}).dump()}});
  const auto& list = r.body["Disks"]["Disk"];
  return list.empty() ? json() : list[0];
}

json SimClient::WaitDisk(const std::string& region, const std::string& diskId, const std::string& status,
                         std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  json disk;
  do {
    disk = Disk(region, diskId);
    if (!disk.is_null() && disk["Status"] == status) return disk;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  } while (std::chrono::steady_clock::now() < deadline);
  return disk;
}

json SimClient::WaitSnapshot(const std::string& region, const std::string& snapshotId, const std::string& status,
                             std::chrono::milliseconds timeout) {
  auto deadline = std::chrono::steady_clock::now() + timeout;
  json snap;
  do {
    auto r = Call("DescribeSnapshots", {{"RegionId", region}, {"SnapshotIds", json::array({snapshotId}).dump()}});
    snap = r.body["Snapshots"]["Snapshot"].empty() ? json() : r.body["Snapshots"]["Snapshot"][0];
    if (!snap.is_null() && snap["Status"] == status) return snap;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  } while (std::chrono::steady_clock::now() < deadline);
  return snap;
}

}  // namespace hxsim::test
