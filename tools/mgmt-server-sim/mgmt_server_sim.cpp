// mgmt_server_sim: an HTTPS management server for the tests of the agent's
// message protocol. It answers every request by a script and writes down
// every request it receives.
//
// Usage:
//   mgmt_server_sim --cert FILE --key FILE [--host ADDR] [--port N]
//                   [--scenario FILE] [--record FILE]
//                   [--tls-min V] [--tls-max V] [--lifetime SECONDS]
//
//   --host      address to listen on (default 127.0.0.1)
//   --port      port; 0 (the default) picks a free one
//   --tls-min/--tls-max  protocol range, V one of 1.0 1.1 1.2 1.3; either
//               option also lowers OpenSSL's security level to 0 so that
//               TLS 1.0 and 1.1 can be offered; below 1.2 the server prefers
//               RSA key exchange, which a client with OpenSSL's default
//               security level accepts over TLS 1.0/1.1 (a signed key
//               exchange would need MD5-SHA1, which such a client refuses)
//   --lifetime  the server stops by itself after this many seconds (300)
//
// The first line on standard output is "port N" (the port listened on); the
// server then runs until it is killed or its lifetime ends. Errors go to
// standard error; a bad command line or scenario exits with status 2.
//
// Scenario file (text, one directive a line, "#" starts a comment line):
//
//   [WORD]        starts one reply for requests whose URL word (the last
//                 component of the path, e.g. "testConnection", "register")
//                 is WORD; "[/full/path]" matches the whole path instead and
//                 "[*]" any request without a reply of its own. Several
//                 blocks for the same WORD are used one after the other for
//                 its requests; the last one then answers all further ones.
//   status N      HTTP status (default 200)
//   error N       reply header "Corvane-Error: N"
//   charset NAME  reply header "Corvane-Charset: NAME"; with "UTF-16LE" the
//                 stacktrace texts of this reply are sent as UTF-16LE
//   header NAME: VALUE   any further reply header line
//   delay MS      wait MS milliseconds before answering (or closing)
//   close         close the connection without any answer
//   properties    a "text/plain" "properties" section; the following lines,
//                 up to a line "end", are its body lines, each sent as it
//                 stands followed by a line feed
//   flag NAME     shorthand for a properties section holding NAME=true
//   stacktrace TEXT   a "text/plain" "stacktrace" section with TEXT
//   xml TEXT          a "text/xml" section with TEXT
//   binary TYPE DATA  a "binary/zip" section of type TYPE (e.g. policy,
//                 zipdata, logrule)
//   section FORMAT TYPE DATA   a section with any format and type words
//   no-eof        leave out the closing "EOF_FLAG" line
//   body TEXT     send TEXT as the whole body instead of sections
//   body-file PATH   send the file's bytes as the whole body
//
// TEXT may hold the escapes \n \r \t \\ and \xHH. DATA is "hex:0a1b..",
// "text:TEXT" or "file:PATH". Relative paths are taken from the scenario
// file's folder. Sections are encoded as the agent reads them:
// "Data-Format=F", "Data-Type=T", "Data-Length=N" lines, an empty line, the
// N body bytes, one line feed; after the last section "EOF_FLAG" and a line
// feed. Without a scenario, or for a request that no block matches, the reply
// is status 200 with the body "EOF_FLAG\n".
//
// Example:
//   [register]
//   error 300
//   stacktrace database not ready
//   [register]
//   properties
//   guid=4f1c-77
//   end
//
// Record file: for every request, as soon as it has been read (before the
// reply), a block of lines is appended and flushed:
//   request N              N counts from 1
//   tls VERSION            e.g. TLSv1.2
//   method METHOD
//   path PATH              e.g. /zelshield/agent/testConnection
//   word WORD
//   header NAME: VALUE     one line per request header (in name order)
//   body-length N
//   body-hex HEX           the body bytes, two lower-case hex digits each
//   end
#include <httplib.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Section {
    std::string format;
    std::string type;
    std::string body;
};

struct Reply {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    bool wide = false;
    int delayMs = 0;
    bool close = false;
    std::vector<Section> sections;
    bool eof = true;
    bool raw = false;
    std::string rawBody;
};

struct ScriptError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::string unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c != '\\' || i + 1 == text.size()) {
            out += c;
            continue;
        }
        char e = text[++i];
        switch (e) {
        case 'n': out += '\n'; break;
        case 'r': out += '\r'; break;
        case 't': out += '\t'; break;
        case '\\': out += '\\'; break;
        case 'x':
            if (i + 2 < text.size() && std::isxdigit(static_cast<unsigned char>(text[i + 1])) &&
                std::isxdigit(static_cast<unsigned char>(text[i + 2]))) {
                out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
                i += 2;
                break;
            }
            throw ScriptError("bad \\x escape in: " + text);
        default:
            throw ScriptError(std::string("unknown escape \\") + e + " in: " + text);
        }
    }
    return out;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw ScriptError("cannot read " + path);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string resolve(const std::string& dir, const std::string& path) {
    if (path.empty() || path[0] == '/' || dir.empty()) return path;
    return dir + "/" + path;
}

std::string hexDecode(const std::string& hex) {
    if (hex.size() % 2 != 0) throw ScriptError("odd number of hex digits: " + hex);
    std::string out;
    for (size_t i = 0; i < hex.size(); i += 2) {
        if (!std::isxdigit(static_cast<unsigned char>(hex[i])) ||
            !std::isxdigit(static_cast<unsigned char>(hex[i + 1])))
            throw ScriptError("not hex: " + hex);
        out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return out;
}

std::string data(const std::string& source, const std::string& dir) {
    if (source.rfind("hex:", 0) == 0) return hexDecode(source.substr(4));
    if (source.rfind("text:", 0) == 0) return unescape(source.substr(5));
    if (source.rfind("file:", 0) == 0) return readFile(resolve(dir, source.substr(5)));
    throw ScriptError("data must be hex:, text: or file:, not: " + source);
}

// UTF-8 to UTF-16LE bytes.
std::string utf16le(const std::string& text) {
    std::string out;
    auto unit = [&out](unsigned u) {
        out += static_cast<char>(u & 0xff);
        out += static_cast<char>(u >> 8);
    };
    for (size_t i = 0; i < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        unsigned cp;
        size_t n;
        if (c < 0x80) { cp = c; n = 1; }
        else if ((c >> 5) == 6) { cp = c & 0x1f; n = 2; }
        else if ((c >> 4) == 14) { cp = c & 0x0f; n = 3; }
        else if ((c >> 3) == 30) { cp = c & 0x07; n = 4; }
        else throw ScriptError("invalid UTF-8 in: " + text);
        if (i + n > text.size()) throw ScriptError("truncated UTF-8 in: " + text);
        for (size_t k = 1; k < n; ++k) cp = (cp << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3f);
        i += n;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            unit(0xd800 + (cp >> 10));
            unit(0xdc00 + (cp & 0x3ff));
        } else {
            unit(cp);
        }
    }
    return out;
}

// "word rest of line" -> word and the rest (after one run of blanks).
std::pair<std::string, std::string> split(const std::string& line) {
    size_t sp = line.find_first_of(" \t");
    if (sp == std::string::npos) return {line, ""};
    size_t rest = line.find_first_not_of(" \t", sp);
    return {line.substr(0, sp), rest == std::string::npos ? "" : line.substr(rest)};
}

int toInt(const std::string& text, const std::string& what) {
    try {
        size_t used = 0;
        int v = std::stoi(text, &used);
        if (used == text.size()) return v;
    } catch (const std::exception&) {
    }
    throw ScriptError(what + " needs a number, not: " + text);
}

class Scenario {
public:
    void load(const std::string& path) {
        std::ifstream in(path);
        if (!in) throw ScriptError("cannot read scenario " + path);
        size_t slash = path.rfind('/');
        std::string dir = slash == std::string::npos ? "" : path.substr(0, slash);
        std::string line;
        int number = 0;
        Reply* reply = nullptr;
        try {
            while (std::getline(in, line)) {
                ++number;
                if (!line.empty() && line.back() == '\r') line.pop_back();
                if (line.empty() || line[0] == '#') continue;
                if (line.front() == '[' && line.back() == ']') {
                    std::string key = line.substr(1, line.size() - 2);
                    replies_[key].emplace_back();
                    reply = &replies_[key].back();
                    continue;
                }
                if (!reply) throw ScriptError("directive before the first [WORD]");
                auto [cmd, rest] = split(line);
                if (cmd == "status") {
                    reply->status = toInt(rest, "status");
                } else if (cmd == "error") {
                    reply->headers.emplace_back("Corvane-Error", rest);
                } else if (cmd == "charset") {
                    reply->headers.emplace_back("Corvane-Charset", rest);
                    reply->wide = rest == "UTF-16LE";
                } else if (cmd == "header") {
                    size_t colon = rest.find(':');
                    if (colon == std::string::npos || colon == 0) throw ScriptError("header needs NAME: VALUE");
                    size_t v = rest.find_first_not_of(' ', colon + 1);
                    reply->headers.emplace_back(rest.substr(0, colon), v == std::string::npos ? "" : rest.substr(v));
                } else if (cmd == "delay") {
                    reply->delayMs = toInt(rest, "delay");
                } else if (cmd == "close") {
                    reply->close = true;
                } else if (cmd == "properties") {
                    Section s{"text/plain", "properties", ""};
                    bool ended = false;
                    while (std::getline(in, line)) {
                        ++number;
                        if (!line.empty() && line.back() == '\r') line.pop_back();
                        if (line == "end") { ended = true; break; }
                        s.body += line + "\n";
                    }
                    if (!ended) throw ScriptError("properties without a closing \"end\" line");
                    reply->sections.push_back(std::move(s));
                } else if (cmd == "flag") {
                    reply->sections.push_back({"text/plain", "properties", rest + "=true\n"});
                } else if (cmd == "stacktrace") {
                    reply->sections.push_back({"text/plain", "stacktrace", unescape(rest)});
                } else if (cmd == "xml") {
                    reply->sections.push_back({"text/xml", "", unescape(rest)});
                } else if (cmd == "binary") {
                    auto [type, source] = split(rest);
                    reply->sections.push_back({"binary/zip", type, data(source, dir)});
                } else if (cmd == "section") {
                    auto [format, more] = split(rest);
                    auto [type, source] = split(more);
                    reply->sections.push_back({format, type, data(source, dir)});
                } else if (cmd == "no-eof") {
                    reply->eof = false;
                } else if (cmd == "body") {
                    reply->raw = true;
                    reply->rawBody = unescape(rest);
                } else if (cmd == "body-file") {
                    reply->raw = true;
                    reply->rawBody = readFile(resolve(dir, rest));
                } else {
                    throw ScriptError("unknown directive \"" + cmd + "\"");
                }
            }
        } catch (const ScriptError& e) {
            throw ScriptError(path + ":" + std::to_string(number) + ": " + e.what());
        }
        // Text sections become UTF-16LE only once the whole reply is known.
        for (auto& entry : replies_)
            for (auto& r : entry.second)
                for (auto& s : r.sections)
                    if (r.wide && s.type == "stacktrace") s.body = utf16le(s.body);
    }

    // The reply for a request to path: by full path, by word, then "*".
    Reply next(const std::string& path, const std::string& word) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const std::string& key : {path, word, std::string("*")}) {
            auto it = replies_.find(key);
            if (it == replies_.end()) continue;
            size_t& used = used_[key];
            const Reply& r = it->second[std::min(used, it->second.size() - 1)];
            ++used;
            return r;
        }
        return Reply{};
    }

private:
    std::mutex mutex_;
    std::map<std::string, std::vector<Reply>> replies_;
    std::map<std::string, size_t> used_;
};

std::string encode(const Reply& r) {
    if (r.raw) return r.rawBody;
    std::string out;
    for (const Section& s : r.sections) {
        out += "Data-Format=" + s.format + "\n";
        out += "Data-Type=" + s.type + "\n";
        out += "Data-Length=" + std::to_string(s.body.size()) + "\n\n";
        out += s.body;
        out += "\n";
    }
    if (r.eof) out += "EOF_FLAG\n";
    return out;
}

class Recorder {
public:
    explicit Recorder(const std::string& path) {
        if (path.empty()) return;
        out_ = std::fopen(path.c_str(), "ab");
        if (!out_) throw ScriptError("cannot open record file " + path);
    }
    ~Recorder() {
        if (out_) std::fclose(out_);
    }
    void record(const httplib::Request& req, const std::string& word) {
        if (!out_) return;
        std::string text = std::string("tls ") + (req.ssl ? SSL_get_version(req.ssl) : "none") + "\n";
        text += "method " + req.method + "\npath " + req.path + "\nword " + word + "\n";
        for (const auto& [name, value] : req.headers) {
            // httplib's own entries for the peer, not lines the client sent.
            if (name == "REMOTE_ADDR" || name == "REMOTE_PORT" || name == "LOCAL_ADDR" ||
                name == "LOCAL_PORT")
                continue;
            text += "header " + name + ": " + value + "\n";
        }
        text += "body-length " + std::to_string(req.body.size()) + "\nbody-hex ";
        static const char digits[] = "0123456789abcdef";
        for (unsigned char c : req.body) {
            text += digits[c >> 4];
            text += digits[c & 15];
        }
        text += "\nend\n";
        std::lock_guard<std::mutex> lock(mutex_);
        text = "request " + std::to_string(++count_) + "\n" + text;
        std::fwrite(text.data(), 1, text.size(), out_);
        std::fflush(out_);
    }

private:
    std::FILE* out_ = nullptr;
    std::mutex mutex_;
    int count_ = 0;
};

int tlsVersion(const std::string& v) {
    if (v == "1.0") return TLS1_VERSION;
    if (v == "1.1") return TLS1_1_VERSION;
    if (v == "1.2") return TLS1_2_VERSION;
    if (v == "1.3") return TLS1_3_VERSION;
    throw ScriptError("TLS version must be 1.0, 1.1, 1.2 or 1.3, not: " + v);
}

int usage() {
    std::cerr << "usage: mgmt_server_sim --cert FILE --key FILE [--host ADDR] [--port N]\n"
                 "                       [--scenario FILE] [--record FILE]\n"
                 "                       [--tls-min V] [--tls-max V] [--lifetime SECONDS]\n";
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    std::map<std::string, std::string> opt{{"--host", "127.0.0.1"}, {"--port", "0"}, {"--lifetime", "300"}};
    for (int i = 1; i < argc; i += 2) {
        std::string name = argv[i];
        static const char* known[] = {"--cert", "--key", "--host", "--port", "--scenario",
                                      "--record", "--tls-min", "--tls-max", "--lifetime"};
        bool ok = false;
        for (const char* k : known) ok = ok || name == k;
        if (!ok || i + 1 >= argc) return usage();
        opt[name] = argv[i + 1];
    }
    if (!opt.count("--cert") || !opt.count("--key")) return usage();

    // A peer that hangs up must not end the server through SIGPIPE.
    signal(SIGPIPE, SIG_IGN);

    Scenario scenario;
    std::unique_ptr<Recorder> recorder;
    int port = 0, lifetime = 0, tlsMin = 0, tlsMax = 0;
    try {
        if (opt.count("--scenario")) scenario.load(opt["--scenario"]);
        recorder = std::make_unique<Recorder>(opt.count("--record") ? opt["--record"] : "");
        port = toInt(opt["--port"], "--port");
        lifetime = toInt(opt["--lifetime"], "--lifetime");
        if (opt.count("--tls-min")) tlsMin = tlsVersion(opt["--tls-min"]);
        if (opt.count("--tls-max")) tlsMax = tlsVersion(opt["--tls-max"]);
    } catch (const ScriptError& e) {
        std::cerr << "mgmt_server_sim: " << e.what() << "\n";
        return 2;
    }

    httplib::SSLServer server(opt["--cert"].c_str(), opt["--key"].c_str());
    if (!server.is_valid()) {
        std::cerr << "mgmt_server_sim: cannot use certificate " << opt["--cert"] << " with key " << opt["--key"]
                  << "\n";
        return 2;
    }
    if (tlsMin || tlsMax) {
        SSL_CTX* ctx = server.ssl_context();
        SSL_CTX_set_security_level(ctx, 0);
        if (tlsMax && tlsMax < TLS1_2_VERSION) {
            // RSA key exchange first: its handshake carries no MD5-SHA1
            // signature, which clients at OpenSSL's default security level
            // refuse; so they can still talk TLS 1.0/1.1 when they allow it.
            SSL_CTX_set_cipher_list(ctx, "AES128-SHA:AES256-SHA:DEFAULT:@SECLEVEL=0");
            SSL_CTX_set_options(ctx, SSL_OP_CIPHER_SERVER_PREFERENCE);
        } else {
            SSL_CTX_set_cipher_list(ctx, "DEFAULT:@SECLEVEL=0");
        }
        SSL_CTX_set_min_proto_version(ctx, tlsMin ? tlsMin : TLS1_VERSION);
        SSL_CTX_set_max_proto_version(ctx, tlsMax ? tlsMax : TLS1_3_VERSION);
    }

    auto handle = [&](const httplib::Request& req, httplib::Response& res) {
        size_t slash = req.path.rfind('/');
        std::string word = slash == std::string::npos ? req.path : req.path.substr(slash + 1);
        recorder->record(req, word);
        Reply reply = scenario.next(req.path, word);
        if (reply.delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(reply.delayMs));
        if (reply.close) {
            // No answer at all: the peer sees the connection end.
            if (req.ssl) shutdown(SSL_get_fd(req.ssl), SHUT_RDWR);
            res.set_header("Connection", "close");
            return;
        }
        res.status = reply.status;
        for (const auto& [name, value] : reply.headers) res.set_header(name, value);
        res.set_content(encode(reply), "application/x-corvane");
    };
    server.Post(".*", handle);
    server.Get(".*", handle);
    server.Put(".*", handle);

    int bound = port == 0 ? server.bind_to_any_port(opt["--host"]) : (server.bind_to_port(opt["--host"], port) ? port : -1);
    if (bound <= 0) {
        std::cerr << "mgmt_server_sim: cannot listen on " << opt["--host"] << " port " << port << "\n";
        return 1;
    }
    std::printf("port %d\n", bound);
    std::fflush(stdout);

    std::thread watchdog([&server, lifetime] {
        std::this_thread::sleep_for(std::chrono::seconds(lifetime));
        std::cerr << "mgmt_server_sim: lifetime of " << lifetime << "s over, stopping\n";
        server.stop();
    });
    watchdog.detach();
    server.listen_after_bind();
    return 0;
}
