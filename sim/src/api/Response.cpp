#include "api/Response.h"

#include <random>

namespace hxsim::api {

std::string NewRequestId() {
  thread_local std::mt19937_64 rng{std::random_device{}()};
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string id;
  for (int i = 0; i < 32; ++i) {
    if (i == 8 || i == 12 || i == 16 || i == 20) id += '-';
    id += kHex[rng() & 0xF];
  }
  return id;
}

namespace {
std::string EscapeXml(const std::string& s) {
  std::string out;
  for (char c : s) {
    switch (c) {
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '&': out += "&amp;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

void AppendXml(std::string& out, const std::string& name, const nlohmann::json& value) {
  if (value.is_array()) {
    for (const auto& item : value) AppendXml(out, name, item);
    return;
  }
  out += "<" + name + ">";
  if (value.is_object()) {
    for (auto it = value.begin(); it != value.end(); ++it) AppendXml(out, it.key(), it.value());
  } else if (value.is_string()) {
    out += EscapeXml(value.get<std::string>());
  } else if (!value.is_null()) {
    out += value.dump();
  }
  out += "</" + name + ">";
}
}  // namespace

std::string JsonToXml(const nlohmann::json& value, const std::string& root) {
  std::string out = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
  AppendXml(out, root, value);
  return out;
}

HttpReply SuccessReply(nlohmann::json fields, const std::string& requestId, const std::string& action, bool xml) {
  fields["RequestId"] = requestId;
  if (xml) return {200, "text/xml;charset=utf-8", JsonToXml(fields, action + "Response")};
  return {200, "application/json;charset=utf-8", fields.dump()};
}

HttpReply ErrorReply(int status, const std::string& code, const std::string& message, const std::string& requestId,
                     const std::string& hostId, bool xml) {
  nlohmann::json body = {
      {"RequestId", requestId},
      {"HostId", hostId},
      {"Code", code},
      {"Message", message},
      {"Recommend", "https://api.aliyun.com/troubleshoot?q=" + code + "&product=Ecs&requestId=" + requestId},
  };
  if (xml) return {status, "text/xml;charset=utf-8", JsonToXml(body, "Error")};
  return {status, "application/json;charset=utf-8", body.dump()};
}

}  // namespace hxsim::api
