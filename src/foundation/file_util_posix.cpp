#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "foundation/file_util.h"

char16_t pathSeparator() { return u'/'; }

FILE* openFile(const STRING& path, const char* mode) {
    if (path.empty()) {
        errno = ENOENT;
        return nullptr;
    }
    return std::fopen(path.toUtf8().c_str(), mode);
}

int openDescriptorForWriting(const STRING& path, WriteMode mode) {
    if (path.empty()) {
        errno = ENOENT;
        return -1;
    }
    // O_NOFOLLOW: a symbolic link at the name fails the open (ELOOP); with
    // O_EXCL nothing at all may stand there. Without O_EXCL a FIFO at the
    // name must not make the open wait for a reader.
    int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
    flags |= mode == WriteMode::CreateNew ? O_EXCL : O_NONBLOCK;
    if (mode == WriteMode::Append) flags |= O_APPEND;
    const int fd = ::open(path.toUtf8().c_str(), flags, 0666);
    if (fd < 0) return -1;
    struct stat st {};
    int err = 0;
    if (::fstat(fd, &st) != 0) {
        err = errno;
    } else if (!S_ISREG(st.st_mode)) {
        err = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    } else if (st.st_nlink > 1) {
        err = EMLINK;
    } else if (mode != WriteMode::CreateNew && ::fcntl(fd, F_SETFL, flags & ~(O_NONBLOCK | O_CREAT)) != 0) {
        err = errno;
    } else if (mode == WriteMode::Truncate && ::ftruncate(fd, 0) != 0) {
        err = errno;
    }
    if (err != 0) {
        ::close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

FILE* openForWriting(const STRING& path, WriteMode mode) {
    const int fd = openDescriptorForWriting(path, mode);
    if (fd < 0) return nullptr;
    FILE* fp = ::fdopen(fd, mode == WriteMode::Append ? "ab" : "wb");
    if (fp == nullptr) {
        const int err = errno;
        ::close(fd);
        errno = err;
    }
    return fp;
}

bool commitToDisk(FILE* fp) {
    if (std::fflush(fp) != 0) return false;
    return ::fsync(::fileno(fp)) == 0;
}

bool fileExists(const STRING& path) {
    struct stat st {};
    return !path.empty() && ::stat(path.toUtf8().c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

long long fileSize(const STRING& path) {
    struct stat st {};
    if (path.empty() || ::stat(path.toUtf8().c_str(), &st) != 0) return -1;
    return static_cast<long long>(st.st_size);
}

long long fileSize(FILE* fp) {
    struct stat st {};
    if (fp == nullptr || ::fstat(::fileno(fp), &st) != 0) return -1;
    return static_cast<long long>(st.st_size);
}

int removeFile(const STRING& path) {
    return ::unlink(path.toUtf8().c_str()) == 0 ? 0 : errno;
}

int renameFile(const STRING& from, const STRING& to) {
    return std::rename(from.toUtf8().c_str(), to.toUtf8().c_str()) == 0 ? 0 : errno;
}

bool Directory::exists(const STRING& path) {
    struct stat st {};
    return !path.empty() && ::stat(path.toUtf8().c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool Directory::create(const STRING& path) {
    if (::mkdir(path.toUtf8().c_str(), 0755) == 0) return true;
    return errno == EEXIST && exists(path);
}

bool Directory::createNew(const STRING& path) {
    return !path.empty() && ::mkdir(path.toUtf8().c_str(), 0755) == 0;
}

long long fileModificationTime(const STRING& path) {
    struct stat st {};
    if (path.empty() || ::stat(path.toUtf8().c_str(), &st) != 0) return -1;
    return static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
}

long long fileModificationTime(FILE* fp) {
    struct stat st {};
    if (fp == nullptr || ::fstat(::fileno(fp), &st) != 0) return -1;
    return static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
}

void syncDirectory(const STRING& folder) {
    const int fd = ::open(folder.empty() ? "." : folder.toUtf8().c_str(), O_RDONLY | O_DIRECTORY);
    if (fd < 0) return;
    ::fsync(fd);
    ::close(fd);
}
