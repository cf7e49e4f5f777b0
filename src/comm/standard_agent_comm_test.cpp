// Registration, its retry policy and the message senders, against the
// management-server simulator over real TLS.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "testing/comm_fixture.h"
#include "comm/standard_agent_comm.h"
#include "testing/test_support.h"

using mgmt_sim::Request;
using mgmt_sim::words;

namespace {

// The sections of a request body: (format, type, body) each.
struct WireSection {
    std::string format, type, body;
};

std::vector<WireSection> sectionsOf(const std::string& body) {
    std::vector<WireSection> out;
    size_t pos = 0;
    while (pos < body.size() && body.compare(pos, 8, "EOF_FLAG") != 0) {
        WireSection s;
        size_t length = 0;
        for (size_t end; (end = body.find('\n', pos)) != std::string::npos && end > pos; pos = end + 1) {
            const std::string line = body.substr(pos, end - pos);
            if (line.rfind("Data-Format=", 0) == 0) s.format = line.substr(12);
            if (line.rfind("Data-Type=", 0) == 0) s.type = line.substr(10);
            if (line.rfind("Data-Length=", 0) == 0) length = std::stoul(line.substr(12));
        }
        s.body = body.substr(std::min(pos + 1, body.size()), length);
        pos += length + 2;  // the blank line, the body and the separating line feed
        out.push_back(s);
    }
    return out;
}

std::string bytesOf(const ByteArray& a) { return std::string(reinterpret_cast<const char*>(a.data()), a.length()); }

// "type:body" of each section of a request body, joined by " + ".
std::string contentsOf(const std::string& body) {
    std::string out;
    for (const WireSection& s : sectionsOf(body)) out += (out.empty() ? "" : " + ") + s.type + ":" + s.body;
    return out;
}

}  // namespace

// ---- Registration

class AgentCommRegistration : public CommTest {
protected:
    void SetUp() override {
        CommTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        comm_ = std::make_unique<StandardAgentComm>(*config_);
        comm_->setSleep([this](int ms) {
            sleeps_.push_back(ms);
            if (stopAfterSleeps_ > 0 && static_cast<int>(sleeps_.size()) >= stopAfterSleeps_) comm_->stop();
        });
        comm_->setDriverAccess({[this] {
                                    ++driverQueries_;
                                    return driverBuiltIn_;
                                },
                                [this](STRING& name, STRING& path, STRING& id) {
                                    ++driverQueries_;
                                    name = u"Server Policy";
                                    path = u"/Policies/Default";
                                    id = u"42";
                                    return true;
                                }});
    }
    void TearDown() override {
        comm_.reset();
        CommTest::TearDown();
    }
    // A simulator, and an agent without an id pointed at it whose
    // configuration is on disk; nullptr after recording the failure.
    std::unique_ptr<mgmt_sim::Server> unregistered(const std::string& scenario) {
        auto server = serve(scenario);
        config_->setAgentId(STRING());
        if (!config_->UpdateAllIni()) ADD_FAILURE() << "agent.ini not written";
        return server;
    }
    bool registerAgent() {
        bool builtIn = false;
        return comm_->registerAgent(builtIn);
    }

    std::unique_ptr<StandardAgentComm> comm_;
    std::vector<int> sleeps_;
    int stopAfterSleeps_ = 0;
    bool driverBuiltIn_ = false;
    int driverQueries_ = 0;
};

TEST_F(AgentCommRegistration, RetriesOnDatabaseErrorThenStoresTheGuid) {
    auto server = unregistered(
        "[register]\nerror 300\nstacktrace database not ready\n"
        "[register]\nproperties\nguid=4f1c-77\nend\n");
    ASSERT_TRUE(server);
    EXPECT_TRUE(registerAgent());
    EXPECT_EQ(sleeps_, std::vector<int>{20000});
    EXPECT_EQ(config_->getAgentId(), STRING(u"4f1c-77"));
    EXPECT_EQ(reloaded()->getAgentId(), STRING(u"4f1c-77"));
    // The driver's applied policy is recorded.
    EXPECT_EQ(config_->getPolicyName(), STRING(u"Server Policy"));
    EXPECT_EQ(config_->getPolicyPath(), STRING(u"/Policies/Default"));
    EXPECT_EQ(config_->getPolicyId(), STRING(u"42"));

    const auto requests = server->requests();
    EXPECT_EQ(words(requests), (std::vector<std::string>{"register", "register"}));
    for (const Request& r : requests) EXPECT_EQ(r.header("Corvane-GUID"), nullptr);
}

TEST_F(AgentCommRegistration, FinalCodesEndWithoutRetry) {
    struct Case {
        const char* label;
        const char* scenario;
        const char* host;  // the server the agent is pointed at
        size_t requests;
    };
    const Case cases[] = {
        {"server error 3", "[register]\nerror 3\nstacktrace no such group\n", "127.0.0.1", 1},
        {"HTTP 401", "[register]\nstatus 401\n", "127.0.0.1", 1},
        {"reply without a GUID", "[register]\nstatus 200\n", "127.0.0.1", 1},
        // libcurl refuses the address itself (its code 3).
        {"malformed address", "", "bad host", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        sleeps_.clear();
        auto server = unregistered(c.scenario);
        ASSERT_TRUE(server);
        config_->setServerList(STRING::fromUtf8(c.host));
        config_->setCurrentServer(STRING::fromUtf8(c.host));
        EXPECT_FALSE(registerAgent());
        EXPECT_TRUE(sleeps_.empty());
        EXPECT_EQ(config_->getAgentId(), STRING());
        EXPECT_EQ(server->requests().size(), c.requests);
        EXPECT_EQ(driverQueries_, 0);
    }
}

TEST_F(AgentCommRegistration, UnreachableServerIsRetriedUntilStopped) {
    auto server = unregistered("");
    ASSERT_TRUE(server);
    server->stop();
    stopAfterSleeps_ = 2;
    EXPECT_FALSE(registerAgent());
    EXPECT_TRUE(comm_->stopped());
    EXPECT_EQ(sleeps_, (std::vector<int>{20000, 20000}));
}

// (Without an id it registers: above; -forcereg empties the id: its transcript.)
TEST_F(AgentCommRegistration, AgentWithAnIdRegistersWithoutTraffic) {
    auto server = serve("[register]\nproperties\nguid=new-guid\nend\n");
    ASSERT_TRUE(server);
    EXPECT_TRUE(registerAgent());
    EXPECT_TRUE(server->requests().empty());
    EXPECT_EQ(config_->getAgentId(), STRING(kGuid));
}

TEST_F(AgentCommRegistration, DriverRunningItsBuiltInPolicyIsReported) {
    struct Case {
        bool ipsEnabled, useBuiltIn, driverBuiltIn, reported;
    };
    const Case cases[] = {
        {true, false, true, true},
        {true, false, false, false},
        {false, false, true, false},
        {true, true, true, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.ipsEnabled << c.useBuiltIn << c.driverBuiltIn);
        auto server = unregistered("[register]\nproperties\nguid=g-1\nend\n");
        ASSERT_TRUE(server);
        config_->setIpsEnabled(c.ipsEnabled);
        config_->setUseBuiltinPolicy(c.useBuiltIn);
        config_->setPolicyStateErrorCode(0);
        config_->setPolicyStateErrorString(u"No Error");
        driverBuiltIn_ = c.driverBuiltIn;
        bool builtIn = false;
        EXPECT_TRUE(comm_->registerAgent(builtIn));
        EXPECT_EQ(builtIn, c.reported);
        EXPECT_EQ(config_->getPolicyStateErrorCode(), c.reported ? -100 : 0);
        EXPECT_EQ(config_->getPolicyStateErrorString(),
                  STRING(c.reported ? u"Driver is using the builtin policy and not the assigned policy." : u"No Error"));
    }
}

TEST_F(AgentCommRegistration, RegisterMessageCarriesSevenSectionsInOrder) {
    auto server = unregistered("[register]\nproperties\nguid=g-7\nend\n");
    ASSERT_TRUE(server);
    config_->setAgentName(u"web-07");
    config_->setAgentInitialGroup(u"Servers");
    config_->setPolicyPath(scratch_.write("builtin-policy.zip", std::string("PK\x03\x04\x00built", 10)).native);
    config_->setPlusPolicyFile(scratch_.write("plus.zip", "PK-extra").native);
    // Log rules the agent keeps under [Other], as a file written by the agent holds them.
    config_->setValue(u"log.alert.level", u"3");
    config_->setValue(u"idslogrules.audit", u"on");
    testing_support::writeBytes(config_->iniPath(), config_->serialise().toUtf8());

    ASSERT_TRUE(registerAgent());
    const auto requests = server->requests();
    ASSERT_EQ(requests.size(), 1u);
    const auto sections = sectionsOf(requests[0].body);
    ASSERT_EQ(sections.size(), 7u) << requests[0].body;
    for (size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(sections[i].type, i < 5 ? "properties" : "policy") << i;
        EXPECT_EQ(sections[i].format, i < 5 ? "text/plain" : "binary/zip") << i;
    }
    for (const char* pair : {"agent.name=web-07\n", "agent.initial.group=Servers\n", "agent.hostname="})
        EXPECT_NE(sections[0].body.find(pair), std::string::npos) << pair << sections[0].body;
    EXPECT_EQ(sections[1].body.rfind("log.rollover.cause=none\n", 0), 0u) << sections[1].body;
    for (const char* pair : {"log.alert.level=3\n", "idslogrules.audit=on\n"})
        EXPECT_NE(sections[2].body.find(pair), std::string::npos) << pair << sections[2].body;
    EXPECT_EQ(sections[3].body, "alert.level=3\n");
    EXPECT_EQ(sections[4].body, "audit=on\n");
    EXPECT_EQ(sections[5].body, std::string("PK\x03\x04\x00built", 10));
    EXPECT_EQ(sections[6].body, "PK-extra");
}

// ---- Senders

using AgentCommSenders = CommTest;

// Each download request asks for one flag and reads what the reply brought.
TEST_F(AgentCommSenders, UpdatePollsReadWhatTheReplyBrought) {
    auto server = serve(
        "[update]\nproperties\nupdate.configuration=true\nupdate.config.modtime=1700000000\nrid.applied=17\n"
        "polling.interval=60\nend\n"
        "[update]\nflag update.policy\nbinary policy text:PK-policy\n"
        "[update]\nflag update.software\n"
        "[update]\nflag update.qel\nbinary zipdata hex:\n"
        "[update]\nproperties\nupdate.configuration=false\nend\n"
        // A status above 200 fails, and the reply is not read.
        "[update]\nstatus 201\nflag update.policy\nbinary policy text:PK-late\n");
    ASSERT_TRUE(server);
    StandardAgentComm comm(*config_);
    enum Get { Configuration, Policy, Software, Qel };
    struct Case {
        const char* flag;
        Get get;
        int rc;
        bool got;
        std::string read;  // the number of pairs, or the download's bytes
    };
    const Case cases[] = {
        {"update.configuration", Configuration, 0, true, "4 pairs"}, {"update.policy", Policy, 0, true, "PK-policy"},
        {"update.software", Software, 0, false, ""},                 {"update.qel", Qel, 0, false, ""},
        {"update.configuration", Configuration, 0, false, "0 pairs"}, {"update.policy", Policy, 201, false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.flag);
        HttpsHandler h(*config_);
        bool got = !c.got;
        PropertyList pairs;
        ByteArray bytes;
        const int rc = c.get == Configuration ? h.getConfiguration(pairs, got)
                       : c.get == Policy      ? h.getPolicy(false, bytes, got)
                       : c.get == Software    ? h.getSoftware(bytes, got)
                                              : h.getCompUpdate(HttpsHandler::ContentUpdate::Qel, bytes, got);
        EXPECT_EQ(rc, c.rc);
        EXPECT_EQ(got, c.got);
        EXPECT_EQ(c.get == Configuration ? std::to_string(pairs.size()) + " pairs" : bytesOf(bytes), c.read);
        if (c.rc != 0) {
            EXPECT_EQ(h.lastResult(), -c.rc);
            EXPECT_EQ(h.response().sectionCount(), 0u);
        }
    }

    const auto requests = server->requests();
    ASSERT_EQ(requests.size(), std::size(cases));
    for (size_t i = 0; i < requests.size(); ++i) {
        EXPECT_EQ(requests[i].word, "update");
        EXPECT_EQ(contentsOf(requests[i].body), "properties:" + std::string(cases[i].flag) + "=true\n");
    }
}

TEST_F(AgentCommSenders, ResultsLogsAndApplicationDataGoOutAsPairs) {
    auto server = serve("[result]\nerror 300\nstacktrace queue full\n");
    ASSERT_TRUE(server);
    config_->setPolicyName(u"Web Servers");
    config_->setPolicyPath(u"/Policies/Web");
    config_->setPolicyStateErrorCode(5);
    StandardAgentComm comm(*config_);

    HttpsHandler handler(*config_);
    EXPECT_EQ(handler.sendUpdateResult(u"policy", 2, u"not applied", {{u"extra", u"x=y"}}), 0);
    EXPECT_EQ(handler.sendSingleLog({{u"log.id", u"1"}}), 0);
    EXPECT_EQ(handler.sendMultipleLogs({{{u"log.id", u"2"}}, {{u"log.id", u"3"}}}), 0);
    EXPECT_EQ(comm.sendPolicyState(), 0);
    int serverError = 0;
    EXPECT_EQ(StandardAgentComm::sendApplicationData(*config_, u"req-9", u"", true, serverError), 0);
    EXPECT_EQ(serverError, 300);
    EXPECT_EQ(comm.sendApplicationData(u"req-9", u"payload", false), 0);

    const auto r = server->requests();
    EXPECT_EQ(words(r), (std::vector<std::string>{"result", "log", "log", "result", "result", "result"}));
    const std::vector<std::string> expected = {
        "properties:result.type=policy\nresult.errorcode=2\nresult.errormessage=not applied\nextra=x=y\n",
        "properties:log.id=1\n",
        "properties:log.id=2\n + properties:log.id=3\n",
        "properties:rid.applied=\nrid.group=\npolicy.name=Web Servers\npolicy.path=/Policies/Web\n",
        "properties:result.type=app.data\napplication.requestID=req-9\napplication.request.complete=false\n",
        "properties:result.type=app.data\napplication.requestID=req-9\napplication.request.complete=true\n"
        " + zipdata:payload",
    };
    std::vector<std::string> contents;
    for (const Request& q : r) {
        EXPECT_NE(q.header("Corvane-GUID"), nullptr);
        contents.push_back(contentsOf(q.body));
    }
    EXPECT_EQ(contents, expected);
}

TEST_F(AgentCommSenders, BulkLogUploadsTheFileAndReturnsTheServerText) {
    auto server = serve("[bulk-log]\nerror 12\nstacktrace stored, thanks\n[bulk-log]\nstatus 400\n");
    ASSERT_TRUE(server);
    StandardAgentComm comm(*config_);
    const auto log = scratch_.write("agent-3.log", "line one\r\nline two\r\n");

    STRING text;
    EXPECT_EQ(comm.sendBulkLog(log.native, text), 0);
    EXPECT_EQ(text, STRING(u"\"stored, thanks\""));
    text.clear();
    EXPECT_EQ(comm.sendBulkLog(log.native, text), 400);
    EXPECT_EQ(text, STRING());
    // A file that does not open never reaches the server.
    EXPECT_EQ(comm.sendBulkLog(scratch_.file("absent.log").native, text), -1);

    // The body's bytes are the request format tests'; here: the file went out.
    const auto r = server->requests();
    EXPECT_EQ(words(r), (std::vector<std::string>{"bulk-log", "bulk-log"}));
    ASSERT_FALSE(r.empty());
    EXPECT_EQ(contentsOf(r[0].body), "policy:line one\r\nline two\r\n + properties:file.name=agent-3.log\n");
}
