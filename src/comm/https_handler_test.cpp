// The HTTPS transport against the management-server simulator over real TLS:
// certificates, the TLS fallback, failover, return to the primary server,
// time-outs, and the texts the transport gives its results.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>

#include "testing/comm_fixture.h"
#include "comm/https_handler.h"
#include "comm/standard_agent_comm.h"

#ifndef _WIN32
#include "comm/curl_api.h"
#endif

using mgmt_sim::Request;
using mgmt_sim::words;

namespace {

// An update poll: the simplest request that carries the GUID and may fail over.
int poll(AgentConfig& config) {
    HttpsHandler handler(config);
    return handler.sendUpdatePoll(HttpsHandler::UpdatePoll::Configuration);
}

const char* const kUpdateOk = "[update]\nflag update.configuration\n";

}  // namespace

// ---- Texts (no server needed)

// The ends of the error table and what lies past them; the texts a run
// shows are checked over TLS below, a field with a comma by the server
// error and bulk-log tests.
TEST(HttpsTexts, ErrorTableEndsAndCsvField) {
    const std::pair<int, const char16_t*> errors[] = {
        {90, u"CURL_LAST"},
        {91, u"Guid is blank."},
        {92, u"Could not understand the error 92"},
        {-2, u"Could not understand the error -2"},
    };
    for (const auto& e : errors) EXPECT_EQ(HttpsHandler::errorTableText(e.first), STRING(e.second)) << e.first;
    // Only a comma makes it quoted.
    EXPECT_EQ(HttpsHandler::csvField(u"quote \" without comma"), STRING(u"quote \" without comma"));
}

// ---- Over TLS

using HttpsTransport = CommTest;

TEST_F(HttpsTransport, ConnectionTestIsAnonymousOtherRequestsCarryTheGuid) {
    auto server = serve(kUpdateOk);
    ASSERT_TRUE(server);
    StandardAgentComm comm(*config_);

    HttpsHandler handler(*config_);
    EXPECT_EQ(handler.testConnection(true), 0) << handler.errorText(handler.lastResult());
    EXPECT_EQ(handler.httpStatus(), 200);
    EXPECT_EQ(HttpsHandler::tlsSelector(), HttpsHandler::kTls12);
    EXPECT_EQ(poll(*config_), 0);

    // Without a GUID nothing goes out.
    config_->setAgentId(STRING());
    HttpsHandler blank(*config_);
    HttpsMessageGenerator request(*config_);
    EXPECT_EQ(blank.send(MessageKind::Update, request), -1);
    EXPECT_EQ(blank.lastResult(), 91);
    EXPECT_EQ(blank.errorText(-1), STRING(u"Internal CURL Error : Guid is blank."));

    // The update's body is the sender tests'.
    const auto requests = server->requests();
    ASSERT_EQ(requests.size(), 2u);
    for (const Request& r : requests) {
        EXPECT_EQ(r.method, "POST");
        EXPECT_TRUE(r.tls == "TLSv1.2" || r.tls == "TLSv1.3") << r.tls;
        for (const std::string h : {"Corvane-Format-Version: 1.0", "Content-Type: application/x-corvane", "Corvane-Charset: UTF-8"}) {
            const std::string name = h.substr(0, h.find(':'));
            EXPECT_EQ(r.header(name) ? name + ": " + *r.header(name) : "(none)", h);
        }
    }
    EXPECT_EQ(requests[0].path, "/zelshield/agent/testConnection");
    EXPECT_EQ(requests[0].body, "EOF_FLAG\n");
    EXPECT_EQ(requests[0].header("Corvane-GUID"), nullptr);
    EXPECT_EQ(requests[1].path, "/zelshield/agent/update");
    ASSERT_TRUE(requests[1].header("Corvane-GUID"));
    EXPECT_EQ(*requests[1].header("Corvane-GUID"), STRING(kGuid).toUtf8());
}

TEST_F(HttpsTransport, ServerCappedAtTls11PassesOnTheRetryAndLaterSendsStayThere) {
    auto server = serve({"server", kUpdateOk, "127.0.0.1", 0, "1.1"});
    ASSERT_TRUE(server);
    StandardAgentComm comm(*config_);

    STRING error;
    EXPECT_EQ(comm.testServer(u"127.0.0.1", error), 0) << error;
    EXPECT_EQ(HttpsHandler::tlsSelector(), HttpsHandler::kTls1x);
    // No second connection test: the next exchange goes out with TLS 1.x at once.
    EXPECT_EQ(poll(*config_), 0);
    // The refused TLS 1.2 handshake never became a request.
    const auto requests = server->requests();
    EXPECT_EQ(words(requests), (std::vector<std::string>{"testConnection", "update"}));
    for (const Request& r : requests) EXPECT_EQ(r.tls, "TLSv1.1");
}

// A connection test's result: the peer is verified against the certificate
// file but not by name, and a reply status above 200 fails.
TEST_F(HttpsTransport, ConnectionTestResults) {
    constexpr int kAnyFailure = -2;
    const char16_t* const kUntrusted = u"Verify the agent certificate matches the server.";
    struct Case {
        const char* label;
        const char* serverCertificate;
        const char* trusted;  // empty: a file that does not exist
        const char* host;
        const char* scenario;
        int result;
        const char16_t* text;  // nullptr: not checked
    };
    const Case cases[] = {
        {"reached by name", "server", "ca.pem", "localhost", "", 0, u""},
        {"issued for another host name", "otherhost", "ca.pem", "127.0.0.1", "", 0, u""},
        {"issued by an unrelated CA", "other-server", "ca.pem", "127.0.0.1", "", 60, kUntrusted},
        {"with no certificate file", "server", "", "127.0.0.1", "", kAnyFailure, nullptr},
        {"status 400", "server", "ca.pem", "127.0.0.1", "[testConnection]\nstatus 400\n", 400,
         u"Return status 400. Verify using Agent port versus Console port."},
        {"status 201", "server", "ca.pem", "127.0.0.1", "[testConnection]\nstatus 201\n", 201, u"Return status 201"},
        {"status 500 with a server error", "server", "ca.pem", "127.0.0.1", "[testConnection]\nstatus 500\nerror 12\n",
         500, u"Return status 500 (server error 12)"},
        {"status 200 with a server error", "server", "ca.pem", "127.0.0.1", "[testConnection]\nstatus 200\nerror 12\n",
         0, u""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        HttpsHandler::resetProcessStateForTests();
        auto server = startServer({c.serverCertificate, c.scenario, "127.0.0.1", 0, ""});
        ASSERT_TRUE(server);
        useServers(c.host, server->port());
        config_->setSslTrustStore(*c.trusted ? certificate(c.trusted) : scratch_.file("missing.pem").native);
        StandardAgentComm comm(*config_);
        STRING error;
        const int rc = comm.testServer(STRING::fromUtf8(c.host), error);
        if (c.result == kAnyFailure) {
            EXPECT_NE(rc, 0);
        } else {
            EXPECT_EQ(rc, c.result) << error;
        }
        if (c.text) {
            EXPECT_EQ(error, STRING(c.text));
        }
        // A failed test is repeated once with TLS 1.x; a refused server
        // never sees a request.
        EXPECT_EQ(server->requests().size(), c.result == 0 ? 1u : c.result >= 200 ? 2u : 0u);
    }
}

TEST_F(HttpsTransport, ServerErrorIsOneCommaSeparatedField) {
    auto server = serve(
        "[update]\nerror 300\nstacktrace database down, retry \"later\"\n"
        "[update]\nerror 600\n"
        "[update]\nflag update.configuration\n");
    ASSERT_TRUE(server);
    StandardAgentComm comm(*config_);
    const std::pair<int, const char16_t*> cases[] = {
        {300, u"\"database down, retry \"\"later\"\"\""},
        {600, u""},
        {0, u"left alone"},
    };
    for (const auto& c : cases) {
        HttpsHandler handler(*config_);
        ASSERT_EQ(handler.sendUpdatePoll(HttpsHandler::UpdatePoll::Configuration), 0);
        STRING text = c.first ? STRING() : STRING(u"left alone");
        EXPECT_EQ(handler.serverError(text), c.first);
        EXPECT_EQ(text, STRING(c.second));
    }
}

TEST_F(HttpsTransport, FailsOverAcrossTheServerListWhenTheAddressStaysTheSame) {
    // Three servers on one port: the first has nothing listening.
    auto b = startServer({"server", kUpdateOk, "127.0.0.6", 0, ""});
    ASSERT_TRUE(b);
    auto c = startServer({"server", kUpdateOk, "127.0.0.7", b->port(), ""});
    ASSERT_TRUE(c);
    useServers("127.0.0.5,127.0.0.6,127.0.0.7", b->port());
    ASSERT_TRUE(config_->UpdateAllIni());
    StandardAgentComm comm(*config_);

    // The first failure re-resolves the server and starts a fresh handle;
    // the second, with the address unchanged, moves on to the next server.
    EXPECT_EQ(poll(*config_), 7);
    EXPECT_EQ(config_->getCurrentServer(), STRING(u"127.0.0.5"));
    EXPECT_EQ(poll(*config_), 7);
    EXPECT_EQ(config_->getCurrentServer(), STRING(u"127.0.0.6"));
    EXPECT_EQ(reloaded()->getCurrentServer(), STRING(u"127.0.0.6"));
    EXPECT_EQ(poll(*config_), 0);
    EXPECT_EQ(words(b->requests()), std::vector<std::string>{"update"});

    // The second one goes away: the list goes on with the third.
    b->stop();
    EXPECT_NE(poll(*config_), 0);
    EXPECT_NE(poll(*config_), 0);
    EXPECT_EQ(config_->getCurrentServer(), STRING(u"127.0.0.7"));
    EXPECT_EQ(poll(*config_), 0);
    EXPECT_EQ(words(c->requests()), std::vector<std::string>{"update"});
}

TEST_F(HttpsTransport, ConnectionTestsAndLogUploadsNeverFailOver) {
    auto server = startServer();
    ASSERT_TRUE(server);
    useServers("127.0.0.5,127.0.0.1", server->port());
    StandardAgentComm comm(*config_);
    const auto log = scratch_.write("agent.log", "one line\n");
    STRING error;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(comm.testServer(u"127.0.0.5", error), 7);
        EXPECT_EQ(error, STRING(u"AGENT COULDNT CONNECT. Verify server IP,port and server is running"));
        EXPECT_EQ(comm.sendBulkLog(log.native, error), 7);
    }
    EXPECT_EQ(config_->getCurrentServer(), STRING(u"127.0.0.5"));
    EXPECT_TRUE(server->requests().empty());

    // A server that passes the test becomes the current one, on disk too.
    EXPECT_EQ(comm.testServer(u"127.0.0.1", error), 0) << error;
    EXPECT_EQ(config_->getCurrentServer(), STRING(u"127.0.0.1"));
    EXPECT_EQ(reloaded()->getCurrentServer(), STRING(u"127.0.0.1"));
}

TEST_F(HttpsTransport, ReturnsToThePrimaryServerOnceTheFailbackIntervalHasPassed) {
    for (const bool returns : {true, false}) {
        SCOPED_TRACE(returns);
        auto primary = startServer({"server", kUpdateOk, "127.0.0.6", 0, ""});
        ASSERT_TRUE(primary);
        auto backup = startServer({"server", kUpdateOk, "127.0.0.7", primary->port(), ""});
        ASSERT_TRUE(backup);
        useServers("127.0.0.6,127.0.0.7", primary->port());
        config_->setCurrentServer(u"127.0.0.7");
        config_->setFailbackIntervalText(returns ? u"0" : u"3600");
        StandardAgentComm comm(*config_);

        EXPECT_EQ(poll(*config_), 0);
        EXPECT_EQ(words(primary->requests()),
                  returns ? (std::vector<std::string>{"testConnection", "update"}) : std::vector<std::string>{});
        EXPECT_EQ(words(backup->requests()), returns ? std::vector<std::string>{} : std::vector<std::string>{"update"});
        EXPECT_EQ(config_->getCurrentServer(), STRING(returns ? u"127.0.0.6" : u"127.0.0.7"));
    }
}

TEST_F(HttpsTransport, SilentServerCostsAtMostTheConnectionTimeout) {
    auto server = serve();
    ASSERT_TRUE(server);
    config_->setAgentConnectionTimeout(u"2");
    StandardAgentComm comm(*config_);
    // The server's socket still accepts connections; nothing answers the
    // TLS handshake.
    ASSERT_TRUE(server->pause());
    const auto start = std::chrono::steady_clock::now();
    const int rc = poll(*config_);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ASSERT_TRUE(server->resume());
    EXPECT_EQ(rc, 28);
    EXPECT_GE(seconds, 1.5);
    EXPECT_LT(seconds, 6.0);
}

// (A port with nothing listening, 7: the failover tests.)
TEST_F(HttpsTransport, ConnectionClosedWithoutAnswer) {
    auto server = serve("[update]\nclose\n");
    ASSERT_TRUE(server);
    StandardAgentComm comm(*config_);
    // libcurl with OpenSSL reports an empty reply, with Schannel a receive error.
#ifdef _WIN32
    EXPECT_EQ(poll(*config_), 56);
#else
    EXPECT_EQ(poll(*config_), 52);
#endif
}

TEST_F(HttpsTransport, DebugSwitchShowsTheExchangeOnStandardOutput) {
    auto server = serve();
    ASSERT_TRUE(server);
    StandardAgentComm comm(*config_);
    HttpsHandler::setCommDebug(true);
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    HttpsHandler handler(*config_);
    const int rc = handler.testConnection(true);
    const std::string out = ::testing::internal::GetCapturedStdout();
    const std::string err = ::testing::internal::GetCapturedStderr();
    HttpsHandler::setCommDebug(false);
    EXPECT_EQ(rc, 0);
    for (const char* part : {"Header that agent is sending : ", "POST /zelshield/agent/testConnection",
                             "Data that the agent is sending : ", "Header that server sent : "})
        EXPECT_NE(out.find(part), std::string::npos) << part << "\n" << out;
#ifndef _WIN32
    // OpenSSL shows libcurl its TLS records (Schannel does not): they are not printed.
    EXPECT_NE(out.find("Agent is sending SSL/TLS (binary) data : \n!! SKIPPING BINARY DATA WHILE PRINTING !!\n"),
              std::string::npos);
#endif
    EXPECT_EQ(err.find("testConnection"), std::string::npos) << err;
}

#ifndef _WIN32
TEST(HttpsCurlLoading, MissingLibraryOrFunctionIsAnErrorText) {
    CurlApi api{};
    STRING error;
    EXPECT_FALSE(loadCurlApi("libcurl-not-installed.so.9", api, error));
    EXPECT_TRUE(error.startsWith(u"libcurl could not be loaded: ")) << error;
    EXPECT_TRUE(error.contains(u"libcurl-not-installed.so.9")) << error;

    EXPECT_FALSE(loadCurlApi("libc.so.6", api, error));
    EXPECT_EQ(error, STRING(u"libcurl has no function curl_global_init (libc.so.6)"));
    EXPECT_EQ(api.easyPerform, nullptr);

    ASSERT_TRUE(loadCurlApi("libcurl.so.4", api, error)) << error;
    EXPECT_NE(api.easyPerform, nullptr);
}

TEST(HttpsCurlLoading, LoadedOnlyWhenAnExchangeNeedsIt) {
    // A process of its own, so that no earlier test has loaded it.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            AgentConfig config(u"agent.ini");
            config.setAgentHttpUrl(u"https://127.0.0.1:1/agent/");
            {
                StandardAgentComm comm(config);
                comm.forceRegistration();
                if (curlApiLoaded()) std::exit(1);
                STRING error;
                comm.testServer(u"127.0.0.1", error);
                if (!curlApiLoaded()) std::exit(2);
            }
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}
#endif
