// DriverConfig: the driver's registry values together with the requests to
// the driver. On Linux against the driver simulator through the real device
// protocol and a registry file of the test's own; under Wine the registry
// cases that need no driver run against the real registry.
#include "driver/driver_config.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "config/agent_config.h"
#include "driver/driver_channel.h"
#include "testing/driver_peer.h"
#include "foundation/file_util.h"
#include "foundation/registry.h"
#include "testing/test_support.h"

#ifndef _WIN32
#include "foundation/registry_store.h"
#endif

using testing_support::ScratchDir;

namespace {

const char16_t* const kParameters =
    u"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\ZELIPSDriver\\Parameters";

STRING readValue(const char16_t* name) {
    try {
        RegistryKey key(STRING(kParameters) + u"\\" + name, true);
        return key.getString();
    } catch (const IDSException&) {
        return u"<missing>";
    }
}

uint32_t readStart(const char16_t* service) {
    RegistryKey key(STRING(u"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\") + service + u"\\Start", true);
    return key.getDWord();
}

void writeValue(const char16_t* name, const STRING& value) {
    RegistryKey key(kParameters, false, RegistryKey::ForWrite{});
    key.setRegData(name, RegValueType::Sz, value);
}

class DriverConfigTest : public ::testing::Test {
protected:
#ifndef _WIN32
    // No driver unless a test starts the simulator (which then takes over the device).
    DriverConfigTest() { setEnv("ZELIPS_DEVICE", scratch.file("no-driver")); }
#endif
    void SetUp() override {
#ifndef _WIN32
        setEnv("ZELIPS_REGISTRY", scratch.file("registry.reg"));
        testing_support::writeBytes(scratch.file("registry.reg"),
                                    "Windows Registry Editor Version 5.00\r\n\r\n"
                                    "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\ZELIPSDriver]\r\n"
                                    "\"Start\"=dword:00000001\r\n\r\n"
                                    "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\ZELIPSNetFilter]\r\n"
                                    "\"Start\"=dword:00000002\r\n\r\n");
        RegistryStore::forgetCache();
#else
        for (const char16_t* service : {u"ZELIPSDriver", u"ZELIPSNetFilter"}) {
            RegistryKey key(STRING(u"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\") + service, false,
                            RegistryKey::ForWrite{});
            key.setRegData(u"Start", RegValueType::DWord, u"1");
        }
        // Values left by an earlier test would hide the absent cases.
        try {
            RegistryKey(u"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\ZELIPSDriver", false,
                        RegistryKey::ForWrite{})
                .deleteSubKey(u"Parameters");
        } catch (const IDSException&) {
        }
#endif
        writeValue(u"Log File", u"old-driver.log");
        writeValue(u"Filter File", u"old.pol");
        writeValue(u"UseBuiltin", u"0");
        resetDriverChannelState();
        setDriverTimeoutCap(2000);
        DriverConfig::setErrorText(STRING());
    }
    void TearDown() override {
        setDriverTimeoutCap(0);
#ifndef _WIN32
        setEnv("ZELIPS_REGISTRY", STRING());
        setEnv("ZELIPS_DEVICE", STRING());
#endif
    }

    ScratchDir scratch;
    AgentConfig agent{u"agent.ini"};
};

// ---- Without a driver (both platforms)

TEST_F(DriverConfigTest, PreventionStartValues) {
    DriverConfig driver(&agent);
    ASSERT_EQ(driver.disablePrevention(), 0u);
    EXPECT_EQ(readStart(u"ZELIPSDriver"), 3u);
    EXPECT_EQ(readStart(u"ZELIPSNetFilter"), 3u);
    ASSERT_EQ(driver.enablePrevention(), 0u);
    EXPECT_EQ(readStart(u"ZELIPSDriver"), 1u);
    EXPECT_EQ(readStart(u"ZELIPSNetFilter"), 2u);
}

// Milliseconds since 1970 in decimal (the getters are not used by the tool).
TEST_F(DriverConfigTest, PolicyDateIsWrittenInMilliseconds) {
    ASSERT_EQ(DriverConfig(&agent).setPolApplicationDate(1764000000000ULL), 0u);
    EXPECT_EQ(readValue(u"PolicyEffectiveDt"), STRING(u"1764000000000"));
}

TEST_F(DriverConfigTest, NewPolicyWithoutTheDriver) {
    struct Case { bool ipsEnabled; bool rebootPending; uint32_t result; const char16_t* filter; };
    const Case cases[] = {
        {true, true, 0, u"new.pol"},     // expected absent until the reboot: the registry carries it
        {true, false, 2, u"old.pol"},
        {false, true, 2, u"old.pol"},
    };
    for (const auto& c : cases) {
        writeValue(u"Filter File", u"old.pol");
        agent.setIpsEnabled(c.ipsEnabled);
        agent.setIpsRebootDone(!c.rebootPending);
        DriverConfig driver(&agent);
        EXPECT_EQ(driver.newPolicy(u"new.pol"), c.result);
        EXPECT_EQ(readValue(u"Filter File"), STRING(c.filter));
        if (c.result == 2) {
            EXPECT_EQ(DriverConfig::getErrorText(), STRING(u"IPS Driver is not loaded. Failed to apply translated policy"));
        }
    }
    DriverConfig driver(&agent);
    EXPECT_EQ(driver.newPolicy(STRING()), 3u);
    EXPECT_EQ(DriverConfig::getErrorText(), STRING(u"Driver failed to load new policy"));
}

TEST_F(DriverConfigTest, UseBuiltInWritesOneWhateverTheFlag) {
    DriverConfig driver(&agent);
    EXPECT_EQ(driver.useBuiltIn(0), 2u);
    EXPECT_EQ(readValue(u"UseBuiltin"), STRING(u"1"));
    EXPECT_EQ(DriverConfig::getErrorText(), STRING(u"Failed to tell Driver to use Builtin Policy"));
}

TEST_F(DriverConfigTest, RollingALogKeepsTheOldNameUnlessTheDriverTookTheNewOne) {
    struct Case {
        const char* what;
        bool profile;
        const char* reply;  // null: the driver is not reached
        bool creatable;
        uint32_t result;
    };
    const Case cases[] = {
        {"driver log", false, "", true, 0},
        {"profile log", true, "", true, 0},
        {"driver log refused", false, "reply roll-driver-log immediate status=5", true, 6},
        {"profile log refused", true, "reply roll-profile-log immediate status=5", true, 6},
        {"driver log file that cannot be created", false, nullptr, false, 4},
    };
    int row = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
#ifdef _WIN32
        if (c.reply != nullptr) continue;  // the driver is the Linux simulator here
#else
        testing_support::DriverPeer peer(scratch);
        if (c.reply != nullptr) {
            ASSERT_TRUE(peer.start(*c.reply ? std::vector<std::string>{c.reply} : std::vector<std::string>{}));
        }
#endif
        const char16_t* name = c.profile ? u"Profile File" : u"Log File";
        const STRING old = c.profile ? u"old-profile.log" : u"old-driver.log";
        writeValue(name, old);
        DriverConfig::setErrorText(STRING());
        const STRING file = c.creatable ? scratch.file("new-" + std::to_string(++row) + ".log")
                                        : joinPath(joinPath(scratch.dir(), u"no-such-folder"), u"new.log");
        DriverConfig driver(&agent);
        EXPECT_EQ(c.profile ? driver.rollProfileLog(file) : driver.rollDriverLog(file), c.result);
        EXPECT_EQ(readValue(name), c.result == 0 ? file : old);
        // Only a file this operation created is removed again.
        EXPECT_EQ(fileExists(file), c.result == 0);
        const char16_t* error = c.result == 0 ? u""
                                : c.profile   ? u"Failed to tell Driver to use new profile log"
                                              : u"Failed to tell Driver to use new log file";
        EXPECT_EQ(DriverConfig::getErrorText(), STRING(error));
#ifndef _WIN32
        if (c.reply != nullptr) {
            EXPECT_EQ(peer.requests(), std::vector<std::string>{c.profile
                                                                    ? "request roll-profile-log code=0x80008004 in=0 out=0"
                                                                    : "request roll-driver-log code=0x80008008 in=0 out=0"});
        }
#endif
    }
}

// ---- Against the driver simulator

#ifndef _WIN32

using testing_support::DriverPeer;

std::string hexOf(const std::u16string& text) {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    for (char16_t c : text) {
        for (uint8_t b : {static_cast<uint8_t>(c & 0xFF), static_cast<uint8_t>(c >> 8)}) {
            out += digits[b >> 4];
            out += digits[b & 0xF];
        }
    }
    return out + "0000";
}

// The names of the requests the driver received ("query-policy", ...).
std::vector<std::string> requestNames(const DriverPeer& peer) {
    std::vector<std::string> out;
    for (const auto& line : peer.requests()) out.push_back(line.substr(8, line.find(' ', 8) - 8));
    return out;
}

class DriverConfigSim : public DriverConfigTest {
protected:
    DriverPeer sim{scratch};
};

TEST_F(DriverConfigSim, NewPolicyAcceptedOrRejected) {
    struct Case {
        const char* what;
        std::vector<std::string> scenario;
        uint32_t result;
        const char16_t* error;
        const char16_t* filterFile;
        const char16_t* useBuiltin;
        std::vector<std::string> requests;
    };
    const Case cases[] = {
        {"accepted", {"policy builtin=1 name=Builtin version=1 id=B"}, 0, u"", u"C:\\p\\new.pol", u"0",
         {"query-policy", "new-policy"}},
        // Rejected: the built-in flag it had is restored; a failed request
        // (4) comes with the driver's explanation.
        {"rejected, with the driver's explanation",
         {"policy builtin=1 name=Builtin version=1 id=B", "policy-error code=9 text=\"line 3: unknown rule\"",
          "reply new-policy pending status=87"},
         4, u"Driver failed to load new policy: line 3: unknown rule", u"old.pol", u"1",
         {"query-policy", "new-policy", "policy-error"}},
        {"refused at once: no explanation is asked for",
         {"policy builtin=1 name=Builtin version=1 id=B", "reply new-policy immediate status=87"}, 6,
         u"Driver failed to load new policy", u"old.pol", u"1", {"query-policy", "new-policy"}},
        // The driver answers the question with an empty explanation: the
        // separator still follows.
        {"rejected while not on the built-in policy", {"policy builtin=0", "reply new-policy pending status=87"}, 4,
         u"Driver failed to load new policy: ", u"old.pol", u"0", {"query-policy", "new-policy", "policy-error"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        writeValue(u"Filter File", u"old.pol");
        writeValue(u"UseBuiltin", u"0");
        DriverConfig::setErrorText(STRING());
        ASSERT_TRUE(sim.start(c.scenario));
        DriverConfig driver(&agent);
        EXPECT_EQ(driver.newPolicy(u"C:\\p\\new.pol"), c.result);
        EXPECT_EQ(DriverConfig::getErrorText(), STRING(c.error));
        EXPECT_EQ(readValue(u"Filter File"), STRING(c.filterFile));
        EXPECT_EQ(readValue(u"UseBuiltin"), STRING(c.useBuiltin));
        EXPECT_EQ(requestNames(sim), c.requests);
        if (c.result == 0) {
            EXPECT_NE(sim.requests()[1].find("data=" + hexOf(u"C:\\p\\new.pol")), std::string::npos);
            EXPECT_NE(readValue(u"PolicyEffectiveDt"), STRING(u"<missing>"));
        }
    }
}

TEST_F(DriverConfigSim, FilterFileWriteFailureRollsTheDriverBack) {
    // The driver takes its time over the new policy; meanwhile the
    // parameters key disappears, so the "Filter File" write fails.
    ASSERT_TRUE(sim.start({"policy builtin=0 name=P version=1 id=1", "reply new-policy pending delay=400 times=1"}));
    std::thread remover([this] {
        ASSERT_TRUE(sim.waitForCount(std::string("request new-policy code=0x80008001 in=") +
                                         std::to_string((std::u16string(u"new.pol").size() + 1) * 2) +
                                         " out=0 data=" + hexOf(u"new.pol"),
                                     1));
        RegistryStore::deleteKey(RegRoot::LocalMachine, u"SYSTEM\\CurrentControlSet\\Services\\ZELIPSDriver\\Parameters",
                                 false);
    });
    DriverConfig driver(&agent);
    const uint32_t result = driver.newPolicy(u"new.pol");
    remover.join();
    EXPECT_EQ(result, DriverConfig::E_AGENT_REGISTRY);
    EXPECT_EQ(DriverConfig::getErrorText(), STRING(u"Failed to set Driver Configuration Registry Value Filter File:new.pol"));
    const auto requests = sim.requests();
    ASSERT_EQ(requests.size(), 3u);  // query, new policy, old policy again
    EXPECT_NE(requests[2].find("data=" + hexOf(u"old.pol")), std::string::npos) << requests[2];
}

#endif

}  // namespace
