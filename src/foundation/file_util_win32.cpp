#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "foundation/file_util.h"

char16_t pathSeparator() { return u'\\'; }

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
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS: return EEXIST;
    default: return EIO;
    }
}

// The path the system resolves for an open handle, links followed.
bool finalPathOf(HANDLE h, std::wstring& out) {
    out.assign(MAX_PATH, L'\0');
    for (int attempt = 0; attempt < 2; ++attempt) {
        const DWORD n = GetFinalPathNameByHandleW(h, &out[0], static_cast<DWORD>(out.size()), 0);
        if (n == 0) return false;
        if (n < out.size()) {
            out.resize(n);
            return true;
        }
        out.assign(n + 1, L'\0');
    }
    return false;
}

// Whether the file open as `h` is the entry that `path` names in its own
// folder, rather than one that a link at that name leads to. Windows shows
// such a link as a reparse point; Wine has none and follows a Unix link
// silently, yet reports the resolved path for the handle. Removing or
// renaming a name whose handle resolves elsewhere would, under Wine, remove
// or move the file the link leads to.
bool isOwnEntry(HANDLE h, const STRING& path) {
    size_t cut = path.length();
    while (cut > 0 && path[cut - 1] != u'\\' && path[cut - 1] != u'/') --cut;
    const STRING folder = cut == 0 ? STRING(u".") : path.substr(0, cut);
    const STRING name = path.substr(cut);
    const HANDLE dir = CreateFileW(folder.wc_str(), FILE_READ_ATTRIBUTES,
                                   FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                   FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (dir == INVALID_HANDLE_VALUE) return false;
    std::wstring expected, actual;
    const bool known = finalPathOf(dir, expected) && finalPathOf(h, actual);
    CloseHandle(dir);
    if (!known) return false;
    if (expected.empty() || expected.back() != L'\\') expected += L'\\';
    expected += name.wc_str();
    return CompareStringOrdinal(expected.c_str(), static_cast<int>(expected.size()), actual.c_str(),
                                static_cast<int>(actual.size()), TRUE) == CSTR_EQUAL;
}

// For a name that is no reparse point: whether it is the folder's own entry
// (see isOwnEntry). A name that cannot be opened is left to the caller.
bool standsAsItself(const STRING& path) {
    const HANDLE h = CreateFileW(path.wc_str(), FILE_READ_ATTRIBUTES,
                                 FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                 FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (h == INVALID_HANDLE_VALUE) return true;
    const bool own = isOwnEntry(h, path);
    CloseHandle(h);
    return own;
}
}  // namespace

FILE* openFile(const STRING& path, const char* mode) {
    if (path.empty()) {
        errno = ENOENT;
        return nullptr;
    }
    const STRING wmode = STRING::fromUtf8(mode);
    return _wfopen(path.wc_str(), wmode.wc_str());
}

int openDescriptorForWriting(const STRING& path, WriteMode mode) {
    if (path.empty()) {
        errno = ENOENT;
        return -1;
    }
    // A file that is not there yet is created exclusively (under Wine an
    // existing name only opens, so that a dangling link is never followed
    // to create what it points to); one created meanwhile by another
    // process is opened as it stands. FILE_FLAG_OPEN_REPARSE_POINT opens a
    // link itself rather than what it points to; it is refused below,
    // before anything is written.
    const bool absent = attributesOf(path) == INVALID_FILE_ATTRIBUTES;
    auto open = [&path](DWORD disposition) {
        return CreateFileW(path.wc_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, disposition,
                           FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    };
    HANDLE h = open(mode == WriteMode::CreateNew || absent ? CREATE_NEW : OPEN_EXISTING);
    if (h == INVALID_HANDLE_VALUE && mode != WriteMode::CreateNew && absent && GetLastError() == ERROR_FILE_EXISTS) {
        h = open(OPEN_EXISTING);
    }
    if (h == INVALID_HANDLE_VALUE) {
        errno = errnoFromWin32(GetLastError());
        return -1;
    }
    BY_HANDLE_FILE_INFORMATION info;
    int err = 0;
    if (!GetFileInformationByHandle(h, &info)) {
        err = errnoFromWin32(GetLastError());
    } else if ((info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 || !isOwnEntry(h, path)) {
        err = ELOOP;
    } else if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        err = EISDIR;
    } else if (info.nNumberOfLinks > 1) {
        err = EMLINK;
    } else if (mode == WriteMode::Truncate && !SetEndOfFile(h)) {
        err = errnoFromWin32(GetLastError());
    }
    if (err != 0) {
        CloseHandle(h);
        errno = err;
        return -1;
    }
    const int fd = _open_osfhandle(reinterpret_cast<intptr_t>(h), mode == WriteMode::Append ? _O_APPEND : 0);
    if (fd < 0) {
        CloseHandle(h);
        errno = EMFILE;
    }
    return fd;
}

FILE* openForWriting(const STRING& path, WriteMode mode) {
    const int fd = openDescriptorForWriting(path, mode);
    if (fd < 0) return nullptr;
    FILE* fp = _fdopen(fd, mode == WriteMode::Append ? "ab" : "wb");
    if (fp == nullptr) {
        const int err = errno;
        _close(fd);
        errno = err;
    }
    return fp;
}

bool commitToDisk(FILE* fp) {
    if (std::fflush(fp) != 0) return false;
    return _commit(_fileno(fp)) == 0;
}

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
    const DWORD a = attributesOf(path);
    if (a == INVALID_FILE_ATTRIBUTES) return errnoFromWin32(GetLastError());
    if ((a & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        // The link itself goes, a link to a folder (a junction or a
        // folder's symbolic link) as an empty folder does; what it points
        // to is not touched.
        const BOOL removed = (a & FILE_ATTRIBUTE_DIRECTORY) != 0 ? RemoveDirectoryW(path.wc_str())
                                                                 : DeleteFileW(path.wc_str());
        return removed ? 0 : errnoFromWin32(GetLastError());
    }
    if (!standsAsItself(path)) return ELOOP;
    if (DeleteFileW(path.wc_str())) return 0;
    return errnoFromWin32(GetLastError());
}

int renameFile(const STRING& from, const STRING& to) {
    // A link is moved itself (Windows moves a reparse point as it is); one
    // that Wine would follow is not moved at all.
    const DWORD a = attributesOf(from);
    if (a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_REPARSE_POINT) == 0 && !standsAsItself(from)) return ELOOP;
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

bool Directory::createNew(const STRING& path) {
    if (!path.empty() && CreateDirectoryW(path.wc_str(), nullptr)) return true;
    errno = path.empty() ? ENOENT : errnoFromWin32(GetLastError());
    return false;
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
