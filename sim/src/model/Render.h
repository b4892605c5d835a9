// Resources rendered in the shape DescribeInstances / DescribeDisks / DescribeSnapshots /
// DescribeImages return them (wrapped lists, ECS field names and units).
#pragma once

#include <nlohmann/json.hpp>

#include "model/Store.h"

namespace hxsim::model {

nlohmann::json RenderTags(const Tags& tags);  // {"Tag":[{"TagKey":..,"TagValue":..}]}
nlohmann::json RenderInstance(Store& store, const Instance& instance);
nlohmann::json RenderDisk(Store& store, const Disk& disk);
nlohmann::json RenderSnapshot(Store& store, const Snapshot& snapshot);
nlohmann::json RenderImage(Store& store, const Image& image);

}  // namespace hxsim::model
