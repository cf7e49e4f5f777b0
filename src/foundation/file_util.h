// File and directory helpers over the platform's file API. Paths are STRING
// everywhere; on Windows they go to the wide API, on Linux as UTF-8.
#pragma once

#include <cstdio>
#include <string>

#include "foundation/string.h"

// The platform's path separator: '\' on Windows, '/' on Linux.
char16_t pathSeparator();
// a + separator + b (no separator doubled when a already ends with one).
STRING joinPath(const STRING& a, const STRING& b);

// fopen with a STRING path; errno is set on failure. For reading: a file
// the program writes is opened with openForWriting.
FILE* openFile(const STRING& path, const char* mode);

// How openForWriting treats the name it is given.
enum class WriteMode {
    CreateNew,  // a new file: fails (EEXIST) when anything stands at the name
    Truncate,   // an existing file is emptied; created when absent
    Append,     // written at its end; created when absent
};
// Opens a file for writing, in binary mode, without ever writing through a
// link planted at its name: a symbolic link (Windows: any reparse point) at
// the name makes the open fail with ELOOP, an existing file that has another
// name as well (a hard link) with EMLINK, and anything but a plain file
// with EISDIR (a folder) or EINVAL. errno is set on failure.
FILE* openForWriting(const STRING& path, WriteMode mode);
// The same as a C runtime file descriptor (for locking); -1 on failure.
int openDescriptorForWriting(const STRING& path, WriteMode mode);
// Flushes the stream and forces its data out of the system cache.
bool commitToDisk(FILE* fp);

bool fileExists(const STRING& path);
// File size in bytes, -1 when it cannot be read.
long long fileSize(const STRING& path);
// The same of an open file.
long long fileSize(FILE* fp);
// Whole file into bytes; false (errno set) when it cannot be read.
bool readFileBytes(const STRING& path, std::string& out);
// Modification time in the platform's finest unit; -1 when unavailable.
long long fileModificationTime(const STRING& path);
long long fileModificationTime(FILE* fp);
// Forces the folder's entries (renames) to disk where the platform needs it.
void syncDirectory(const STRING& folder);
// Removes a file: 0, or the errno of the failure (ENOENT for a missing file).
// A link at the name is removed itself, never what it points to (on
// Windows also a link to a folder); a folder is not removed.
int removeFile(const STRING& path);
// Renames, replacing an existing target: 0, or the errno of the failure.
int renameFile(const STRING& from, const STRING& to);

class Directory {
public:
    static bool exists(const STRING& path);
    // Creates one folder; true when it exists afterwards.
    static bool create(const STRING& path);
    // Creates one folder that did not exist: false (errno EEXIST) when
    // anything stands at the name already, also a link.
    static bool createNew(const STRING& path);
    // Creates the folder and its missing parents.
    static bool createAll(const STRING& path);
    // The folder part of a path ("" when there is none).
    static STRING parentOf(const STRING& path);
};

// File attributes behind an interface, so that commands can be tested with
// another file system view.
class FileAttributes {
public:
    virtual ~FileAttributes() = default;
    virtual bool exists(const STRING& path) const = 0;
    virtual bool isDirectory(const STRING& path) const = 0;
};

// The platform's own file attributes.
class WinFileAttributes : public FileAttributes {
public:
    bool exists(const STRING& path) const override;
    bool isDirectory(const STRING& path) const override;
};
