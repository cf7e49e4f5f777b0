#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <sys/locking.h>
#include <sys/stat.h>

#include <cstdio>

#include "foundation/file_util.h"
#include "foundation/lock_file.h"

LockFile::~LockFile() { close(); }

bool LockFile::isOpen() const { return fd_ >= 0 || handle_ != nullptr; }

bool LockFile::open(const STRING& path) {
    close();
    // Opened as it is, never emptied and never through a link planted at
    // the name (see openForWriting).
    const int fd = openDescriptorForWriting(path, WriteMode::Append);
    if (fd < 0) return false;
    fd_ = fd;
    return true;
}

void LockFile::lock(long bytes) {
    // _locking tries for about ten seconds before it gives up: ask again
    // until the lock is granted.
    while (true) {
        _lseek(fd_, 0, SEEK_SET);
        if (_locking(fd_, _LK_LOCK, bytes) == 0) return;
    }
}

void LockFile::unlock(long bytes) {
    _lseek(fd_, 0, SEEK_SET);
    _locking(fd_, _LK_UNLCK, bytes);
}

void LockFile::close() {
    if (fd_ >= 0) _close(fd_);
    fd_ = -1;
    if (handle_ != nullptr) CloseHandle(static_cast<HANDLE>(handle_));
    handle_ = nullptr;
}

bool LockFile::holdExclusive(const STRING& path) {
    close();
    HANDLE h = CreateFileW(path.wc_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_ALWAYS,
                           FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return false;
    handle_ = h;
    return true;
}
