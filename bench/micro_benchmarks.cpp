// Micro-benchmarks of the hot paths: properties parsing (strict and
// tolerant), load + verify + serialise of agent.ini, request serialisation
// and reply parsing with a large binary section, and the checksum.
//
// Throughput is reported as bytes per second of input. The sizes are chosen
// so that every case runs in well under a second; --benchmark_min_time=0.01
// gives a quick pass.
#include <benchmark/benchmark.h>

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "comm/https_message_generator.h"
#include "comm/protocol.h"
#include "comm/server_response.h"
#include "config/agent_config.h"
#include "foundation/file_util.h"
#include "foundation/process_role.h"
#include "foundation/utils.h"

namespace {

// A scratch folder for the files of one benchmark process.
const std::string& scratch() {
    static const std::string dir = [] {
        char pattern[] = "/tmp/zelips-bench-XXXXXX";
        const char* made = mkdtemp(pattern);
        if (made == nullptr) {
            std::perror("mkdtemp");
            std::exit(1);
        }
        return std::string(made);
    }();
    return dir;
}

void writeFile(const std::string& path, const std::string& bytes) {
    FILE* fp = std::fopen(path.c_str(), "wb");
    if (fp == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), fp) != bytes.size() || std::fclose(fp) != 0) {
        std::perror(path.c_str());
        std::exit(1);
    }
}

// "[Other]" pairs of the shape a site's own settings take, about `bytes` of
// them.
std::string otherPairs(size_t bytes) {
    std::string out;
    char line[160];
    for (unsigned i = 0; out.size() < bytes; ++i) {
        const int n = std::snprintf(line, sizeof line,
                                    "site.policy.rule.%06u=allow /opt/site/bin/tool-%u --profile standard-%u\r\n", i,
                                    i % 977, i % 13);
        out.append(line, static_cast<size_t>(n));
    }
    return out;
}

// A properties file: a few sections of ordinary settings, then the pairs.
std::string propertiesText(size_t bytes) {
    return "[Agent]\r\nagent.name=bench-host\r\nagent.charset=UTF-8\r\n"
           "[AutoRetrans]\r\nautoretrans.enabled=true\r\nautoretrans.interval=600\r\n"
           "[Other]\r\n" +
           otherPairs(bytes);
}

// An installation folder whose agent.ini of about `bytes` was written by the
// configuration store itself (so it is in the store's own order and carries
// a valid checksum). Returns the path of agent.ini.
std::string installation(size_t bytes) {
    const std::string dir = scratch() + "/ips-" + std::to_string(bytes);
    const std::string ini = dir + "/agent.ini";
    if (access(ini.c_str(), F_OK) == 0) return ini;
    if (!Directory::createAll(STRING::fromUtf8(dir))) {
        std::perror(dir.c_str());
        std::exit(1);
    }
    writeFile(ini, propertiesText(bytes));
    AgentConfig model(STRING::fromUtf8(ini));
    int64_t modified = 0;
    if (!model.readIniFileInMem(modified)) std::exit(1);
    const std::string text = model.serialise().toUtf8();
    writeFile(ini, text);
    writeFile(dir + "/fallback.ini", text);
    return ini;
}

void setUpProcess() {
    ProcessRole::set(ProcessRole::ConfigTool);
    AgentType::record(1);
}

// ---- Properties parsing

void BM_StrictProperties(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    const std::string path = scratch() + "/strict-" + std::to_string(size) + ".ini";
    writeFile(path, propertiesText(size));
    const STRING file = STRING::fromUtf8(path);
    for (auto _ : state) {
        PropertyList pairs;
        Utils::getProperties(file, pairs);
        benchmark::DoNotOptimize(pairs.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(fileSize(file)));
}
BENCHMARK(BM_StrictProperties)->Arg(500 << 10)->Unit(benchmark::kMillisecond);

void BM_TolerantProperties(benchmark::State& state) {
    setUpProcess();
    const std::string path = installation(static_cast<size_t>(state.range(0)));
    const STRING file = STRING::fromUtf8(path);
    AgentConfig model(file);
    for (auto _ : state) {
        int64_t modified = 0;
        benchmark::DoNotOptimize(model.readIniFileInMem(modified));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(fileSize(file)));
}
BENCHMARK(BM_TolerantProperties)->Arg(500 << 10)->Unit(benchmark::kMillisecond);

// ---- agent.ini: load (with the checksum check) and serialise

void BM_LoadVerifySerialise(benchmark::State& state) {
    setUpProcess();
    const std::string path = installation(static_cast<size_t>(state.range(0)));
    const STRING file = STRING::fromUtf8(path);
    for (auto _ : state) {
        AgentConfig model(file);
        bool usedFallback = false;
        if (!model.loadIniFile(usedFallback) || usedFallback) state.SkipWithError("agent.ini did not verify");
        const STRING text = model.serialise();
        benchmark::DoNotOptimize(text.c_str());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(fileSize(file)));
}
BENCHMARK(BM_LoadVerifySerialise)->Arg(2 << 10)->Arg(500 << 10)->Arg(5 << 20)->Unit(benchmark::kMillisecond);

// ---- Messages to and from the management server

ByteArray binaryPayload(size_t size) {
    ByteArray bytes(size);
    for (size_t i = 0; i < size; ++i) bytes.data()[i] = static_cast<uint8_t>(i * 131u + 7u);
    return bytes;
}

// A request carrying a policy archive: a properties section and the bytes.
void fillRequest(HttpsMessageGenerator& request, size_t size) {
    request.addProperties({NameValuePair(u"policy.download", u"true"), NameValuePair(u"policy.id", u"4711")});
    request.addBinary(protocol::kTypePolicy, binaryPayload(size));
}

void BM_RequestSerialise(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    HttpsMessageGenerator request(u"UTF-8");
    fillRequest(request, size);
    for (auto _ : state) {
        const ByteArray body = request.serialise();
        benchmark::DoNotOptimize(body.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(size));
}
BENCHMARK(BM_RequestSerialise)->Arg(16 << 20)->Unit(benchmark::kMillisecond);

// The reply as the transport sees it: the body arrives in 16 KB pieces, then
// it is parsed into sections and the archive is looked up.
void BM_ReplyParse(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    HttpsMessageGenerator reply(u"UTF-8");
    fillRequest(reply, size);
    const ByteArray body = reply.serialise();
    const std::string_view wire(reinterpret_cast<const char*>(body.data()), body.length());
    ServerResponse response;
    for (auto _ : state) {
        response.reset();
        for (size_t at = 0; at < wire.size(); at += 16384) response.addBodyChunk(wire.substr(at, 16384));
        response.parseBody();
        const ByteArray* archive = response.findBinaryByFlag(u"policy.download");
        if (archive == nullptr || archive->length() != size) state.SkipWithError("archive not found");
        benchmark::DoNotOptimize(archive);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(wire.size()));
}
BENCHMARK(BM_ReplyParse)->Arg(16 << 20)->Unit(benchmark::kMillisecond);

// ---- The checksum line's digest

void BM_Checksum(benchmark::State& state) {
    const size_t size = static_cast<size_t>(state.range(0));
    const STRING text = STRING::fromUtf8(otherPairs(size));
    for (auto _ : state) {
        const STRING sum = AgentConfig::checksumOf(text);
        benchmark::DoNotOptimize(sum.c_str());
    }
    // The digest runs over the UTF-16LE bytes: two per character.
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(text.length() * 2));
}
BENCHMARK(BM_Checksum)->Arg(4 << 20)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // The scratch files go with the process.
    const std::string cleanup = "rm -rf '" + scratch() + "'";
    return std::system(cleanup.c_str()) == 0 ? 0 : 1;
}
