// The driver channel against a real driver behind the device of the build
// (driver_peer_test_support.h: the driver simulator on Linux, the Wine test
// kernel driver on Windows): every outcome of a request with the driver's
// record of it, the buffers of every code, the open-failure reporting, the
// list readers' negotiation of their buffer, and the local whitelist's
// synchronous request.
//
// Rows for one peer only are outcomes that only it produces: the simulator
// can abandon or fail a wait and refuse an open, while Wine opens the device
// whatever the driver answers, and a kernel driver can only leave a request
// pending (which without a time-out, as on the whitelist's synchronous
// path, never ends).
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "driver/driver_channel.h"
#include "driver/driver_device.h"
#include "testing/driver_peer.h"

#ifndef _WIN32
#include <dirent.h>
#endif

namespace {

using testing_support::DriveLetters;
using testing_support::DriverPeer;
using testing_support::ScratchDir;

// Catalog messages of the channel: number and Win32 error.
using Messages = std::vector<std::pair<int, uint32_t>>;
using Lines = std::vector<std::string>;

enum Peers { Both, SimulatorOnly };

#ifdef _WIN32
constexpr bool kSimulator = false;
#else
constexpr bool kSimulator = true;

size_t openDescriptors() {
    size_t n = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return 0;
    while (readdir(dir) != nullptr) ++n;
    closedir(dir);
    return n;
}
#endif

long long elapsedMs(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

class DriverChannelPeer : public ::testing::Test {
protected:
    void SetUp() override {
        if (!DriverPeer::available()) {
            GTEST_SKIP() << "the Wine test driver is not installed here (scripts/test installs it with "
                            "tools/wine-driver/wine-driver.sh and sets ZELIPS_WINE_DRIVER=1)";
        }
#ifndef _WIN32
        descriptors_ = openDescriptors();
#endif
        resetDriverChannelState();
        setDriverTimeoutCap(0);
        setDriverMessageObserver([this](int number, const STRING&, uint32_t error) { messages.push_back({number, error}); });
    }
    void TearDown() override {
        peer.stop();
        setDriverMessageObserver(nullptr);
        setDriverTimeoutCap(0);
#ifndef _WIN32
        // No path of the channel leaves a descriptor open.
        if (descriptors_ != 0) {
            EXPECT_EQ(openDescriptors(), descriptors_);
        }
#endif
    }

    ScratchDir scratch;
    DriverPeer peer{scratch};
    Messages messages;
    size_t descriptors_ = 0;
};

const std::string kQueryLine = "request query-policy code=0x80004018 in=0 out=1028";

// ---------------------------------------------------------------------------
// One request

TEST_F(DriverChannelPeer, EveryOutcomeOfARequestHasItsResult) {
    struct Case {
        Peers peers;
        const char* reply;
        uint32_t timeoutMs;
        DriverResult result;
        Messages logged;
        bool recordDelivered;
        Lines record;  // between the open and the close
    };
    const Case cases[] = {
        {Both, "reply query-policy immediate", 3000, 0, {}, true, {kQueryLine}},
        {Both, "reply query-policy pending delay=30", 3000, 0, {}, true, {kQueryLine, "complete query-policy status=0"}},
        // More data after pending: the pending request's result fails with 234.
        {Both, "reply query-policy pending status=234", 3000, 8, {}, false,
         {kQueryLine, "complete query-policy status=234"}},
        {Both, "reply query-policy pending status=1450", 3000, 4, {}, false,
         {kQueryLine, "complete query-policy status=1450"}},
        // Failed at once, more data included.
        {Both, "reply query-policy immediate status=87", 3000, 6, {{10119, 87}}, false, {kQueryLine}},
        {Both, "reply query-policy immediate status=234", 3000, 6, {{10119, 234}}, false, {kQueryLine}},
        // Time-outs: the channel's cancel reaches the driver.
        {Both, "reply query-policy pending-forever", 150, 5, {{10118, 0}}, false, {kQueryLine, "cancel query-policy"}},
        {Both, "reply query-policy silent", 150, 5, {{10118, 0}}, false, {kQueryLine, "cancel query-policy"}},
        {SimulatorOnly, "reply query-policy abandoned", 3000, 3, {{10117, 0}}, false, {kQueryLine}},
        {SimulatorOnly, "reply query-policy wait-failed", 3000, 0, {}, false, {kQueryLine}},  // counted as done
    };
    for (const auto& c : cases) {
        if (c.peers == SimulatorOnly && !kSimulator) continue;
        SCOPED_TRACE(c.reply);
        messages.clear();
        ASSERT_TRUE(peer.start({"policy builtin=1", c.reply}));
        PolicyInfoRecord info{};
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(NotifyDriver(IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, c.timeoutMs), c.result);
        const long long spent = elapsedMs(started);
        EXPECT_EQ(messages, c.logged);
        EXPECT_EQ(info.builtin, c.recordDelivered ? 1u : 0u);
        if (c.timeoutMs < 1000) {
            // Cancelled at once: a request that the cancel did not reach
            // would hold the channel for its second of grace.
            EXPECT_GE(spent, static_cast<long long>(c.timeoutMs) - 10);
            EXPECT_LT(spent, static_cast<long long>(c.timeoutMs) + 700);
        } else {
            EXPECT_LT(spent, 2000);
        }
        ASSERT_TRUE(peer.waitForCount("close", 1));
        Lines expected{"open 0"};
        expected.insert(expected.end(), c.record.begin(), c.record.end());
        expected.push_back("close");
        EXPECT_EQ(peer.record(), expected);
    }
}

TEST_F(DriverChannelPeer, EachCodeCarriesItsOwnBuffer) {
    ASSERT_TRUE(peer.start({"policy-error code=9 text=\"line 3: unknown rule\""}));
    std::u16string policy = u"ab";
    policy.push_back(0);
    uint32_t flag = 1;
    std::vector<uint8_t> big(4 + 2 * 656, 0);
    uint8_t unused[16] = {1, 2, 3};
    PolicyInfoRecord info{};
    PolicyErrorRecord why{};
    struct Case {
        uint32_t code;
        void* buffer;
        uint32_t length;
        const char* line;
    };
    const Case cases[] = {
        {IOCTL_ZELIPS_NEW_POLICY, &policy[0], 6, "request new-policy code=0x80008001 in=6 out=0 data=610062000000"},
        {IOCTL_ZELIPS_USE_BUILTIN, &flag, 4, "request use-builtin code=0x80008014 in=4 out=0 data=01000000"},
        {IOCTL_ZELIPS_ROLL_DRIVER_LOG, unused, sizeof unused, "request roll-driver-log code=0x80008008 in=0 out=0"},
        {IOCTL_ZELIPS_ROLL_PROFILE_LOG, unused, sizeof unused, "request roll-profile-log code=0x80008004 in=0 out=0"},
        {IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, "request query-policy code=0x80004018 in=0 out=1028"},
        {IOCTL_ZELIPS_POLICY_ERROR, &why, sizeof why, "request policy-error code=0x80004024 in=0 out=516"},
        {IOCTL_ZELIPS_PSET_SNAPSHOT, big.data(), 1316, "request pset-snapshot code=0x8000400E in=0 out=1316"},
        {IOCTL_ZELIPS_PROCESS_DUMP, big.data(), 1316, "request process-dump code=0x8000402A in=0 out=1316"},
    };
    Lines expected;
    for (const auto& c : cases) {
        EXPECT_EQ(NotifyDriver(c.code, c.buffer, c.length, 3000), 0) << c.line;
        expected.push_back(c.line);
    }
    ASSERT_TRUE(peer.waitForCount("close", sizeof cases / sizeof cases[0]));
    EXPECT_EQ(peer.requests(), expected);
    // The use-built-in word reached the driver: its policy answer carries it.
    EXPECT_EQ(info.builtin, 1u);
    EXPECT_EQ(driverFieldText(why.description), STRING(u"line 3: unknown rule"));
}

// ---------------------------------------------------------------------------
// Opening

TEST_F(DriverChannelPeer, OpenFailuresAreReportedOncePerRunAndRecoveryOnce) {
    PolicyInfoRecord info{};
    const auto query = [&] { return NotifyDriver(IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, 3000); };

    // Not loaded: every request and reader fails, with one report for the
    // whole run of failures.
    EXPECT_EQ(query(), 2);
    EXPECT_EQ(query(), 2);
    EXPECT_FALSE(OpenDriver().valid());
    EXPECT_FALSE(DriverPresent());
    LocalWhitelist table;
    EXPECT_FALSE(getLocalWhitelist(table));  // the listings: the pset-no-driver and process-no-driver transcripts
    Messages expected{{10112, 2}};
    EXPECT_EQ(messages, expected);

    // Loaded: the first success reports the recovery, later ones nothing.
    ASSERT_TRUE(peer.start({}));
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(query(), 0);
    EXPECT_TRUE(DriverPresent());
    expected.push_back({10400, 0});
    EXPECT_EQ(messages, expected);

#ifndef _WIN32
    // Held by another opener: the device is exclusive.
    {
        DriverHandle holder = OpenDriver();
        ASSERT_TRUE(holder.valid());
        EXPECT_EQ(query(), 2);
        EXPECT_EQ(query(), 2);
        EXPECT_EQ(notifyDriverOnHandle(holder, IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, 2000), 0);
    }
    EXPECT_EQ(query(), 0);
    // Refused by the driver: the report carries its error, and no request is sent.
    ASSERT_TRUE(peer.start({"open-error 5"}));
    EXPECT_EQ(query(), 2);
    EXPECT_TRUE(peer.requests().empty());
    ASSERT_TRUE(peer.start({}));
    EXPECT_EQ(query(), 0);
    expected.insert(expected.end(), {{10112, 32}, {10400, 0}, {10112, 5}, {10400, 0}});
    EXPECT_EQ(messages, expected);
#endif

    // Gone again: the presence flag stays set.
    peer.stop();
    EXPECT_EQ(query(), 2);
    EXPECT_TRUE(DriverPresent());
    expected.push_back({10112, 2});
    EXPECT_EQ(messages, expected);
}

// ---------------------------------------------------------------------------
// PSET snapshot and process dump

// The records' fields are the pset and process transcripts'; here: how many
// records came back from the last, large enough buffer.
TEST_F(DriverChannelPeer, ListingsNegotiateTheirBufferWithTheDriver) {
    const std::string dump = "getProcessDriverDump\nBuffer length 151044\n";
    const std::string gaveUp = "Unable to retrieve data from the driver\n";
    const std::string process = "process terminated=0 ppid=1 pid=2 parent=init name=a.exe pset=P";
    struct Case {
        const char* what;
        bool pset;
        Lines scenario;
        uint32_t capMs;
        std::vector<unsigned long> capacities;
        std::string out;
        int records;  // -1: no listing
    };
    const Case cases[] = {
        {"PSET: more data after pending three times: 128, 256, 512, 1024 records", true,
         {"reply pset-snapshot pending needs=600", "pset pid=4 name=a.exe pset=A", "child name=b.exe pset=B",
          "pset pid=900 name=c.exe pset="},
         0, {83972, 167940, 335876, 671748}, "", 2},
        {"PSET: empty", true, {}, 0, {83972}, "", 0},
        {"process: more data after pending once", false,
         {"reply process-dump pending needs=200 delay=20", process, process}, 0, {151044, 302084},
         dump + "Buffer length 302084\n", 2},
        {"process: a failed request ends it at once", false, {"reply process-dump pending status=1450"}, 0, {151044},
         dump + gaveUp, -1},
        {"process: a request failed at once ends it", false, {"reply process-dump immediate status=87"}, 0, {151044},
         dump + gaveUp, -1},
        {"process: abandoned and timed-out requests are retried", false,
         {"reply process-dump abandoned times=1", "reply process-dump pending-forever times=1",
          "reply process-dump immediate", process},
         200, {151044, 302084, 604164}, dump + "Buffer length 302084\nBuffer length 604164\n", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(peer.start(c.scenario));
        setDriverTimeoutCap(c.capMs);
        ::testing::internal::CaptureStdout();
        const std::unique_ptr<PsetSnapshot> snapshot = c.pset ? getPsetSnapshot() : nullptr;
        const std::unique_ptr<ProcessDump> processes = c.pset ? nullptr : getProcessDriverDump();
        EXPECT_EQ(::testing::internal::GetCapturedStdout(), c.out);
        EXPECT_EQ(snapshot ? static_cast<int>(snapshot->entries().size()) : processes ? static_cast<int>(processes->count()) : -1,
                  c.records);
        EXPECT_EQ(peer.capacities(), c.capacities);
    }
}

// ---------------------------------------------------------------------------
// Local whitelist

std::string lowerAscii(std::string s) {
    std::transform(s.begin(), s.end(), s.begin(), [](char ch) { return ch >= 'A' && ch <= 'Z' ? ch - 'A' + 'a' : ch; });
    return s;
}

TEST_F(DriverChannelPeer, LocalWhitelistIsATableByDriveLetterPath) {
    DriveLetters drives(scratch);
    STRING c, z;
    ASSERT_TRUE(driver_device::queryDosDevice(u"C:", c));
    const std::string dev = c.toUtf8();
    const auto record = [](const char* type, const char* time, const std::string& path) {
        return std::string("whitelist type=") + type + " time=" + time + " path=\"" + path + "\"";
    };
    Lines many = {
        record("1", "132223104000000000", dev + "\\Program Files\\Updater\\up.exe"),
        record("0", "116444736000000000", dev + "\\dir\\app.exe"),
        record("7", "116444736010000000", dev + "\\x.dll"),
        record("0", "116444736009999999", dev + "\\part.exe"),
        record("0", "133500000000000000", "\\Device\\NoSuchVolume42\\gone.exe"),
        // The same path again, the device in other case: the later record wins.
        record("0", "133500000000000000", lowerAscii(dev) + "\\dir\\app.exe"),
    };
    // Z: (Wine's Unix root) has a device too, but Z: is never tried.
    if (driver_device::queryDosDevice(u"Z:", z) && z != c) many.push_back(record("0", "0", z.toUtf8() + "\\on-z.exe"));
    const std::string one = record("0", "116444736000000000", dev + "\\x.exe");
    std::vector<unsigned long> doubling;
    for (int i = 0; i < 20; ++i) doubling.push_back(4096ul << i);
    struct Case {
        Peers peers;
        const char* what;
        Lines scenario;
        bool ok;
        Lines entries;
        std::vector<unsigned long> capacities;
    };
    const Case cases[] = {
        {Both, "4096 bytes hold one record, 8192 three", many, true,
         {"C:\\Program Files\\Updater\\up.exe 1 Trusted Updater 2020-01-01 00:00:00",
          "C:\\dir\\app.exe 0 Override 2024-01-17 21:20:00",
          "C:\\part.exe 0 Override 1970-01-01 00:00:00",  // parts of a second are dropped
          "C:\\x.dll 7 None 1970-01-01 00:00:01"},
         {4096, 8192, 16384}},
        {Both, "nothing whitelisted is still a success", {}, true, {}, {4096}},
        {Both, "pending, then more data", {"reply local-whitelist pending delay=50 needs=3", one}, true,
         {"C:\\x.exe 0 Override 1970-01-01 00:00:00"}, {4096, 8192}},
        {Both, "failed", {"reply local-whitelist immediate status=31"}, false, {}, {4096}},
        {Both, "a count the buffer cannot hold", {"count whitelist 5000", one}, false, {}, {4096}},
        {SimulatorOnly, "abandoned", {"reply local-whitelist abandoned"}, false, {}, {4096}},
        {SimulatorOnly, "more data for ever: the buffer doubles until its 32-bit size wraps",
         {"reply local-whitelist immediate needs=100000000"}, false, {}, doubling},
    };
    for (const auto& k : cases) {
        if (k.peers == SimulatorOnly && !kSimulator) continue;
        SCOPED_TRACE(k.what);
        ASSERT_TRUE(peer.start(k.scenario));
        LocalWhitelist table;
        EXPECT_EQ(getLocalWhitelist(table), k.ok);
        Lines entries;
        for (const auto& e : table) {
            EXPECT_TRUE(e.second.present);
            entries.push_back(e.first.toUtf8() + " " + std::to_string(e.second.type) + " " +
                              STRING(whitelistTypeName(e.second.type)).toUtf8() + " " + e.second.timestamp.toUtf8());
        }
        EXPECT_EQ(entries, k.entries);
        EXPECT_EQ(peer.capacities(), k.capacities);
    }
    EXPECT_TRUE(messages.empty());
}

}  // namespace
