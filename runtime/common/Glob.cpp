#include "Glob.h"

#include <cctype>

namespace hxcommon {

bool GlobMatch(const std::string& pattern, const std::string& text, bool ignoreCase) {
    auto same = [ignoreCase](char a, char b) {
        if (!ignoreCase) return a == b;
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    };
    // Iterative matcher with single-star backtracking: linear in practice, no recursion.
    size_t p = 0, t = 0, starP = std::string::npos, starT = 0;
    while (t < text.size()) {
        if (p < pattern.size() && (pattern[p] == '?' || (pattern[p] != '*' && same(pattern[p], text[t])))) {
            ++p; ++t;
        } else if (p < pattern.size() && pattern[p] == '*') {
            starP = p++;
            starT = t;
        } else if (starP != std::string::npos) {
            p = starP + 1;
            t = ++starT;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') ++p;
    return p == pattern.size();
}

}  // namespace hxcommon
