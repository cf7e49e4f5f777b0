// The driver's diagnostic listings: -pset, -process and -localwhitelist.
#include "configtool/agent_config_tool.h"
#include "driver/driver_channel.h"
#include "driver/driver_config.h"
#include "foundation/console.h"

namespace {

// A name as listed: "None" when the driver sent none (a name it sent is
// printed as it is, even when empty), a process image from the character
// after its last backslash.
STRING shown(const DriverName& name, bool baseName) {
    if (!name) return u"None";
    if (!baseName) return *name;
    const size_t cut = name->rfind(u'\\');
    return cut == STRING::npos ? *name : name->substr(cut + 1);
}

}  // namespace

void AgentConfigTool::psetSnapshot() {
    DriverConfig driver(config_);
    const auto snapshot = getPsetSnapshot([&driver](void* buffer, uint32_t length) {
        return static_cast<DriverResult>(driver.psetsnapshot(buffer, length));
    });
    if (!snapshot) {
        ConsolePrint(u"AgentConfigTool::DoPsetSnapshot: Error return from Driver.\n");
        return;
    }
    ConsolePrint(u"Pset snapshot returned %d PSETs", snapshot->count());
    ConsolePrint(u"\nPID\tProcess Name\tPSET\n");
    // A malformed record (a name longer than its field) throws a range
    // check error, which ends the run: nothing after it is done.
    snapshot->forEachEntry([](const PsetEntry& e) {
        ConsolePrint(u"%4d %s %s\n", e.processId, shown(e.processName, true), shown(e.psetName, false));
        for (const auto& child : e.children) {
            ConsolePrint(u"\t----- %s %s\n", shown(child.name, true), shown(child.psetName, false));
        }
    });
}

void AgentConfigTool::processDump() {
    DriverConfig driver(config_);
    const auto dump = getProcessDriverDump([&driver](void* buffer, uint32_t length) {
        return static_cast<DriverResult>(driver.processdump(buffer, length));
    });
    if (!dump) {
        ConsolePrint(u"\nAgentConfigTool::DoProcessDump: Error return from Driver.");
        return;
    }
    ConsolePrint(u"\nProcess snapshot returned %d PSETs\n", dump->count());
    ConsolePrint(u"\nTerminated,PID,Process Name,PSET,Parent PID,Parent Name\n");
    // As for the snapshot, a malformed record ends the run.
    for (uint32_t i = 0; i < dump->count(); ++i) {
        const ProcessEntry e = dump->entry(i);
        ConsolePrint(u"%d,%4d,%s,%s,", e.terminated, e.processId, shown(e.processName, true),
                     shown(e.psetName, false));
        ConsolePrint(u"%4d,%s\n", e.parentProcessId, shown(e.parentName, true));
    }
}

void AgentConfigTool::localWhitelist() {
    LocalWhitelist table;
    if (!getLocalWhitelist(table)) {
        ConsolePrint(u"AgentConfigTool::DoLocalWhiteList\t: Error return from Driver.\n");
        return;
    }
    ConsolePrint(u"\nLocal whitelist returned %d files\n\n", table.size());
    if (!table.empty()) {
        ConsolePrint(u"%-90s%-20s%-40s\n", u"File Path", u"Type", u"Timestamp");
        for (const auto& entry : table) {
            ConsolePrint(u"%-90s%-20s%-40s\n", entry.first, whitelistTypeName(entry.second.type),
                         entry.second.timestamp);
        }
    }
    ConsolePrint(u"---------------------------------------------------------------------------\n");
}
