// Images: create one from disk snapshots (and wait until it is usable), and delete.
#include "bridge_impl.h"

#include "bridge_common.h"
#include "json_util.h"
#include "mapping.h"
#include "platform_names.h"

using namespace hxbridge;
using namespace hxbridge::bridge_detail;
using Impl = AliCloudSDKCppBridge::CAliCloudSDKCppBridge::Impl;
using nlohmann::json;

void Impl::CreateImageFromDiskSnapshots(const std::string& regionId, const std::string& systemSnapshotId,
                                        const std::vector<std::string>& dataSnapshotIds,
                                        const std::string& architecture, const std::string& platform,
                                        std::string& imageId, const std::string& imageName,
                                        const std::string& description) {
    RequireArg(systemSnapshotId, "system snapshot id");
    const std::string region = RegionOr(regionId, Kind::Snapshot, systemSnapshotId);
    if (dataSnapshotIds.size() > 16) throw ClientError("InvalidParameter", "an image takes at most 16 data disks");
    Params p;
    p["DiskDeviceMapping.1.SnapshotId"] = systemSnapshotId;
    p["DiskDeviceMapping.1.DiskType"] = "system";
    for (size_t i = 0; i < dataSnapshotIds.size(); ++i) {
        const std::string k = "DiskDeviceMapping." + std::to_string(i + 2) + ".";
        p[k + "SnapshotId"] = dataSnapshotIds[i];
        p[k + "DiskType"] = "data";
    }
    p["Architecture"] = ArchitectureOf(architecture, architecture == "i386" ? "32 bit" : "");
    p["Platform"] = ImagePlatformFor(platform);
    if (!imageName.empty()) p["ImageName"] = imageName;
    p["Description"] = description.empty() ? kDefaultDescription : description;
    p["ClientToken"] = ClientToken();
    AddOwnershipTags(p, "image");
    const std::string id = CallForNewId("CreateImage", region, p, "ImageId");
    Remember(id, region);
    imageId = id;  // handed out before the wait so that a failed image can be deleted
    WaitUntil(waits_.createImage, deps_.time,
              [&] {
                  auto found = Find(Kind::Image, region, id);
                  if (!found) return false;
                  const std::string status = jv::Str(*found, "Status");
                  if (status == "CreateFailed" || status == "UnAvailable") {
                      throw ApiError(ApiError::Kind::Service, "ImageCreateFailed",
                                     "image " + id + " ended in status " + status);
                  }
                  return status == "Available";
              },
              "image " + id + " becoming Available");
}

void Impl::DeleteImage(const std::string& regionId, const std::string& imageId, bool force) {
    RequireArg(imageId, "image id");
    // Without a region (a cleanup that knows only the id) an image no region lists is gone.
    std::optional<json> kept = Kept(imageId);
    auto [region, image] = regionId.empty() ? Locate(Kind::Image, imageId)
                                            : std::pair{regionId, kept ? kept : Find(Kind::Image, regionId, imageId)};
    if (!image) {
        // ECS ignores an unknown id; there is nothing to delete or to wait for.
        regionOf_.erase(imageId);
        return;
    }
    RequireOwned(Kind::Image, *image, imageId);
    Forget(imageId);
    Call("DeleteImage", region, {{"ImageId", imageId}, {"Force", force ? "true" : "false"}});
    WaitUntilGone(Kind::Image, region, imageId);
    regionOf_.erase(imageId);
}
