// Requests as they go on the wire: header pairs, section encoding, the
// bulk-log body. Every expected byte string is written out by hand.
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "comm/https_message_generator.h"
#include "comm/protocol.h"
#include "config/agent_config.h"
#include "testing/test_support.h"

#ifdef __linux__
#include <unistd.h>
#endif

using testing_support::ScratchDir;
using testing_support::writeBytes;

namespace {

// A literal's bytes, zero bytes included.
template <size_t N>
std::string bin(const char (&text)[N]) {
    return std::string(text, N - 1);
}

std::string bytesOf(const ByteArray& a) { return std::string(reinterpret_cast<const char*>(a.data()), a.length()); }

ByteArray byteArray(const std::string& s) { return ByteArray(reinterpret_cast<const uint8_t*>(s.data()), s.size()); }

TEST(MessageHeaders, StandardPairsFollowTheAgentCharset) {
    struct Case {
        const char16_t* configured;
        const char16_t* announced;
        bool wide;
    };
    const Case cases[] = {
        {u"UTF-8", u"UTF-8", false},
        {u"UTF-16LE", u"UTF-16LE", true},
        // An agent with no charset set speaks the protocol's default.
        {u"", u"UTF-8", false},
        // Only the exact word is narrow.
        {u"utf-8", u"utf-8", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(STRING(c.configured).toUtf8());
        AgentConfig config(u"agent.ini");
        config.setAgentCharset(c.configured);
        HttpsMessageGenerator request(config);
        const std::vector<NameValuePair> expected = {
            {u"Corvane-Format-Version", u"1.0"},
            {u"Content-Type", u"application/x-corvane"},
            {u"Corvane-Charset", c.announced},
        };
        EXPECT_EQ(request.headers(), expected);
        EXPECT_EQ(request.wide(), c.wide);
        EXPECT_EQ(request.addProperties({}).wide(), c.wide);
    }
}

// How sections' header lines, bodies and separators come out.
TEST(MessageEncoding, Sections) {
    struct Case {
        const char* name;
        const char16_t* charset;
        std::function<void(HttpsMessageGenerator&)> fill;
        std::string expected;
    };
    const Case cases[] = {
        {"no sections: the end line alone", u"UTF-8", [](HttpsMessageGenerator&) {}, "EOF_FLAG\n"},
        {"two pairs in UTF-8", u"UTF-8",
         [](HttpsMessageGenerator& r) { r.addProperties({{u"a", u"1"}, {u"b", u"2"}}); },
         "Data-Format=text/plain\nData-Type=properties\nData-Length=8\n\na=1\nb=2\n\nEOF_FLAG\n"},
#ifndef _WIN32
        // The narrow encoding of this platform is UTF-8: the length counts bytes.
        {"narrow properties count bytes, not characters", u"UTF-8",
         [](HttpsMessageGenerator& r) { r.addProperties({{u"name", u"Jos\u00e9"}}); },
         "Data-Format=text/plain\nData-Type=properties\nData-Length=11\n\nname=Jos\xc3\xa9\n\nEOF_FLAG\n"},
#endif
        {"wide properties: UTF-16LE code units, no byte-order mark, headers stay narrow", u"UTF-16LE",
         [](HttpsMessageGenerator& r) { r.addProperties({{u"n", u"\u00e9x"}, {u"k", u"\u4e2d"}}); },
         std::string("Data-Format=text/plain\nData-Type=properties\nData-Length=18\n\n") +
             bin("n\0=\0\xe9\0x\0\n\0") + bin("k\0=\0\x2d\x4e\n\0") + "\nEOF_FLAG\n"},
        {"xml: ten bytes of text carry a length of eleven, for the line feed behind them", u"UTF-8",
         [](HttpsMessageGenerator& r) { r.addXml(u"policy", u"<p>abc</p>"); },
         "Data-Format=text/xml\nData-Type=policy\nData-Length=11\n\n<p>abc</p>\n\nEOF_FLAG\n"},
        {"binary bytes go as they are, zeros and line feeds included", u"UTF-8",
         [](HttpsMessageGenerator& r) { r.addBinary(u"policy", byteArray(bin("PK\0\n\r\xff"))); },
         "Data-Format=binary/zip\nData-Type=policy\nData-Length=6\n\n" + bin("PK\0\n\r\xff") + "\nEOF_FLAG\n"},
        {"binary is never widened", u"UTF-16LE",
         [](HttpsMessageGenerator& r) { r.addBinary(u"zipdata", byteArray("ab")); },
         "Data-Format=binary/zip\nData-Type=zipdata\nData-Length=2\n\nab\nEOF_FLAG\n"},
        {"a plain text section of another type has no body", u"UTF-8",
         [](HttpsMessageGenerator& r) {
             MessageSection& s = r.addSection(u"text/plain", u"stacktrace");
             s.setText(u"not sent");
             s.addPair(u"not", u"sent");
         },
         "Data-Format=text/plain\nData-Type=stacktrace\nData-Length=0\n\n\nEOF_FLAG\n"},
        {"a pair whose value holds '=' and an empty value", u"UTF-8",
         [](HttpsMessageGenerator& r) { r.addProperties({{u"x", u"a=b"}, {u"y", u""}}); },
         "Data-Format=text/plain\nData-Type=properties\nData-Length=9\n\nx=a=b\ny=\n\nEOF_FLAG\n"},
        {"a properties section without pairs", u"UTF-8", [](HttpsMessageGenerator& r) { r.addProperties({}); },
         "Data-Format=text/plain\nData-Type=properties\nData-Length=0\n\n\nEOF_FLAG\n"},
        {"sections keep their order", u"UTF-8",
         [](HttpsMessageGenerator& r) {
             r.addBinary(u"policy", byteArray("Z"));
             r.addProperties({{u"q", u"1"}});
         },
         "Data-Format=binary/zip\nData-Type=policy\nData-Length=1\n\nZ\n"
         "Data-Format=text/plain\nData-Type=properties\nData-Length=4\n\nq=1\n\nEOF_FLAG\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        HttpsMessageGenerator request{STRING(c.charset)};
        c.fill(request);
        EXPECT_EQ(bytesOf(request.serialise()), c.expected);
    }
}

// ---- Bulk-log body

TEST(BulkLog, BodyOfEmptyAndSmallFiles) {
    struct Case {
        const char* file;
        std::string content;
        std::string expected;
    };
    const Case cases[] = {
        // "file.name=empty.log\n" is 20 bytes.
        {"empty.log", "",
         "Data-Format=binary/zip\nData-Type=policy\nData-Length=0\n\n"
         "\nData-Format=text/plain\nData-Type=properties\nData-Length=20\n\nfile.name=empty.log\n\nEOF_FLAG\n"},
        // Seven bytes of log, a zero and line ends among them;
        // "file.name=agent-1.log\n" is 22 bytes.
        {"agent-1.log", bin("a\r\nb\0\nc"),
         std::string("Data-Format=binary/zip\nData-Type=policy\nData-Length=7\n\n") + bin("a\r\nb\0\nc") +
             "\nData-Format=text/plain\nData-Type=properties\nData-Length=22\n\nfile.name=agent-1.log\n\nEOF_FLAG\n"},
    };
    ScratchDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const STRING path = dir.file(c.file);
        writeBytes(path, c.content);
        HttpsMessageGenerator request(STRING(u"UTF-8"));
        request.setFilePath(path);
        std::unique_ptr<ByteArray> body = request.buildBulkLogMessage();
        ASSERT_NE(body, nullptr);
        EXPECT_EQ(bytesOf(*body), c.expected);
        EXPECT_EQ(request.builtLength(), c.expected.size());
    }
}

// A file that does not open, and (Linux) a pipe, which opens like a file but
// has no end to seek to.
TEST(BulkLog, UnreadableFileIsACommunicationError) {
    struct Case {
        STRING path;
        int code;
        STRING context, message;
    };
    ScratchDir dir;
    const STRING gone = dir.file("gone.log");
    std::vector<Case> cases = {
        {gone, ENOENT, u"FilePtr", STRING(u"Error Opening file : ") + gone + u" in mode rb"}};
#ifdef __linux__
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    const STRING pipePath = STRING::fromUtf8("/proc/self/fd/" + std::to_string(fds[0]));
    cases.push_back({pipePath, 1001, u"HttpsMessageGenerator::buildBulkLogMessage",
                     STRING(u"Could not determine file size ") + pipePath + u" . Error Code : " + STRING::number(ESPIPE)});
#endif
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path.toUtf8());
        HttpsMessageGenerator request(STRING(u"UTF-8"));
        request.setFilePath(c.path);
        try {
            request.buildBulkLogMessage();
            ADD_FAILURE() << "no exception";
        } catch (const CommException& e) {
            EXPECT_EQ(e.code(), c.code);
            EXPECT_EQ(e.context(), c.context);
            EXPECT_EQ(e.message(), c.message);
        }
        EXPECT_EQ(request.builtLength(), 0u);
    }
#ifdef __linux__
    close(fds[0]);
    close(fds[1]);
#endif
}

#ifdef __linux__
// A (sparse) file too large for a 32-bit body length.
TEST(BulkLog, BodyBeyond32BitsIsRefused) {
    ScratchDir dir;
    const STRING path = dir.file("huge.log");
    writeBytes(path, "");
    std::filesystem::resize_file(dir.path() / "huge.log", 5ull << 30);
    HttpsMessageGenerator request(STRING(u"UTF-8"));
    request.setFilePath(path);
    testing::internal::CaptureStdout();
    const std::unique_ptr<ByteArray> body = request.buildBulkLogMessage();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Unable to allocate memory for the buffer\n");
    EXPECT_EQ(body, nullptr);
    EXPECT_EQ(request.builtLength(), 0u);
}
#endif

TEST(BulkLog, BaseNameDropsTheFolders) {
    struct Case {
        const char16_t* path;
        const char16_t* name;
    };
    const Case cases[] = {
        {u"agent.log", u"agent.log"},
        {u"/var/log/zel/agent.log", u"agent.log"},
        {u"logs/", u""},
#ifdef _WIN32
        {u"C:\\Program Files\\IPS\\agent.log", u"agent.log"},
        {u"C:\\x/y\\z.log", u"z.log"},
#else
        // A backslash is an ordinary character of a file name here.
        {u"/tmp/a\\b.log", u"a\\b.log"},
#endif
    };
    for (const auto& c : cases) EXPECT_EQ(HttpsMessageGenerator::baseName(c.path), STRING(c.name)) << STRING(c.path);
}

}  // namespace
