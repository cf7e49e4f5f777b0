// The cross-process lock file of the agent's configuration.
//
// open() opens the file for writing, creating it; it fails (errno set) when
// the file cannot be opened now. lock() then waits for a byte-range lock on
// the first bytes of the file, repeating until it is granted.
//
// Windows refuses to open a file that another process holds with exclusive
// sharing. The Linux build gives the lock file the same behaviour: every
// opener also takes a shared flock, so a holder of an exclusive flock
// (holdExclusive) makes open() fail with EWOULDBLOCK.
#pragma once

#include "foundation/string.h"

class LockFile {
public:
    LockFile() = default;
    ~LockFile();
    LockFile(const LockFile&) = delete;
    LockFile& operator=(const LockFile&) = delete;

    bool open(const STRING& path);
    // Blocks until `bytes` bytes from offset 0 are locked.
    void lock(long bytes);
    void unlock(long bytes);
    void close();
    bool isOpen() const;

    // Opens the file so that no other opener succeeds until close().
    bool holdExclusive(const STRING& path);

private:
    int fd_ = -1;
    void* handle_ = nullptr;  // Windows: the exclusive holder's handle
};
