// Glob matching shared by the framework's filters and directory listing.
#pragma once

#include <string>

namespace hxcommon {
// Whether `text` matches `pattern` ('*' any run, '?' one character). With `ignoreCase`
// letters compare without regard to ASCII case.
bool GlobMatch(const std::string& pattern, const std::string& text, bool ignoreCase);
}  // namespace hxcommon
