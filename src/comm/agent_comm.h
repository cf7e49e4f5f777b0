// AgentComm: the communication component through which the rest of the
// program reaches the management server.
#pragma once

#include <functional>
#include <memory>

#include "foundation/string.h"

class AgentConfig;

class AgentComm {
public:
    virtual ~AgentComm() = default;
    virtual int reserved1() { return 0; }
    virtual void reserved2() {}
    // Ends a registration loop at its next check.
    virtual void stop() = 0;
    // Sends a bulk-log file; on success the server's error text (if any) is
    // copied into errorText. The status check's result.
    virtual int sendBulkLog(const STRING& path, STRING& errorText) = 0;
    virtual int sendApplicationData(const STRING& requestId, const STRING& data, bool moreData) = 0;
    virtual int sendPolicyState() = 0;

    // The front end's connection test of one server: 0 when it answered
    // correctly, otherwise an error code with its text in errorText.
    virtual int testServer(const STRING& server, STRING& errorText) = 0;
    // Makes the agent register anew: its identity is emptied.
    virtual void forceRegistration() = 0;
};

// How registration reaches the prevention driver: whether it runs its
// built-in policy, and its applied policy (name, path, id). The program that
// builds the component supplies them; without them registration takes the
// driver to run no built-in policy and to have no applied policy.
struct DriverAccess {
    std::function<bool()> usingBuiltIn;
    std::function<bool(STRING& name, STRING& path, STRING& id)> queryPolicy;
};

// The process's communication component for a server-managed installation
// (a StandardAgentComm over the given configuration; nullptr without one).
// Building it loads nothing: libcurl is loaded by the first exchange.
std::unique_ptr<AgentComm> createAgentComm(AgentConfig* config, DriverAccess driver = {});
