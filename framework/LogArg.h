// Typed arguments for the framework's printf-style formatting (log lines, FXString::Format).
//
// Formatting is type-safe and cannot crash: every argument is captured with its type, a
// conversion that finds no argument prints "(missing)", surplus arguments are ignored, and
// a conversion whose argument has another type prints the argument as it is (a string for
// %d prints the string). Supported conversions: %s %d %i %u %ld %lld %lu %llu %zu %x %X %o
// %c %f %g %e %p %%, with flags, width and precision.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <type_traits>

class LogArg {
public:
    enum class Kind { Signed, Unsigned, Real, Text, Pointer };

    LogArg(const std::string& s) : kind_(Kind::Text), text_(s) {}
    LogArg(std::string_view s) : kind_(Kind::Text), text_(s) {}
    LogArg(const char* s) : kind_(Kind::Text), text_(s ? s : "(null)") {}
    LogArg(char* s) : LogArg(static_cast<const char*>(s)) {}
    LogArg(char c) : kind_(Kind::Signed), signed_(c) {}
    LogArg(bool b) : kind_(Kind::Signed), signed_(b ? 1 : 0) {}
    LogArg(double d) : kind_(Kind::Real), real_(d) {}
    LogArg(float d) : kind_(Kind::Real), real_(d) {}
    LogArg(const void* p) : kind_(Kind::Pointer), unsigned_(reinterpret_cast<std::uintptr_t>(p)) {}
    template <class T, std::enable_if_t<std::is_integral_v<T> && std::is_signed_v<T> && !std::is_same_v<T, char>, int> = 0>
    LogArg(T v) : kind_(Kind::Signed), signed_(v) {}
    template <class T, std::enable_if_t<std::is_integral_v<T> && std::is_unsigned_v<T> && !std::is_same_v<T, bool>, int> = 0>
    LogArg(T v) : kind_(Kind::Unsigned), unsigned_(v) {}
    template <class T, std::enable_if_t<std::is_enum_v<T>, int> = 0>
    LogArg(T v) : LogArg(static_cast<std::underlying_type_t<T>>(v)) {}

    Kind kind() const { return kind_; }
    std::int64_t asSigned() const { return kind_ == Kind::Signed ? signed_ : static_cast<std::int64_t>(unsigned_); }
    std::uint64_t asUnsigned() const { return kind_ == Kind::Signed ? static_cast<std::uint64_t>(signed_) : unsigned_; }
    double asReal() const { return kind_ == Kind::Real ? real_ : kind_ == Kind::Signed ? double(signed_) : double(unsigned_); }
    const std::string& text() const { return text_; }

private:
    Kind kind_;
    std::int64_t signed_ = 0;
    std::uint64_t unsigned_ = 0;
    double real_ = 0;
    std::string text_;
};

// Formats `fmt` with `args` as described above. Never throws on any input.
std::string FormatWithArgs(const char* fmt, std::initializer_list<LogArg> args);
