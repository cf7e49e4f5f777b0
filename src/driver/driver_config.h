// DriverConfig: what the prevention driver enforces and where it writes.
//
// Every operation pairs a control request to the driver (the immediate half)
// with values under the driver's service key, which the driver reads when it
// starts (the durable half):
//   HKLM\System\CurrentControlSet\Services\ZELIPSDriver\Parameters
//     "Log File", "Profile File", "Filter File", "UseBuiltin", "PolicyEffectiveDt"
// and the "Start" values of the prevention driver services.
//
// Results: 0 success; a DriverResult (2, 3, 4, 5, 6, 8) for a device
// failure; 7 for a registry failure. Failing operations set the process-wide
// last error text (getErrorText). Nothing here throws.
//
// Two process-wide recursive locks: the driver lock (query, built-in, roll
// and snapshot operations) is always taken before the registry lock (every
// access to the service keys), never the other way round.
#pragma once

#include <cstdint>

#include "foundation/string.h"
#include "foundation/sync.h"

class AgentConfig;

class DriverConfig {
public:
    enum DriverConfigValue {
        LogFile = 0,
        ProfileFile = 1,
        FilterFile = 2,
        UseBuiltin = 3,
        DefaultValue = 4,
        Enable = 5,
        PolicyEffectiveDt = 6,
    };
    // Results of our own beside the DriverResult codes: a registry failure,
    // newPolicy without a policy text, and a new log file that could not be
    // created.
    static constexpr uint32_t E_AGENT_REGISTRY = 7;
    static constexpr uint32_t E_NO_POLICY = 3;
    static constexpr uint32_t E_NEW_FILE = 4;

    static const char16_t* const kParametersKey;

    // The agent configuration is consulted by newPolicy when the driver is
    // absent; null means the process's instance.
    explicit DriverConfig(AgentConfig* config = nullptr);

    uint32_t updateDriverConfig(int index, const STRING& value);
    uint32_t getDriverConfig(int index, STRING& value);
    STRING getLogFile();
    STRING getProfileFile();
    STRING getFilterFile();

    uint32_t useBuiltIn(uint32_t flag);
    bool usingBuiltIn();
    bool queryPolicy(STRING& name, STRING& version, STRING& id);
    // Loads a new policy; an empty text is "no policy" (E_NO_POLICY).
    uint32_t newPolicy(const STRING& policy);

    uint32_t rollDriverLog(const STRING& newFile);
    uint32_t rollProfileLog(const STRING& newFile);

    uint64_t getPolApplicationDate();
    uint32_t setPolApplicationDate(uint64_t ms);

    uint32_t psetsnapshot(void* buffer, uint32_t length);
    uint32_t processdump(void* buffer, uint32_t length);

    uint32_t enablePrevention();
    uint32_t disablePrevention();

    static STRING getErrorText();
    static void setErrorText(const STRING& text);
    // The value name of a parameter index (empty for the default value and unknown indexes).
    static STRING valueName(int index);

    // Whether the system is Windows Vista or later (the Linux build counts as later).
    static bool vistaOrLater();

    static RecursiveMutex& driverLock();
    static RecursiveMutex& registryLock();

private:
    uint32_t rollLog(int index, uint32_t code, const STRING& newFile, const char16_t* label, const char16_t* traceFmt,
                     const char16_t* error);
    uint32_t setStart(bool on);
    AgentConfig* config();

    AgentConfig* config_;
};
