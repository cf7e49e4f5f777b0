// MessageSection: one section of a message to or from the management server.
//
// On the wire a section is three header lines, an empty line and a counted
// body, followed by one separating line feed:
//
//   Data-Format=<format>\n
//   Data-Type=<type>\n
//   Data-Length=<body bytes>\n
//   \n
//   <body>\n
//
// What the section holds depends on its format and type:
//   "text/plain" + "properties"  an ordered list of name-value pairs
//   "text/plain" + "stacktrace"  text (the server's error text)
//   "text/xml"                   text
//   "binary/zip"                 bytes
// The accessors for the other kinds of content exist on every section and
// are simply empty there.
#pragma once

#include <vector>

#include "comm/name_value_pair.h"
#include "foundation/array.h"
#include "foundation/string.h"

class AgentConfig;

class MessageSection {
public:
    // wide: a "properties" body is written as UTF-16LE code units when set,
    // in the narrow encoding of the string layer otherwise.
    MessageSection(STRING format, STRING type, bool wide = false);
    // The wide flag taken from the agent's character set setting.
    MessageSection(STRING format, STRING type, AgentConfig& config);

    // The character set word an agent announces for its configured one: the
    // configured word, or "UTF-8" when none is configured.
    static STRING effectiveCharset(const STRING& configured);
    // Whether text bodies go out wide for this configured character set:
    // anything but "UTF-8" (an unset one counts as "UTF-8").
    static bool isWideCharset(const STRING& configured);

    const STRING& format() const { return format_; }
    const STRING& type() const { return type_; }
    bool wide() const { return wide_; }

    // ---- Content

    const std::vector<NameValuePair>& pairs() const { return pairs_; }
    std::vector<NameValuePair>& pairs() { return pairs_; }
    void addPair(STRING name, STRING value) { pairs_.emplace_back(std::move(name), std::move(value)); }
    // The value of the first pair with this name; nullptr when there is none.
    const STRING* findValue(const STRING& name) const;

    const STRING& text() const { return text_; }
    void setText(STRING text) { text_ = std::move(text); }

    const ByteArray& bytes() const { return bytes_; }
    ByteArray& bytes() { return bytes_; }
    void setBytes(ByteArray bytes) { bytes_ = std::move(bytes); }

    // ---- Encoding

    // Appends the section's wire form (header lines, empty line, body and
    // the separating line feed) to out. The Data-Length is the body's byte
    // count; for "text/xml" the body is the narrow text plus one line feed,
    // and that line feed is counted. A "text/plain" section of a type other
    // than "properties" has an empty body. A section of an unknown format is
    // not written: only the separator goes out and false is returned.
    bool encode(ByteArray& out) const;

    // The body bytes alone, as encode() writes them.
    ByteArray body() const;

private:
    STRING format_;
    STRING type_;
    bool wide_ = false;
    std::vector<NameValuePair> pairs_;
    STRING text_;
    ByteArray bytes_;
};
