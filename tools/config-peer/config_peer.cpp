// A peer process for the configuration store's tests:
//   config_peer hold <lockFile> <ms>      hold the lock file exclusively (no one can open it)
//   config_peer lock <lockFile> <ms>      hold the byte-range lock as the store takes it
//   config_peer update <agent.ini> <key> <count>
//                                        set the key to 1..count, writing both files each time
// Prints "ready" once the lock is held; exits 0 on success.
#include <cstdio>
#include <string>

#include "config/agent_config.h"
#include "foundation/lock_file.h"
#include "foundation/process_role.h"
#include "testing/child_process.h"

namespace {

int usage() {
    std::fputs("usage: config_peer hold|lock <lockFile> <ms> | update <agent.ini> <key> <count>\n", stderr);
    return 2;
}

int run(const std::vector<STRING>& args) {
    if (args.size() < 4) return usage();
    const STRING& cmd = args[1];
    if ((cmd == STRING(u"hold") || cmd == STRING(u"lock")) && args.size() == 4) {
        LockFile file;
        if (cmd == STRING(u"hold")) {
            if (!file.holdExclusive(args[2])) return 1;
        } else {
            if (!file.open(args[2])) return 1;
            file.lock(10000);
        }
        std::puts("ready");
        std::fflush(stdout);
        sleepMs(args[3].toInt());
        return 0;
    }
    if (cmd == STRING(u"update") && args.size() == 5) {
        ProcessRole::set(ProcessRole::ConfigTool);
        AgentConfig config(args[2]);
        const STRING& key = args[3];
        const int count = args[4].toInt();
        for (int i = 1; i <= count; ++i) {
            config.setValue(key, STRING::number(i));
            if (!config.UpdateAllIni()) return 1;
        }
        return 0;
    }
    return usage();
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<STRING> args;
    for (int i = 0; i < argc; ++i) args.push_back(STRING::fromNarrow(argv[i]));
    try {
        return run(args);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "config_peer: %s\n", e.what());
        return 3;
    }
}
