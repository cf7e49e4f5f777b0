// The message catalog loader on arbitrary file contents, and every record's
// text used as the format of a message with arguments of each kind (the
// catalog's placeholders need not match what the program passes), and the
// mask texts read back.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "foundation/ids_exception.h"
#include "foundation/message_catalog.h"
#include "fuzz_support.h"

static volatile size_t g_sink;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = fuzz::scratchDir() + "/Message.txt";
    fuzz::writeFile(path, std::string_view(reinterpret_cast<const char*>(data), size));

    MessageCatalog catalog;
    if (!catalog.load(STRING::fromUtf8(path))) std::abort();
    // The numbers the input seems to define (the catalog has no list of them).
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    STRING text;
    if (size >= 2 && data[0] == 0xFF && data[1] == 0xFE) {
        for (size_t i = 2; i + 1 < size; i += 2) text += static_cast<char16_t>(data[i] | data[i + 1] << 8);
    } else {
        text = STRING::fromUtf8(bytes);
    }
    std::vector<int> numbers;
    for (const STRING& line : text.split(u'\n', true)) {
        const std::vector<STRING> fields = MessageCatalog::splitFields(line.trim());
        try {
            if (!fields.empty()) numbers.push_back(fields[0].toInt());
        } catch (const IDSException&) {
        }
    }

    size_t total = 0;
    for (int number : numbers) {
        const CatalogRecord* r = catalog.find(number);
        if (r == nullptr) continue;
        if (r->number != number) std::abort();
        total += catalog.format(number).length();
        total += catalog.format(number, 7, u"text", -3).length();
        total += catalog.format(number, "narrow", 2.5, 42u, static_cast<const void*>(r)).length();
        total += MessageType::toText(MessageType::fromText(r->types)).length();
        total += Severity::toText(Severity::fromText(r->severity)).length();
        total += filterModeToText(filterModeFromText(r->filterMode)).length();
        total += sendFlagToText(sendFlagFromText(r->sendFlag)).length();
    }
    total += catalog.format(-2147483647 - 1, u"x").length();
    g_sink = total;  // keeps the lookups from being optimised away
    return 0;
}
