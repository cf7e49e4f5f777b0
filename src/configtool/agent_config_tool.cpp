#include "configtool/agent_config_tool.h"

#include <cerrno>

#include "config/agent_config.h"
#include "configtool/file_edit.h"
#include "configtool/help_texts.h"
#include "foundation/console.h"
#include "foundation/ids_exception.h"
#include "foundation/log.h"
#include "foundation/message_catalog.h"
#include "foundation/process_role.h"

namespace {

const char16_t* const kRule = u"---------------------------------------------------------------------------\n";
const char16_t* const kNoIpsFeature = u"IPS Feature not available. Cannot perform this action.\n";

// The switch of -ipsstate and -fipsenable, read by its first characters:
// "on..." is 1, "off..." is 0, anything else -1.
int readSwitch(const STRING& s) {
    if (s.length() >= 2 && s[0] == u'o' && s[1] == u'n') return 1;
    if (s.length() >= 3 && s[0] == u'o' && s[1] == u'f' && s[2] == u'f') return 0;
    return -1;
}

// What differs between the two commands that take "on" or "off".
struct OnOffCommand {
    const char16_t* missing;  // no switch given
    const char16_t* invalid;  // neither "on..." nor "off..."
    const char16_t* enableFailed;
    const char16_t* disableFailed;
    bool (AgentConfigTool::*enable)();
    bool (AgentConfigTool::*disable)();
};
const OnOffCommand kIpsStateSwitch{
    u"Please specify -ipsstate switch.\n", u"Please specify valid ipsstate switch.\n",
    u"Failed to enable the Prevention Feature.\n", u"Failed to disable the Prevention Feature.\n",
    &AgentConfigTool::enablePrevention, &AgentConfigTool::disablePrevention};
const OnOffCommand kFipsSwitch{u"Please specify -fips switch.\n", u"Please specify valid FIPS state switch.\n",
                               u"Failed to enable FIPS.\n", u"Failed to disable FIPS.\n",
                               &AgentConfigTool::enableFips, &AgentConfigTool::disableFips};

// The word after the option switches the command on or off.
AgentConfigTool::Step onOffCommand(AgentConfigTool& tool, const AgentConfigTool::Words& w, const OnOffCommand& c) {
    if (!w.hasNext()) {
        ConsolePrint(c.missing);
        return AgentConfigTool::Step{1};
    }
    const int sw = readSwitch(w.next());
    if (sw < 0) {
        ConsolePrint(c.invalid);
        return AgentConfigTool::Step{2};
    }
    if (!(tool.*(sw == 1 ? c.enable : c.disable))()) ConsolePrint(sw == 1 ? c.enableFailed : c.disableFailed);
    return AgentConfigTool::Step{2, true};
}

bool startsWithDigit(const STRING& s) { return !s.empty() && s[0] >= u'0' && s[0] <= u'9'; }

}  // namespace

AgentConfigTool::AgentConfigTool() : config_(AgentConfig::instance()) {}

AgentConfigTool::~AgentConfigTool() { config_ = nullptr; }

bool AgentConfigTool::setComm(AgentComm* comm) {
    comm_ = comm;
    return true;
}

void AgentConfigTool::printBanner() {
    ConsolePrint(kRule);
    ConsolePrint(u"Agent Configuration Tool version %s\n", config_->getCorvaneVersion());
    ConsolePrint(kRule);
}

void AgentConfigTool::printUsage() {
    using namespace HelpTexts;
    auto print = [](const char16_t* const* lines, size_t n) {
        for (size_t i = 0; i < n; ++i) ConsolePrint(u"%s\n", lines[i]);
    };
    print(kUsageHeading, kUsageHeadingCount);
    if (AgentType::isServerManaged()) print(kUsageServer, kUsageServerCount);
    print(kUsageCommands, kUsageCommandsCount);
    print(kUsageHelpHint, kUsageHelpHintCount);
    if (AgentType::isServerManaged()) print(kUsageServerExamples, kUsageServerExamplesCount);
    print(kUsageExamples, kUsageExamplesCount);
}

void AgentConfigTool::printDetailedHelp(int index, Table table) {
    const Option* o = option(table, index);
    if (o == nullptr) {
        ConsolePrint(u"Detailed help not available.\n");
        return;
    }
    for (const char16_t* line : o->help) ConsolePrint(u"%s \n", line);
}

// ---- Finding options

const AgentConfigTool::Option* AgentConfigTool::option(Table table, int index) {
    for (size_t i = 0; i < kOptionCount; ++i)
        if (kOptions[i].table == table && kOptions[i].index == index) return &kOptions[i];
    return nullptr;
}

const AgentConfigTool::Option* AgentConfigTool::lookup(const STRING& word) {
    if (word.empty() || word[0] != u'-') {
        ConsolePrint(u"%s \n", u"ERROR: Invalid Parameter List. - use dash before options");
        return nullptr;
    }
    const STRING name = word.substr(1);
    // A table's long names before its short ones.
    auto find = [&name](Table table) -> const Option* {
        for (const char16_t* Option::*names : {&Option::longName, &Option::shortName}) {
            for (size_t i = 0; i < kOptionCount; ++i)
                if (kOptions[i].table == table && name == STRING(kOptions[i].*names)) return &kOptions[i];
        }
        return nullptr;
    };
    const Option* found = AgentType::isServerManaged() ? find(Table::Server) : nullptr;
    if (found == nullptr) found = find(Table::Command);
    if (found == nullptr) ConsolePrint(u"%s : %s \n", u"ERROR: Unknown Argument", name);
    return found;
}

bool AgentConfigTool::ipsFeaturePresent() { return config_->getAgentFeatures().contains(u'P'); }

// ---- The dispatcher

bool AgentConfigTool::combinationAllowed(const std::vector<STRING>& argv) {
    bool alone = false;
    bool other = false;
    for (size_t i = 1; i < argv.size(); ++i) {
        if (argv[i].empty() || argv[i][0] != u'-') continue;
        // Every dash word counts here, also the edit operation's own words
        // after -edit (which report themselves as unknown arguments).
        const Option* o = lookup(argv[i]);
        if (o == nullptr) continue;
        if ((o->flags & kStandsAlone) != 0) alone = true;
        else if ((o->flags & kNotCounted) == 0) other = true;
    }
    if (!(alone && other)) return true;
    ConsolePrint(u"ERROR:: Incorrect usage. Cannot use multiple options. Please refer help menu for details.\n");
    return false;
}

void AgentConfigTool::writeAllFiles() {
    if (!config_->UpdateAllIni()) {
        ConsolePrint(u"Could not write to the agent.ini or backup ini file. Error Code: %d\n", errno);
        ConsolePrint(u"No changes were written to the agent.ini or backup ini file.\n");
    }
}

int AgentConfigTool::dispatch(const std::vector<STRING>& argv) {
    if (!config_->isAccessible()) {
        ConsolePrint(u"Could not Access Agent.ini file.\n");
        ConsolePrint(u"No changes were written to the agent.ini file.\n");
        return 0;
    }
    if (!combinationAllowed(argv)) return 1;

    bool changed = false;
    for (size_t pos = 1; pos < argv.size();) {
        const Option* o = lookup(argv[pos]);
        if (o == nullptr) {
            ++pos;
            continue;
        }
        if ((o->flags & kLocalWhitelistType) != 0 && !AgentType::isLocalWhitelist()) {
            ConsolePrint(u"Command is not available for current installation. Cannot perform this action.\n");
            ++pos;
            continue;
        }
        if ((o->flags & kNeedsIps) != 0 && !ipsFeaturePresent()) {
            ConsolePrint(kNoIpsFeature);
            ++pos;
            continue;
        }
        const Step step = (this->*(o->handler))(*o, Words{argv, pos});
        if (step.exitStatus != Step::kGoOn) return step.exitStatus;
        if (step.changed || (o->flags & kSetsChanged) != 0) changed = true;
        pos = step.words == Step::kAllWords ? argv.size() : pos + step.words;
    }
    if (changed) writeAllFiles();
    return 0;
}

// ---- The options' handlers

AgentConfigTool::Step AgentConfigTool::onServerSetting(const Option& o, const Words& w) {
    serverSettings(o.index, w.hasNext() ? w.next() : STRING(u"HELP"));
    return Step{w.hasNext() ? 2u : 1u};
}

AgentConfigTool::Step AgentConfigTool::onTest(const Option&, const Words& w) {
    const int count = config_->getServerCount();
    if (count == 0) {
        ConsolePrint(u"The server list in the agent.ini file seems to be empty. Please update the list using the "
                     u"zelipsconfig -h option.");
        return Step{1, false, 1};
    }
    if (!startsWithDigit(w.next())) {
        testConnection(1);
        return Step{1};
    }
    const int entry = w.next().toIntLenient();
    if (entry == 0 || entry > count) {
        ConsolePrint(u"The server entry is out of range. Set the server entry between (1-%d).\n", count);
    } else {
        testConnection(entry);
    }
    return Step{2};
}

AgentConfigTool::Step AgentConfigTool::onForceReg(const Option&, const Words&) {
    serverSettings(kForceReg, STRING());
    return Step{1};
}

AgentConfigTool::Step AgentConfigTool::onAgentControl(const Option& o, const Words&) {
    agentControl(o.index);
    return Step{1};
}

AgentConfigTool::Step AgentConfigTool::onIpsState(const Option&, const Words& w) {
    if (!ipsFeaturePresent()) {
        ConsolePrint(kNoIpsFeature);
        ConfigToolLog::instance().logNumbered(catalog::IPS_NOT_INSTALLED, u"AgentConfigTool::dispatch");
        return Step{1};
    }
    return onOffCommand(*this, w, kIpsStateSwitch);
}

AgentConfigTool::Step AgentConfigTool::onOverrideTimeout(const Option&, const Words& w) {
    if (!w.hasNext()) {
        ConsolePrint(u"Please specify valid timeout value.\n");
        return Step{1};
    }
    int seconds = 0;
    try {
        seconds = w.next().toInt();
    } catch (const IDSException&) {
        ConsolePrint(u"Invalid timeout value specified.\n");
        return Step{2};
    }
    if (seconds < 90 || seconds > 600) {
        seconds = seconds < 90 ? 90 : 600;
        ConsolePrint(u"Out of range Policy override timeout value specified, valid range: 90 to 600.\n\n");
    }
    config_->setOverrideTimeout(seconds);
    ConsolePrint(u"Successfully set Policy override timeout value to %d\n", seconds);
    return Step{2, true};
}

AgentConfigTool::Step AgentConfigTool::onExport(const Option&, const Words& w) {
    if (w.pos == 1 && w.argv.size() == 2) {
        // The text goes out as it is produced, not gathered first.
        ConsoleStream out;
        out.write(u"The agent.ini file contents are \n");
        config_->serialiseTo([&out](std::u16string_view piece) { out.write(piece); });
        out.write(u"\n");
        return Step{1, false, 0};
    }
    ConsolePrint(u"ERROR:: Cannot use -export option with any other option\n");
    ConsolePrint(u"ERROR:: All previous modifications will be lost\n");
    return Step{1, false, 1};
}

AgentConfigTool::Step AgentConfigTool::onHelp(const Option&, const Words& w) {
    if (!w.hasNext()) {
        printDetailedHelp(kHelp, Table::Command);
        return Step{1};
    }
    if (const Option* o = lookup(w.next())) printDetailedHelp(o->index, o->table);
    return Step{2};
}

AgentConfigTool::Step AgentConfigTool::onLog(const Option&, const Words& w) {
    if (!w.hasNext()) return Step{1};
    ConfigToolLog::instance().logText(w.next());
    return Step{2};
}

AgentConfigTool::Step AgentConfigTool::onState(const Option&, const Words& w) {
    if (w.pos + 2 >= w.argv.size()) return Step{1};
    // A code that is not a number ends the run here, before anything is written.
    const int code = w.argv[w.pos + 1].toInt();
    config_->setPolicyStateErrorCode(code);
    config_->setPolicyStateErrorString(w.argv[w.pos + 2]);
    return Step{3};
}

AgentConfigTool::Step AgentConfigTool::onListing(const Option& o, const Words&) {
    if (o.index == kPset) psetSnapshot();
    else if (o.index == kProcess) processDump();
    else localWhitelist();
    return Step{1};
}

AgentConfigTool::Step AgentConfigTool::onEdit(const Option&, const Words& w) {
    // The edit may change the message catalog itself: its messages come
    // from the catalog as it stood when the run began.
    MessageCatalog::instance().loadPending();
    FileEdit edit(w.argv);
    const int result = edit.run();
    writeAllFiles();
    return Step{1, false, result};
}

AgentConfigTool::Step AgentConfigTool::onFips(const Option&, const Words& w) {
    return onOffCommand(*this, w, kFipsSwitch);
}

AgentConfigTool::Step AgentConfigTool::onContentUpdate(const Option& o, const Words& w) {
    // The words after the option are the request's own.
    return Step{Step::kAllWords, contentUpdate(o.index, w.argv)};
}

// ---- Settings that need no other component

bool AgentConfigTool::enableFips() { return switchFips(true); }
bool AgentConfigTool::disableFips() { return switchFips(false); }

bool AgentConfigTool::switchFips(bool on) {
    const char16_t* state = on ? u"enabled" : u"disabled";
    if (config_->getFipsEnabled() == on) {
        ConsolePrint(u"FIPS already %s. No action was taken. \n", state);
        return true;
    }
    config_->setFipsEnabled(on);
    if (config_->getFipsEnabled() != on) return false;
    ConsolePrint(u"FIPS is %s. You must restart the IPS Service to complete the change. \n", state);
    if (on) ConfigToolLog::instance().logNumbered(catalog::FIPS_ON, u"AgentConfigTool::enableFips");
    else ConfigToolLog::instance().logNumbered(catalog::FIPS_OFF, u"AgentConfigTool::disableFips");
    return true;
}

// Store texts are printed as they stand: UTF-16 code units when the agent's
// charset is not UTF-8, otherwise the locale's multibyte form (at most 8192
// bytes).
void AgentConfigTool::printRaw(const STRING& text) {
    std::string bytes;
    if (AgentConfig::wideCharset()) {
        for (char16_t c : text.str()) {
            bytes += static_cast<char>(c & 0xFF);
            bytes += static_cast<char>(c >> 8);
        }
    } else {
        bytes = text.toNarrow();
        if (bytes.size() > 8191) bytes.resize(8191);
    }
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    std::fflush(stdout);
}

void AgentConfigTool::view() {
    if (AgentType::isServerManaged()) {
        ConsolePrint(u"\nServer Host List - ");
        printRaw(config_->getServerListText());
        ConsolePrint(u"\nCurrent Management Server - ");
        printRaw(config_->getCurrentServer());
        ConsolePrint(u"\nPort - %d", config_->getPort());
        ConsolePrint(u"\nProtocol - ");
        printRaw(config_->getProtocol());
        ConsolePrint(u"\nFailback Interval - %d minutes", config_->getFailbackInterval() / 60);
    }
    ConsolePrint(u"\nCertFile - ");
    printRaw(config_->getSslTrustStore());
    ConsolePrint(config_->getAgentlogTraceMessages() ? u"\nTracing - true" : u"\nTracing - false");
    ConsolePrint(config_->getAutoretransNow() ? u"\nForce Retranslation - true" : u"\nForce Retranslation - false");
    ConsolePrint(u"\nPrevention Feature - %s", config_->getIpsEnabled() ? u"enabled" : u"disabled");
    ConsolePrint(u"\n");
}
