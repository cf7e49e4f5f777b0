#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "foundation/file_util.h"
#include "foundation/lock_file.h"

LockFile::~LockFile() { close(); }

bool LockFile::isOpen() const { return fd_ >= 0; }

bool LockFile::open(const STRING& path) {
    close();
    // Never through a link planted at the name (see openForWriting).
    const int fd = openDescriptorForWriting(path, WriteMode::Append);
    if (fd < 0) return false;
    if (::flock(fd, LOCK_SH | LOCK_NB) != 0) {
        const int err = errno;
        ::close(fd);
        errno = err;
        return false;
    }
    fd_ = fd;
    return true;
}

void LockFile::lock(long bytes) {
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = bytes;
    while (::fcntl(fd_, F_SETLKW, &fl) != 0) {
        // Interrupted or refused: ask again until the lock is granted.
    }
}

void LockFile::unlock(long bytes) {
    struct flock fl {};
    fl.l_type = F_UNLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = bytes;
    ::fcntl(fd_, F_SETLK, &fl);
}

void LockFile::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

bool LockFile::holdExclusive(const STRING& path) {
    close();
    const int fd = openDescriptorForWriting(path, WriteMode::Append);
    if (fd < 0) return false;
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        ::close(fd);
        return false;
    }
    fd_ = fd;
    return true;
}
