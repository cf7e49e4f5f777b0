#include "config/agent_config.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "config/server_url.h"
#include "foundation/log.h"
#include "foundation/md5.h"
#include "foundation/process_role.h"

namespace {

constexpr AgentConfig::KeyInfo kKeyTable[] = {
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

// serialiseTo hands the text on in pieces of whole lines of about this many
// characters.
constexpr size_t kSerialPiece = 8192;

// The key a pair of the file sets is found through a hash table of the key
// names that the compiler builds. The hash takes the length and the last
// (at most) eight units, two at a time, each pair through a multiplication
// of its own: the key names differ there, the four products do not wait for
// each other, and a long name in the file costs no more than a short one.
constexpr uint32_t nameHash(const char16_t* s, size_t n) {
    constexpr uint32_t kFactor[4] = {0x9E3779B1u, 0x85EBCA77u, 0xC2B2AE3Du, 0x27D4EB2Fu};
    uint32_t h = static_cast<uint32_t>(n) * 0x165667B1u;
    for (size_t k = 0; k < 4; ++k) {
        const uint32_t lo = n > 2 * k ? s[n - 1 - 2 * k] : 0;
        const uint32_t hi = n > 2 * k + 1 ? s[n - 2 - 2 * k] : 0;
        h ^= (lo | hi << 16) * kFactor[k];
    }
    return h ^ (h >> 15) ^ (h >> 23);
}

constexpr size_t textLength(const char16_t* s) {
    size_t n = 0;
    while (s[n]) ++n;
    return n;
}

constexpr bool sameText(const char16_t* a, const char16_t* b) {
    while (*a && *a == *b) ++a, ++b;
    return *a == *b;
}

constexpr size_t kNameSlots = 256;  // a power of two, well above the key count
static_assert(AgentConfig::kKeyCount * 2 < kNameSlots, "name table too full");

struct NameTable {
    int16_t slot[kNameSlots];
    uint16_t length[AgentConfig::kKeyCount];  // of each key's name
};

constexpr NameTable buildNameTable() {
    NameTable t{};
    for (auto& s : t.slot) s = -1;
    for (int i = 0; i < AgentConfig::kKeyCount; ++i)
        t.length[i] = kKeyTable[i].name ? static_cast<uint16_t>(textLength(kKeyTable[i].name)) : 0;
    for (int i = 0; i < AgentConfig::kKeyCount; ++i) {
        const AgentConfig::KeyInfo& k = kKeyTable[i];
        if (k.name == nullptr || k.type == AgentConfig::Type::ExternalLogs || k.type == AgentConfig::Type::Checksum) {
            continue;
        }
        size_t pos = nameHash(k.name, textLength(k.name)) & (kNameSlots - 1);
        bool taken = false;  // an earlier key has this name
        while (t.slot[pos] >= 0 && !taken) {
            taken = sameText(kKeyTable[t.slot[pos]].name, k.name);
            if (!taken) pos = (pos + 1) & (kNameSlots - 1);
        }
        if (!taken) t.slot[pos] = static_cast<int16_t>(i);
    }
    return t;
}

constexpr NameTable kNameTable = buildNameTable();

bool isKeyName(std::u16string_view name, int key) {
    return name.size() == kNameTable.length[key] &&
           std::memcmp(name.data(), kKeyTable[key].name, name.size() * sizeof(char16_t)) == 0;
}

// The first key of the table with this name, leaving out the whole-section
// entries; -1 for any other name.
int keyOfName(std::u16string_view name) {
    for (size_t pos = nameHash(name.data(), name.size()) & (kNameSlots - 1);; pos = (pos + 1) & (kNameSlots - 1)) {
        const int i = kNameTable.slot[pos];
        if (i < 0) return -1;
        if (isKeyName(name, i)) return i;
    }
}

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
    storedChecksum_.clear();
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
    PropertyList pairs;
    pairs.reserve(otherPairs_.size());
    for (const OtherPair& p : otherPairs_) pairs.emplace_back(STRING(otherName(p)), STRING(otherValue(p)));
    return pairs;
}

void AgentConfig::clearOtherPairs() {
    otherText_.clear();
    otherPairs_.clear();
}

void AgentConfig::addOtherPair(std::u16string_view name, std::u16string_view value, bool inText) {
    const uint32_t nameLength = static_cast<uint32_t>(name.size());
    const uint32_t valueLength = static_cast<uint32_t>(value.size());
    if (inText) {
        // A line of the read: the name stands in the text, the value (if
        // any) right after it and an "=".
        otherPairs_.push_back(OtherPair{static_cast<size_t>(name.data() - otherText_.data()), nameLength, valueLength});
        return;
    }
    otherPairs_.push_back(OtherPair{otherText_.size(), nameLength, valueLength});
    appendOtherText(name);
    appendOtherText(u"=");
    appendOtherText(value);
    appendOtherText(u"\r\n");
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

int AgentConfig::setValue(const STRING& name, const STRING& value) { return setPair(name.str(), value.str()); }

int AgentConfig::setPair(std::u16string_view name, std::u16string_view value) {
    Synchronized lock(*this);
    return setPairLocked(name, value);
}

int AgentConfig::setPairLocked(std::u16string_view name, std::u16string_view value, bool inText) {
    if (isKeyName(name, kChecksum)) {
        storedChecksum_ = STRING(value);
        return kChecksumLine;
    }
    const int i = keyOfName(name);
    if (i >= 0) {
        // As a setter would: the change is recorded while recording is on.
        assign(static_cast<Key>(i), STRING(value));
        record(static_cast<Key>(i));
        return kPairStored;
    }
    constexpr std::u16string_view kExternalLogsSection = u"[ExternalLogs]";
    constexpr std::u16string_view kOtherSection = u"[Other]";
    const std::u16string_view section = currentSection_.str();
    if (section == kExternalLogsSection) {
        externalLogs_.emplace_back(value);
        return kPairStored;
    }
    if (section != kOtherSection) {
        logMessage(catalog::CFG_UNKNOWN_KEY, u"AgentConfig::setValue", u"AgentConfig::setValue", STRING(name));
    }
    addOtherPair(name, value, inText);
    return kPairStored;
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
    Utf16leMd5 md5;
    md5.add(text.str());
    return STRING::fromUtf8(md5.hexDigest());
}

// ---- Serialisation
//
// generate() walks the model in file order and hands the text to a sink:
// literal text, the [Other] pairs as one block, and the place of the
// checksum line.

class AgentConfig::TextSink {
public:
    virtual ~TextSink() = default;
    virtual void text(std::u16string_view t) = 0;
    // The place of the model's other pairs (there is at least one).
    virtual void otherPairs() = 0;
    // The checksum line, named `name`, over all text before it.
    virtual void checksum(const char16_t* name) = 0;
};

void AgentConfig::generate(TextSink& sink) {
    const char16_t* section = nullptr;
    bool anyText = false;
    std::u16string scratch;
    auto line = [&sink, &scratch](const char16_t* name, const STRING& value) {
        sink.text(name);
        sink.text(u"=");
        sink.text(Utils::pairText(value.str(), scratch));
        sink.text(u"\r\n");
    };
    for (int i = 0; i < kKeyCount; ++i) {
        const Key key = static_cast<Key>(i);
        const KeyInfo& k = kKeyTable[i];
        if (k.rule == Rule::Never || k.section == nullptr) continue;
        if (section == nullptr || std::u16string_view(section) != std::u16string_view(k.section)) {
            section = k.section;
            if (anyText) sink.text(u"\r\n");
            sink.text(u"[");
            sink.text(section);
            sink.text(u"]\r\n");
            anyText = true;
        }
        switch (k.type) {
        case Type::ExternalLogs:
            for (const auto& log : externalLogs_) line(k.name, log);
            break;
        case Type::OtherPairs:
            if (!otherPairs_.empty()) sink.otherPairs();
            break;
        case Type::Checksum:
            sink.checksum(k.name);
            break;
        default:
            if (shouldWrite(key)) line(k.name, valueText(key));
            break;
        }
    }
}

// serialiseTo's sink: builds pieces of whole lines and hands them on;
// pairs that stand in the model's text as they are written go out from
// there, in pieces of whole lines too. The checksum line is the digest of
// the text before it. As long as that text is the text the last read took
// in, it is not digested: the read's checksum is the answer. Only once it
// departs from the read's text is what went out so far digested, and all
// after it.
class AgentConfig::SerialWriter : public TextSink {
public:
    SerialWriter(const AgentConfig& model, const std::function<void(std::u16string_view)>& out, const STRING& read)
        : model_(model), out_(out), readSum_(read) {
        piece_.reserve(4096);
    }
    void text(std::u16string_view t) override { piece_ += t; }
    void otherPairs() override {
        const auto& pairs = model_.otherPairs_;
        for (size_t i = 0; i < pairs.size();) {
            const OtherPair& p = pairs[i];
            if (!model_.otherPairStandsWhole(p)) {
                piece_ += Utils::pairText(model_.otherName(p), scratch_);
                piece_ += u'=';
                piece_ += Utils::pairText(model_.otherValue(p), scratch_);
                piece_ += u"\r\n";
                if (piece_.size() >= kSerialPiece) send();
                ++i;
                continue;
            }
            // The run of pairs that follow each other in the text.
            size_t end = p.at;
            for (; i < pairs.size() && pairs[i].at == end && model_.otherPairStandsWhole(pairs[i]); ++i)
                end += pairs[i].nameLength + 1 + pairs[i].valueLength + 2;
            send();
            std::u16string_view run(model_.otherText_.data() + p.at, end - p.at);
            while (!run.empty()) {
                // Whole lines up to a piece's size at a time.
                size_t cut = run.size();
                if (cut > kSerialPiece) {
                    cut = STRING::findUnit(run, u'\n', kSerialPiece);
                    cut = cut == std::u16string_view::npos ? run.size() : cut + 1;
                }
                pass(run.substr(0, cut));
                run.remove_prefix(cut);
            }
        }
    }
    void checksum(const char16_t* name) override {
        digest(piece_);
        STRING value;
        if (sameAsRead_ && matched_ == model_.readTextEnd_) {
            value = readSum_;
        } else {
            if (sameAsRead_) md5_.add(readText(matched_));
            value = STRING::fromUtf8(md5_.hexDigest());
        }
        digesting_ = false;  // the digest is spent
        text(name);
        text(u"=");
        text(value.str());
        text(u"\r\n");
    }
    void send() {
        pass(piece_);
        piece_.clear();
    }

private:
    void pass(std::u16string_view t) {
        if (t.empty()) return;
        digest(t);
        out_(t);
    }
    // The first `length` characters of the read's text.
    std::u16string_view readText(size_t length) const { return {model_.otherText_.data(), length}; }
    void digest(std::u16string_view t) {
        if (!digesting_ || t.empty()) return;
        if (sameAsRead_) {
            const char16_t* at = model_.otherText_.data() + matched_;
            if (t.size() <= model_.readTextEnd_ - matched_ &&
                (t.data() == at || std::memcmp(t.data(), at, t.size() * sizeof(char16_t)) == 0)) {
                matched_ += t.size();
                return;
            }
            sameAsRead_ = false;
            md5_.add(readText(matched_));
        }
        md5_.add(t);
    }

    const AgentConfig& model_;
    const std::function<void(std::u16string_view)>& out_;
    const STRING& readSum_;  // the read's checksum
    std::u16string piece_;
    std::u16string scratch_;
    Utf16leMd5 md5_;
    bool digesting_ = true;
    bool sameAsRead_ = true;
    size_t matched_ = 0;  // characters of the read's text written so far
};

void AgentConfig::serialiseTo(const std::function<void(std::u16string_view)>& sink) {
    Synchronized lock(*this);
    SerialWriter writer(*this, sink, readChecksum());
    generate(writer);
    writer.send();
}

STRING AgentConfig::serialise() {
    Synchronized lock(*this);
    // About the size of the read text: a large file's text is not copied
    // over and over as it grows.
    std::u16string text;
    text.reserve(otherText_.size() + 2 * kSerialPiece);
    serialiseTo([&text](std::u16string_view piece) { text += piece; });
    return STRING(std::move(text));
}
