#include <windows.h>

#include <io.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "foundation/file_util.h"

char16_t pathSeparator() { return u'\\'; }

FILE* openFile(const STRING& path, const char* mode) {
    if (path.empty()) {
        errno = ENOENT;
        return nullptr;
    }
    const STRING wmode = STRING::fromUtf8(mode);
    return _wfopen(path.wc_str(), wmode.wc_str());
}

bool commitToDisk(FILE* fp) {
    if (std::fflush(fp) != 0) return false;
    return _commit(_fileno(fp)) == 0;
}

namespace {
DWORD attributesOf(const STRING& path) {
    return path.empty() ? INVALID_FILE_ATTRIBUTES : GetFileAttributesW(path.wc_str());
}
int errnoFromWin32(DWORD e) {
    switch (e) {
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND: return ENOENT;
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION: return EACCES;
    case ERROR_DISK_FULL:
    case ERROR_HANDLE_DISK_FULL: return ENOSPC;
    default: return EIO;
    }
}
}  // namespace

bool fileExists(const STRING& path) {
    const DWORD a = attributesOf(path);
    return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

long long fileSize(const STRING& path) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (path.empty() || !GetFileAttributesExW(path.wc_str(), GetFileExInfoStandard, &data)) return -1;
    return (static_cast<long long>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
}

long long fileSize(FILE* fp) {
    LARGE_INTEGER size;
    const HANDLE h = fp == nullptr ? INVALID_HANDLE_VALUE : reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(fp)));
    if (h == INVALID_HANDLE_VALUE || !GetFileSizeEx(h, &size)) return -1;
    return size.QuadPart;
}

int removeFile(const STRING& path) {
    if (DeleteFileW(path.wc_str())) return 0;
    return errnoFromWin32(GetLastError());
}

int renameFile(const STRING& from, const STRING& to) {
    if (MoveFileExW(from.wc_str(), to.wc_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) return 0;
    return errnoFromWin32(GetLastError());
}

bool Directory::exists(const STRING& path) {
    const DWORD a = attributesOf(path);
    return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

bool Directory::create(const STRING& path) {
    if (CreateDirectoryW(path.wc_str(), nullptr)) return true;
    return GetLastError() == ERROR_ALREADY_EXISTS && exists(path);
}

long long fileModificationTime(const STRING& path) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    if (path.empty() || !GetFileAttributesExW(path.wc_str(), GetFileExInfoStandard, &data)) return -1;
    return (static_cast<long long>(data.ftLastWriteTime.dwHighDateTime) << 32) | data.ftLastWriteTime.dwLowDateTime;
}

long long fileModificationTime(FILE* fp) {
    FILETIME written;
    const HANDLE h = fp == nullptr ? INVALID_HANDLE_VALUE : reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(fp)));
    if (h == INVALID_HANDLE_VALUE || !GetFileTime(h, nullptr, nullptr, &written)) return -1;
    return (static_cast<long long>(written.dwHighDateTime) << 32) | written.dwLowDateTime;
}

// MoveFileExW with MOVEFILE_WRITE_THROUGH already commits the rename.
void syncDirectory(const STRING&) {}
