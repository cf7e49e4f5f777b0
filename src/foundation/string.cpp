#include "foundation/string.h"

#include <cerrno>
#include <climits>
#include <cstring>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

#include "foundation/ids_exception.h"

namespace {

constexpr char16_t kReplacement = 0xFFFD;

bool isSpace(char16_t c) { return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n' || c == u'\v' || c == u'\f'; }
bool isDigit(char16_t c) { return c >= u'0' && c <= u'9'; }
char16_t lowerAscii(char16_t c) { return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c + 32) : c; }
char16_t upperAscii(char16_t c) { return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 32) : c; }

}  // namespace

#ifdef _WIN32
STRING::STRING(const wchar_t* text) : s_(text ? reinterpret_cast<const char16_t*>(text) : u"") {}
STRING::STRING(const wchar_t* text, size_t count) : s_(reinterpret_cast<const char16_t*>(text), count) {}
#endif

namespace {

// Decodes UTF-8 into out, which has room for in.size() units (every byte
// gives at most one UTF-16 unit; a four-byte sequence gives two). Returns the
// number of units written.
size_t decodeUtf8(std::string_view in, char16_t* const begin) {
    char16_t* o = begin;
    size_t i = 0;
    const size_t n = in.size();
    const auto* bytes = reinterpret_cast<const unsigned char*>(in.data());
    while (i < n) {
        // Runs of ASCII eight bytes at a time.
#ifdef __SSE2__
        while (n - i >= 16) {  // sixteen at a time
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
            if (_mm_movemask_epi8(v) != 0) break;
            const __m128i zero = _mm_setzero_si128();
            _mm_storeu_si128(reinterpret_cast<__m128i*>(o), _mm_unpacklo_epi8(v, zero));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(o + 8), _mm_unpackhi_epi8(v, zero));
            o += 16;
            i += 16;
        }
#endif
        while (n - i >= 8) {
            uint64_t word;
            std::memcpy(&word, bytes + i, 8);
            if (word & 0x8080808080808080ull) break;
            for (int k = 0; k < 8; ++k) o[k] = bytes[i + k];
            o += 8;
            i += 8;
        }
        if (i == n) break;
        const unsigned char b0 = bytes[i];
        if (b0 < 0x80) {
            *o++ = static_cast<char16_t>(b0);
            ++i;
            continue;
        }
        int extra;
        uint32_t cp;
        uint32_t min;
        if ((b0 & 0xE0) == 0xC0) { extra = 1; cp = b0 & 0x1Fu; min = 0x80; }
        else if ((b0 & 0xF0) == 0xE0) { extra = 2; cp = b0 & 0x0Fu; min = 0x800; }
        else if ((b0 & 0xF8) == 0xF0) { extra = 3; cp = b0 & 0x07u; min = 0x10000; }
        else { *o++ = kReplacement; ++i; continue; }
        size_t j = i + 1;
        bool ok = true;
        for (int k = 0; k < extra; ++k, ++j) {
            if (j >= n || (bytes[j] & 0xC0) != 0x80) { ok = false; break; }
            cp = (cp << 6) | (bytes[j] & 0x3Fu);
        }
        if (!ok || cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
            // One replacement character for the whole broken sequence; the
            // byte that broke it (if any) starts the next one.
            *o++ = kReplacement;
            i = j;
            continue;
        }
        if (cp < 0x10000) {
            *o++ = static_cast<char16_t>(cp);
        } else {
            cp -= 0x10000;
            *o++ = static_cast<char16_t>(0xD800 + (cp >> 10));
            *o++ = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
        }
        i = j;
    }
    return static_cast<size_t>(o - begin);
}

}  // namespace

STRING STRING::fromUtf8(std::string_view in) {
    std::u16string out(in.size(), u'\0');
    out.resize(decodeUtf8(in, out.data()));
    return STRING(std::move(out));
}

void STRING::assignUtf8(std::string_view in) {
    s_.resize(in.size());
    s_.resize(decodeUtf8(in, s_.data()));
}

size_t STRING::decodeUtf8(std::string_view bytes, char16_t* out) { return ::decodeUtf8(bytes, out); }

std::string STRING::toUtf8(std::u16string_view text) {
    // ASCII text (the common case) is copied unit by unit into a buffer of
    // its final size; from the first other character on, bytes are appended.
    const size_t n = text.size();
    std::string out(n, '\0');
    size_t i = 0;
    char* const o = out.data();
    const char16_t* const in = text.data();
#ifdef __SSE2__
    for (; n - i >= 16; i += 16) {  // sixteen units at a time
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i + 8));
        const __m128i high = _mm_and_si128(_mm_or_si128(a, b), _mm_set1_epi16(static_cast<short>(0xFF80)));
        if (_mm_movemask_epi8(_mm_cmpeq_epi16(high, _mm_setzero_si128())) != 0xFFFF) break;
        _mm_storeu_si128(reinterpret_cast<__m128i*>(o + i), _mm_packus_epi16(a, b));
    }
#endif
    for (; n - i >= 8; i += 8) {  // eight units at a time
        uint64_t a, b;
        std::memcpy(&a, in + i, 8);
        std::memcpy(&b, in + i + 4, 8);
        if ((a | b) & 0xFF80FF80FF80FF80ull) break;
        for (int k = 0; k < 8; ++k) o[i + k] = static_cast<char>(in[i + k]);
    }
    for (; i < n && in[i] < 0x80; ++i) o[i] = static_cast<char>(in[i]);
    if (i == n) return out;
    out.resize(i);
    for (; i < n; ++i) {
        uint32_t cp = text[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < n && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00u);
            ++i;
        } else if (cp >= 0xD800 && cp <= 0xDFFF) {
            cp = kReplacement;
        }
        if (cp < 0x80) {
            out += static_cast<char>(cp);
        } else if (cp < 0x800) {
            out += static_cast<char>(0xC0 | (cp >> 6));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            out += static_cast<char>(0xE0 | (cp >> 12));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (cp >> 18));
            out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }
    return out;
}

size_t STRING::find(char16_t c, size_t from) const { return findUnit(s_, c, from); }

size_t STRING::findUnit(std::u16string_view s, char16_t c, size_t from) {
    const size_t n = s.size();
    if (from >= n) return npos;
    const char16_t* const p = s.data();
    size_t i = from;
#ifdef __SSE2__
    const __m128i wanted = _mm_set1_epi16(static_cast<short>(c));
    for (; n - i >= 8; i += 8) {  // eight units at a time
        const int hits =
            _mm_movemask_epi8(_mm_cmpeq_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i)), wanted));
        if (hits != 0) return i + static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(hits))) / 2;
    }
#endif
    for (; i < n; ++i)
        if (p[i] == c) return i;
    return npos;
}

STRING STRING::toLower() const {
    std::u16string out(s_);
    for (auto& c : out) c = lowerAscii(c);
    return STRING(std::move(out));
}

STRING STRING::toUpper() const {
    std::u16string out(s_);
    for (auto& c : out) c = upperAscii(c);
    return STRING(std::move(out));
}

int STRING::compareIgnoreCase(const STRING& o) const {
    const size_t n = s_.size() < o.s_.size() ? s_.size() : o.s_.size();
    for (size_t i = 0; i < n; ++i) {
        const char16_t a = lowerAscii(s_[i]);
        const char16_t b = lowerAscii(o.s_[i]);
        if (a != b) return a < b ? -1 : 1;
    }
    if (s_.size() == o.s_.size()) return 0;
    return s_.size() < o.s_.size() ? -1 : 1;
}

bool STRING::equalsIgnoreCase(const STRING& o) const {
    return s_.size() == o.s_.size() && compareIgnoreCase(o) == 0;
}

STRING STRING::trimLeft() const {
    size_t b = 0;
    while (b < s_.size() && isSpace(s_[b])) ++b;
    return STRING(s_.substr(b));
}

STRING STRING::trimRight() const {
    size_t e = s_.size();
    while (e > 0 && isSpace(s_[e - 1])) --e;
    return STRING(s_.substr(0, e));
}

STRING STRING::trim() const { return trimLeft().trimRight(); }

STRING STRING::trimLineEnd() const {
    size_t e = s_.size();
    while (e > 0 && (s_[e - 1] == u'\r' || s_[e - 1] == u'\n')) --e;
    return STRING(s_.substr(0, e));
}

bool STRING::startsWith(const STRING& p) const {
    return s_.size() >= p.s_.size() && s_.compare(0, p.s_.size(), p.s_) == 0;
}

bool STRING::endsWith(const STRING& p) const {
    return s_.size() >= p.s_.size() && s_.compare(s_.size() - p.s_.size(), p.s_.size(), p.s_) == 0;
}

STRING STRING::substr(size_t pos, size_t count) const {
    if (pos >= s_.size()) return STRING();
    return STRING(s_.substr(pos, count));
}

std::vector<STRING> STRING::split(char16_t sep, bool skipEmpty) const {
    std::vector<STRING> parts;
    size_t start = 0;
    while (true) {
        const size_t at = s_.find(sep, start);
        const size_t end = at == npos ? s_.size() : at;
        if (!(skipEmpty && end == start)) parts.emplace_back(s_.substr(start, end - start));
        if (at == npos) break;
        start = at + 1;
    }
    return parts;
}

STRING STRING::replaceAll(const STRING& what, const STRING& with) const {
    if (what.empty()) return *this;
    std::u16string out;
    size_t start = 0;
    while (true) {
        const size_t at = s_.find(what.s_, start);
        if (at == npos) break;
        out.append(s_, start, at - start);
        out += with.s_;
        start = at + what.s_.size();
    }
    out.append(s_, start, npos);
    return STRING(std::move(out));
}

int STRING::toInt() const {
    static const char16_t* const kOp = u"STRING::toInt()";
    if (s_.empty()) throw IDSException(EINVAL, kOp, u"empty string");
    size_t i = 0;
    bool negative = false;
    if (s_[0] == u'-') {
        if (s_.size() == 1) throw IDSException(EINVAL, kOp, u"string contains only a '-'");
        negative = true;
        i = 1;
    }
    while (i < s_.size() && s_[i] == u'0') ++i;
    long long value = 0;
    bool overflow = false;
    size_t j = i;
    for (; j < s_.size() && isDigit(s_[j]); ++j) {
        if (!overflow) {
            value = value * 10 + (s_[j] - u'0');
            if (value > 2147483648LL) overflow = true;
        }
    }
    if (j < s_.size()) {
        throw IDSException(EINVAL, kOp,
                           STRING(u"non string characters after number: <") + substr(j) +
                               u">, full string was :" + *this);
    }
    if (negative) value = -value;
    if (overflow || value > INT_MAX || value < INT_MIN) {
        throw IDSException(ERANGE, kOp, u"the number represented by the string is outside the range of INT");
    }
    return static_cast<int>(value);
}

int STRING::toIntLenient() const {
    size_t i = 0;
    while (i < s_.size() && isSpace(s_[i])) ++i;
    bool negative = false;
    if (i < s_.size() && (s_[i] == u'-' || s_[i] == u'+')) negative = s_[i++] == u'-';
    long long value = 0;
    for (; i < s_.size() && isDigit(s_[i]); ++i) {
        value = value * 10 + (s_[i] - u'0');
        if (value > 2147483648LL) break;
    }
    if (negative) value = -value;
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

STRING STRING::number(long long v) {
    return fromUtf8(std::to_string(v));
}

STRING STRING::unsignedNumber(unsigned long long v) {
    return fromUtf8(std::to_string(v));
}
