// AgentConfigTool: the command-line front end. It recognises the options of
// two fixed tables, checks which may be combined and which the installation
// offers, runs each command in command-line order, and writes agent.ini and
// fallback.ini once at the end when a command changed a setting.
#pragma once

#include <vector>

#include "foundation/string.h"

class AgentConfig;
class AgentComm;

class AgentConfigTool {
public:
    enum class Table { Server, Command };

    // Server-settings options (server-managed installations only).
    enum ServerOption { kHost = 0, kPort, kProtocol, kCertfile, kFailbackInterval, kTest, kForceReg, kServerCount };
    // Commands.
    enum CommandOption {
        kSetPolicy = 0, kResetPolicy, kToggleIpsState, kIpsState, kOverrideTimeout, kTrace, kRollAgent, kRollCsv,
        kRetranslate, kExport, kView, kHelp, kLog, kState, kPset, kLocalWhitelist, kEdit, kProcess, kFipsEnable,
        kUpdateQel, kUpdateVeltriumRevo, kUpdateVeltriumSettings, kUpdateVeltriumVt, kCommandCount
    };

    AgentConfigTool();
    ~AgentConfigTool();
    AgentConfigTool(const AgentConfigTool&) = delete;
    AgentConfigTool& operator=(const AgentConfigTool&) = delete;

    // Hands over the communication component (null on installations that
    // are not server-managed). Not owned.
    bool setComm(AgentComm* comm);

    void printBanner();
    void printUsage();
    // Interprets the whole command line; returns the exit status.
    int dispatch(const std::vector<STRING>& argv);

    // Option lookup: the index, or -1 after printing why.
    int lookup(const STRING& word, Table& table);
    int lookup(const STRING& word);
    void printDetailedHelp(int index, Table table);

    // Server settings and the connection test.
    void serverSettings(int index, const STRING& value);
    bool testConnection(int entry);
    void view();

    // Agent control (setpolicy, resetpolicy, toggleipsstate, trace, rollagent,
    // rollcsv, retranslate, view).
    void agentControl(int index);
    bool enablePrevention();
    bool disablePrevention();
    bool togglePrevention();
    bool enableFips();
    bool disableFips();

    // Content-update request for option indexes 19 to 22; true when it
    // changed a setting.
    bool contentUpdate(int index, const std::vector<STRING>& argv);

    // Driver listings.
    void psetSnapshot();
    void processDump();
    void localWhitelist();

private:
    bool ipsFeaturePresent();
    void completePreventionChange(bool nowEnabled, const char16_t* rebootLine, const char16_t* shortLine);
    void printRaw(const STRING& text);

    AgentConfig* config_;
    AgentComm* comm_ = nullptr;
};
