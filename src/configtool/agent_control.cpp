// Agent control: policy commands, the prevention feature, tracing, log
// roll-over and forced retranslation.
#include "config/agent_config.h"
#include "configtool/agent_config_tool.h"
#include "driver/driver_config.h"
#include "driver/driver_registry.h"
#include "driver/hid_present.h"
#include "foundation/console.h"
#include "foundation/ids_exception.h"
#include "foundation/log.h"

namespace {

const char16_t* const kLabel = u"AgentConfigTool::agentControl";
// This tool's bit among the requesters of a reboot.
constexpr int kToolRebootBit = 8;

void audit(int number) { ConfigToolLog::instance().logNumbered(number, kLabel); }

}  // namespace

void AgentConfigTool::agentControl(int index) {
    switch (index) {
    case kSetPolicy: {
        DriverConfig driver(config_);
        if (driver.newPolicy(config_->getPolicyPath()) == 0) {
            config_->setUseBuiltinPolicy(false);
            STRING name, version, id;
            if (driver.queryPolicy(name, version, id)) {
                config_->setPolicyId(id);
                config_->setPolicyName(name + u" " + version);
            }
            ConfigToolLog::instance().logNumbered(10321, kLabel, config_->getPolicyName());
            ConsolePrint(u"The agent will now use the most recent applied policy \n");
        } else {
            audit(10322);
            ConsolePrint(u"Could not set policy to the most recent applied policy \n");
        }
        break;
    }
    case kResetPolicy: {
        DriverConfig driver(config_);
        driver.useBuiltIn(1);
        config_->setUseBuiltinPolicy(true);
        // The older driver reads its own key; a missing key is no failure.
        driver_registry::setString(u"SYSTEM\\CurrentControlSet\\Services\\CorvaneDriver\\Parameters", u"UseBuiltin",
                                   u"1");
        audit(10303);
        ConsolePrint(u"The agent will now use the builtin policy \n");
        break;
    }
    case kToggleIpsState:
        if (!togglePrevention()) {
            ConsolePrint(u"Failed to %s the Prevention Feature.\n",
                         config_->getIpsEnabled() ? u"disable" : u"enable");
        }
        break;
    case kTrace:
        if (config_->getAgentlogTraceMessages()) {
            config_->setAgentlogTraceMessages(false);
            audit(10311);
            ConsolePrint(u"tracing has been turned off\n");
        } else {
            config_->setAgentlogTraceMessages(true);
            audit(10310);
            ConsolePrint(u"tracing has been turned on\n");
        }
        break;
    case kRollAgent:
        config_->setAgentlogRolloverPending(true);
        audit(10305);
        ConsolePrint(u"Flagged agent log file for rollover.\n");
        break;
    case kRollCsv: {
        HIDPresent ids;
        if (ids.isPresent()) {
            try {
                ids.requestCsvRollover();
                audit(10306);
                ConsolePrint(u"The .csv log file has been flagged for roll over\n");
            } catch (const IDSException& e) {
                ConsolePrint(u"%s\n", e.message());
            }
        } else {
            audit(10309);
            ConsolePrint(u"Lumora IDS Service is not present!\n");
        }
        break;
    }
    case kRetranslate:
        config_->setAutoretransNow(true);
        audit(10312);
        ConsolePrint(u"Forced Retranslation set ON\n");
        break;
    case kView:
        view();
        break;
    default:
        break;
    }
}

// The tool asks for a reboot the first time the feature changes, and takes
// its request back when a second change undoes the first before the reboot.
void AgentConfigTool::completePreventionChange(bool nowEnabled, const char16_t* rebootLine, const char16_t* shortLine) {
    if (!config_->getConfigtoolRebootRequested()) {
        config_->setIpsRebootDone(false);
        config_->setConfigtoolRebootRequested(true);
        config_->setSourceRebootRequested(config_->getSourceRebootRequested() | kToolRebootBit);
        audit(nowEnabled ? 10320 : 10319);
        ConsolePrint(u"%s", rebootLine);
    } else {
        const int others = config_->getSourceRebootRequested() & ~kToolRebootBit;
        config_->setSourceRebootRequested(others);
        if (others == 0) config_->setIpsRebootDone(true);
        config_->setConfigtoolRebootRequested(false);
        audit(nowEnabled ? 10318 : 10317);
        ConsolePrint(u"%s", shortLine);
    }
}

bool AgentConfigTool::enablePrevention() {
    if (config_->getIpsEnabled()) {
        if (!config_->getConfigtoolRebootRequested()) {
            ConsolePrint(u"Prevention feature already enabled. No action was taken.\n");
            audit(10324);
        } else {
            audit(10320);
            ConsolePrint(u"The Prevention Feature is enabled. You must reboot to complete the change.\n");
        }
        return true;
    }
    if (DriverConfig(config_).enablePrevention() != 0) {
        audit(10316);
        ConsolePrint(u"Unable to update registry.");
        return false;
    }
    config_->setIpsEnabled(true);
    completePreventionChange(true, u"The Prevention Feature is enabled. You must reboot to complete the change.\n",
                             u"Prevention Feature enabled.\n");
    return true;
}

bool AgentConfigTool::disablePrevention() {
    if (!config_->getIpsEnabled()) {
        if (!config_->getConfigtoolRebootRequested()) {
            ConsolePrint(u"Prevention feature already disabled. No action was taken.\n");
            audit(10323);
        } else {
            audit(10319);
            ConsolePrint(u"The Prevention Feature is disabled. You must reboot to complete the change.\n");
        }
        return true;
    }
    if (DriverConfig(config_).disablePrevention() != 0) {
        audit(10315);
        ConsolePrint(u"Unable to update registry.");
        return false;
    }
    config_->setIpsEnabled(false);
    completePreventionChange(false, u"The Prevention Feature is disabled. You must reboot to complete the change.\n",
                             u"Prevention Feature disabled.\n");
    return true;
}

bool AgentConfigTool::togglePrevention() {
    const bool wasEnabled = config_->getIpsEnabled();
    DriverConfig driver(config_);
    if ((wasEnabled ? driver.disablePrevention() : driver.enablePrevention()) != 0) {
        audit(wasEnabled ? 10315 : 10316);
        ConsolePrint(u"Unable to update registry.");
        return false;
    }
    config_->setIpsEnabled(!wasEnabled);
    const char16_t* state = wasEnabled ? u"disabled" : u"enabled";
    const STRING rebootLine =
        formatString(u"The Prevention Feature is %s. You must reboot to complete the change.\n", state);
    const STRING shortLine = formatString(u"Prevention Feature %s.\n", state);
    completePreventionChange(!wasEnabled, rebootLine.c_str(), shortLine.c_str());
    return true;
}
