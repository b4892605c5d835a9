// The emulator's own control endpoint (no signature; loopback only):
//   GET    /_sim/info      endpoint, device root, state folder, proxy, demo key, time scale
//   GET    /_sim/state     every object (instances, disks, snapshots, images) and device link
//   GET    /_sim/calls     calls and errors per action;  DELETE /_sim/calls clears them
//   GET    /_sim/faults    armed fault rules;  POST adds rules (see Faults.h);  DELETE clears
//   POST   /_sim/reset     back to the scenario's initial state (files and links too)
//   POST   /_sim/metadata  {"tokenRequired":true|false}: hardened metadata mode
// Answers are JSON; errors are {"error": "..."} with 400/404.
#pragma once

#include "api/Response.h"
#include "server/World.h"

namespace hxsim::server {

api::HttpReply HandleControl(World& world, const std::string& method, const std::string& path,
                             const std::string& body);

}  // namespace hxsim::server
