// Content-update requests: record in agent.ini that the agent should update
// one kind of content package, and from which folder.
#include "config/agent_config.h"
#include "configtool/agent_config_tool.h"
#include "foundation/console.h"
#include "foundation/file_util.h"
#include "foundation/system_info.h"

namespace {

struct ContentKind {
    const char16_t* messageName;     // "TesQEL component"
    const char16_t* defaultMessage;  // "... default path set. \nFolder path -- %s\n\n"
    const char16_t* requested;       // "... update requested. \nUpdate folder - %s\n\n"
    const char16_t* usage;           // the usage error
    const char16_t* folder;          // below the IPS folder
    bool (AgentConfig::*getNow)();
    void (AgentConfig::*setNow)(bool);
    STRING (AgentConfig::*getPath)();
    void (AgentConfig::*setPath)(const STRING&);
};

const ContentKind kKinds[] = {
    {u"TesQEL component", u"TesQEL default path set. \nFolder path -- %s\n\n",
     u"TesQEL component update requested. \nUpdate folder - %s\n\n",
     u"Usage Error: Invalid parameter. Second argument must be a valid directory.....\n Usage:  zelipsconfig -uqel "
     u"[Directory path of QEL UD content]\n",
     u"qel_vt", &AgentConfig::getUpdateQelVtNow, &AgentConfig::setUpdateQelVtNow, &AgentConfig::getQelVtUdpkgPath,
     &AgentConfig::setQelVtUdpkgPath},
    {u"Veltrium Revocation content",
     u"Veltrium Revocation content default path set. \nFolder path -- %s\n\n",
     u"Veltrium Revocation content  update requested. \nUpdate folder - %s\n\n",
     u"Usage Error: Invalid parameter. Second argument must be a valid directory.....\n Usage:  zelipsconfig -uvrev "
     u"[Directory path of UD content]\n",
     u"veltrium_revo", &AgentConfig::getUpdateVeltriumRevoNow, &AgentConfig::setUpdateVeltriumRevoNow,
     &AgentConfig::getVeltriumRevoUdpkgPath, &AgentConfig::setVeltriumRevoUdpkgPath},
    {u"Veltrium Settings content", u"Veltrium Settings content default path set. \nFolder path -- %s\n\n",
     u"Veltrium Settings content  update requested. \nUpdate folder - %s\n\n",
     u"Usage Error: Invalid parameter. Second argument must be a valid directory.....\n Usage:  zelipsconfig -uvs "
     u"[Directory path of UD content]\n",
     u"veltrium_settings", &AgentConfig::getUpdateVeltriumSettingsNow, &AgentConfig::setUpdateVeltriumSettingsNow,
     &AgentConfig::getVeltriumSettingsUdpkgPath, &AgentConfig::setVeltriumSettingsUdpkgPath},
    {u"Veltrium VT content", u"Veltrium VT content default path set. \nFolder path -- %s\n\n",
     u"Veltrium VT content  update requested. \nUpdate folder - %s\n\n",
     u"Usage Error: Invalid parameter. Second argument must be a valid directory.....\n Usage:  zelipsconfig -uvvt "
     u"[Directory path of UD content]\n",
     u"veltrium_vt", &AgentConfig::getUpdateVeltriumVtNow, &AgentConfig::setUpdateVeltriumVtNow,
     &AgentConfig::getVeltriumVtUdpkgPath, &AgentConfig::setVeltriumVtUdpkgPath},
};

}  // namespace

bool AgentConfigTool::contentUpdate(int index, const std::vector<STRING>& argv) {
    const int kind = index - kUpdateQel;
    if (kind < 0 || kind > 3) return false;
    const ContentKind& k = kKinds[kind];
    AgentConfig& c = *config_;
    const bool hasArg = argv.size() > 2;
    const STRING arg = hasArg ? argv[2] : STRING();

    if (hasArg && arg == STRING(u"default")) {
        const STRING folder = joinPath(joinPath(SystemInfo::getIPSDirectory(), u"Updraft"), k.folder);
        (c.*k.setPath)(folder);
        ConsolePrint(k.defaultMessage, folder);
        return true;
    }
    if (hasArg && arg == STRING(u"cancel")) {
        if ((c.*k.getNow)()) {
            (c.*k.setNow)(false);
            ConsolePrint(u"%s update request canceled.\n\n", k.messageName);
            return true;
        }
        ConsolePrint(u"%s update not pending.\n\n", k.messageName);
        return false;
    }
    if ((c.*k.getNow)()) {
        ConsolePrint(u"%s update requesting pending....\n\n", k.messageName);
        return false;
    }
    if (hasArg) {
        if (!WinFileAttributes().isDirectory(arg)) {
            ConsolePrint(k.usage);
            return false;
        }
        (c.*k.setPath)(arg);
    }
    (c.*k.setNow)(true);
    ConsolePrint(k.requested, (c.*k.getPath)());
    return true;
}
