// Registration, its retry policy and the message senders, against the
// management-server simulator over real TLS.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "comm/comm_test_fixture.h"
#include "comm/standard_agent_comm.h"
#include "foundation/test_support.h"

using mgmt_sim::Request;

namespace {

// The sections of a request body: (format, type, body) each.
struct WireSection {
    std::string format, type, body;
};

std::vector<WireSection> sectionsOf(const std::string& body) {
    std::vector<WireSection> out;
    size_t pos = 0;
    auto line = [&]() {
        const size_t end = body.find('\n', pos);
        if (end == std::string::npos) {
            pos = body.size();
            return std::string();
        }
        std::string l = body.substr(pos, end - pos);
        pos = end + 1;
        return l;
    };
    while (pos < body.size()) {
        std::string l = line();
        if (l == "EOF_FLAG" || l.empty()) break;
        WireSection s;
        size_t length = 0;
        for (; !l.empty(); l = line()) {
            if (l.rfind("Data-Format=", 0) == 0) s.format = l.substr(12);
            else if (l.rfind("Data-Type=", 0) == 0) s.type = l.substr(10);
            else if (l.rfind("Data-Length=", 0) == 0) length = std::stoul(l.substr(12));
        }
        s.body = body.substr(pos, length);
        pos += length + 1;  // the body and the separating line feed
        out.push_back(s);
    }
    return out;
}

std::vector<std::string> words(const std::vector<Request>& requests) {
    std::vector<std::string> out;
    for (const auto& r : requests) out.push_back(r.word);
    return out;
}

}  // namespace

// ---- Retry policy

TEST(AgentCommRetry, TableCodesRetryEverythingElseIsFinal) {
    struct Case {
        int code;
        const char16_t* phrase;  // nullptr: final
    };
    const Case cases[] = {
        {0, nullptr},
        {3, nullptr},
        {5, u"couldnt resolve proxy -- retry"},
        {7, u"couldnot connect -- retry"},
        {28, u"operation timed out -- retry"},
        {35, u"ssl connect error -- retry"},
        {52, nullptr},
        {56, u"recieve error -- retry"},
        {60, u"problem with the CA cert -- retry"},
        {61, nullptr},
        {91, nullptr},
        {201, nullptr},
        {300, u"database error -- retry"},
        {301, u"bad policy -- retry"},
        {400, u"HTTPS Bad Request Error (caused by configuring the agent to use the console port) -- retry"},
        {401, nullptr},
        {600, u"unknown error -- retry"},
        {-1, nullptr},
    };
    for (const auto& c : cases) {
        const char16_t* phrase = StandardAgentComm::retryPhrase(c.code);
        EXPECT_EQ(StandardAgentComm::retryDecision(c.code, u"communications"), c.phrase != nullptr) << c.code;
        if (c.phrase == nullptr) {
            EXPECT_EQ(phrase, nullptr) << c.code;
        } else {
            EXPECT_EQ(STRING(phrase), STRING(c.phrase)) << c.code;
        }
    }
}

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
    // An agent without an id whose configuration is on disk.
    void unregistered(int port) {
        useServers("127.0.0.1", port);
        config_->setAgentId(STRING());
        ASSERT_TRUE(config_->UpdateAllIni());
    }

    std::unique_ptr<StandardAgentComm> comm_;
    std::vector<int> sleeps_;
    int stopAfterSleeps_ = 0;
    bool driverBuiltIn_ = false;
    int driverQueries_ = 0;
};

TEST_F(AgentCommRegistration, RetriesOnDatabaseErrorThenStoresTheGuid) {
    auto server = startServer(
        "[register]\nerror 300\nstacktrace database not ready\n"
        "[register]\nproperties\nguid=4f1c-77\nend\n");
    ASSERT_TRUE(server);
    unregistered(server->port());

    bool builtIn = false;
    EXPECT_TRUE(comm_->registerAgent(builtIn));
    EXPECT_FALSE(builtIn);
    EXPECT_EQ(sleeps_, std::vector<int>{20000});
    EXPECT_EQ(config_->getAgentId(), STRING(u"4f1c-77"));
    EXPECT_EQ(reloaded()->getAgentId(), STRING(u"4f1c-77"));
    // The driver's applied policy is recorded.
    EXPECT_EQ(config_->getPolicyName(), STRING(u"Server Policy"));
    EXPECT_EQ(config_->getPolicyPath(), STRING(u"/Policies/Default"));
    EXPECT_EQ(config_->getPolicyId(), STRING(u"42"));

    const auto requests = server->requests();
    ASSERT_EQ(requests.size(), 2u);
    for (const Request& r : requests) {
        EXPECT_EQ(r.word, "register");
        EXPECT_EQ(r.header("Corvane-GUID"), nullptr);
    }
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
        auto server = startServer(c.scenario);
        ASSERT_TRUE(server);
        unregistered(server->port());
        config_->setServerList(STRING::fromUtf8(c.host));
        config_->setCurrentServer(STRING::fromUtf8(c.host));
        bool builtIn = false;
        EXPECT_FALSE(comm_->registerAgent(builtIn));
        EXPECT_TRUE(sleeps_.empty());
        EXPECT_EQ(config_->getAgentId(), STRING());
        EXPECT_EQ(server->requests().size(), c.requests);
        EXPECT_EQ(driverQueries_, 0);
        server->stop();
    }
}

TEST_F(AgentCommRegistration, UnreachableServerIsRetriedUntilStopped) {
    auto server = startServer();
    ASSERT_TRUE(server);
    const int port = server->port();
    server->stop();
    unregistered(port);
    stopAfterSleeps_ = 2;
    bool builtIn = false;
    EXPECT_FALSE(comm_->registerAgent(builtIn));
    EXPECT_TRUE(comm_->stopped());
    EXPECT_EQ(sleeps_, (std::vector<int>{20000, 20000}));
}

TEST_F(AgentCommRegistration, AgentWithAnIdRegistersWithoutTrafficUntilForcedToAgain) {
    auto server = startServer("[register]\nproperties\nguid=new-guid\nend\n");
    ASSERT_TRUE(server);
    useServers("127.0.0.1", server->port());
    bool builtIn = false;
    EXPECT_TRUE(comm_->registerAgent(builtIn));
    EXPECT_TRUE(server->requests().empty());
    EXPECT_EQ(config_->getAgentId(), STRING(kGuid));

    comm_->forceRegistration();
    EXPECT_EQ(config_->getAgentId(), STRING());
    EXPECT_TRUE(comm_->registerAgent(builtIn));
    EXPECT_EQ(config_->getAgentId(), STRING(u"new-guid"));
    EXPECT_EQ(server->requests().size(), 1u);
}

TEST_F(AgentCommRegistration, DriverRunningItsBuiltInPolicyIsReported) {
    struct Case {
        bool ipsEnabled;
        bool useBuiltIn;
        bool driverBuiltIn;
        bool reported;
    };
    const Case cases[] = {
        {true, false, true, true},
        {true, false, false, false},
        {false, false, true, false},
        {true, true, true, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.ipsEnabled << c.useBuiltIn << c.driverBuiltIn);
        auto server = startServer("[register]\nproperties\nguid=g-1\nend\n");
        ASSERT_TRUE(server);
        unregistered(server->port());
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
        server->stop();
    }
}

TEST_F(AgentCommRegistration, RegisterMessageCarriesSevenSectionsInOrder) {
    auto server = startServer("[register]\nproperties\nguid=g-7\nend\n");
    ASSERT_TRUE(server);
    unregistered(server->port());
    config_->setAgentCharset(u"UTF-8");
    config_->setAgentName(u"web-07");
    config_->setAgentInitialGroup(u"Servers");
    config_->setPolicyPath(scratch_.write("builtin-policy.zip", std::string("PK\x03\x04\x00built", 10)).native);
    config_->setPlusPolicyFile(scratch_.write("plus.zip", "PK-extra").native);
    // Log rules the agent keeps under [Other], as a file written by the agent holds them.
    config_->setValue(u"log.alert.level", u"3");
    config_->setValue(u"idslogrules.audit", u"on");
    testing_support::writeBytes(config_->iniPath(), config_->serialise().toUtf8());

    bool builtIn = false;
    ASSERT_TRUE(comm_->registerAgent(builtIn));
    const auto requests = server->requests();
    ASSERT_EQ(requests.size(), 1u);
    const auto sections = sectionsOf(requests[0].body);
    ASSERT_EQ(sections.size(), 7u) << requests[0].body;
    const char* types[] = {"properties", "properties", "properties", "properties", "properties", "policy", "policy"};
    for (size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(sections[i].type, types[i]) << i;
        EXPECT_EQ(sections[i].format, i < 5 ? "text/plain" : "binary/zip") << i;
    }
    EXPECT_NE(sections[0].body.find("agent.name=web-07\n"), std::string::npos) << sections[0].body;
    EXPECT_NE(sections[0].body.find("agent.initial.group=Servers\n"), std::string::npos);
    EXPECT_NE(sections[0].body.find("agent.hostname="), std::string::npos);
    EXPECT_EQ(sections[1].body.rfind("log.rollover.cause=none\n", 0), 0u) << sections[1].body;
    EXPECT_NE(sections[2].body.find("log.alert.level=3\n"), std::string::npos) << sections[2].body;
    EXPECT_NE(sections[2].body.find("idslogrules.audit=on\n"), std::string::npos);
    EXPECT_EQ(sections[3].body, "alert.level=3\n");
    EXPECT_EQ(sections[4].body, "audit=on\n");
    EXPECT_EQ(sections[5].body, std::string("PK\x03\x04\x00built", 10));
    EXPECT_EQ(sections[6].body, "PK-extra");
}

// ---- Senders

using AgentCommSenders = CommTest;

TEST_F(AgentCommSenders, UpdatePollsReadWhatTheReplyBrought) {
    auto server = startServer(
        "[update]\nproperties\nupdate.configuration=true\nupdate.config.modtime=1700000000\nrid.applied=17\n"
        "polling.interval=60\nend\n"
        "[update]\nflag update.policy\nbinary policy text:PK-policy\n"
        "[update]\nflag update.software\n"
        "[update]\nflag update.qel\nbinary zipdata hex:\n"
        "[update]\nproperties\nupdate.configuration=false\nend\n"
        "[update]\nstatus 201\nflag update.policy\nbinary policy text:PK-late\n");
    ASSERT_TRUE(server);
    useServers("127.0.0.1", server->port());
    StandardAgentComm comm(*config_);

    HttpsHandler h1(*config_);
    PropertyList pairs;
    bool changed = false;
    EXPECT_EQ(h1.getConfiguration(pairs, changed), 0);
    EXPECT_TRUE(changed);
    EXPECT_EQ(pairs.size(), 4u);

    HttpsHandler h2(*config_);
    ByteArray bytes;
    bool received = false;
    EXPECT_EQ(h2.getPolicy(false, bytes, received), 0);
    EXPECT_TRUE(received);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(bytes.data()), bytes.length()), "PK-policy");

    HttpsHandler h3(*config_);
    EXPECT_EQ(h3.getSoftware(bytes, received), 0);
    EXPECT_FALSE(received);

    HttpsHandler h4(*config_);
    EXPECT_EQ(h4.getCompUpdate(HttpsHandler::ContentUpdate::Qel, bytes, received), 0);
    EXPECT_FALSE(received);

    HttpsHandler h5(*config_);
    EXPECT_EQ(h5.getConfiguration(pairs, changed), 0);
    EXPECT_FALSE(changed);

    // A status above 200 fails, and the reply is not read.
    HttpsHandler h6(*config_);
    EXPECT_EQ(h6.getPolicy(false, bytes, received), 201);
    EXPECT_EQ(h6.lastResult(), -201);
    EXPECT_FALSE(received);
    EXPECT_EQ(h6.response().sectionCount(), 0u);

    const auto requests = server->requests();
    ASSERT_EQ(requests.size(), 6u);
    const char* flags[] = {"update.configuration", "update.policy", "update.software", "update.qel",
                           "update.configuration", "update.policy"};
    for (size_t i = 0; i < requests.size(); ++i) {
        EXPECT_EQ(requests[i].word, "update");
        const auto sections = sectionsOf(requests[i].body);
        ASSERT_EQ(sections.size(), 1u);
        EXPECT_EQ(sections[0].body, std::string(flags[i]) + "=true\n");
    }
}

TEST_F(AgentCommSenders, ResultsLogsAndApplicationDataGoOutAsPairs) {
    auto server = startServer("[result]\nerror 300\nstacktrace queue full\n");
    ASSERT_TRUE(server);
    useServers("127.0.0.1", server->port());
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
    ASSERT_EQ(r.size(), 6u);
    EXPECT_EQ(words(r), (std::vector<std::string>{"result", "log", "log", "result", "result", "result"}));
    auto body = [&](size_t i, size_t section) { return sectionsOf(r[i].body).at(section).body; };
    EXPECT_EQ(body(0, 0), "result.type=policy\nresult.errorcode=2\nresult.errormessage=not applied\nextra=x=y\n");
    EXPECT_EQ(body(1, 0), "log.id=1\n");
    EXPECT_EQ(sectionsOf(r[2].body).size(), 2u);
    EXPECT_EQ(body(3, 0), "rid.applied=\nrid.group=\npolicy.name=Web Servers\npolicy.path=/Policies/Web\n");
    EXPECT_EQ(body(4, 0), "result.type=app.data\napplication.requestID=req-9\napplication.request.complete=false\n");
    EXPECT_EQ(sectionsOf(r[4].body).size(), 1u);
    const auto withData = sectionsOf(r[5].body);
    ASSERT_EQ(withData.size(), 2u);
    EXPECT_EQ(withData[0].body, "result.type=app.data\napplication.requestID=req-9\napplication.request.complete=true\n");
    EXPECT_EQ(withData[1].type, "zipdata");
    EXPECT_EQ(withData[1].body, "payload");
    for (const Request& q : r) EXPECT_NE(q.header("Corvane-GUID"), nullptr);
}

TEST_F(AgentCommSenders, BulkLogUploadsTheFileAndReturnsTheServerText) {
    auto server = startServer("[bulk-log]\nerror 12\nstacktrace stored, thanks\n[bulk-log]\nstatus 400\n");
    ASSERT_TRUE(server);
    useServers("127.0.0.1", server->port());
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

    const auto r = server->requests();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].word, "bulk-log");
    const auto sections = sectionsOf(r[0].body);
    ASSERT_EQ(sections.size(), 2u);
    EXPECT_EQ(sections[0].body, "line one\r\nline two\r\n");
    EXPECT_EQ(sections[1].body, "file.name=agent-3.log\n");
}
