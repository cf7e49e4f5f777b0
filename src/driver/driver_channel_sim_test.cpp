// The driver channel against the driver simulator (tools/driver-sim) through
// the real device protocol of the Linux build: every result of a request,
// the open-failure reporting, the readers' negotiation with a real peer,
// malformed records, time-outs and cancellation, and that no path leaks a
// descriptor.
#ifndef _WIN32

#include <dirent.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "driver/driver_channel.h"
#include "driver/driver_sim_test_support.h"
#include "foundation/registry_store.h"
#include "foundation/test_support.h"
#include "testing/child_process.h"

namespace {

using testing_support::DriverSimulator;
using testing_support::ScratchDir;

struct Message {
    int number;
    uint32_t error;
    bool operator==(const Message& o) const { return number == o.number && error == o.error; }
};

std::ostream& operator<<(std::ostream& os, const Message& m) { return os << m.number << "(" << m.error << ")"; }

using Messages = std::vector<Message>;

class DriverChannelSim : public ::testing::Test {
protected:
    void SetUp() override {
        resetDriverChannelState();
        setDriverTimeoutCap(0);
        setDriverMessageObserver([this](int number, const STRING&, uint32_t error) { messages.push_back({number, error}); });
    }
    void TearDown() override {
        sim.stop();
        setDriverMessageObserver(nullptr);
        setDriverTimeoutCap(0);
        setEnv("ZELIPS_DEVICE", STRING());
    }

    ScratchDir scratch;
    DriverSimulator sim{scratch};
    Messages messages;
};

long long elapsedMs(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

size_t openDescriptors() {
    size_t n = 0;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) return 0;
    while (readdir(dir) != nullptr) ++n;
    closedir(dir);
    return n;
}

// ---------------------------------------------------------------------------
// One request

TEST_F(DriverChannelSim, EveryOutcomeOfARequestHasItsResult) {
    struct Case {
        const char* reply;
        uint32_t timeoutMs;
        DriverResult result;
        Messages logged;
        bool recordDelivered;
        bool cancelled;  // the channel gave up and closed the device
    };
    const Case cases[] = {
        {"reply query-policy immediate", 2000, 0, {}, true, false},
        {"reply query-policy pending delay=30", 2000, 0, {}, true, false},
        {"reply query-policy pending status=234", 2000, 8, {}, false, false},
        {"reply query-policy pending status=1450", 2000, 4, {}, false, false},
        {"reply query-policy immediate status=87", 2000, 6, {{10119, 87}}, false, false},
        {"reply query-policy immediate status=234", 2000, 6, {{10119, 234}}, false, false},
        {"reply query-policy abandoned", 2000, 3, {{10117, 0}}, false, false},
        {"reply query-policy wait-failed", 2000, 0, {}, false, false},  // counted as done
        {"reply query-policy pending-forever", 150, 5, {{10118, 0}}, false, true},
        {"reply query-policy silent", 150, 5, {{10118, 0}}, false, true},
        {"reply query-policy pending delay=3000", 150, 5, {{10118, 0}}, false, true},
    };
    size_t opened = 0;
    size_t cancels = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        messages.clear();
        ASSERT_TRUE(sim.start({"policy builtin=1 name=\"Server Policy\" version=7.1 id={42}", c.reply}));
        PolicyInfoRecord info{};
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(NotifyDriver(IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, c.timeoutMs), c.result);
        const long long spent = elapsedMs(started);
        EXPECT_EQ(messages, c.logged);
        if (c.recordDelivered) {
            EXPECT_EQ(info.builtin, 1u);
            EXPECT_EQ(driverFieldText(info.name), STRING(u"Server Policy"));
            EXPECT_EQ(driverFieldText(info.version), STRING(u"7.1"));
            EXPECT_EQ(driverFieldText(info.id), STRING(u"{42}"));
        }
        if (c.cancelled) {
            EXPECT_GE(spent, static_cast<long long>(c.timeoutMs) - 10);
            EXPECT_LT(spent, static_cast<long long>(c.timeoutMs) + 1000);
        } else {
            EXPECT_LT(spent, 1000);
        }
        // The device was closed, and an unanswered request was cancelled by it.
        EXPECT_TRUE(sim.waitForCount("close", ++opened));
        EXPECT_TRUE(sim.waitForCount("cancel query-policy", cancels += c.cancelled ? 1 : 0));
        sim.stop();
    }
}

TEST_F(DriverChannelSim, EachCodeCarriesItsOwnBuffer) {
    ASSERT_TRUE(sim.start({}));
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
        DriverResult result;
    };
    const Case cases[] = {
        {IOCTL_ZELIPS_NEW_POLICY, &policy[0], 6, "request new-policy code=0x80008001 in=6 out=0 data=610062000000", 0},
        {IOCTL_ZELIPS_USE_BUILTIN, &flag, 4, "request use-builtin code=0x80008014 in=4 out=0 data=01000000", 0},
        {IOCTL_ZELIPS_ROLL_DRIVER_LOG, unused, sizeof unused, "request roll-driver-log code=0x80008008 in=0 out=0", 0},
        {IOCTL_ZELIPS_ROLL_PROFILE_LOG, unused, sizeof unused, "request roll-profile-log code=0x80008004 in=0 out=0",
         0},
        {IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, "request query-policy code=0x80004018 in=0 out=1028", 0},
        {IOCTL_ZELIPS_POLICY_ERROR, &why, sizeof why, "request policy-error code=0x80004024 in=0 out=516", 0},
        {IOCTL_ZELIPS_PSET_SNAPSHOT, big.data(), 1316, "request pset-snapshot code=0x8000400E in=0 out=1316", 0},
        {IOCTL_ZELIPS_PROCESS_DUMP, big.data(), 1316, "request process-dump code=0x8000402A in=0 out=1316", 0},
        // Not a request of the overlapped path: it goes without a buffer, and
        // the driver finds no room for its answer.
        {IOCTL_ZELIPS_LOCAL_WHITELIST, big.data(), 1316, "request local-whitelist code=0x80004036 in=0 out=0", 6},
    };
    std::vector<std::string> expected;
    for (const auto& c : cases) {
        EXPECT_EQ(NotifyDriver(c.code, c.buffer, c.length, 2000), c.result) << c.line;
        expected.push_back(c.line);
    }
    EXPECT_EQ(sim.requests(), expected);
}

TEST_F(DriverChannelSim, PolicyErrorTextAndBuiltinFlagComeFromTheDriver) {
    ASSERT_TRUE(sim.start({"policy builtin=0 name=P", "policy-error code=9 text=\"line 3: unknown rule\""}));
    PolicyErrorRecord why{};
    ASSERT_EQ(NotifyDriver(IOCTL_ZELIPS_POLICY_ERROR, &why, sizeof why, driver_timeout::PolicyError), 0);
    EXPECT_EQ(driverFieldText(why.description), STRING(u"line 3: unknown rule"));

    uint32_t flag = 1;
    ASSERT_EQ(NotifyDriver(IOCTL_ZELIPS_USE_BUILTIN, &flag, sizeof flag, driver_timeout::UseBuiltin), 0);
    PolicyInfoRecord info{};
    ASSERT_EQ(NotifyDriver(IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, driver_timeout::QueryPolicy), 0);
    EXPECT_EQ(info.builtin, 1u);
}

TEST_F(DriverChannelSim, TimeoutCapShortensEveryWait) {
    ASSERT_TRUE(sim.start({"reply any silent"}));
    setDriverTimeoutCap(100);
    PolicyInfoRecord info{};
    const auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(NotifyDriver(IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, driver_timeout::QueryPolicy), 5);
    EXPECT_EQ(NotifyDriver(IOCTL_ZELIPS_NEW_POLICY, &info, 8, driver_timeout::NewPolicy), 5);
    EXPECT_LT(elapsedMs(started), 2000);
    EXPECT_EQ(messages, (Messages{{10118, 0}, {10118, 0}}));
}

// ---------------------------------------------------------------------------
// Opening

TEST_F(DriverChannelSim, OpenFailuresAreReportedOncePerRunAndRecoveryOnce) {
    PolicyInfoRecord info{};
    const auto query = [&] { return NotifyDriver(IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, 2000); };

    // Not loaded: one report for the whole run of failures.
    EXPECT_EQ(query(), 2);
    EXPECT_EQ(query(), 2);
    EXPECT_FALSE(DriverPresent());
    EXPECT_EQ(messages, (Messages{{10112, 2}}));

    // Loaded: the first success reports the recovery, later ones nothing.
    ASSERT_TRUE(sim.start({}));
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(messages, (Messages{{10112, 2}, {10400, 0}}));

    // Held by another opener: the device is exclusive.
    {
        DriverHandle holder = OpenDriver();
        ASSERT_TRUE(holder.valid());
        EXPECT_EQ(query(), 2);
        EXPECT_EQ(query(), 2);
        EXPECT_EQ(notifyDriverOnHandle(holder, IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, 2000), 0);
    }
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(messages, (Messages{{10112, 2}, {10400, 0}, {10112, 32}, {10400, 0}}));
    EXPECT_TRUE(DriverPresent());

    // Gone again: the presence flag stays set.
    sim.stop();
    EXPECT_EQ(query(), 2);
    EXPECT_TRUE(DriverPresent());
    EXPECT_EQ(messages, (Messages{{10112, 2}, {10400, 0}, {10112, 32}, {10400, 0}, {10112, 2}}));
}

TEST_F(DriverChannelSim, OpenRefusedByTheDriverCarriesItsError) {
    ASSERT_TRUE(sim.start({"open-error 5"}));
    uint32_t flag = 0;
    EXPECT_EQ(NotifyDriver(IOCTL_ZELIPS_USE_BUILTIN, &flag, sizeof flag, 1000), 2);
    EXPECT_EQ(messages, (Messages{{10112, 5}}));
    EXPECT_TRUE(sim.requests().empty());
}

// ---------------------------------------------------------------------------
// PSET snapshot and process dump

DriverSnapshotRequest psetRequest() {
    return [](void* b, uint32_t n) { return NotifyDriver(IOCTL_ZELIPS_PSET_SNAPSHOT, b, n, 2000); };
}

DriverSnapshotRequest processRequest() {
    return [](void* b, uint32_t n) { return NotifyDriver(IOCTL_ZELIPS_PROCESS_DUMP, b, n, 2000); };
}

TEST_F(DriverChannelSim, PsetSnapshotGrowsUntilTheDriverHasRoom) {
    ASSERT_TRUE(sim.start({
        "reply pset-snapshot pending needs=600",
        "pset pid=4 name=\"C:\\Program Files\\Agent\\svc.exe\" pset=Agent",
        "child name=C:\\Windows\\cmd.exe pset=Shell",
        "pset pid=900 name=C:\\Tools\\t.exe pset=",
    }));
    ::testing::internal::CaptureStdout();
    const auto snapshot = getPsetSnapshot(psetRequest());
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    ASSERT_NE(snapshot, nullptr);
    EXPECT_EQ(sim.capacities(), (std::vector<unsigned long>{83972, 167940, 335876, 671748}));
    EXPECT_EQ(snapshot->length(), 671748u);
    const auto entries = snapshot->entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].processName, STRING(u"C:\\Program Files\\Agent\\svc.exe"));
    ASSERT_EQ(entries[0].children.size(), 1u);
    EXPECT_EQ(entries[0].children[0].psetName, STRING(u"Shell"));
    EXPECT_EQ(entries[1].processId, 900u);
    EXPECT_TRUE(entries[1].psetName.empty());
}

TEST_F(DriverChannelSim, PsetSnapshotGivesUpAfter102Attempts) {
    ASSERT_TRUE(sim.start({"reply pset-snapshot pending status=234"}));
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(getPsetSnapshot(psetRequest()), nullptr);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Unable to allocate buffer after 100 retries\n");
    const auto capacities = sim.capacities();
    ASSERT_EQ(capacities.size(), 102u);
    EXPECT_EQ(capacities[0], 128u * 656 + 4);
    EXPECT_EQ(capacities[1], 256u * 656 + 4);
    EXPECT_EQ(capacities[2], 512u * 656 + 4);
    EXPECT_TRUE(messages.empty());
}

TEST_F(DriverChannelSim, EmptyPsetSnapshotIsASuccess) {
    ASSERT_TRUE(sim.start({}));
    const auto snapshot = getPsetSnapshot(psetRequest());
    ASSERT_NE(snapshot, nullptr);
    EXPECT_EQ(snapshot->count(), 0u);
    EXPECT_TRUE(snapshot->entries().empty());
}

TEST_F(DriverChannelSim, ProcessDumpStopsOnRequestFailuresAndRetriesOtherwise) {
    struct Case {
        std::vector<std::string> scenario;
        size_t requests;
        bool returned;
        const char* lastLine;
    };
    const Case cases[] = {
        {{"reply process-dump pending status=1450"}, 1, false, "Unable to retrieve data from the driver\n"},
        {{"reply process-dump immediate status=87"}, 1, false, "Unable to retrieve data from the driver\n"},
        {{"reply process-dump pending needs=300"}, 3, true, nullptr},
        {{"reply process-dump abandoned times=1", "reply process-dump pending-forever times=1",
          "reply process-dump immediate"},
         3, true, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scenario.front());
        std::vector<std::string> scenario = c.scenario;
        scenario.push_back("process terminated=0 ppid=1 pid=2 parent=init name=C:\\a.exe pset=P");
        ASSERT_TRUE(sim.start(scenario));
        const size_t before = sim.requests().size();
        setDriverTimeoutCap(200);
        ::testing::internal::CaptureStdout();
        const auto dump = getProcessDriverDump(processRequest());
        const std::string out = ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(dump != nullptr, c.returned);
        EXPECT_EQ(sim.requests().size() - before, c.requests);
        std::string expected = "getProcessDriverDump\n";
        for (size_t i = 0; i < c.requests; ++i)
            expected += "Buffer length " + std::to_string((128u << i) * 1180 + 4) + "\n";
        if (c.lastLine != nullptr) expected += c.lastLine;
        EXPECT_EQ(out, expected);
        if (dump) {
            ASSERT_EQ(dump->count(), 1u);
            EXPECT_EQ(dump->entry(0).parentName, STRING(u"init"));
            EXPECT_EQ(dump->entry(0).processId, 2u);
        }
        sim.stop();
    }
}

TEST_F(DriverChannelSim, MalformedRecordsEndTheListingWithARangeCheck) {
    struct Case {
        const char* what;
        std::string record;
        bool pset;
        bool malformed;
    };
    const Case cases[] = {
        {"process name of 255", "pset pid=1 name=a*255 pset=P", true, false},
        {"process name of 256", "pset pid=1 name=a*256 pset=P", true, true},
        {"PSET name of 64", "pset pid=1 name=a.exe pset=p*64", true, false},
        {"PSET name of 65", "pset pid=1 name=a.exe pset=p*65", true, true},
        {"length word far past the field", "pset pid=1 name=a.exe namelen=2000000 pset=P", true, true},
        {"negative length: absent", "pset pid=1 name=a.exe namelen=-1 pset=P", true, false},
        {"child name of 256", "pset pid=1 name=a.exe pset=P\nchild name=c*256 pset=Q", true, true},
        {"parent name of 256", "process pid=1 ppid=0 parent=b*256 name=a.exe pset=P", false, true},
        {"process PSET name of 65", "process pid=1 ppid=0 parent=b name=a.exe pset=p*65", false, true},
        {"process PSET name of 64", "process pid=1 ppid=0 parent=b name=a.exe pset=p*64", false, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        // A good record first: it is read before the bad one stops the listing.
        const std::string good = c.pset ? "pset pid=7 name=good.exe pset=G" : "process pid=7 ppid=0 parent=p name=good.exe pset=G";
        ASSERT_TRUE(sim.start({good, c.record}));
        ::testing::internal::CaptureStdout();
        std::vector<STRING> names;
        bool threw = false;
        try {
            if (c.pset) {
                const auto snapshot = getPsetSnapshot(psetRequest());
                ASSERT_NE(snapshot, nullptr);
                snapshot->forEachEntry([&](const PsetEntry& e) { names.push_back(e.processName); });
            } else {
                const auto dump = getProcessDriverDump(processRequest());
                ASSERT_NE(dump, nullptr);
                for (uint32_t i = 0; i < dump->count(); ++i) names.push_back(dump->entry(i).processName);
            }
        } catch (const DriverRecordRangeError&) {
            threw = true;
        }
        ::testing::internal::GetCapturedStdout();
        EXPECT_EQ(threw, c.malformed);
        ASSERT_FALSE(names.empty());
        EXPECT_EQ(names[0], STRING(u"good.exe"));
        EXPECT_EQ(names.size(), c.malformed ? 1u : 2u);
        sim.stop();
    }
}

// ---------------------------------------------------------------------------
// Local whitelist

class DriverChannelSimWhitelist : public DriverChannelSim {
protected:
    void SetUp() override {
        DriverChannelSim::SetUp();
        const STRING file = scratch.file("registry.reg");
        testing_support::writeBytes(
            file,
            "Windows Registry Editor Version 5.00\r\n\r\n"
            "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Session Manager\\DOS Devices]\r\n"
            "\"C:\"=\"\\\\Device\\\\HarddiskVolume2\"\r\n"
            "\"E:\"=\"\\\\Device\\\\HarddiskVolume4\"\r\n"
            "\"Z:\"=\"\\\\Device\\\\HarddiskVolume9\"\r\n");
        setEnv("ZELIPS_REGISTRY", file);
        RegistryStore::forgetCache();
    }
    void TearDown() override {
        setEnv("ZELIPS_REGISTRY", STRING());
        RegistryStore::forgetCache();
        DriverChannelSim::TearDown();
    }
};

TEST_F(DriverChannelSimWhitelist, RecordsBecomeATableByDriveLetterPath) {
    ASSERT_TRUE(sim.start({
        "whitelist type=1 time=132223104000000000 path=\\Device\\HarddiskVolume2\\Tools\\updater.exe",
        "whitelist type=0 time=116444736000000000 path=\\Device\\HarddiskVolume4\\b.exe",
        "whitelist type=0 time=116444736000000000 path=\\Device\\HarddiskVolume9\\only-z.exe",
        "whitelist type=0 time=116444736000000000 path=\\Device\\HarddiskVolume7\\no-letter.exe",
        "whitelist type=7 time=116444736010000000 path=\\Device\\HarddiskVolume2\\A.exe",
        // The same path again: the later record wins.
        "whitelist type=0 time=133500000000000000 path=\\device\\harddiskvolume2\\Tools\\updater.exe",
    }));
    LocalWhitelist table;
    ASSERT_TRUE(getLocalWhitelist(table));
    // 8 + 6 records of 2064 bytes: 4096 and 8192 are too small.
    EXPECT_EQ(sim.capacities(), (std::vector<unsigned long>{4096, 8192, 16384}));

    std::vector<STRING> paths;
    for (const auto& e : table) paths.push_back(e.first);
    EXPECT_EQ(paths, (std::vector<STRING>{u"C:\\A.exe", u"C:\\Tools\\updater.exe", u"E:\\b.exe"}));
    const auto& updater = table.at(u"C:\\Tools\\updater.exe");
    EXPECT_TRUE(updater.present);
    EXPECT_EQ(updater.type, 0u);
    EXPECT_EQ(updater.timestamp, STRING(u"2024-01-17 21:20:00"));
    EXPECT_EQ(table.at(u"C:\\A.exe").type, 7u);
    EXPECT_EQ(table.at(u"C:\\A.exe").timestamp, STRING(u"1970-01-01 00:00:01"));
    EXPECT_TRUE(messages.empty());
}

TEST_F(DriverChannelSimWhitelist, OutcomesOfTheSynchronousRequest) {
    struct Case {
        std::vector<std::string> scenario;
        bool ok;
        size_t entries;
        size_t requests;
    };
    const Case cases[] = {
        {{}, true, 0, 1},  // nothing whitelisted is still a success
        {{"reply local-whitelist pending delay=50 needs=3",
          "whitelist type=0 time=116444736000000000 path=\\Device\\HarddiskVolume2\\x.exe"},
         true, 1, 2},
        {{"reply local-whitelist immediate status=31"}, false, 0, 1},
        {{"reply local-whitelist abandoned"}, false, 0, 1},
        // A count the buffer cannot hold.
        {{"count whitelist 5000", "whitelist type=0 time=0 path=\\Device\\HarddiskVolume2\\x.exe"}, false, 0, 1},
        // More data for ever: the buffer doubles until its 32-bit size wraps.
        {{"reply local-whitelist immediate needs=100000000"}, false, 0, 20},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scenario.empty() ? std::string("empty") : c.scenario.front());
        ASSERT_TRUE(sim.start(c.scenario));
        const size_t before = sim.requests().size();
        LocalWhitelist table;
        EXPECT_EQ(getLocalWhitelist(table), c.ok);
        EXPECT_EQ(table.size(), c.entries);
        const auto capacities = sim.capacities();
        ASSERT_EQ(capacities.size() - before, c.requests);
        for (size_t i = before; i < capacities.size(); ++i) EXPECT_EQ(capacities[i], 4096ul << (i - before));
        sim.stop();
    }
    EXPECT_TRUE(messages.empty());
}

// ---------------------------------------------------------------------------
// Descriptors

TEST_F(DriverChannelSim, NoPathLeavesADescriptorOpen) {
    PolicyInfoRecord info{};
    const size_t before = openDescriptors();
    ASSERT_GT(before, 0u);

    EXPECT_EQ(NotifyDriver(IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, 100), 2);  // no driver
    ASSERT_TRUE(sim.start({"reply query-policy pending-forever times=1", "reply query-policy abandoned times=1",
                           "reply query-policy immediate status=5 times=1", "reply query-policy wait-failed times=1",
                           "reply query-policy silent times=1", "reply query-policy pending status=234 times=1",
                           "reply query-policy immediate"}));
    const DriverResult expected[] = {5, 3, 6, 0, 5, 8, 0};
    for (DriverResult r : expected) EXPECT_EQ(NotifyDriver(IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, 100), r);
    {
        DriverHandle holder = OpenDriver();
        EXPECT_EQ(NotifyDriver(IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, 100), 2);  // exclusive
    }
    LocalWhitelist table;
    EXPECT_TRUE(getLocalWhitelist(table));
    ::testing::internal::CaptureStdout();
    EXPECT_NE(getPsetSnapshot(psetRequest()), nullptr);
    EXPECT_NE(getProcessDriverDump(processRequest()), nullptr);
    ::testing::internal::GetCapturedStdout();
    sim.stop();
    EXPECT_FALSE(getLocalWhitelist(table));

    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace

#endif
