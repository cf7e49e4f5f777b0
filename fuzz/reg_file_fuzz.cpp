// The registry file reader (the Linux registry store, and the fixtures that
// seed Wine) on arbitrary bytes. What the writer makes of the result must
// read back to the same keys and values: a store that the program rewrites
// on every registry change may lose nothing the second time round. (The
// first write may: text data that is no valid UTF-16 does not survive it,
// and such data is then written differently the second time.)
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "foundation/reg_file.h"

namespace {

[[noreturn]] void fail(const char* what, const std::string& first, const std::string& second) {
    std::fprintf(stderr, "%s\n--- first:\n%s\n--- second:\n%s\n", what, first.c_str(), second.c_str());
    std::abort();
}

bool sameContent(const RegFile& a, const RegFile& b) {
    if (a.keys().size() != b.keys().size()) return false;
    for (size_t i = 0; i < a.keys().size(); ++i) {
        const RegFileKey& x = a.keys()[i];
        const RegFileKey& y = b.keys()[i];
        if (x.path != y.path || x.values.size() != y.values.size()) return false;
        for (size_t j = 0; j < x.values.size(); ++j) {
            if (x.values[j].name != y.values[j].name || x.values[j].type != y.values[j].type ||
                x.values[j].data != y.values[j].data)
                return false;
        }
    }
    return true;
}

}  // namespace

static volatile size_t g_sink;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    RegFile file = RegFile::parse(std::string_view(reinterpret_cast<const char*>(data), size));
    const std::string first = file.write();
    RegFile again = RegFile::parse(first);
    if (again.skippedLines() != 0) fail("the written file has lines the reader skips", first, std::string());
    const std::string second = again.write();
    if (!sameContent(again, RegFile::parse(second))) fail("the written file reads back differently", first, second);

    size_t total = 0;
    const std::vector<RegFileKey> keys = file.keys();
    for (const RegFileKey& key : keys) {
        if (key.path != RegFile::normalizePath(key.path)) fail("a key path is not normalised", key.path.toUtf8(), "");
        if (file.findKey(key.path) == nullptr || !file.keyExists(key.path))
            fail("a listed key is not found", key.path.toUtf8(), "");
        total += file.subkeyNames(key.path).size() + file.hasSubkeys(key.path);
        for (const RegFileValue& v : key.values) {
            const RegFileValue* found = file.findKey(key.path)->findValue(v.name);
            if (found == nullptr) fail("a listed value is not found", key.path.toUtf8(), v.name.toUtf8());
        }
    }
    // Changes on the parsed file: a value set on each key, then every key removed.
    for (const RegFileKey& key : keys) {
        file.addKey(key.path).setValue(u"fuzz", regtype::Sz, regStringBytes(u"x"));
        const size_t at = key.path.rfind(u'\\');
        if (at != STRING::npos) total += file.subkeyNames(key.path.substr(0, at)).size();
    }
    for (const RegFileKey& key : keys) file.removeTree(key.path);
    if (!file.keys().empty()) fail("keys are left after removing every key", file.write(), "");
    g_sink = total;  // keeps the lookups from being optimised away
    return 0;
}
