// The message catalog: loading a catalog file (when it is read, and what a
// lookup then finds), the fields of a catalog line, and the masks of its
// records.
#include "foundation/message_catalog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "foundation/catalog_messages.h"
#include "testing/test_support.h"
#include "foundation/utils.h"

using testing_support::ScratchDir;
using testing_support::utf16le;
using testing_support::writeBytes;

namespace {

TEST(MessageCatalog, LoadingRules) {
    ScratchDir dir;
    const STRING path = dir.file("Message.txt");
    writeBytes(path,
               "# comment line\r\n"
               "#10001,MCON,INFO,TYPE,SEND,COMMENTED,\"not a record\"\r\n"
               "\r\n"
               "10112,MCOM,CRITICAL,TYPE,SEND,DRV_OPEN,\"first %d\"\r\n"
               "10300, MCON , INFO,TYPE,SEND,SET_OK,\"The %s setting, changed.\"\r\n"
               "10112,MCOM,WARNING,SEVERITY,DONT_SEND,DRV_OPEN,\"second %d\"\r\n"
               "10200,MCOM,INFO,TYPE,SEND,SIX\r\n"
               "10201,MCOM,INFO,TYPE,SEND,EIGHT,text,extra\r\n"
               "abc,MCOM,INFO,TYPE,SEND,NAN,text\r\n"
               "   10400,PSET,NOTICE,TYPE,SEND,DRV,\"say \"\"hi\"\"\"   \r\n");
    MessageCatalog cat;
    ASSERT_TRUE(cat.load(path));
    EXPECT_EQ(cat.size(), 3u);
    EXPECT_EQ(cat.find(10001), nullptr);
    EXPECT_EQ(cat.find(10200), nullptr);
    EXPECT_EQ(cat.find(10201), nullptr);
    ASSERT_NE(cat.find(10112), nullptr);
    EXPECT_EQ(cat.find(10112)->text, STRING(u"second %d"));
    EXPECT_EQ(cat.find(10112)->severity, STRING(u"WARNING"));
    EXPECT_EQ(cat.format(10112, 7), STRING(u"second 7"));
    ASSERT_NE(cat.find(10300), nullptr);
    EXPECT_EQ(cat.find(10300)->types, STRING(u"MCON"));
    EXPECT_EQ(cat.format(10300, u"port"), STRING(u"The port setting, changed."));
    ASSERT_NE(cat.find(10400), nullptr);
    EXPECT_EQ(cat.find(10400)->text, STRING(u"say \"hi\""));
    EXPECT_EQ(cat.format(99999, u"x", 3), STRING(u"Message 99999 is not in the message catalog x 3"));

    MessageCatalog missing;
    EXPECT_FALSE(missing.load(dir.file("absent.txt")));

    writeBytes(path, utf16le(u"10360,MCON,INFO,TYPE,SEND,EDIT_OK,\"Edit \u00e9 %s\"\r\n", true));
    MessageCatalog wide;
    ASSERT_TRUE(wide.load(path));
    EXPECT_EQ(wide.format(10360, u"a"), STRING(u"Edit \u00e9 a"));
}

// The mask texts of a record: words joined by ',', '|' or blanks, matched
// whole and in upper case only.
TEST(MessageCatalog, MaskTexts) {
    const std::pair<const char16_t*, uint32_t> types[] = {
        {u"MSTA,NET", 0x0011}, {u"*", 0xFFFF}, {u"", 0}, {u"MCOM|PSET", 0x0202}, {u"NET,MSTP", 0x0018},
        {u"XMSTP", 0}, {u"FILE", 0x3000}, {u"ACCESS SYSC BOP CRE DEST PMNT MCON", 0x0DE4}, {u"mcom", 0},
    };
    for (const auto& c : types) EXPECT_EQ(MessageType::fromText(c.first), c.second) << STRING(c.first);
    EXPECT_EQ(MessageType::fromText(MessageType::toText(0x1FFF)), 0x3FFFu);
    const std::pair<const char16_t*, uint32_t> severities[] = {{u"WARNING,CRITICAL", 6}, {u"*", 0xFF}, {u"info", 0}};
    for (const auto& c : severities) EXPECT_EQ(Severity::fromText(c.first), c.second) << STRING(c.first);
    EXPECT_EQ(Severity::toText(0x9), STRING(u"INFO,NOTICE"));
    EXPECT_EQ(filterModeFromText(u"severity"), 0);
    EXPECT_EQ(sendFlagToText(7), STRING(u"DONT_SEND"));
}

// The text of record NUMBER, or "(none)".
STRING textOf(const MessageCatalog& catalog, int number) {
    const CatalogRecord* r = catalog.find(number);
    return r ? r->text : STRING(u"(none)");
}

TEST(MessageCatalogOnFirstUse, TheFileIsReadAtTheFirstLookup) {
    ScratchDir dir;
    const STRING first = dir.file("first.txt");
    const STRING second = dir.file("second.txt");
    writeBytes(first, "10001,MCON,INFO,TYPE,SEND,ONE,\"one\"\r\n10002,MCON,INFO,TYPE,SEND,TWO,\"two\"\r\n");
    writeBytes(second, "10002,MCON,WARNING,TYPE,SEND,TWO,\"two again\"\r\n");
    MessageCatalog c;
    int pathAsked = 0;
    c.loadOnFirstUse([&] {
        ++pathAsked;
        return first;
    });
    EXPECT_EQ(pathAsked, 0);  // nothing is read before the first lookup
    EXPECT_EQ(textOf(c, 10001), STRING(u"one"));
    EXPECT_EQ(textOf(c, 10002), STRING(u"two"));
    EXPECT_EQ(pathAsked, 1);  // and it is read once
    // A later file adds to the records and replaces by number.
    c.loadOnFirstUse([&] { return second; });
    EXPECT_EQ(textOf(c, 10002), STRING(u"two again"));
    EXPECT_EQ(textOf(c, 10001), STRING(u"one"));
    // A file still waiting is read before the next one is named; loadPending
    // reads the last one now.
    MessageCatalog d;
    d.loadOnFirstUse([&] { return first; });
    d.loadOnFirstUse([&] { return second; });
    d.loadPending();
    writeBytes(second, "");
    EXPECT_EQ(textOf(d, 10001), STRING(u"one"));
    EXPECT_EQ(textOf(d, 10002), STRING(u"two again"));
}

TEST(MessageCatalogFields, QuotesCommasAndBlanks) {
    struct Case { const char16_t* line; std::vector<std::u16string> fields; };
    const Case cases[] = {
        {u"a,b", {u"a", u"b"}},
        {u" a , b ", {u"a", u"b"}},
        {u"\t x \t", {u"x"}},
        {u"", {u""}},
        {u"a,,b,", {u"a", u"", u"b", u""}},
        {u"\"x, y\",z", {u"x, y", u"z"}},
        // Blanks before the quote go; what follows the quote stays.
        {u" \"q\" ,w", {u"q ", u"w"}},
        {u"pre \"in\" post,x", {u"prein post", u"x"}},
        {u"  \"  spaced  \"  ", {u"  spaced    "}},
        {u"\"say \"\"hi\"\"\"", {u"say \"hi\""}},
        {u"\"\"", {u""}},
        {u"x,\"\",y", {u"x", u"", u"y"}},
        {u"\"a\"b\"c\"", {u"abc"}},
        {u"a\"b,c\"d, e", {u"ab,cd", u"e"}},
        {u"\"open, never closed", {u"open, never closed"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(STRING(c.line).toUtf8());
        std::vector<std::u16string> got;
        for (const STRING& f : MessageCatalog::splitFields(c.line)) got.push_back(f.str());
        EXPECT_EQ(got, c.fields);
    }
}

// The demo installation's catalog must not lose a record to a malformed line.
TEST(MessageCatalog, DemoCatalogHasNoSkippedLines) {
    const char* root = std::getenv("ZELIPS_SOURCE_DIR");
    const STRING path = STRING::fromUtf8(root ? root : ZELIPS_SOURCE_DIR) + u"/examples/demo/IPS/Message.txt";
    MessageCatalog cat;
    ASSERT_TRUE(cat.load(path));
    std::vector<STRING> lines;
    Utils::readLines(path, lines);
    size_t records = 0;
    for (const auto& l : lines)
        if (!l.trim().empty() && l.trim()[0] != u'#') ++records;
    EXPECT_EQ(cat.size(), records);
}

// Every message the program logs is in the demo installation's catalog,
// under its name, with a text that takes as many arguments as the code
// passes (catalog_messages.h; the logging calls check their side at
// compile time).
TEST(MessageCatalog, EveryNamedMessageIsInTheDemoCatalogWithItsArguments) {
    const char* root = std::getenv("ZELIPS_SOURCE_DIR");
    MessageCatalog cat;
    ASSERT_TRUE(cat.load(STRING::fromUtf8(root ? root : ZELIPS_SOURCE_DIR) + u"/examples/demo/IPS/Message.txt"));
    for (const catalog::Row& row : catalog::kAll) {
        SCOPED_TRACE(row.name);
        const CatalogRecord* r = cat.find(row.number);
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r->name, STRING::fromUtf8(row.name));
        int placeholders = 0;
        const std::u16string& text = r->text.str();
        for (size_t i = 0; i + 1 < text.size(); ++i) {
            if (text[i] != u'%') continue;
            if (text[i + 1] != u'%') ++placeholders;
            ++i;
        }
        EXPECT_EQ(placeholders, row.arguments) << r->text.toUtf8();
    }
}

}  // namespace
