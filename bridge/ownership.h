// Ownership tags: how the bridge marks every object it creates, and how an object is
// recognised as one this proxy made.
//
// Every snapshot, disk, image and instance the bridge creates carries, in its create
// request itself (so there is no window in which it exists untagged):
//   hx:created-by       HXAliCloudSDKCppBridge
//   hx:proxy-instance   the proxy's instance id ("unknown" off ECS)
//   hx:job              the host's job id           (ALIBABA_CLOUD_BRIDGE_JOB)
//   hx:job-owner        the process running the job (ALIBABA_CLOUD_BRIDGE_JOB_OWNER), an
//                       opaque text the host can test for liveness
//   hx:role             snapshot | disk-copy | restore-disk | image | instance
//   hx:restore-state    incomplete (instances only, until the host finishes the restore)
// The host sets the two job variables before the plug-in connects; without them the job
// tags are left out and such objects are never swept (nothing tells whether their job lives).
//
// An object is "owned here" when hx:created-by and hx:proxy-instance both match. Nothing
// the bridge deletes on its own account (snapshots, disks, images) may lack that mark.
#pragma once

#include <map>
#include <string>

#include <nlohmann/json.hpp>

#include "signer.h"

namespace hxbridge {

inline constexpr const char* kCreatedByTagKey = "hx:created-by";
inline constexpr const char* kCreatedByTagValue = "HXAliCloudSDKCppBridge";
inline constexpr const char* kProxyTagKey = "hx:proxy-instance";
inline constexpr const char* kJobTagKey = "hx:job";
inline constexpr const char* kJobOwnerTagKey = "hx:job-owner";
inline constexpr const char* kRoleTagKey = "hx:role";
inline constexpr const char* kRestoreStateTagKey = "hx:restore-state";
inline constexpr const char* kIncompleteValue = "incomplete";
// ECS accepts at most 20 tags per resource.
inline constexpr int kMaxTagsPerResource = 20;

// The job whose objects are being created, as the host announced it.
struct JobLabel {
    std::string job;    // empty: no job tags
    std::string owner;  // empty: no job tags
    static JobLabel FromEnvironment();
};

// The tags of an ECS Describe item ({"Tags":{"Tag":[{"TagKey","TagValue"}]}}; "Key"/"Value"
// also read). Missing tags give an empty map.
std::map<std::string, std::string> TagsOf(const nlohmann::json& item);

// Whether the item carries this bridge's creator tag and `proxyId` as its proxy.
bool IsOwnedBy(const nlohmann::json& item, const std::string& proxyId);

// Writes the ownership tags as Tag.<first>.Key/Value, Tag.<first+1>... and returns the next
// free index. `role` empty leaves hx:role out; `incomplete` adds hx:restore-state.
int AddOwnershipTags(Params& params, int first, const std::string& proxyId, const JobLabel& job,
                     const std::string& role, bool incomplete = false);

}  // namespace hxbridge
