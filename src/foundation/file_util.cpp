#include "foundation/file_util.h"

#include <cerrno>

STRING joinPath(const STRING& a, const STRING& b) {
    if (a.empty()) return b;
    const char16_t sep = pathSeparator();
    if (a.back() == sep || a.back() == u'/') return a + b;
    return a + sep + b;
}

bool readFileBytes(const STRING& path, std::string& out) {
    FILE* fp = openFile(path, "rb");
    if (fp == nullptr) return false;
    out.clear();
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, fp)) > 0) out.append(buf, n);
    const bool ok = !std::ferror(fp);
    const int err = errno;
    std::fclose(fp);
    errno = err;
    return ok;
}

STRING Directory::parentOf(const STRING& path) {
    size_t cut = STRING::npos;
    for (size_t i = path.length(); i > 0; --i) {
        const char16_t c = path[i - 1];
        if (c == u'/' || c == pathSeparator()) { cut = i - 1; break; }
    }
    if (cut == STRING::npos) return STRING();
    if (cut == 0) return path.substr(0, 1);
    return path.substr(0, cut);
}

bool Directory::createAll(const STRING& path) {
    if (path.empty()) return false;
    if (exists(path)) return true;
    const STRING parent = parentOf(path);
    if (!parent.empty() && parent != path && !exists(parent) && !createAll(parent)) return false;
    return create(path);
}

bool WinFileAttributes::exists(const STRING& path) const { return fileExists(path) || Directory::exists(path); }
bool WinFileAttributes::isDirectory(const STRING& path) const { return Directory::exists(path); }
