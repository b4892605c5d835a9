#include "util/Time.h"

#include <cctype>
#include <cstdio>
#include <ctime>

#include "hxutil/IsoTime.h"

namespace hxsim::timefmt {

std::string Iso8601(WallTime t, bool withSeconds) {
  return hxutil::IsoUtc(t, withSeconds ? hxutil::IsoPrecision::Seconds : hxutil::IsoPrecision::Minutes);
}

std::optional<WallTime> ParseIso8601(std::string_view s) {
  std::tm tm{};
  int consumed = 0;
  std::string str(s);
  if (std::sscanf(str.c_str(), "%4d-%2d-%2dT%2d:%2d%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour,
                  &tm.tm_min, &consumed) != 5 ||
      consumed != 16) {
    return std::nullopt;
  }
  size_t pos = 16;
  if (pos < str.size() && str[pos] == ':') {
    if (pos + 3 > str.size() || !std::isdigit(static_cast<unsigned char>(str[pos + 1])) ||
        !std::isdigit(static_cast<unsigned char>(str[pos + 2]))) {
      return std::nullopt;
    }
    tm.tm_sec = (str[pos + 1] - '0') * 10 + (str[pos + 2] - '0');
    pos += 3;
    if (pos < str.size() && str[pos] == '.') {
      ++pos;
      while (pos < str.size() && std::isdigit(static_cast<unsigned char>(str[pos]))) ++pos;
    }
  }
  if (pos + 1 != str.size() || str[pos] != 'Z') return std::nullopt;
  if (tm.tm_mon < 1 || tm.tm_mon > 12 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 || tm.tm_min > 59 ||
      tm.tm_sec > 60) {
    return std::nullopt;
  }
  tm.tm_year -= 1900;
  tm.tm_mon -= 1;
  return std::chrono::system_clock::from_time_t(timegm(&tm));
}

}  // namespace hxsim::timefmt
