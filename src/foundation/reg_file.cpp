#include "foundation/reg_file.h"

#include <algorithm>

namespace {

const char16_t kHeader5[] = u"Windows Registry Editor Version 5.00";
const char16_t kHeader4[] = u"REGEDIT4";

char16_t lowerAscii(char16_t c) { return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c + 32) : c; }

bool startsWithIgnoreCase(const std::u16string& s, size_t pos, std::u16string_view prefix) {
    if (pos > s.size() || s.size() - pos < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i)
        if (lowerAscii(s[pos + i]) != lowerAscii(prefix[i])) return false;
    return true;
}

// True when `path` is `base` itself or lies below it.
bool isSameOrBelow(const STRING& path, const STRING& base) {
    if (path.length() == base.length()) return path.equalsIgnoreCase(base);
    return path.length() > base.length() && path[base.length()] == u'\\' &&
           startsWithIgnoreCase(path.str(), 0, base.str());
}

bool isBlank(char16_t c) { return c == u' ' || c == u'\t'; }

int hexDigit(char16_t c) {
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'a' && c <= u'f') return c - u'a' + 10;
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    return -1;
}

// The whole file as UTF-16 text.
std::u16string decode(std::string_view bytes, bool& utf16) {
    utf16 = bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF &&
            static_cast<unsigned char>(bytes[1]) == 0xFE;
    if (utf16) {
        std::u16string out;
        out.reserve(bytes.size() / 2);
        for (size_t i = 2; i + 1 < bytes.size(); i += 2)  // an odd last byte is dropped
            out += static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                         static_cast<unsigned char>(bytes[i + 1]) << 8);
        return out;
    }
    if (bytes.size() >= 3 && bytes.substr(0, 3) == "\xEF\xBB\xBF") bytes.remove_prefix(3);
    return STRING::fromUtf8(bytes).str();
}

std::vector<std::u16string> splitLines(const std::u16string& text) {
    std::vector<std::u16string> lines;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(u'\n', start);
        if (end == std::u16string::npos) end = text.size();
        size_t e = end;
        while (e > start && text[e - 1] == u'\r') --e;
        lines.emplace_back(text, start, e - start);
        if (end == text.size()) break;
        start = end + 1;
    }
    return lines;
}

// Reads a quoted text starting at s[pos] == '"'. On success `pos` is just past
// the closing quote.
bool readQuoted(const std::u16string& s, size_t& pos, std::u16string& out) {
    out.clear();
    size_t i = pos + 1;
    while (i < s.size()) {
        const char16_t c = s[i];
        if (c == u'\\' && i + 1 < s.size() && (s[i + 1] == u'\\' || s[i + 1] == u'"')) {
            out += s[i + 1];
            i += 2;
            continue;
        }
        if (c == u'"') {
            pos = i + 1;
            return true;
        }
        out += c;
        ++i;
    }
    return false;
}

// True when nothing but blanks (and an optional ';' comment) follows.
bool onlyTrailer(const std::u16string& s, size_t pos) {
    while (pos < s.size() && isBlank(s[pos])) ++pos;
    return pos == s.size() || s[pos] == u';';
}

bool parseHexNumber(const std::u16string& s, size_t& pos, size_t maxDigits, uint32_t& value) {
    value = 0;
    size_t n = 0;
    while (pos < s.size() && hexDigit(s[pos]) >= 0) {
        if (++n > maxDigits) return false;
        value = value << 4 | static_cast<uint32_t>(hexDigit(s[pos]));
        ++pos;
    }
    return n > 0;
}

std::u16string stripComment(const std::u16string& s) {
    const size_t semi = s.find(u';');
    return semi == std::u16string::npos ? s : s.substr(0, semi);
}

std::u16string trimBlanks(const std::u16string& s) {
    size_t b = 0, e = s.size();
    while (b < e && isBlank(s[b])) ++b;
    while (e > b && isBlank(s[e - 1])) --e;
    return s.substr(b, e - b);
}

// Comma-separated bytes of one or two hex digits each; a trailing comma is allowed.
bool parseHexBytes(const std::u16string& text, std::vector<uint8_t>& out) {
    out.clear();
    const std::u16string t = trimBlanks(text);
    if (t.empty()) return true;
    size_t pos = 0;
    while (pos < t.size()) {
        size_t comma = t.find(u',', pos);
        const bool last = comma == std::u16string::npos;
        if (last) comma = t.size();
        const std::u16string token = trimBlanks(t.substr(pos, comma - pos));
        if (token.empty()) {
            // Only the very end may be empty ("0a,ff,").
            if (!last) return false;
            if (out.empty()) return false;
            break;
        }
        if (token.size() > 2) return false;
        int v = 0;
        for (char16_t c : token) {
            const int d = hexDigit(c);
            if (d < 0) return false;
            v = v * 16 + d;
        }
        out.push_back(static_cast<uint8_t>(v));
        if (last) break;
        pos = comma + 1;
        if (pos == t.size()) break;  // trailing comma
    }
    return true;
}

std::vector<uint8_t> utf16Bytes(const std::u16string& text) {
    std::vector<uint8_t> out;
    out.reserve(text.size() * 2);
    for (char16_t c : text) {
        out.push_back(static_cast<uint8_t>(c & 0xFF));
        out.push_back(static_cast<uint8_t>(c >> 8));
    }
    return out;
}

const char kHexDigits[] = "0123456789abcdef";

void appendHexByte(std::string& out, uint8_t b) {
    out += kHexDigits[b >> 4];
    out += kHexDigits[b & 0xF];
}

bool isTextType(uint32_t type) {
    return type == regtype::Sz || type == regtype::ExpandSz || type == regtype::MultiSz;
}

// UTF-16LE data as narrow (UTF-8) bytes, for hex(N) of a text type in a UTF-8
// file. An odd last byte and unpaired surrogates do not survive.
std::vector<uint8_t> narrowBytes(const std::vector<uint8_t>& data) {
    std::u16string text;
    for (size_t i = 0; i + 1 < data.size(); i += 2) text += static_cast<char16_t>(data[i] | data[i + 1] << 8);
    const std::string narrow = STRING(std::move(text)).toUtf8();
    return std::vector<uint8_t>(narrow.begin(), narrow.end());
}

bool hasLineBreak(const STRING& s) { return s.contains(u'\r') || s.contains(u'\n'); }

std::string escaped(const STRING& s) {
    std::u16string out;
    out.reserve(s.length());
    for (char16_t c : s.str()) {
        if (c == u'\\' || c == u'"') out += u'\\';
        out += c;
    }
    return STRING(std::move(out)).toUtf8();
}

// REG_SZ data that can be written as "text": one NUL-terminated UTF-16 text
// without other NULs, line breaks or unpaired surrogates.
bool cleanText(const std::vector<uint8_t>& data, std::u16string& text) {
    if (data.size() < 2 || data.size() % 2 != 0) return false;
    const size_t n = data.size() / 2;
    text.clear();
    for (size_t i = 0; i < n; ++i) {
        const auto c = static_cast<char16_t>(data[2 * i] | data[2 * i + 1] << 8);
        if (i + 1 == n) return c == 0;
        if (c == 0 || c == u'\r' || c == u'\n') return false;
        if (c >= 0xD800 && c <= 0xDBFF) {
            if (i + 2 >= n) return false;
            const auto d = static_cast<char16_t>(data[2 * i + 2] | data[2 * i + 3] << 8);
            if (d < 0xDC00 || d > 0xDFFF) return false;
            text += c;
            text += d;
            ++i;
            continue;
        }
        if (c >= 0xDC00 && c <= 0xDFFF) return false;
        text += c;
    }
    return false;
}

}  // namespace

std::vector<uint8_t> regStringBytes(const STRING& text) {
    std::vector<uint8_t> out = utf16Bytes(text.str());
    out.push_back(0);
    out.push_back(0);
    return out;
}

// ---- RegFileKey

RegFileValue* RegFileKey::findValue(const STRING& name) {
    for (auto& v : values)
        if (v.name.equalsIgnoreCase(name)) return &v;
    return nullptr;
}

const RegFileValue* RegFileKey::findValue(const STRING& name) const {
    for (const auto& v : values)
        if (v.name.equalsIgnoreCase(name)) return &v;
    return nullptr;
}

void RegFileKey::setValue(const STRING& name, uint32_t type, std::vector<uint8_t> data) {
    if (RegFileValue* v = findValue(name)) {
        v->type = type;
        v->data = std::move(data);
        return;
    }
    values.push_back(RegFileValue{name, type, std::move(data)});
}

bool RegFileKey::removeValue(const STRING& name) {
    for (auto it = values.begin(); it != values.end(); ++it) {
        if (it->name.equalsIgnoreCase(name)) {
            values.erase(it);
            return true;
        }
    }
    return false;
}

// ---- RegFile

STRING RegFile::normalizePath(const STRING& path) {
    std::u16string out;
    out.reserve(path.length());
    size_t i = 0;
    const std::u16string& s = path.str();
    while (i < s.size()) {
        size_t end = s.find(u'\\', i);
        if (end == std::u16string::npos) end = s.size();
        if (end > i) {
            if (!out.empty()) out += u'\\';
            out.append(s, i, end - i);
        }
        i = end + 1;
    }
    return STRING(std::move(out));
}

RegFileKey* RegFile::findKey(const STRING& path) {
    const STRING p = normalizePath(path);
    for (auto& k : keys_)
        if (k.path.equalsIgnoreCase(p)) return &k;
    return nullptr;
}

const RegFileKey* RegFile::findKey(const STRING& path) const {
    const STRING p = normalizePath(path);
    for (const auto& k : keys_)
        if (k.path.equalsIgnoreCase(p)) return &k;
    return nullptr;
}

bool RegFile::keyExists(const STRING& path) const {
    const STRING p = normalizePath(path);
    if (p.empty()) return false;
    for (const auto& k : keys_)
        if (isSameOrBelow(k.path, p)) return true;
    return false;
}

RegFileKey& RegFile::addKey(const STRING& path) {
    const STRING p = normalizePath(path);
    for (auto& k : keys_)
        if (k.path.equalsIgnoreCase(p)) return k;
    keys_.push_back(RegFileKey{p, {}});
    return keys_.back();
}

bool RegFile::removeTree(const STRING& path) {
    const STRING p = normalizePath(path);
    if (p.empty()) return false;
    const auto before = keys_.size();
    keys_.erase(std::remove_if(keys_.begin(), keys_.end(), [&](const RegFileKey& k) { return isSameOrBelow(k.path, p); }),
                keys_.end());
    return keys_.size() != before;
}

std::vector<STRING> RegFile::subkeyNames(const STRING& path) const {
    const STRING p = normalizePath(path);
    std::vector<STRING> names;
    for (const auto& k : keys_) {
        size_t start;
        if (p.empty()) {
            start = 0;
        } else {
            if (k.path.length() <= p.length() || !isSameOrBelow(k.path, p)) continue;
            start = p.length() + 1;
        }
        size_t end = k.path.find(u'\\', start);
        if (end == STRING::npos) end = k.path.length();
        STRING name = k.path.substr(start, end - start);
        bool seen = false;
        for (const auto& n : names)
            if (n.equalsIgnoreCase(name)) { seen = true; break; }
        if (!seen) names.push_back(std::move(name));
    }
    std::stable_sort(names.begin(), names.end(),
                     [](const STRING& a, const STRING& b) { return a.compareIgnoreCase(b) < 0; });
    return names;
}

bool RegFile::hasSubkeys(const STRING& path) const {
    const STRING p = normalizePath(path);
    if (p.empty()) return !keys_.empty();
    for (const auto& k : keys_)
        if (k.path.length() > p.length() && isSameOrBelow(k.path, p)) return true;
    return false;
}

namespace {

// The data of a value line after its "=" (from `pos` of line `i`): a
// string, a deletion ("-"), a dword, or hex bytes. Hex data may continue
// over the following lines: they are taken in whatever the outcome, so that
// they are not read as lines of their own (or a broken value's tail as
// stray lines), and `i` moves past them. False when the data does not parse.
struct ValueData {
    uint32_t type = 0;
    std::vector<uint8_t> data;
    bool remove = false;
};

bool parseValueData(const std::vector<std::u16string>& lines, size_t& i, size_t pos, bool utf16, ValueData& out) {
    const std::u16string& raw = lines[i];
    if (pos < raw.size() && raw[pos] == u'"') {
        std::u16string text;
        if (readQuoted(raw, pos, text) && onlyTrailer(raw, pos)) {
            out.type = regtype::Sz;
            out.data = regStringBytes(STRING(std::move(text)));
            return true;
        }
    } else if (pos < raw.size() && raw[pos] == u'-' && onlyTrailer(raw, pos + 1)) {
        out.remove = true;
        return true;
    } else if (startsWithIgnoreCase(raw, pos, u"dword:")) {
        pos += 6;
        uint32_t v = 0;
        if (parseHexNumber(raw, pos, 8, v) && onlyTrailer(raw, pos)) {
            out.type = regtype::DWord;
            out.data = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
                        static_cast<uint8_t>(v >> 24)};
            return true;
        }
    } else if (startsWithIgnoreCase(raw, pos, u"hex")) {
        pos += 3;
        bool typeOk = false;
        if (pos < raw.size() && raw[pos] == u':') {
            out.type = regtype::Binary;
            typeOk = true;
            ++pos;
        } else if (pos < raw.size() && raw[pos] == u'(') {
            ++pos;
            if (parseHexNumber(raw, pos, 8, out.type) && pos + 1 < raw.size() && raw[pos] == u')' &&
                raw[pos + 1] == u':') {
                typeOk = true;
                pos += 2;
            }
        }
        std::u16string hex = trimBlanks(stripComment(raw.substr(std::min(pos, raw.size()))));
        while (!hex.empty() && hex.back() == u'\\' && i + 1 < lines.size()) {
            hex.pop_back();
            ++i;
            hex += trimBlanks(stripComment(lines[i]));
        }
        if (!hex.empty() && hex.back() == u'\\') hex.pop_back();  // continued past the end
        if (typeOk && parseHexBytes(hex, out.data)) {
            if (!utf16 && isTextType(out.type)) {
                // Only a UTF-16 file holds text data as UTF-16; in any
                // other the bytes are narrow text.
                const std::string narrow(out.data.begin(), out.data.end());
                out.data = utf16Bytes(STRING::fromUtf8(narrow).str());
            }
            return true;
        }
    }
    return false;
}

}  // namespace

RegFile RegFile::parse(std::string_view bytes) {
    RegFile file;
    bool utf16 = false;
    const std::vector<std::u16string> lines = splitLines(decode(bytes, utf16));
    constexpr size_t kNoKey = static_cast<size_t>(-1);
    size_t current = kNoKey;
    size_t i = 0;
    if (!lines.empty()) {
        const std::u16string first = trimBlanks(lines[0]);
        if (first == kHeader5) { file.header_ = Header::Version5; i = 1; }
        else if (first == kHeader4) { file.header_ = Header::Regedit4; i = 1; }
    }
    for (; i < lines.size(); ++i) {
        const std::u16string& raw = lines[i];
        size_t pos = 0;
        while (pos < raw.size() && isBlank(raw[pos])) ++pos;
        if (pos == raw.size() || raw[pos] == u';') continue;

        if (raw[pos] == u'[') {
            current = kNoKey;
            const size_t close = raw.rfind(u']');
            if (close == std::u16string::npos || close <= pos) { ++file.skipped_; continue; }
            std::u16string inner = raw.substr(pos + 1, close - pos - 1);
            const bool remove = !inner.empty() && inner[0] == u'-';
            if (remove) inner.erase(0, 1);
            const STRING path = normalizePath(STRING(inner));
            if (path.empty()) { ++file.skipped_; continue; }
            if (remove) {
                file.removeTree(path);
            } else {
                current = static_cast<size_t>(&file.addKey(path) - file.keys_.data());
            }
            continue;
        }

        // A value line: "name"=... or @=...
        std::u16string name;
        if (raw[pos] == u'@') {
            ++pos;
        } else if (raw[pos] == u'"') {
            if (!readQuoted(raw, pos, name)) { ++file.skipped_; continue; }
        } else {
            ++file.skipped_;
            continue;
        }
        while (pos < raw.size() && isBlank(raw[pos])) ++pos;
        if (pos == raw.size() || raw[pos] != u'=') { ++file.skipped_; continue; }
        ++pos;
        while (pos < raw.size() && isBlank(raw[pos])) ++pos;

        ValueData value;
        const bool ok = parseValueData(lines, i, pos, utf16, value);
        if (!ok || current == kNoKey) { ++file.skipped_; continue; }
        RegFileKey& key = file.keys_[current];
        if (value.remove) key.removeValue(STRING(name));
        else key.setValue(STRING(std::move(name)), value.type, std::move(value.data));
    }
    return file;
}

std::string RegFile::write() const {
    std::string out = STRING(kHeader5).toUtf8();
    out += "\r\n\r\n";
    for (const auto& key : keys_) {
        if (hasLineBreak(key.path)) continue;  // cannot be written as a line
        out += '[';
        // "[-" starts a deletion; the reader drops the empty first component.
        if (key.path.startsWith(u"-")) out += '\\';
        out += key.path.toUtf8();
        out += "]\r\n";
        for (const auto& v : key.values) {
            if (hasLineBreak(v.name)) continue;
            std::string line = v.name.empty() ? std::string("@=") : "\"" + escaped(v.name) + "\"=";
            std::u16string text;
            if (v.type == regtype::Sz && cleanText(v.data, text)) {
                out += line + "\"" + escaped(STRING(text)) + "\"\r\n";
                continue;
            }
            if (v.type == regtype::DWord && v.data.size() == 4) {
                out += line + "dword:";
                for (int b = 3; b >= 0; --b) appendHexByte(out, v.data[static_cast<size_t>(b)]);
                out += "\r\n";
                continue;
            }
            if (v.type == regtype::Binary) {
                line += "hex:";
            } else {
                line += "hex(";
                bool digits = false;
                for (int shift = 28; shift >= 0; shift -= 4) {
                    const unsigned d = (v.type >> shift) & 0xF;
                    if (d != 0 || digits || shift == 0) {
                        line += kHexDigits[d];
                        digits = true;
                    }
                }
                line += "):";
            }
            const std::vector<uint8_t> bytes = isTextType(v.type) ? narrowBytes(v.data) : v.data;
            for (size_t b = 0; b < bytes.size(); ++b) {
                appendHexByte(line, bytes[b]);
                if (b + 1 < bytes.size()) {
                    line += ',';
                    if (line.size() > 76) {
                        out += line + "\\\r\n";
                        line = "  ";
                    }
                }
            }
            out += line + "\r\n";
        }
        out += "\r\n";
    }
    return out;
}
