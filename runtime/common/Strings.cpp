#include <cctype>

#include "FxUtil.h"

int FXString::Split(const std::string& text, const std::string& separator, std::vector<std::string>& parts,
                    int flags) {
    parts.clear();
    if (text.empty()) return 0;
    if (separator.empty()) {
        parts.push_back(text);
        return 1;
    }
    const bool skipEmpty = (flags & FXSPLIT_SKIP_EMPTY) != 0;
    size_t start = 0;
    for (;;) {
        size_t at = text.find(separator, start);
        std::string piece = text.substr(start, at == std::string::npos ? std::string::npos : at - start);
        if (!(skipEmpty && piece.empty())) parts.push_back(std::move(piece));
        if (at == std::string::npos) break;
        start = at + separator.size();
    }
    return static_cast<int>(parts.size());
}

int FXString::CompareNoCase(const std::string& a, const std::string& b) {
    const size_t n = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < n; ++i) {
        int ca = std::tolower(static_cast<unsigned char>(a[i]));
        int cb = std::tolower(static_cast<unsigned char>(b[i]));
        if (ca != cb) return ca < cb ? -1 : 1;
    }
    if (a.size() == b.size()) return 0;
    return a.size() < b.size() ? -1 : 1;
}
