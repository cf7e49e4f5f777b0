#include "comm/standard_agent_comm.h"

#include <chrono>
#include <cstdio>
#include <memory>
#include <thread>

#include "comm/protocol.h"
#include "config/agent_config.h"
#include "foundation/file_util.h"
#include "foundation/ids_exception.h"
#include "foundation/log.h"
#include "foundation/system_info.h"

namespace {

constexpr char16_t kMainThread[] = u"MainThread";

struct RetryRow {
    int code;
    const char16_t* phrase;
};

// Codes up to 60 are libcurl's; 300, 301, 400 and 600 come from the server
// ("Corvane-Error") or are HTTP statuses.
const RetryRow kRetryTable[] = {
    {5, u"couldnt resolve proxy -- retry"},
    {6, u"couldnt resolve host -- retry"},
    {7, u"couldnot connect -- retry"},
    {28, u"operation timed out -- retry"},
    {35, u"ssl connect error -- retry"},
    {45, u"http port failed -- retry"},
    {47, u"too many redirects -- retry"},
    {53, u"SSL engine not found -- retry"},
    {54, u"ssl engine failed -- retry"},
    {55, u"send error -- retry"},
    {56, u"recieve error -- retry"},
    {58, u"problem with the cert -- retry"},
    {59, u"ssl cipher error -- retry"},
    {60, u"problem with the CA cert -- retry"},
    {300, u"database error -- retry"},
    {301, u"bad policy -- retry"},
    {400, u"HTTPS Bad Request Error (caused by configuring the agent to use the console port) -- retry"},
    {600, u"unknown error -- retry"},
};

const char16_t* boolText(bool b) { return b ? u"true" : u"false"; }

const char16_t* priorityText(int p) {
    return p == AgentConfig::PriorityMin ? u"min" : p == AgentConfig::PriorityMax ? u"max" : u"norm";
}

const char16_t* rolloverText(int c) {
    return c == AgentConfig::RolloverSize ? u"size" : c == AgentConfig::RolloverDate ? u"date" : u"none";
}

std::vector<NameValuePair> toPairs(const PropertyList& list) {
    std::vector<NameValuePair> out;
    for (const auto& p : list) out.emplace_back(p.first, p.second);
    return out;
}

// What the agent tells the server about itself when it registers.
PropertyList registrationAttributes(AgentConfig& config) {
    const SystemInfo info;
    STRING hostName;
    try {
        hostName = info.getComputerName();
    } catch (const IDSException&) {
        hostName = info.getShortComputerName();
    }
    return {
        {u"agent.name", config.getAgentName()},
        {u"agent.hostname", hostName},
        {u"agent.version", config.getCorvaneVersion()},
        {u"agent.initial.group", config.getAgentInitialGroup()},
        {u"agent.config.initial.group", config.getAgentConfigInitialGroup()},
        {u"config.initial.group", config.getConfigInitialGroup()},
        {u"ids.policy.initial.group", config.getIdsPolicyInitialGroup()},
        {u"ids.config.initial.group", config.getIdsConfigInitialGroup()},
        {u"agent.ostype", info.getOSType()},
        {u"agent.osversion", info.getOSVersion()},
        {u"agent.osdescription", info.getOSFullDescription()},
        {u"agent.cpe", info.getCPEIdentifier()},
        {u"agent.architecture", info.getArchitectureName()},
        {u"agent.macaddress", info.getMACAddresses()},
        {u"agent.charset", config.getAgentCharset()},
        {u"agent.features", config.getAgentFeatures()},
    };
}

// The agent's log settings.
PropertyList logSettings(AgentConfig& config) {
    return {
        {u"log.rollover.cause", rolloverText(config.getLogRolloverCause())},
        {u"log.rollover.value", config.getLogRolloverValue()},
        {u"log.consolidate", boolText(config.getLogConsolidate())},
        {u"log.consolidate.value", STRING::number(config.getLogConsolidateValue())},
        {u"log.disk.upperlimit", STRING::number(config.getLogDiskUpperlimit())},
        {u"log.disk.lowerlimit", STRING::number(config.getLogDiskLowerlimit())},
        {u"log.bulktransfer.idleinterval", STRING::number(config.getLogBulktransferIdleinterval())},
        {u"log.bulktransfer.backloginterval", STRING::number(config.getLogBulktransferBackloginterval())},
        {u"log.bulktransfer.openfilelimit", STRING::number(config.getLogBulktransferOpenfilelimit())},
        {u"log.bulktransfer.enabled", boolText(config.getLogBulktransferEnabled())},
        {u"log.delete.enabled", boolText(config.getLogDeleteEnabled())},
        {u"log.collectsha256hash", boolText(config.getLogCollectsha256hash())},
        {u"log.reader.limit", STRING::number(config.getLogReaderLimit())},
        {u"log.writer.limit", STRING::number(config.getLogWriterLimit())},
        {u"log.priority", priorityText(config.getLogPriority())},
    };
}

enum class FileRead { NotOpened, NoSize, Read };

// The whole file, opened in the given mode.
FileRead readWholeFile(const STRING& path, const char* mode, ByteArray& out) {
    if (path.empty()) return FileRead::NotOpened;
    FILE* fp = openFile(path, mode);
    if (fp == nullptr) return FileRead::NotOpened;
    long long size = -1;
    if (std::fseek(fp, 0, SEEK_END) == 0) size = std::ftell(fp);
    if (size < 0) {
        std::fclose(fp);
        return FileRead::NoSize;
    }
    std::fseek(fp, 0, SEEK_SET);
    ByteArray bytes(static_cast<size_t>(size));
    const size_t got = size > 0 ? std::fread(bytes.data(), 1, static_cast<size_t>(size), fp) : 0;
    std::fclose(fp);
    out = ByteArray(bytes.data(), got);
    return FileRead::Read;
}

}  // namespace

// ---- Construction

StandardAgentComm::StandardAgentComm(AgentConfig& config, DriverAccess driver)
    : config_(config), driver_(std::move(driver)) {
    HttpsHandler::processStart();
    sleep_ = [](int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); };
}

StandardAgentComm::~StandardAgentComm() { HttpsHandler::processEnd(); }

std::unique_ptr<AgentComm> createAgentComm(AgentConfig* config, DriverAccess driver) {
    if (config == nullptr) return nullptr;
    return std::make_unique<StandardAgentComm>(*config, std::move(driver));
}

// ---- AgentComm

void StandardAgentComm::stop() { stop_.store(true); }

int StandardAgentComm::sendBulkLog(const STRING& path, STRING& errorText) {
    HttpsHandler handler(config_);
    const int rc = handler.sendBulkLog(path);
    if (rc == 0) handler.serverError(errorText);
    return rc;
}

int StandardAgentComm::sendApplicationData(const STRING& requestId, const STRING& data, bool moreData) {
    HttpsHandler handler(config_);
    return handler.sendApplicationData(requestId, data, moreData);
}

int StandardAgentComm::sendApplicationData(AgentConfig& config, const STRING& requestId, const STRING& data,
                                           bool moreData, int& serverErrorCode) {
    HttpsHandler handler(config);
    const int rc = handler.sendApplicationData(requestId, data, moreData);
    STRING text;
    serverErrorCode = handler.serverError(text);
    return rc;
}

int StandardAgentComm::sendPolicyState() {
    HttpsHandler handler(config_);
    return handler.sendPolicyState();
}

int StandardAgentComm::testServer(const STRING& server, STRING& errorText) {
    HttpsHandler handler(config_, server);
    const int rc = handler.testConnection(true);
    if (rc != 0) errorText = handler.failureText(rc);
    return rc;
}

void StandardAgentComm::forceRegistration() { config_.setAgentId(STRING()); }

// ---- Registration

const char16_t* StandardAgentComm::retryPhrase(int code) {
    for (const RetryRow& row : kRetryTable)
        if (row.code == code) return row.phrase;
    return nullptr;
}

bool StandardAgentComm::retryDecision(int code, const STRING& text) {
    trace(kMainThread, u"Registering return code %d -- string %s", code, text);
    if (code == 0) return false;
    if (const char16_t* phrase = retryPhrase(code)) {
        trace(kMainThread, phrase);
        return true;
    }
    logMessage(catalog::REG_FAILED, kMainThread, code, text);
    return false;
}

PropertyList StandardAgentComm::logRulePairs(AgentConfig& config) {
    PropertyList out;
    if (!config.getLogRule().empty()) out.emplace_back(u"log.rule", config.getLogRule());
    if (!config.getIdsLogRule().empty()) out.emplace_back(u"ids.log.rule", config.getIdsLogRule());
    for (const auto& p : config.getOtherPairs())
        if (p.first.startsWith(u"log") || p.first.startsWith(u"idslogrules")) out.push_back(p);
    return out;
}

void StandardAgentComm::buildRegisterMessage(AgentConfig& config, HttpsMessageGenerator& request,
                                             const ByteArray* builtInPolicy, const PropertyList& logRules) {
    request.addProperties(toPairs(registrationAttributes(config)));
    request.addProperties(toPairs(logSettings(config)));
    request.addProperties(toPairs(logRules));
    PropertyList agentRules, idsRules;
    for (const auto& p : logRules) {
        if (p.first.startsWith(u"idslogrules")) idsRules.emplace_back(p.first.substr(12), p.second);
        else if (p.first.startsWith(u"log")) agentRules.emplace_back(p.first.substr(4), p.second);
    }
    request.addProperties(toPairs(agentRules));
    request.addProperties(toPairs(idsRules));
    if (builtInPolicy != nullptr) request.addBinary(protocol::kTypePolicy, *builtInPolicy);
    ByteArray extra;
    if (readWholeFile(config.getPlusPolicyFile(), "rb", extra) == FileRead::Read)
        request.addBinary(protocol::kTypePolicy, std::move(extra));
}

bool StandardAgentComm::registerAgent(bool& usingBuiltInPolicy) {
    if (!config_.getAgentId().empty()) return true;

    // The built-in policy goes with every attempt.
    std::unique_ptr<ByteArray> policy;
    {
        ByteArray bytes;
        FileRead read = readWholeFile(config_.getPolicyPath(), "rb+", bytes);
        if (read == FileRead::NotOpened)
            read = readWholeFile(joinPath(SystemInfo::getInstallRoot(), u"builtin.zip"), "rb+", bytes);
        if (read == FileRead::NotOpened) trace(kMainThread, u"builtin policy not present ");
        else if (read == FileRead::NoSize) trace(kMainThread, u"could not determine file size in order to read builtin policy ");
        else policy = std::make_unique<ByteArray>(std::move(bytes));
    }

    trace(kMainThread, u"call register on communication component");
    std::unique_ptr<HttpsHandler> handler;
    while (!stop_.load()) {
        handler = std::make_unique<HttpsHandler>(config_);
        bool usedFallback = false;
        config_.loadIniFile(usedFallback);
        HttpsMessageGenerator request(config_);
        buildRegisterMessage(config_, request, policy.get(), logRulePairs(config_));
        const int rc = handler->statusCheck(handler->send(MessageKind::Register, request));

        if (retryDecision(rc, u"communications")) {
            trace(kMainThread, u"unsuccessful registration -- communications error %d ", rc);
            sleep_(kRetryPauseMs);
            continue;
        }
        STRING text;
        const int serverCode = handler->serverError(text);
        if (!retryDecision(serverCode, text)) break;
        if (!text.empty()) logMessage(catalog::REG_RETRY, kMainThread, text);
        sleep_(kRetryPauseMs);
    }

    bool result = false;
    STRING guid;
    if (handler && handler->lastResult() == 0 && handler->response().errorCode() == 0 &&
        handler->response().sectionCount() > 0 && !handler->response().section(0).pairs().empty())
        guid = handler->response().section(0).pairs().front().value;

    if (guid.empty()) {
        trace(kMainThread, u"could not get guid");
    } else {
        trace(kMainThread, u"guid is %s ", guid);
        config_.setAgentId(guid);
        config_.UpdateAllIni();
        logMessage(catalog::REG_DONE, kMainThread);
        // An enabled prevention driver that was assigned a policy but still
        // runs its built-in one.
        if (config_.getIpsEnabled() && !config_.getUseBuiltinPolicy() && driver_.usingBuiltIn && driver_.usingBuiltIn()) {
            config_.setPolicyStateErrorCode(-100);
            config_.setPolicyStateErrorString(u"Driver is using the builtin policy and not the assigned policy.");
            config_.UpdateAllIni();
            logMessage(catalog::REG_BUILTIN_POLICY, kMainThread);
            usingBuiltInPolicy = true;
        }
        STRING name, path, id;
        if (driver_.queryPolicy && driver_.queryPolicy(name, path, id)) {
            config_.setPolicyId(id);
            config_.setPolicyName(name);
            config_.setPolicyPath(path);
        }
        result = true;
    }
    if (!result && !stop_.load()) trace(kMainThread, u"Fatal Registration.");
    return result;
}
