#include "foundation/utils.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

#include "foundation/file_util.h"
#include "foundation/ids_exception.h"
#include "testing/test_support.h"

using testing_support::readBytes;
using testing_support::ScratchDir;
using testing_support::utf16le;
using testing_support::writeBytes;

namespace {

// The strict reader of name=value files.
TEST(Properties, StrictParseRules) {
    ScratchDir dir;
    const STRING emptyName = u"Error parsing name value pair, found empty name; malformed file: ";
    const STRING badHeader = u"Error while parsing file, malform section header  : ";
    struct Case {
        const char* label;
        std::string bytes;
        PropertyList want;              // pairs read before a failure stay in the list
        const char16_t* error = nullptr;  // the message after "<prefix><path>"
        const STRING* prefix = nullptr;
    };
    const Case cases[] = {
        {"only FF FE", "\xFF\xFE", {}},
        {"pairs and headers", "[Agent]\r\na=b=c\r\nempty=\r\n==x\r\n[]\r\n",
         {{u"a", u"b=c"}, {u"empty", u""}, {u"x", u""}}},
        {"whitespace kept", "name = value \r\n", {{u"name ", u" value "}}},
        {"last line without CR LF, duplicates kept", "k=1\nk=2", {{u"k", u"1"}, {u"k", u"2"}}},
        {"CR inside a value kept", "k=a\rb\r\n", {{u"k", u"a\rb"}}},
        {"UTF-16", utf16le(u"[S]\r\nk=\u20ac\r\nj=2\r\n", true), {{u"k", u"\u20ac"}, {u"j", u"2"}}},
        {"long line cut at 4095, next line read", "k=" + std::string(5000, 'x') + "\r\nn=1\r\n",
         {{u"k", std::u16string(4093, u'x')}, {u"n", u"1"}}},
        {"=== has no name", "a=1\r\n===\r\n", {{u"a", u"1"}}, u". Error in line : ===", &emptyName},
        {"blank line", "a=1\r\n\r\nb=2\r\n", {{u"a", u"1"}}, u". Error in line : ", &badHeader},
        {"leading blank header", " [Agent]\r\n", {}, u". Error in line :  [Agent]", &badHeader},
        {"comment without =", "# note\r\n", {}, u". Error in line : # note", &badHeader},
    };
    int i = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const STRING path = dir.file("case" + std::to_string(i++) + ".ini");
        writeBytes(path, c.bytes);
        PropertyList got;
        const auto t = testing_support::thrownBy([&] { Utils::getProperties(path, got); });
        EXPECT_EQ(t.code, c.error ? 17 : 0);
        EXPECT_EQ(t.message, c.error ? *c.prefix + path + c.error : STRING());
        EXPECT_EQ(got, c.want);
    }
}

TEST(Properties, CallFailures) {
    ScratchDir dir;
    const STRING missing = dir.file("absent.ini");
    PropertyList pairs;
    std::vector<STRING> lines;
    STRING line;
    const struct {
        std::function<void()> call;
        int code;  // 0: any but 0
        const char16_t* op;
        STRING message;
    } cases[] = {
        {[&] { Utils::getProperties(missing, pairs); }, 0, u"Utils::getProperties", u"Could not open file : " + missing},
        {[&] { Utils::readLines(missing, lines); }, 0, u"Utils::readLines", u"Could not open file : " + missing},
        {[&] { Utils::readLineBuffered(nullptr, line, false); }, -1, u"readLineBuffered", u"Error fp is NULL"},
    };
    for (const auto& c : cases) {
        const auto t = testing_support::thrownBy(c.call);
        EXPECT_EQ(t.operation, STRING(c.op));
        EXPECT_EQ(t.message, c.message);
        EXPECT_TRUE(c.code == 0 ? t.code != 0 : t.code == c.code) << t.code;
    }
}

TEST(Properties, ReadLinesKeepsBlankLinesAndCutsLongOnes) {
    ScratchDir dir;
    const STRING path = dir.file("lines.txt");
    writeBytes(path, "one\r\n\r\n" + std::string(4100, 'y') + "\nlast");
    std::vector<STRING> lines;
    Utils::readLines(path, lines);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], STRING(u"one"));
    EXPECT_EQ(lines[1], STRING());
    EXPECT_EQ(lines[2].length(), 4095u);
    EXPECT_EQ(lines[3], STRING(u"last"));
}

TEST(Properties, WritingAndByteOrderMarks) {
    ScratchDir dir;
    struct Case {
        const char* label;
        std::string before;  // "" and absent differ: see `exists`
        bool exists;
        bool utf16;
        bool append;
        std::vector<STRING> lines;
        std::string after;
    };
    const Case cases[] = {
        {"UTF-16 to an absent file", "", false, true, false, {u"a=1"}, utf16le(u"a=1\r\n", true)},
        {"UTF-16 appended to a file holding only FF FE", "\xFF\xFE", true, true, true, {u"a=1"},
         "\xFF\xFE" + utf16le(u"a=1\r\n", true)},
        {"UTF-16 appended to text", utf16le(u"x=0\r\n", true), true, true, true, {u"a=1"},
         utf16le(u"x=0\r\na=1\r\n", true)},
        {"UTF-16 replace of a non-empty file writes no mark", utf16le(u"x=0\r\n", true), true, true, false,
         {u"a=1"}, utf16le(u"a=1\r\n", false)},
        {"UTF-8 never writes a mark", "", false, false, false, {u"\u00e4=1", u""}, "\xC3\xA4=1\r\n\r\n"},
        {"UTF-8 append", "x=0\r\n", true, false, true, {u"a=1"}, "x=0\r\na=1\r\n"},
    };
    int i = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const STRING path = dir.file("w" + std::to_string(i++) + ".ini");
        if (c.exists) writeBytes(path, c.before);
        Utils::writeLines(path, c.lines, c.utf16, c.append);
        EXPECT_EQ(readBytes(path), c.after);
    }
}

// The probe for a UTF-16 mark leaves the stream where its text starts: after
// the mark, or at the start with every byte still to be read.
TEST(Properties, ProbeForTheUnicodeMark) {
    struct Case { const char* label; std::string bytes; bool utf16; std::string rest; };
    const Case cases[] = {
        {"empty", "", false, ""},
        {"one byte", "a", false, "a"},
        {"text", "a=1\r\n", false, "a=1\r\n"},
        {"FF alone", "\xFF", false, "\xFF"},
        {"FF and another byte", "\xFF\x41=1", false, "\xFF\x41=1"},
        {"the mark alone", "\xFF\xFE", true, ""},
        {"the mark and text", "\xFF\xFE\x61\x00", true, "\x61\x00"},
    };
    ScratchDir dir;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const STRING path = dir.file("probe.ini");
        writeBytes(path, c.bytes);
        FILE* fp = openFile(path, "rb");
        ASSERT_NE(fp, nullptr);
        EXPECT_EQ(Utils::probeUnicode(fp), c.utf16);
        EXPECT_EQ(std::ftell(fp), c.utf16 ? 2L : 0L);
        std::string rest;
        char buf[64];
        for (size_t n; (n = std::fread(buf, 1, sizeof buf, fp)) > 0;) rest.append(buf, n);
        EXPECT_EQ(rest, c.rest);
        std::fclose(fp);
    }
}

TEST(Properties, LineBreakFolding) {
    const std::pair<const char16_t*, const char16_t*> folds[] = {
        {u"a\r\nb", u"a#&nl!b"}, {u"a\nb\n", u"a#&nl!b#&nl!"}, {u"a\rb\r", u"a\rb\r"}, {u"\r\r\n", u"\r#&nl!"},
    };
    for (const auto& f : folds) {
        STRING out;
        Utils::foldLineBreaks(f.first, out);
        EXPECT_EQ(out, STRING(f.second));
    }
}

}  // namespace
