// zelipsconfig: the command-line configuration tool of the agent.
#include <clocale>
#include <memory>
#include <vector>

#include "config/agent_config.h"
#include "configtool/agent_config_tool.h"
#include "configtool/startup.h"

#ifdef _WIN32
int wmain(int argc, wchar_t** argv) {
    std::vector<STRING> args;
    for (int i = 0; i < argc; ++i) args.emplace_back(argv[i]);
    return runConfigTool(args);
}
#else
int main(int argc, char** argv) {
    std::vector<STRING> args;
    for (int i = 0; i < argc; ++i) args.push_back(STRING::fromUtf8(argv[i]));
    return runConfigTool(args);
}
#endif
