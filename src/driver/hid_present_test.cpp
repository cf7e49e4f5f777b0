// The detection-service interface against a real stand-in process
// (tools/ids-sim) that runs under the service's image name and holds the
// service's real events.
#include "driver/hid_present.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "foundation/ids_exception.h"
#include "foundation/lock_file.h"
#include "testing/test_support.h"
#include "testing/child_process.h"

#ifdef _WIN32
#include <process.h>
#define ZELIPS_GETPID _getpid
#else
#include <unistd.h>
#define ZELIPS_GETPID getpid
#endif

namespace fs = std::filesystem;
using testing_support::readBytes;
using testing_support::writeBytes;

namespace {

STRING u8(const fs::path& p) { return STRING::fromUtf8(p.u8string()); }

std::vector<std::string> readRecordLines(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

void expectSignalFailure(const std::function<void()>& call) {
    try {
        call();
        ADD_FAILURE() << "no exception";
    } catch (const IDSException& e) {
        EXPECT_EQ(e.operation(), STRING(u"HIDPresent"));
        EXPECT_EQ(e.message(), STRING(u"Error while signalling to the HIDS Service."));
    }
}

class HIDPresentTest : public ::testing::Test {
protected:
    void SetUp() override {
        // The service's process name is machine-wide: every test that starts
        // a stand-in or expects none takes turns through this lock, also with
        // other test runs on the same machine.
        ASSERT_TRUE(machineLock_.open(u8(fs::temp_directory_path() / "zelips-ids-service.lock")));
        machineLock_.lock(1);

        const std::string pid = std::to_string(ZELIPS_GETPID());
        scratch_ = dir_.path();
        root_ = scratch_ / "root";
        fs::create_directories(root_ / "bin");
        fs::create_directories(root_ / "system" / "commands");
        // Events of this test process only.
        prefix_ = "zt" + pid + "_";
        setEnv("ZELIPS_EVENT_PREFIX", STRING::fromUtf8(prefix_));
    }

    void TearDown() override {
        stopService();
        setEnv("ZELIPS_EVENT_PREFIX", STRING());
    }

    STRING root() const { return u8(root_); }
    fs::path commands() const { return root_ / "system" / "commands"; }

    // Starts the stand-in as a process with this image name, its events named
    // with eventPrefix, and waits until its events exist.
    void startService(const std::string& image = "ZELIDSService.exe", const std::string* eventPrefix = nullptr) {
        stopService();
        const fs::path dir = scratch_ / ("run" + std::to_string(++runs_));
        fs::create_directories(dir);
        const fs::path program = dir / image;
#ifdef _WIN32
        fs::copy_file(fs::u8path(siblingProgram("ZELIDSService").toUtf8()), program);
#else
        fs::create_symlink(fs::u8path(siblingProgram("ids_sim").toUtf8()), program);
#endif
        record_ = dir / "record.txt";
        stopFile_ = dir / "stop";
        service_ = std::make_unique<ChildProcess>();
        ASSERT_TRUE(service_->start({u8(program), u"--record", u8(record_), u"--commands", u8(commands()),
                                     u"--stop-file", u8(stopFile_), u"--time-limit-ms", u"60000",
                                     u"--event-prefix", STRING::fromUtf8(eventPrefix ? *eventPrefix : prefix_)}));
        for (int i = 0; i < 1000; ++i) {
            const auto lines = readRecordLines(record_);
            if (!lines.empty()) {
                ASSERT_EQ(lines[0], "ready");
                return;
            }
            sleepMs(10);
        }
        FAIL() << "the stand-in did not get ready";
    }

    void stopService() {
        if (!service_) return;
        writeBytes(u8(stopFile_), "");
        EXPECT_EQ(service_->wait(), 0);
        service_.reset();
    }

    // The signals the stand-in has recorded, once there are at least `count`.
    std::vector<std::string> waitForSignals(size_t count) {
        std::vector<std::string> lines;
        for (int i = 0; i < 500; ++i) {
            lines = readRecordLines(record_);
            if (lines.size() >= count + 1) break;
            sleepMs(10);
        }
        if (!lines.empty()) lines.erase(lines.begin());
        return lines;
    }

    LockFile machineLock_;
    testing_support::ScratchDir dir_;
    fs::path scratch_, root_, record_, stopFile_;
    std::string prefix_;
    std::unique_ptr<ChildProcess> service_;
    int runs_ = 0;
};

// The five events are the service's: each signal sets its own, and an
// index past them sets none.
TEST_F(HIDPresentTest, EachSignalSetsItsOwnEvent) {
    startService();
    const STRING bin = u8(root_ / "bin");
    for (unsigned i = 0; i <= AgentSignalCount; ++i) EXPECT_EQ(signalAgent(i, bin, true, nullptr), i < AgentSignalCount) << i;
    EXPECT_EQ(agentEventName(AgentSignalCount), STRING());
    EXPECT_EQ(waitForSignals(AgentSignalCount),
              (std::vector<std::string>{"AGENT_RELOADCONFIG_EVENT -", "AGENT_LOGCOLLECT_EVENT -", "AGENT_GETADRDATA_EVENT -",
                                        "AGENT_GETADRDATA_DELTA_EVENT -", "AGENT_CHECK_FOR_AGENTUPGRADE_EVENT -"}));
}

// Who counts as running and ready: a process with the service's image name
// (ASCII case aside) and no starting marker in <bin>/../system/commands.
// Only such a service is signalled, and only through its own events.
TEST_F(HIDPresentTest, OnlyAReadyServiceIsPresentAndSignalled) {
    const fs::path besideBin = root_ / "bin" / "system" / "commands" / "starting.msg";
    const struct {
        const char* name;
        const char* image;  // null: no stand-in
        bool ownEvents;     // its events carry this test's names
        fs::path marker;    // empty: none
        bool ready;
    } cases[] = {
        {"not running", nullptr, false, {}, false},
        {"ready", "ZELIDSService.exe", true, {}, true},
        {"image name in other case", "zelidsservice.EXE", true, {}, true},
        {"a shorter name", "ZELIDSServic.exe", true, {}, false},
        {"a longer name", "MyZELIDSService.exe", true, {}, false},
        {"a second extension", "ZELIDSService.exe.exe", true, {}, false},
        {"starting", "ZELIDSService.exe", true, commands() / "starting.msg", false},
        {"marker beside bin, not in system", "ZELIDSService.exe", true, besideBin, true},
        {"service without its events", "ZELIDSService.exe", false, {}, true},
    };
    const std::string otherPrefix = prefix_ + "other_";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        stopService();
        if (c.image != nullptr) startService(c.image, c.ownEvents ? nullptr : &otherPrefix);
        if (!c.marker.empty()) {
            fs::create_directories(c.marker.parent_path());
            writeBytes(u8(c.marker), "");
        }
        HIDPresent ids(root());
        EXPECT_EQ(ids.isPresent(), c.ready);
        const bool signalled = c.ready && c.ownEvents;
        if (signalled) {
            EXPECT_NO_THROW(ids.SignalIDS());
        } else {
            expectSignalFailure([&] { ids.SignalIDS(); });
        }
        if (c.image != nullptr) {
            EXPECT_EQ(waitForSignals(signalled ? 1 : 0),
                      signalled ? std::vector<std::string>{"AGENT_RELOADCONFIG_EVENT -"} : std::vector<std::string>{});
        }
        if (!c.marker.empty()) fs::remove(c.marker);
    }
}

// Every file below the folder as "relative/path=content", in name order.
std::vector<std::string> filesBelow(const fs::path& folder) {
    std::vector<std::string> out;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            out.push_back(fs::relative(entry.path(), folder).generic_u8string() + "=" + readBytes(u8(entry.path())));
    std::sort(out.begin(), out.end());
    return out;
}

TEST_F(HIDPresentTest, RolloverFileIsCompleteBeforeTheSignal) {
    startService();
    HIDPresent ids(root());
    const long long before = static_cast<long long>(std::time(nullptr));
    // The stand-in records what the commands folder holds when it is woken:
    // wait for each signal before the next file is written.
    ids.requestCsvRollover();
    ASSERT_EQ(waitForSignals(1).size(), 1u);
    ids.requestCsvRollover();  // same second or not, a folder of its own
    const long long after = static_cast<long long>(std::time(nullptr));

    const std::string content = "Event Management.EventFile Force Rollover=1\r\n";
    const auto files = filesBelow(commands());
    ASSERT_EQ(files.size(), 2u);
    std::vector<std::string> signals;
    std::string held;
    long long lastSeconds = 0;
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        // <commands>/<seconds since 1970>/configtool.ini, a new folder each time.
        const std::string folder = file.substr(0, file.find('/'));
        ASSERT_EQ(folder.find_first_not_of("0123456789"), std::string::npos);
        const long long seconds = std::stoll(folder);
        EXPECT_GE(seconds, before);
        EXPECT_LE(seconds, after + 2);
        EXPECT_GT(seconds, lastSeconds);
        lastSeconds = seconds;
        EXPECT_EQ(file.substr(folder.size() + 1), "configtool.ini=" + content);
        held += (held.empty() ? "" : ",") + folder + "/configtool.ini:" + std::to_string(content.size());
        signals.push_back("AGENT_RELOADCONFIG_EVENT " + held);
    }
    // The service was woken through its configuration event, each time
    // with the whole file in place.
    EXPECT_EQ(waitForSignals(2), signals);

    // Without a service the file is left, and the request fails as a signal does.
    stopService();
    expectSignalFailure([&] { ids.requestCsvRollover(); });
    EXPECT_EQ(filesBelow(commands()).size(), 3u);
}

#ifndef _WIN32
// The names a hand-over would take are held by links, to a folder elsewhere
// and to one that does not exist: they are passed over, and the file lands
// in a folder that the request made itself.
TEST_F(HIDPresentTest, HandOverPassesOverNamesHeldByLinks) {
    const fs::path elsewhere = scratch_ / "elsewhere";
    fs::create_directories(elsewhere);
    const long long now = static_cast<long long>(std::time(nullptr));
    for (long long s = now; s < now + 4; ++s) {
        fs::create_directory_symlink(s % 2 ? elsewhere : scratch_ / "absent", commands() / std::to_string(s));
    }
    HIDPresent ids(root());
    expectSignalFailure([&] { ids.requestCsvRollover(); });  // no service to wake
    EXPECT_TRUE(fs::is_empty(elsewhere));
    EXPECT_FALSE(fs::exists(scratch_ / "absent"));
    const auto files = filesBelow(commands());
    ASSERT_EQ(files.size(), 1u);
    EXPECT_GE(std::stoll(files[0]), now + 4);
}
#endif

#if defined(_WIN32) && !defined(_WIN64)
// On 64-bit Windows the detection service is a 64-bit process beside the
// 32-bit tool. The 32-bit build's stand-in is a 64-bit program, so that the
// tests above show the tool finding and signalling it across WoW64.
TEST(HIDPresentStandIn, IsA64BitProgramBesideThe32BitTool) {
    const std::string image = readBytes(siblingProgram("ZELIDSService"));
    ASSERT_GT(image.size(), 0x40u);
    uint32_t header = 0;
    std::memcpy(&header, image.data() + 0x3C, sizeof header);
    ASSERT_LT(static_cast<size_t>(header) + 6, image.size());
    ASSERT_EQ(image.compare(header, 4, std::string("PE\0\0", 4)), 0);
    uint16_t machine = 0;
    std::memcpy(&machine, image.data() + header + 4, sizeof machine);
    EXPECT_EQ(machine, 0x8664) << "the stand-in is not an x64 program";
}
#endif

}  // namespace
