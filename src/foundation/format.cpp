#include "foundation/format.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>

long long FormatArg::asSigned() const {
    switch (kind_) {
    case Kind::Signed: return i_;
    case Kind::Unsigned: return narrow_ ? static_cast<int32_t>(static_cast<uint32_t>(u_)) : static_cast<long long>(u_);
    case Kind::Double: return static_cast<long long>(d_);
    default: return 0;
    }
}

unsigned long long FormatArg::asUnsigned() const {
    switch (kind_) {
    case Kind::Signed:
        return narrow_ ? static_cast<uint32_t>(static_cast<int32_t>(i_)) : static_cast<unsigned long long>(i_);
    case Kind::Unsigned: return u_;
    case Kind::Double: return static_cast<unsigned long long>(d_);
    case Kind::Pointer: return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(p_));
    default: return 0;
    }
}

double FormatArg::asDouble() const {
    switch (kind_) {
    case Kind::Signed: return static_cast<double>(i_);
    case Kind::Unsigned: return static_cast<double>(u_);
    case Kind::Double: return d_;
    default: return 0;
    }
}

STRING FormatArg::asText() const {
    switch (kind_) {
    case Kind::Wide: return STRING(w_, n_);
    case Kind::Narrow: return STRING::fromNarrow(std::string_view(c_, n_));
    case Kind::Signed: return STRING::number(i_);
    case Kind::Unsigned: return STRING::unsignedNumber(u_);
    case Kind::Double: {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%g", d_);
        return STRING::fromUtf8(buf);
    }
    case Kind::Pointer: {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%p", p_);
        return STRING::fromUtf8(buf);
    }
    default: return STRING();
    }
}

namespace {

bool isFlag(char16_t c) { return c == u'-' || c == u'+' || c == u' ' || c == u'0' || c == u'#'; }
bool isDigit(char16_t c) { return c >= u'0' && c <= u'9'; }

// Widths and precisions are cut to this, so that a damaged catalog text
// cannot make one message gigabytes long; every field still fits `buf`.
constexpr int kMaxField = 500;

int boundedField(long long v) { return v > kMaxField ? kMaxField : v < -kMaxField ? -kMaxField : static_cast<int>(v); }

int readField(const char16_t*& p) {
    int v = 0;
    while (isDigit(*p)) v = std::min(kMaxField, v * 10 + (*p++ - u'0'));
    return v;
}

void pad(std::u16string& out, const std::u16string& text, int width, bool left) {
    const int fill = width - static_cast<int>(text.size());
    if (fill > 0 && !left) out.append(static_cast<size_t>(fill), u' ');
    out += text;
    if (fill > 0 && left) out.append(static_cast<size_t>(fill), u' ');
}

}  // namespace

namespace {

// A conversion's flags, width and precision, as the C library's printf
// reads them.
struct ConversionSpec {
    std::string flags;
    int width = -1;
    int precision = -1;
    bool left() const { return flags.find('-') != std::string::npos; }
    std::string printf() const {
        std::string spec = "%" + flags;
        if (width >= 0) spec += std::to_string(width);
        if (precision >= 0) spec += "." + std::to_string(precision);
        return spec;
    }
};

// Reads a conversion's flags, width, precision and length modifiers from
// `p` (just after the '%') up to its conversion character; a '*' takes its
// value from the next argument.
template <class Take>
ConversionSpec readSpec(const char16_t*& p, Take take) {
    ConversionSpec spec;
    while (*p && isFlag(*p)) spec.flags += static_cast<char>(*p++);
    if (*p == u'*') {
        const FormatArg* a = take();
        spec.width = a ? boundedField(a->asSigned()) : 0;
        if (spec.width < 0) {
            spec.flags += '-';
            spec.width = -spec.width;
        }
        ++p;
    } else if (isDigit(*p)) {
        spec.width = readField(p);
    }
    if (*p == u'.') {
        ++p;
        if (*p == u'*') {
            const FormatArg* a = take();
            spec.precision = a ? boundedField(a->asSigned()) : 0;
            ++p;
        } else {
            spec.precision = readField(p);
        }
    }
    // Length modifiers carry no meaning here: the argument knows its type.
    while (*p == u'h' || *p == u'l' || *p == u'L' || *p == u'q' || *p == u'j' || *p == u'z' || *p == u't' ||
           *p == u'w') ++p;
    if (*p == u'I') {
        if ((p[1] == u'6' && p[2] == u'4') || (p[1] == u'3' && p[2] == u'2')) p += 3;
        else ++p;
    }
    return spec;
}

bool isConversion(char16_t c) {
    return c != 0 && std::u16string_view(u"diuxXofFeEgGcCsSp").find(c) != std::u16string_view::npos;
}

// One conversion of one argument (null when the arguments ran out).
void convert(std::u16string& out, char16_t conv, const ConversionSpec& spec, const FormatArg* a) {
    char buf[512];
    switch (conv) {
    case u'd': case u'i':
    case u'u': case u'x': case u'X': case u'o':
        if (a && (a->kind() == FormatArg::Kind::Wide || a->kind() == FormatArg::Kind::Narrow)) {
            pad(out, a->asText().str(), spec.width, spec.left());
        } else if (conv == u'd' || conv == u'i') {
            std::snprintf(buf, sizeof buf, (spec.printf() + "lld").c_str(), a ? a->asSigned() : 0LL);
            out += STRING::fromUtf8(buf).str();
        } else {
            std::snprintf(buf, sizeof buf, (spec.printf() + "ll" + static_cast<char>(conv)).c_str(),
                          a ? a->asUnsigned() : 0ULL);
            out += STRING::fromUtf8(buf).str();
        }
        break;
    case u'f': case u'F': case u'e': case u'E': case u'g': case u'G':
        std::snprintf(buf, sizeof buf, (spec.printf() + static_cast<char>(conv)).c_str(), a ? a->asDouble() : 0.0);
        out += STRING::fromUtf8(buf).str();
        break;
    case u'c': case u'C':
        pad(out, std::u16string(1, static_cast<char16_t>(a ? a->asUnsigned() : 0)), spec.width, spec.left());
        break;
    case u's': case u'S': {
        std::u16string text = a ? a->asText().str() : std::u16string();
        if (spec.precision >= 0 && text.size() > static_cast<size_t>(spec.precision)) {
            text.resize(static_cast<size_t>(spec.precision));
        }
        pad(out, text, spec.width, spec.left());
        break;
    }
    default:  // 'p'
        out += a ? a->asText().str() : std::u16string();
        break;
    }
}

}  // namespace

STRING formatArgs(const char16_t* fmt, const FormatArg* args, size_t count) {
    std::u16string out;
    if (fmt == nullptr) return STRING();
    size_t next = 0;
    auto take = [&]() -> const FormatArg* { return next < count ? &args[next++] : nullptr; };

    for (const char16_t* p = fmt; *p; ++p) {
        if (*p != u'%') {
            out += *p;
            continue;
        }
        const char16_t* start = p++;
        if (*p == u'%') {
            out += u'%';
            continue;
        }
        const ConversionSpec spec = readSpec(p, take);
        if (!*p) {  // dangling '%...': keep it as text
            out.append(start);
            break;
        }
        if (isConversion(*p)) convert(out, *p, spec, take());
        else out.append(start, static_cast<size_t>(p - start + 1));
    }
    return STRING(std::move(out));
}
