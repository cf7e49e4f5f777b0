#include "comm/mgmt_sim_test_support.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#ifdef _WIN32
#include <process.h>
#else
#include <unistd.h>
#endif

namespace mgmt_sim {

namespace {

namespace fs = std::filesystem;

#ifdef _WIN32
constexpr bool kWine = true;
long long processId() { return _getpid(); }
#else
constexpr bool kWine = false;
long long processId() { return getpid(); }
#endif

fs::path fsPath(const STRING& native) { return fs::u8path(native.toUtf8()); }

std::string readAll(const STRING& native) {
    std::ifstream in(fsPath(native), std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

bool exists(const STRING& native) {
    std::error_code ec;
    return fs::exists(fsPath(native), ec);
}

// Polls until the condition holds or the time is up.
template <class F>
bool waitFor(F condition, int timeoutMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

// The shell, as CreateProcess (Wine) or posix_spawn (Linux) finds it.
STRING shellProgram() { return kWine ? nativeOf("/bin/sh") : STRING(u"/bin/sh"); }

std::string sourceDirUnix() {
    const char* env = std::getenv("ZELIPS_SOURCE_DIR");
    return unixOf(STRING::fromUtf8(env && *env ? env : ZELIPS_SOURCE_DIR));
}

// Runs a shell command line to its end (Linux) or until the marker file it
// writes last appears (Wine, where a Unix child cannot be waited for).
bool runShell(const std::string& command, const SharedPath& marker, int timeoutMs) {
    ChildProcess child;
    const std::string line = command + "; echo $? > '" + marker.unix + "'";
    if (!child.start({shellProgram(), u"-c", STRING::fromUtf8(line)})) return false;
    if (!kWine) child.wait();
    if (!waitFor([&] { return !readAll(marker.native).empty(); }, timeoutMs)) return false;
    return readAll(marker.native).rfind("0", 0) == 0;
}

const char* const kCertificateFiles[] = {"ca",    "server",       "otherhost",   "other-ca",
                                         "other-server"};

bool certificatesComplete(const STRING& folder) {
    for (const char* f : kCertificateFiles)
        for (const char* ext : {".pem", ".key"})
            if (!exists(folder + u"/" + STRING::fromUtf8(f) + STRING::fromUtf8(ext))) return false;
    return true;
}

}  // namespace

STRING nativeOf(const std::string& unixPath) {
    if (!kWine) return STRING::fromUtf8(unixPath);
    const STRING path = STRING::fromUtf8(unixPath);
    STRING out = u"Z:";
    for (char16_t c : path.str()) out += c == u'/' ? u'\\' : c;
    return out;
}

std::string unixOf(const STRING& nativePath) {
    std::string p = nativePath.toUtf8();
    if (p.size() >= 2 && (p[0] == 'Z' || p[0] == 'z') && p[1] == ':') p = p.substr(2);
    for (char& c : p)
        if (c == '\\') c = '/';
    return p;
}

std::string simulatorPath(std::string& why) {
    std::string path;
    if (kWine) {
        const char* env = std::getenv("ZELIPS_MGMT_SERVER_SIM");
        path = env && *env ? unixOf(STRING::fromUtf8(env)) : sourceDirUnix() + "/build/linux/bin/mgmt_server_sim";
    } else {
        path = siblingProgram("mgmt_server_sim").toUtf8();
    }
    if (!exists(nativeOf(path))) {
        why = "no management-server simulator at " + path +
              (kWine ? " (set ZELIPS_MGMT_SERVER_SIM to the Linux build's mgmt_server_sim)" : "");
        return std::string();
    }
    return path;
}

SharedPath certificateFolder(std::string& why) {
    // One set per build, shared by every test process of it: making one
    // takes seconds and ctest runs each test case in a process of its own.
    const STRING exeDir = testExecutableDir();
    const std::string folder = unixOf(exeDir).substr(0, unixOf(exeDir).rfind('/')) + "/comm-test-certs";
    const SharedPath result{nativeOf(folder), folder};
    if (certificatesComplete(result.native)) return result;

    // Made beside it and renamed into place, so that no process ever sees a
    // half-written set: the rename fails when another process was quicker.
    const std::string temp = folder + ".tmp-" + std::to_string(processId());
    const SharedPath marker{nativeOf(temp + ".status"), temp + ".status"};
    std::error_code ec;
    fs::remove(fsPath(marker.native), ec);
    const std::string script = sourceDirUnix() + "/scripts/make-test-certs";
    const bool made = runShell("bash '" + script + "' '" + temp + "' > '" + temp + ".log' 2>&1", marker, 120000);
    if (made) fs::rename(fsPath(nativeOf(temp)), fsPath(result.native), ec);
    fs::remove_all(fsPath(nativeOf(temp)), ec);
    fs::remove(fsPath(marker.native), ec);
    fs::remove(fsPath(nativeOf(temp + ".log")), ec);
    if (certificatesComplete(result.native)) return result;
    why = "could not make the test certificates with " + script + " in " + temp;
    return SharedPath{};
}

// ---- Scratch

Scratch::Scratch() {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::string name = std::string("zelips-comm-") + (info ? info->name() : "test") + "-" + std::to_string(processId());
    for (auto& c : name)
        if (c == '/') c = '_';
    const std::string root = kWine ? std::string(std::getenv("TMPDIR") ? std::getenv("TMPDIR") : "/tmp")
                                   : fs::temp_directory_path().u8string();
    path_.unix = root + "/" + name;
    path_.native = nativeOf(path_.unix);
    std::error_code ec;
    fs::remove_all(fsPath(path_.native), ec);
    fs::create_directories(fsPath(path_.native), ec);
}

Scratch::~Scratch() {
    std::error_code ec;
    fs::remove_all(fsPath(path_.native), ec);
}

SharedPath Scratch::file(const std::string& name) const {
    return SharedPath{path_.native + (kWine ? u"\\" : u"/") + STRING::fromUtf8(name), path_.unix + "/" + name};
}

SharedPath Scratch::write(const std::string& name, const std::string& bytes) const {
    const SharedPath p = file(name);
    std::ofstream out(fsPath(p.native), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return p;
}

// ---- Records

const std::string* Request::header(const std::string& name) const {
    auto lower = [](std::string s) {
        for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return s;
    };
    for (const auto& h : headers)
        if (lower(h.first) == lower(name)) return &h.second;
    return nullptr;
}

std::vector<std::string> words(const std::vector<Request>& requests) {
    std::vector<std::string> out;
    for (const auto& r : requests) out.push_back(r.word);
    return out;
}

// A record file's requests.
static std::vector<Request> parseRecord(const std::string& text) {
    std::vector<Request> out;
    std::istringstream in(text);
    std::string line;
    Request* r = nullptr;
    auto after = [&line](size_t n) { return line.size() > n ? line.substr(n) : std::string(); };
    while (std::getline(in, line)) {
        if (line.rfind("request ", 0) == 0) {
            out.emplace_back();
            r = &out.back();
        } else if (r == nullptr) {
            continue;
        } else if (line.rfind("tls ", 0) == 0) {
            r->tls = after(4);
        } else if (line.rfind("method ", 0) == 0) {
            r->method = after(7);
        } else if (line.rfind("path ", 0) == 0) {
            r->path = after(5);
        } else if (line.rfind("word ", 0) == 0) {
            r->word = after(5);
        } else if (line.rfind("header ", 0) == 0) {
            const std::string h = after(7);
            const size_t colon = h.find(": ");
            if (colon != std::string::npos) r->headers.emplace_back(h.substr(0, colon), h.substr(colon + 2));
        } else if (line.rfind("body-hex ", 0) == 0) {
            const std::string hex = after(9);
            for (size_t i = 0; i + 1 < hex.size(); i += 2)
                r->body += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
        }
    }
    return out;
}

// ---- Peers

UnixPeer::~UnixPeer() { stop(); }

bool UnixPeer::start(const Scratch& scratch, const std::string& program, const std::vector<std::string>& args,
                     const SharedPath& out) {
    const SharedPath launch = scratch.write("launch.sh", "echo pid $$\nexec \"$@\"\n");
    std::vector<STRING> argv = {shellProgram(), STRING::fromUtf8(launch.unix), STRING::fromUtf8(program)};
    for (const auto& a : args) argv.push_back(STRING::fromUtf8(a));
    out_ = out;
    if (!process_.start(argv, out.native)) return false;
    waitFor(
        [&] {
            const std::string text = readAll(out.native);
            if (text.rfind("pid ", 0) != 0 || text.find('\n') == std::string::npos) return false;
            pid_ = std::atoll(text.c_str() + 4);
            return true;
        },
        20000);
    return pid_ > 0;
}

bool UnixPeer::signal(const char* name) {
    if (pid_ <= 0) return false;
    const std::string pid = std::to_string(pid_);
    const STRING stat = nativeOf("/proc/" + pid + "/stat");
    // The third field of /proc/PID/stat is the state letter: T stopped,
    // Z ended but not yet reaped.
    auto state = [&]() -> char {
        const std::string text = readAll(stat);
        const size_t close = text.rfind(')');
        return close == std::string::npos || close + 2 >= text.size() ? '\0' : text[close + 2];
    };
    const std::string which(name);
    if (which == "KILL" && !kWine) {
        process_.kill();
        process_.wait();
        pid_ = -1;
        return true;
    }
    ChildProcess kill;
    if (!kill.start({shellProgram(), u"-c", STRING::fromUtf8("kill -" + which + " " + pid)})) return false;
    if (!kWine) kill.wait();
    bool ok = true;
    if (which == "STOP") ok = waitFor([&] { return state() == 'T'; }, 10000);
    else if (which == "CONT") ok = waitFor([&] { return state() != 'T'; }, 10000);
    else if (which == "KILL") ok = waitFor([&] { const char s = state(); return s == '\0' || s == 'Z'; }, 10000);
    if (which == "KILL") pid_ = -1;
    return ok;
}

void UnixPeer::stop() {
    if (pid_ > 0) signal("KILL");
}

Server::Server(const Scratch& scratch, std::string name) : scratch_(scratch), name_(std::move(name)) {
    record_ = scratch_.file(name_ + ".record");
}

Server::~Server() { stop(); }

bool Server::start(const Options& options) {
    std::string why;
    const std::string sim = simulatorPath(why);
    const SharedPath certs = certificateFolder(why);
    if (sim.empty() || certs.unix.empty()) {
        error_ = why;
        return false;
    }
    std::vector<std::string> args = {"--cert",   certs.unix + "/" + options.certificate + ".pem",
                                     "--key",    certs.unix + "/" + options.certificate + ".key",
                                     "--host",   options.host,
                                     "--port",   std::to_string(options.port),
                                     "--record", record_.unix,
                                     "--lifetime", "600"};
    if (!options.scenario.empty())
        args.insert(args.end(), {"--scenario", scratch_.write(name_ + ".scenario", options.scenario).unix});
    if (!options.tlsMax.empty()) args.insert(args.end(), {"--tls-max", options.tlsMax});
    const SharedPath out = scratch_.file(name_ + ".out");
    if (!peer_.start(scratch_, sim, args, out)) {
        error_ = "the simulator did not start";
        return false;
    }
    const bool up = waitFor(
        [&] {
            const std::string text = readAll(out.native);
            const size_t at = text.find("\nport ");
            if (at == std::string::npos || text.find('\n', at + 1) == std::string::npos) return false;
            port_ = std::atoi(text.c_str() + at + 6);
            return true;
        },
        20000);
    if (!up || port_ <= 0) {
        error_ = "the simulator did not report its port: " + readAll(out.native);
        return false;
    }
    return true;
}

std::vector<Request> Server::requests() const { return parseRecord(readAll(record_.native)); }

}  // namespace mgmt_sim
