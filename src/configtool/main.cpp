// zelipsconfig: the command-line configuration tool of the agent.
#include <clocale>
#include <csignal>
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
    // A write past the file size limit fails with EFBIG and is reported as
    // any failed write is, instead of ending the program half-way.
    std::signal(SIGXFSZ, SIG_IGN);
    std::vector<STRING> args;
    for (int i = 0; i < argc; ++i) args.push_back(STRING::fromUtf8(argv[i]));
    return runConfigTool(args);
}
#endif
