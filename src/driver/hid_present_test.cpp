// The detection-service interface against a real stand-in process
// (tools/ids-sim) that runs under the service's image name and holds the
// service's real events.
#include "driver/hid_present.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "foundation/ids_exception.h"
#include "foundation/lock_file.h"
#include "foundation/test_support.h"
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
        scratch_ = fs::temp_directory_path() /
                   ("zelips-hid-" + pid + "-" + ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(scratch_);
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
        std::error_code ec;
        fs::remove_all(scratch_, ec);
    }

    STRING root() const { return u8(root_); }
    STRING bin() const { return u8(root_ / "bin"); }
    fs::path commands() const { return root_ / "system" / "commands"; }
    fs::path marker() const { return commands() / "starting.msg"; }

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
    fs::path scratch_, root_, record_, stopFile_;
    std::string prefix_;
    std::unique_ptr<ChildProcess> service_;
    int runs_ = 0;
};

TEST_F(HIDPresentTest, ServiceIsFoundByItsImageName) {
    EXPECT_FALSE(isIDSRunning(u""));
    EXPECT_FALSE(HIDPresent(root()).isPresent());

    const struct {
        const char* image;
        bool found;
    } cases[] = {
        {"ZELIDSService.exe", true},
        {"zelidsservice.EXE", true},
        {"ZELIDSServic.exe", false},
        {"MyZELIDSService.exe", false},
        {"ZELIDSService.exe.exe", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.image);
        startService(c.image);
        EXPECT_EQ(isIDSRunning(u""), c.found);
        EXPECT_EQ(isIDSRunning(bin()), c.found);
        EXPECT_EQ(HIDPresent(root()).isPresent(), c.found);
        stopService();
    }
    EXPECT_FALSE(isIDSRunning(u""));
}

TEST_F(HIDPresentTest, StartingMarkerMeansNotReady) {
    startService();
    const struct {
        const char* name;
        fs::path marker;  // empty: none
        bool emptyFolder;
        bool ready;
    } cases[] = {
        {"no marker", {}, false, true},
        {"marker", marker(), false, false},
        {"marker, no folder given", marker(), true, true},
        {"marker beside bin, not in system", root_ / "bin" / "system" / "commands" / "starting.msg", false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (!c.marker.empty()) {
            fs::create_directories(c.marker.parent_path());
            writeBytes(u8(c.marker), "");
        }
        EXPECT_EQ(isIDSRunning(c.emptyFolder ? STRING() : bin()), c.ready);
        if (!c.emptyFolder) {
            EXPECT_EQ(HIDPresent(root()).isPresent(), c.ready);
        }
        if (!c.marker.empty()) fs::remove(c.marker);
    }

    // A starting service is not signalled.
    writeBytes(u8(marker()), "");
    STRING error;
    EXPECT_FALSE(signalAgent(SignalReloadConfig, bin(), true, &error));
    EXPECT_EQ(error, STRING(u"IDS Agent not running"));
    fs::remove(marker());
    ASSERT_TRUE(signalAgent(SignalLogCollect, bin(), true, &error));
    EXPECT_EQ(waitForSignals(1), std::vector<std::string>{"AGENT_LOGCOLLECT_EVENT -"});
}

TEST_F(HIDPresentTest, EachSignalSetsItsOwnEvent) {
    startService();
    const char* const names[] = {"AGENT_RELOADCONFIG_EVENT", "AGENT_LOGCOLLECT_EVENT", "AGENT_GETADRDATA_EVENT",
                                 "AGENT_GETADRDATA_DELTA_EVENT", "AGENT_CHECK_FOR_AGENTUPGRADE_EVENT"};
    std::vector<std::string> expected;
    for (unsigned i = 0; i < AgentSignalCount; ++i) {
        SCOPED_TRACE(names[i]);
        EXPECT_EQ(agentEventName(i), STRING(u"Global\\") + STRING::fromUtf8(prefix_ + names[i]));
        STRING error;
        EXPECT_TRUE(signalAgent(i, bin(), true, &error));
        EXPECT_TRUE(error.empty());
        expected.push_back(std::string(names[i]) + " -");
        EXPECT_EQ(waitForSignals(i + 1), expected);
    }
    EXPECT_TRUE(agentEventName(AgentSignalCount).empty());
}

TEST_F(HIDPresentTest, SignalIsSentOnlyWhenItCanBe) {
    // Nothing runs and no event exists.
    STRING error = u"unchanged";
    EXPECT_FALSE(signalAgent(SignalReloadConfig, bin(), true, &error));
    EXPECT_EQ(error, STRING(u"IDS Agent not running"));
    EXPECT_FALSE(signalAgent(SignalReloadConfig, bin(), true, nullptr));
    error = u"unchanged";
    EXPECT_FALSE(signalAgent(SignalReloadConfig, bin(), false, &error));
    EXPECT_EQ(error, STRING(u"unchanged"));

    // The events exist but no process carries the service's name: only an
    // unchecked signal goes through.
    startService("ids_helper.exe");
    EXPECT_FALSE(signalAgent(SignalReloadConfig, bin(), true, &error));
    EXPECT_EQ(error, STRING(u"IDS Agent not running"));
    EXPECT_TRUE(signalAgent(SignalGetAdrData, bin(), false, nullptr));
    EXPECT_EQ(waitForSignals(1), std::vector<std::string>{"AGENT_GETADRDATA_EVENT -"});

    // Indexes above 4 touch no event.
    startService();
    for (unsigned index : {5u, 6u, static_cast<unsigned>(UINT_MAX)}) {
        EXPECT_FALSE(signalAgent(index, bin(), false, nullptr)) << index;
        EXPECT_FALSE(signalAgent(index, bin(), true, nullptr)) << index;
    }
    EXPECT_TRUE(signalAgent(SignalCheckForAgentUpgrade, bin(), true, nullptr));
    EXPECT_EQ(waitForSignals(1), std::vector<std::string>{"AGENT_CHECK_FOR_AGENTUPGRADE_EVENT -"});
}

TEST_F(HIDPresentTest, SignalIDSWakesTheServiceOrThrowsOneException) {
    enum Setup { NotRunning, Ready, Starting, OtherImage, MissingEvents };
    const struct {
        const char* name;
        Setup setup;
        bool signalled;
    } cases[] = {
        {"not running", NotRunning, false},
        {"ready", Ready, true},
        {"starting", Starting, false},
        {"events without the service's process", OtherImage, false},
        {"service without its events", MissingEvents, false},
    };
    const std::string otherPrefix = prefix_ + "other_";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        stopService();
        if (c.setup == Ready || c.setup == Starting) startService();
        if (c.setup == OtherImage) startService("ids_helper.exe");
        if (c.setup == MissingEvents) startService("ZELIDSService.exe", &otherPrefix);
        if (c.setup == Starting) writeBytes(u8(marker()), "");

        HIDPresent ids(root());
        if (c.signalled) {
            EXPECT_NO_THROW(ids.SignalIDS());
            EXPECT_EQ(waitForSignals(1), std::vector<std::string>{"AGENT_RELOADCONFIG_EVENT -"});
        } else {
            expectSignalFailure([&] { ids.SignalIDS(); });
        }
        fs::remove(marker());
    }
}

TEST_F(HIDPresentTest, InstallRootComesFromTheRegistry) {
#ifdef _WIN32
    GTEST_SKIP() << "the Windows build reads the machine's registry, which this test does not change";
#else
    const fs::path reg = scratch_ / "registry.reg";
    writeBytes(u8(reg), "Windows Registry Editor Version 5.00\r\n\r\n"
                        "[HKEY_LOCAL_MACHINE\\SOFTWARE\\WOW6432Node\\Tessaly\\Zelshield\\agent]\r\n"
                        "\"InstallRoot\"=\"" + root_.u8string() + "\"\r\n");
    const char* old = std::getenv("ZELIPS_REGISTRY");
    const std::string saved = old ? old : "";
    setEnv("ZELIPS_REGISTRY", u8(reg));

    HIDPresent ids;
    EXPECT_EQ(ids.binFolder(), bin());
    EXPECT_EQ(ids.commandsFolder(), u8(commands()));
    startService();
    writeBytes(u8(marker()), "");
    expectSignalFailure([&] { ids.SignalIDS(); });
    fs::remove(marker());
    EXPECT_NO_THROW(ids.SignalIDS());
    EXPECT_EQ(waitForSignals(1), std::vector<std::string>{"AGENT_RELOADCONFIG_EVENT -"});

    setEnv("ZELIPS_REGISTRY", STRING::fromUtf8(saved));
#endif
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

// Notes what the commands folder holds at the moment the service is woken.
class WatchedHIDPresent : public HIDPresent {
public:
    WatchedHIDPresent(STRING root, fs::path commands) : HIDPresent(std::move(root)), commands_(std::move(commands)) {}
    void SignalIDS() override {
        atSignal.push_back(filesBelow(commands_));
        HIDPresent::SignalIDS();
    }
    std::vector<std::vector<std::string>> atSignal;

private:
    fs::path commands_;
};

TEST_F(HIDPresentTest, CsvRolloverIsHandedOverBeforeTheSignal) {
    startService();
    WatchedHIDPresent ids(root(), commands());
    const std::string rollover = "configtool.ini=Event Management.EventFile Force Rollover=1\r\n";
    const long long before = static_cast<long long>(std::time(nullptr));
    ids.requestCsvRollover();
    ASSERT_EQ(waitForSignals(1).size(), 1u);
    ids.requestCsvRollover();  // same second or not, a folder of its own
    const long long after = static_cast<long long>(std::time(nullptr));

    ASSERT_EQ(ids.atSignal.size(), 2u);
    ASSERT_EQ(ids.atSignal[0].size(), 1u);
    ASSERT_EQ(ids.atSignal[1].size(), 2u);
    EXPECT_EQ(ids.atSignal[1][0], ids.atSignal[0][0]);
    long long lastSeconds = 0;
    for (const auto& file : ids.atSignal[1]) {
        SCOPED_TRACE(file);
        const size_t slash = file.find('/');
        ASSERT_NE(slash, std::string::npos);
        const std::string folder = file.substr(0, slash);
        ASSERT_EQ(folder.find_first_not_of("0123456789"), std::string::npos);
        const long long seconds = std::stoll(folder);
        EXPECT_GE(seconds, before);
        EXPECT_LE(seconds, after + 1);
        EXPECT_GT(seconds, lastSeconds);
        lastSeconds = seconds;
        EXPECT_EQ(file.substr(slash + 1), rollover);
    }
    // The service was woken through its configuration event, each time.
    const std::string size = std::to_string(rollover.size() - std::string("configtool.ini=").size());
    const std::string first = ids.atSignal[0][0].substr(0, ids.atSignal[0][0].find('=')) + ":" + size;
    const std::string second = ids.atSignal[1][1].substr(0, ids.atSignal[1][1].find('=')) + ":" + size;
    EXPECT_EQ(waitForSignals(2), (std::vector<std::string>{"AGENT_RELOADCONFIG_EVENT " + first,
                                                           "AGENT_RELOADCONFIG_EVENT " + first + "," + second}));

    // Any settings file: one "name=value" line each, nothing escaped.
    fs::remove_all(commands());
    ids.writeSettingsFile(u"policy.ini", {{u"a", u"1"}, {u"b c", u"x=y"}, {u"empty", u""}});
    ASSERT_EQ(ids.atSignal.size(), 3u);
    ASSERT_EQ(ids.atSignal[2].size(), 1u);
    const std::string& written = ids.atSignal[2][0];
    EXPECT_EQ(written.substr(written.find('/')), "/policy.ini=a=1\r\nb c=x=y\r\nempty=\r\n");

    // Without a service the file is left, and the request fails as a signal does.
    stopService();
    expectSignalFailure([&] { ids.requestCsvRollover(); });
    EXPECT_EQ(filesBelow(commands()).size(), 2u);
}

}  // namespace
