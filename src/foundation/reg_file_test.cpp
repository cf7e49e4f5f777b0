#include "foundation/reg_file.h"

#include <gtest/gtest.h>

#include "testing/test_support.h"

using testing_support::utf16le;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes wide(const std::u16string& text) {
    Bytes out;
    for (char16_t c : text) {
        out.push_back(static_cast<uint8_t>(c & 0xFF));
        out.push_back(static_cast<uint8_t>(c >> 8));
    }
    return out;
}

const std::string kHead = "Windows Registry Editor Version 5.00\r\n\r\n[HKEY_CURRENT_USER\\K]\r\n";

// Each line stands under [HKEY_CURRENT_USER\K], with a value after it that
// must never be swallowed, whatever happens to the line.
RegFile parseLine(const std::string& line) { return RegFile::parse(kHead + line + "\r\n\"after\"=\"1\"\r\n"); }

TEST(RegFileRead, ValueLines) {
    struct Case { const char* line; uint32_t type; Bytes data; const char16_t* name; };
    const Bytes text = wide(std::u16string(u"text") + u'\0');
    const Case cases[] = {
        {"\"a\"=\"text\"", 1, text, u"a"},
        {"\"a\"=\"x\\\\y\\\"z\"", 1, wide(std::u16string(u"x\\y\"z") + u'\0'), u"a"},
        {"\"a\"=\"keep \\q\"", 1, wide(std::u16string(u"keep \\q") + u'\0'), u"a"},
        {"\"a\"=\"\"", 1, Bytes{0, 0}, u"a"},
        {"\"q\\\"n\"=\"text\"", 1, text, u"q\"n"},
        {"@=\"text\"", 1, text, u""},
        {"\"a\" = \"text\" ; comment", 1, text, u"a"},
        {"\"a\"=\"caf\xC3\xA9\"", 1, wide(std::u16string(u"caf\u00e9") + u'\0'), u"a"},
        {"\"a\"=dword:0000000a", 4, Bytes{0x0a, 0, 0, 0}, u"a"},
        {"\"a\"=DWORD:FFFFFFFF", 4, Bytes{0xff, 0xff, 0xff, 0xff}, u"a"},
        {"\"a\"=dword:a", 4, Bytes{0x0a, 0, 0, 0}, u"a"},
        {"\"a\"=hex:0a,ff", 3, Bytes{0x0a, 0xff}, u"a"},
        {"\"a\"=hex: 0A , f ,", 3, Bytes{0x0a, 0x0f}, u"a"},
        {"\"a\"=hex:", 3, Bytes{}, u"a"},
        {"\"a\"=hex:0a,\\\r\n  ff,\\\r\n  01", 3, Bytes{0x0a, 0xff, 0x01}, u"a"},
        {"\"a\"=hex(b):01,00,00,00,00,00,00,00", 11, Bytes{1, 0, 0, 0, 0, 0, 0, 0}, u"a"},
        {"\"a\"=hex(100):01", 0x100, Bytes{1}, u"a"},
        // Text types in a UTF-8 file are narrow bytes.
        {"\"a\"=hex(2):25,41,25,00", 2, wide(std::u16string(u"%A%") + u'\0'), u"a"},
        {"\"a\"=hex(7):61,00,62,00,00", 7, wide(std::u16string(u"a\0b\0\0", 5)), u"a"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const RegFile f = parseLine(c.line);
        EXPECT_EQ(f.skippedLines(), 0u);
        ASSERT_EQ(f.keys().size(), 1u);
        const auto& values = f.keys()[0].values;
        ASSERT_EQ(values.size(), 2u);
        EXPECT_EQ(values[0].name, STRING(c.name));
        EXPECT_EQ(values[0].type, c.type);
        EXPECT_EQ(values[0].data, c.data);
        EXPECT_EQ(values[1].name, STRING(u"after"));
    }
    // Malformed lines are skipped alone.
    for (const char* line : {"\"a\"=dword:123456789", "\"a\"=dword:", "\"a\"=dword:zz", "\"a\"=dword:1 2",
                             "\"a\"=hex:0a,,ff", "\"a\"=hex:abc", "\"a\"=hex:,", "\"a\"=hex(x):00", "\"a\"=hex(2:00",
                             "\"a\"=hex(123456789):00", "\"a\"=\"unterminated", "\"a\"=\"x\" junk", "\"a\"", "\"a\"=",
                             "\"a", "a=b", "\"a\"=str:\"x\""}) {
        SCOPED_TRACE(line);
        const RegFile f = parseLine(line);
        EXPECT_EQ(f.skippedLines(), 1u);
        ASSERT_EQ(f.keys().size(), 1u);
        ASSERT_EQ(f.keys()[0].values.size(), 1u);
        EXPECT_EQ(f.keys()[0].values[0].name, STRING(u"after"));
    }
}

TEST(RegFileRead, KeysDeletionsCaseAndOrder) {
    const RegFile f = RegFile::parse(
        "Windows Registry Editor Version 5.00\r\n"
        "\"orphan\"=\"before any key\"\r\n"
        "; a comment\r\n"
        "[HKEY_CURRENT_USER\\A]\r\n"
        "\"First\"=\"1\"\r\n\"Second\"=\"2\"\r\n\"Gone\"=\"x\"\r\n"
        "[HKEY_CURRENT_USER\\A\\B]\r\n\"v\"=\"b\"\r\n"
        "[HKEY_CURRENT_USER\\A\\BC]\r\n\"v\"=\"bc\"\r\n"
        "[HKEY_CURRENT_USER\\A\\B\\Deep]\r\n"
        "[hkey_current_user\\a]\r\n"
        "\"FIRST\"=\"one\"\r\n"   // replaces First, keeps its name and place
        "\"gone\"=-\r\n"
        "[-HKEY_CURRENT_USER\\a\\b]\r\n"
        "\"lost\"=\"after a deletion\"\r\n"
        "[HKEY_CURRENT_USER\\\\C\\\\\\D\\]\r\n"
        "[HKEY_CURRENT_USER\\Broken\r\n"
        "\"lost\"=\"after a broken key line\"\r\n"
        "[]\r\n"
        "[-]\r\n");
    EXPECT_EQ(f.header(), RegFile::Header::Version5);
    EXPECT_EQ(f.skippedLines(), 6u);  // orphan, two lost values, broken key, [] and [-]
    ASSERT_EQ(f.keys().size(), 3u);
    EXPECT_EQ(f.keys()[0].path, STRING(u"HKEY_CURRENT_USER\\A"));
    ASSERT_EQ(f.keys()[0].values.size(), 2u);
    EXPECT_EQ(f.keys()[0].values[0].name, STRING(u"First"));
    EXPECT_EQ(f.keys()[0].values[0].data, wide(std::u16string(u"one") + u'\0'));
    EXPECT_EQ(f.keys()[0].values[1].name, STRING(u"Second"));
    EXPECT_EQ(f.keys()[1].path, STRING(u"HKEY_CURRENT_USER\\A\\BC"));  // a sibling that shares a prefix stays
    EXPECT_EQ(f.keys()[2].path, STRING(u"HKEY_CURRENT_USER\\C\\D"));
    EXPECT_FALSE(f.keyExists(u"HKEY_CURRENT_USER\\A\\B\\Deep"));
}

TEST(RegFileRead, EncodingsAndHeaders) {
    const std::u16string body =
        u"[HKEY_CURRENT_USER\\K]\r\n\"t\"=\"\u00e9t\u00e9\"\r\n\"e\"=hex(2):41,00,00,00\r\n";
    struct Case { const char* label; std::string bytes; RegFile::Header header; Bytes expandData; };
    const Bytes asUtf16 = wide(std::u16string(u"A\0", 2));     // the bytes as they stand
    const Bytes asNarrow = wide(std::u16string(u"A\0\0\0", 4));  // each byte widened
    const std::string utf8 = STRING(u"Windows Registry Editor Version 5.00\r\n" + body).toUtf8();
    std::string oddUtf16 = utf16le(u"Windows Registry Editor Version 5.00\n" + body, true) + "\x41";
    const Case cases[] = {
        {"UTF-8", utf8, RegFile::Header::Version5, asNarrow},
        {"UTF-8 with BOM", "\xEF\xBB\xBF" + utf8, RegFile::Header::Version5, asNarrow},
        {"UTF-8, LF only", STRING(u"Windows Registry Editor Version 5.00\n[HKEY_CURRENT_USER\\K]\n\"t\"=\"\u00e9t\u00e9\"\n"
                                  u"\"e\"=hex(2):41,00,00,00\n").toUtf8(),
         RegFile::Header::Version5, asNarrow},
        {"REGEDIT4", STRING(u"REGEDIT4\r\n" + body).toUtf8(), RegFile::Header::Regedit4, asNarrow},
        {"UTF-16LE", utf16le(u"Windows Registry Editor Version 5.00\r\n" + body, true), RegFile::Header::Version5,
         asUtf16},
        {"UTF-16LE, odd length", oddUtf16, RegFile::Header::Version5, asUtf16},
        {"no header", STRING(body).toUtf8(), RegFile::Header::Missing, asNarrow},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const RegFile f = RegFile::parse(c.bytes);
        EXPECT_EQ(f.header(), c.header);
        const RegFileKey* k = f.findKey(u"hkey_current_user\\k");
        ASSERT_NE(k, nullptr);
        ASSERT_NE(k->findValue(u"T"), nullptr);
        EXPECT_EQ(k->findValue(u"T")->data, wide(std::u16string(u"\u00e9t\u00e9") + u'\0'));
        ASSERT_NE(k->findValue(u"e"), nullptr);
        EXPECT_EQ(k->findValue(u"e")->data, c.expandData);
    }
}

TEST(RegFileRead, HostileInputNeverFails) {
    const std::string longText(1 << 20, 'x');
    const std::string cases[] = {
        "", "\xFF\xFE", "\xFF\xFE\x41", std::string("\0\0\0", 3), "@=hex:0a,\\", kHead + "\"a\"=hex:0a,\\",
        kHead + "\"a\"=hex:0a,\\\r\n\\\r\n\\", kHead + "\"a\"=\"\xC3\x28\xF0\x28\x8C\xBC\"",
        utf16le(u"Windows Registry Editor Version 5.00\r\n[HKEY_CURRENT_USER\\\xD800]\r\n\"\xDC00\"=\"\xD800\"\r\n", true),
        kHead + "\"" + longText,
        kHead + std::string(100000, '['),
        kHead + "\"a\"=hex:" + std::string(300000, ','),
    };
    for (const auto& bytes : cases) {
        SCOPED_TRACE(bytes.substr(0, 40));
        const RegFile f = RegFile::parse(bytes);
        RegFile::parse(f.write());
    }
    // A long line is read whole.
    const RegFile f = RegFile::parse(kHead + "\"big\"=\"" + longText + "\"\r\n");
    ASSERT_EQ(f.keys().size(), 1u);
    EXPECT_EQ(f.keys()[0].values.at(0).data.size(), 2 * longText.size() + 2);
}

TEST(RegFileWrite, WritesTheExportFormatAndReadsItBack) {
    RegFile f;
    f.addKey(u"HKEY_LOCAL_MACHINE\\SOFTWARE\\WOW6432Node\\Zel");
    f.addKey(u"HKEY_CURRENT_USER\\Empty");
    RegFileKey& k = *f.findKey(u"HKEY_LOCAL_MACHINE\\SOFTWARE\\WOW6432Node\\Zel");
    k.setValue(u"", 1, wide(std::u16string(u"default") + u'\0'));
    k.setValue(u"Quote\"Back\\", 1, wide(std::u16string(u"C:\\\"x\"") + u'\0'));
    k.setValue(u"Count", 4, Bytes{0x0a, 0, 0, 0});
    k.setValue(u"Bin", 3, Bytes{0x0a, 0xff});
    k.setValue(u"Exp", 2, wide(std::u16string(u"%A%") + u'\0'));
    k.setValue(u"Multi", 7, wide(std::u16string(u"a\0b\0\0", 5)));
    k.setValue(u"Lines", 1, wide(std::u16string(u"a\nb") + u'\0'));
    k.setValue(u"Short", 4, Bytes{1, 2});
    EXPECT_EQ(f.write(),
              "Windows Registry Editor Version 5.00\r\n\r\n"
              "[HKEY_LOCAL_MACHINE\\SOFTWARE\\WOW6432Node\\Zel]\r\n"
              "@=\"default\"\r\n"
              "\"Quote\\\"Back\\\\\"=\"C:\\\\\\\"x\\\"\"\r\n"
              "\"Count\"=dword:0000000a\r\n"
              "\"Bin\"=hex:0a,ff\r\n"
              "\"Exp\"=hex(2):25,41,25,00\r\n"
              "\"Multi\"=hex(7):61,00,62,00,00\r\n"
              "\"Lines\"=hex(1):61,0a,62,00\r\n"
              "\"Short\"=hex(4):01,02\r\n\r\n"
              "[HKEY_CURRENT_USER\\Empty]\r\n\r\n");

    // Everything the writer writes reads back as it was, long data included.
    Bytes big(1000);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<uint8_t>(i * 7);
    k.setValue(u"Big", 3, big);
    k.setValue(u"Unterminated", 1, wide(u"abc"));
    k.setValue(u"Unicode", 1, wide(std::u16string(u"\u00e9\U0001F600") + u'\0'));
    k.setValue(u"Quad", 11, Bytes{1, 2, 3, 4, 5, 6, 7, 8});
    const std::string text = f.write();
    for (size_t line = 0, pos = 0; pos < text.size(); ++line) {
        const size_t end = text.find("\r\n", pos);
        ASSERT_NE(end, std::string::npos);
        EXPECT_LE(end - pos, 80u) << "line " << line;
        pos = end + 2;
    }
    const RegFile back = RegFile::parse(text);
    ASSERT_EQ(back.keys().size(), f.keys().size());
    for (size_t i = 0; i < f.keys().size(); ++i) {
        EXPECT_EQ(back.keys()[i].path, f.keys()[i].path);
        ASSERT_EQ(back.keys()[i].values.size(), f.keys()[i].values.size());
        for (size_t j = 0; j < f.keys()[i].values.size(); ++j) {
            SCOPED_TRACE(f.keys()[i].values[j].name.toUtf8());
            EXPECT_EQ(back.keys()[i].values[j].name, f.keys()[i].values[j].name);
            EXPECT_EQ(back.keys()[i].values[j].type, f.keys()[i].values[j].type);
            EXPECT_EQ(back.keys()[i].values[j].data, f.keys()[i].values[j].data);
        }
    }
}

// What the writer writes must mean the same to the reader: a key path that
// starts with '-' must not come back as a deletion of that key.
TEST(RegFileWrite, WrittenKeysReadBackAsKeys) {
    const char* const inputs[] = {
        "[\\-]\r\n\"a\"=\"1\"\r\n",
        "[\\-HKEY_CURRENT_USER\\X]\r\n\"a\"=\"1\"\r\n",
        "[HKEY_CURRENT_USER\\-X]\r\n\"a\"=\"1\"\r\n",
    };
    for (const char* input : inputs) {
        SCOPED_TRACE(input);
        const RegFile first = RegFile::parse(std::string("Windows Registry Editor Version 5.00\r\n\r\n") + input);
        ASSERT_EQ(first.keys().size(), 1u);
        const std::string text = first.write();
        const RegFile back = RegFile::parse(text);
        EXPECT_EQ(back.skippedLines(), 0u);
        ASSERT_EQ(back.keys().size(), 1u);
        EXPECT_EQ(back.keys()[0].path, first.keys()[0].path);
        EXPECT_EQ(back.keys()[0].values.size(), 1u);
        EXPECT_EQ(back.write(), text);
    }
}

TEST(RegFileModel, ImpliedKeysSubkeysAndRemoval) {
    const RegFile f = RegFile::parse(
        "REGEDIT4\r\n[HKEY_CURRENT_USER\\Top\\beta\\x]\r\n[HKEY_CURRENT_USER\\Top\\Alpha]\r\n"
        "[HKEY_CURRENT_USER\\Top\\BETA\\y]\r\n[HKEY_CURRENT_USER\\Top\\gamma]\r\n[HKEY_CURRENT_USER\\Topper]\r\n");
    struct Case { const char16_t* path; bool exists; std::vector<STRING> subkeys; };
    const Case cases[] = {
        {u"HKEY_CURRENT_USER", true, {u"Top", u"Topper"}},
        {u"hkey_current_user\\top", true, {u"Alpha", u"beta", u"gamma"}},
        {u"HKEY_CURRENT_USER\\Top\\Beta", true, {u"x", u"y"}},
        {u"HKEY_CURRENT_USER\\Top\\\\gamma\\", true, {}},
        {u"HKEY_CURRENT_USER\\To", false, {}},
        {u"HKEY_CURRENT_USER\\Top\\delta", false, {}},
        {u"", false, {u"HKEY_CURRENT_USER"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(STRING(c.path).toUtf8());
        EXPECT_EQ(f.keyExists(c.path), c.exists);
        EXPECT_EQ(f.subkeyNames(c.path), c.subkeys);
        EXPECT_EQ(f.hasSubkeys(c.path), !c.subkeys.empty());
    }
    RegFile g = f;
    EXPECT_TRUE(g.removeTree(u"HKEY_CURRENT_USER\\TOP\\beta"));  // implied, removed with what is below
    EXPECT_FALSE(g.removeTree(u"HKEY_CURRENT_USER\\Top\\beta"));
    EXPECT_EQ(g.subkeyNames(u"HKEY_CURRENT_USER\\Top"), (std::vector<STRING>{u"Alpha", u"gamma"}));
    EXPECT_TRUE(g.keyExists(u"HKEY_CURRENT_USER\\Topper"));
}

}  // namespace
