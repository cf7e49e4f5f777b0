#include "foundation/large_pages.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace {

using LargeText = std::basic_string<char16_t, std::char_traits<char16_t>, LargeBufferAllocator<char16_t>>;

// Text that grows from a few bytes past the large-buffer size keeps every
// unit, whichever kind of memory each step of the growth came from, and a
// copy is equal to its original.
TEST(LargeBuffer, GrowingTextKeepsItsContent) {
    for (const size_t units : {size_t(7), kLargeBufferBytes / 2 - 3, kLargeBufferBytes / 2 + 5, 3 * kLargeBufferBytes}) {
        SCOPED_TRACE(units);
        LargeText text;
        for (size_t i = 0; i < units; ++i) text.push_back(static_cast<char16_t>(u'a' + i % 26));
        ASSERT_EQ(text.size(), units);
        size_t wrong = 0;
        for (size_t i = 0; i < units; ++i) wrong += text[i] != static_cast<char16_t>(u'a' + i % 26);
        EXPECT_EQ(wrong, 0u);
        const LargeText copy = text;
        EXPECT_TRUE(copy == text);
        text.clear();
        text.shrink_to_fit();
        EXPECT_EQ(copy.size(), units);
    }
}

#ifndef _WIN32
// A large buffer starts on a 2 MB boundary: only then can the system back
// it with large pages from its first byte.
TEST(LargeBuffer, LargeBuffersStartOnALargePage) {
    for (const size_t bytes : {kLargeBufferBytes, kLargeBufferBytes + 1, 5 * kLargeBufferBytes + 4095}) {
        void* p = allocateBufferMemory(bytes);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % (uintptr_t(2) << 20), 0u) << bytes;
        static_cast<char*>(p)[0] = 1;
        static_cast<char*>(p)[bytes - 1] = 1;
        releaseBufferMemory(p, bytes);
    }
}
#endif

}  // namespace
