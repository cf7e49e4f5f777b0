// The interface to the detection service ("ZELIDSService.exe").
//
// The tool never talks to the service over a pipe or socket: it leaves files
// in the agent's "commands" folder and then wakes the service through one of
// five machine-wide named events. While the file "starting.msg" exists in
// that folder the service counts as not ready, exactly as if it did not run.
//
// Event names: "Global\AGENT_..." on Windows. The Linux build uses POSIX
// named semaphores named after the event without "Global\"
// ("/AGENT_RELOADCONFIG_EVENT"); opening never creates one, setting it is one
// sem_post. The environment variable ZELIPS_EVENT_PREFIX (empty by default)
// is put in front of the event's own name on both builds
// ("Global\<prefix>AGENT_..." and "/<prefix>AGENT_..."), so that test runs
// with their own detection-service stand-in (tools/ids-sim, which reads the
// same variable) do not wake each other.
//
// Processes: the image name is the executable's file name on Windows, and on
// Linux the base name of argv[0] as read from /proc/PID/cmdline. The
// comparison ignores ASCII case, as Windows file names do.
#pragma once

#include "foundation/string.h"
#include "foundation/utils.h"

// The five signals of the detection service, by index.
enum AgentSignal : unsigned {
    SignalReloadConfig = 0,
    SignalLogCollect = 1,
    SignalGetAdrData = 2,
    SignalGetAdrDataDelta = 3,
    SignalCheckForAgentUpgrade = 4,
    AgentSignalCount = 5
};

// The image name of the detection service's process.
extern const char16_t* const IDSServiceImageName;  // "ZELIDSService.exe"

// The event of a signal as Windows names it ("Global\AGENT_RELOADCONFIG_EVENT",
// with the ZELIPS_EVENT_PREFIX text after "Global\"); empty for an index
// above 4.
STRING agentEventName(unsigned index);

// True when the detection service runs and is ready. binFolder is the agent's
// "bin" folder: when it is not empty, the marker <bin>/../system/commands/
// starting.msg must not exist. With an empty folder the process alone decides.
bool isIDSRunning(const STRING& binFolder);

// Sends one signal. With checkRunning, a service that is not running (or still
// starting) gives false and "IDS Agent not running" in *errorText (when
// given). An index above 4, an event that cannot be opened or set: false.
// Never throws.
bool signalAgent(unsigned index, const STRING& binFolder, bool checkRunning, STRING* errorText);

// The abstract interface of the detection service, as the rest of the tool
// sees it.
class HIPHIDInterface {
public:
    virtual ~HIPHIDInterface() = default;

    // True when the service runs and is ready (the -rollcsv presence test).
    virtual bool isPresent() = 0;
    // Hands a settings file to the service: writes the pairs ("name=value",
    // CR LF each, UTF-8) as <fileName> in a fresh command folder under
    // "commands", then calls SignalIDS. Throws IDSException.
    virtual void writeSettingsFile(const STRING& fileName, const PropertyList& settings) = 0;
    // Asks the service to roll its CSV event file over now: the settings file
    // "configtool.ini" with "Event Management.EventFile Force Rollover=1".
    // Throws IDSException.
    virtual void requestCsvRollover() = 0;
    // Wakes the service for the configuration and policy hand-over (signal 0).
    // Throws IDSException (operation "HIDPresent", "Error while signalling to
    // the HIDS Service.") on any failure.
    virtual void SignalIDS() = 0;
};

class HIDPresent : public HIPHIDInterface {
public:
    // installRoot: the agent's install root; empty means the registry's
    // "InstallRoot", read on every use.
    explicit HIDPresent(STRING installRoot = STRING());

    bool isPresent() override;
    void writeSettingsFile(const STRING& fileName, const PropertyList& settings) override;
    void requestCsvRollover() override;
    void SignalIDS() override;

    STRING installRoot() const;
    // <install root>/bin
    STRING binFolder() const;
    // <install root>/system/commands
    STRING commandsFolder() const;
    // Creates <commands>/<seconds>, the seconds since 1970 as a decimal
    // number; when that folder exists already the next count is taken, so
    // every hand-over gets a fresh one. Throws IDSException when the folder
    // cannot be made.
    STRING createCommandFolder() const;

    // The settings file and entry of the CSV roll-over request.
    static const char16_t* const CsvRolloverFile;   // "configtool.ini"
    static const char16_t* const CsvRolloverKey;    // "Event Management.EventFile Force Rollover"

private:
    STRING installRoot_;
};

// Platform side: hid_present_win32.cpp and hid_present_posix.cpp.
namespace hid_platform {
// True when a process with this image name runs (ASCII case ignored).
bool processRunning(const STRING& imageName);
// Opens the event named as Windows names it ("Global\..."), sets it once and
// closes it. Throws IDSException with the system error when the event cannot
// be opened or set.
void setNamedEvent(const STRING& name);
}  // namespace hid_platform
