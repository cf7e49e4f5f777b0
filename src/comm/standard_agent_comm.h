// StandardAgentComm: the communication component of a server-managed agent.
//
// It starts the transport's process-wide state when it is built (libcurl
// itself is loaded only by the first exchange) and ends it when destroyed.
// On top of the transport it holds the conversations with the management
// server: the connection test, forced re-registration and registration with
// its retry policy.
//
// Registration: an agent that already has an "agent.id" is registered and
// nothing is sent. Otherwise the register message (the agent's attributes,
// its log settings, its log rules and the built-in and extra policies) is
// sent until the server hands out a GUID, a final error ends the attempts,
// or stop() is called. Communication errors, server error codes and HTTP
// statuses of the retry table are retried after a pause of 20 seconds.
#pragma once

#include <atomic>
#include <functional>

#include "comm/agent_comm.h"
#include "comm/https_handler.h"
#include "foundation/array.h"
#include "foundation/string.h"
#include "foundation/utils.h"

class AgentConfig;

class StandardAgentComm : public AgentComm {
public:
    // The pause between registration attempts.
    static constexpr int kRetryPauseMs = 20000;

    explicit StandardAgentComm(AgentConfig& config, DriverAccess driver = {});
    ~StandardAgentComm() override;

    StandardAgentComm(const StandardAgentComm&) = delete;
    StandardAgentComm& operator=(const StandardAgentComm&) = delete;

    // ---- AgentComm

    void stop() override;
    int sendBulkLog(const STRING& path, STRING& errorText) override;
    int sendApplicationData(const STRING& requestId, const STRING& data, bool moreData) override;
    int sendPolicyState() override;
    int testServer(const STRING& server, STRING& errorText) override;
    void forceRegistration() override;

    // ---- Registration

    // Registers the agent unless it has an id; true when it holds one
    // afterwards. usingBuiltInPolicy is set when the driver turned out to run
    // its built-in policy instead of the assigned one.
    bool registerAgent(bool& usingBuiltInPolicy);

    // Whether a registration attempt that ended with this code is repeated;
    // the text names where the code came from.
    static bool retryDecision(int code, const STRING& text);
    // The log phrase of a code of the retry table; nullptr for other codes.
    static const char16_t* retryPhrase(int code);

    // The register message's seven sections.
    static void buildRegisterMessage(AgentConfig& config, HttpsMessageGenerator& request, const ByteArray* builtInPolicy,
                                     const PropertyList& logRules);
    // The pairs of the agent's log rules: the configuration's "log.rule" and
    // "ids.log.rule" and the kept pairs whose names begin with "log" or
    // "idslogrules".
    static PropertyList logRulePairs(AgentConfig& config);

    // Sends application data with a handler of its own and also hands back
    // the server's error code.
    static int sendApplicationData(AgentConfig& config, const STRING& requestId, const STRING& data, bool moreData,
                                   int& serverErrorCode);

    // ---- For tests

    void setSleep(std::function<void(int ms)> sleep) { sleep_ = std::move(sleep); }
    void setDriverAccess(DriverAccess access) { driver_ = std::move(access); }
    bool stopped() const { return stop_.load(); }

private:
    AgentConfig& config_;
    std::atomic<bool> stop_{false};
    std::function<void(int ms)> sleep_;
    DriverAccess driver_;
};
