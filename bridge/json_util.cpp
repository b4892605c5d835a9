#include "json_util.h"

#include <cstdlib>

#include "api_error.h"

namespace hxbridge::jv {

std::vector<json> WrappedList(const json& obj, const char* outer, const char* inner) {
    if (!obj.is_object()) return {};
    auto o = obj.find(outer);
    if (o == obj.end() || o->is_null()) return {};
    if (o->is_array()) return o->get<std::vector<json>>();
    if (!o->is_object()) return {};
    auto i = o->find(inner);
    if (i == o->end() || !i->is_array()) return {};
    return i->get<std::vector<json>>();
}

std::vector<json> RequiredList(const json& answer, const char* outer, const char* inner, const std::string& action) {
    auto malformed = [&] {
        return ApiError(ApiError::Kind::Malformed, "MalformedResponse",
                        action + " answered without its " + outer + "." + inner + " list",
                        answer.is_object() ? Str(answer, "RequestId") : std::string());
    };
    if (!answer.is_object()) throw malformed();
    auto o = answer.find(outer);
    if (o == answer.end()) throw malformed();
    if (o->is_array()) return o->get<std::vector<json>>();
    if (!o->is_object()) throw malformed();
    auto i = o->find(inner);
    // ECS leaves the inner key out of an empty list in some answers ({"Disks":{}}).
    if (i == o->end() || i->is_null()) return {};
    if (!i->is_array()) throw malformed();
    return i->get<std::vector<json>>();
}

std::string Str(const json& obj, const char* key, const std::string& fallback) {
    if (!obj.is_object()) return fallback;
    auto it = obj.find(key);
    if (it == obj.end() || it->is_null()) return fallback;
    if (it->is_string()) return it->get<std::string>();
    if (it->is_number() || it->is_boolean()) return it->dump();
    return fallback;
}

std::int64_t Int(const json& obj, const char* key, std::int64_t fallback) {
    if (!obj.is_object()) return fallback;
    auto it = obj.find(key);
    if (it == obj.end()) return fallback;
    if (it->is_number_integer()) return it->get<std::int64_t>();
    if (it->is_number_float()) return static_cast<std::int64_t>(it->get<double>());
    if (it->is_string()) {
        const std::string s = it->get<std::string>();
        char* end = nullptr;
        const long long v = std::strtoll(s.c_str(), &end, 10);
        if (end != s.c_str()) return v;
    }
    return fallback;
}

bool Bool(const json& obj, const char* key, bool fallback) {
    if (!obj.is_object()) return fallback;
    auto it = obj.find(key);
    if (it == obj.end()) return fallback;
    if (it->is_boolean()) return it->get<bool>();
    if (it->is_number()) return it->get<double>() != 0;
    if (it->is_string()) {
        const std::string s = it->get<std::string>();
        if (s == "true" || s == "True" || s == "1") return true;
        if (s == "false" || s == "False" || s == "0") return false;
    }
    return fallback;
}

std::string IdArray(const std::vector<std::string>& ids) { return json(ids).dump(); }

}  // namespace hxbridge::jv
