// The message catalog: numbered messages defined in "Message.txt" in the
// agent's IPS folder, and the two masks that classify them.
//
// A catalog line is a record of seven comma-separated fields (a field may be
// double-quoted to hold commas): number, message types (e.g. "MCON"),
// severity (e.g. "INFO"), filter mode ("TYPE"/"SEVERITY"), send flag
// ("SEND"/"DONT_SEND"), symbolic name, and the text with printf placeholders.
// Blank lines and lines starting with '#' are comments; lines with another
// number of fields are skipped silently; a later record replaces an earlier
// one with the same number.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

#include "foundation/format.h"
#include "foundation/string.h"

struct CatalogRecord {
    int number = 0;
    STRING types;
    STRING severity;
    STRING filterMode;
    STRING sendFlag;
    STRING name;
    STRING text;
};

class MessageCatalog {
public:
    static MessageCatalog& instance();

    // Reads a catalog file; false when it cannot be opened.
    bool load(const STRING& path);
    // Reads the catalog file when a record is first looked up rather than
    // now, so that a run that writes no catalog message never reads it;
    // pathOf names the file then.
    void loadOnFirstUse(std::function<STRING()> pathOf);
    // Reads the file given to loadOnFirstUse now, if it has not been read.
    void loadPending() const;
    void clear();
    const CatalogRecord* find(int number) const;
    size_t size() const;

    // The catalog text of a number formatted with the arguments; for a
    // number the catalog lacks, "Message <n> is not in the message catalog"
    // followed by the arguments.
    template <class... A>
    STRING format(int number, const A&... args) const {
        const FormatArg list[] = {FormatArg(args)..., FormatArg()};
        return formatList(number, list, sizeof...(A));
    }
    STRING formatList(int number, const FormatArg* args, size_t count) const;

    // Splits one catalog line into fields, honouring double quotes.
    static std::vector<STRING> splitFields(const STRING& line);

private:
    bool read(const STRING& path) const;

    mutable std::map<int, CatalogRecord> records_;
    mutable std::mutex pendingLock_;
    mutable std::atomic<bool> pending_{false};
    mutable std::function<STRING()> pendingPath_;
};

// Loads "Message.txt" from the agent's IPS folder into the process-wide
// catalog. False when the file cannot be opened.
bool loadMessageCatalog();
// The same file, read when the catalog is first used.
void loadMessageCatalogOnFirstUse();

// Message type mask ("*" = 0xFFFF) and severity mask ("*" = 0xFF).
namespace MessageType {
constexpr uint32_t All = 0xFFFF;
uint32_t fromText(const STRING& text);
STRING toText(uint32_t mask);
}  // namespace MessageType

namespace Severity {
constexpr uint32_t Info = 0x1, Warning = 0x2, Critical = 0x4, Notice = 0x8, All = 0xFF;
uint32_t fromText(const STRING& text);
STRING toText(uint32_t mask);
}  // namespace Severity

// Filter mode: "TYPE" = 0, "SEVERITY" = 1, anything else 0.
int filterModeFromText(const STRING& text);
STRING filterModeToText(int mode);
// Send flag: "SEND" = 1, anything else 0; 1 is "SEND", anything else "DONT_SEND".
int sendFlagFromText(const STRING& text);
STRING sendFlagToText(int flag);
