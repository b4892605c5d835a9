// Safe printf-style and positional formatting (see LogArg.h for the rules).
#include <cinttypes>
#include <cstdio>
#include <string>

#include "FxUtil.h"
#include "LogArg.h"

namespace {

// One parsed conversion specification: "%[flags][width][.precision][length]conv".
struct Spec {
    std::string flags;
    int width = -1;
    int precision = -1;
    char conv = 0;
};

// snprintf with a format built from our own validated pieces only.
std::string Printf(const std::string& fmt, auto value) {
    char buf[128];
    int n = std::snprintf(buf, sizeof buf, fmt.c_str(), value);
    if (n < 0) return {};
    if (static_cast<size_t>(n) < sizeof buf) return std::string(buf, static_cast<size_t>(n));
    std::string out(static_cast<size_t>(n) + 1, '\0');
    std::snprintf(out.data(), out.size(), fmt.c_str(), value);
    out.resize(static_cast<size_t>(n));
    return out;
}

std::string Pad(std::string s, const Spec& spec) {
    if (spec.width > 0 && s.size() < static_cast<size_t>(spec.width)) {
        size_t fill = static_cast<size_t>(spec.width) - s.size();
        if (spec.flags.find('-') != std::string::npos) s.append(fill, ' ');
        else s.insert(0, fill, ' ');
    }
    return s;
}

std::string Prefix(const Spec& spec) {
    std::string p(1, '%');
    p += spec.flags;
    if (spec.width >= 0) p += std::to_string(spec.width);
    if (spec.precision >= 0) {
        p += '.';
        p += std::to_string(spec.precision);
    }
    return p;
}

std::string Convert(const Spec& spec, const LogArg& arg) {
    using K = LogArg::Kind;
    switch (spec.conv) {
    case 's':
        if (arg.kind() == K::Text) {
            std::string s = arg.text();
            if (spec.precision >= 0 && s.size() > static_cast<size_t>(spec.precision)) s.resize(static_cast<size_t>(spec.precision));
            return Pad(s, spec);
        }
        break;
    case 'd': case 'i':
        if (arg.kind() == K::Signed || arg.kind() == K::Unsigned)
            return Printf(Prefix(spec) + PRId64, arg.asSigned());
        break;
    case 'u':
        if (arg.kind() == K::Signed || arg.kind() == K::Unsigned)
            return Printf(Prefix(spec) + PRIu64, arg.asUnsigned());
        break;
    case 'x': case 'X': case 'o':
        if (arg.kind() == K::Signed || arg.kind() == K::Unsigned)
            return Printf(Prefix(spec) + (spec.conv == 'x' ? PRIx64 : spec.conv == 'X' ? PRIX64 : PRIo64), arg.asUnsigned());
        break;
    case 'c':
        if (arg.kind() == K::Signed || arg.kind() == K::Unsigned)
            return Pad(std::string(1, static_cast<char>(arg.asSigned())), spec);
        break;
    case 'f': case 'F': case 'g': case 'G': case 'e': case 'E':
        if (arg.kind() != K::Text && arg.kind() != K::Pointer)
            return Printf(Prefix(spec) + spec.conv, arg.asReal());
        break;
    case 'p':
        if (arg.kind() == K::Pointer)
            return Pad(Printf(std::string("0x%") + PRIxPTR, static_cast<std::uintptr_t>(arg.asUnsigned())), spec);
        break;
    default:
        break;
    }
    // Type mismatch: print the argument as it naturally reads.
    switch (arg.kind()) {
    case K::Text: return Pad(arg.text(), spec);
    case K::Signed: return Pad(std::to_string(arg.asSigned()), spec);
    case K::Unsigned: return Pad(std::to_string(arg.asUnsigned()), spec);
    case K::Real: return Pad(Printf(std::string("%g"), arg.asReal()), spec);
    case K::Pointer: return Pad(Printf(std::string("0x%") + PRIxPTR, static_cast<std::uintptr_t>(arg.asUnsigned())), spec);
    }
    return {};
}

}  // namespace

std::string FormatWithArgs(const char* fmt, std::initializer_list<LogArg> args) {
    std::string out;
    if (!fmt) return out;
    auto next = args.begin();
    for (const char* p = fmt; *p;) {
        if (*p != '%') { out += *p++; continue; }
        const char* start = p++;
        if (*p == '%') { out += '%'; ++p; continue; }
        Spec spec;
        while (*p && std::string("-+ #0").find(*p) != std::string::npos) spec.flags += *p++;
        if (*p >= '0' && *p <= '9') { spec.width = 0; while (*p >= '0' && *p <= '9' && spec.width < 10000) spec.width = spec.width * 10 + (*p++ - '0'); }
        if (*p == '.') { ++p; spec.precision = 0; while (*p >= '0' && *p <= '9' && spec.precision < 10000) spec.precision = spec.precision * 10 + (*p++ - '0'); }
        while (*p && std::string("hlLqjzt").find(*p) != std::string::npos) ++p;  // length modifiers carry no meaning here
        if (!*p || std::string("sdiuxXocfFgGeEp").find(*p) == std::string::npos) {
            out.append(start, p);  // not a conversion we know: keep the text as written
            continue;
        }
        spec.conv = *p++;
        if (next == args.end()) { out += "(missing)"; continue; }
        out += Convert(spec, *next++);
    }
    return out;
}

std::string CZuString::FormatPositional(const std::string& tmpl, std::initializer_list<LogArg> args) {
    std::string out;
    for (size_t i = 0; i < tmpl.size();) {
        if (tmpl[i] == '{') {
            size_t close = tmpl.find('}', i + 1);
            if (close != std::string::npos && close > i + 1 && close - i <= 4) {
                bool digits = true;
                size_t n = 0;
                for (size_t k = i + 1; k < close; ++k) {
                    if (tmpl[k] < '0' || tmpl[k] > '9') { digits = false; break; }
                    n = n * 10 + static_cast<size_t>(tmpl[k] - '0');
                }
                if (digits && n >= 1 && n <= args.size()) {
                    out += FormatWithArgs("%s", {*(args.begin() + (n - 1))});
                    i = close + 1;
                    continue;
                }
            }
        }
        out += tmpl[i++];
    }
    return out;
}
