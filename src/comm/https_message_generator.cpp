#include "comm/https_message_generator.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <new>
#include <string>

#include "comm/protocol.h"
#include "config/agent_config.h"
#include "foundation/console.h"
#include "foundation/file_util.h"
#include "foundation/log.h"

namespace {

constexpr char16_t kBulkLogLabel[] = u"HttpsMessageGenerator::buildBulkLogMessage";

std::string headerBlock(const char16_t* format, const char16_t* type, unsigned long long length) {
    return (STRING(protocol::kDataFormat) + u"=" + format + u"\n" + protocol::kDataType + u"=" + type + u"\n" +
            protocol::kDataLength + u"=" + STRING::unsignedNumber(length) + u"\n\n")
        .toNarrow();
}

// Closes the file on every way out of the builder.
class FileCloser {
public:
    explicit FileCloser(FILE* fp) : fp_(fp) {}
    ~FileCloser() { std::fclose(fp_); }
    FileCloser(const FileCloser&) = delete;
    FileCloser& operator=(const FileCloser&) = delete;

private:
    FILE* fp_;
};

}  // namespace

HttpsMessageGenerator::HttpsMessageGenerator(AgentConfig& config) { addStandardHeaders(config.getAgentCharset()); }

HttpsMessageGenerator::HttpsMessageGenerator(const STRING& charset) { addStandardHeaders(charset); }

void HttpsMessageGenerator::addStandardHeaders(const STRING& configuredCharset) {
    wide_ = MessageSection::isWideCharset(configuredCharset);
    addHeader(protocol::kHeaderFormatVersion, protocol::kFormatVersion);
    addHeader(protocol::kHeaderContentType, protocol::kContentType);
    addHeader(protocol::kHeaderCharset, MessageSection::effectiveCharset(configuredCharset));
}

void HttpsMessageGenerator::addGuid(const STRING& guid) { addHeader(protocol::kHeaderGuid, guid); }

MessageSection& HttpsMessageGenerator::addSection(std::unique_ptr<MessageSection> section) {
    sections_.push_back(std::move(section));
    return *sections_.back();
}

MessageSection& HttpsMessageGenerator::addSection(const STRING& format, const STRING& type) {
    return addSection(std::make_unique<MessageSection>(format, type, wide_));
}

MessageSection& HttpsMessageGenerator::addProperties(std::vector<NameValuePair> pairs) {
    MessageSection& s = addSection(protocol::kFormatTextPlain, protocol::kTypeProperties);
    s.pairs() = std::move(pairs);
    return s;
}

MessageSection& HttpsMessageGenerator::addXml(const STRING& type, const STRING& text) {
    MessageSection& s = addSection(protocol::kFormatTextXml, type);
    s.setText(text);
    return s;
}

MessageSection& HttpsMessageGenerator::addBinary(const STRING& type, ByteArray bytes) {
    MessageSection& s = addSection(protocol::kFormatBinaryZip, type);
    s.setBytes(std::move(bytes));
    return s;
}

ByteArray HttpsMessageGenerator::serialise() const {
    ByteArray out;
    for (const auto& s : sections_)
        if (!s->encode(out)) consoleWrite(u"Error : Unknown section \n");
    const std::string eof = (STRING(protocol::kEofFlag) + u"\n").toNarrow();
    out.append(eof.data(), eof.size());
    return out;
}

STRING HttpsMessageGenerator::baseName(const STRING& path) {
    for (size_t i = path.length(); i > 0; --i) {
        const char16_t c = path[i - 1];
        if (c == u'/' || c == pathSeparator()) return path.substr(i);
    }
    return path;
}

std::unique_ptr<ByteArray> HttpsMessageGenerator::buildBulkLogMessage() {
    static const char kMode[] = "rb";
    FILE* fp = openFile(filePath_, kMode);
    if (fp == nullptr) {
        const int err = errno;
        throw CommException(err, u"FilePtr",
                            STRING(u"Error Opening file : ") + filePath_ + u" in mode " + STRING::fromUtf8(kMode));
    }
    FileCloser closer(fp);

    long long size = -1;
    if (std::fseek(fp, 0, SEEK_END) == 0) size = std::ftell(fp);
    if (size < 0) {
        const int err = errno;
        throw CommException(
            kFileSizeError, kBulkLogLabel,
            STRING(u"Could not determine file size ") + filePath_ + u" . Error Code : " + STRING::number(err));
    }

    const std::string first =
        headerBlock(protocol::kFormatBinaryZip, protocol::kTypePolicy, static_cast<unsigned long long>(size));
    const std::string nameValue = (STRING(protocol::kFileName) + u"=" + baseName(filePath_) + u"\n").toNarrow();
    const std::string second = "\n" +
                               headerBlock(protocol::kFormatTextPlain, protocol::kTypeProperties, nameValue.size()) +
                               nameValue + "\n" + (STRING(protocol::kEofFlag) + u"\n").toNarrow();

    const unsigned long long total = first.size() + static_cast<unsigned long long>(size) + second.size();
    std::unique_ptr<ByteArray> buffer;
    if (total <= std::numeric_limits<uint32_t>::max() && total <= std::numeric_limits<size_t>::max()) {
        try {
            buffer = std::make_unique<ByteArray>(static_cast<size_t>(total));
        } catch (const std::bad_alloc&) {
            buffer.reset();
        }
    }
    if (!buffer) {
        consoleWrite(u"Unable to allocate memory for the buffer\n");
        return nullptr;
    }

    uint8_t* p = buffer->data();
    std::copy(first.begin(), first.end(), p);
    p += first.size();
    // The buffer is zeroed: a file that shrank since its size was taken
    // leaves zero bytes behind what could be read.
    std::fseek(fp, 0, SEEK_SET);
    const size_t got = std::fread(p, 1, static_cast<size_t>(size), fp);
    if (got != static_cast<size_t>(size))
        trace(kBulkLogLabel, u"Read %u of %lld bytes of %s", static_cast<unsigned long long>(got), size, filePath_);
    p += static_cast<size_t>(size);
    std::copy(second.begin(), second.end(), p);

    builtLength_ = static_cast<uint32_t>(total);
    return buffer;
}
