// The options of the command line, one row each: long and short name,
// table and index, flags, handler and help page. Adding an option is a row
// here and its handler. The rows of a table stand in the order of their
// indexes, and the flags that the pre-scan reads agree with the indexes it
// is defined by; both are checked below at compile time.
#include "configtool/agent_config_tool.h"

#define RULE u"---------------------------------------------------------------------------\n"
// The page of the options that have none of their own.
#define NO_DETAIL_HELP                                                                               \
    {u" ", RULE, u"Detail help not available", u"", u"Example:", u"Detail help not available", \
     u"Detail help not available"}

namespace {
using T = AgentConfigTool;
using Table = AgentConfigTool::Table;
}  // namespace

constexpr AgentConfigTool::Option AgentConfigTool::kOptions[] = {
    // Server settings (server-managed installations).
    {u"host", u"h", Table::Server, kHost, kSetsChanged, &T::onServerSetting,
     {u"Option -host (-h) help:", RULE, u"This option sets a list of Management Server hostnames. ", u"", u"Examples:",
     u"    zelipsconfig -host MGTSERVER1,MGTSERVER2", u"    zelipsconfig -h MGTSERVER1,MGTSERVER2"}},
    {u"port", u"p", Table::Server, kPort, kSetsChanged, &T::onServerSetting,
     {u"Option -port (-p) help:", RULE, u"This option sets the Management Server's communication port.", u"",
     u"Examples:", u"    zelipsconfig -port 8080", u"    zelipsconfig -p 8080"}},
    {u"protocol", u"protocol", Table::Server, kProtocol, kSetsChanged, &T::onServerSetting,
     {u"Option -protocol help:", RULE, u"This option sets the Management Server communications protocol.", u"",
     u"Examples:", u"    zelipsconfig -protocol http", u"    zelipsconfig -protocol https"}},
    {u"certfile", u"c", Table::Server, kCertfile, 0, &T::onServerSetting,
     {u"Option -certfile (-c) help:", RULE,
     u"This option sets the path to the client certificate file on the local computer.  Enclose paths with spaces "
     u"in quotes.",
     u"", u"Examples:", u"    zelipsconfig -certfile \"C:/Program Files/Tessaly/agent-cert.ssl\"",
     u"    zelipsconfig -c c:/Program Files/Tessaly/agent-cert.ssl"}},
    {u"failbackinterval", u"failbackinterval", Table::Server, kFailbackInterval, kSetsChanged, &T::onServerSetting,
     {u"Option -failbackinterval help:", RULE,
     u"This option sets the interval (in minutes) at which the agent will try to connect to the primary Management "
     u"Server when it has failed over to another Server.",
     u"", u"Examples:", u"    zelipsconfig -failbackinterval 60", u"  "}},
    {u"test", u"t", Table::Server, kTest, 0, &T::onTest,
     {u"Option -test (-t) help:", RULE,
     u"This option will force the Config Tool to test the connection information using Nth server entry in the "
     u"list.",
     u"By default it uses the first entry.", u"Examples:",
     u"    zelipsconfig -host MGTSERVER1,MGTSERVER2,MGTSERVER3 -port 8080 -t 2",
     u"    zelipsconfig -host MYSERVER -t"}},
    {u"forcereg", u"forcereg", Table::Server, kForceReg, kSetsChanged, &T::onForceReg,
     {u"Option -forcereg help:", RULE, u"This option forces the Agent to re-register and obtain a new GUID",
     u"from the Management Server.", u"", u"Examples:", u"    zelipsconfig -forcereg"}},
    // Commands.
    {u"setpolicy", u"s", Table::Command, kSetPolicy, kNeedsIps | kSetsChanged, &T::onAgentControl,
     {u"Option -setpolicy (-s) help:", RULE,
     u"This option replaces the policy currently in use by the Agent with the policy that was most recently set on "
     u"this Agent from the Management Server.  This policy will remain in use until another policy is set on this "
     u"Agent from the Management Server or by using this tool with the -resetpolicy option.",
     u"", u"Examples:", u"  zelipsconfig -setpolicy", u"  zelipsconfig -s"}},
    {u"resetpolicy", u"r", Table::Command, kResetPolicy, kNeedsIps | kSetsChanged, &T::onAgentControl,
     {u"Option -resetpolicy (-r) help:", RULE,
     u"This option replaces the policy currently in use by the Agent with the default null policy.  This policy will "
     u"remain in use until another policy is set on this Agent from the Management Server or by using this tool "
     u"with the -setpolicy option.",
     u"", u"Examples:", u"  zelipsconfig -resetpolicy", u"  zelipsconfig -r"}},
    {u"toggleipsstate", u"i", Table::Command, kToggleIpsState, kNeedsIps | kSetsChanged, &T::onAgentControl,
     {u"Option -toggleipsstate (-i) help:", RULE,
     u"This option is now deprecated. Please use -ipsstate on/off instead.", u"",
     u"Please see help for -ipsstate for more information.", u"", u""}},
    {u"ipsstate", u"ipsstate", Table::Command, kIpsState, 0, &T::onIpsState,
     {u"Option -ipsstate on/off help:", RULE,
     u"This option enables/disables the IPS Driver. This change would only take effect after a reboot.", u"",
     u"Examples:", u"    zelipsconfig -ipsstate on", u"  "}},
    {u"overridetimeout", u"o", Table::Command, kOverrideTimeout, kNeedsIps, &T::onOverrideTimeout,
     {u"Option -overridetimeout (-o) help:", RULE,
     u"This option is used to set timeout value (in seconds) for policy translation during policy override process.",
     u"Minimum Value: 90 Maximum Value: 600", u"Examples:", u"zelipsconfig -overridetimeout 120",
     u"zelipsconfig -o 180"}},
    {u"trace", u"trace", Table::Command, kTrace, kSetsChanged, &T::onAgentControl,
     {u"Option -trace (-trace) help:", RULE, u"This option turns the Agent tracing on/off", u"", u"Examples:",
     u"    zelipsconfig -trace", u"  "}},
    {u"rollagent", u"a", Table::Command, kRollAgent, kSetsChanged, &T::onAgentControl,
     {u"Option -rollagent (-a) help:", RULE, u"This option forces the Agent log file to rollover now.", u"",
     u"Examples:", u"    zelipsconfig -rollagent", u"    zelipsconfig -a"}},
    {u"rollcsv", u"csv", Table::Command, kRollCsv, 0, &T::onAgentControl,
     {u"Option -rollcsv (-csv) help:", RULE, u"This option forces the CSV log file to rollover now.", u"",
     u"Examples:", u"    zelipsconfig -rollcsv", u"    zelipsconfig -csv"}},
    {u"retranslate", u"n", Table::Command, kRetranslate, kSetsChanged, &T::onAgentControl,
     {u"Option -retranslate (-n) help:", RULE, u"This option forces a policy retranslation.", u"", u"Examples:",
     u"    zelipsconfig -retranslate", u"    zelipsconfig -n"}},
    {u"export", u"export", Table::Command, kExport, kStandsAlone, &T::onExport,
     {u"Option -export (-export) help:", RULE,
     u"This option prints out the configuration file verbatim. This option may not be",
     u"used with other options.", u"", u"Example:", u"    zelipsconfig -export"}},
    {u"view", u"v", Table::Command, kView, 0, &T::onAgentControl,
     {u"Option -view (-v) help:", RULE, u"This option prints out the values that are configurable by this tool.", u"",
     u"Example:", u"    zelipsconfig -view", u"    zelipsconfig -v"}},
    {u"help", u"help", Table::Command, kHelp, kNotCounted, &T::onHelp,
     {u"Option -help help:", RULE, u"This option prints the help for each option", u"", u"Example:",
     u"    zelipsconfig -help -h", u"    zelipsconfig -help -v"}},
    {u"log", u"l", Table::Command, kLog, kStandsAlone | kSetsChanged, &T::onLog,
     NO_DETAIL_HELP},
    {u"state", u"s", Table::Command, kState, kNotCounted | kSetsChanged, &T::onState,
     NO_DETAIL_HELP},
    {u"pset", u"pset", Table::Command, kPset, kNeedsIps, &T::onListing,
     NO_DETAIL_HELP},
    {u"localwhitelist", u"localwhitelist", Table::Command, kLocalWhitelist, kLocalWhitelistType | kNeedsIps,
     &T::onListing,
     {u" ", RULE, u"This option displays all the applications that are whitelisted locally.", u"", u"Example:",
     u"    zelipsconfig -localwhitelist", u"Detail help not available"}},
    {u"edit", u"edit", Table::Command, kEdit, 0, &T::onEdit,
     NO_DETAIL_HELP},
    {u"process", u"process", Table::Command, kProcess, kNeedsIps, &T::onListing,
     NO_DETAIL_HELP},
    {u"fipsenable", u"fips", Table::Command, kFipsEnable, 0, &T::onFips,
     {u"Option -fipsenable on/off help:", RULE,
     u"This option enables or disables the FIPS  mode. This change would take effect only after you restart the IPS "
     u"Service.",
     u"", u"Example:", u"    zelipsconfig -fipsenable on", u" "}},
    {u"updateqel", u"uqel", Table::Command, kUpdateQel, 0, &T::onContentUpdate,
     {u"Usage: zelipsconfig -updateqel [<updraft content dir path>]\n       zelipsconfig -uqel [<updraft content dir "
     u"path>]\n       zelipsconfig -uqel default\n       zelipsconfig -uqel cancel",
     RULE,
     u"This option updates TesQEL component and associated components.\nIf <updraft content dir path> is provided, "
     u"UD content will be loaded from the given path. \nThe given path is saved and reused for subsequent updates.\n",
     u"Example:",
     u"To request content update from a specific directory path.\n     zelipsconfig -updateqel c:\\temp\\tesqelUD  \n",
     u"To request content update from a saved directory path.\n     zelipsconfig -uqel \n",
     u"To reset directory path to default.\n     zelipsconfig -uqel default \n\nTo cancel content update.\n     "
     u"zelipsconfig -uqel cancel"}},
    {u"updateveltriumrevo", u"uvrev", Table::Command, kUpdateVeltriumRevo, 0, &T::onContentUpdate,
     {u"Usage: zelipsconfig -updateveltriumrevo [<updraft content dir path>]\n       zelipsconfig -uvrev [<updraft "
     u"content dir path>]\n       zelipsconfig -uvrev default\n       zelipsconfig -uvrev cancel",
     RULE,
     u"This option updates Veltrium Revocation content.\nIf <updraft content dir path> is provided, UD content will be "
     u"loaded from the given path. The given path is saved and reused for subsequent updates.\n",
     u"Example:",
     u"To request content update from a specific directory path.\n     zelipsconfig -updateveltriumrevo "
     u"c:\\temp\\UD   \n",
     u"To request content update from a saved directory path.\n     zelipsconfig -uvrev \n",
     u"To reset directory path to default.\n     zelipsconfig -uvrev default \n\nTo cancel content update.\n     "
     u"zelipsconfig -uvrev cancel"}},
    {u"updateveltriumsettings", u"uvs", Table::Command, kUpdateVeltriumSettings, 0, &T::onContentUpdate,
     {u"Usage: zelipsconfig -updateveltriumsettings [<updraft content dir path>]\n       zelipsconfig -uvs "
     u"[<updraft content dir path>]\n       zelipsconfig -uvs default\n       zelipsconfig -uvs cancel",
     RULE,
     u"This option updates Veltrium Settings content.\nIf <updraft content dir path> is provided, UD content will be "
     u"loaded from the given path. The given path is saved and reused for subsequent updates.\n",
     u"Example:",
     u"To request content update from a specific directory path.\n     zelipsconfig -updateveltriumsettings "
     u"c:\\temp\\UD   \n",
     u"To request content update from a saved directory path.\n     zelipsconfig -uvs \n",
     u"To reset directory path to default.\n     zelipsconfig -uvs default \n\nTo cancel content update.\n     "
     u"zelipsconfig -uvs cancel"}},
    {u"updateveltriumvt", u"uvvt", Table::Command, kUpdateVeltriumVt, 0, &T::onContentUpdate,
     {u"Usage: zelipsconfig -updateveltriumvt [<updraft content dir path>]\n       zelipsconfig -uvvt [<updraft "
     u"content dir path>]\n       zelipsconfig -uvvt default\n       zelipsconfig -uvvt cancel",
     RULE,
     u"This option updates Veltrium VT content.\nIf <updraft content dir path> is provided, UD content will be loaded "
     u"from the given path. The given path is saved and reused for subsequent updates.\n",
     u"Example:",
     u"To request content update from a specific directory path.\n     zelipsconfig -updateveltriumvt c:\\temp\\UD \n",
     u"To request content update from a saved directory path.\n     zelipsconfig -uvvt \n",
     u"To reset directory path to default.\n     zelipsconfig -uvvt default \n\nTo cancel content update.\n     "
     u"zelipsconfig -uvvt cancel"}},
};
const size_t AgentConfigTool::kOptionCount = sizeof kOptions / sizeof kOptions[0];

namespace {

// Each table's rows in the order of their indexes, every index present.
constexpr bool rowsFollowTheIndexes() {
    int server = 0, command = 0;
    for (const auto& o : T::kOptions) {
        int& next = o.table == Table::Server ? server : command;
        if (o.index != next++) return false;
    }
    return server == T::kServerCount && command == T::kCommandCount;
}
static_assert(rowsFollowTheIndexes(), "the option rows must follow the indexes of their table");

// The pre-scan is defined by indexes alone, whatever the table: export and
// log stand alone, help and state do not count as another option.
constexpr bool prescanFlagsMatchTheIndexes() {
    for (const auto& o : T::kOptions) {
        const bool alone = o.index == T::kExport || o.index == T::kLog;
        const bool uncounted = o.index == T::kHelp || o.index == T::kState;
        if (((o.flags & T::kStandsAlone) != 0) != alone) return false;
        if (((o.flags & T::kNotCounted) != 0) != uncounted) return false;
    }
    return true;
}
static_assert(prescanFlagsMatchTheIndexes(), "the pre-scan's flags must agree with its indexes");

}  // namespace
