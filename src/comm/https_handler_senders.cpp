// The message senders of HttpsHandler: each builds one request, sends it,
// runs the status check and reads what the reply brought.
#include <exception>

#include "comm/https_handler.h"
#include "config/agent_config.h"
#include "foundation/date.h"
#include "foundation/ids_exception.h"
#include "foundation/log.h"
#include "foundation/system_info.h"

namespace {

constexpr char16_t kUpdateLabel[] = u"HttpsHandler::sendUpdateMessage";
constexpr char16_t kConfigLabel[] = u"HttpsHandler::getConfiguration";
constexpr char16_t kPolicyLabel[] = u"HttpsHandler::getPolicy";
constexpr char16_t kSoftwareLabel[] = u"HttpsHandler::getSoftware";
constexpr char16_t kContentLabel[] = u"HttpsHandler::getCompUpdate";
constexpr char16_t kLogLabel[] = u"HttpsHandler::sendLogMessage";
constexpr char16_t kResultLabel[] = u"HttpsHandler::sendUpdateResult";
constexpr char16_t kStatusLabel[] = u"HttpsHandler::sendAgentStatusMessage";
constexpr char16_t kPolicyStateLabel[] = u"HttpsHandler::sendPolicyStateMessage";
constexpr char16_t kAppDataLabel[] = u"HttpsHandler::sendApplicationData";

struct PollInfo {
    const char16_t* flag;
    const char16_t* logText;
};

PollInfo pollInfo(HttpsHandler::UpdatePoll which) {
    using P = HttpsHandler::UpdatePoll;
    switch (which) {
    case P::Configuration: return {protocol::kUpdateConfiguration, u"Sending Config Update Message"};
    case P::Policy: return {protocol::kUpdatePolicy, u"Sending Policy Update Message"};
    case P::Software: return {protocol::kUpdateSoftware, u"Sending Software Update Message"};
    case P::PolicyIds: return {protocol::kUpdatePolicyIds, u"Sending HIDS Policy Update Message"};
    case P::ConfigurationIds: return {protocol::kUpdateConfigurationIds, u"Sending HIDS Config Update Message"};
    case P::AvStopScan: return {protocol::kAvStopScan, u"Sending AV Stop scan update message"};
    case P::AvStartScan: return {protocol::kAvStartScan, u"Sending AV Start scan update message"};
    }
    return {protocol::kUpdateConfiguration, u"Sending Config Update Message"};
}

const char16_t* contentFlag(HttpsHandler::ContentUpdate which) {
    using C = HttpsHandler::ContentUpdate;
    switch (which) {
    case C::Qel: return protocol::kUpdateQel;
    case C::VeltriumRevocation: return protocol::kUpdateVeltriumRevocation;
    case C::VeltriumSettings: return protocol::kUpdateVeltriumSettings;
    case C::VeltriumTesvt: return protocol::kUpdateVeltriumTesvt;
    }
    return protocol::kUpdateQel;
}

std::vector<NameValuePair> toPairs(const PropertyList& list) {
    std::vector<NameValuePair> out;
    out.reserve(list.size());
    for (const auto& p : list) out.emplace_back(p.first, p.second);
    return out;
}

// A pair the server handed to the agent earlier, kept under "[Other]".
STRING otherValue(AgentConfig& config, const char16_t* name) {
    for (const auto& p : config.getOtherPairs())
        if (p.first == STRING(name)) return p.second;
    return STRING();
}

// The applied policy, as the result messages report it.
PropertyList appliedPolicy(AgentConfig& config) {
    return {
        {protocol::kRidApplied, otherValue(config, protocol::kRidApplied)},
        {protocol::kRidGroup, otherValue(config, protocol::kRidGroup)},
        {protocol::kPolicyName, config.getUseBuiltinPolicy() ? STRING(u"builtin") : config.getPolicyName()},
        {protocol::kPolicyPath, config.getPolicyPath()},
    };
}

// The DNS domain of the host: its DNS name after the first dot.
STRING domainName(const SystemInfo& info) {
    try {
        const STRING name = info.getComputerName();
        const size_t dot = name.find(u'.');
        return dot == STRING::npos ? STRING() : name.substr(dot + 1);
    } catch (const IDSException&) {
        return STRING();
    }
}

// The first properties section of the reply, or nullptr.
const MessageSection* firstProperties(const ServerResponse& response) {
    for (size_t i = 0; i < response.sectionCount(); ++i)
        if (response.section(i).type() == STRING(protocol::kTypeProperties)) return &response.section(i);
    return nullptr;
}

}  // namespace

int HttpsHandler::sendProperties(MessageKind kind, const PropertyList& pairs) {
    HttpsMessageGenerator request(config_);
    request.addProperties(toPairs(pairs));
    return statusCheck(send(kind, request));
}

int HttpsHandler::sendUpdatePoll(UpdatePoll which) {
    const PollInfo info = pollInfo(which);
    trace(kUpdateLabel, info.logText);
    return sendProperties(MessageKind::Update, {{info.flag, protocol::kTrue}});
}

int HttpsHandler::getConfiguration(PropertyList& pairs, bool& changed) {
    changed = false;
    const int rc = sendUpdatePoll(UpdatePoll::Configuration);
    if (rc != 0) return rc;
    const MessageSection* s = firstProperties(response_);
    const STRING* flag = s ? s->findValue(protocol::kUpdateConfiguration) : nullptr;
    if (flag == nullptr || *flag != STRING(protocol::kTrue)) {
        trace(kConfigLabel, u"No Configuration change received");
        return rc;
    }
    pairs.clear();
    for (const NameValuePair& p : s->pairs()) pairs.emplace_back(p.name, p.value);
    const STRING* modTime = s->findValue(protocol::kUpdateConfigModTime);
    const STRING* rid = s->findValue(protocol::kRidApplied);
    trace(kConfigLabel, u"Mod Time %s %s", protocol::kUpdateConfigModTime, modTime ? *modTime : STRING());
    trace(kConfigLabel, u"Applied RID %s %s", protocol::kRidApplied, rid ? *rid : STRING());
    changed = true;
    return rc;
}

int HttpsHandler::getPolicy(bool ids, ByteArray& policy, bool& received) {
    received = false;
    const int rc = sendUpdatePoll(ids ? UpdatePoll::PolicyIds : UpdatePoll::Policy);
    if (rc != 0) return rc;
    const ByteArray* bytes = response_.findBinaryByFlag(ids ? protocol::kUpdatePolicyIds : protocol::kUpdatePolicy);
    if (bytes == nullptr) {
        trace(kPolicyLabel, u"No Policy Update");
        return rc;
    }
    policy = *bytes;
    received = true;
    trace(kPolicyLabel, u"Policy size in zip %d", static_cast<unsigned long long>(policy.length()));
    return rc;
}

int HttpsHandler::getSoftware(ByteArray& package, bool& received) {
    received = false;
    const int rc = sendUpdatePoll(UpdatePoll::Software);
    if (rc != 0) return rc;
    const ByteArray* bytes = response_.findBinaryByFlag(protocol::kUpdateSoftware);
    if (bytes == nullptr) {
        trace(kSoftwareLabel, u"No Software Update");
        return rc;
    }
    package = *bytes;
    received = true;
    return rc;
}

int HttpsHandler::getCompUpdate(ContentUpdate which, ByteArray& content, bool& received) {
    received = false;
    const char16_t* flag = contentFlag(which);
    const int rc = sendProperties(MessageKind::Update, {{flag, protocol::kTrue}});
    if (rc != 0) return rc;
    const ByteArray* bytes = response_.findBinaryByFlag(flag);
    if (bytes == nullptr) {
        trace(kContentLabel, u"No Updraft data from Server");
    } else if (bytes->length() == 0) {
        trace(kContentLabel, u"Updraft content from sever is empty.");
    } else {
        trace(kContentLabel, u"Updraft binary data received.");
        content = *bytes;
        received = true;
    }
    return rc;
}

int HttpsHandler::sendSingleLog(const PropertyList& record) {
    trace(kLogLabel, u"Sending Single Log Message");
    return sendProperties(MessageKind::Log, record);
}

int HttpsHandler::sendMultipleLogs(const std::vector<PropertyList>& records) {
    trace(kLogLabel, u"Sending Multiple Log Messages");
    HttpsMessageGenerator request(config_);
    for (const PropertyList& r : records) request.addProperties(toPairs(r));
    return statusCheck(send(MessageKind::Log, request));
}

int HttpsHandler::sendUpdateResult(const STRING& type, int errorCode, const STRING& errorMessage,
                                   const PropertyList& extra) {
    trace(kResultLabel, u"Sending Update Result Message, Type = %s", type);
    PropertyList pairs = {
        {protocol::kResultType, type},
        {protocol::kResultErrorCode, STRING::number(errorCode)},
        {protocol::kResultErrorMessage, errorMessage},
    };
    for (const auto& p : extra) {
        trace(kResultLabel, u"NameValuePair %s %s", p.first, p.second);
        pairs.push_back(p);
    }
    return sendProperties(MessageKind::Result, pairs);
}

int HttpsHandler::sendAgentStatus(int status, const STRING& statusText) {
    trace(kStatusLabel, u"::sendAgentStatusMessage -- Status=%d %s", status, statusText);
    const SystemInfo info;
    PropertyList pairs = appliedPolicy(config_);
    pairs.emplace_back(u"agent.timezone", Date::now().formatLocal("%z"));
    pairs.emplace_back(u"agent.domain.name", domainName(info));
    pairs.emplace_back(u"agent.osversion", info.getOSVersion());
    return sendProperties(MessageKind::Result, pairs);
}

int HttpsHandler::sendPolicyState() {
    trace(kPolicyStateLabel, u"::sendPolicyStateMessage -- Error:=%d %s", config_.getPolicyStateErrorCode(),
          config_.getPolicyStateErrorString());
    return sendProperties(MessageKind::Result, appliedPolicy(config_));
}

int HttpsHandler::sendApplicationData(const STRING& requestId, const STRING& data, bool moreData) {
    trace(kAppDataLabel, u"Sending Application Data");
    HttpsMessageGenerator request(config_);
    request.addProperties(toPairs({
        {protocol::kResultType, protocol::kAppData},
        {protocol::kApplicationRequestId, requestId},
        {protocol::kApplicationRequestComplete, moreData ? protocol::kFalse : protocol::kTrue},
    }));
    if (data.empty()) {
        trace(kAppDataLabel, u"Sending no ADR data. Only properties.");
    } else {
        const std::string bytes = data.toUtf8();
        request.addBinary(protocol::kTypeZipData,
                          ByteArray(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
    }
    const int rc = statusCheck(send(MessageKind::ApplicationData, request));
    trace(kAppDataLabel, u"Sent Application Data with return code : %d", rc);
    return rc;
}

int HttpsHandler::sendBulkLog(const STRING& path) {
    HttpsMessageGenerator request(config_);
    request.setFilePath(path);
    return statusCheck(send(MessageKind::BulkLog, request));
}
