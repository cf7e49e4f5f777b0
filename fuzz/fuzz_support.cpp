#include "fuzz_support.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

namespace fs = std::filesystem;

namespace fuzz {

namespace {

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "fuzz support: %s\n", what.c_str());
    std::abort();
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) die("cannot read " + path.string());
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void replaceAll(std::string& text, const std::string& what, const std::string& with) {
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size()))
        text.replace(at, what.size(), with);
}

void removeScratch() {
    std::error_code ec;
    fs::remove_all(scratchDir(), ec);
}

}  // namespace

const std::string& scratchDir() {
    // Never destroyed: the exit handler below still needs it.
    static const std::string& dir = *new std::string([] {
        const fs::path base = fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path();
        const fs::path d = base / ("zelips-fuzz-" + std::to_string(getpid()));
        std::error_code ec;
        fs::remove_all(d, ec);
        fs::create_directories(d);
        std::atexit(removeScratch);
        // No registry and no driver unless an Installation provides them:
        // nothing the program logs may reach a real installation.
        setenv("ZELIPS_REGISTRY", (d / "no-registry.reg").c_str(), 1);
        setenv("ZELIPS_DEVICE", (d / "no-driver").c_str(), 1);
        return d.string();
    }());
    return dir;
}

void writeFile(const std::string& path, std::string_view bytes) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) die("cannot write " + path);
    if (!bytes.empty() && std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) die("short write " + path);
    std::fclose(f);
}

std::vector<std::string_view> split(std::string_view data, std::string_view separator) {
    std::vector<std::string_view> parts;
    for (;;) {
        const size_t at = data.find(separator);
        if (at == std::string_view::npos) break;
        parts.push_back(data.substr(0, at));
        data.remove_prefix(at + separator.size());
    }
    parts.push_back(data);
    return parts;
}

bool namesOtherFolder(std::string_view data) {
    return data.find('/') != std::string_view::npos || data.find('\\') != std::string_view::npos;
}

void silenceStdout() {
    if (std::freopen("/dev/null", "w", stdout) == nullptr) die("cannot open /dev/null");
}

Installation& Installation::instance() {
    static Installation* inst = new Installation();  // lives until exit
    return *inst;
}

Installation::Installation() {
    const char* source = std::getenv("ZELIPS_SOURCE_DIR");
    const fs::path demo = fs::path(source != nullptr ? source : ZELIPS_FUZZ_SOURCE_DIR) / "examples" / "demo";
    if (!fs::is_directory(demo)) die("no demo installation at " + demo.string());
    root_ = scratchDir() + "/install";
    fs::create_directories(root_);
    fs::copy(demo, root_, fs::copy_options::recursive);
    for (const char* name : {"registry.reg", "IPS/agent.ini", "IPS/fallback.ini"}) {
        std::string text = readFile(path(name));
        replaceAll(text, "@INSTALL_ROOT@", root_);
        replaceAll(text, "@LOG_ROOT@", root_ + "/logs");
        writeFile(path(name), text);
    }
    for (const auto& entry : fs::recursive_directory_iterator(root_)) {
        if (entry.is_regular_file())
            files_[fs::relative(entry.path(), root_).string()] = readFile(entry.path());
    }
    setenv("ZELIPS_REGISTRY", path("registry.reg").c_str(), 1);
    setenv("ZELIPS_DEVICE", path("no-driver").c_str(), 1);
    setenv("ZELIPS_EVENT_PREFIX", ("zfuzz" + std::to_string(getpid()) + "_").c_str(), 1);
    // A connection test goes to a closed port on this host, never out.
    setenv("https_proxy", "http://127.0.0.1:9", 1);
    setenv("http_proxy", "http://127.0.0.1:9", 1);
    setenv("no_proxy", "", 1);
    fs::current_path(path("IPS"));
}

void Installation::addFile(const std::string& relative, std::string_view bytes) {
    files_[relative] = std::string(bytes);
    writeFile(path(relative), bytes);
}

Installation::Signature Installation::signature(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return Signature{};
    return Signature{static_cast<unsigned long long>(st.st_ino), static_cast<long long>(st.st_size),
                     st.st_mtim.tv_sec * 1000000000LL + st.st_mtim.tv_nsec,
                     st.st_ctim.tv_sec * 1000000000LL + st.st_ctim.tv_nsec, S_ISREG(st.st_mode)};
}

void Installation::restore() {
    std::set<std::string> seen;
    std::vector<fs::path> extra;
    for (auto it = fs::recursive_directory_iterator(root_); it != fs::recursive_directory_iterator(); ++it) {
        const std::string full = it->path().string();
        const std::string rel = full.substr(root_.size() + 1);
        if (it->is_directory() && !it->is_symlink()) {
            bool used = rel == "logs";
            for (const auto& f : files_)
                if (f.first.compare(0, rel.size() + 1, rel + "/") == 0) used = true;
            if (!used) {
                extra.push_back(it->path());
                it.disable_recursion_pending();
            }
            continue;
        }
        const auto known = files_.find(rel);
        if (known == files_.end()) {
            extra.push_back(it->path());
            continue;
        }
        seen.insert(rel);
        // Every change the program makes replaces a file or changes its size
        // or times; only then are the bytes compared.
        const Signature now = signature(full);
        if (now.regular && now == signatures_[rel]) continue;
        if (!now.regular || readFile(full) != known->second) {
            std::error_code ec;
            fs::remove_all(full, ec);
            writeFile(full, known->second);
        }
        signatures_[rel] = signature(full);
    }
    for (const auto& p : extra) {
        std::error_code ec;
        fs::remove_all(p, ec);
    }
    for (const auto& f : files_) {
        if (seen.count(f.first) == 0) {
            fs::create_directories(fs::path(path(f.first)).parent_path());
            writeFile(path(f.first), f.second);
            signatures_[f.first] = signature(path(f.first));
        }
    }
    fs::current_path(path("IPS"));
}

}  // namespace fuzz
