// ServerResponse: the management server's reply to one request.
//
// The transport resets it before each transfer, feeds it the reply's header
// lines and body bytes as they arrive, and, once the transfer has ended and
// the reply's status is good, asks it to parse the body into sections.
//
// Header lines: a line that holds a colon at or after its second character
// becomes a pair; the value starts two characters after the colon (a colon
// and one blank are skipped, so "Corvane-Error:12" reads as "2").
// "Corvane-Error" sets the error code, "Corvane-Charset: UTF-16LE" makes
// error texts wide.
//
// Body: sections as MessageSection describes them, until "EOF_FLAG" or the
// end of the bytes. Only these are kept:
//   text/plain properties    the pairs (lines starting with '#' and lines
//                            without '=' are skipped; split at the first '=')
//   text/plain stacktrace    the error text (UTF-16LE when the reply is
//                            wide); an empty one reads as "Server did not
//                            return any error string."
//   text/xml                 the text
//   binary/zip policy|zipdata  the bytes
// A "binary/zip" section of any other type, a "text/plain" section of any
// other type and a section of an unknown format are not skipped: their body
// is read as the next section's header lines. Servers do not send such
// sections; the behaviour is part of the protocol and kept as it is.
//
// The parser never reads outside the received bytes. A counted text body
// that runs past the end is cut at the end; a binary body that runs past the
// end is dropped and ends the parse (half an archive is no use).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "comm/message_section.h"
#include "comm/name_value_pair.h"
#include "foundation/array.h"
#include "foundation/string.h"

class ServerResponse {
public:
    ServerResponse() = default;
    ServerResponse(const ServerResponse&) = delete;
    ServerResponse& operator=(const ServerResponse&) = delete;

    // Back to the state before a transfer: error code 0, not wide, no
    // headers, no sections, empty body.
    void reset();

    // ---- Input, while the transfer runs

    // One chunk of header lines, of any size (CR, LF, CR LF and LF CR end a
    // line).
    void addHeaderChunk(std::string_view chunk);
    // One chunk of the body; chunks are kept in arrival order.
    void addBodyChunk(std::string_view chunk);

    // The same as callbacks in the shape the HTTP client library calls them
    // (data, item size, item count, the ServerResponse). They return the
    // number of bytes taken; 0, which makes the client abort the transfer,
    // only when the bytes could not be stored.
    static size_t headerInput(char* data, size_t size, size_t count, void* response);
    static size_t bodyInput(char* data, size_t size, size_t count, void* response);

    // ---- After the transfer

    // Parses the body into sections (replacing any parsed before).
    void parseBody();

    // "Corvane-Error" of the reply; 0 when it had none.
    int errorCode() const { return errorCode_; }
    // The reply's "Corvane-Charset" was exactly "UTF-16LE".
    bool wide() const { return wide_; }

    // Every header line that held a colon, in arrival order.
    const std::vector<NameValuePair>& headers() const { return headers_; }
    // The value of the first header with this name; nullptr when none.
    const STRING* findHeader(const STRING& name) const;

    const ByteArray& body() const { return body_; }

    size_t sectionCount() const { return sections_.size(); }
    const MessageSection& section(size_t i) const { return *sections_.at(i); }

    // The bytes of the "binary/zip" section that follows the first
    // "properties" section holding flag = "true"; nullptr when there is none.
    const ByteArray* findBinaryByFlag(const STRING& flag) const;

    // The text of the first "stacktrace" section; empty when there is none.
    STRING stackTrace() const;

    // The log text describing a reply section: its type, "Error Code: " and
    // the reply's error code.
    STRING errorDescription(const MessageSection& section) const;

    // Reserved for the transport: an error text and its context, emptied by
    // reset().
    STRING& errorText() { return errorText_; }
    STRING& errorContext() { return errorContext_; }

    // Set while a header chunk, or a section's header lines, are parsed.
    bool headerBusy() const { return headerBusy_; }
    bool sectionBusy() const { return sectionBusy_; }

private:
    // Parses the section at offset; false when the message has ended.
    bool parseSection(size_t& offset);
    void parseHeaderLine(const STRING& line);
    MessageSection& appendSection(const STRING& format, const STRING& type);

    int errorCode_ = 0;
    bool wide_ = false;
    STRING errorText_;
    STRING errorContext_;
    std::vector<NameValuePair> headers_;
    std::vector<std::unique_ptr<MessageSection>> sections_;
    bool headerBusy_ = false;
    bool sectionBusy_ = false;
    ByteArray body_;
};
