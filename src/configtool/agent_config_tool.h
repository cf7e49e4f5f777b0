// AgentConfigTool: the command-line front end. Its options are one table
// (kOptions, options.cpp): a row per option with its names, its table and
// index, its flags, its handler and its help page. The dispatcher checks
// which options may be combined, walks the command line through the rows,
// lets each option's handler consume its words, and writes agent.ini and
// fallback.ini once at the end when a command changed a setting.
#pragma once

#include <cstddef>
#include <vector>

#include "configtool/help_texts.h"
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

    // The command line as a handler sees it: every word, and the position of
    // the handler's own option word.
    struct Words {
        const std::vector<STRING>& argv;
        size_t pos;
        bool hasNext() const { return pos + 1 < argv.size(); }
        // The word after the option, or an empty text.
        STRING next() const { return hasNext() ? argv[pos + 1] : STRING(); }
    };
    // What a handler did: how many words it consumed (kAllWords: the rest
    // of the line), whether it changed a setting, and the exit status when
    // it ends the run (kGoOn: it does not).
    struct Step {
        static constexpr size_t kAllWords = static_cast<size_t>(-1);
        static constexpr int kGoOn = -1;
        size_t words = 1;
        bool changed = false;
        int exitStatus = kGoOn;
    };

    struct Option;
    using Handler = Step (AgentConfigTool::*)(const Option& option, const Words& words);
    // Row flags.
    enum OptionFlag : unsigned {
        kStandsAlone = 1u << 0,      // may not be combined with another option (the pre-scan)
        kNotCounted = 1u << 1,       // does not count as another option in the pre-scan
        kNeedsIps = 1u << 2,         // runs only when the installation has the IPS feature
        kSetsChanged = 1u << 3,      // a run of its handler changes the configuration
        kLocalWhitelistType = 1u << 4,  // available on local-whitelist installations only
        // (The server table is itself an agent-type gate: lookup searches it
        // on server-managed installations only.)
    };
    struct Option {
        const char16_t* longName;
        const char16_t* shortName;
        Table table;
        int index;
        unsigned flags;
        Handler handler;
        HelpTexts::Page help;
    };
    static const Option kOptions[];
    static const size_t kOptionCount;

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

    // The option a word names ("-host"), or null after printing why: long
    // names before short ones, the server table first on server-managed
    // installations.
    const Option* lookup(const STRING& word);
    // The row of an index of a table, or null.
    static const Option* option(Table table, int index);
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

    // Content-update request for the rows of the four content kinds
    // (kUpdateQel to kUpdateVeltriumVt); true when it changed a setting.
    bool contentUpdate(int index, const std::vector<STRING>& argv);

    // Driver listings.
    void psetSnapshot();
    void processDump();
    void localWhitelist();

private:
    // The option rows' handlers (options.cpp names them in the table).
    Step onServerSetting(const Option& option, const Words& words);
    Step onTest(const Option& option, const Words& words);
    Step onForceReg(const Option& option, const Words& words);
    Step onAgentControl(const Option& option, const Words& words);
    Step onIpsState(const Option& option, const Words& words);
    Step onOverrideTimeout(const Option& option, const Words& words);
    Step onExport(const Option& option, const Words& words);
    Step onHelp(const Option& option, const Words& words);
    Step onLog(const Option& option, const Words& words);
    Step onState(const Option& option, const Words& words);
    Step onListing(const Option& option, const Words& words);
    Step onLocalWhitelist(const Option& option, const Words& words);
    Step onEdit(const Option& option, const Words& words);
    Step onFips(const Option& option, const Words& words);
    Step onContentUpdate(const Option& option, const Words& words);

    // The pre-scan: options that must stand alone are not combined.
    bool combinationAllowed(const std::vector<STRING>& argv);
    // Writes agent.ini and fallback.ini, reporting a failure.
    void writeAllFiles();
    bool ipsFeaturePresent();
    // -setpolicy and -resetpolicy: the driver on the most recent applied
    // policy, or on its built-in one.
    void setAppliedPolicy();
    void setBuiltInPolicy();
    // Switches the prevention feature on or off (the registry at once, the
    // configuration at the end), with its messages and reboot bookkeeping.
    bool switchPrevention(bool enable);
    // Switches FIPS mode on or off in the configuration.
    bool switchFips(bool on);
    void printRaw(const STRING& text);

    AgentConfig* config_;
    AgentComm* comm_ = nullptr;
};
