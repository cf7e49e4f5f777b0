#include "configtool/help_texts.h"

namespace HelpTexts {

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

}  // namespace HelpTexts
