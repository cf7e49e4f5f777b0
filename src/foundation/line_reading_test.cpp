// Line reading and UTF-8 conversion at the edges the fast paths have: NUL
// bytes, line ends, broken sequences next to them, and non-ASCII text on
// either side of the eight-character steps of the ASCII runs.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "foundation/file_util.h"
#include "foundation/string.h"
#include "testing/test_support.h"
#include "foundation/utils.h"

using testing_support::ScratchDir;
using testing_support::writeBytes;

namespace {

struct LineCase {
    const char* label;
    std::string bytes;
    std::vector<std::pair<size_t, std::u16string>> lines;  // count returned, text
};

TEST(LineReading, NulAndLineEndsAreCutAsTheConvertedTextWouldBe) {
    const LineCase cases[] = {
        {"NUL ends the text", std::string("ab\0cd\r\nx\n", 9), {{7, u"ab"}, {2, u"x"}}},
        {"NUL first", std::string("\0abc\n", 5), {{5, u""}}},
        {"CR before the NUL is a line end then", std::string("a\r\0b\n", 5), {{5, u"a"}}},
        {"every trailing CR and LF", "a\r\r\n\nb", {{4, u"a"}, {1, u""}, {1, u"b"}}},
        {"lone CR inside", "a\rb\n", {{4, u"a\rb"}}},
        {"sequence broken by the line end", "\xE2\x82\r\nz\n", {{4, u"\uFFFD"}, {2, u"z"}}},
        {"sequence broken by a NUL", std::string("\xC3\0\xA9\n", 4), {{4, u"\uFFFD"}}},
        {"sequence cut at the end of the file", "ok\n\xF0\x9F\x98", {{3, u"ok"}, {3, u"\uFFFD"}}},
        {"four-byte sequence", "\xF0\x9F\x98\x80\n", {{5, u"\U0001F600"}}},
        {"line of 4095 bytes without its end", std::string(4095, 'q') + "rest\nnext\n",
         {{4095, std::u16string(4095, u'q')}, {5, u"next"}}},
        // The line end fills the reader's buffer: the next line is not swallowed.
        {"line of 4093 bytes and CR LF", std::string(4093, 'a') + "\r\nnext\r\n",
         {{4095, std::u16string(4093, u'a')}, {6, u"next"}}},
        {"line of 4094 bytes and LF", std::string(4094, 'q') + "\nnext", {{4095, std::u16string(4094, u'q')},
                                                                          {4, u"next"}}},
    };
    ScratchDir dir;
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const STRING path = dir.file("case" + std::to_string(n++));
        writeBytes(path, c.bytes);
        FILE* fp = openFile(path, "rb");
        ASSERT_NE(fp, nullptr);
        STRING line;
        for (const auto& want : c.lines) {
            EXPECT_EQ(Utils::readLineBuffered(fp, line, false), want.first);
            EXPECT_EQ(line.str(), want.second);
        }
        EXPECT_EQ(Utils::readLineBuffered(fp, line, false), 0u);
        EXPECT_TRUE(line.empty());
        std::fclose(fp);
    }
}

TEST(LineReading, TheBlockReaderGivesTheLinesOfTheLineReader) {
    // Lines across the reader's 64 KB blocks, NULs, CR, broken sequences,
    // overlong lines (cut at 4095 bytes) and a missing last line feed.
    std::string mixed;
    for (int i = 0; mixed.size() < 300000; ++i) {
        switch (i % 7) {
        case 0: mixed += "key." + std::to_string(i) + "=value\r\n"; break;
        case 1: mixed += std::string(static_cast<size_t>(4090 + i % 11), 'x') + "\n"; break;
        case 2: mixed += std::string("nul\0inside", 11) + "\r\n"; break;
        case 3: mixed += "\xC3\xA9t\xE2\x82\xAC\xFF\r\r\n"; break;
        case 4: mixed += "\n"; break;
        case 5: mixed += std::string(70000, 'y') + "\n"; break;
        default: mixed += "[Section " + std::to_string(i) + "]\n"; break;
        }
    }
    const std::string cases[] = {
        "", "a", "\n", "a\r\n", "no line feed at the end", std::string(65535, 'z') + "\n" + "tail",
        std::string(65536, 'z'), std::string(65536, 'z') + "\n", mixed, mixed + "last",
    };
    ScratchDir dir;
    int n = 0;
    for (const auto& bytes : cases) {
        const STRING path = dir.file("block" + std::to_string(n++));
        writeBytes(path, bytes);
        // Blocks of one byte, a few bytes, a page and the usual size.
        for (size_t block : {size_t(1), size_t(7), size_t(4096), size_t(65536)}) {
            if (block < 4096 && bytes.size() > 200000) continue;  // a byte at a time takes long
            SCOPED_TRACE("case " + std::to_string(n - 1) + ", block " + std::to_string(block));
            FILE* byLine = openFile(path, "rb");
            FILE* byBlock = openFile(path, "rb");
            ASSERT_NE(byLine, nullptr);
            ASSERT_NE(byBlock, nullptr);
            LineReader reader(byBlock, block);
            STRING want;
            STRING got;
            int lines = 0;
            for (;;) {
                const size_t count = Utils::readLineBuffered(byLine, want, false);
                ASSERT_EQ(reader.next(got), count) << "line " << lines;
                ASSERT_EQ(got, want) << "line " << lines;
                if (count == 0) break;
                ++lines;
            }
            EXPECT_EQ(reader.next(got), 0u);
            std::fclose(byLine);
            std::fclose(byBlock);
        }
    }
}

TEST(LineReading, NonAsciiTextAtEveryPlaceOfAnAsciiRun) {
    // "é" (C3 A9, U+00E9), "€" (E2 82 AC, U+20AC), an invalid byte and a
    // surrogate pair at each position of a run of 20 ASCII characters.
    struct Piece { const char* utf8; std::u16string utf16; bool roundTrips; };
    const Piece pieces[] = {
        {"\xC3\xA9", u"\u00e9", true},
        {"\xE2\x82\xAC", u"\u20ac", true},
        {"\xFF", u"\uFFFD", false},
        {"\xF0\x9F\x98\x80", u"\U0001F600", true},
    };
    for (const auto& p : pieces) {
        for (size_t at = 0; at <= 20; ++at) {
            SCOPED_TRACE(std::string(p.utf8) + " at " + std::to_string(at));
            const std::string ascii = "abcdefghijklmnopqrst";
            const std::string utf8 = ascii.substr(0, at) + p.utf8 + ascii.substr(at);
            std::u16string want;
            for (size_t i = 0; i < at; ++i) want += static_cast<char16_t>(ascii[i]);
            want += p.utf16;
            for (size_t i = at; i < ascii.size(); ++i) want += static_cast<char16_t>(ascii[i]);
            EXPECT_EQ(STRING::fromUtf8(utf8).str(), want);
            STRING reused(u"previous text that is longer than the new one");
            reused.assignUtf8(utf8);
            EXPECT_EQ(reused.str(), want);
            if (p.roundTrips) {
                EXPECT_EQ(STRING(want).toUtf8(), utf8);
            }
        }
    }
    // A unit that is not ASCII in either byte of a 16-bit step.
    EXPECT_EQ(STRING(u"abcdefg\u0100hijklmnop").toUtf8(), "abcdefg\xC4\x80hijklmnop");
    EXPECT_EQ(STRING(u"abcdefgh\u0080").toUtf8(), "abcdefgh\xC2\x80");
}

}  // namespace
