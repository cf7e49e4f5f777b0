// Replies from the management server: header lines, sections, the error
// text, downloads found by their flag, and replies cut short or with counts
// that do not fit. (Random replies are the server_response fuzz target's.)
#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "comm/protocol.h"
#include "comm/server_response.h"

namespace {

// A literal's bytes, zero bytes included.
template <size_t N>
std::string bin(const char (&text)[N]) {
    return std::string(text, N - 1);
}

std::string bytesOf(const ByteArray& a) { return std::string(reinterpret_cast<const char*>(a.data()), a.length()); }

// A reply section with the right Data-Length for its body.
std::string section(const std::string& format, const std::string& type, const std::string& body) {
    return "Data-Format=" + format + "\nData-Type=" + type + "\nData-Length=" + std::to_string(body.size()) + "\n\n" +
           body + "\n";
}
std::string props(const std::string& body) { return section("text/plain", "properties", body); }

std::string escaped(const std::string& bytes) {
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
        } else {
            out += std::string("\\x") + hex[c >> 4] + hex[c & 15];
        }
    }
    return out;
}

void feed(ServerResponse& r, const std::string& headers, const std::string& body) {
    r.addHeaderChunk(headers);
    r.addBodyChunk(body);
    r.parseBody();
}

// "format type{content}" per section: pairs as {name=value}, text quoted,
// bytes as <...>, with control bytes written \xNN.
std::string describe(const ServerResponse& r) {
    std::string out;
    for (size_t i = 0; i < r.sectionCount(); ++i) {
        const MessageSection& s = r.section(i);
        out += (out.empty() ? "" : " ") + s.format().toUtf8() + " " + s.type().toUtf8();
        if (s.format() == STRING(u"binary/zip")) {
            out += "<" + escaped(bytesOf(s.bytes())) + ">";
        } else if (s.type() == STRING(u"properties")) {
            for (const auto& p : s.pairs()) out += "{" + escaped(p.name.toUtf8()) + "=" + escaped(p.value.toUtf8()) + "}";
            if (s.pairs().empty()) out += "{}";
        } else {
            out += "\"" + escaped(s.text().toUtf8()) + "\"";
        }
    }
    return out;
}

TEST(ReplyHeaders, ErrorCodeCharsetAndPairs) {
    struct Case {
        const char* name;
        std::vector<std::string> chunks;
        int error;
        bool wide;
        std::vector<NameValuePair> pairs;
    };
    const Case cases[] = {
        {"status line skipped, one chunk per line",
         {"HTTP/1.1 500 Internal Server Error\r\n", "Corvane-Error: 12\r\n", "Content-Length: 0\r\n", "\r\n"}, 12,
         false, {{u"Corvane-Error", u"12"}, {u"Content-Length", u"0"}}},
        {"without the blank, the value starts one character late", {"Corvane-Error:12\r\n"}, 2, false,
         {{u"Corvane-Error", u"2"}}},
        {"no digits", {"Corvane-Error: none\r\n"}, 0, false, {{u"Corvane-Error", u"none"}}},
        {"negative code", {"Corvane-Error: -4\r\n"}, -4, false, {{u"Corvane-Error", u"-4"}}},
        {"code too large for 32 bits saturates", {"Corvane-Error: 99999999999\r\n"}, INT_MAX, false,
         {{u"Corvane-Error", u"99999999999"}}},
        {"names compare exactly", {"corvane-error: 5\r\ncorvane-charset: UTF-16LE\r\n"}, 0, false,
         {{u"corvane-error", u"5"}, {u"corvane-charset", u"UTF-16LE"}}},
        {"several lines in one chunk; the last error line wins",
         {"Corvane-Error: 300\r\nCorvane-Charset: UTF-16LE\r\nCorvane-Error: 301\r\n"}, 301, true,
         {{u"Corvane-Error", u"300"}, {u"Corvane-Charset", u"UTF-16LE"}, {u"Corvane-Error", u"301"}}},
        {"charset must be exact", {"Corvane-Charset: utf-16le\r\n"}, 0, false, {{u"Corvane-Charset", u"utf-16le"}}},
        {"charset with a trailing blank", {"Corvane-Charset: UTF-16LE \r\n"}, 0, false,
         {{u"Corvane-Charset", u"UTF-16LE "}}},
        {"charset without the blank loses its first letter", {"Corvane-Charset:UTF-16LE\r\n"}, 0, false,
         {{u"Corvane-Charset", u"TF-16LE"}}},
        {"LF CR, CR alone and an unterminated last line", {"A: 1\n\rB: 2\rC: 3"}, 0, false,
         {{u"A", u"1"}, {u"B", u"2"}, {u"C", u"3"}}},
        {"a leading colon does not count", {":x: 1\r\n:\r\n"}, 0, false, {{u":x", u"1"}}},
        {"value past the end of the line is empty", {"a:\r\nab:c\r\n"}, 0, false, {{u"a", u""}, {u"ab", u""}}},
        {"blank lines only", {"\r\n\r\n\n\n\r\r"}, 0, false, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ServerResponse r;
        for (const auto& chunk : c.chunks) r.addHeaderChunk(chunk);
        EXPECT_EQ(r.errorCode(), c.error);
        EXPECT_EQ(r.wide(), c.wide);
        EXPECT_EQ(r.headers(), c.pairs);
        EXPECT_FALSE(r.headerBusy());
    }
}

TEST(ReplyHeaders, CallbacksTakeEveryByte) {
    ServerResponse r;
    char header[] = "Corvane-Error: 7\r\n";
    EXPECT_EQ(ServerResponse::headerInput(header, 1, sizeof header - 1, &r), sizeof header - 1);
    EXPECT_EQ(r.errorCode(), 7);
    char body[] = "abcdef";
    EXPECT_EQ(ServerResponse::bodyInput(body, 2, 3, &r), 6u);
    EXPECT_EQ(ServerResponse::bodyInput(body, 1, 0, &r), 0u);
    EXPECT_EQ(bytesOf(r.body()), "abcdef");
    // A byte count that overflows is refused without touching the data.
    EXPECT_EQ(ServerResponse::bodyInput(body, SIZE_MAX, 2, &r), 0u);
    EXPECT_EQ(r.body().length(), 6u);
}

TEST(ReplySections, Parse) {
    struct Case {
        const char* name;
        std::string body;
        std::string expected;
    };
    const std::string embedded = props("z=9\n");
    const Case cases[] = {
        {"properties: comments, blank lines, '=' in values, lines without '='",
         "Data-Format=text/plain\r\nData-Type=properties\r\nData-Length=50\r\n\r\n"
         "#comment\r\na=1\r\n\r\nurl=http://x/?q=1\r\nnoequals\r\n=v\r\n\r\nEOF_FLAG\r\n",
         "text/plain properties{a=1}{url=http://x/?q=1}{=v}"},
        {"CR line ends", "Data-Format=text/plain\rData-Type=properties\rData-Length=4\r\rk=v\r\rEOF_FLAG\r",
         "text/plain properties{k=v}"},
        {"LF CR line ends",
         "Data-Format=text/plain\n\rData-Type=properties\n\rData-Length=5\n\r\n\rk=v\n\r\n\rEOF_FLAG\n\r",
         "text/plain properties{k=v}"},
        {"flag and download; nothing after EOF_FLAG is read",
         props("update.policy=true\n") + section("binary/zip", "policy", bin("P\nK\0\n")) + "EOF_FLAG\n" +
             section("text/xml", "policy", "<late/>"),
         "text/plain properties{update.policy=true} binary/zip policy<P\\x0aK\\x00\\x0a>"},
        {"zipdata is kept, blank lines before a section are skipped",
         "\n\n\r\n" + section("binary/zip", "zipdata", "ZD") + "EOF_FLAG\n", "binary/zip zipdata<ZD>"},
        {"xml: the counted bytes are the text", section("text/xml", "policy", "<x/>\n") + "EOF_FLAG\n",
         "text/xml policy\"<x/>\\x0a\""},
        {"header lines in another order, unknown header lines ignored",
         "Data-Length=3\nX-Note=1\nData-Type=properties\nData-Format=text/plain\n\nk=v\n\nEOF_FLAG\n",
         "text/plain properties{k=v}"},
        {"no Data-Length: an empty body, whose lines are then read as headers",
         "Data-Format=text/plain\nData-Type=properties\n\nk=v\n\nEOF_FLAG\n", "text/plain properties{}"},
        {"no EOF_FLAG: what was read stands", props("a=1\n"), "text/plain properties{a=1}"},
        {"a binary type other than policy and zipdata derails: its body is read as section headers",
         section("binary/zip", "logrule", embedded) + props("a=1\n") + "EOF_FLAG\n",
         "text/plain properties{z=9} text/plain properties{a=1}"},
        {"plain text of another type is not skipped either", section("text/plain", "note", embedded) + "EOF_FLAG\n",
         "text/plain properties{z=9}"},
        {"only EOF_FLAG", "EOF_FLAG\n", ""},
        {"empty body", "", ""},
        // Counts that do not fit the reply.
        {"binary length beyond 32 bits", "Data-Format=binary/zip\nData-Type=policy\nData-Length=99999999999\n\nPK\n",
         ""},
        {"binary length at the limit of 32 bits",
         "Data-Format=binary/zip\nData-Type=zipdata\nData-Length=4294967295\n\nPK\n", ""},
        {"negative length reads as an empty body",
         "Data-Format=binary/zip\nData-Type=policy\nData-Length=-5\n\n\nEOF_FLAG\n", "binary/zip policy<>"},
        {"digits followed by junk", "Data-Format=binary/zip\nData-Type=policy\nData-Length=2xyz\n\nPK\nEOF_FLAG\n",
         "binary/zip policy<PK>"},
        {"properties longer than the reply read to its end",
         "Data-Format=text/plain\nData-Type=properties\nData-Length=2147483647\n\na=1\nb=2",
         "text/plain properties{a=1}{b=2}"},
        {"stacktrace with a zero byte, longer than the reply",
         "Data-Format=text/plain\nData-Type=stacktrace\nData-Length=1000\n\n" + bin("A\0B"),
         "text/plain stacktrace\"A\\x00B\""},
        {"ends inside the header lines", "Data-Format=binary/zip\nData-Type=pol", ""},
        {"ends right after the header lines", "Data-Format=binary/zip\nData-Type=policy\nData-Length=3\n\n", ""},
        {"header keys without a value", "Data-Format\nData-Type\nData-Length\n\nEOF_FLAG\n", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ServerResponse r;
        feed(r, "", c.body);
        EXPECT_EQ(describe(r), c.expected);
    }
}

TEST(ReplySections, StackTraceText) {
    struct Case {
        const char* name;
        std::string headers;
        std::string body;
        std::u16string text;
    };
    const std::string wide = "Corvane-Charset: UTF-16LE\r\n";
    const std::string wideText = bin("A\0b\0\xe9\0");  // "Ab\u00e9" as UTF-16LE
    const char16_t* none = u"Server did not return any error string.";
    const Case cases[] = {
        {"narrow", "", section("text/plain", "stacktrace", "java.lang.Error: db, down"), u"java.lang.Error: db, down"},
        {"empty", "", section("text/plain", "stacktrace", ""), none},
        {"no length", "", "Data-Format=text/plain\nData-Type=stacktrace\n\nlost\n", none},
        {"wide", wide, section("text/plain", "stacktrace", wideText), u"Ab\u00e9"},
        {"wide, odd count: the last half unit is dropped", wide, section("text/plain", "stacktrace", wideText + "x"),
         u"Ab\u00e9"},
        {"wide, longer than the reply: cut at its end", wide,
         "Data-Format=text/plain\nData-Type=stacktrace\nData-Length=1000\n\n" + bin("A\0B\0C"), u"AB"},
        {"wide bytes in a narrow reply are not decoded as UTF-16", "", section("text/plain", "stacktrace", bin("A\0b\0")),
         std::u16string(u"A\0b\0", 4)},
        {"the first stacktrace section counts", "",
         props("k=v\n") + section("text/plain", "stacktrace", "first") + section("text/plain", "stacktrace", "second"),
         u"first"},
        {"none", "", props("k=v\n"), u""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ServerResponse r;
        feed(r, c.headers, c.body);
        EXPECT_EQ(r.stackTrace(), STRING(c.text));
    }

    ServerResponse r;
    feed(r, "Corvane-Error: 301\r\n", section("text/plain", "stacktrace", "bad policy"));
    ASSERT_EQ(r.sectionCount(), 1u);
    EXPECT_EQ(r.errorDescription(r.section(0)), STRING(u"stacktraceError Code: 301"));
}

TEST(ReplySections, FindBinaryByFlag) {
    struct Case {
        const char* name;
        std::string body;
        const char16_t* flag;
        const char* found;  // nullptr: nothing found
    };
    const std::string policy = section("binary/zip", "policy", "P1");
    const Case cases[] = {
        {"flag then download", props("update.policy=true\n") + policy, u"update.policy", "P1"},
        {"among other pairs",
         props("a=b\nupdate.software=true\nupdate.policy=true\n") + section("binary/zip", "zipdata", "S"),
         u"update.policy", "S"},
        {"value must be exactly true", props("update.policy=TRUE\n") + policy, u"update.policy", nullptr},
        {"another flag", props("update.software=true\n") + policy, u"update.policy", nullptr},
        {"flag in the last section", policy + props("update.policy=true\n"), u"update.policy", nullptr},
        {"the next section must be binary",
         props("update.policy=true\n") + section("text/xml", "policy", "<x/>") + policy, u"update.policy", nullptr},
        {"an unflagged download is passed over",
         props("update.policy=false\n") + policy + props("update.policy=true\n") + section("binary/zip", "policy", "P2"),
         u"update.policy", "P2"},
        {"a flagged section followed by another flagged one",
         props("update.qel=true\n") + props("update.qel=true\n") + section("binary/zip", "zipdata", "Q"), u"update.qel",
         "Q"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ServerResponse r;
        feed(r, "", c.body);
        const ByteArray* bytes = r.findBinaryByFlag(c.flag);
        EXPECT_EQ(bytes ? bytesOf(*bytes) : "(none)", c.found ? c.found : "(none)");
    }
}

TEST(ReplySections, ResetForgetsTheLastReply) {
    ServerResponse r;
    feed(r, "Corvane-Error: 9\r\nCorvane-Charset: UTF-16LE\r\n", props("a=1\n"));
    r.errorText() = u"text";
    r.errorContext() = u"context";
    ASSERT_EQ(r.sectionCount(), 1u);

    r.reset();
    EXPECT_EQ(r.errorCode(), 0);
    EXPECT_FALSE(r.wide());
    EXPECT_TRUE(r.headers().empty());
    EXPECT_EQ(r.sectionCount(), 0u);
    EXPECT_EQ(r.body().length(), 0u);
    EXPECT_EQ(r.errorText(), STRING());
    EXPECT_EQ(r.errorContext(), STRING());

    r.addBodyChunk("Data-Format=text/plain\n");
    r.addBodyChunk("Data-Type=properties\nData-Length=4\n\nb=2\n");
    r.parseBody();
    r.parseBody();  // parsing twice gives the same sections
    EXPECT_EQ(describe(r), "text/plain properties{b=2}");
}

// Every way of cutting a good reply short: a download is whole or empty,
// texts are beginnings of the real ones, nothing is read past the end.
TEST(ReplySections, EveryTruncation) {
    const std::string download = bin("PK\3\4\n\nData-Format=text/plain\n\0\xff");
    const std::string full = props("update.policy=true\nrid.applied=42\n") + section("binary/zip", "policy", download) +
                             section("text/plain", "stacktrace", "server said no") +
                             section("text/xml", "policy", "<policy/>") + "EOF_FLAG\n";
    for (size_t n = 0; n <= full.size(); ++n) {
        SCOPED_TRACE(n);
        ServerResponse r;
        feed(r, "", full.substr(0, n));
        ASSERT_LE(r.sectionCount(), 4u);
        for (size_t i = 0; i < r.sectionCount(); ++i) {
            const MessageSection& s = r.section(i);
            if (s.format() == STRING(u"binary/zip")) {
                // Empty when cut before the digits of its Data-Length.
                EXPECT_TRUE(s.bytes().length() == 0 || bytesOf(s.bytes()) == download) << escaped(bytesOf(s.bytes()));
            } else if (s.type() == STRING(u"stacktrace")) {
                // Cut inside its Data-Length line, the count reads as 0.
                EXPECT_TRUE(STRING(u"server said no").startsWith(s.text()) ||
                            s.text() == STRING(u"Server did not return any error string."))
                    << s.text();
            } else if (s.format() == STRING(u"text/xml")) {
                EXPECT_TRUE(STRING(u"<policy/>\n").startsWith(s.text())) << s.text();
            }
        }
    }
}

}  // namespace
