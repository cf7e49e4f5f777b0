// The Win32 device channel against a real kernel driver: the Wine test
// driver (tools/wine-driver), loaded by Wine as the service ZELIPSDriver,
// behind "\\.\ZELIPS". Every request goes through CreateFileW and overlapped
// DeviceIoControl (or the synchronous call of the local whitelist), pending
// requests are completed by the driver later, and a time-out's CancelIo
// reaches the driver's cancel routine. The driver answers as its scenario
// says (the driver simulator's language), set here in its registry
// parameters; it appends what it received to a record file of this test.
//
// Runs only where the driver is installed: scripts/test installs it with
// tools/wine-driver/wine-driver.sh and sets ZELIPS_WINE_DRIVER=1. These
// tests start the driver's service and stop it again when they are done.
#ifdef _WIN32

#include <windows.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "driver/driver_channel.h"
#include "foundation/test_support.h"
#include "testing/child_process.h"

namespace {

using testing_support::ScratchDir;

constexpr wchar_t kService[] = L"ZELIPSDriver";
constexpr wchar_t kParametersKey[] = L"SYSTEM\\CurrentControlSet\\Services\\ZELIPSDriver\\Parameters";

struct Message {
    int number;
    uint32_t error;
    bool operator==(const Message& o) const { return number == o.number && error == o.error; }
};

std::ostream& operator<<(std::ostream& os, const Message& m) { return os << m.number << "(" << m.error << ")"; }

using Messages = std::vector<Message>;
using Lines = std::vector<std::string>;

long long elapsedMs(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

::testing::AssertionResult setParameter(const wchar_t* name, DWORD type, const std::u16string& data) {
    HKEY key = nullptr;
    LSTATUS rc = RegCreateKeyExW(HKEY_LOCAL_MACHINE, kParametersKey, 0, nullptr, 0, KEY_SET_VALUE | KEY_WOW64_64KEY,
                                 nullptr, &key, nullptr);
    if (rc != ERROR_SUCCESS) return ::testing::AssertionFailure() << "RegCreateKeyExW: " << rc;
    rc = RegSetValueExW(key, name, 0, type, reinterpret_cast<const BYTE*>(data.data()),
                        static_cast<DWORD>(data.size() * sizeof(char16_t)));
    RegCloseKey(key);
    if (rc != ERROR_SUCCESS) return ::testing::AssertionFailure() << "RegSetValueExW: " << rc;
    return ::testing::AssertionSuccess();
}

// Starts or stops the driver's service through the service control manager
// and waits until it is running or stopped.
::testing::AssertionResult setDriverRunning(bool run) {
    SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    if (manager == nullptr) return ::testing::AssertionFailure() << "OpenSCManagerW: " << GetLastError();
    SC_HANDLE service = OpenServiceW(manager, kService, SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS);
    if (service == nullptr) {
        const DWORD error = GetLastError();
        CloseServiceHandle(manager);
        return ::testing::AssertionFailure() << "OpenServiceW: " << error;
    }
    SERVICE_STATUS status{};
    DWORD error = 0;
    if (run) {
        if (!StartServiceW(service, 0, nullptr) && GetLastError() != ERROR_SERVICE_ALREADY_RUNNING)
            error = GetLastError();
    } else {
        if (!ControlService(service, SERVICE_CONTROL_STOP, &status) && GetLastError() != ERROR_SERVICE_NOT_ACTIVE)
            error = GetLastError();
    }
    const DWORD wanted = run ? SERVICE_RUNNING : SERVICE_STOPPED;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    bool reached = false;
    while (error == 0 && QueryServiceStatus(service, &status)) {
        if (status.dwCurrentState == wanted) {
            reached = true;
            break;
        }
        if (std::chrono::steady_clock::now() > until) break;
        sleepMs(20);
    }
    CloseServiceHandle(service);
    CloseServiceHandle(manager);
    if (error != 0) return ::testing::AssertionFailure() << (run ? "StartServiceW: " : "ControlService: ") << error;
    if (!reached) return ::testing::AssertionFailure() << "service state " << status.dwCurrentState;
    return ::testing::AssertionSuccess();
}

// The test driver's settings and its record.
class WineDriver {
public:
    explicit WineDriver(const ScratchDir& dir) : record_(dir.path() / "record.txt") {}

    ::testing::AssertionResult useRecord() {
        return setParameter(L"Record", REG_SZ, STRING::fromUtf8(record_.u8string()).str() + u'\0');
    }

    // The scenario for the next open. Each call starts afresh (a fresh
    // comment line makes the text new, and the driver re-applies a changed
    // text), with nothing used up yet.
    ::testing::AssertionResult setScenario(const Lines& lines) {
        static int generation = 0;
        std::u16string text = STRING::fromUtf8("# scenario " + std::to_string(++generation)).str() + u'\0';
        for (const auto& line : lines) text += STRING::fromUtf8(line).str() + u'\0';
        text += u'\0';
        return setParameter(L"Scenario", REG_MULTI_SZ, text);
    }

    Lines record() const {
        std::ifstream in(record_, std::ios::binary);
        Lines lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

    // The record from line `from` on.
    Lines recordFrom(size_t from) const {
        const Lines all = record();
        return from < all.size() ? Lines(all.begin() + static_cast<std::ptrdiff_t>(from), all.end()) : Lines();
    }

    Lines requestsFrom(size_t from) const {
        Lines out;
        for (const auto& line : recordFrom(from))
            if (line.rfind("request ", 0) == 0) out.push_back(line);
        return out;
    }

    std::vector<unsigned long> capacitiesFrom(size_t from) const {
        std::vector<unsigned long> out;
        for (const auto& line : requestsFrom(from)) {
            const size_t at = line.find(" out=");
            out.push_back(at == std::string::npos ? 0 : std::stoul(line.substr(at + 5)));
        }
        return out;
    }

    // Waits until the record from `from` on holds `n` lines equal to `line`
    // (the driver records a close just after the channel has moved on).
    bool waitForCount(size_t from, const std::string& line, size_t n, int ms = 5000) const {
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        for (;;) {
            size_t have = 0;
            for (const auto& l : recordFrom(from))
                if (l == line) ++have;
            if (have == n) return true;
            if (have > n || std::chrono::steady_clock::now() > until) return false;
            sleepMs(5);
        }
    }

private:
    std::filesystem::path record_;
};

bool driverInstalled() {
    const char* flag = std::getenv("ZELIPS_WINE_DRIVER");
    return flag != nullptr && std::string(flag) == "1";
}

// The driver runs only while these tests do: the other tests of the channel
// need "\\.\ZELIPS" to be absent.
class DriverChannelWine : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (driverInstalled()) started_.emplace(setDriverRunning(true));
    }
    static void TearDownTestSuite() {
        if (!started_) return;
        started_.reset();
        EXPECT_TRUE(setDriverRunning(false));
    }

    void SetUp() override {
        if (!driverInstalled()) {
            GTEST_SKIP() << "the Wine test driver is not installed here (scripts/test installs it with "
                            "tools/wine-driver/wine-driver.sh and sets ZELIPS_WINE_DRIVER=1)";
        }
        active = true;
        ASSERT_TRUE(started_.has_value());
        ASSERT_TRUE(*started_);
        ASSERT_TRUE(driver.useRecord());
        resetDriverChannelState();
        setDriverTimeoutCap(0);
        setDriverMessageObserver(
            [this](int number, const STRING&, uint32_t error) { messages.push_back({number, error}); });
    }
    void TearDown() override {
        if (!active) return;
        setDriverMessageObserver(nullptr);
        setDriverTimeoutCap(0);
        setParameter(L"Record", REG_SZ, u"");
    }

    static inline std::optional<::testing::AssertionResult> started_;
    bool active = false;
    ScratchDir scratch;
    WineDriver driver{scratch};
    Messages messages;
};

const std::string kQueryLine = "request query-policy code=0x80004018 in=0 out=1028";

// ---------------------------------------------------------------------------
// One request

TEST_F(DriverChannelWine, EveryOutcomeOfARequestHasItsResult) {
    struct Case {
        const char* reply;
        uint32_t timeoutMs;
        DriverResult result;
        Messages logged;
        bool recordDelivered;
        Lines record;  // between the open and the close
    };
    const Case cases[] = {
        {"reply query-policy immediate", 3000, 0, {}, true, {kQueryLine}},
        {"reply query-policy pending delay=30", 3000, 0, {}, true, {kQueryLine, "complete query-policy status=0"}},
        // More data after pending: the overlapped result fails with 234.
        {"reply query-policy pending status=234", 3000, 8, {}, false, {kQueryLine, "complete query-policy status=234"}},
        {"reply query-policy pending status=1450", 3000, 4, {}, false,
         {kQueryLine, "complete query-policy status=1450"}},
        // Failed within DeviceIoControl, more data included.
        {"reply query-policy immediate status=87", 3000, 6, {{10119, 87}}, false, {kQueryLine}},
        {"reply query-policy immediate status=234", 3000, 6, {{10119, 234}}, false, {kQueryLine}},
        // Time-outs: the channel's CancelIo reaches the driver's cancel routine.
        {"reply query-policy pending-forever", 150, 5, {{10118, 0}}, false, {kQueryLine, "cancel query-policy"}},
        {"reply query-policy pending delay=3000", 150, 5, {{10118, 0}}, false, {kQueryLine, "cancel query-policy"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        messages.clear();
        ASSERT_TRUE(driver.setScenario({"policy builtin=1 name=\"Server Policy\" version=7.1 id={42}", c.reply}));
        const size_t mark = driver.record().size();
        PolicyInfoRecord info{};
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(NotifyDriver(IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, c.timeoutMs), c.result);
        const long long spent = elapsedMs(started);
        EXPECT_EQ(messages, c.logged);
        EXPECT_EQ(info.builtin, c.recordDelivered ? 1u : 0u);
        if (c.recordDelivered) {
            EXPECT_EQ(driverFieldText(info.name), STRING(u"Server Policy"));
            EXPECT_EQ(driverFieldText(info.version), STRING(u"7.1"));
            EXPECT_EQ(driverFieldText(info.id), STRING(u"{42}"));
        }
        if (c.timeoutMs < 1000) {
            // Cancelled at once: a request that CancelIo did not reach would
            // hold the channel for its second of grace.
            EXPECT_GE(spent, static_cast<long long>(c.timeoutMs) - 10);
            EXPECT_LT(spent, static_cast<long long>(c.timeoutMs) + 700);
        } else {
            EXPECT_LT(spent, 2000);
        }
        ASSERT_TRUE(driver.waitForCount(mark, "close", 1));
        Lines expected{"open 0"};
        expected.insert(expected.end(), c.record.begin(), c.record.end());
        expected.push_back("close");
        EXPECT_EQ(driver.recordFrom(mark), expected);
    }
}

TEST_F(DriverChannelWine, EachCodeCarriesItsOwnBuffer) {
    ASSERT_TRUE(driver.setScenario({}));
    const size_t mark = driver.record().size();
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
        // the driver's "more data" fails DeviceIoControl at once.
        {IOCTL_ZELIPS_LOCAL_WHITELIST, big.data(), 1316, "request local-whitelist code=0x80004036 in=0 out=0", 6},
    };
    Lines expected;
    for (const auto& c : cases) {
        EXPECT_EQ(NotifyDriver(c.code, c.buffer, c.length, 3000), c.result) << c.line;
        expected.push_back(c.line);
    }
    ASSERT_TRUE(driver.waitForCount(mark, "close", sizeof cases / sizeof cases[0]));
    EXPECT_EQ(driver.requestsFrom(mark), expected);
    // The use-built-in word reached the driver: its policy answer carries it.
    EXPECT_EQ(info.builtin, 1u);
}

TEST_F(DriverChannelWine, PolicyErrorTextComesFromTheDriver) {
    ASSERT_TRUE(driver.setScenario({"policy-error code=9 text=\"line 3: unknown rule\""}));
    PolicyErrorRecord why{};
    ASSERT_EQ(NotifyDriver(IOCTL_ZELIPS_POLICY_ERROR, &why, sizeof why, driver_timeout::PolicyError), 0);
    EXPECT_EQ(driverFieldText(why.description), STRING(u"line 3: unknown rule"));
}

// ---------------------------------------------------------------------------
// The driver stopped and started again

TEST_F(DriverChannelWine, StoppedDriverIsNotOpenedAndIsReportedOnce) {
    ASSERT_TRUE(driver.setScenario({}));
    PolicyInfoRecord info{};
    const auto query = [&] { return NotifyDriver(IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, 3000); };
    EXPECT_EQ(query(), 0);
    EXPECT_TRUE(DriverPresent());

    ASSERT_TRUE(setDriverRunning(false));
    struct Restart {
        ~Restart() { EXPECT_TRUE(setDriverRunning(true)); }
    } restart;
    EXPECT_EQ(query(), 2);
    EXPECT_EQ(query(), 2);
    EXPECT_FALSE(OpenDriver().valid());
    uint32_t flag = 0;
    EXPECT_EQ(NotifyDriver(IOCTL_ZELIPS_USE_BUILTIN, &flag, sizeof flag, driver_timeout::UseBuiltin), 2);
    EXPECT_EQ(messages, (Messages{{10112, 2}}));
    EXPECT_TRUE(DriverPresent());  // the flag stays once set

    ASSERT_TRUE(setDriverRunning(true));
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(messages, (Messages{{10112, 2}, {10400, 0}}));
}

// ---------------------------------------------------------------------------
// The readers, with real records

DriverSnapshotRequest psetRequest() {
    return [](void* b, uint32_t n) { return NotifyDriver(IOCTL_ZELIPS_PSET_SNAPSHOT, b, n, 3000); };
}

DriverSnapshotRequest processRequest() {
    return [](void* b, uint32_t n) { return NotifyDriver(IOCTL_ZELIPS_PROCESS_DUMP, b, n, 3000); };
}

TEST_F(DriverChannelWine, PsetSnapshotGrowsUntilTheDriverHasRoom) {
    ASSERT_TRUE(driver.setScenario({
        "reply pset-snapshot pending needs=600",
        "pset pid=4 name=\"C:\\Program Files\\Agent\\svc.exe\" pset=Agent",
        "child name=C:\\Windows\\cmd.exe pset=Shell",
        "child name=C:\\Windows\\notepad.exe pset=",
        "pset pid=900 name=C:\\Tools\\t.exe pset=",
    }));
    const size_t mark = driver.record().size();
    ::testing::internal::CaptureStdout();
    const auto snapshot = getPsetSnapshot(psetRequest());
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    ASSERT_NE(snapshot, nullptr);
    // 128, 256, 512 and 1024 records: "more data" after pending three times.
    EXPECT_EQ(driver.capacitiesFrom(mark), (std::vector<unsigned long>{83972, 167940, 335876, 671748}));
    const auto entries = snapshot->entries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].processId, 4u);
    EXPECT_EQ(entries[0].processName, STRING(u"C:\\Program Files\\Agent\\svc.exe"));
    EXPECT_EQ(entries[0].psetName, STRING(u"Agent"));
    ASSERT_EQ(entries[0].children.size(), 2u);
    EXPECT_EQ(entries[0].children[0].name, STRING(u"C:\\Windows\\cmd.exe"));
    EXPECT_EQ(entries[0].children[0].psetName, STRING(u"Shell"));
    EXPECT_EQ(entries[0].children[1].name, STRING(u"C:\\Windows\\notepad.exe"));
    EXPECT_TRUE(entries[0].children[1].psetName.empty());
    EXPECT_EQ(entries[1].processId, 900u);
    EXPECT_EQ(entries[1].processName, STRING(u"C:\\Tools\\t.exe"));
    EXPECT_TRUE(entries[1].psetName.empty());
    EXPECT_TRUE(entries[1].children.empty());
}

TEST_F(DriverChannelWine, ProcessDumpReadsTheDriversRecords) {
    ASSERT_TRUE(driver.setScenario({
        "reply process-dump pending needs=200 delay=20",
        "process terminated=0 ppid=1 pid=2 parent=init name=C:\\a.exe pset=P",
        "process terminated=1 ppid=2 pid=3 parent=C:\\a.exe name=\"C:\\Program Files\\b.exe\" pset=",
    }));
    const size_t mark = driver.record().size();
    ::testing::internal::CaptureStdout();
    const auto dump = getProcessDriverDump(processRequest());
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "getProcessDriverDump\nBuffer length 151044\nBuffer length 302084\n");
    ASSERT_NE(dump, nullptr);
    EXPECT_EQ(driver.capacitiesFrom(mark), (std::vector<unsigned long>{151044, 302084}));
    ASSERT_EQ(dump->count(), 2u);
    const ProcessEntry first = dump->entry(0);
    EXPECT_EQ(first.terminated, 0);
    EXPECT_EQ(first.parentProcessId, 1u);
    EXPECT_EQ(first.processId, 2u);
    EXPECT_EQ(first.parentName, STRING(u"init"));
    EXPECT_EQ(first.processName, STRING(u"C:\\a.exe"));
    EXPECT_EQ(first.psetName, STRING(u"P"));
    const ProcessEntry second = dump->entry(1);
    EXPECT_EQ(second.terminated, 1);
    EXPECT_EQ(second.processId, 3u);
    EXPECT_EQ(second.processName, STRING(u"C:\\Program Files\\b.exe"));
    EXPECT_TRUE(second.psetName.empty());
}

// The NT device behind a drive letter, straight from the system.
std::string deviceOf(const wchar_t* drive) {
    wchar_t target[512];
    if (QueryDosDeviceW(drive, target, 512) == 0) return std::string();
    return STRING(target).toUtf8();
}

TEST_F(DriverChannelWine, LocalWhitelistPathsAreConvertedThroughQueryDosDevice) {
    // Wine gives C: a volume device of its own ("\Device\HarddiskVolume1").
    const std::string c = deviceOf(L"C:");
    ASSERT_EQ(c.rfind("\\Device\\", 0), 0u) << c;
    // Z: (Wine's Unix root) has a device too, but Z: is never tried.
    const std::string z = deviceOf(L"Z:");
    Lines scenario = {
        "whitelist type=0 time=133500000000000000 path=" + c + "\\dir\\app.exe",
        "whitelist type=1 time=132223104000000000 path=\"" + c + "\\Program Files\\Updater\\up.exe\"",
        "whitelist type=7 time=116444736010000000 path=" + c + "\\x.dll",
        "whitelist type=0 time=133500000000000000 path=\\Device\\NoSuchVolume42\\gone.exe",
    };
    if (!z.empty() && z != c) scenario.push_back("whitelist type=0 time=0 path=" + z + "\\tmp\\on-z.exe");
    ASSERT_TRUE(driver.setScenario(scenario));
    const size_t mark = driver.record().size();

    LocalWhitelist table;
    ASSERT_TRUE(getLocalWhitelist(table));
    // 4096 bytes hold one record, 8192 three: "more data" at once, twice.
    EXPECT_EQ(driver.capacitiesFrom(mark), (std::vector<unsigned long>{4096, 8192, 16384}));
    struct Row {
        const char16_t* path;
        uint32_t type;
        const char16_t* timestamp;
    };
    const Row rows[] = {
        {u"C:\\Program Files\\Updater\\up.exe", 1, u"2020-01-01 00:00:00"},
        {u"C:\\dir\\app.exe", 0, u"2024-01-17 21:20:00"},
        {u"C:\\x.dll", 7, u"1970-01-01 00:00:01"},
    };
    ASSERT_EQ(table.size(), sizeof rows / sizeof rows[0]);
    auto it = table.begin();
    for (const auto& row : rows) {
        EXPECT_EQ(it->first, STRING(row.path));
        EXPECT_TRUE(it->second.present);
        EXPECT_EQ(it->second.type, row.type) << STRING(row.path);
        EXPECT_EQ(it->second.timestamp, STRING(row.timestamp)) << STRING(row.path);
        ++it;
    }
    EXPECT_EQ(STRING(whitelistTypeName(7)), STRING(u"None"));
}

TEST_F(DriverChannelWine, EmptyWhitelistAndFailedWhitelistRequest) {
    struct Case {
        const char* scenario;
        bool returned;
    };
    const Case cases[] = {
        {"count whitelist 0", true},
        {"reply local-whitelist immediate status=31", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.scenario);
        ASSERT_TRUE(driver.setScenario({c.scenario}));
        LocalWhitelist table;
        EXPECT_EQ(getLocalWhitelist(table), c.returned);
        EXPECT_TRUE(table.empty());
    }
}

}  // namespace

#endif
