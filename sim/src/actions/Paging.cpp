#include "actions/Paging.h"

#include <algorithm>

#include "api/ApiError.h"

namespace hxsim::actions {

namespace {
constexpr char kTokenPrefix[] = "e71d8a1f";

std::string MakeToken(size_t offset) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%s%08zx", kTokenPrefix, offset);
  return buf;
}

size_t ParseToken(const std::string& token) {
  const size_t prefix = sizeof(kTokenPrefix) - 1;
  if (token.size() <= prefix || token.compare(0, prefix, kTokenPrefix) != 0) {
    throw api::BadRequest("InvalidNextToken", "The specified NextToken is not valid.");
  }
  size_t offset = 0;
  for (size_t i = prefix; i < token.size(); ++i) {
    char c = token[i];
    int v = (c >= '0' && c <= '9') ? c - '0' : (c >= 'a' && c <= 'f') ? c - 'a' + 10 : -1;
    if (v < 0 || offset > (SIZE_MAX >> 4)) throw api::BadRequest("InvalidNextToken", "The specified NextToken is not valid.");
    offset = offset * 16 + static_cast<size_t>(v);
  }
  return offset;
}
}  // namespace

Page ParsePaging(const api::Params& p, const PagingRules& rules) {
  Page page;
  page.limit = static_cast<size_t>(rules.defaultSize);
  if (rules.tokens && (p.Has("MaxResults") || p.Has("NextToken"))) {
    page.tokenMode = true;
    if (p.Has("MaxResults")) {
      const int64_t v = p.Int("MaxResults", rules.defaultSize, INT64_MIN, INT64_MAX);
      page.limit = static_cast<size_t>(std::clamp(v, rules.maxResultsMin, rules.maxResultsMax));
    }
    std::string token = p.GetOr("NextToken", "");
    if (!token.empty()) page.offset = ParseToken(token);
    return page;
  }
  if (rules.pages) {
    page.pageNumber = p.Int("PageNumber", 1, 1, INT32_MAX);
    page.limit = static_cast<size_t>(p.Int("PageSize", rules.defaultSize, 1, rules.pageSizeMax));
    page.offset = static_cast<size_t>(page.pageNumber - 1) * page.limit;
  }
  return page;
}

nlohmann::json Page::Fields(size_t total, bool withTokens) const {
  nlohmann::json out = {{"TotalCount", total}};
  if (!tokenMode) {
    out["PageNumber"] = pageNumber;
    out["PageSize"] = limit;
  }
  if (withTokens) out["NextToken"] = End(total) < total ? MakeToken(End(total)) : "";
  return out;
}

}  // namespace hxsim::actions
