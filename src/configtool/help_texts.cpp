#include "configtool/help_texts.h"

namespace HelpTexts {

#define RULE u"---------------------------------------------------------------------------\n"
#define END u"END_DETAIL_MESSAGE"

const char16_t* const kTerminator = END;

const char16_t* const kUsageHeading[] = {
    u" Options:",
};
const size_t kUsageHeadingCount = sizeof kUsageHeading / sizeof kUsageHeading[0];

const char16_t* const kUsageServer[] = {
    u"  -host (-h)            Sets the target Management Server hostname. This could",
    u"                        be a comma separated list of multiple servers.",
    u"  -port (-p)            Sets the target Management Server port (1-65535).",
    u"  -protocol             Sets the Management Server communications protocol.",
    u"  -certfile (-c)        Sets the path to the SSL client certificate file.",
    u"  -failbackinterval     Sets the failback interval for the agent to try to",
    u"                        communicate with the Primary Management Server.",
    u"  -test (-t)            Tests the connection information with the Nth server in",
    u"                        the Server List.",
    u"  -forcereg             Forces the Agent to re-register with the server.",
};
const size_t kUsageServerCount = sizeof kUsageServer / sizeof kUsageServer[0];

const char16_t* const kUsageCommands[] = {
    u"  -setpolicy (-s)       Replaces the current policy with the applied policy.",
    u"  -resetpolicy (-r)     Replaces the current policy with the default policy.",
    u"  -toggleipsstate (-i)  This option is deprecated now. Please use -ipsstate on/off instead.",
    u"  -ipsstate on/off      Enables or Disables state of the IPS Driver.",
    u"  -overridetimeout (-o) Timeout value (in seconds) for policy translation during policy override.",
    u"  -trace                Turns Trace to the desired value.",
    u"  -rollagent (-a)       Forces the Agent log file to rollover.",
    u"  -rollcsv (-csv)       Forces the CSV log file to rollover.",
    u"  -retranslate (-n)     Forces a policy retranslation.",
    u"  -export (-export)     Prints out the config file.",
    u"  -view (-v)            Prints the values configurable by this tool.",
    u"  -fipsenable on/off (-fips on/off)\tTurn FIPS mode on or off.",
    u"",
    u" Updraft Options:",
    u"",
    u"  -updateqel (-uqel)             <UD dir path>   Update TesQEL content.",
    u"  -updateveltriumrevo (-uvrev)   <UD dir path>   Update Veltrium Revocation content.",
    u"  -updateveltriumsettings (-uvs) <UD dir path>   Update Veltrium Settings content.",
    u"  -updateveltriumvt (-uvvt)      <UD dir path>   Update Veltrium Verify Trust content.",
    u"",
};
const size_t kUsageCommandsCount = sizeof kUsageCommands / sizeof kUsageCommands[0];

const char16_t* const kUsageHelpHint[] = {
    u"Type \"zelipsconfig -help <option>\" for a detailed help page for each option.",
    u"(i.e. zelipsconfig -help -export)",
    u"",
    u"Examples: ",
};
const size_t kUsageHelpHintCount = sizeof kUsageHelpHint / sizeof kUsageHelpHint[0];

const char16_t* const kUsageServerExamples[] = {
    u"  This example sets the SSL certificate:",
    u"      zelipsconfig -c \"c:/Program Files/Tessaly/agent-cert.ssl\"",
    u"",
    u"  This example tests the Agent connection with the Primary Management Server:",
    u"      zelipsconfig -t ",
    u"",
    u"  This example forces the Agent to re-register with the Management Server:",
    u"      zelipsconfig -forcereg ",
    u"",
};
const size_t kUsageServerExamplesCount = sizeof kUsageServerExamples / sizeof kUsageServerExamples[0];

const char16_t* const kUsageExamples[] = {
    u"  This example prints out the config file:",
    u"      zelipsconfig -export",
    u"",
    u"  This example rolls over the Agent and CSV log files:",
    u"      zelipsconfig -a -csv",
};
const size_t kUsageExamplesCount = sizeof kUsageExamples / sizeof kUsageExamples[0];

const Page kServerPages[] = {
    {u"Option -host (-h) help:", RULE, u"This option sets a list of Management Server hostnames. ", u"", u"Examples:",
     u"    zelipsconfig -host MGTSERVER1,MGTSERVER2", u"    zelipsconfig -h MGTSERVER1,MGTSERVER2"},
    {u"Option -port (-p) help:", RULE, u"This option sets the Management Server's communication port.", u"",
     u"Examples:", u"    zelipsconfig -port 8080", u"    zelipsconfig -p 8080"},
    {u"Option -protocol help:", RULE, u"This option sets the Management Server communications protocol.", u"",
     u"Examples:", u"    zelipsconfig -protocol http", u"    zelipsconfig -protocol https"},
    {u"Option -certfile (-c) help:", RULE,
     u"This option sets the path to the client certificate file on the local computer.  Enclose paths with spaces "
     u"in quotes.",
     u"", u"Examples:", u"    zelipsconfig -certfile \"C:/Program Files/Tessaly/agent-cert.ssl\"",
     u"    zelipsconfig -c c:/Program Files/Tessaly/agent-cert.ssl"},
    {u"Option -failbackinterval help:", RULE,
     u"This option sets the interval (in minutes) at which the agent will try to connect to the primary Management "
     u"Server when it has failed over to another Server.",
     u"", u"Examples:", u"    zelipsconfig -failbackinterval 60", u"  "},
    {u"Option -test (-t) help:", RULE,
     u"This option will force the Config Tool to test the connection information using Nth server entry in the "
     u"list.",
     u"By default it uses the first entry.", u"Examples:",
     u"    zelipsconfig -host MGTSERVER1,MGTSERVER2,MGTSERVER3 -port 8080 -t 2", u"    zelipsconfig -host MYSERVER -t"},
    {u"Option -forcereg help:", RULE, u"This option forces the Agent to re-register and obtain a new GUID",
     u"from the Management Server.", u"", u"Examples:", u"    zelipsconfig -forcereg"},
    {END, END, END, END, END, END, END},
};

#define PLACEHOLDER                                                                                      \
    {u" ", RULE, u"Detail help not available", u"", u"Example:", u"Detail help not available",          \
     u"Detail help not available"}

const Page kCommandPages[] = {
    {u"Option -setpolicy (-s) help:", RULE,
     u"This option replaces the policy currently in use by the Agent with the policy that was most recently set on "
     u"this Agent from the Management Server.  This policy will remain in use until another policy is set on this "
     u"Agent from the Management Server or by using this tool with the -resetpolicy option.",
     u"", u"Examples:", u"  zelipsconfig -setpolicy", u"  zelipsconfig -s"},
    {u"Option -resetpolicy (-r) help:", RULE,
     u"This option replaces the policy currently in use by the Agent with the default null policy.  This policy will "
     u"remain in use until another policy is set on this Agent from the Management Server or by using this tool "
     u"with the -setpolicy option.",
     u"", u"Examples:", u"  zelipsconfig -resetpolicy", u"  zelipsconfig -r"},
    {u"Option -toggleipsstate (-i) help:", RULE,
     u"This option is now deprecated. Please use -ipsstate on/off instead.", u"",
     u"Please see help for -ipsstate for more information.", u"", u""},
    {u"Option -ipsstate on/off help:", RULE,
     u"This option enables/disables the IPS Driver. This change would only take effect after a reboot.", u"",
     u"Examples:", u"    zelipsconfig -ipsstate on", u"  "},
    {u"Option -overridetimeout (-o) help:", RULE,
     u"This option is used to set timeout value (in seconds) for policy translation during policy override process.",
     u"Minimum Value: 90 Maximum Value: 600", u"Examples:", u"zelipsconfig -overridetimeout 120",
     u"zelipsconfig -o 180"},
    {u"Option -trace (-trace) help:", RULE, u"This option turns the Agent tracing on/off", u"", u"Examples:",
     u"    zelipsconfig -trace", u"  "},
    {u"Option -rollagent (-a) help:", RULE, u"This option forces the Agent log file to rollover now.", u"",
     u"Examples:", u"    zelipsconfig -rollagent", u"    zelipsconfig -a"},
    {u"Option -rollcsv (-csv) help:", RULE, u"This option forces the CSV log file to rollover now.", u"",
     u"Examples:", u"    zelipsconfig -rollcsv", u"    zelipsconfig -csv"},
    {u"Option -retranslate (-n) help:", RULE, u"This option forces a policy retranslation.", u"", u"Examples:",
     u"    zelipsconfig -retranslate", u"    zelipsconfig -n"},
    {u"Option -export (-export) help:", RULE,
     u"This option prints out the configuration file verbatim. This option may not be",
     u"used with other options.", u"", u"Example:", u"    zelipsconfig -export"},
    {u"Option -view (-v) help:", RULE, u"This option prints out the values that are configurable by this tool.", u"",
     u"Example:", u"    zelipsconfig -view", u"    zelipsconfig -v"},
    {u"Option -help help:", RULE, u"This option prints the help for each option", u"", u"Example:",
     u"    zelipsconfig -help -h", u"    zelipsconfig -help -v"},
    PLACEHOLDER,  // 12 log
    PLACEHOLDER,  // 13 state
    PLACEHOLDER,  // 14 pset
    {u" ", RULE, u"This option displays all the applications that are whitelisted locally.", u"", u"Example:",
     u"    zelipsconfig -localwhitelist", u"Detail help not available"},
    PLACEHOLDER,  // 16 edit
    PLACEHOLDER,  // 17 process
    {u"Option -fipsenable on/off help:", RULE,
     u"This option enables or disables the FIPS  mode. This change would take effect only after you restart the IPS "
     u"Service.",
     u"", u"Example:", u"    zelipsconfig -fipsenable on", u" "},
    {u"Usage: zelipsconfig -updateqel [<updraft content dir path>]\n       zelipsconfig -uqel [<updraft content dir "
     u"path>]\n       zelipsconfig -uqel default\n       zelipsconfig -uqel cancel",
     RULE,
     u"This option updates TesQEL component and associated components.\nIf <updraft content dir path> is provided, "
     u"UD content will be loaded from the given path. \nThe given path is saved and reused for subsequent updates.\n",
     u"Example:",
     u"To request content update from a specific directory path.\n     zelipsconfig -updateqel c:\\temp\\tesqelUD  \n",
     u"To request content update from a saved directory path.\n     zelipsconfig -uqel \n",
     u"To reset directory path to default.\n     zelipsconfig -uqel default \n\nTo cancel content update.\n     "
     u"zelipsconfig -uqel cancel"},
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
     u"zelipsconfig -uvrev cancel"},
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
     u"zelipsconfig -uvs cancel"},
    {u"Usage: zelipsconfig -updateveltriumvt [<updraft content dir path>]\n       zelipsconfig -uvvt [<updraft "
     u"content dir path>]\n       zelipsconfig -uvvt default\n       zelipsconfig -uvvt cancel",
     RULE,
     u"This option updates Veltrium VT content.\nIf <updraft content dir path> is provided, UD content will be loaded "
     u"from the given path. The given path is saved and reused for subsequent updates.\n",
     u"Example:",
     u"To request content update from a specific directory path.\n     zelipsconfig -updateveltriumvt c:\\temp\\UD \n",
     u"To request content update from a saved directory path.\n     zelipsconfig -uvvt \n",
     u"To reset directory path to default.\n     zelipsconfig -uvvt default \n\nTo cancel content update.\n     "
     u"zelipsconfig -uvvt cancel"},
    {END, END, END, END, END, END, END},
};

}  // namespace HelpTexts
