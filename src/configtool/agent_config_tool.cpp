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

const char16_t* const kServerLong[] = {u"host", u"port", u"protocol", u"certfile", u"failbackinterval", u"test",
                                       u"forcereg"};
const char16_t* const kServerShort[] = {u"h", u"p", u"protocol", u"c", u"failbackinterval", u"t", u"forcereg"};
static_assert(sizeof kServerLong / sizeof kServerLong[0] == AgentConfigTool::kServerCount, "server table");
static_assert(sizeof kServerShort / sizeof kServerShort[0] == AgentConfigTool::kServerCount, "server table");

const char16_t* const kCommandLong[] = {
    u"setpolicy", u"resetpolicy", u"toggleipsstate", u"ipsstate", u"overridetimeout", u"trace", u"rollagent",
    u"rollcsv", u"retranslate", u"export", u"view", u"help", u"log", u"state", u"pset", u"localwhitelist", u"edit",
    u"process", u"fipsenable", u"updateqel", u"updateveltriumrevo", u"updateveltriumsettings", u"updateveltriumvt"};
const char16_t* const kCommandShort[] = {
    u"s", u"r", u"i", u"ipsstate", u"o", u"trace", u"a", u"csv", u"n", u"export", u"v", u"help", u"l", u"s",
    u"pset", u"localwhitelist", u"edit", u"process", u"fips", u"uqel", u"uvrev", u"uvs", u"uvvt"};
static_assert(sizeof kCommandLong / sizeof kCommandLong[0] == AgentConfigTool::kCommandCount, "command table");
static_assert(sizeof kCommandShort / sizeof kCommandShort[0] == AgentConfigTool::kCommandCount, "command table");

const char16_t* const kRule = u"---------------------------------------------------------------------------\n";
const char16_t* const kNoIpsFeature = u"IPS Feature not available. Cannot perform this action.\n";

int find(const STRING& name, const char16_t* const* longNames, const char16_t* const* shortNames, int count) {
    for (int i = 0; i < count; ++i)
        if (name == STRING(longNames[i])) return i;
    for (int i = 0; i < count; ++i)
        if (name == STRING(shortNames[i])) return i;
    return -1;
}

// The switch of -ipsstate and -fipsenable, read by its first characters:
// "on..." is 1, "off..." is 0, anything else -1.
int readSwitch(const STRING& s) {
    if (s.length() >= 2 && s[0] == u'o' && s[1] == u'n') return 1;
    if (s.length() >= 3 && s[0] == u'o' && s[1] == u'f' && s[2] == u'f') return 0;
    return -1;
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
    const HelpTexts::Page* pages = table == Table::Server ? HelpTexts::kServerPages : HelpTexts::kCommandPages;
    int rows = 0;
    while (STRING(pages[rows][0]) != STRING(HelpTexts::kTerminator)) ++rows;
    if (index < 0 || index >= rows) {
        ConsolePrint(u"Detailed help not available.\n");
        return;
    }
    for (const char16_t* line : pages[index]) ConsolePrint(u"%s \n", line);
}

int AgentConfigTool::lookup(const STRING& word, Table& table) {
    if (word.empty() || word[0] != u'-') {
        ConsolePrint(u"%s \n", u"ERROR: Invalid Parameter List. - use dash before options");
        return -1;
    }
    const STRING name = word.substr(1);
    if (AgentType::isServerManaged()) {
        table = Table::Server;
        const int i = find(name, kServerLong, kServerShort, kServerCount);
        if (i >= 0) return i;
    }
    table = Table::Command;
    const int i = find(name, kCommandLong, kCommandShort, kCommandCount);
    if (i >= 0) return i;
    ConsolePrint(u"%s : %s \n", u"ERROR: Unknown Argument", name);
    return -1;
}

int AgentConfigTool::lookup(const STRING& word) {
    Table ignored;
    return lookup(word, ignored);
}

bool AgentConfigTool::ipsFeaturePresent() { return config_->getAgentFeatures().contains(u'P'); }

int AgentConfigTool::dispatch(const std::vector<STRING>& argv) {
    const size_t argc = argv.size();
    if (!config_->isAccessible()) {
        ConsolePrint(u"Could not Access Agent.ini file.\n");
        ConsolePrint(u"No changes were written to the agent.ini file.\n");
        return 0;
    }

    // Options that must stand alone may not be combined with others.
    bool exclusive = false;
    bool other = false;
    for (size_t i = 1; i < argc; ++i) {
        if (argv[i].empty() || argv[i][0] != u'-') continue;
        const int index = lookup(argv[i]);
        if (index < 0) continue;
        // Every dash word counts here, also the edit operation's own words
        // after -edit (which report themselves as unknown arguments).
        if (index == kExport || index == kLog) exclusive = true;
        else if (index != kHelp && index != kState) other = true;
    }
    if (exclusive && other) {
        ConsolePrint(u"ERROR:: Incorrect usage. Cannot use multiple options. Please refer help menu for details.\n");
        return 1;
    }

    bool changed = false;
    size_t pos = 1;
    auto writeAll = [this]() {
        if (!config_->UpdateAllIni()) {
            ConsolePrint(u"Could not write to the agent.ini or backup ini file. Error Code: %d\n", errno);
            ConsolePrint(u"No changes were written to the agent.ini or backup ini file.\n");
        }
    };

    while (pos < argc) {
        Table table = Table::Command;
        const int index = lookup(argv[pos], table);
        if (index < 0) {
            ++pos;
            continue;
        }
        const bool hasNext = pos + 1 < argc;
        const STRING next = hasNext ? argv[pos + 1] : STRING();

        if (table == Table::Server) {
            switch (index) {
            case kHost:
            case kPort:
            case kProtocol:
            case kFailbackInterval:
            case kCertfile:
                serverSettings(index, hasNext ? next : STRING(u"HELP"));
                if (index != kCertfile) changed = true;
                pos += hasNext ? 2 : 1;
                break;
            case kTest: {
                const int count = config_->getServerCount();
                if (count == 0) {
                    ConsolePrint(
                        u"The server list in the agent.ini file seems to be empty. Please update the list using the "
                        u"zelipsconfig -h option.");
                    return 1;
                }
                if (hasNext && startsWithDigit(next)) {
                    const int entry = next.toIntLenient();
                    if (entry == 0 || entry > count) {
                        ConsolePrint(u"The server entry is out of range. Set the server entry between (1-%d).\n",
                                     count);
                    } else {
                        testConnection(entry);
                    }
                    pos += 2;
                } else {
                    testConnection(1);
                    pos += 1;
                }
                break;
            }
            case kForceReg:
                serverSettings(kForceReg, STRING());
                changed = true;
                ++pos;
                break;
            default:
                ++pos;
                break;
            }
            continue;
        }

        switch (index) {
        case kSetPolicy:
        case kResetPolicy:
        case kToggleIpsState:
            if (ipsFeaturePresent()) {
                agentControl(index);
                changed = true;
            } else {
                ConsolePrint(kNoIpsFeature);
            }
            ++pos;
            break;
        case kIpsState:
            if (!ipsFeaturePresent()) {
                ConsolePrint(kNoIpsFeature);
                ConfigToolLog::instance().logNumbered(10313, u"AgentConfigTool::dispatch");
                ++pos;
            } else if (!hasNext) {
                ConsolePrint(u"Please specify -ipsstate switch.\n");
                ++pos;
            } else {
                const int sw = readSwitch(next);
                if (sw == 1) {
                    if (!enablePrevention()) ConsolePrint(u"Failed to enable the Prevention Feature.\n");
                    changed = true;
                } else if (sw == 0) {
                    if (!disablePrevention()) ConsolePrint(u"Failed to disable the Prevention Feature.\n");
                    changed = true;
                } else {
                    ConsolePrint(u"Please specify valid ipsstate switch.\n");
                }
                pos += 2;
            }
            break;
        case kOverrideTimeout: {
            if (!ipsFeaturePresent()) {
                ConsolePrint(kNoIpsFeature);
                ++pos;
                break;
            }
            if (!hasNext) {
                ConsolePrint(u"Please specify valid timeout value.\n");
                ++pos;
                break;
            }
            int seconds = 0;
            try {
                seconds = next.toInt();
            } catch (const IDSException&) {
                ConsolePrint(u"Invalid timeout value specified.\n");
                pos += 2;
                break;
            }
            if (seconds < 90 || seconds > 600) {
                seconds = seconds < 90 ? 90 : 600;
                ConsolePrint(u"Out of range Policy override timeout value specified, valid range: 90 to 600.\n\n");
            }
            config_->setOverrideTimeout(seconds);
            ConsolePrint(u"Successfully set Policy override timeout value to %d\n", seconds);
            changed = true;
            pos += 2;
            break;
        }
        case kTrace:
        case kRollAgent:
        case kRetranslate:
            agentControl(index);
            changed = true;
            ++pos;
            break;
        case kRollCsv:
        case kView:
            agentControl(index);
            ++pos;
            break;
        case kExport:
            if (pos == 1 && argc == 2) {
                // The text goes out as it is produced, not gathered first.
                ConsoleStream out;
                out.write(u"The agent.ini file contents are \n");
                config_->serialiseTo([&out](std::u16string_view piece) { out.write(piece); });
                out.write(u"\n");
                return 0;
            }
            ConsolePrint(u"ERROR:: Cannot use -export option with any other option\n");
            ConsolePrint(u"ERROR:: All previous modifications will be lost\n");
            return 1;
        case kHelp:
            if (hasNext) {
                Table helpTable = Table::Command;
                const int helpIndex = lookup(next, helpTable);
                if (helpIndex >= 0) printDetailedHelp(helpIndex, helpTable);
                pos += 2;
            } else {
                printDetailedHelp(kHelp, Table::Command);
                ++pos;
            }
            break;
        case kLog:
            if (hasNext) {
                ConfigToolLog::instance().logText(next);
                pos += 2;
            } else {
                ++pos;
            }
            changed = true;
            break;
        case kState:
            if (pos + 2 < argc) {
                // A code that is not a number ends the run here, before anything is written.
                const int code = argv[pos + 1].toInt();
                config_->setPolicyStateErrorCode(code);
                config_->setPolicyStateErrorString(argv[pos + 2]);
                pos += 3;
            } else {
                ++pos;
            }
            changed = true;
            break;
        case kPset:
        case kProcess:
            if (ipsFeaturePresent()) {
                if (index == kPset) psetSnapshot();
                else processDump();
            } else {
                ConsolePrint(kNoIpsFeature);
            }
            ++pos;
            break;
        case kLocalWhitelist:
            if (!AgentType::isLocalWhitelist()) {
                ConsolePrint(u"Command is not available for current installation. Cannot perform this action.\n");
            } else if (ipsFeaturePresent()) {
                localWhitelist();
            } else {
                ConsolePrint(kNoIpsFeature);
            }
            ++pos;
            break;
        case kEdit: {
            // The edit may change the message catalog itself: its messages
            // come from the catalog as it stood when the run began.
            MessageCatalog::instance().loadPending();
            FileEdit edit(argv);
            const int result = edit.run();
            writeAll();
            return result;
        }
        case kFipsEnable: {
            if (!hasNext) {
                ConsolePrint(u"Please specify -fips switch.\n");
                ++pos;
                break;
            }
            const int sw = readSwitch(next);
            if (sw == 1) {
                if (!enableFips()) ConsolePrint(u"Failed to enable FIPS.\n");
                changed = true;
            } else if (sw == 0) {
                if (!disableFips()) ConsolePrint(u"Failed to disable FIPS.\n");
                changed = true;
            } else {
                ConsolePrint(u"Please specify valid FIPS state switch.\n");
            }
            pos += 2;
            break;
        }
        case kUpdateQel:
        case kUpdateVeltriumRevo:
        case kUpdateVeltriumSettings:
        case kUpdateVeltriumVt:
            if (contentUpdate(index, argv)) changed = true;
            pos = argc;  // later words are not processed
            break;
        default:
            ++pos;
            break;
        }
    }

    if (changed) writeAll();
    return 0;
}

// ---- Settings that need no other component

bool AgentConfigTool::enableFips() {
    if (config_->getFipsEnabled()) {
        ConsolePrint(u"FIPS already enabled. No action was taken. \n");
        return true;
    }
    config_->setFipsEnabled(true);
    if (!config_->getFipsEnabled()) return false;
    ConsolePrint(u"FIPS is enabled. You must restart the IPS Service to complete the change. \n");
    ConfigToolLog::instance().logNumbered(10503, u"AgentConfigTool::enableFips");
    return true;
}

bool AgentConfigTool::disableFips() {
    if (!config_->getFipsEnabled()) {
        ConsolePrint(u"FIPS already disabled. No action was taken. \n");
        return true;
    }
    config_->setFipsEnabled(false);
    if (config_->getFipsEnabled()) return false;
    ConsolePrint(u"FIPS is disabled. You must restart the IPS Service to complete the change. \n");
    ConfigToolLog::instance().logNumbered(10504, u"AgentConfigTool::disableFips");
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
