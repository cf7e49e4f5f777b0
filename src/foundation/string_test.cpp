#include "foundation/string.h"

#include <gtest/gtest.h>

#include "foundation/format.h"
#include "testing/test_support.h"

namespace {

struct ToIntCase { const char16_t* text; bool ok; int value; const char16_t* message; };

TEST(StringToInt, AcceptsAndRejectsWithExactTexts) {
    const ToIntCase cases[] = {
        {u"0", true, 0, nullptr},
        {u"8443", true, 8443, nullptr},
        {u"-17", true, -17, nullptr},
        {u"000000000000000000042", true, 42, nullptr},
        {u"-0", true, 0, nullptr},
        {u"2147483647", true, 2147483647, nullptr},
        {u"-2147483648", true, -2147483647 - 1, nullptr},
        {u"", false, 0, u"empty string"},
        {u"-", false, 0, u"string contains only a '-'"},
        {u"12ab", false, 0, u"non string characters after number: <ab>, full string was :12ab"},
        {u"--5", false, 0, u"non string characters after number: <-5>, full string was :--5"},
        {u" 5", false, 0, u"non string characters after number: < 5>, full string was : 5"},
        {u"5 ", false, 0, u"non string characters after number: < >, full string was :5 "},
        {u"2147483648", false, 0, u"the number represented by the string is outside the range of INT"},
        {u"-2147483649", false, 0, u"the number represented by the string is outside the range of INT"},
        {u"99999999999999999999999", false, 0, u"the number represented by the string is outside the range of INT"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(STRING(c.text).toUtf8());
        int value = -1;
        const auto t = testing_support::thrownBy([&] { value = STRING(c.text).toInt(); });
        EXPECT_EQ(t.thrown, !c.ok);
        EXPECT_EQ(t.operation, STRING(c.ok ? u"" : u"STRING::toInt()"));
        EXPECT_EQ(t.message, STRING(c.ok ? u"" : c.message));
        EXPECT_EQ(value, c.ok ? c.value : -1);
    }
}

TEST(StringUtf8, RoundTripsAndReplacesInvalidSequences) {
    struct Case { std::string in; std::u16string wide; };
    // Valid text at every place of an ASCII run: LineReading.NonAsciiTextAtEveryPlaceOfAnAsciiRun.
    const Case cases[] = {
        {"a\xFF" "b", u"a\uFFFDb"},
        {"\xE2\x82" "A", u"\uFFFDA"},         // truncated sequence
        {"\xC0\xAF", u"\uFFFD"},             // overlong
        {"\xED\xA0\x80", u"\uFFFD"},         // encoded surrogate
        {"\xEF\xBB\xBFkey", u"\uFEFFkey"},   // a UTF-8 byte-order mark is just text
    };
    for (const auto& c : cases) {
        EXPECT_EQ(STRING::fromUtf8(c.in).str(), c.wide);
    }
    EXPECT_EQ(STRING(std::u16string(1, char16_t(0xD800))).toUtf8(), "\xEF\xBF\xBD");
}

TEST(StringOps, CaseTrimSplit) {
    EXPECT_TRUE(STRING(u"Agent.INI").equalsIgnoreCase(u"agent.ini"));
    EXPECT_FALSE(STRING(u"\u00c9").equalsIgnoreCase(u"\u00e9"));  // ASCII folding only
    EXPECT_EQ(STRING(u" \t a b \r\n").trim(), STRING(u"a b"));
    EXPECT_EQ(STRING(u"x\r\n\r\n").trimLineEnd(), STRING(u"x"));
    EXPECT_EQ(STRING(u"x\ry\n").trimLineEnd(), STRING(u"x\ry"));
    auto parts = STRING(u"a,,b,").split(u',', true);
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(parts[1], STRING(u"b"));
    EXPECT_EQ(STRING(u"a,,b,").split(u',', false).size(), 4u);
}

TEST(Format, PrintfConversions) {
    struct Case { STRING got; const char16_t* want; };
    const Case cases[] = {
        {formatString(u"port %d of %s", 8443, STRING(u"srv")), u"port 8443 of srv"},
        {formatString(u"%S|%ls|%hs", "narrow", u"wide", std::string("std")), u"narrow|wide|std"},
        {formatString(u"[%5d][%-5d][%05d]", 42, 42, 42), u"[   42][42   ][00042]"},
        {formatString(u"%02X:%02x", 10, 255), u"0A:ff"},
        {formatString(u"%llu %I64d %lu", 18446744073709551615ULL, -5LL, 7UL), u"18446744073709551615 -5 7"},
        {formatString(u"%2.2x", 0xa), u"0a"},
        {formatString(u"[%-6s][%6s][%.2s]", u"ab", u"ab", u"abcd"), u"[ab    ][    ab][ab]"},
        {formatString(u"100%% %c", u'x'), u"100% x"},
        {formatString(u"missing %d %s."), u"missing 0 ."},
        {formatString(u"tail %"), u"tail %"},
        {formatString(u"%.1f", 2.25), u"2.2"},
        // 32-bit values convert as printf converts int and unsigned int.
        {formatString(u"%4d|%d|%u|%x", 4294967295U, 2147483648U, -1, -2), u"  -1|-2147483648|4294967295|fffffffe"},
        {formatString(u"%d|%u", 4294967295ULL, -1LL), u"4294967295|18446744073709551615"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.got, STRING(c.want));
}

// Message texts come from a catalog file: a damaged one may ask for any
// width or precision, and must still give a message of bounded length,
// quickly and without arithmetic overflow.
TEST(Format, WidthAndPrecisionAreBounded) {
    struct Case { STRING got; size_t length; };
    const Case cases[] = {
        {formatString(u"%2147483647d", 1), 500},
        {formatString(u"%99999999999999999999d", 1), 500},
        {formatString(u"%-4294967297s|", u"x"), 501},
        {formatString(u"%.99999999999s", u"abc"), 3},
        {formatString(u"%.4294967296f", 1.0), 502},
        {formatString(u"%*d", 1 << 30, 7), 500},
        {formatString(u"%*x", -2147483647 - 1, 7), 500},
        {formatString(u"%.*s", 1LL << 40, u"abc"), 3},
        {formatString(u"%500d", 7), 500},
    };
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; ++i)
        EXPECT_EQ(cases[i].got.length(), cases[i].length) << "case " << i;
}

}  // namespace
