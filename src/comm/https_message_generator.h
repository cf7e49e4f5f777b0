// HttpsMessageGenerator: one request to the management server.
//
// A request is a list of HTTP header pairs and a list of sections. On
// construction the header list receives, in this order:
//   Corvane-Format-Version: 1.0
//   Content-Type: application/x-corvane
//   Corvane-Charset: <the agent's character set, "UTF-8" when unset>
// The sender adds "Corvane-GUID" (addGuid) for every kind but register and
// testConnection, then posts either serialise() (every kind but bulk-log) or
// the buffer of buildBulkLogMessage() (bulk-log).
//
// serialise() writes each section (see MessageSection::encode) and then the
// line "EOF_FLAG\n". A section of an unknown format prints
// "Error : Unknown section \n" on standard output and is skipped.
//
// The bulk-log body uploads one log file as two sections:
//   Data-Format=binary/zip\nData-Type=policy\nData-Length=<file size>\n\n
//   <the file's bytes>
//   \nData-Format=text/plain\nData-Type=properties\nData-Length=<n>\n\n
//   file.name=<base name of the file>\n
//   \nEOF_FLAG\n
// where n counts the bytes of the "file.name=" line, its line feed included.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "comm/message_section.h"
#include "comm/name_value_pair.h"
#include "foundation/array.h"
#include "foundation/ids_exception.h"
#include "foundation/string.h"

class AgentConfig;

// A failure while building or exchanging a message: the code (a C library
// error number, or the program's own code), the context in which it
// happened and the text.
class CommException : public IDSException {
public:
    CommException(int code, STRING context, STRING message)
        : IDSException(code, std::move(context), std::move(message)) {}
    const STRING& context() const { return operation(); }
};

class HttpsMessageGenerator {
public:
    // The code of a log file whose size cannot be determined.
    static constexpr int kFileSizeError = 1001;

    // Headers and the wide flag of sections from the agent's configuration
    // ("agent.charset").
    explicit HttpsMessageGenerator(AgentConfig& config);
    // The same for a character set word given directly.
    explicit HttpsMessageGenerator(const STRING& charset);

    HttpsMessageGenerator(const HttpsMessageGenerator&) = delete;
    HttpsMessageGenerator& operator=(const HttpsMessageGenerator&) = delete;

    // Whether "properties" sections added here are written as UTF-16LE.
    bool wide() const { return wide_; }

    // ---- HTTP header pairs, in the order they are sent

    const std::vector<NameValuePair>& headers() const { return headers_; }
    void addHeader(STRING name, STRING value) { headers_.emplace_back(std::move(name), std::move(value)); }
    // Appends "Corvane-GUID" = guid.
    void addGuid(const STRING& guid);

    // ---- Sections, in the order they are sent

    // Appends an owned section (any format and type) and returns it.
    MessageSection& addSection(std::unique_ptr<MessageSection> section);
    // Appends an empty section with this request's wide flag, to be filled
    // through the returned reference (valid as long as the request).
    MessageSection& addSection(const STRING& format, const STRING& type);
    // "text/plain" "properties" with these pairs.
    MessageSection& addProperties(std::vector<NameValuePair> pairs);
    // "text/xml" of the given type with this text.
    MessageSection& addXml(const STRING& type, const STRING& text);
    // "binary/zip" of the given type ("policy", "zipdata") with these bytes.
    MessageSection& addBinary(const STRING& type, ByteArray bytes);

    size_t sectionCount() const { return sections_.size(); }
    const MessageSection& section(size_t i) const { return *sections_.at(i); }

    // The request body of every kind but bulk-log.
    ByteArray serialise() const;

    // ---- Bulk-log upload

    void setFilePath(const STRING& path) { filePath_ = path; }
    const STRING& filePath() const { return filePath_; }

    // Builds the bulk-log body for the file at filePath() and records its
    // length in builtLength(). Returns nullptr, after printing "Unable to
    // allocate memory for the buffer\n", when the buffer cannot be had.
    // Throws CommException when the file cannot be opened (context
    // "FilePtr", the errno as code) or its size cannot be determined
    // (kFileSizeError).
    std::unique_ptr<ByteArray> buildBulkLogMessage();
    uint32_t builtLength() const { return builtLength_; }

    // The file name part of a path (after the last directory separator).
    static STRING baseName(const STRING& path);

private:
    void addStandardHeaders(const STRING& configuredCharset);

    std::vector<std::unique_ptr<MessageSection>> sections_;
    std::vector<NameValuePair> headers_;
    bool wide_ = false;
    STRING filePath_;
    uint32_t builtLength_ = 0;
};
