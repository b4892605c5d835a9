#include "config_document.h"

#include "api_error.h"
#include "json_util.h"
#include "mapping.h"

namespace hxbridge {

using nlohmann::json;

std::string ConfigDocument::Serialize() const {
    json doc;
    doc["kind"] = kConfigKind;
    doc["version"] = kConfigVersion;
    doc["createdAt"] = createdAt;
    doc["regionId"] = regionId;
    doc["architecture"] = architecture;
    doc["instance"] = instance;
    doc["disks"] = disks;
    doc["instanceType"] = instanceType;
    return doc.dump(2);
}

ConfigDocument ConfigDocument::Parse(const std::string& text) {
    auto invalid = [](const std::string& why) {
        return ApiError(ApiError::Kind::Client, "InvalidConfigDocument", "instance configuration document: " + why);
    };
    json doc = json::parse(text, nullptr, false);
    if (doc.is_discarded() || !doc.is_object()) throw invalid("not a JSON object");
    if (jv::Str(doc, "kind") != kConfigKind) throw invalid("kind is not \"" + std::string(kConfigKind) + "\"");
    auto v = doc.find("version");
    if (v == doc.end() || !v->is_number_integer()) throw invalid("no integer version");
    const int version = v->get<int>();
    if (version != kConfigVersion) {
        throw ApiError(ApiError::Kind::Client, "UnsupportedConfigDocumentVersion",
                       "instance configuration document version " + std::to_string(version) +
                           " is not supported (this bridge reads version " + std::to_string(kConfigVersion) + ")");
    }
    ConfigDocument out;
    out.version = version;
    out.createdAt = jv::Str(doc, "createdAt");
    out.regionId = jv::Str(doc, "regionId");
    out.architecture = jv::Str(doc, "architecture");
    auto inst = doc.find("instance");
    if (inst == doc.end() || !inst->is_object() || jv::Str(*inst, "InstanceId").empty()) {
        throw invalid("no instance object with an InstanceId");
    }
    out.instance = *inst;
    if (auto d = doc.find("disks"); d != doc.end()) {
        if (!d->is_array()) throw invalid("disks is not an array");
        for (const json& disk : *d) {
            if (!disk.is_object()) throw invalid("a disk entry is not an object");
            out.disks.push_back(disk);
        }
    }
    if (auto t = doc.find("instanceType"); t != doc.end() && t->is_object()) out.instanceType = *t;
    if (out.regionId.empty()) out.regionId = jv::Str(out.instance, "RegionId");
    return out;
}

const nlohmann::json* ConfigDocument::SystemDisk() const {
    for (const json& d : disks) {
        if (jv::Str(d, "Type") == "system") return &d;
    }
    return nullptr;
}

VMInfoStructs::SVMInfo ConfigDocument::ToVMInfo() const {
    const std::string arch = architecture.empty() ? ArchitectureOf({}, OsNameOf(instance)) : architecture;
    VMInfoStructs::SVMInfo vm = InstanceFromJson(instance, arch);
    if (vm.regionId.empty()) vm.regionId = regionId;
    if (const json* sys = SystemDisk()) vm.disks.push_back(DiskFromJson(*sys));
    for (const json& d : disks) {
        if (jv::Str(d, "Type") != "system") vm.disks.push_back(DiskFromJson(d));
    }
    return vm;
}

std::vector<std::pair<std::string, std::string>> ConfigDocument::UserTags() const {
    std::vector<std::pair<std::string, std::string>> tags;
    for (const json& t : jv::WrappedList(instance, "Tags", "Tag")) {
        std::string key = jv::Str(t, "TagKey", jv::Str(t, "Key"));
        std::string value = jv::Str(t, "TagValue", jv::Str(t, "Value"));
        if (key.empty() || key.rfind("acs:", 0) == 0 || key.rfind("aliyun", 0) == 0) continue;
        tags.emplace_back(std::move(key), std::move(value));
    }
    return tags;
}

}  // namespace hxbridge
