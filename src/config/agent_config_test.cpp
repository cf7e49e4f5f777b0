#include "config/agent_config.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>

#include "config/server_url.h"
#include "foundation/process_role.h"
#include "foundation/test_support.h"

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

TEST_F(AgentConfigModel, ChecksumIsMd5OfUtf16LittleEndian) {
    // Digests computed outside the program over the UTF-16LE bytes.
    const std::pair<const char16_t*, const char*> cases[] = {
        {u"", "d41d8cd98f00b204e9800998ecf8427e"},
        {u"a", "4144e195f46de78a3623da7364d04f11"},
        {u"[Checksum]\r\n", "dda1076c779132c55fc51fdcc74fb607"},
        {u"\u00e9", "ed71e8ffd3d8c47c1a2e22c53cd384aa"},
    };
    for (const auto& c : cases) EXPECT_EQ(AgentConfig::checksumOf(c.first), STRING::fromUtf8(c.second));
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
        {"unknown key under Other stays", "[Other]\r\na=b\r\n[Polling]\r\n", u"[Other]\r\na=b", nullptr},
        {"external logs", "[ExternalLogs]\r\nexternal.log=c:\\a.log\r\nexternal.log=c:\\b.log\r\n",
         u"[ExternalLogs]\r\nexternal.log=c:\\a.log\r\nexternal.log=c:\\b.log", nullptr},
        {"empty features not written", "[Agent]\r\nagent.features=\r\n", nullptr, u"agent.features="},
        {"features written", "[Agent]\r\nagent.features=ips\r\n", u"agent.features=ips", nullptr},
        {"consolidate value hidden while off", "[Log]\r\nlog.consolidate=false\r\nlog.consolidate.value=9\r\n",
         nullptr, u"log.consolidate.value=9"},
        {"consolidate value shown while on", "[Log]\r\nlog.consolidate=true\r\nlog.consolidate.value=9\r\n",
         u"log.consolidate.value=9", nullptr},
        {"rollover value hidden for none", "[Log]\r\nlog.rollover.cause=none\r\nlog.rollover.value=77\r\n", nullptr,
         u"log.rollover.value=77"},
        {"rollover value shown for size", "[Log]\r\nlog.rollover.cause=size\r\nlog.rollover.value=77\r\n",
         u"log.rollover.value=77", nullptr},
        {"priority text", "[Log]\r\nlog.priority=max\r\n", u"log.priority=max", nullptr},
        {"unknown priority is norm", "[Log]\r\nlog.priority=high\r\n", u"log.priority=norm", nullptr},
        {"unknown cause is none", "[Log]\r\nlog.rollover.cause=weekly\r\n", u"log.rollover.cause=none", nullptr},
        {"read-only keys are not written back", "[Log]\r\nlog.rule=r\r\nlog.disk.enabled=true\r\n", nullptr,
         u"log.rule=r"},
        {"blank lines and comments are tolerated", "[Agent]\r\n\r\n# note\r\nagent.name=n\r\n", u"agent.name=n",
         nullptr},
        {"reboot key read in role 2 is written", "[Driver]\r\nips.reboot.required=true\r\n",
         u"ips.reboot.required=true", nullptr},
        {"unset reboot key is not written in role 2", "[Driver]\r\n", nullptr, u"fim.reboot.required=false"},
        {"comm keys of Agent hidden while empty", "[Agent]\r\nagent.id=\r\n", nullptr, u"agent.id="},
        {"comm keys of Agent shown when set", "[Agent]\r\nagent.id=G-1\r\n", u"agent.id=G-1", nullptr},
        {"polling keys always written", "[Polling]\r\nfailback.interval=300\r\n", u"failback.interval=300",
         u"polling.enabled=x"},
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

TEST_F(AgentConfigModel, RebootKeysByRole) {
    {
        AgentConfig model(u"agent.ini");
        model.setIpsRebootDone(false);
        model.setFimRebootDone(true);
        const STRING text = model.serialise();
        EXPECT_TRUE(hasLine(text, u"ips.reboot.required=true"));
        EXPECT_TRUE(hasLine(text, u"fim.reboot.required=false"));
        EXPECT_EQ(model.changes()[u"ips.reboot.required"], STRING(u"true"));
        EXPECT_EQ(model.changes()[u"fim.reboot.required"], STRING(u"false"));
    }
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

TEST_F(AgentConfigModel, SettersRecordChangesAndRolloverRules) {
    AgentConfig model(u"agent.ini");
    model.setAutoretransInterval(42);
    model.setFipsEnabled(false);
    model.setLogPriority(AgentConfig::PriorityMin);
    model.setLogRolloverCause(AgentConfig::RolloverDate);
    auto changes = model.changes();
    EXPECT_EQ(changes[u"autoretrans.interval"], STRING(u"42"));
    EXPECT_EQ(changes[u"fips.enabled"], STRING(u"false"));
    EXPECT_EQ(changes[u"log.priority"], STRING(u"min"));
    EXPECT_EQ(changes[u"log.rollover.cause"], STRING(u"date"));
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

    AgentConfig::setRecordChanges(false);
    AgentConfig quiet(u"agent.ini");
    quiet.setAutoretransInterval(1);
    EXPECT_TRUE(quiet.changes().empty());
    AgentConfig::setRecordChanges(true);

    EXPECT_EQ(model.setValue(u"agentini.checksum", u"abc"), 2);
    EXPECT_EQ(model.setValue(u"agent.name", u"n"), 1);
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
        {[](AgentConfig& c) { c.setServerList(u"  mgmt1 , ,mgmt2,  "); }, u"https://mgmt1/", u"mgmt1,mgmt2", u"mgmt1",
         443, u"https"},
        {[](AgentConfig& c) { c.setPort(8443); }, u"https://mgmt1:8443/", u"mgmt1,mgmt2", u"mgmt1", 8443, u"https"},
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
    model.setFailbackInterval(300);
    EXPECT_EQ(model.getFailbackInterval(), 300);
    EXPECT_EQ(model.getCommValue(u"failback.interval"), STRING(u"300"));
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
