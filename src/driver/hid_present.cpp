#include "driver/hid_present.h"

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "foundation/date.h"
#include "foundation/file_util.h"
#include "foundation/ids_exception.h"
#include "foundation/log.h"
#include "foundation/system_info.h"
#include "foundation/utils.h"

const char16_t* const IDSServiceImageName = u"ZELIDSService.exe";
const char16_t* const HIDPresent::CsvRolloverFile = u"configtool.ini";
const char16_t* const HIDPresent::CsvRolloverKey = u"Event Management.EventFile Force Rollover";

namespace {

const char16_t* const kEventNames[AgentSignalCount] = {
    u"AGENT_RELOADCONFIG_EVENT",
    u"AGENT_LOGCOLLECT_EVENT",
    u"AGENT_GETADRDATA_EVENT",
    u"AGENT_GETADRDATA_DELTA_EVENT",
    u"AGENT_CHECK_FOR_AGENTUPGRADE_EVENT",
};

// ZELIPS_EVENT_PREFIX: lets a test run give its events names of their own.
// On Windows only a test build reads it: the events of a build without tests
// are always the detection service's own.
STRING eventPrefix() {
#ifdef _WIN32
#ifdef ZELIPS_TEST_HOOKS
    const wchar_t* value = _wgetenv(L"ZELIPS_EVENT_PREFIX");
    return value ? STRING(value) : STRING();
#else
    return STRING();
#endif
#else
    const char* value = std::getenv("ZELIPS_EVENT_PREFIX");
    return value ? STRING::fromUtf8(value) : STRING();
#endif
}

// A marker counts whether it is a file or a folder, as a plain existence
// check on Windows sees it.
bool pathExists(const STRING& path) { return fileExists(path) || Directory::exists(path); }

}  // namespace

STRING agentEventName(unsigned index) {
    if (index >= AgentSignalCount) return STRING();
    return STRING(u"Global\\") + eventPrefix() + kEventNames[index];
}

bool isIDSRunning(const STRING& binFolder) {
    if (!hid_platform::processRunning(IDSServiceImageName)) return false;
    if (binFolder.empty()) return true;
    // The bin folder's sibling "system" holds the "commands" folder.
    const STRING sep(1, pathSeparator());
    const STRING marker = binFolder + sep + u".." + sep + u"system" + sep + u"commands" + sep + u"starting.msg";
    return !pathExists(marker);
}

bool signalAgent(unsigned index, const STRING& binFolder, bool checkRunning, STRING* errorText) {
    try {
        if (checkRunning && !isIDSRunning(binFolder)) {
            if (errorText) *errorText = u"IDS Agent not running";
            return false;
        }
        if (index >= AgentSignalCount) return false;
        const STRING name = agentEventName(index);
        try {
            hid_platform::setNamedEvent(name);
        } catch (const IDSException& e) {
            trace(u"signalAgent", u"Could not set the event %s: %s", name, e.toString());
            return false;
        }
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

HIDPresent::HIDPresent(STRING installRoot) : installRoot_(std::move(installRoot)) {}

STRING HIDPresent::installRoot() const {
    return installRoot_.empty() ? SystemInfo::getInstallRoot() : installRoot_;
}

STRING HIDPresent::binFolder() const { return joinPath(installRoot(), u"bin"); }

STRING HIDPresent::commandsFolder() const { return joinPath(joinPath(installRoot(), u"system"), u"commands"); }

bool HIDPresent::isPresent() { return isIDSRunning(binFolder()); }

STRING HIDPresent::createCommandFolder() const {
    const STRING commands = commandsFolder();
    errno = 0;
    if (!Directory::createAll(commands)) {
        throw IDSException(errno, u"HIDPresent::createCommandFolder", STRING(u"Could not create folder : ") + commands);
    }
    // Named from the clock; a name taken within the same second moves on to
    // the next count.
    long long seconds = Date::now().seconds();
    // The folder is one this call creates: a name taken by anything, a
    // link included, moves on to the next count.
    for (int attempt = 0; attempt < 1000; ++attempt, ++seconds) {
        const STRING folder = joinPath(commands, STRING::number(seconds));
        errno = 0;
        if (Directory::createNew(folder)) return folder;
        if (errno == EEXIST) continue;
        throw IDSException(errno, u"HIDPresent::createCommandFolder", STRING(u"Could not create folder : ") + folder);
    }
    throw IDSException(EEXIST, u"HIDPresent::createCommandFolder", STRING(u"No free command folder in : ") + commands);
}

void HIDPresent::writeSettingsFile(const STRING& fileName, const PropertyList& settings) {
    const STRING path = joinPath(createCommandFolder(), fileName);
    std::vector<STRING> lines;
    lines.reserve(settings.size());
    for (const auto& pair : settings) lines.push_back(Utils::pairLine(pair.first, pair.second));
    Utils::writeLines(path, lines, false, false);
    trace(u"HIDPresent::writeSettingsFile", u"Wrote %d settings to %s", static_cast<int>(settings.size()), path);
    // The file is complete before the service is woken.
    SignalIDS();
}

void HIDPresent::requestCsvRollover() { writeSettingsFile(CsvRolloverFile, {{CsvRolloverKey, u"1"}}); }

void HIDPresent::SignalIDS() {
    STRING error;
    if (signalAgent(SignalReloadConfig, binFolder(), true, &error)) return;
    trace(u"SignalIDS", u"Error while attempting to signal IDS: %s", error);
    IDS_THROW(-1, u"HIDPresent", u"Error while signalling to the HIDS Service.");
}
