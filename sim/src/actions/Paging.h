// The two paging styles of Describe* actions: MaxResults + NextToken (loop until the
// token comes back empty) and PageNumber + PageSize. Token mode is used when either
// MaxResults or NextToken is present. NextToken is opaque to clients; here it encodes
// an offset, and a token this server did not issue is InvalidNextToken (400).
// A MaxResults outside [maxResultsMin, maxResultsMax] is clamped into it, as ECS caps
// page sizes rather than refusing them (a value that is not a number is still refused).
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>

#include "api/Params.h"

namespace hxsim::actions {

struct PagingRules {
  bool tokens = true;  // MaxResults/NextToken accepted
  bool pages = true;   // PageNumber/PageSize accepted
  int64_t defaultSize = 10;
  int64_t maxResultsMin = 1;
  int64_t maxResultsMax = 100;
  int64_t pageSizeMax = 100;
};

struct Page {
  size_t offset = 0;
  size_t limit = 10;
  bool tokenMode = false;
  int64_t pageNumber = 1;

  // [begin, end) of a list of `total` items.
  size_t Begin(size_t total) const { return std::min(offset, total); }
  size_t End(size_t total) const { return std::min(offset + limit, total); }
  // TotalCount, PageNumber, PageSize, and (token mode, or when tokens are supported)
  // NextToken: empty when the listing is complete.
  nlohmann::json Fields(size_t total, bool withTokens) const;
};

Page ParsePaging(const api::Params& params, const PagingRules& rules);

}  // namespace hxsim::actions
