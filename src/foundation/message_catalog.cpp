#include "foundation/message_catalog.h"

#include <cstdio>
#include <memory>

#include "foundation/file_util.h"
#include "foundation/ids_exception.h"
#include "foundation/system_info.h"
#include "foundation/utils.h"

MessageCatalog& MessageCatalog::instance() {
    static MessageCatalog catalog;
    return catalog;
}

namespace {

bool isBlank(char16_t c) { return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n' || c == u'\v' || c == u'\f'; }

// What STRING::trim leaves of the text, in place.
void trimInPlace(std::u16string& s) {
    size_t e = s.size();
    while (e > 0 && isBlank(s[e - 1])) --e;
    size_t b = 0;
    while (b < e && isBlank(s[b])) ++b;
    s.erase(e);
    s.erase(0, b);
}

}  // namespace

std::vector<STRING> MessageCatalog::splitFields(const STRING& line) {
    std::vector<STRING> fields;
    fields.reserve(8);
    std::u16string field;
    bool quoted = false;      // inside quotes now
    bool wasQuoted = false;   // this field had quotes: keep its blanks
    const std::u16string& s = line.str();
    auto finish = [&] {
        if (!wasQuoted) trimInPlace(field);
        fields.emplace_back(std::move(field));
        field.clear();
        wasQuoted = false;
    };
    // The text between the characters that mean something is taken in runs.
    size_t i = 0;
    while (i < s.size()) {
        if (quoted) {
            const size_t q = s.find(u'"', i);
            if (q == std::u16string::npos) {
                field.append(s, i, std::u16string::npos);
                break;
            }
            field.append(s, i, q - i);
            if (q + 1 < s.size() && s[q + 1] == u'"') {
                field += u'"';
                i = q + 2;
            } else {
                quoted = false;
                i = q + 1;
            }
        } else {
            const size_t p = s.find_first_of(u",\"", i);
            if (p == std::u16string::npos) {
                field.append(s, i, std::u16string::npos);
                break;
            }
            field.append(s, i, p - i);
            if (s[p] == u'"') {
                quoted = true;
                if (!wasQuoted) trimInPlace(field);
                wasQuoted = true;
            } else {
                finish();
            }
            i = p + 1;
        }
    }
    finish();
    return fields;
}

bool MessageCatalog::load(const STRING& path) { return read(path); }

void MessageCatalog::loadOnFirstUse(std::function<STRING()> pathOf) {
    std::lock_guard<std::mutex> guard(pendingLock_);
    // A file still waiting is read first, as it would have been.
    if (pending_.load()) read(pendingPath_());
    pendingPath_ = std::move(pathOf);
    pending_.store(true);
}

void MessageCatalog::loadPending() const {
    if (!pending_.load()) return;
    std::lock_guard<std::mutex> guard(pendingLock_);
    if (!pending_.load()) return;
    read(pendingPath_());
    pending_.store(false);
}

void MessageCatalog::clear() {
    std::lock_guard<std::mutex> guard(pendingLock_);
    pending_.store(false);
    records_.clear();
}

size_t MessageCatalog::size() const {
    loadPending();
    return records_.size();
}

bool MessageCatalog::read(const STRING& path) const {
    FILE* fp = openFile(path, "rb");
    if (fp == nullptr) return false;
    std::unique_ptr<FILE, int (*)(FILE*)> guard(fp, &std::fclose);
    const bool utf16 = Utils::probeUnicode(fp);
    STRING raw;
    try {
        while (Utils::readLineBuffered(fp, raw, utf16) != 0) {
            const STRING line = raw.trim();
            if (line.empty() || line[0] == u'#') continue;
            std::vector<STRING> f = splitFields(line);
            if (f.size() != 7) continue;
            CatalogRecord r;
            try {
                r.number = f[0].toInt();
            } catch (const IDSException&) {
                continue;
            }
            r.types = std::move(f[1]);
            r.severity = std::move(f[2]);
            r.filterMode = std::move(f[3]);
            r.sendFlag = std::move(f[4]);
            r.name = std::move(f[5]);
            r.text = std::move(f[6]);
            records_[r.number] = std::move(r);
        }
    } catch (const IDSException&) {
        // A read error ends the catalog where it stands.
    }
    return true;
}

const CatalogRecord* MessageCatalog::find(int number) const {
    loadPending();
    const auto it = records_.find(number);
    return it == records_.end() ? nullptr : &it->second;
}

STRING MessageCatalog::formatList(int number, const FormatArg* args, size_t count) const {
    if (const CatalogRecord* r = find(number)) return formatArgs(r->text.c_str(), args, count);
    STRING text = STRING(u"Message ") + STRING::number(number) + u" is not in the message catalog";
    for (size_t i = 0; i < count; ++i) text += STRING(u" ") + args[i].asText();
    return text;
}

bool loadMessageCatalog() {
    return MessageCatalog::instance().load(joinPath(SystemInfo::getIPSDirectory(), u"Message.txt"));
}

void loadMessageCatalogOnFirstUse() {
    MessageCatalog::instance().loadOnFirstUse([] { return joinPath(SystemInfo::getIPSDirectory(), u"Message.txt"); });
}

namespace {

struct NamedBit {
    const char16_t* name;
    uint32_t bit;
};

const NamedBit kTypes[] = {
    {u"MSTA", 0x0001}, {u"MCOM", 0x0002}, {u"MCON", 0x0004},   {u"MSTP", 0x0008}, {u"NET", 0x0010},
    {u"ACCESS", 0x0020}, {u"SYSC", 0x0040}, {u"BOP", 0x0080},  {u"CRE", 0x0100},  {u"PSET", 0x0200},
    {u"DEST", 0x0400},  {u"PMNT", 0x0800}, {u"FILE", 0x1000},
};

const NamedBit kSeverities[] = {
    {u"INFO", Severity::Info}, {u"WARNING", Severity::Warning}, {u"CRITICAL", Severity::Critical},
    {u"NOTICE", Severity::Notice},
};

STRING namesOf(uint32_t mask, const NamedBit* table, size_t n) {
    STRING text;
    for (size_t i = 0; i < n; ++i) {
        if (mask & table[i].bit) {
            if (!text.empty()) text += u',';
            text += table[i].name;
        }
    }
    return text;
}

}  // namespace

uint32_t MessageType::fromText(const STRING& text) {
    if (text == STRING(u"*")) return All;
    uint32_t mask = 0;
    for (const auto& t : kTypes) {
        const STRING name(t.name);
        bool found;
        if (name == STRING(u"MSTP")) {
            // Only as a word of its own: at the start or after a comma.
            found = text.startsWith(name) || text.contains(STRING(u",") + name);
        } else {
            found = text.contains(name);
        }
        if (found) mask |= t.bit;
    }
    // "FILE" also carries the extended file bit.
    if (text.contains(STRING(u"FILE"))) mask |= 0x2000;
    return mask;
}

STRING MessageType::toText(uint32_t mask) { return namesOf(mask, kTypes, sizeof kTypes / sizeof kTypes[0]); }

uint32_t Severity::fromText(const STRING& text) {
    if (text == STRING(u"*")) return All;
    uint32_t mask = 0;
    for (const auto& s : kSeverities)
        if (text.contains(STRING(s.name))) mask |= s.bit;
    return mask;
}

STRING Severity::toText(uint32_t mask) {
    return namesOf(mask, kSeverities, sizeof kSeverities / sizeof kSeverities[0]);
}

int filterModeFromText(const STRING& text) { return text == STRING(u"SEVERITY") ? 1 : 0; }
STRING filterModeToText(int mode) { return mode == 1 ? STRING(u"SEVERITY") : STRING(u"TYPE"); }
int sendFlagFromText(const STRING& text) { return text == STRING(u"SEND") ? 1 : 0; }
STRING sendFlagToText(int flag) { return flag == 1 ? STRING(u"SEND") : STRING(u"DONT_SEND"); }
