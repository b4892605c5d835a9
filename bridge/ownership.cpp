#include "ownership.h"

#include <cstdlib>

#include "json_util.h"

namespace hxbridge {

namespace {
std::string Env(const char* name) {
    const char* v = std::getenv(name);
    return v == nullptr ? std::string() : std::string(v);
}
}  // namespace

JobLabel JobLabel::FromEnvironment() {
    JobLabel label;
    label.job = Env("ALIBABA_CLOUD_BRIDGE_JOB");
    label.owner = Env("ALIBABA_CLOUD_BRIDGE_JOB_OWNER");
    // ECS tag values hold at most 128 characters; a longer label is not ours to shorten.
    if (label.job.size() > 128 || label.owner.size() > 128 || label.job.empty() || label.owner.empty()) {
        label = JobLabel{};
    }
    return label;
}

std::map<std::string, std::string> TagsOf(const nlohmann::json& item) {
    std::map<std::string, std::string> tags;
    for (const auto& t : jv::WrappedList(item, "Tags", "Tag")) {
        const std::string key = jv::Str(t, "TagKey", jv::Str(t, "Key"));
        if (!key.empty()) tags[key] = jv::Str(t, "TagValue", jv::Str(t, "Value"));
    }
    return tags;
}

bool IsOwnedBy(const nlohmann::json& item, const std::string& proxyId) {
    const auto tags = TagsOf(item);
    auto creator = tags.find(kCreatedByTagKey);
    auto proxy = tags.find(kProxyTagKey);
    return creator != tags.end() && creator->second == kCreatedByTagValue && proxy != tags.end() &&
           proxy->second == proxyId;
}

int AddOwnershipTags(Params& params, int first, const std::string& proxyId, const JobLabel& job,
                     const std::string& role, bool incomplete) {
    int n = first;
    auto add = [&](const std::string& key, const std::string& value) {
        const std::string prefix = "Tag." + std::to_string(n++) + ".";
        params[prefix + "Key"] = key;
        params[prefix + "Value"] = value;
    };
    add(kCreatedByTagKey, kCreatedByTagValue);
    add(kProxyTagKey, proxyId);
    if (!job.job.empty()) {
        add(kJobTagKey, job.job);
        add(kJobOwnerTagKey, job.owner);
    }
    if (!role.empty()) add(kRoleTagKey, role);
    if (incomplete) add(kRestoreStateTagKey, kIncompleteValue);
    return n;
}

}  // namespace hxbridge
