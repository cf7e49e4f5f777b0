// printf-style formatting into STRING, type-safe and identical on every
// platform. Format strings are the program's own wide texts; "%s" and "%S"
// both accept any kind of string argument (STRING, UTF-16 literal, narrow
// text), numbers take the usual flags, width and precision, and length
// modifiers (h, l, ll, I64, z, ...) are accepted and ignored. A width or
// precision above 500 counts as 500.
#pragma once

#include <cstddef>
#include <string>
#include <type_traits>

#include "foundation/string.h"

class FormatArg {
public:
    enum class Kind { None, Signed, Unsigned, Double, Wide, Narrow, Pointer };

    FormatArg() = default;
    template <class T, std::enable_if_t<std::is_integral_v<T>, int> = 0>
    FormatArg(T v) {  // NOLINT: implicit by design
        if constexpr (std::is_signed_v<T>) { kind_ = Kind::Signed; i_ = static_cast<long long>(v); }
        else { kind_ = Kind::Unsigned; u_ = static_cast<unsigned long long>(v); }
        narrow_ = sizeof(T) <= 4;
    }
    template <class T, std::enable_if_t<std::is_enum_v<T>, int> = 0>
    FormatArg(T v) : FormatArg(static_cast<std::underlying_type_t<T>>(v)) {}
    FormatArg(double v) : kind_(Kind::Double), d_(v) {}
    FormatArg(const STRING& v) : kind_(Kind::Wide), w_(v.c_str()), n_(v.length()) {}
    FormatArg(const char16_t* v) : kind_(Kind::Wide), w_(v ? v : u"(null)"), n_(std::char_traits<char16_t>::length(w_)) {}
    FormatArg(const char* v) : kind_(Kind::Narrow), c_(v ? v : "(null)"), n_(std::char_traits<char>::length(c_)) {}
    FormatArg(const std::string& v) : kind_(Kind::Narrow), c_(v.c_str()), n_(v.size()) {}
#ifdef _WIN32
    FormatArg(const wchar_t* v) : FormatArg(reinterpret_cast<const char16_t*>(v)) {}
#endif
    FormatArg(const void* v) : kind_(Kind::Pointer), p_(v) {}

    Kind kind() const { return kind_; }
    // A value of 32 bits or fewer converts as printf converts an int or an
    // unsigned int: 4294967295 given to %d prints -1, and -1 given to %u or
    // %x prints 4294967295 or ffffffff. Wider values keep their value.
    long long asSigned() const;
    unsigned long long asUnsigned() const;
    double asDouble() const;
    STRING asText() const;

private:
    Kind kind_ = Kind::None;
    bool narrow_ = false;
    long long i_ = 0;
    unsigned long long u_ = 0;
    double d_ = 0;
    const char16_t* w_ = nullptr;
    const char* c_ = nullptr;
    const void* p_ = nullptr;
    size_t n_ = 0;
};

STRING formatArgs(const char16_t* fmt, const FormatArg* args, size_t count);

template <class... A>
STRING formatString(const char16_t* fmt, const A&... args) {
    const FormatArg list[] = {FormatArg(args)..., FormatArg()};
    return formatArgs(fmt, list, sizeof...(A));
}
