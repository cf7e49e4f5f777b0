#include "comm/message_section.h"

#include <string>

#include "comm/protocol.h"
#include "config/agent_config.h"

namespace {

void appendNarrow(ByteArray& out, const STRING& text) {
    const std::string bytes = text.toNarrow();
    out.append(bytes.data(), bytes.size());
}

// Two bytes per code unit, low byte first, no byte-order mark.
void appendUtf16le(ByteArray& out, const STRING& text) {
    for (char16_t c : text.str()) {
        out.append(static_cast<uint8_t>(c & 0xFF));
        out.append(static_cast<uint8_t>(c >> 8));
    }
}

}  // namespace

MessageSection::MessageSection(STRING format, STRING type, bool wide)
    : format_(std::move(format)), type_(std::move(type)), wide_(wide) {}

MessageSection::MessageSection(STRING format, STRING type, AgentConfig& config)
    : MessageSection(std::move(format), std::move(type), isWideCharset(config.getAgentCharset())) {}

STRING MessageSection::effectiveCharset(const STRING& configured) {
    return configured.empty() ? STRING(protocol::kCharsetDefault) : configured;
}

bool MessageSection::isWideCharset(const STRING& configured) {
    return effectiveCharset(configured) != STRING(protocol::kCharsetDefault);
}

const STRING* MessageSection::findValue(const STRING& name) const {
    for (const auto& p : pairs_)
        if (p.name == name) return &p.value;
    return nullptr;
}

ByteArray MessageSection::body() const {
    ByteArray out;
    if (format_ == STRING(protocol::kFormatTextPlain)) {
        if (type_ != STRING(protocol::kTypeProperties)) return out;
        for (const auto& p : pairs_) {
            const STRING line = p.name + u"=" + p.value + u"\n";
            if (wide_) appendUtf16le(out, line);
            else appendNarrow(out, line);
        }
    } else if (format_ == STRING(protocol::kFormatBinaryZip)) {
        out.append(bytes_);
    } else if (format_ == STRING(protocol::kFormatTextXml)) {
        appendNarrow(out, text_);
        out.append(static_cast<uint8_t>('\n'));
    }
    return out;
}

bool MessageSection::encode(ByteArray& out) const {
    const bool known = format_ == STRING(protocol::kFormatTextPlain) || format_ == STRING(protocol::kFormatBinaryZip) ||
                       format_ == STRING(protocol::kFormatTextXml);
    if (known) {
        const ByteArray content = body();
        const STRING header = STRING(protocol::kDataFormat) + u"=" + format_ + u"\n" + protocol::kDataType + u"=" +
                              type_ + u"\n" + protocol::kDataLength + u"=" +
                              STRING::unsignedNumber(content.length()) + u"\n\n";
        appendNarrow(out, header);
        out.append(content);
    }
    out.append(static_cast<uint8_t>('\n'));
    return known;
}
