#include "SimControl.h"

#include <httplib.h>

#include <set>

namespace hxagent {

using nlohmann::json;

bool ParseLoopbackEndpoint(const std::string& url, std::string& host, int& port) {
    const std::string scheme = "http://";
    if (url.rfind(scheme, 0) != 0) return false;
    std::string rest = url.substr(scheme.size());
    rest = rest.substr(0, rest.find('/'));
    std::string h, p;
    if (!rest.empty() && rest.front() == '[') {
        auto close = rest.find(']');
        if (close == std::string::npos) return false;
        h = rest.substr(1, close - 1);
        if (close + 1 < rest.size() && rest[close + 1] == ':') p = rest.substr(close + 2);
    } else {
        auto colon = rest.find(':');
        h = rest.substr(0, colon);
        if (colon != std::string::npos) p = rest.substr(colon + 1);
    }
    bool loopback = h == "localhost" || h == "::1" || h.rfind("127.", 0) == 0;
    if (!loopback || p.empty() || p.find_first_not_of("0123456789") != std::string::npos || p.size() > 5) return false;
    int value = std::stoi(p);
    if (value <= 0 || value > 65535) return false;
    host = h;
    port = value;
    return true;
}

bool SimRequest(const std::string& endpoint, const std::string& method, const std::string& path,
                const std::string& body, json& out, std::string& error) {
    std::string host;
    int port = 0;
    if (!ParseLoopbackEndpoint(endpoint, host, port)) {
        error = "not a loopback endpoint: " + endpoint;
        return false;
    }
    httplib::Client client(host, port);
    client.set_connection_timeout(2, 0);
    client.set_read_timeout(30, 0);
    httplib::Result res = method == "GET"      ? client.Get(path)
                          : method == "DELETE" ? client.Delete(path)
                                               : client.Post(path, body, "application/json");
    if (!res) {
        error = "no answer from " + endpoint + path + ": " + httplib::to_string(res.error());
        return false;
    }
    if (res->status < 200 || res->status >= 300) {
        error = endpoint + path + " answered " + std::to_string(res->status) + ": " + res->body;
        return false;
    }
    out = json::parse(res->body, nullptr, false);
    if (out.is_discarded()) {
        error = endpoint + path + " did not answer JSON";
        return false;
    }
    return true;
}

namespace {
std::set<std::string> Ids(const json& state, const char* list, const char* key) {
    std::set<std::string> out;
    if (state.contains(list))
        for (const auto& o : state[list]) out.insert(o.value(key, ""));
    return out;
}
std::string Join(const std::vector<std::string>& v) {
    std::string s;
    for (const auto& x : v) s += (s.empty() ? "" : ", ") + x;
    return s;
}
}  // namespace

SimLeftovers FindLeftovers(const json& before, const json& after) {
    SimLeftovers l;
    const std::string proxy = after.value("proxyInstanceId", "");
    auto oldSnapshots = Ids(before, "snapshots", "SnapshotId");
    auto oldImages = Ids(before, "images", "ImageId");
    auto oldDisks = Ids(before, "disks", "DiskId");
    std::set<std::string> onProxyBefore;
    for (const auto& d : before.value("disks", json::array()))
        if (d.value("InstanceId", "") == proxy) onProxyBefore.insert(d.value("DiskId", ""));
    for (const auto& s : after.value("snapshots", json::array()))
        if (!oldSnapshots.count(s.value("SnapshotId", ""))) l.snapshots.push_back(s.value("SnapshotId", ""));
    for (const auto& i : after.value("images", json::array()))
        if (!oldImages.count(i.value("ImageId", ""))) l.images.push_back(i.value("ImageId", ""));
    for (const auto& d : after.value("disks", json::array())) {
        const std::string id = d.value("DiskId", ""), owner = d.value("InstanceId", "");
        if (oldDisks.count(id)) {
            // A disk of the world before is a leftover only if a job left it on the proxy.
            if (owner == proxy && !onProxyBefore.count(id)) l.disks.push_back(id + " (attached to the proxy)");
            continue;
        }
        if (owner.empty() || owner == proxy) l.disks.push_back(id + (owner.empty() ? "" : " (attached to the proxy)"));
    }
    auto oldLinks = before.value("deviceLinks", json::array());
    std::set<std::string> oldLinkSet;
    for (const auto& x : oldLinks) oldLinkSet.insert(x.get<std::string>());
    for (const auto& x : after.value("deviceLinks", json::array()))
        if (!oldLinkSet.count(x.get<std::string>())) l.links.push_back(x.get<std::string>());
    return l;
}

std::string SimLeftovers::Describe() const {
    std::string s;
    auto add = [&](const char* what, const std::vector<std::string>& v) {
        if (!v.empty()) s += (s.empty() ? "" : "; ") + std::string(what) + ": " + Join(v);
    };
    add("snapshots", snapshots);
    add("images", images);
    add("disks", disks);
    add("device links", links);
    return s.empty() ? "nothing" : s;
}

}  // namespace hxagent
