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

void audit(catalog::Message<0> message) { ConfigToolLog::instance().logNumbered(message, kLabel); }

// What differs between switching the prevention feature on and off.
struct PreventionSwitch {
    const char16_t* state;  // "enabled", "disabled"
    catalog::Message<0> already;
    catalog::Message<0> registryFailed;
    catalog::Message<0> changed;
    catalog::Message<0> changedNeedsReboot;
};
const PreventionSwitch kPreventionOn{u"enabled", catalog::IPS_ALREADY_ENABLED, catalog::IPS_ENABLE_REG_FAILED,
                                     catalog::IPS_ENABLED, catalog::IPS_ENABLED_REBOOT};
const PreventionSwitch kPreventionOff{u"disabled", catalog::IPS_ALREADY_DISABLED, catalog::IPS_DISABLE_REG_FAILED,
                                      catalog::IPS_DISABLED, catalog::IPS_DISABLED_REBOOT};

}  // namespace

void AgentConfigTool::agentControl(int index) {
    switch (index) {
    case kSetPolicy:
        setAppliedPolicy();
        break;
    case kResetPolicy:
        setBuiltInPolicy();
        break;
    case kToggleIpsState:
        if (!togglePrevention()) {
            ConsolePrint(u"Failed to %s the Prevention Feature.\n",
                         config_->getIpsEnabled() ? u"disable" : u"enable");
        }
        break;
    case kTrace:
        if (config_->getAgentlogTraceMessages()) {
            config_->setAgentlogTraceMessages(false);
            audit(catalog::TRACE_OFF);
            ConsolePrint(u"tracing has been turned off\n");
        } else {
            config_->setAgentlogTraceMessages(true);
            audit(catalog::TRACE_ON);
            ConsolePrint(u"tracing has been turned on\n");
        }
        break;
    case kRollAgent:
        config_->setAgentlogRolloverPending(true);
        audit(catalog::ROLL_AGENT_LOG);
        ConsolePrint(u"Flagged agent log file for rollover.\n");
        break;
    case kRollCsv: {
        HIDPresent ids;
        if (ids.isPresent()) {
            try {
                ids.requestCsvRollover();
                audit(catalog::ROLL_CSV_LOG);
                ConsolePrint(u"The .csv log file has been flagged for roll over\n");
            } catch (const IDSException& e) {
                ConsolePrint(u"%s\n", e.message());
            }
        } else {
            audit(catalog::IDS_NOT_PRESENT);
            ConsolePrint(u"Lumora IDS Service is not present!\n");
        }
        break;
    }
    case kRetranslate:
        config_->setAutoretransNow(true);
        audit(catalog::RETRANSLATE);
        ConsolePrint(u"Forced Retranslation set ON\n");
        break;
    case kView:
        view();
        break;
    default:
        break;
    }
}


void AgentConfigTool::setAppliedPolicy() {
    DriverConfig driver(config_);
    if (driver.newPolicy(config_->getPolicyPath()) == 0) {
        config_->setUseBuiltinPolicy(false);
        STRING name, version, id;
        if (driver.queryPolicy(name, version, id)) {
            config_->setPolicyId(id);
            config_->setPolicyName(name + u" " + version);
        }
        ConfigToolLog::instance().logNumbered(catalog::POLICY_APPLIED, kLabel, config_->getPolicyName());
        ConsolePrint(u"The agent will now use the most recent applied policy \n");
    } else {
        audit(catalog::POLICY_APPLIED_FAILED);
        ConsolePrint(u"Could not set policy to the most recent applied policy \n");
    }
}

void AgentConfigTool::setBuiltInPolicy() {
    DriverConfig driver(config_);
    driver.useBuiltIn(1);
    config_->setUseBuiltinPolicy(true);
    // The older driver reads its own key; a missing key is no failure.
    driver_registry::setString(u"SYSTEM\\CurrentControlSet\\Services\\CorvaneDriver\\Parameters", u"UseBuiltin",
                               u"1");
    audit(catalog::POLICY_BUILTIN);
    ConsolePrint(u"The agent will now use the builtin policy \n");
}

bool AgentConfigTool::enablePrevention() { return switchPrevention(true); }
bool AgentConfigTool::disablePrevention() { return switchPrevention(false); }
bool AgentConfigTool::togglePrevention() { return switchPrevention(!config_->getIpsEnabled()); }

bool AgentConfigTool::switchPrevention(bool enable) {
    const PreventionSwitch& s = enable ? kPreventionOn : kPreventionOff;
    if (config_->getIpsEnabled() == enable) {
        if (!config_->getConfigtoolRebootRequested()) {
            ConsolePrint(u"Prevention feature already %s. No action was taken.\n", s.state);
            audit(s.already);
        } else {
            audit(s.changedNeedsReboot);
            ConsolePrint(u"The Prevention Feature is %s. You must reboot to complete the change.\n", s.state);
        }
        return true;
    }
    DriverConfig driver(config_);
    if ((enable ? driver.enablePrevention() : driver.disablePrevention()) != 0) {
        audit(s.registryFailed);
        ConsolePrint(u"Unable to update registry.");
        return false;
    }
    config_->setIpsEnabled(enable);
    // The tool asks for a reboot the first time the feature changes, and
    // takes its request back when a second change undoes the first before
    // the reboot.
    if (!config_->getConfigtoolRebootRequested()) {
        config_->setIpsRebootDone(false);
        config_->setConfigtoolRebootRequested(true);
        config_->setSourceRebootRequested(config_->getSourceRebootRequested() | kToolRebootBit);
        audit(s.changedNeedsReboot);
        ConsolePrint(u"The Prevention Feature is %s. You must reboot to complete the change.\n", s.state);
    } else {
        const int others = config_->getSourceRebootRequested() & ~kToolRebootBit;
        config_->setSourceRebootRequested(others);
        if (others == 0) config_->setIpsRebootDone(true);
        config_->setConfigtoolRebootRequested(false);
        audit(s.changed);
        ConsolePrint(u"Prevention Feature %s.\n", s.state);
    }
    return true;
}
