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
#include "driver/driver_sim_test_support.h"
#include "foundation/file_util.h"
#include "foundation/registry.h"
#include "foundation/test_support.h"
#include "testing/child_process.h"

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

TEST_F(DriverConfigTest, PolicyDateRoundTripAndAbsence) {
    DriverConfig driver(&agent);
    EXPECT_EQ(driver.getPolApplicationDate(), 0u);
    EXPECT_EQ(DriverConfig::getErrorText(), STRING(u"Failed to get Driver Configuration Registry Value PolicyEffectiveDt"));
    ASSERT_EQ(driver.setPolApplicationDate(1764000000000ULL), 0u);
    EXPECT_EQ(readValue(u"PolicyEffectiveDt"), STRING(u"1764000000000"));
    EXPECT_EQ(driver.getPolApplicationDate(), 1764000000000ULL);
}

TEST_F(DriverConfigTest, ParameterNamesAndReads) {
    const std::pair<int, const char16_t*> names[] = {
        {DriverConfig::LogFile, u"Log File"},        {DriverConfig::ProfileFile, u"Profile File"},
        {DriverConfig::FilterFile, u"Filter File"},  {DriverConfig::UseBuiltin, u"UseBuiltin"},
        {DriverConfig::DefaultValue, u""},           {DriverConfig::Enable, u"Enable"},
        {DriverConfig::PolicyEffectiveDt, u"PolicyEffectiveDt"}, {42, u""},
    };
    for (const auto& n : names) EXPECT_EQ(DriverConfig::valueName(n.first), STRING(n.second)) << n.first;
    DriverConfig driver(&agent);
    EXPECT_EQ(driver.getFilterFile(), STRING(u"old.pol"));
    EXPECT_EQ(driver.getProfileFile(), STRING());
    EXPECT_EQ(DriverConfig::getErrorText(), STRING(u"Failed to get info on Profile Log"));
}

TEST_F(DriverConfigTest, NewPolicyWithoutTheDriver) {
    struct Case { bool ipsEnabled; bool rebootPending; uint32_t result; const char16_t* filter; };
    const Case cases[] = {
        {true, true, 0, u"new.pol"},     // expected absent until the reboot: the registry carries it
        {true, false, 2, u"old.pol"},
        {false, true, 2, u"old.pol"},
    };
    for (const auto& c : cases) {
#ifndef _WIN32
        setEnv("ZELIPS_DEVICE", scratch.file("no-driver"));
#endif
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
#ifndef _WIN32
    setEnv("ZELIPS_DEVICE", scratch.file("no-driver"));
#endif
    DriverConfig driver(&agent);
    EXPECT_EQ(driver.useBuiltIn(0), 2u);
    EXPECT_EQ(readValue(u"UseBuiltin"), STRING(u"1"));
    EXPECT_EQ(DriverConfig::getErrorText(), STRING(u"Failed to tell Driver to use Builtin Policy"));
}

TEST_F(DriverConfigTest, RollDriverLogWithAnUncreatableFile) {
    DriverConfig driver(&agent);
    const STRING bad = joinPath(joinPath(scratch.dir(), u"no-such-folder"), u"new.log");
    EXPECT_EQ(driver.rollDriverLog(bad), 4u);
    EXPECT_EQ(readValue(u"Log File"), STRING(u"old-driver.log"));
    EXPECT_EQ(DriverConfig::getErrorText(), STRING(u"Failed to tell Driver to use new log file"));
}

// ---- Against the driver simulator

#ifndef _WIN32

using testing_support::DriverSimulator;

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

class DriverConfigSim : public DriverConfigTest {
protected:
    void TearDown() override {
        sim.stop();
        DriverConfigTest::TearDown();
    }
    DriverSimulator sim{scratch};
};

TEST_F(DriverConfigSim, NewPolicyAccepted) {
    ASSERT_TRUE(sim.start({"policy builtin=1 name=Builtin version=1 id=B"}));
    DriverConfig driver(&agent);
    EXPECT_EQ(driver.newPolicy(u"C:\\p\\new.pol"), 0u);
    EXPECT_EQ(readValue(u"Filter File"), STRING(u"C:\\p\\new.pol"));
    EXPECT_EQ(readValue(u"UseBuiltin"), STRING(u"0"));
    EXPECT_NE(readValue(u"PolicyEffectiveDt"), STRING(u"<missing>"));
    const auto requests = sim.requests();
    ASSERT_EQ(requests.size(), 2u);  // the query, then the policy
    EXPECT_NE(requests[1].find("new-policy"), std::string::npos);
    EXPECT_NE(requests[1].find("data=" + hexOf(u"C:\\p\\new.pol")), std::string::npos) << requests[1];
}

TEST_F(DriverConfigSim, NewPolicyRejectedCarriesTheDriversExplanation) {
    ASSERT_TRUE(sim.start({"policy builtin=1 name=Builtin version=1 id=B",
                           "policy-error code=9 text=\"line 3: unknown rule\"", "reply new-policy pending status=87"}));
    DriverConfig driver(&agent);
    EXPECT_EQ(driver.newPolicy(u"bad.pol"), 4u);
    EXPECT_EQ(DriverConfig::getErrorText(), STRING(u"Driver failed to load new policy: line 3: unknown rule"));
    EXPECT_EQ(readValue(u"Filter File"), STRING(u"old.pol"));
    EXPECT_EQ(readValue(u"UseBuiltin"), STRING(u"1"));  // the built-in flag it had is restored
}

TEST_F(DriverConfigSim, FilterFileWriteFailureRollsTheDriverBack) {
    // The driver takes its time over the new policy; meanwhile the
    // parameters key disappears, so the "Filter File" write fails.
    ASSERT_TRUE(sim.start({"policy builtin=0 name=P version=1 id=1", "reply new-policy pending delay=400 times=1"}));
    std::thread remover([this] {
        ASSERT_TRUE(sim.waitForLine(std::string("request new-policy code=0x80008001 in=") +
                                    std::to_string((std::u16string(u"new.pol").size() + 1) * 2) +
                                    " out=0 data=" + hexOf(u"new.pol")));
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

TEST_F(DriverConfigSim, QueryAndBuiltinState) {
    ASSERT_TRUE(sim.start({"policy builtin=0 name=\"Server Policy\" version=7.1 id={42}"}));
    DriverConfig driver(&agent);
    STRING name, version, id;
    ASSERT_TRUE(driver.queryPolicy(name, version, id));
    EXPECT_EQ(name, STRING(u"Server Policy"));
    EXPECT_EQ(version, STRING(u"7.1"));
    EXPECT_EQ(id, STRING(u"{42}"));
    EXPECT_FALSE(driver.usingBuiltIn());
    EXPECT_EQ(driver.useBuiltIn(1), 0u);
    EXPECT_TRUE(driver.usingBuiltIn());
    EXPECT_NE(readValue(u"PolicyEffectiveDt"), STRING(u"<missing>"));
}

TEST_F(DriverConfigSim, RollDriverLog) {
    const STRING newLog = scratch.file("driver-2.log");
    {
        ASSERT_TRUE(sim.start({}));
        DriverConfig driver(&agent);
        EXPECT_EQ(driver.rollDriverLog(newLog), 0u);
        EXPECT_EQ(readValue(u"Log File"), newLog);
        EXPECT_TRUE(fileExists(newLog));
    }
    // The driver refuses: the old name comes back and the new file goes.
    writeValue(u"Log File", u"old-driver.log");
    const STRING other = scratch.file("driver-3.log");
    ASSERT_TRUE(sim.start({"reply roll-driver-log immediate status=5"}));
    DriverConfig driver(&agent);
    EXPECT_EQ(driver.rollDriverLog(other), 6u);
    EXPECT_EQ(readValue(u"Log File"), STRING(u"old-driver.log"));
    EXPECT_FALSE(fileExists(other));
    EXPECT_EQ(DriverConfig::getErrorText(), STRING(u"Failed to tell Driver to use new log file"));
}

#endif

}  // namespace
