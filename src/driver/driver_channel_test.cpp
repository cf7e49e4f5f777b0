// The driver channel's portable logic: counted names and their range checks,
// the list readers' parsing, the buffer negotiation of both snapshots, time
// stamps, drive-letter paths, and a device that is not there. These run on
// every build (under Wine for Windows); the tests against a simulated driver
// are in driver_channel_sim_test.cpp.
#include "driver/driver_channel.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "foundation/test_support.h"
#include "testing/child_process.h"

#include "driver/driver_device.h"

#ifndef _WIN32
#include "foundation/registry_store.h"
#endif

namespace {

using testing_support::ScratchDir;

struct Message {
    int number;
    uint32_t error;
    bool operator==(const Message& o) const { return number == o.number && error == o.error; }
};

std::ostream& operator<<(std::ostream& os, const Message& m) { return os << m.number << "(" << m.error << ")"; }

class DriverChannel : public ::testing::Test {
protected:
    void SetUp() override {
        resetDriverChannelState();
        setDriverTimeoutCap(0);
        setDriverMessageObserver([this](int number, const STRING&, uint32_t error) { messages.push_back({number, error}); });
    }
    void TearDown() override {
        setDriverMessageObserver(nullptr);
        setDriverTimeoutCap(0);
        setEnv("ZELIPS_DEVICE", STRING());
    }

    std::vector<Message> messages;
};

void putU32(std::vector<uint8_t>& b, size_t at, uint32_t v) { std::memcpy(b.data() + at, &v, 4); }

void putName(std::vector<uint8_t>& b, size_t at, const std::u16string& s) {
    std::memcpy(b.data() + at, s.data(), s.size() * 2);
}

// ---------------------------------------------------------------------------
// Counted names

TEST_F(DriverChannel, CountedNamesAreCopiedOrRejectedNeverTruncated) {
    struct Case {
        const char* what;
        size_t room;
        int32_t maxChars;
        std::u16string field;
        int32_t length;
        bool malformed;
        std::u16string expected;
    };
    const std::u16string full255(255, u'n');
    const std::u16string full256(256, u'n');
    const std::u16string pset66(66, u'p');
    const Case cases[] = {
        {"absent: zero length", 256, 255, u"ignored", 0, false, u""},
        {"absent: negative length", 256, 255, u"ignored", -7, false, u""},
        {"shorter than the field's text", 256, 255, u"abcdef", 3, false, u"abc"},
        {"longest name", 256, 255, full255, 255, false, full255},
        {"name of 256", 256, 255, full256, 256, true, u""},
        {"length far past the room", 256, 255, u"abc", 100000, true, u""},
        {"longest PSET name", 66, 64, pset66, 64, false, pset66.substr(0, 64)},
        {"PSET name of 65", 66, 64, pset66, 65, true, u""},
        {"PSET name of 66", 66, 64, pset66, 66, true, u""},
        {"a NUL inside the length ends the name", 256, 255, std::u16string(u"ab\0cd", 5), 5, false, u"ab"},
    };
    for (const auto& c : cases) {
        std::vector<char16_t> field(c.room, 0);
        std::memcpy(field.data(), c.field.data(), std::min(c.field.size(), c.room) * 2);
        if (c.malformed) {
            EXPECT_THROW(driverCountedText(field.data(), c.room, c.length, c.maxChars), DriverRecordRangeError)
                << c.what;
        } else {
            EXPECT_EQ(driverCountedText(field.data(), c.room, c.length, c.maxChars), STRING(c.expected)) << c.what;
        }
    }
}

TEST_F(DriverChannel, TerminatedFieldsStopAtTheirRoom) {
    PolicyInfoRecord info{};
    const std::u16string name = u"Server policy";
    std::memcpy(info.name, name.data(), name.size() * 2);
    for (auto& c : info.version) c = u'v';  // no terminator at all
    EXPECT_EQ(driverFieldText(info.name), STRING(name));
    EXPECT_EQ(driverFieldText(info.version), STRING(std::u16string(128, u'v')));
    EXPECT_EQ(driverFieldText(info.id), STRING());
}

// ---------------------------------------------------------------------------
// List parsing

// A PSET snapshot buffer built byte by byte at the documented offsets.
class PsetBytes {
public:
    explicit PsetBytes(uint32_t capacityBytes) : bytes_(capacityBytes, 0) {}
    void entry(uint32_t pid, const std::u16string& name, int32_t nameLength, const std::u16string& pset,
               int32_t psetLength) {
        last_ = at_;
        grow(656);
        putU32(bytes_, at_, pid);
        putU32(bytes_, at_ + 4, static_cast<uint32_t>(nameLength));
        putName(bytes_, at_ + 8, name.substr(0, 256));
        putU32(bytes_, at_ + 520, static_cast<uint32_t>(psetLength));
        putName(bytes_, at_ + 524, pset.substr(0, 64));
        at_ += 656;
        ++count_;
    }
    void child(const std::u16string& name, const std::u16string& pset) {
        grow(648);
        putU32(bytes_, at_, static_cast<uint32_t>(name.size()));
        putName(bytes_, at_ + 4, name);
        putU32(bytes_, at_ + 516, static_cast<uint32_t>(pset.size()));
        putName(bytes_, at_ + 520, pset);
        at_ += 648;
        uint32_t children;
        std::memcpy(&children, bytes_.data() + last_ + 652, 4);
        putU32(bytes_, last_ + 652, children + 1);
    }
    std::unique_ptr<PsetSnapshot> snapshot(uint32_t claimedCount = UINT32_MAX) const {
        auto s = std::make_unique<PsetSnapshot>(static_cast<uint32_t>(bytes_.size()));
        std::memcpy(s->data(), bytes_.data(), bytes_.size());
        s->setCount(claimedCount == UINT32_MAX ? count_ : claimedCount);
        return s;
    }

private:
    void grow(size_t n) {
        if (at_ + n > bytes_.size()) bytes_.resize(at_ + n, 0);
    }
    std::vector<uint8_t> bytes_;
    size_t at_ = 4;
    size_t last_ = 4;
    uint32_t count_ = 0;
};

TEST_F(DriverChannel, PsetSnapshotEntriesCarryTheirChildren) {
    PsetBytes b(4 + 10 * 656);
    b.entry(4, u"C:\\Windows\\System32\\svchost.exe", 31, u"Services", 8);
    b.child(u"C:\\Windows\\System32\\dllhost.exe", u"Com");
    b.child(u"C:\\x.exe", u"");
    b.entry(812, u"", 0, u"", -1);
    const auto entries = b.snapshot()->entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].processId, 4u);
    EXPECT_EQ(entries[0].processName, STRING(u"C:\\Windows\\System32\\svchost.exe"));
    EXPECT_EQ(entries[0].psetName, STRING(u"Services"));
    ASSERT_EQ(entries[0].children.size(), 2u);
    EXPECT_EQ(entries[0].children[0].name, STRING(u"C:\\Windows\\System32\\dllhost.exe"));
    EXPECT_EQ(entries[0].children[0].psetName, STRING(u"Com"));
    EXPECT_EQ(entries[0].children[1].psetName, STRING());
    EXPECT_EQ(entries[1].processId, 812u);
    EXPECT_TRUE(entries[1].processName.empty());
    EXPECT_TRUE(entries[1].psetName.empty());
    EXPECT_TRUE(entries[1].children.empty());
}

TEST_F(DriverChannel, PsetSnapshotStopsAtTheFirstBadEntry) {
    struct Case {
        const char* what;
        std::function<std::unique_ptr<PsetSnapshot>()> build;
        size_t visitedBeforeFailure;
    };
    const Case cases[] = {
        {"process name of 256 characters",
         [] {
             PsetBytes b(4 + 3 * 656);
             b.entry(1, u"a.exe", 5, u"P", 1);
             b.entry(2, std::u16string(256, u'x'), 256, u"P", 1);
             return b.snapshot();
         },
         1},
        {"PSET name of 65 characters",
         [] {
             PsetBytes b(4 + 3 * 656);
             b.entry(1, u"a.exe", 5, std::u16string(65, u'p'), 65);
             return b.snapshot();
         },
         0},
        {"count larger than the buffer holds",
         [] {
             PsetBytes b(4 + 2 * 656);
             b.entry(1, u"a.exe", 5, u"P", 1);
             b.entry(2, u"b.exe", 5, u"P", 1);
             return b.snapshot(3);
         },
         2},
        {"children past the end of the buffer",
         [] {
             PsetBytes b(4 + 656);
             b.entry(1, u"a.exe", 5, u"P", 1);
             auto s = b.snapshot();
             const uint32_t children = 1000;
             std::memcpy(s->data() + 4 + 652, &children, 4);
             return s;
         },
         0},
    };
    for (const auto& c : cases) {
        const auto snapshot = c.build();
        size_t visited = 0;
        EXPECT_THROW(snapshot->forEachEntry([&](const PsetEntry&) { ++visited; }), DriverRecordRangeError) << c.what;
        EXPECT_EQ(visited, c.visitedBeforeFailure) << c.what;
    }
}

TEST_F(DriverChannel, ProcessDumpRecordsAreReadAtTheirOffsetsAndRangeChecked) {
    ProcessDump dump(4 + 3 * 1180);
    std::vector<uint8_t> b(dump.length(), 0);
    const auto record = [&](size_t i, int32_t terminated, uint32_t ppid, uint32_t pid, const std::u16string& parent,
                            int32_t parentLength, const std::u16string& name, const std::u16string& pset) {
        const size_t at = 4 + i * 1180;
        putU32(b, at, static_cast<uint32_t>(terminated));
        putU32(b, at + 4, ppid);
        putU32(b, at + 8, pid);
        putU32(b, at + 12, static_cast<uint32_t>(parentLength));
        putName(b, at + 16, parent.substr(0, 256));
        putU32(b, at + 528, static_cast<uint32_t>(name.size()));
        putName(b, at + 532, name);
        putU32(b, at + 1044, static_cast<uint32_t>(pset.size()));
        putName(b, at + 1048, pset);
    };
    record(0, 1, 600, 4242, u"C:\\Windows\\explorer.exe", 23, u"C:\\Tools\\notepad.exe", u"Editors");
    record(1, 0, 0, 8, u"", 0, u"System", u"");
    record(2, 0, 1, 9, std::u16string(300, u'q'), 256, u"x.exe", u"");
    std::memcpy(dump.data(), b.data(), b.size());
    dump.setCount(3);

    const ProcessEntry first = dump.entry(0);
    EXPECT_EQ(first.terminated, 1);
    EXPECT_EQ(first.parentProcessId, 600u);
    EXPECT_EQ(first.processId, 4242u);
    EXPECT_EQ(first.parentName, STRING(u"C:\\Windows\\explorer.exe"));
    EXPECT_EQ(first.processName, STRING(u"C:\\Tools\\notepad.exe"));
    EXPECT_EQ(first.psetName, STRING(u"Editors"));
    const ProcessEntry second = dump.entry(1);
    EXPECT_TRUE(second.parentName.empty());
    EXPECT_TRUE(second.psetName.empty());
    EXPECT_EQ(second.processName, STRING(u"System"));
    EXPECT_THROW(dump.entry(2), DriverRecordRangeError);  // parent name of 256
    EXPECT_THROW(dump.entry(3), DriverRecordRangeError);  // beyond the count

    dump.setCount(50);  // more than the buffer holds
    EXPECT_THROW(dump.entry(3), DriverRecordRangeError);
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

TEST_F(DriverChannel, SnapshotNegotiationDoublesRetriesAndGivesUp) {
    struct Case {
        const char* what;
        bool processDump;
        std::vector<DriverResult> results;
        size_t attempts;
        bool returned;
        const char* lastLine;
    };
    const Case cases[] = {
        {"PSET: success at once", false, {0}, 1, true, nullptr},
        {"PSET: small buffer, time-out, abandoned, then success", false, {8, 5, 3, 0}, 4, true, nullptr},
        {"PSET: failures at once and request failures retry too", false, {6, 4, 0}, 3, true, nullptr},
        {"PSET: driver not loaded", false, {2}, 1, false, "Failed to open driver\n"},
        {"PSET: never enough room", false, {8}, 102, false, "Unable to allocate buffer after 100 retries\n"},
        {"process: success after two small buffers", true, {8, 8, 0}, 3, true, nullptr},
        {"process: 6 ends at once", true, {6}, 1, false, "Unable to retrieve data from the driver\n"},
        {"process: 4 ends at once", true, {8, 4}, 2, false, "Unable to retrieve data from the driver\n"},
        {"process: 5 and 3 retry", true, {5, 3, 0}, 3, true, nullptr},
        {"process: driver not loaded", true, {2}, 1, false, "Failed to open driver\n"},
        {"process: always timing out", true, {5}, 102, false, "Unable to allocate buffer after 100 retries\n"},
    };
    for (const auto& c : cases) {
        std::vector<Attempt> attempts;
        ::testing::internal::CaptureStdout();
        bool returned;
        if (c.processDump) returned = getProcessDriverDump(scripted(c.results, attempts)) != nullptr;
        else returned = getPsetSnapshot(scripted(c.results, attempts)) != nullptr;
        const std::string out = ::testing::internal::GetCapturedStdout();

        EXPECT_EQ(attempts.size(), c.attempts) << c.what;
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
        if (c.lastLine != nullptr) expected += c.lastLine;
        EXPECT_EQ(out, expected) << c.what;
    }
}

TEST_F(DriverChannel, ProcessDumpPrintsTheFirstBufferLengths) {
    std::vector<Attempt> attempts;
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(getProcessDriverDump(scripted({8, 8, 0}, attempts)) != nullptr, true);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "getProcessDriverDump\nBuffer length 151044\nBuffer length 302084\nBuffer length 604164\n");
}

// ---------------------------------------------------------------------------
// Whitelist time stamps

TEST_F(DriverChannel, WhitelistTimestampsAreUtcSeconds) {
    struct Case {
        uint64_t fileTime;
        const char16_t* text;
    };
    const Case cases[] = {
        {116444736000000000ULL, u"1970-01-01 00:00:00"},
        {116444736009999999ULL, u"1970-01-01 00:00:00"},  // parts of a second are dropped
        {116444736010000000ULL, u"1970-01-01 00:00:01"},
        {132223104000000000ULL, u"2020-01-01 00:00:00"},
        {133500000000000000ULL, u"2024-01-17 21:20:00"},
    };
    for (const auto& c : cases) EXPECT_EQ(whitelistTimestampText(c.fileTime), STRING(c.text)) << c.fileTime;
}

// ---------------------------------------------------------------------------
// Drive letters

#ifndef _WIN32
// The Linux build reads the devices behind the drive letters from the
// registry store.
class DriverChannelDrives : public DriverChannel {
protected:
    void SetUp() override {
        DriverChannel::SetUp();
        const STRING file = scratch.file("registry.reg");
        testing_support::writeBytes(
            file,
            "Windows Registry Editor Version 5.00\r\n\r\n"
            "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Session Manager\\DOS Devices]\r\n"
            "\"AUX\"=\"\\\\DosDevices\\\\COM1\"\r\n"
            "\"C:\"=\"\\\\Device\\\\HarddiskVolume2\"\r\n"
            "\"D:\"=\"\\\\Device\\\\HarddiskVolume3\"\r\n"
            "\"Y:\"=\"\\\\Device\\\\Mup\"\r\n"
            "\"Z:\"=\"\\\\Device\\\\HarddiskVolume9\"\r\n");
        setEnv("ZELIPS_REGISTRY", file);
        RegistryStore::forgetCache();
    }
    void TearDown() override {
        setEnv("ZELIPS_REGISTRY", STRING());
        RegistryStore::forgetCache();
        DriverChannel::TearDown();
    }
    ScratchDir scratch;
};

TEST_F(DriverChannelDrives, DevicePathsBecomeDriveLetterPaths) {
    struct Case {
        const char16_t* path;
        bool converted;
        const char16_t* result;
    };
    const Case cases[] = {
        {u"\\Device\\HarddiskVolume2\\dir\\file.exe", true, u"C:\\dir\\file.exe"},
        {u"\\DEVICE\\harddiskvolume3\\Program Files\\a.dll", true, u"D:\\Program Files\\a.dll"},
        {u"\\Device\\HarddiskVolume3\\", true, u"D:\\"},
        {u"\\Device\\Mup\\server\\share\\x.exe", true, u"Y:\\server\\share\\x.exe"},
        {u"\\Device\\HarddiskVolume9\\only-z.exe", false, nullptr},     // Z: is never tried
        {u"\\Device\\HarddiskVolume5\\no-letter.exe", false, nullptr},  // no letter at all
        {u"\\Device\\HarddiskVolume2", false, nullptr},                 // no second backslash
        {u"\\Device", false, nullptr},
        {u"C:\\already\\dos.exe", false, nullptr},
        {u"", false, nullptr},
    };
    for (const auto& c : cases) {
        STRING path(c.path);
        EXPECT_EQ(DevicePathToDosPath(path), c.converted) << STRING(c.path);
        EXPECT_EQ(path, STRING(c.converted ? c.result : c.path)) << STRING(c.path);
    }
}

TEST_F(DriverChannelDrives, PathIsRewrittenInPlaceWithinItsCapacity) {
    const std::u16string device = u"\\Device\\HarddiskVolume2\\abcdefgh.exe";
    std::vector<char16_t> buffer(device.size() + 8, u'#');
    std::memcpy(buffer.data(), device.c_str(), (device.size() + 1) * 2);
    const size_t capacity = device.size() + 1;
    ASSERT_TRUE(DevicePathToDosPath(buffer.data(), capacity));
    EXPECT_EQ(STRING(buffer.data()), STRING(u"C:\\abcdefgh.exe"));
    for (size_t i = capacity; i < buffer.size(); ++i) EXPECT_EQ(buffer[i], u'#') << i;

    // A capacity that cuts the device name off leaves nothing to match.
    std::memcpy(buffer.data(), device.c_str(), (device.size() + 1) * 2);
    EXPECT_FALSE(DevicePathToDosPath(buffer.data(), 12));
    EXPECT_EQ(STRING(buffer.data()), STRING(device));
}
#else
TEST_F(DriverChannel, DevicePathsOfTheSystemDriveBecomeDriveLetterPaths) {
    STRING unknown(u"\\Device\\NoSuchVolume42\\x.exe");
    EXPECT_FALSE(DevicePathToDosPath(unknown));
    EXPECT_EQ(unknown, STRING(u"\\Device\\NoSuchVolume42\\x.exe"));

    // The device behind C: as the system reports it, when it has the usual
    // two-part form.
    STRING device;
    if (!driver_device::queryDosDevice(u"C:", device)) GTEST_SKIP() << "no C: drive";
    if (device.split(u'\\', true).size() != 2) GTEST_SKIP() << "C: is " << device;
    STRING path = device + u"\\dir\\file.exe";
    EXPECT_TRUE(DevicePathToDosPath(path));
    EXPECT_EQ(path, STRING(u"C:\\dir\\file.exe"));
}
#endif

// ---------------------------------------------------------------------------
// No driver

TEST_F(DriverChannel, AbsentDriverFailsEveryRequestAndIsReportedOnce) {
#ifdef _WIN32
    setEnv("ZELIPS_DEVICE", STRING());  // the real device name, with no driver behind it
#else
    ScratchDir scratch;
    setEnv("ZELIPS_DEVICE", scratch.file("no-device"));
#endif
    PolicyInfoRecord info{};
    uint32_t flag = 1;
    EXPECT_EQ(NotifyDriver(IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, driver_timeout::QueryPolicy), 2);
    EXPECT_EQ(NotifyDriver(IOCTL_ZELIPS_USE_BUILTIN, &flag, sizeof flag, driver_timeout::UseBuiltin), 2);
    EXPECT_EQ(NotifyDriver(IOCTL_ZELIPS_ROLL_DRIVER_LOG, nullptr, 0, driver_timeout::RollDriverLog), 2);
    EXPECT_FALSE(OpenDriver().valid());
    EXPECT_FALSE(DriverPresent());

    ::testing::internal::CaptureStdout();
    EXPECT_EQ(getPsetSnapshot(), nullptr);
    EXPECT_EQ(getProcessDriverDump(), nullptr);
    LocalWhitelist table;
    EXPECT_FALSE(getLocalWhitelist(table));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "Failed to open driver\ngetProcessDriverDump\nBuffer length 151044\nFailed to open driver\n");
    EXPECT_TRUE(table.empty());

    EXPECT_EQ(messages, (std::vector<Message>{{10112, 2}}));
}

TEST_F(DriverChannel, RequestOnTheInvalidHandleFailsAtOnce) {
    DriverHandle none;
    PolicyInfoRecord info{};
    EXPECT_EQ(notifyDriverOnHandle(none, IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, 100), 6);
    EXPECT_EQ(messages, (std::vector<Message>{{10119, 6}}));
}

}  // namespace
