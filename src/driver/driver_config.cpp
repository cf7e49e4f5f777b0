#include "driver/driver_config.h"

#include <chrono>
#include <cstdio>
#include <mutex>
#include <vector>

#include "config/agent_config.h"
#include "driver/driver_channel.h"
#include "driver/driver_registry.h"
#include "foundation/file_util.h"
#include "foundation/log.h"
#include "foundation/system_info.h"

namespace {

std::mutex g_errorMutex;
STRING& errorText() {
    static STRING text;
    return text;
}

// Whole seconds since 1970-01-01 UTC, times 1000.
uint64_t nowMs() {
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<seconds>(system_clock::now().time_since_epoch()).count()) * 1000u;
}

struct ServiceStart {
    const char16_t* key;
    uint32_t on;
    uint32_t off;
};
// The first path is spelled as the driver's installer spells it.
const ServiceStart kDriverService = {u"System\\CurrentControlset\\Services\\ZELIPSDriver", 1, 3};
const ServiceStart kNetFilter = {u"System\\CurrentControlSet\\Services\\ZELIPSNetFilter", 2, 3};
const ServiceStart kTcpFilter = {u"System\\CurrentControlSet\\Services\\AZELIPSTcpFilter", 1, 3};

}  // namespace

const char16_t* const DriverConfig::kParametersKey = u"System\\CurrentControlSet\\Services\\ZELIPSDriver\\Parameters";

DriverConfig::DriverConfig(AgentConfig* config) : config_(config) {}

AgentConfig* DriverConfig::config() {
    if (config_ == nullptr) config_ = AgentConfig::instance();
    return config_;
}

RecursiveMutex& DriverConfig::driverLock() {
    static RecursiveMutex m;
    return m;
}

RecursiveMutex& DriverConfig::registryLock() {
    static RecursiveMutex m;
    return m;
}

STRING DriverConfig::getErrorText() {
    std::lock_guard<std::mutex> g(g_errorMutex);
    return errorText();
}

void DriverConfig::setErrorText(const STRING& text) {
    std::lock_guard<std::mutex> g(g_errorMutex);
    errorText() = text;
}

STRING DriverConfig::valueName(int index) {
    switch (index) {
    case LogFile: return u"Log File";
    case ProfileFile: return u"Profile File";
    case FilterFile: return u"Filter File";
    case UseBuiltin: return u"UseBuiltin";
    case Enable: return u"Enable";
    case PolicyEffectiveDt: return u"PolicyEffectiveDt";
    default: return STRING();
    }
}

bool DriverConfig::vistaOrLater() {
#ifdef _WIN32
    const STRING version = SystemInfo().getOSVersion();
    return version.toIntLenient() >= 6;
#else
    return true;
#endif
}

// ---- Parameters

uint32_t DriverConfig::updateDriverConfig(int index, const STRING& value) {
    Synchronized lock(registryLock());
    const STRING name = valueName(index);
    if (driver_registry::setString(kParametersKey, name, value) != 0) {
        setErrorText(STRING(u"Failed to set Driver Configuration Registry Value ") + name + u":" + value);
        return E_AGENT_REGISTRY;
    }
    return 0;
}

uint32_t DriverConfig::getDriverConfig(int index, STRING& value) {
    Synchronized lock(registryLock());
    const STRING name = valueName(index);
    if (driver_registry::getString(kParametersKey, name, value) != 0) {
        setErrorText(STRING(u"Failed to get Driver Configuration Registry Value ") + name);
        return E_AGENT_REGISTRY;
    }
    return 0;
}

namespace {
STRING getOrEmpty(DriverConfig& d, int index) {
    STRING value;
    if (d.getDriverConfig(index, value) != 0) {
        DriverConfig::setErrorText(u"Failed to get info on Profile Log");
        return STRING();
    }
    return value;
}
}  // namespace

STRING DriverConfig::getLogFile() { return getOrEmpty(*this, LogFile); }
STRING DriverConfig::getProfileFile() { return getOrEmpty(*this, ProfileFile); }
STRING DriverConfig::getFilterFile() { return getOrEmpty(*this, FilterFile); }

// ---- Policy

uint32_t DriverConfig::useBuiltIn(uint32_t flag) {
    Synchronized lock(driverLock());
    trace(u"DriverConfig::useBuiltIn()", u"Setting builtin policy.");
    uint32_t input = flag;
    const uint32_t device = static_cast<uint32_t>(NotifyDriver(IOCTL_ZELIPS_USE_BUILTIN, &input, sizeof input,
                                                               driver_timeout::UseBuiltin));
    // The registry always receives "1", whatever the flag.
    const uint32_t registry = updateDriverConfig(UseBuiltin, u"1");
    if (device == 0 && registry == 0) {
        setPolApplicationDate(nowMs());
        return 0;
    }
    setErrorText(u"Failed to tell Driver to use Builtin Policy");
    return registry != 0 ? registry : device;
}

bool DriverConfig::usingBuiltIn() {
    static const char16_t* const kLabel = u"DriverConfig::usingBuiltIn()";
    Synchronized lock(driverLock());
    trace(kLabel, u"Querying policy.");
    PolicyInfoRecord info{};
    if (NotifyDriver(IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, driver_timeout::QueryPolicy) != 0) {
        setErrorText(u"Failed to get info on Builtin Policy");
        return false;
    }
    trace(kLabel, u"Builtin: %d", info.builtin);
    trace(kLabel, u"Name: %ls", driverFieldText(info.name));
    trace(kLabel, u"Version: %ls", driverFieldText(info.version));
    trace(kLabel, u"ID = %ls", driverFieldText(info.id));
    return info.builtin != 0;
}

bool DriverConfig::queryPolicy(STRING& name, STRING& version, STRING& id) {
    Synchronized lock(driverLock());
    trace(u"DriverConfig::queryPolicy()", u"Querying policy.");
    PolicyInfoRecord info{};
    if (NotifyDriver(IOCTL_ZELIPS_QUERY_POLICY, &info, sizeof info, driver_timeout::QueryPolicy) != 0) {
        setErrorText(u"Failed to get info on applied Policy");
        return false;
    }
    name = driverFieldText(info.name);
    version = driverFieldText(info.version);
    id = driverFieldText(info.id);
    static const char16_t* const kLabel = u"DriverConfig::queryPolicy";
    trace(kLabel, u"Builtin = %d", info.builtin);
    trace(kLabel, u"Name = %s", name);
    trace(kLabel, u"Version = %s", version);
    trace(kLabel, u"ID = %s", id);
    return true;
}

namespace {
// The new-policy request: the policy text as UTF-16 with its terminating NUL.
uint32_t sendPolicy(const STRING& policy) {
    std::vector<char16_t> text(policy.str().begin(), policy.str().end());
    text.push_back(0);
    return static_cast<uint32_t>(NotifyDriver(IOCTL_ZELIPS_NEW_POLICY, text.data(),
                                              static_cast<uint32_t>(text.size() * sizeof(char16_t)),
                                              driver_timeout::NewPolicy));
}
}  // namespace

uint32_t DriverConfig::newPolicy(const STRING& policy) {
    static const char16_t* const kLabel = u"DriverConfig::newPolicy()";
    const uint64_t when = nowMs();
    trace(kLabel, u"ChangePolicy: minus=%s", policy);
    const STRING oldPolicy = getFilterFile();
    uint32_t result = 0;
    STRING explanation;  // the driver's reason for a rejection, when it gave one
    bool explained = false;

    if (policy.empty()) {
        result = E_NO_POLICY;
    } else {
        const bool wasBuiltin = usingBuiltIn();
        const uint32_t cleared = updateDriverConfig(UseBuiltin, u"0");
        if (cleared != 0) {
            trace(u"newPolicy", u"Error ret from updateDriverConfig 1");
            return cleared;
        }
        const uint32_t device = sendPolicy(policy);
        if (device == 0) {
            result = updateDriverConfig(FilterFile, policy);
            if (result != 0) {
                // The registry would load another policy at the next start
                // than the driver runs now: put the driver back on the old one.
                trace(u"newPolicy", u"Error ret from updateDriverConfig 2");
                trace(u"newPolicy", u"Reverting to old policy");
                if (sendPolicy(oldPolicy) != 0) trace(u"newPolicy", u"Driver failed  to load the old policy");
            }
            // The error to report is the one of the "Filter File" write.
            const STRING writeError = getErrorText();
            setPolApplicationDate(when);
            if (result != 0) setErrorText(writeError);
        } else if (device == static_cast<uint32_t>(driver_result::NotOpened)) {
            AgentConfig* c = config();
            if (c != nullptr && c->getIpsEnabled() && c->getIpsRebootRequired()) {
                // The driver is not expected before the reboot: the registry
                // carries the policy until then.
                result = updateDriverConfig(FilterFile, policy);
                trace(u"newPolicy", u"Applied the new policy. Unable to open the driver");
                setPolApplicationDate(when);
            } else {
                trace(u"newPolicy", u"Applying new policy failed. Unable to open the driver");
                result = static_cast<uint32_t>(driver_result::NotOpened);
            }
        } else {
            if (device == static_cast<uint32_t>(driver_result::Failed)) {
                PolicyErrorRecord why{};
                if (NotifyDriver(IOCTL_ZELIPS_POLICY_ERROR, &why, sizeof why, driver_timeout::PolicyError) == 0) {
                    explanation = driverFieldText(why.description);
                    explained = true;
                }
            }
            trace(u"newPolicy", u"Applying policy failed.");
            if (wasBuiltin) {
                trace(u"newPolicy", u"Restoring buitlin flag: %d", 1);
                const uint32_t restored = updateDriverConfig(UseBuiltin, u"1");
                if (restored != 0) trace(u"newPolicy", u"Failed to restore builtin flag! [%d]", restored);
            }
            result = device;
        }
    }

    if (result == 0) return 0;
    if (result == static_cast<uint32_t>(driver_result::NotOpened)) {
        setErrorText(u"IPS Driver is not loaded. Failed to apply translated policy");
    } else if (result == E_AGENT_REGISTRY) {
        trace(u"newPolicy", u"E_AGENT_REGISTRY ret from updateDriverConfig");
    } else {
        setErrorText(u"Driver failed to load new policy");
    }
    if (explained) setErrorText(getErrorText() + u": " + explanation);
    return result;
}

// ---- Logs

uint32_t DriverConfig::rollLog(int index, uint32_t code, const STRING& newFile, const char16_t* label,
                               const char16_t* traceFmt, const char16_t* error) {
    Synchronized lock(driverLock());
    trace(label, traceFmt, newFile);
    bool created = false;
    uint32_t result = 0;
    STRING oldFile;
    do {
        result = getDriverConfig(index, oldFile);
        if (result != 0) break;
        FILE* fp = openForWriting(newFile, WriteMode::Truncate);
        if (fp == nullptr) {
            result = E_NEW_FILE;
            break;
        }
        std::fclose(fp);
        created = true;
        result = updateDriverConfig(index, newFile);
        if (result != 0) break;
        result = static_cast<uint32_t>(NotifyDriver(code, nullptr, 0, driver_timeout::RollDriverLog));
        if (result == 0) return 0;
        updateDriverConfig(index, oldFile);
    } while (false);
    setErrorText(error);
    // Only a file this operation created is removed: an existing file that
    // happened to be named is never deleted.
    if (created) removeFile(newFile);
    return result;
}

uint32_t DriverConfig::rollDriverLog(const STRING& newFile) {
    return rollLog(LogFile, IOCTL_ZELIPS_ROLL_DRIVER_LOG, newFile, u"DriverConfig::rollDriverLog",
                   u"StartNewDriverFile: log=%s", u"Failed to tell Driver to use new log file");
}

uint32_t DriverConfig::rollProfileLog(const STRING& newFile) {
    return rollLog(ProfileFile, IOCTL_ZELIPS_ROLL_PROFILE_LOG, newFile, u"DriverConfig::rollProfileLog",
                   u"StartNewProfileFile: profile=%s", u"Failed to tell Driver to use new profile log");
}

// ---- Policy date

uint32_t DriverConfig::setPolApplicationDate(uint64_t ms) {
    const std::string narrow = std::to_string(ms);
    const STRING wide = STRING::fromUtf8(narrow);
    trace(u"DriverConfig::setPolApplicationDate()", u"Policy date = %llu, %s, %S", ms, narrow, wide);
    return updateDriverConfig(PolicyEffectiveDt, wide);
}

uint64_t DriverConfig::getPolApplicationDate() {
    STRING text;
    if (getDriverConfig(PolicyEffectiveDt, text) != 0) return 0;
    trace(u"DriverConfig::getPolApplicationDate()", u"Policy date = %s", text);
    uint64_t value = 0;
    for (char16_t c : text.str()) {
        if (c < u'0' || c > u'9') break;
        value = value * 10 + static_cast<uint64_t>(c - u'0');
    }
    return value;
}

// ---- Snapshots

uint32_t DriverConfig::psetsnapshot(void* buffer, uint32_t length) {
    Synchronized lock(driverLock());
    trace(u"DriverConfig::psetsnapshot()", u"Begin");
    return static_cast<uint32_t>(NotifyDriver(IOCTL_ZELIPS_PSET_SNAPSHOT, buffer, length, driver_timeout::PsetSnapshot));
}

uint32_t DriverConfig::processdump(void* buffer, uint32_t length) {
    Synchronized lock(driverLock());
    trace(u"DriverConfig::psetsnapshot()", u"Begin");
    return static_cast<uint32_t>(NotifyDriver(IOCTL_ZELIPS_PROCESS_DUMP, buffer, length, driver_timeout::ProcessDump));
}

// ---- Prevention on and off at the next boot

uint32_t DriverConfig::setStart(bool on) {
    Synchronized lock(registryLock());
    const ServiceStart& filter = vistaOrLater() ? kNetFilter : kTcpFilter;
    for (const ServiceStart* s : {&kDriverService, &filter}) {
        if (driver_registry::setDword(s->key, u"Start", on ? s->on : s->off) != 0) {
            setErrorText(STRING(u"Failed to set Driver Configuration Registry Value ") + s->key + u"\\" + u"Start");
            return E_AGENT_REGISTRY;
        }
    }
    return 0;
}

uint32_t DriverConfig::enablePrevention() { return setStart(true); }
uint32_t DriverConfig::disablePrevention() { return setStart(false); }
