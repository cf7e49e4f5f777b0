// The digest over bytes given in pieces, and over UTF-16 text, against the
// one-call digest.
#include "foundation/md5.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/test_support.h"

namespace {

std::string bytesOf(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 7919u) >> 3);
    return s;
}

TEST(Md5, PiecesGiveTheDigestOfTheWhole) {
    struct Case {
        size_t size;
        std::vector<size_t> cuts;  // piece boundaries
    };
    // MD5 works in 64-byte blocks: cuts on, before and after block ends.
    const Case cases[] = {
        {0, {}}, {1, {0, 1}}, {63, {1}}, {64, {63}}, {65, {64}}, {200, {1, 64, 65, 127, 128}}, {100000, {4096, 50000}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.size);
        const std::string data = bytesOf(c.size);
        Md5 md5;
        size_t from = 0;
        for (size_t cut : c.cuts) {
            md5.update(data.data() + from, cut - from);
            from = cut;
        }
        md5.update(data.data() + from, data.size() - from);
        EXPECT_EQ(md5.hexDigest(), md5Hex(data.data(), data.size()));
    }
    EXPECT_EQ(Md5().hexDigest(), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(Md5, Utf16TextIsDigestedAsItsLittleEndianBytes) {
    // Sizes around the digest's own block (8 KB = 4096 units) and pieces
    // small and large.
    const size_t sizes[] = {0, 1, 4095, 4096, 4097, 9000, 70000};
    for (size_t size : sizes) {
        SCOPED_TRACE(size);
        std::u16string text(size, u'\0');
        for (size_t i = 0; i < size; ++i) text[i] = static_cast<char16_t>(0x20 + (i * 31) % 0xD700);
        const std::string bytes = testing_support::utf16le(text, false);
        const std::string want = md5Hex(bytes.data(), bytes.size());
        for (size_t piece : {size_t(1), size_t(3), size_t(5000), size_t(100000)}) {
            Utf16leMd5 md5;
            for (size_t at = 0; at < size; at += piece) md5.add(std::u16string_view(text).substr(at, piece));
            EXPECT_EQ(md5.hexDigest(), want) << "pieces of " << piece;
        }
    }
}

}  // namespace
