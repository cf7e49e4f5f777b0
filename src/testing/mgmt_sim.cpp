#include "testing/mgmt_sim.h"

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

std::string unixOf(const STRING& nativePath) {
    std::string p = nativePath.toUtf8();
    if (p.size() >= 2 && (p[0] == 'Z' || p[0] == 'z') && p[1] == ':') p = p.substr(2);
    for (char& c : p)
        if (c == '\\') c = '/';
    return p;
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

// Starts "sh -c command"; on Linux it is waited for. (Under Wine a Unix
// child cannot be waited for: the caller watches for its effect.)
bool startShell(const std::string& command) {
    ChildProcess child;
    if (!child.start({shellProgram(), u"-c", STRING::fromUtf8(command)})) return false;
    if (!kWine) child.wait();
    return true;
}

std::string sourceDirUnix() {
    const char* env = std::getenv("ZELIPS_SOURCE_DIR");
    return unixOf(STRING::fromUtf8(env && *env ? env : ZELIPS_SOURCE_DIR));
}

bool certificatesComplete(const STRING& folder) {
    for (const char* f : {"ca", "server", "otherhost", "other-ca", "other-server"})
        for (const char* ext : {".pem", ".key"})
            if (!exists(folder + u"/" + STRING::fromUtf8(f) + STRING::fromUtf8(ext))) return false;
    return true;
}

// A record file's requests.
std::vector<Request> parseRecord(const std::string& text) {
    std::vector<Request> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("request ", 0) == 0) out.emplace_back();
        if (out.empty()) continue;
        Request& r = out.back();
        const size_t blank = line.find(' ');
        const std::string key = line.substr(0, blank);
        const std::string value = blank == std::string::npos ? std::string() : line.substr(blank + 1);
        if (key == "tls") r.tls = value;
        else if (key == "method") r.method = value;
        else if (key == "path") r.path = value;
        else if (key == "word") r.word = value;
        else if (key == "header" && value.find(": ") != std::string::npos)
            r.headers.emplace_back(value.substr(0, value.find(": ")), value.substr(value.find(": ") + 2));
        else if (key == "body-hex")
            for (size_t i = 0; i + 1 < value.size(); i += 2)
                r.body += static_cast<char>(std::stoi(value.substr(i, 2), nullptr, 16));
    }
    return out;
}

}  // namespace

STRING nativeOf(const std::string& unixPath) {
    if (!kWine) return STRING::fromUtf8(unixPath);
    const STRING path = STRING::fromUtf8(unixPath);
    STRING out = u"Z:";
    for (char16_t c : path.str()) out += c == u'/' ? u'\\' : c;
    return out;
}

std::string simulatorPath(std::string& why) {
    std::string path;
    if (kWine) {
        const char* env = std::getenv("ZELIPS_MGMT_SERVER_SIM");
        path = env && *env ? unixOf(STRING::fromUtf8(env)) : sourceDirUnix() + "/build/linux/bin/mgmt_server_sim";
    } else {
        path = siblingProgram("mgmt_server_sim").toUtf8();
    }
    if (exists(nativeOf(path))) return path;
    why = "no management-server simulator at " + path +
          (kWine ? " (set ZELIPS_MGMT_SERVER_SIM to the Linux build's mgmt_server_sim)" : "");
    return std::string();
}

SharedPath certificateFolder(std::string& why) {
    // One set per build, shared by every test process of it: making one
    // takes seconds and ctest runs each test case in a process of its own.
    const std::string exeDir = unixOf(testExecutableDir());
    const std::string folder = exeDir.substr(0, exeDir.rfind('/')) + "/comm-test-certs";
    const SharedPath result{nativeOf(folder), folder};
    if (certificatesComplete(result.native)) return result;

    // Made beside it and renamed into place, so that no process ever sees a
    // half-written set: the rename fails when another process was quicker.
    // The script's status goes to a marker file written last.
    const std::string temp = folder + ".tmp-" + std::to_string(processId());
    const STRING marker = nativeOf(temp + ".status");
    std::error_code ec;
    fs::remove(fsPath(marker), ec);
    const std::string script = sourceDirUnix() + "/scripts/make-test-certs";
    const bool made = startShell("bash '" + script + "' '" + temp + "' > '" + temp + ".log' 2>&1; echo $? > '" +
                                 temp + ".status'") &&
                      waitFor([&] { return !readAll(marker).empty(); }, 120000) && readAll(marker).rfind("0", 0) == 0;
    if (made) fs::rename(fsPath(nativeOf(temp)), fsPath(result.native), ec);
    fs::remove_all(fsPath(nativeOf(temp)), ec);
    fs::remove(fsPath(marker), ec);
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
    const char* tmp = std::getenv("TMPDIR");
    path_.unix = (kWine ? std::string(tmp ? tmp : "/tmp") : fs::temp_directory_path().u8string()) + "/" + name;
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

// ---- Server

Server::Server(const Scratch& scratch, std::string name) : scratch_(scratch), name_(std::move(name)) {}

bool Server::start(const Options& options) {
    const std::string sim = simulatorPath(error_);
    const SharedPath certs = certificateFolder(error_);
    if (sim.empty() || certs.unix.empty()) return false;
    const SharedPath launch = scratch_.write("launch.sh", "echo pid $$\nexec \"$@\"\n");
    const SharedPath out = scratch_.file(name_ + ".out");
    std::vector<std::string> args = {"/bin/sh",  launch.unix,
                                     sim,        "--cert",
                                     certs.unix + "/" + options.certificate + ".pem",
                                     "--key",    certs.unix + "/" + options.certificate + ".key",
                                     "--host",   options.host,
                                     "--port",   std::to_string(options.port),
                                     "--record", scratch_.file(name_ + ".record").unix,
                                     "--lifetime", "600"};
    if (!options.scenario.empty())
        args.insert(args.end(), {"--scenario", scratch_.write(name_ + ".scenario", options.scenario).unix});
    if (!options.tlsMax.empty()) args.insert(args.end(), {"--tls-max", options.tlsMax});
    std::vector<STRING> argv = {shellProgram()};
    for (size_t i = 1; i < args.size(); ++i) argv.push_back(STRING::fromUtf8(args[i]));
    if (!process_.start(argv, out.native)) {
        error_ = "the simulator did not start";
        return false;
    }
    // The launch script's "pid N" line, then the simulator's "port N" line.
    const bool up = waitFor(
        [&] {
            const std::string text = readAll(out.native);
            const size_t at = text.find("\nport ");
            if (text.rfind("pid ", 0) != 0 || at == std::string::npos || text.find('\n', at + 1) == std::string::npos)
                return false;
            pid_ = std::atoll(text.c_str() + 4);
            port_ = std::atoi(text.c_str() + at + 6);
            return true;
        },
        20000);
    if (!up || pid_ <= 0 || port_ <= 0) {
        error_ = "the simulator did not report its port: " + readAll(out.native);
        return false;
    }
    return true;
}

std::vector<Request> Server::requests() const {
    return parseRecord(readAll(scratch_.file(name_ + ".record").native));
}

bool Server::signal(const std::string& name) {
    if (pid_ <= 0) return false;
    const std::string pid = std::to_string(pid_);
    if (name == "KILL") {
        pid_ = -1;
        if (!kWine) {
            process_.kill();
            process_.wait();
            return true;
        }
    }
    // The third field of /proc/PID/stat is the state letter: T stopped,
    // Z ended but not yet reaped.
    const STRING stat = nativeOf("/proc/" + pid + "/stat");
    auto state = [&]() -> char {
        const std::string text = readAll(stat);
        const size_t close = text.rfind(')');
        return close == std::string::npos || close + 2 >= text.size() ? '\0' : text[close + 2];
    };
    if (!startShell("kill -" + name + " " + pid)) return false;
    if (name == "STOP") return waitFor([&] { return state() == 'T'; }, 10000);
    if (name == "CONT") return waitFor([&] { return state() != 'T'; }, 10000);
    return waitFor([&] { const char s = state(); return s == '\0' || s == 'Z'; }, 10000);
}

}  // namespace mgmt_sim
