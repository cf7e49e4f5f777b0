// The properties readers on arbitrary file contents: the strict reader
// (Utils::getProperties, which rejects what is not a pair), the line reader,
// and the tolerant reader of agent.ini (AgentConfig::readIniFileInMem).
//
// With ZELIPS_FUZZ_WRITE_BACK=1 in the environment, whatever the tolerant
// reader accepts is also written as agent.ini is written and read back: the
// written file must verify and give the same model. That costs a full
// agent.ini write and read per input, about a hundred times the rest, so
// scripts/fuzz uses it to replay the corpus, not to fuzz.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "config/agent_config.h"
#include "foundation/ids_exception.h"
#include "foundation/process_role.h"
#include "foundation/utils.h"
#include "fuzz_support.h"

namespace {

STRING scratchFile(const char* name) { return STRING::fromUtf8(fuzz::scratchDir() + "/" + name); }

[[noreturn]] void fail(const char* what, const STRING& first, const STRING& second) {
    std::fprintf(stderr, "%s\n--- first:\n%s\n--- second:\n%s\n", what, first.toUtf8().c_str(),
                 second.toUtf8().c_str());
    std::abort();
}

bool g_writeBack = false;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::silenceStdout();
    ProcessRole::set(ProcessRole::ConfigTool);
    AgentConfig::setLockRetrySleep([](int) {});
    // As the program loads agent.ini: what a read sets is not a change.
    AgentConfig::setRecordChanges(false);
    const char* writeBack = std::getenv("ZELIPS_FUZZ_WRITE_BACK");
    g_writeBack = writeBack != nullptr && std::string(writeBack) == "1";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const STRING input = scratchFile("input.ini");
    static const STRING written = scratchFile("written.ini");
    fuzz::writeFile(input.toUtf8(), std::string_view(reinterpret_cast<const char*>(data), size));

    PropertyList pairs;
    try {
        Utils::getProperties(input, pairs);
    } catch (const IDSException&) {
    }
    std::vector<STRING> lines;
    try {
        Utils::readLines(input, lines);
    } catch (const IDSException&) {
    }

    AgentConfig model(input);
    int64_t modified = 0;
    if (!model.readIniFileInMem(modified)) return 0;
    (void)model.isCorrupt(true);
    const STRING first = model.serialise();
    if (!g_writeBack) return 0;
    fuzz::writeFile(written.toUtf8(), "");  // the safe replace only ever replaces a file
    try {
        model.updateIniFile(false, false, written);
    } catch (const IDSException& e) {
        fail("the model could not be written", e.toString(), STRING());
    }
    AgentConfig again(written);
    if (!again.readIniFileInMem(modified)) fail("the written file could not be read", first, STRING());
    if (again.isCorrupt(true)) fail("the written file does not verify", first, again.serialise());
    const STRING second = again.serialise();
    if (first != second) fail("the written file reads back differently", first, second);
    return 0;
}
