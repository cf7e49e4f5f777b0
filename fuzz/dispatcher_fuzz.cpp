// The whole program on arbitrary command lines, in a throw-away copy of the
// demo installation that is put back after every run. The installation has
// an edit metadata file and a certificate file, so that -edit and -certfile
// get past their first checks.
//
// Input: the words after the program name, separated by NUL bytes. A first
// word "@N" (N a number) is no argument: it sets the installation's
// AgentType to N for the run (1 server managed, 2, 3 local whitelist, or
// anything else). Inputs that hold a path separator are rejected: they could
// name files outside the installation (-certfile reads any file, and the
// content updates accept any folder).
//
// Whatever the words hold, the agent.ini a run leaves must verify: a value
// is written as one line, so that its text can never read back as other
// lines.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "config/agent_config.h"
#include "configtool/startup.h"
#include "foundation/message_catalog.h"
#include "foundation/process_role.h"
#include "fuzz_support.h"

namespace {

std::string g_registry;  // the installation's registry file as copied

bool isAgentTypeWord(std::string_view w) {
    if (w.size() < 2 || w.size() > 4 || w[0] != '@') return false;
    for (char c : w.substr(1))
        if (c < '0' || c > '9') return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::silenceStdout();
    fuzz::Installation& inst = fuzz::Installation::instance();
    inst.addFile("IPS/configtool_metadata.ini",
                 "[FileList]\r\nids=ids.ini\r\nlist=trusted.ini\r\nflat=flat.ini\r\n"
                 "[ids]\r\npath=ids.ini\r\nsection=true\r\ncasesensitive=false\r\n"
                 "[list]\r\npath=trusted.ini\r\nsection=true\r\ncasesensitive=false\r\n"
                 "trusted.dynamiclist.section=true\r\ntrusted.dynamiclist.base=item\r\n"
                 "trusted.dynamiclist.counter=count\r\n"
                 "[flat]\r\npath=flat.ini\r\nsection=false\r\n");
    inst.addFile("IPS/ids.ini", "[Event Management]\r\nEventFile=events.csv\r\nLevel=2\r\n[Network]\r\nPort=9000\r\n");
    inst.addFile("IPS/trusted.ini", "[Trusted]\r\ncount=2\r\nitem0001=alpha\r\nitem0002=Beta\r\n");
    inst.addFile("IPS/flat.ini", "a=1\r\nb=2\r\n");
    inst.addFile("IPS/ca.pem", "-----BEGIN CERTIFICATE-----\r\nMIIB\r\n-----END CERTIFICATE-----\r\n");
    std::FILE* f = std::fopen(inst.path("registry.reg").c_str(), "rb");
    char buf[4096];
    for (size_t n; f != nullptr && (n = std::fread(buf, 1, sizeof buf, f)) > 0;) g_registry.append(buf, n);
    if (f != nullptr) std::fclose(f);
    if (g_registry.find("\"AgentType\"=\"1\"") == std::string::npos) std::abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    if (fuzz::namesOtherFolder(input)) return -1;
    fuzz::Installation& inst = fuzz::Installation::instance();
    std::vector<std::string_view> words;
    if (size > 0) words = fuzz::split(input, std::string_view("\0", 1));
    if (!words.empty() && isAgentTypeWord(words[0])) {
        std::string registry = g_registry;
        const std::string line = "\"AgentType\"=\"1\"";
        const std::string type(words[0].substr(1));
        registry.replace(registry.find(line), line.size(), "\"AgentType\"=\"" + type + "\"");
        // A new file: the registry's cache knows a file by its identity.
        std::remove(inst.path("registry.reg").c_str());
        fuzz::writeFile(inst.path("registry.reg"), registry);
        words.erase(words.begin());
    }
    std::vector<STRING> argv = {u"zelipsconfig"};
    for (std::string_view word : words) argv.push_back(STRING::fromUtf8(word));
    // The installation type is read once per process; here once per run.
    AgentType::resetForTests();
    runConfigTool(argv);
    {
        AgentConfig written(STRING::fromUtf8(inst.path("IPS/agent.ini")));
        int64_t modified = 0;
        if (written.readIniFileInMem(modified) && written.isCorrupt(true)) {
            std::fprintf(stderr, "the run left an agent.ini that does not verify\n");
            std::abort();
        }
    }
    // As a new process would start: with no catalog read or waiting to be.
    MessageCatalog::instance().clear();
    inst.restore();
    return 0;
}
