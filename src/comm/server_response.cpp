#include "comm/server_response.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <new>

#include "comm/protocol.h"

namespace {

// The bytes of one line from pos, and pos moved past its terminator. A line
// ends at CR or LF; CR LF and LF CR count as one terminator. At the end of
// the bytes the line is empty and pos stays.
std::string_view nextLine(std::string_view bytes, size_t& pos) {
    const size_t start = pos;
    while (pos < bytes.size() && bytes[pos] != '\r' && bytes[pos] != '\n') ++pos;
    const size_t end = pos;
    if (pos < bytes.size()) {
        const char first = bytes[pos++];
        const char other = first == '\r' ? '\n' : '\r';
        if (pos < bytes.size() && bytes[pos] == other) ++pos;
    }
    return bytes.substr(start, end - start);
}

// The text after "key" and its separator when the line contains the key.
bool headerValue(const STRING& line, const char16_t* key, STRING& value) {
    const STRING k(key);
    if (!line.contains(k)) return false;
    value = line.substr(k.length() + 1);
    return true;
}

}  // namespace

void ServerResponse::reset() {
    errorCode_ = 0;
    wide_ = false;
    errorText_.clear();
    errorContext_.clear();
    headers_.clear();
    sections_.clear();
    headerBusy_ = false;
    sectionBusy_ = false;
    body_.clear();
}

// ---- Header lines

void ServerResponse::addHeaderChunk(std::string_view chunk) {
    headerBusy_ = true;
    size_t pos = 0;
    while (pos < chunk.size()) {
        const std::string_view line = nextLine(chunk, pos);
        if (!line.empty()) parseHeaderLine(STRING::fromNarrow(line));
    }
    headerBusy_ = false;
}

void ServerResponse::parseHeaderLine(const STRING& line) {
    // The colon of a header is never its first character; this also leaves
    // the status line ("HTTP/1.1 200 OK") alone.
    const size_t colon = line.find(u':', 1);
    if (colon == STRING::npos) return;
    NameValuePair pair(line.substr(0, colon), line.substr(colon + 2));
    if (pair.name == STRING(protocol::kHeaderError)) errorCode_ = pair.value.toIntLenient();
    else if (pair.name == STRING(protocol::kHeaderCharset)) wide_ = pair.value == STRING(protocol::kCharsetWide);
    headers_.push_back(std::move(pair));
}

const STRING* ServerResponse::findHeader(const STRING& name) const {
    for (const auto& h : headers_)
        if (h.name == name) return &h.value;
    return nullptr;
}

void ServerResponse::addBodyChunk(std::string_view chunk) { body_.append(chunk.data(), chunk.size()); }

size_t ServerResponse::headerInput(char* data, size_t size, size_t count, void* response) {
    if (count != 0 && size > std::numeric_limits<size_t>::max() / count) return 0;
    const size_t n = size * count;
    try {
        static_cast<ServerResponse*>(response)->addHeaderChunk(std::string_view(data, n));
    } catch (const std::exception&) {
        return 0;
    }
    return n;
}

size_t ServerResponse::bodyInput(char* data, size_t size, size_t count, void* response) {
    if (count != 0 && size > std::numeric_limits<size_t>::max() / count) return 0;
    const size_t n = size * count;
    try {
        static_cast<ServerResponse*>(response)->addBodyChunk(std::string_view(data, n));
    } catch (const std::exception&) {
        return 0;
    }
    return n;
}

// ---- Body

void ServerResponse::parseBody() {
    sections_.clear();
    size_t offset = 0;
    while (offset < body_.length() && parseSection(offset)) {
    }
}

MessageSection& ServerResponse::appendSection(const STRING& format, const STRING& type) {
    sections_.push_back(std::make_unique<MessageSection>(format, type, wide_));
    return *sections_.back();
}

bool ServerResponse::parseSection(size_t& offset) {
    const std::string_view bytes(reinterpret_cast<const char*>(body_.data()), body_.length());

    std::string_view raw;
    while (raw.empty() && offset < bytes.size()) raw = nextLine(bytes, offset);
    if (raw.empty()) return false;
    STRING line = STRING::fromNarrow(raw);
    if (line == STRING(protocol::kEofFlag)) return false;

    sectionBusy_ = true;
    STRING format, type, value;
    long long count = 0;
    while (!line.empty()) {
        if (headerValue(line, protocol::kDataFormat, value)) format = value;
        else if (headerValue(line, protocol::kDataType, value)) type = value;
        else if (headerValue(line, protocol::kDataLength, value)) count = std::max(0, value.toIntLenient());
        line = STRING::fromNarrow(nextLine(bytes, offset));
    }
    sectionBusy_ = false;

    const size_t start = offset;
    const size_t available = bytes.size() - start;
    const size_t length = static_cast<size_t>(count);  // a 32-bit value at most
    const size_t present = std::min(length, available);

    if (format == STRING(protocol::kFormatTextPlain)) {
        if (type == STRING(protocol::kTypeProperties)) {
            MessageSection& s = appendSection(format, type);
            const size_t end = length > available ? bytes.size() : start + length;
            while (offset < end) {
                const STRING text = STRING::fromNarrow(nextLine(bytes, offset));
                if (text.empty() || text[0] == u'#') continue;
                const size_t eq = text.find(u'=');
                if (eq == STRING::npos) continue;
                s.addPair(text.substr(0, eq), text.substr(eq + 1));
            }
        } else if (type == STRING(protocol::kTypeStackTrace)) {
            STRING text;
            if (length == 0) {
                text = protocol::kNoServerErrorText;
            } else if (wide_) {
                std::u16string units(present / 2, u'\0');
                for (size_t i = 0; i < units.size(); ++i)
                    units[i] = static_cast<char16_t>(static_cast<uint8_t>(bytes[start + 2 * i]) |
                                                     static_cast<uint8_t>(bytes[start + 2 * i + 1]) << 8);
                text = STRING(std::move(units));
            } else {
                text = STRING::fromNarrow(bytes.substr(start, present));
            }
            offset = start + present;
            appendSection(format, type).setText(std::move(text));
        }
    } else if (format == STRING(protocol::kFormatTextXml)) {
        appendSection(format, type).setText(STRING::fromNarrow(bytes.substr(start, present)));
        offset = start + present;
    } else if (format == STRING(protocol::kFormatBinaryZip)) {
        if (type == STRING(protocol::kTypePolicy) || type == STRING(protocol::kTypeZipData)) {
            if (length > available) {
                offset = bytes.size();
                return false;
            }
            appendSection(format, type).setBytes(ByteArray(body_.data() + start, length));
            offset = start + length;
        }
    }
    return true;
}

// ---- Reading the reply

const ByteArray* ServerResponse::findBinaryByFlag(const STRING& flag) const {
    for (size_t i = 0; i < sections_.size(); ++i) {
        const MessageSection& s = *sections_[i];
        if (s.type() != STRING(protocol::kTypeProperties)) continue;
        const bool set = std::any_of(s.pairs().begin(), s.pairs().end(), [&](const NameValuePair& p) {
            return p.name == flag && p.value == STRING(protocol::kTrue);
        });
        if (!set || i + 1 >= sections_.size()) continue;
        const MessageSection& next = *sections_[i + 1];
        if (next.format() == STRING(protocol::kFormatBinaryZip) && next.type() != STRING(protocol::kTypeProperties))
            return &next.bytes();
    }
    return nullptr;
}

STRING ServerResponse::stackTrace() const {
    for (const auto& s : sections_)
        if (s->type() == STRING(protocol::kTypeStackTrace)) return s->text();
    return STRING();
}

STRING ServerResponse::errorDescription(const MessageSection& section) const {
    return section.type() + u"Error Code: " + STRING::number(errorCode_);
}
