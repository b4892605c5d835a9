// Talking to the emulator's control endpoint (/_sim/...), loopback only: hxagent never
// sends anything but the signed API calls of the bridge to an address it did not start or
// that is not on this machine.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace hxagent {

// True for "http://127.x.y.z:port", "http://localhost:port", "http://[::1]:port" (a path
// after the port is allowed). Fills host and port.
bool ParseLoopbackEndpoint(const std::string& url, std::string& host, int& port);

// One control request; `out` is the JSON answer. False with `error` for a non-loopback
// endpoint, a transport failure, a non-2xx status or a body that is not JSON.
bool SimRequest(const std::string& endpoint, const std::string& method, const std::string& path,
                const std::string& body, nlohmann::json& out, std::string& error);

// What a job may have left in the emulator, compared with a state taken before it.
struct SimLeftovers {
    std::vector<std::string> snapshots;  // snapshots that did not exist before
    std::vector<std::string> images;     // images that did not exist before
    std::vector<std::string> disks;      // new disks not in use by an instance other than the proxy
    std::vector<std::string> links;      // device links still on the proxy
    bool empty() const { return snapshots.empty() && images.empty() && disks.empty() && links.empty(); }
    std::string Describe() const;
};
// `before` and `after` are answers of GET /_sim/state.
SimLeftovers FindLeftovers(const nlohmann::json& before, const nlohmann::json& after);

}  // namespace hxagent
