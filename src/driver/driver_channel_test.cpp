// The driver channel's portable logic without a driver: counted names and
// the range check of every counted field, the buffer negotiation of both
// snapshots, drive-letter paths, and the invalid handle. The tests against a
// driver are in driver_channel_peer_test.cpp.
#include "driver/driver_channel.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "driver/driver_device.h"
#include "testing/driver_peer.h"

namespace {

using testing_support::ScratchDir;

// ---------------------------------------------------------------------------
// Text fields

TEST(DriverChannel, CountedNamesAreCopiedOrRejectedNeverTruncated) {
    struct Case {
        const char* what;
        size_t room;
        int32_t maxChars;
        std::u16string field;
        int32_t length;
        bool malformed;
        std::optional<std::u16string> expected;  // none: the name is absent
    };
    const std::u16string full255(255, u'n');
    const std::u16string pset66(66, u'p');
    const Case cases[] = {
        {"absent: zero length", 256, 255, u"ignored", 0, false, std::nullopt},
        {"absent: negative length", 256, 255, u"ignored", -7, false, std::nullopt},
        {"shorter than the field's text", 256, 255, u"abcdef", 3, false, u"abc"},
        {"longest name", 256, 255, full255, 255, false, full255},
        {"length far past the room", 256, 255, u"abc", 100000, true, u""},
        {"longest PSET name", 66, 64, pset66, 64, false, pset66.substr(0, 64)},
        {"PSET name of 65", 66, 64, pset66, 65, true, u""},
        {"a NUL inside the length ends the name", 256, 255, std::u16string(u"ab\0cd", 5), 5, false, u"ab"},
        {"a NUL first: present and empty", 256, 255, std::u16string(u"\0cd", 3), 3, false, u""},
    };
    for (const auto& c : cases) {
        std::vector<char16_t> field(c.room, 0);
        std::memcpy(field.data(), c.field.data(), std::min(c.field.size(), c.room) * 2);
        if (c.malformed) {
            EXPECT_THROW(driverCountedText(field.data(), c.room, c.length, c.maxChars), DriverRecordRangeError)
                << c.what;
        } else {
            const std::optional<STRING> expected =
                c.expected ? std::optional<STRING>(STRING(*c.expected)) : std::nullopt;
            EXPECT_EQ(driverCountedText(field.data(), c.room, c.length, c.maxChars), expected) << c.what;
        }
    }
}

TEST(DriverChannel, TerminatedFieldsStopAtTheirRoom) {
    PolicyInfoRecord info{};
    for (auto& c : info.version) c = u'v';  // no terminator at all
    EXPECT_EQ(driverFieldText(info.version), STRING(std::u16string(128, u'v')));
    EXPECT_EQ(driverFieldText(info.id), STRING());
}

// ---------------------------------------------------------------------------
// Range checks of the list records

// A list response built byte by byte at the record offsets.
class ListBytes {
public:
    explicit ListBytes(size_t length) : bytes_(length, 0) {}
    ListBytes& u32(size_t at, uint32_t v) {
        std::memcpy(bytes_.data() + at, &v, 4);
        return *this;
    }
    template <class List>
    std::unique_ptr<List> as(uint32_t count) const {
        auto list = std::make_unique<List>(static_cast<uint32_t>(bytes_.size()));
        std::memcpy(list->data(), bytes_.data(), bytes_.size());
        list->setCount(count);
        return list;
    }

private:
    std::vector<uint8_t> bytes_;
};

// How many records a listing read before a range check stopped it (-1: none did).
int readBeforeRangeCheck(const PsetSnapshot& s) {
    int read = 0;
    try {
        s.forEachEntry([&](const PsetEntry&) { ++read; });
    } catch (const DriverRecordRangeError&) {
        return read;
    }
    return -1;
}

int readBeforeRangeCheck(const ProcessDump& d) {
    int read = 0;
    try {
        for (uint32_t i = 0; i < d.count() + 1; ++i, ++read) d.entry(i);  // one past the count as well
    } catch (const DriverRecordRangeError&) {
        return read;
    }
    return -1;
}

TEST(DriverChannel, EveryCountedFieldIsRangeCheckedAtItsOwnLimit) {
    // The length word of each counted field: in the PSET entry (656 bytes
    // from offset 4), its first child (648 bytes from 660), the process
    // record (1180 bytes from 4).
    struct Field {
        const char* what;
        bool pset;
        size_t lengthAt;
        uint32_t limit;
    };
    const Field fields[] = {
        {"PSET entry: process name", true, 4 + 4, 255},
        {"PSET entry: PSET name", true, 4 + 520, 64},
        {"PSET child: name", true, 660 + 0, 255},
        {"PSET child: PSET name", true, 660 + 516, 64},
        {"process: parent name", false, 4 + 12, 255},
        {"process: process name", false, 4 + 528, 255},
        {"process: PSET name", false, 4 + 1044, 64},
    };
    for (const auto& f : fields) {
        for (uint32_t length : {f.limit, f.limit + 1}) {
            SCOPED_TRACE(std::string(f.what) + " of " + std::to_string(length));
            ListBytes b(f.pset ? 4 + 656 + 648 : 4 + 1180);
            if (f.pset) b.u32(4 + 652, 1);  // one child
            b.u32(f.lengthAt, length);
            const int expected = length > f.limit ? 0 : f.pset ? -1 : 1;
            if (f.pset) EXPECT_EQ(readBeforeRangeCheck(*b.as<PsetSnapshot>(1)), expected);
            else EXPECT_EQ(readBeforeRangeCheck(*b.as<ProcessDump>(1)), expected);
        }
    }
}

TEST(DriverChannel, ListsEndWhereTheBufferEnds) {
    struct Case {
        const char* what;
        std::function<int()> read;
        int expected;
    };
    const Case cases[] = {
        {"PSET: a count larger than the buffer holds",
         [] { return readBeforeRangeCheck(*ListBytes(4 + 2 * 656).as<PsetSnapshot>(3)); }, 2},
        {"PSET: children past the end of the buffer",
         [] { return readBeforeRangeCheck(*ListBytes(4 + 656 + 648).u32(4 + 652, 2).as<PsetSnapshot>(1)); }, 0},
        {"process: a count larger than the buffer holds",
         [] { return readBeforeRangeCheck(*ListBytes(4 + 2 * 1180).as<ProcessDump>(50)); }, 2},
    };
    for (const auto& c : cases) EXPECT_EQ(c.read(), c.expected) << c.what;
}

// ---------------------------------------------------------------------------
// Snapshot negotiation, driven through the request function

struct Attempt {
    uint32_t length;
    uint32_t countWord;  // what the buffer's count field held when it was sent
};

// A request function that answers from a list of results (the last one
// repeats) and records each attempt.
DriverSnapshotRequest scripted(std::vector<DriverResult> results, std::vector<Attempt>& attempts) {
    return [results, &attempts](void* buffer, uint32_t length) {
        uint32_t count = 0;
        std::memcpy(&count, buffer, 4);
        attempts.push_back({length, count});
        const size_t i = attempts.size() - 1;
        return results[i < results.size() ? i : results.size() - 1];
    };
}

TEST(DriverChannel, SnapshotNegotiationDoublesRetriesAndGivesUp) {
    struct Case {
        const char* what;
        bool processDump;
        std::vector<DriverResult> results;
        size_t attempts;
        bool returned;
        const char* lastLine;
    };
    const Case cases[] = {
        {"PSET: small buffer, time-out, abandoned, then success", false, {8, 5, 3, 0}, 4, true, nullptr},
        {"PSET: failures at once and request failures retry too", false, {6, 4, 0}, 3, true, nullptr},
        {"PSET: never enough room", false, {8}, 102, false, "Unable to allocate buffer after 100 retries\n"},
        {"process: always timing out", true, {5}, 102, false, "Unable to allocate buffer after 100 retries\n"},
    };
    for (const auto& c : cases) {
        std::vector<Attempt> attempts;
        ::testing::internal::CaptureStdout();
        bool returned;
        if (c.processDump) returned = getProcessDriverDump(scripted(c.results, attempts)) != nullptr;
        else returned = getPsetSnapshot(scripted(c.results, attempts)) != nullptr;
        const std::string out = ::testing::internal::GetCapturedStdout();

        EXPECT_EQ(returned, c.returned) << c.what;
        const uint32_t recordSize = c.processDump ? 1180 : 656;
        std::string expected = c.processDump ? "getProcessDriverDump\n" : "";
        uint32_t capacity = 128;
        for (size_t i = 0; i < attempts.size(); ++i, capacity *= 2) {
            const uint32_t length = capacity * recordSize + 4;
            EXPECT_EQ(attempts[i].countWord, capacity) << c.what << ", attempt " << i + 1;
            EXPECT_EQ(attempts[i].length, length) << c.what << ", attempt " << i + 1;
            if (c.processDump) expected += "Buffer length " + std::to_string(static_cast<int32_t>(length)) + "\n";
        }
        // A 64-bit process can hold every buffer the doubling asks for. A
        // 32-bit one runs out of address space on the way: the buffer after
        // the last attempt could not be allocated, and the negotiation ends
        // with the number of retries made until then.
        const uint32_t nextLength = capacity * recordSize + 4;
        if (sizeof(void*) == 4 && !c.returned && attempts.size() < c.attempts) {
            EXPECT_GE(nextLength, 256u << 20) << c.what << ": a small buffer could not be allocated";
            expected += "Unable to allocate buffer after " + std::to_string(attempts.size()) + " retries\n";
        } else {
            EXPECT_EQ(attempts.size(), c.attempts) << c.what;
            if (c.lastLine != nullptr) expected += c.lastLine;
        }
        EXPECT_EQ(out, expected) << c.what;
    }
}

// ---------------------------------------------------------------------------
// Drive letters

// Matching the device ignores case, Z: is never tried, an unknown device
// stays: the local whitelist's rows (driver_channel_peer_test.cpp).
TEST(DriverChannel, DevicePathsBecomeDriveLetterPathsInPlace) {
    ScratchDir scratch;
    testing_support::DriveLetters drives(scratch);
    // The device behind C:, "\Device\HarddiskVolume2" on Linux (the test's
    // registry), the system's on Windows.
    STRING device;
    ASSERT_TRUE(driver_device::queryDosDevice(u"C:", device));
    if (device.split(u'\\', true).size() != 2) GTEST_SKIP() << "C: is " << device;
    const std::u16string c = device.str();

    struct Case {
        std::u16string path;
        size_t capacity;  // 0: the path's length with its NUL
        const char16_t* result;  // null: not converted, the path unchanged
    };
    const Case cases[] = {
        {c + u"\\dir\\file.exe", 0, u"C:\\dir\\file.exe"},
        {c + u"\\", 0, u"C:\\"},
        {c + u"\\abcdefgh.exe", 12, nullptr},  // a capacity that cuts the device name off
        {c, 0, nullptr},  // no second backslash
        {u"\\Device", 0, nullptr},
        {u"C:\\already\\dos.exe", 0, nullptr},
        {u"", 0, nullptr},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(STRING(k.path).toUtf8());
        // Past the capacity the buffer is never written.
        std::vector<char16_t> buffer(k.path.size() + 9, u'#');
        std::memcpy(buffer.data(), k.path.c_str(), (k.path.size() + 1) * 2);
        const size_t capacity = k.capacity != 0 ? k.capacity : k.path.size() + 1;
        EXPECT_EQ(DevicePathToDosPath(buffer.data(), capacity), k.result != nullptr);
        EXPECT_EQ(STRING(buffer.data()), STRING(k.result != nullptr ? k.result : k.path.c_str()));
        for (size_t i = k.path.size() + 1; i < buffer.size(); ++i) EXPECT_EQ(buffer[i], u'#') << i;
    }
}

// ---------------------------------------------------------------------------
// The invalid handle

TEST(DriverChannel, RequestOnTheInvalidHandleFailsAtOnce) {
    std::vector<std::pair<int, uint32_t>> messages;
    setDriverMessageObserver([&](int number, const STRING&, uint32_t error) { messages.push_back({number, error}); });
    DriverHandle none;
    PolicyInfoRecord info{};
    EXPECT_EQ(notifyDriverOnHandle(none, IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, 100), 6);
    setDriverMessageObserver(nullptr);
    EXPECT_EQ(messages, (std::vector<std::pair<int, uint32_t>>{{10119, 6}}));
}

}  // namespace
