#include "configtool/startup.h"

#include <clocale>
#include <memory>

#include "comm/agent_comm.h"
#include "config/agent_config.h"
#include "configtool/agent_config_tool.h"
#include "driver/driver_config.h"
#include "foundation/console.h"
#include "foundation/ids_exception.h"
#include "foundation/message_catalog.h"
#include "foundation/process_role.h"
#include "foundation/system_info.h"

int runConfigTool(const std::vector<STRING>& argv) {
#ifdef _WIN32
    std::setlocale(LC_CTYPE, "");
#endif
    // Linux: only libcurl depends on the character type locale; the loader
    // of libcurl sets it (curl_api_posix.cpp), so runs that talk to no
    // server skip the locale files.
    // Most runs write no catalog message: the catalog is read on first use.
    loadMessageCatalogOnFirstUse();
    AgentType::record(SystemInfo::getAgentType().value_or(0));
    ProcessRole::set(ProcessRole::ConfigTool);

    int status = 0;
    {
        AgentConfigTool tool;
        std::unique_ptr<AgentComm> comm;
        if (AgentType::isServerManaged()) {
            AgentConfig* config = AgentConfig::instance();
            DriverAccess driver;
            driver.usingBuiltIn = [config] { return DriverConfig(config).usingBuiltIn(); };
            driver.queryPolicy = [config](STRING& name, STRING& path, STRING& id) {
                return DriverConfig(config).queryPolicy(name, path, id);
            };
            comm = createAgentComm(config, std::move(driver));
        }
        tool.setComm(comm.get());
        tool.printBanner();
        try {
            if (argv.size() > 1) status = tool.dispatch(argv);
            else tool.printUsage();
        } catch (const IDSException& e) {
            // A failure no command handles (a non-numeric -state code, a
            // malformed driver record) ends the run at once: nothing is
            // written.
            ConsolePrint(u"%s\n", e.toString());
            status = 3;
        }
    }
    AgentConfig::releaseInstance();
    return status;
}
