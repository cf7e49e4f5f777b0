#include "config/agent_config.h"

#include "config/server_url.h"
#include "foundation/log.h"
#include "foundation/md5.h"
#include "foundation/process_role.h"

namespace {

const AgentConfig::KeyInfo kKeyTable[] = {
#define AGENT_CONFIG_INFO(name, section, key, type, def, rule) \
    {section, key, AgentConfig::Type::type, def, AgentConfig::Rule::rule},
    AGENT_CONFIG_KEYS(AGENT_CONFIG_INFO)
#undef AGENT_CONFIG_INFO
};
static_assert(sizeof kKeyTable / sizeof kKeyTable[0] == AgentConfig::kKeyCount, "key table and enum differ");

const char16_t* const kPriorityTexts[] = {u"min", u"norm", u"max"};
const char16_t* const kCauseTexts[] = {u"none", u"size", u"date"};

int priorityFromText(const STRING& t) {
    if (t == STRING(u"min")) return AgentConfig::PriorityMin;
    if (t == STRING(u"max")) return AgentConfig::PriorityMax;
    return AgentConfig::PriorityNorm;
}

int causeFromText(const STRING& t) {
    if (t == STRING(u"size")) return AgentConfig::RolloverSize;
    if (t == STRING(u"date")) return AgentConfig::RolloverDate;
    return AgentConfig::RolloverNone;
}

const char16_t* boolText(bool b) { return b ? u"true" : u"false"; }

}  // namespace

std::atomic<bool> AgentConfig::recordChanges_{true};
std::atomic<bool> AgentConfig::wideCharset_{true};

const AgentConfig::KeyInfo& AgentConfig::keyInfo(Key key) { return kKeyTable[key]; }

AgentConfig::AgentConfig(STRING iniPath) : iniPath_(std::move(iniPath)), slots_(kKeyCount) { resetToDefaults(); }

AgentConfig::~AgentConfig() = default;

void AgentConfig::resetToDefaults() {
    for (int i = 0; i < kKeyCount; ++i) {
        const KeyInfo& k = kKeyTable[i];
        Slot& s = slots_[i];
        s = Slot();
        if (k.type == Type::Comm) {
            comm_[k.name] = k.defaultText ? STRING(k.defaultText) : STRING();
            continue;
        }
        if (k.defaultText == nullptr) continue;
        const STRING def(k.defaultText);
        switch (k.type) {
        case Type::Text: s.text = def; break;
        case Type::Bool: s.flag = def == STRING(u"true"); break;
        case Type::Int: s.number = def.toIntLenient(); break;
        case Type::LogPriority: s.number = priorityFromText(def); break;
        case Type::RolloverCause: s.number = causeFromText(def); break;
        default: break;
        }
    }
    storedChecksum_ = kNotComputed;
    wideCharset_.store(slots_[kAgentCharset].text != STRING(u"UTF-8"));
}

// ---- Typed accessors

STRING& AgentConfig::comm(Key key) { return comm_[kKeyTable[key].name]; }

STRING AgentConfig::valueText(Key key) {
    const Slot& s = slots_[key];
    switch (kKeyTable[key].type) {
    case Type::Text: return s.text;
    case Type::Bool:
    case Type::Reboot: return boolText(s.flag);
    case Type::Int: return STRING::number(s.number);
    case Type::LogPriority: return kPriorityTexts[s.number >= 0 && s.number <= 2 ? s.number : 1];
    case Type::RolloverCause: return kCauseTexts[s.number >= 0 && s.number <= 2 ? s.number : 0];
    case Type::Comm: return comm(key);
    default: return STRING();
    }
}

void AgentConfig::record(Key key) {
    if (recordChanges_.load()) changes_[kKeyTable[key].name] = valueText(key);
}

#define AGENT_CONFIG_DEF_Text(name)                                                   \
    STRING AgentConfig::get##name() {                                                 \
        Synchronized lock(*this);                                                     \
        return slots_[k##name].text;                                                  \
    }                                                                                 \
    void AgentConfig::set##name(const STRING& value) {                                \
        Synchronized lock(*this);                                                     \
        assign(k##name, value);                                                       \
        record(k##name);                                                              \
    }
#define AGENT_CONFIG_DEF_Comm(name)                                                   \
    STRING AgentConfig::get##name() {                                                 \
        Synchronized lock(*this);                                                     \
        return comm(k##name);                                                         \
    }                                                                                 \
    void AgentConfig::set##name(const STRING& value) {                                \
        Synchronized lock(*this);                                                     \
        comm(k##name) = value;                                                        \
        record(k##name);                                                              \
    }
#define AGENT_CONFIG_DEF_Bool(name)                                                   \
    bool AgentConfig::get##name() {                                                   \
        Synchronized lock(*this);                                                     \
        return slots_[k##name].flag;                                                  \
    }                                                                                 \
    void AgentConfig::set##name(bool value) {                                         \
        Synchronized lock(*this);                                                     \
        slots_[k##name].flag = value;                                                 \
        slots_[k##name].assigned = true;                                              \
        if (k##name == kAgentlogTraceMessages) AgentLog::setTraceEnabled(value);      \
        record(k##name);                                                              \
    }
#define AGENT_CONFIG_DEF_Int(name)                                                    \
    int AgentConfig::get##name() {                                                    \
        Synchronized lock(*this);                                                     \
        return slots_[k##name].number;                                                \
    }                                                                                 \
    void AgentConfig::set##name(int value) {                                          \
        Synchronized lock(*this);                                                     \
        slots_[k##name].number = value;                                               \
        slots_[k##name].assigned = true;                                              \
        record(k##name);                                                              \
    }
#define AGENT_CONFIG_DEF_LogPriority(name)                                            \
    int AgentConfig::get##name() {                                                    \
        Synchronized lock(*this);                                                     \
        return slots_[k##name].number;                                                \
    }                                                                                 \
    void AgentConfig::set##name(int value) {                                          \
        Synchronized lock(*this);                                                     \
        slots_[k##name].number = value >= PriorityMin && value <= PriorityMax ? value : PriorityNorm; \
        record(k##name);                                                              \
    }
#define AGENT_CONFIG_DEF_RolloverCause(name)                                          \
    int AgentConfig::get##name() {                                                    \
        Synchronized lock(*this);                                                     \
        return slots_[k##name].number;                                                \
    }                                                                                 \
    void AgentConfig::set##name(int value) { setRolloverCause(value); }
#define AGENT_CONFIG_DEF_Reboot(name)
#define AGENT_CONFIG_DEF_ExternalLogs(name)
#define AGENT_CONFIG_DEF_OtherPairs(name)
#define AGENT_CONFIG_DEF_Checksum(name)
#define AGENT_CONFIG_DEF(name, section, key, type, def, rule) AGENT_CONFIG_DEF_##type(name)
AGENT_CONFIG_KEYS(AGENT_CONFIG_DEF)
#undef AGENT_CONFIG_DEF

void AgentConfig::setRolloverCause(int cause) {
    Synchronized lock(*this);
    if (cause < RolloverNone || cause > RolloverDate) cause = RolloverNone;
    Slot& s = slots_[kLogRolloverCause];
    if (s.number == cause) return;  // the same cause again changes nothing
    s.number = cause;
    record(kLogRolloverCause);
    // A new cause brings the value that suits it; "none" keeps the old one.
    if (cause == RolloverSize) setLogRolloverValue(u"50");
    else if (cause == RolloverDate) setLogRolloverValue(u"0 0 0 * 0");
}

bool AgentConfig::getIpsRebootRequired() {
    Synchronized lock(*this);
    return slots_[kIpsRebootRequired].flag;
}

void AgentConfig::setIpsRebootDone(bool rebootDone) {
    Synchronized lock(*this);
    slots_[kIpsRebootRequired].flag = !rebootDone;
    slots_[kIpsRebootRequired].assigned = true;
    record(kIpsRebootRequired);
}

bool AgentConfig::getFimRebootRequired() {
    Synchronized lock(*this);
    return slots_[kFimRebootRequired].flag;
}

void AgentConfig::setFimRebootDone(bool rebootDone) {
    Synchronized lock(*this);
    slots_[kFimRebootRequired].flag = !rebootDone;
    slots_[kFimRebootRequired].assigned = true;
    record(kFimRebootRequired);
}

std::vector<STRING> AgentConfig::getExternalLogs() {
    Synchronized lock(*this);
    return externalLogs_;
}

void AgentConfig::setExternalLogs(const std::vector<STRING>& logs) {
    Synchronized lock(*this);
    externalLogs_ = logs;
}

PropertyList AgentConfig::getOtherPairs() {
    Synchronized lock(*this);
    return other_;
}

STRING AgentConfig::getCommValue(const STRING& name) {
    Synchronized lock(*this);
    const auto it = comm_.find(name);
    return it == comm_.end() ? STRING() : it->second;
}

std::map<STRING, STRING> AgentConfig::changes() {
    Synchronized lock(*this);
    return changes_;
}

// ---- Server connection settings

namespace {
std::vector<STRING> parseServerList(const STRING& text) {
    std::vector<STRING> out;
    for (const STRING& entry : text.split(u',', false)) {
        const STRING t = entry.trim();
        if (!t.empty()) out.push_back(t);
    }
    return out;
}

STRING joinServerList(const std::vector<STRING>& list) {
    STRING text;
    for (const auto& s : list) {
        if (!text.empty()) text += u',';
        text += s;
    }
    return text;
}
}  // namespace

std::vector<STRING> AgentConfig::getServerList() {
    Synchronized lock(*this);
    return parseServerList(comm(kServerListText));
}

int AgentConfig::getServerCount() { return static_cast<int>(getServerList().size()); }

void AgentConfig::setServerList(const STRING& commaSeparated) {
    Synchronized lock(*this);
    const std::vector<STRING> list = parseServerList(commaSeparated);
    setServerListText(joinServerList(list));
    if (list.empty()) return;
    const STRING current = ServerUrl::parse(comm(kAgentHttpUrl)).host;
    for (const auto& s : list)
        if (s.equalsIgnoreCase(current)) return;
    rebuildUrl(nullptr, &list.front(), nullptr);
}

STRING AgentConfig::getCurrentServer() {
    Synchronized lock(*this);
    const STRING host = ServerUrl::parse(comm(kAgentHttpUrl)).host;
    if (!host.empty()) return host;
    const std::vector<STRING> list = parseServerList(comm(kServerListText));
    return list.empty() ? STRING(u"Unknown") : list.front();
}

void AgentConfig::setCurrentServer(const STRING& server) {
    Synchronized lock(*this);
    rebuildUrl(nullptr, &server, nullptr);
}

int AgentConfig::getPort() {
    Synchronized lock(*this);
    const ServerUrl url = ServerUrl::parse(comm(kAgentHttpUrl));
    if (url.port >= 0) return url.port;
    return getProtocol() == STRING(u"http") ? 80 : 443;
}

void AgentConfig::setPort(int port) {
    Synchronized lock(*this);
    rebuildUrl(nullptr, nullptr, &port);
}

STRING AgentConfig::getProtocol() {
    Synchronized lock(*this);
    const STRING scheme = ServerUrl::parse(comm(kAgentHttpUrl)).scheme.toLower();
    return scheme.empty() ? STRING(u"https") : scheme;
}

void AgentConfig::setProtocol(const STRING& protocol) {
    Synchronized lock(*this);
    const STRING lower = protocol.toLower();
    rebuildUrl(&lower, nullptr, nullptr);
}

void AgentConfig::rebuildUrl(const STRING* scheme, const STRING* host, const int* port) {
    ServerUrl url = ServerUrl::parse(comm(kAgentHttpUrl));
    if (url.scheme.empty()) url.scheme = u"https";
    if (url.host.empty()) {
        const std::vector<STRING> list = parseServerList(comm(kServerListText));
        if (!list.empty()) url.host = list.front();
    }
    if (scheme) url.scheme = *scheme;
    if (host) url.host = *host;
    if (port) url.port = *port;
    setAgentHttpUrl(url.compose());
}

int AgentConfig::getFailbackInterval() { return getFailbackIntervalText().toIntLenient(); }

void AgentConfig::setFailbackInterval(int seconds) { setFailbackIntervalText(STRING::number(seconds)); }

// ---- Pairs

void AgentConfig::assign(Key key, const STRING& value) {
    Slot& s = slots_[key];
    switch (kKeyTable[key].type) {
    case Type::Text:
        s.text = value;
        if (key == kAgentCharset) wideCharset_.store(value != STRING(u"UTF-8"));
        break;
    case Type::Bool:
    case Type::Reboot:
        s.flag = value == STRING(u"true");
        if (key == kAgentlogTraceMessages) AgentLog::setTraceEnabled(s.flag);
        break;
    case Type::Int: s.number = value.toIntLenient(); break;
    case Type::LogPriority: s.number = priorityFromText(value); break;
    case Type::RolloverCause: s.number = causeFromText(value); break;
    case Type::Comm: comm(key) = value; break;
    default: return;
    }
    s.assigned = true;
}

int AgentConfig::setValue(const STRING& name, const STRING& value) {
    Synchronized lock(*this);
    if (name == STRING(kKeyTable[kChecksum].name)) {
        storedChecksum_ = value;
        return 2;
    }
    for (int i = 0; i < kKeyCount; ++i) {
        const KeyInfo& k = kKeyTable[i];
        if (k.name == nullptr || k.type == Type::ExternalLogs || k.type == Type::Checksum) continue;
        if (name == STRING(k.name)) {
            // As a setter would: the change is recorded while recording is on.
            assign(static_cast<Key>(i), value);
            record(static_cast<Key>(i));
            return 1;
        }
    }
    if (currentSection_ == STRING(u"[ExternalLogs]")) {
        externalLogs_.push_back(value);
        return 1;
    }
    if (currentSection_ != STRING(u"[Other]")) logMessage(10002, u"AgentConfig::setValue", name);
    other_.emplace_back(name, value);
    return 1;
}

bool AgentConfig::shouldWrite(Key key) {
    switch (kKeyTable[key].rule) {
    case Rule::Always: return true;
    case Rule::NotEmpty: return !valueText(key).empty();
    case Rule::NotEmptyOrServerManaged: return !valueText(key).empty() || AgentType::isServerManaged();
    case Rule::ConfigToolRole: return ProcessRole::get() == ProcessRole::ConfigTool;
    case Rule::RebootKey:
        if (ProcessRole::get() == ProcessRole::ConfigTool) return slots_[key].assigned;
        if (ProcessRole::get() == ProcessRole::Agent) return rebootCheck_ && rebootCheck_(key);
        return false;
    case Rule::ConsolidateOn: return slots_[kLogConsolidate].flag;
    case Rule::RolloverNotNone: return slots_[kLogRolloverCause].number != RolloverNone;
    case Rule::ContentMetadata: return AgentType::isLocalWhitelist();
    case Rule::Never: return false;
    }
    return false;
}

STRING AgentConfig::checksumOf(const STRING& text) {
    std::string bytes;
    bytes.reserve(text.length() * 2);
    for (char16_t c : text.str()) {
        bytes += static_cast<char>(c & 0xFF);
        bytes += static_cast<char>(c >> 8);
    }
    return STRING::fromUtf8(md5Hex(bytes.data(), bytes.size()));
}

STRING AgentConfig::serialise() {
    Synchronized lock(*this);
    std::u16string text;
    text.reserve(4096);
    const char16_t* section = nullptr;
    auto line = [&text](const STRING& name, const STRING& value) {
        text += name.str();
        text += u'=';
        text += value.str();
        text += u"\r\n";
    };
    for (int i = 0; i < kKeyCount; ++i) {
        const Key key = static_cast<Key>(i);
        const KeyInfo& k = kKeyTable[i];
        if (k.rule == Rule::Never || k.section == nullptr) continue;
        if (section == nullptr || STRING(section) != STRING(k.section)) {
            section = k.section;
            if (!text.empty()) text += u"\r\n";
            text += u'[';
            text += section;
            text += u"]\r\n";
        }
        switch (k.type) {
        case Type::ExternalLogs:
            for (const auto& log : externalLogs_) line(k.name, log);
            break;
        case Type::OtherPairs:
            for (const auto& p : other_) line(p.first, p.second);
            break;
        case Type::Checksum:
            line(k.name, checksumOf(STRING(text)));
            break;
        default:
            if (shouldWrite(key)) line(k.name, valueText(key));
            break;
        }
    }
    return STRING(std::move(text));
}
