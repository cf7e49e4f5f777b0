// The management server's reply: header lines and body as they arrive from
// the transport, then the parse of the body into sections and every
// question the program asks of a parsed reply.
//
// Input: one mode byte, then the header lines, "\r\n\r\n", then the body.
// The headers arrive one line per chunk, as libcurl hands them over, and
// must parse the same as the whole block in one chunk. The mode byte sets
// the size of the body's chunks (0: one chunk).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "comm/server_response.h"

namespace {

void feedHeaderLines(ServerResponse& r, std::string_view headers) {
    while (!headers.empty()) {
        size_t n = headers.find('\n');
        n = n == std::string_view::npos ? headers.size() : n + 1;
        std::string copy(headers.substr(0, n));
        if (ServerResponse::headerInput(copy.data(), 1, copy.size(), &r) != copy.size()) std::abort();
        headers.remove_prefix(n);
    }
}

void feedBody(ServerResponse& r, std::string_view body, size_t chunk) {
    while (!body.empty()) {
        const size_t n = chunk == 0 ? body.size() : std::min(chunk, body.size());
        std::string copy(body.substr(0, n));
        if (ServerResponse::bodyInput(copy.data(), copy.size(), 1, &r) != copy.size()) std::abort();
        body.remove_prefix(n);
    }
}

bool sameHeaders(const ServerResponse& a, const ServerResponse& b) {
    if (a.headers().size() != b.headers().size() || a.errorCode() != b.errorCode() || a.wide() != b.wide())
        return false;
    for (size_t i = 0; i < a.headers().size(); ++i)
        if (a.headers()[i].name != b.headers()[i].name || a.headers()[i].value != b.headers()[i].value) return false;
    return true;
}

}  // namespace

static volatile size_t g_sink;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const unsigned mode = data[0];
    const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    const size_t split = rest.find("\r\n\r\n");
    const std::string_view headers = split == std::string_view::npos ? rest : rest.substr(0, split + 2);
    const std::string_view body = split == std::string_view::npos ? std::string_view() : rest.substr(split + 4);

    ServerResponse r;
    r.reset();
    feedHeaderLines(r, headers);
    ServerResponse whole;
    whole.addHeaderChunk(headers);
    if (!sameHeaders(r, whole)) {
        std::fprintf(stderr, "header lines parse differently in one chunk\n");
        std::abort();
    }
    feedBody(r, body, mode);
    r.parseBody();

    size_t total = 0;
    for (size_t i = 0; i < r.sectionCount(); ++i) {
        const MessageSection& s = r.section(i);
        total += s.pairs().size() + s.text().length() + s.bytes().length();
        total += r.errorDescription(s).length();
        for (const auto& p : s.pairs())
            if (s.findValue(p.name) == nullptr) std::abort();
    }
    total += r.stackTrace().length();
    for (const char16_t* flag : {u"policy.update", u"zipdata", u""})
        if (const ByteArray* b = r.findBinaryByFlag(flag)) total += b->length();
    if (const STRING* h = r.findHeader(u"Corvane-Error")) total += h->length();

    // A second parse of the same body replaces the first.
    const size_t count = r.sectionCount();
    r.parseBody();
    if (r.sectionCount() != count) std::abort();
    g_sink = total;  // keeps the lookups from being optimised away
    return 0;
}
