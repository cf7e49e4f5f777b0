#include "config/agent_config.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>

#include "config/server_url.h"
#include "foundation/process_role.h"
#include "testing/test_support.h"

using testing_support::readBytes;
using testing_support::ScratchDir;
using testing_support::writeBytes;

namespace {

STRING sourceFile(const char* relative) {
    const char* root = std::getenv("ZELIPS_SOURCE_DIR");
    return STRING::fromUtf8(root ? root : ZELIPS_SOURCE_DIR) + u"/" + STRING::fromUtf8(relative);
}

// Process-wide settings the model depends on, restored after each test.
class ModelTest : public ::testing::Test {
protected:
    void SetUp() override {
        ProcessRole::set(ProcessRole::ConfigTool);
        AgentType::resetForTests();
        AgentConfig::setRecordChanges(true);
    }
    void TearDown() override {
        ProcessRole::set(0);
        AgentType::resetForTests();
    }
    // The model after reading the lines of an agent.ini.
    static std::unique_ptr<AgentConfig> readModel(const ScratchDir& dir, const std::string& text) {
        const STRING path = dir.file("agent.ini");
        writeBytes(path, text);
        auto model = std::make_unique<AgentConfig>(path);
        int64_t modified = 0;
        EXPECT_TRUE(model->readIniFileInMem(modified));
        return model;
    }
    static bool hasLine(const STRING& text, const char16_t* line) {
        return text.contains(STRING(u"\r\n") + line + u"\r\n");
    }
};

using AgentConfigModel = ModelTest;

TEST_F(AgentConfigModel, DefaultModelSerialisesToTheGoldenFile) {
    AgentConfig model(u"agent.ini");
    // The golden file's checksum line was computed outside the program, as
    // the MD5 of the UTF-16LE bytes of every line before it.
    const std::string golden = readBytes(sourceFile("tests/fixtures/config/default-agent.ini"));
    ASSERT_FALSE(golden.empty());
    EXPECT_EQ(model.serialise().toUtf8(), golden);
}

struct ReadCase {
    const char* label;
    std::string file;
    const char16_t* present;  // a line the written file must hold
    const char16_t* absent;   // a line it must not hold
};

TEST_F(AgentConfigModel, ReadingRules) {
    const ReadCase cases[] = {
        {"only exact true is true", "[FIPS]\r\nfips.enabled=TRUE\r\n", u"fips.enabled=false", u"fips.enabled=true"},
        {"missing section keeps the default", "[Agent]\r\nagent.name=x\r\n", u"fips.enabled=true", nullptr},
        {"last duplicate wins", "[IDS]\r\nids.signal.timeout=5\r\nids.signal.timeout=7\r\n", u"ids.signal.timeout=7",
         u"ids.signal.timeout=5"},
        {"unknown key under Agent goes to Other", "[Agent]\r\nmy.key=1\r\n", u"[Other]\r\nmy.key=1", nullptr},
        {"external logs", "[ExternalLogs]\r\nexternal.log=c:\\a.log\r\nexternal.log=c:\\b.log\r\n",
         u"[ExternalLogs]\r\nexternal.log=c:\\a.log\r\nexternal.log=c:\\b.log", nullptr},
        {"empty features not written", "[Agent]\r\nagent.features=\r\n", nullptr, u"agent.features="},
        {"consolidate value hidden while off", "[Log]\r\nlog.consolidate=false\r\nlog.consolidate.value=9\r\n",
         nullptr, u"log.consolidate.value=9"},
        {"consolidate value shown while on", "[Log]\r\nlog.consolidate=true\r\nlog.consolidate.value=9\r\n",
         u"log.consolidate.value=9", nullptr},
        {"rollover value hidden for none", "[Log]\r\nlog.rollover.cause=none\r\nlog.rollover.value=77\r\n", nullptr,
         u"log.rollover.value=77"},
        {"unknown priority is norm", "[Log]\r\nlog.priority=high\r\n", u"log.priority=norm", nullptr},
        {"unknown cause is none", "[Log]\r\nlog.rollover.cause=weekly\r\n", u"log.rollover.cause=none", nullptr},
        {"read-only keys are not written back", "[Log]\r\nlog.rule=r\r\nlog.disk.enabled=true\r\n", nullptr,
         u"log.rule=r"},
        {"blank lines and comments are tolerated", "[Agent]\r\n\r\n# note\r\nagent.name=n\r\n", u"agent.name=n",
         nullptr},
        {"unset reboot key is not written in role 2", "[Driver]\r\n", nullptr, u"fim.reboot.required=false"},
        {"comm keys of Agent hidden while empty", "[Agent]\r\nagent.id=\r\n", nullptr, u"agent.id="},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        ScratchDir dir;
        auto model = readModel(dir, c.file);
        const STRING text = STRING(u"\r\n") + model->serialise();
        if (c.present) {
            EXPECT_TRUE(text.contains(STRING(u"\r\n") + c.present + u"\r\n")) << text;
        }
        if (c.absent) {
            EXPECT_FALSE(text.contains(STRING(u"\r\n") + c.absent + u"\r\n")) << text;
        }
    }
}

TEST_F(AgentConfigModel, InstallationKindChangesWhatIsWritten) {
    struct Case { int type; const char16_t* line; bool written; };
    const Case cases[] = {
        {1, u"agent.id=", true},           {0, u"agent.id=", false},
        {3, u"qel.vt.metadata=", true},    {1, u"qel.vt.metadata=", false},
        {3, u"veltrium.vt.metadata=", true},
    };
    for (const auto& c : cases) {
        AgentType::resetForTests();
        AgentType::record(c.type);
        AgentConfig model(u"agent.ini");
        EXPECT_EQ(hasLine(model.serialise(), c.line), c.written) << c.type << " " << STRING(c.line);
    }
}

// The tool's own role writes the keys it sets (-ipsstate off runs that).
TEST_F(AgentConfigModel, RebootKeysInTheOtherRoles) {
    ProcessRole::set(ProcessRole::Agent);
    {
        AgentConfig model(u"agent.ini");
        model.setIpsRebootDone(false);
        EXPECT_FALSE(hasLine(model.serialise(), u"ips.reboot.required=true"));  // no pending reboot reported
        model.setRebootCheck([](AgentConfig::Key k) { return k == AgentConfig::kIpsRebootRequired; });
        EXPECT_TRUE(hasLine(model.serialise(), u"ips.reboot.required=true"));
        EXPECT_FALSE(model.serialise().contains(u"agentlog.rollover.pending"));  // a role-2 key
    }
    {
        ScratchDir dir;
        auto model = readModel(dir, "[Driver]\r\nfim.reboot.required=false\r\n");
        EXPECT_TRUE(model->rebootPending());  // any occurrence, whatever its value
    }
    ProcessRole::set(3);
    AgentConfig model(u"agent.ini");
    model.setIpsRebootDone(false);
    EXPECT_FALSE(model.serialise().contains(u"ips.reboot.required"));
}

TEST_F(AgentConfigModel, RolloverCauseSetsItsDefaultValue) {
    AgentConfig model(u"agent.ini");
    model.setLogRolloverCause(AgentConfig::RolloverDate);
    EXPECT_EQ(model.changes()[u"log.rollover.cause"], STRING(u"date"));
    EXPECT_EQ(model.getLogRolloverValue(), STRING(u"0 0 0 * 0"));
    EXPECT_TRUE(hasLine(model.serialise(), u"log.rollover.value=0 0 0 * 0"));

    model.setLogRolloverValue(u"5 4 * * *");
    model.setLogRolloverCause(AgentConfig::RolloverDate);  // same cause: nothing changes
    EXPECT_EQ(model.getLogRolloverValue(), STRING(u"5 4 * * *"));
    model.setLogRolloverCause(AgentConfig::RolloverNone);  // keeps the value, stops writing it
    EXPECT_EQ(model.getLogRolloverValue(), STRING(u"5 4 * * *"));
    EXPECT_FALSE(model.serialise().contains(u"log.rollover.value"));
    model.setLogRolloverCause(AgentConfig::RolloverSize);
    EXPECT_EQ(model.getLogRolloverValue(), STRING(u"50"));
}

TEST_F(AgentConfigModel, ServerSettings) {
    struct Step {
        std::function<void(AgentConfig&)> change;
        const char16_t* url;
        const char16_t* list;
        const char16_t* current;
        int port;
        const char16_t* protocol;
    };
    const Step steps[] = {
        {[](AgentConfig&) {}, u"", u"", u"Unknown", 443, u"https"},
        {[](AgentConfig& c) { c.setServerList(u" mgmt1 , ,mgmt2, "); }, u"https://mgmt1/", u"mgmt1,mgmt2", u"mgmt1",
         443, u"https"},
        {[](AgentConfig& c) { c.setAgentHttpUrl(u"https://mgmt2:9443/zel/agent/"); },
         u"https://mgmt2:9443/zel/agent/", u"mgmt1,mgmt2", u"mgmt2", 9443, u"https"},
        // The current server is still listed: it stays.
        {[](AgentConfig& c) { c.setServerList(u"MGMT2,mgmt3"); }, u"https://mgmt2:9443/zel/agent/", u"MGMT2,mgmt3",
         u"mgmt2", 9443, u"https"},
        // It is no longer listed: the first entry takes over, path and port stay.
        {[](AgentConfig& c) { c.setServerList(u"10.0.0.7"); }, u"https://10.0.0.7:9443/zel/agent/", u"10.0.0.7",
         u"10.0.0.7", 9443, u"https"},
        {[](AgentConfig& c) { c.setCurrentServer(u"[::1]"); }, u"https://[::1]:9443/zel/agent/", u"10.0.0.7",
         u"[::1]", 9443, u"https"},
        {[](AgentConfig& c) { c.setAgentHttpUrl(u"http://h/p"); }, u"http://h/p", u"10.0.0.7", u"h", 80, u"http"},
    };
    AgentConfig model(u"agent.ini");
    int i = 0;
    for (const auto& s : steps) {
        SCOPED_TRACE(i++);
        s.change(model);
        EXPECT_EQ(model.getAgentHttpUrl(), STRING(s.url));
        EXPECT_EQ(model.getServerListText(), STRING(s.list));
        EXPECT_EQ(model.getCurrentServer(), STRING(s.current));
        EXPECT_EQ(model.getPort(), s.port);
        EXPECT_EQ(model.getProtocol(), STRING(s.protocol));
    }
    EXPECT_EQ(model.getServerCount(), 1);
    EXPECT_EQ(model.changes()[u"agent.http.url"], STRING(u"http://h/p"));
}

TEST(ServerUrl, ParseAndCompose) {
    struct Case { const char16_t* text; const char16_t* scheme; const char16_t* host; int port; const char16_t* path; };
    const Case cases[] = {
        {u"https://mgmt:8443/zel/agent", u"https", u"mgmt", 8443, u"zel/agent"},
        {u"http://mgmt", u"http", u"mgmt", -1, u""},
        {u"https://[fe80::1]:443/", u"https", u"[fe80::1]", 443, u""},
        {u"https://[fe80::1]/x", u"https", u"[fe80::1]", -1, u"x"},
        {u"mgmt:80/p", u"", u"mgmt", 80, u"p"},
        {u"", u"", u"", -1, u""},
    };
    for (const auto& c : cases) {
        const ServerUrl u = ServerUrl::parse(c.text);
        EXPECT_EQ(u.scheme, STRING(c.scheme)) << STRING(c.text);
        EXPECT_EQ(u.host, STRING(c.host)) << STRING(c.text);
        EXPECT_EQ(u.port, c.port) << STRING(c.text);
        EXPECT_EQ(u.path, STRING(c.path)) << STRING(c.text);
    }
    EXPECT_EQ(ServerUrl::parse(u"https://a:1/b/c").compose(), STRING(u"https://a:1/b/c"));
}

}  // namespace
