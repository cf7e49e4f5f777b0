// The fixture of the transport and registration tests: a scratch folder, an
// agent configuration in it that points at simulators, and the simulators.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "comm/https_handler.h"
#include "testing/mgmt_sim.h"
#include "config/agent_config.h"
#include "foundation/process_role.h"
#include "testing/child_process.h"

class CommTest : public ::testing::Test {
protected:
    static constexpr const char16_t* kGuid = u"5e0b7c1a-guid-under-test";

    void SetUp() override {
        ProcessRole::set(ProcessRole::ConfigTool);
        AgentType::resetForTests();
        AgentConfig::setRecordChanges(true);
        HttpsHandler::resetProcessStateForTests();
        HttpsHandler::setCommDebug(false);
        // No prevention driver answers during these tests.
        setEnv("ZELIPS_DEVICE", scratch_.file("no-driver-here").native);

        std::string why;
        if (mgmt_sim::simulatorPath(why).empty()) {
#ifdef _WIN32
            GTEST_SKIP() << why;
#else
            FAIL() << why;
#endif
        }
        certs_ = mgmt_sim::certificateFolder(why);
        ASSERT_FALSE(certs_.unix.empty()) << why;
        // An installed agent: agent.ini and fallback.ini exist (UTF-8).
        const mgmt_sim::SharedPath ini = scratch_.file("agent.ini");
        {
            AgentConfig seed(ini.native);
            seed.setAgentCharset(u"UTF-8");
            const std::string text = seed.serialise().toUtf8();
            scratch_.write("agent.ini", text);
            scratch_.write("fallback.ini", text);
        }
        config_ = std::make_unique<AgentConfig>(ini.native);
        bool usedFallback = false;
        ASSERT_TRUE(config_->loadIniFile(usedFallback));
    }

    void TearDown() override {
        setEnv("ZELIPS_DEVICE", STRING());
        ProcessRole::set(0);
        AgentType::resetForTests();
    }

    // A certificate file of the test set (native path).
    STRING certificate(const char* name) const {
        return mgmt_sim::nativeOf(certs_.unix + "/" + name);
    }

    // Points the configuration at servers (comma-separated, the first one
    // current) on one port, trusting the test CA, with a GUID.
    void useServers(const std::string& list, int port) {
        const std::string first = list.substr(0, list.find(','));
        config_->setServerList(STRING::fromUtf8(list));
        config_->setAgentHttpUrl(STRING::fromUtf8("https://" + first + ":" + std::to_string(port) + "/zelshield/agent/"));
        config_->setSslTrustStore(certificate("ca.pem"));
        config_->setAgentConnectionTimeout(u"10");
        config_->setFailbackIntervalText(u"3600");
        config_->setAgentId(kGuid);
    }

    // A started simulator, or nullptr after recording the failure.
    std::unique_ptr<mgmt_sim::Server> startServer(const mgmt_sim::Server::Options& options = {}) {
        auto server = std::make_unique<mgmt_sim::Server>(scratch_, "sim-" + std::to_string(++servers_));
        if (!server->start(options)) {
            ADD_FAILURE() << "simulator: " << server->error();
            return nullptr;
        }
        return server;
    }

    // The same, with the configuration pointed at it alone.
    std::unique_ptr<mgmt_sim::Server> serve(const mgmt_sim::Server::Options& options) {
        auto server = startServer(options);
        if (server) useServers(options.host, server->port());
        return server;
    }
    std::unique_ptr<mgmt_sim::Server> serve(const std::string& scenario = std::string()) {
        mgmt_sim::Server::Options options;
        options.scenario = scenario;
        return serve(options);
    }

    // The configuration as another process would read it from disk.
    std::unique_ptr<AgentConfig> reloaded() const {
        auto model = std::make_unique<AgentConfig>(scratch_.file("agent.ini").native);
        int64_t modified = 0;
        model->readIniFileInMem(modified);
        return model;
    }

    mgmt_sim::Scratch scratch_;
    mgmt_sim::SharedPath certs_;
    std::unique_ptr<AgentConfig> config_;
    int servers_ = 0;
};
