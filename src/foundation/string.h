// STRING: the wide text type of the whole program.
//
// Text is held as UTF-16 code units on every platform, so that comparisons,
// lengths and cuts are made on 16-bit characters everywhere, exactly as on
// Windows. Conversions to UTF-8 and to the platform's narrow encoding (UTF-8
// on Linux, the ANSI code page on Windows) are explicit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class STRING {
public:
    using Char = char16_t;
    static constexpr size_t npos = std::u16string::npos;

    STRING() = default;
    STRING(const char16_t* text) : s_(text ? text : u"") {}
    STRING(const char16_t* text, size_t count) : s_(text, count) {}
    STRING(std::u16string text) : s_(std::move(text)) {}
    STRING(std::u16string_view text) : s_(text) {}
    STRING(size_t count, char16_t c) : s_(count, c) {}
#ifdef _WIN32
    STRING(const wchar_t* text);
    STRING(const wchar_t* text, size_t count);
    const wchar_t* wc_str() const { return reinterpret_cast<const wchar_t*>(s_.c_str()); }
#endif

    // Conversions. Invalid UTF-8 becomes U+FFFD; unpaired surrogates become
    // U+FFFD on the way out.
    static STRING fromUtf8(std::string_view bytes);
    // The same conversion into this string, reusing its storage.
    void assignUtf8(std::string_view bytes);
    // The same conversion into `out`, which has room for bytes.size()
    // units; returns the units written.
    static size_t decodeUtf8(std::string_view bytes, char16_t* out);
    // The first unit c at or after `from` in a text; npos when there is none.
    static size_t findUnit(std::u16string_view text, char16_t c, size_t from = 0);
    static STRING fromNarrow(std::string_view bytes);
    std::string toUtf8() const { return toUtf8(s_); }
    std::string toNarrow() const { return toNarrow(s_); }
    static std::string toUtf8(std::u16string_view text);
    static std::string toNarrow(std::u16string_view text);
    // Native path/text for the C runtime of this platform.
#ifdef _WIN32
    std::wstring toNative() const { return std::wstring(wc_str(), s_.size()); }
#else
    std::string toNative() const { return toUtf8(); }
#endif

    const std::u16string& str() const { return s_; }
    std::u16string& str() { return s_; }
    const char16_t* c_str() const { return s_.c_str(); }
    size_t length() const { return s_.size(); }
    size_t size() const { return s_.size(); }
    bool empty() const { return s_.empty(); }
    void clear() { s_.clear(); }
    char16_t operator[](size_t i) const { return s_[i]; }
    char16_t& operator[](size_t i) { return s_[i]; }
    char16_t back() const { return s_.back(); }

    STRING& operator+=(const STRING& o) { s_ += o.s_; return *this; }
    STRING& operator+=(const char16_t* o) { s_ += o; return *this; }
    STRING& operator+=(char16_t c) { s_ += c; return *this; }
    friend STRING operator+(STRING a, const STRING& b) { a += b; return a; }
    friend STRING operator+(STRING a, const char16_t* b) { a += b; return a; }
    friend STRING operator+(const char16_t* a, const STRING& b) { return STRING(a) + b; }
    friend STRING operator+(STRING a, char16_t c) { a += c; return a; }

    friend bool operator==(const STRING& a, const STRING& b) { return a.s_ == b.s_; }
    friend bool operator!=(const STRING& a, const STRING& b) { return a.s_ != b.s_; }
    friend bool operator<(const STRING& a, const STRING& b) { return a.s_ < b.s_; }

    // ASCII-only case folding: other characters compare as they stand.
    STRING toLower() const;
    STRING toUpper() const;
    bool equalsIgnoreCase(const STRING& other) const;
    int compareIgnoreCase(const STRING& other) const;

    STRING trim() const;
    STRING trimLeft() const;
    STRING trimRight() const;
    // Removes every trailing CR and LF.
    STRING trimLineEnd() const;

    size_t find(const STRING& what, size_t from = 0) const { return s_.find(what.s_, from); }
    size_t find(char16_t c, size_t from = 0) const;
    size_t rfind(char16_t c, size_t from = npos) const { return s_.rfind(c, from); }
    bool contains(const STRING& what) const { return find(what) != npos; }
    bool contains(char16_t c) const { return find(c) != npos; }
    bool startsWith(const STRING& prefix) const;
    bool endsWith(const STRING& suffix) const;
    STRING substr(size_t pos, size_t count = npos) const;
    std::vector<STRING> split(char16_t separator, bool skipEmpty) const;
    STRING replaceAll(const STRING& what, const STRING& with) const;

    // Strict conversion to a 32-bit signed integer: an optional leading '-',
    // leading zeros skipped, decimal digits only. Throws IDSException naming
    // "STRING::toInt()" on anything else.
    int toInt() const;
    // The C runtime's lenient conversion: leading blanks, an optional sign
    // and the digits that follow; anything else gives 0, overflow saturates.
    int toIntLenient() const;

    static STRING number(long long value);
    static STRING unsignedNumber(unsigned long long value);

private:
    std::u16string s_;
};

// Stream-friendly output for test diagnostics.
#include <iosfwd>
std::ostream& operator<<(std::ostream& os, const STRING& s);
