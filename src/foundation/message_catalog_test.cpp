#include "foundation/message_catalog.h"

#include <gtest/gtest.h>

#include "foundation/test_support.h"
#include "foundation/utils.h"

#include <cstdlib>

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
}

TEST(MessageCatalog, ReadsUtf16Catalog) {
    ScratchDir dir;
    const STRING path = dir.file("Message.txt");
    writeBytes(path, utf16le(u"10360,MCON,INFO,TYPE,SEND,EDIT_OK,\"Edit \u00e9 %s\"\r\n", true));
    MessageCatalog cat;
    ASSERT_TRUE(cat.load(path));
    EXPECT_EQ(cat.format(10360, u"a"), STRING(u"Edit \u00e9 a"));
}

TEST(MessageCatalog, MasksAndFlags) {
    struct TypeCase { const char16_t* text; uint32_t mask; };
    const TypeCase types[] = {
        {u"MSTA,NET", 0x0011}, {u"*", 0xFFFF}, {u"", 0}, {u"MCOM|PSET", 0x0202},
        {u"MSTP", 0x0008}, {u"NET,MSTP", 0x0018}, {u"XMSTP", 0}, {u"FILE", 0x3000},
        {u"ACCESS SYSC BOP CRE DEST PMNT MCON", 0x0DE4},
    };
    for (const auto& c : types) EXPECT_EQ(MessageType::fromText(c.text), c.mask) << STRING(c.text);
    EXPECT_EQ(MessageType::toText(0x0011), STRING(u"MSTA,NET"));
    EXPECT_EQ(MessageType::fromText(MessageType::toText(0x1FFF)), 0x3FFFu);

    const std::pair<const char16_t*, uint32_t> severities[] = {
        {u"INFO", 1}, {u"WARNING,CRITICAL", 6}, {u"NOTICE", 8}, {u"*", 0xFF}, {u"", 0}, {u"info", 0},
    };
    for (const auto& c : severities) EXPECT_EQ(Severity::fromText(c.first), c.second) << STRING(c.first);
    EXPECT_EQ(Severity::toText(0x9), STRING(u"INFO,NOTICE"));

    EXPECT_EQ(filterModeFromText(u"SEVERITY"), 1);
    EXPECT_EQ(filterModeFromText(u"TYPE"), 0);
    EXPECT_EQ(filterModeFromText(u"severity"), 0);
    EXPECT_EQ(filterModeToText(1), STRING(u"SEVERITY"));
    EXPECT_EQ(sendFlagFromText(u"SEND"), 1);
    EXPECT_EQ(sendFlagFromText(u"DONT_SEND"), 0);
    EXPECT_EQ(sendFlagToText(1), STRING(u"SEND"));
    EXPECT_EQ(sendFlagToText(7), STRING(u"DONT_SEND"));
}

}  // namespace

namespace {

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
    for (int n : {10000, 10002, 10112, 10300, 10301, 10313, 10360, 10361, 10400, 10504}) EXPECT_NE(cat.find(n), nullptr) << n;
}

}  // namespace
