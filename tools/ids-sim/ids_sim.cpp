// A stand-in for the agent's detection service, for the tests of the tool's
// detection-service interface.
//
//   ids_sim --record FILE [--commands DIR] [--stop-file FILE]
//           [--time-limit-ms N] [--event-prefix TEXT]
//
// It creates the service's five events (Windows: "Global\<prefix>AGENT_...";
// Linux: POSIX named semaphores "/<prefix>AGENT_..."), where the prefix is
// --event-prefix or else the environment variable ZELIPS_EVENT_PREFIX, the
// same variable the tool reads. Then it appends "ready" to the record file
// and, for every event that is set, one line
//
//   AGENT_RELOADCONFIG_EVENT 1712345678/configtool.ini:47,other:3
//
// the event's name without the prefix, then what the commands folder held at
// that moment: every file below it as a path relative to it ('/' separated)
// and its size in bytes, in name order, or "-" when there was none.
//
// It ends when the stop file appears, on SIGTERM/SIGINT (Linux), or after
// the time limit (default 60 s), and removes its events. Exit status: 0,
// 1 when the events could not be made, 2 for a usage error.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include "ids_sim.h"

namespace fs = std::filesystem;

namespace {

const char* const kEvents[] = {
    "AGENT_RELOADCONFIG_EVENT",       "AGENT_LOGCOLLECT_EVENT",
    "AGENT_GETADRDATA_EVENT",         "AGENT_GETADRDATA_DELTA_EVENT",
    "AGENT_CHECK_FOR_AGENTUPGRADE_EVENT",
};

struct Options {
    fs::path record;
    fs::path commands;
    fs::path stopFile;
    long long timeLimitMs = 60000;
    std::string prefix;
};

int usage() {
    std::fputs("usage: ids_sim --record FILE [--commands DIR] [--stop-file FILE] [--time-limit-ms N] "
               "[--event-prefix TEXT]\n",
               stderr);
    return 2;
}

bool parse(int argc, char** argv, Options& o) {
    if (const char* env = std::getenv("ZELIPS_EVENT_PREFIX")) o.prefix = env;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) return false;
        const std::string value = argv[++i];
        if (arg == "--record") o.record = fs::u8path(value);
        else if (arg == "--commands") o.commands = fs::u8path(value);
        else if (arg == "--stop-file") o.stopFile = fs::u8path(value);
        else if (arg == "--time-limit-ms") o.timeLimitMs = std::atoll(value.c_str());
        else if (arg == "--event-prefix") o.prefix = value;
        else return false;
    }
    return !o.record.empty() && o.timeLimitMs > 0;
}

// The files below the commands folder with their sizes.
std::string listing(const fs::path& commands) {
    std::error_code ec;
    if (commands.empty() || !fs::is_directory(commands, ec)) return "-";
    std::vector<std::string> entries;
    for (fs::recursive_directory_iterator it(commands, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code fileEc;
        if (!it->is_regular_file(fileEc)) continue;
        const auto size = fs::file_size(it->path(), fileEc);
        entries.push_back(fs::relative(it->path(), commands, fileEc).generic_u8string() + ":" +
                          std::to_string(fileEc ? 0 : size));
    }
    if (entries.empty()) return "-";
    std::sort(entries.begin(), entries.end());
    std::string out;
    for (const auto& e : entries) out += (out.empty() ? "" : ",") + e;
    return out;
}

void appendRecord(const fs::path& record, const std::string& line) {
    std::ofstream out(record, std::ios::app | std::ios::binary);
    out << line << '\n';
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) return usage();

    std::vector<std::string> names;
    for (const char* e : kEvents) names.push_back(options.prefix + e);
    installStopHandlers();
    ServiceEvents events;
    std::string error;
    if (!events.create(names, error)) {
        std::fprintf(stderr, "ids_sim: %s\n", error.c_str());
        return 1;
    }
    appendRecord(options.record, "ready");

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(options.timeLimitMs);
    std::error_code ec;
    while (std::chrono::steady_clock::now() < deadline && !stopRequested()) {
        if (!options.stopFile.empty() && fs::exists(options.stopFile, ec)) break;
        const int index = events.wait(20);
        if (index >= 0) appendRecord(options.record, std::string(kEvents[index]) + " " + listing(options.commands));
    }
    events.destroy();
    return 0;
}
