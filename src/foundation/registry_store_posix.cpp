#include "foundation/registry_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <mutex>

struct FileIdentity {
    bool exists = false;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    struct timespec mtime {};
    struct timespec ctime {};

    bool operator==(const FileIdentity& o) const {
        if (exists != o.exists) return false;
        if (!exists) return true;
        return dev == o.dev && ino == o.ino && size == o.size && mtime.tv_sec == o.mtime.tv_sec &&
               mtime.tv_nsec == o.mtime.tv_nsec && ctime.tv_sec == o.ctime.tv_sec &&
               ctime.tv_nsec == o.ctime.tv_nsec;
    }
};

struct RegistrySnapshot {
    std::string path;
    FileIdentity id;
    uint64_t generation = 0;
    RegFile file;
};

namespace {

const char kDefaultPath[] = "/etc/zelshield/registry.reg";

std::mutex g_cacheMutex;  // guards g_cache and g_generation
std::shared_ptr<const RegistrySnapshot> g_cache;
uint64_t g_generation = 0;
std::mutex g_writeMutex;  // fcntl locks do not exclude threads of one process

FileIdentity identityOf(const struct stat& st) {
    FileIdentity id;
    id.exists = true;
    id.dev = st.st_dev;
    id.ino = st.st_ino;
    id.size = st.st_size;
    id.mtime = st.st_mtim;
    id.ctime = st.st_ctim;
    return id;
}

long fromErrno(int e) {
    switch (e) {
    case EACCES:
    case EPERM:
    case EROFS: return regcode::AccessDenied;
    case ENOENT: return regcode::FileNotFound;
    case ENOTDIR: return regcode::PathNotFound;
    case ENOSPC:
    case EDQUOT: return regcode::DiskFull;
    default: return regcode::RegistryIoFailed;
    }
}

std::string folderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

bool isRootPath(const STRING& stored) { return !stored.contains(u'\\'); }

bool hasLineBreak(const STRING& s) { return s.contains(u'\r') || s.contains(u'\n'); }

// The current state of the file: the cached parse when the file is unchanged.
long load(const std::string& path, std::shared_ptr<const RegistrySnapshot>& out) {
    {
        // Whether the cached parse is still the file's: one look at it.
        std::lock_guard<std::mutex> lock(g_cacheMutex);
        if (g_cache && g_cache->path == path) {
            struct stat st {};
            FileIdentity now;
            bool gone = false;
            if (::stat(path.c_str(), &st) == 0) {
                if (S_ISREG(st.st_mode)) now = identityOf(st);
            } else {
                gone = errno == ENOENT;
            }
            if ((now.exists || gone) && now == g_cache->id) {
                out = g_cache;
                return 0;
            }
        }
    }
    FileIdentity id;
    std::string bytes;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno != ENOENT) return fromErrno(errno);
    } else {
        struct stat st {};
        if (::fstat(fd, &st) != 0) {
            const int e = errno;
            ::close(fd);
            return fromErrno(e);
        }
        if (!S_ISREG(st.st_mode)) {
            ::close(fd);
            return regcode::RegistryIoFailed;
        }
        id = identityOf(st);
        // Read straight into the text, one byte more than the file's size
        // so that the end shows at once (the file may also have grown).
        size_t used = 0;
        bytes.resize(static_cast<size_t>(st.st_size) + 1);
        for (;;) {
            if (used == bytes.size()) bytes.resize(bytes.size() * 2);
            const ssize_t n = ::read(fd, &bytes[used], bytes.size() - used);
            if (n < 0) {
                if (errno == EINTR) continue;
                const int e = errno;
                ::close(fd);
                return fromErrno(e);
            }
            if (n == 0) break;
            used += static_cast<size_t>(n);
        }
        bytes.resize(used);
        ::close(fd);
    }
    auto snap = std::make_shared<RegistrySnapshot>();
    snap->path = path;
    snap->id = id;
    snap->file = RegFile::parse(bytes);
    {
        std::lock_guard<std::mutex> lock(g_cacheMutex);
        snap->generation = ++g_generation;
        g_cache = snap;
    }
    out = std::move(snap);
    return 0;
}

long makeFolders(const std::string& folder) {
    struct stat st {};
    if (::stat(folder.c_str(), &st) == 0) return S_ISDIR(st.st_mode) ? 0 : regcode::PathNotFound;
    if (errno != ENOENT) return fromErrno(errno);
    const std::string parent = folderOf(folder);
    if (parent != folder) {
        const long rc = makeFolders(parent);
        if (rc != 0) return rc;
    }
    if (::mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) return fromErrno(errno);
    return 0;
}

// Whether a change could be written: the folder (or the nearest one that
// exists) and the file itself must be writable.
long checkWritable(const std::string& path) {
    std::string folder = folderOf(path);
    for (;;) {
        if (::access(folder.c_str(), F_OK) == 0) break;
        const std::string parent = folderOf(folder);
        if (parent == folder) break;
        folder = parent;
    }
    if (::access(folder.c_str(), W_OK | X_OK) != 0) return fromErrno(errno);
    if (::access(path.c_str(), F_OK) == 0 && ::access(path.c_str(), W_OK) != 0) return fromErrno(errno);
    return 0;
}

long writeAll(int fd, const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return fromErrno(errno);
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

// Writes the file by replacing it: temporary file, fsync, rename, fsync of the folder.
long replaceFile(const std::string& path, const RegFile& file, const RegistrySnapshot* previous,
                 std::shared_ptr<const RegistrySnapshot>& out) {
    std::string tmpl = path + ".XXXXXX";
    const int fd = ::mkstemp(tmpl.data());
    if (fd < 0) return fromErrno(errno);
    mode_t mode = 0644;
    struct stat old {};
    if (previous != nullptr && previous->id.exists && ::stat(path.c_str(), &old) == 0) mode = old.st_mode & 07777;
    long rc = ::fchmod(fd, mode) == 0 ? 0 : fromErrno(errno);
    if (rc == 0) rc = writeAll(fd, file.write());
    if (rc == 0 && ::fsync(fd) != 0) rc = fromErrno(errno);
    if (rc == 0 && ::rename(tmpl.c_str(), path.c_str()) != 0) rc = fromErrno(errno);
    if (rc != 0) {
        ::unlink(tmpl.c_str());
        ::close(fd);
        return rc;
    }
    const int dirfd = ::open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dirfd >= 0) {
        ::fsync(dirfd);
        ::close(dirfd);
    }
    struct stat st {};
    const bool known = ::fstat(fd, &st) == 0;
    ::close(fd);
    auto snap = std::make_shared<RegistrySnapshot>();
    snap->path = path;
    if (known) snap->id = identityOf(st);
    snap->file = file;
    {
        std::lock_guard<std::mutex> lock(g_cacheMutex);
        snap->generation = ++g_generation;
        // Without the new file's identity the next open reads it again.
        if (known) g_cache = snap;
        else g_cache.reset();
    }
    out = std::move(snap);
    return 0;
}

// A change to the file. `change` edits the state and says whether it changed
// anything; its non-zero result is returned without writing.
using Change = std::function<long(RegFile& file, bool& changed)>;

long transact(const Change& change, std::shared_ptr<const RegistrySnapshot>& result) {
    std::lock_guard<std::mutex> threads(g_writeMutex);
    const std::string path = RegistryStore::filePath();

    // Without the lock the change is only tried out, so that a change that
    // fails, or changes nothing, reports what it would on a writable store.
    auto dryRun = [&](long denied) -> long {
        std::shared_ptr<const RegistrySnapshot> snap;
        long rc = load(path, snap);
        if (rc != 0) return rc;
        RegFile copy = snap->file;
        bool changed = false;
        rc = change(copy, changed);
        if (rc != 0) return rc;
        if (changed) return denied;
        result = snap;
        return 0;
    };

    long rc = makeFolders(folderOf(path));
    if (rc != 0) return dryRun(rc);
    const std::string lockPath = path + ".lock";
    const int lockFd = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (lockFd < 0) return dryRun(fromErrno(errno));
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    while (::fcntl(lockFd, F_SETLKW, &fl) != 0) {
        if (errno == EINTR) continue;
        const int e = errno;
        ::close(lockFd);
        return dryRun(fromErrno(e));
    }

    std::shared_ptr<const RegistrySnapshot> snap;
    rc = load(path, snap);
    if (rc == 0) {
        RegFile copy = snap->file;
        bool changed = false;
        rc = change(copy, changed);
        if (rc == 0 && changed) {
            rc = checkWritable(path);
            if (rc == 0) rc = replaceFile(path, copy, snap.get(), result);
        } else if (rc == 0) {
            result = snap;
        }
    }
    ::close(lockFd);  // releases the lock
    return rc;
}

STRING joinPath(const STRING& a, const STRING& b) {
    if (a.empty()) return RegFile::normalizePath(b);
    if (b.empty()) return a;
    return RegFile::normalizePath(a + u"\\" + b);
}

bool exists(const RegFile& file, const STRING& stored) { return isRootPath(stored) || file.keyExists(stored); }

}  // namespace

std::string RegistryStore::filePath() {
    const char* env = std::getenv("ZELIPS_REGISTRY");
    return env != nullptr && *env != '\0' ? std::string(env) : std::string(kDefaultPath);
}

STRING RegistryStore::storedPath(RegRoot root, const STRING& subkey, bool view64) {
    std::vector<STRING> parts = subkey.split(u'\\', true);
    if (!view64 && root == RegRoot::LocalMachine && !parts.empty() && parts[0].equalsIgnoreCase(u"SOFTWARE") &&
        !(parts.size() > 1 && parts[1].equalsIgnoreCase(u"WOW6432Node")))
        parts.insert(parts.begin() + 1, STRING(u"WOW6432Node"));
    STRING out(regRootName(root));
    for (const auto& p : parts) {
        out += u'\\';
        out += p;
    }
    return out;
}

void RegistryStore::forgetCache() {
    std::lock_guard<std::mutex> lock(g_cacheMutex);
    g_cache.reset();
}

std::shared_ptr<const RegistrySnapshot> RegistryStore::current(const Key& key) {
    std::lock_guard<std::mutex> lock(g_cacheMutex);
    if (g_cache && key.snapshot_ && g_cache->path == key.snapshot_->path &&
        g_cache->generation > key.snapshot_->generation)
        return g_cache;
    return key.snapshot_;
}

long RegistryStore::openKey(RegRoot root, const STRING& subkey, bool view64, Key& out) {
    std::shared_ptr<const RegistrySnapshot> snap;
    const long rc = load(filePath(), snap);
    if (rc != 0) return rc;
    const STRING stored = storedPath(root, subkey, view64);
    if (!exists(snap->file, stored)) return regcode::FileNotFound;
    out.root_ = root;
    out.subkey_ = RegFile::normalizePath(subkey);
    out.view64_ = view64;
    out.writable_ = false;
    out.stored_ = stored;
    out.snapshot_ = std::move(snap);
    return 0;
}

long RegistryStore::createKey(RegRoot root, const STRING& subkey, bool view64, Key& out, bool* created) {
    if (created != nullptr) *created = false;
    if (hasLineBreak(subkey)) return regcode::InvalidParameter;
    const std::string path = filePath();
    const STRING stored = storedPath(root, subkey, view64);
    std::shared_ptr<const RegistrySnapshot> snap;
    long rc = load(path, snap);
    if (rc != 0) return rc;
    if (exists(snap->file, stored)) {
        // Nothing to write, but the key is opened for writing: the store must allow it.
        rc = checkWritable(path);
        if (rc != 0) return rc;
    } else {
        bool made = false;
        rc = transact(
            [&](RegFile& file, bool& changed) -> long {
                if (!exists(file, stored)) {
                    file.addKey(stored);
                    changed = made = true;
                }
                return 0;
            },
            snap);
        if (rc != 0) return rc;
        if (created != nullptr) *created = made;
    }
    out.root_ = root;
    out.subkey_ = RegFile::normalizePath(subkey);
    out.view64_ = view64;
    out.writable_ = true;
    out.stored_ = stored;
    out.snapshot_ = std::move(snap);
    return 0;
}

long RegistryStore::openSubkey(const Key& parent, const STRING& subkey, bool writable, Key& out) {
    const STRING full = joinPath(parent.subkey_, subkey);
    return writable ? createKey(parent.root_, full, parent.view64_, out) : openKey(parent.root_, full, parent.view64_, out);
}

long RegistryStore::queryValue(const Key& key, const STRING& name, uint32_t* type, std::vector<uint8_t>* data) {
    const auto snap = current(key);
    if (!snap) return regcode::InvalidHandle;
    if (!exists(snap->file, key.stored_)) return regcode::KeyDeleted;
    const RegFileKey* k = snap->file.findKey(key.stored_);
    const RegFileValue* v = k != nullptr ? k->findValue(name) : nullptr;
    if (v == nullptr) return regcode::FileNotFound;
    if (type != nullptr) *type = v->type;
    if (data != nullptr) *data = v->data;
    return 0;
}

long RegistryStore::setValue(Key& key, const STRING& name, uint32_t type, const std::vector<uint8_t>& data) {
    if (!key.snapshot_) return regcode::InvalidHandle;
    if (!key.writable_) return regcode::AccessDenied;
    if (hasLineBreak(name)) return regcode::InvalidParameter;
    std::shared_ptr<const RegistrySnapshot> snap;
    const long rc = transact(
        [&](RegFile& file, bool& changed) -> long {
            if (!exists(file, key.stored_)) return regcode::KeyDeleted;
            RegFileKey& k = file.addKey(key.stored_);
            const RegFileValue* old = k.findValue(name);
            if (old != nullptr && old->type == type && old->data == data) return 0;
            k.setValue(name, type, data);
            changed = true;
            return 0;
        },
        snap);
    if (rc == 0) key.snapshot_ = std::move(snap);
    return rc;
}

long RegistryStore::deleteValue(Key& key, const STRING& name) {
    if (!key.snapshot_) return regcode::InvalidHandle;
    if (!key.writable_) return regcode::AccessDenied;
    std::shared_ptr<const RegistrySnapshot> snap;
    const long rc = transact(
        [&](RegFile& file, bool& changed) -> long {
            if (!exists(file, key.stored_)) return regcode::KeyDeleted;
            RegFileKey* k = file.findKey(key.stored_);
            if (k == nullptr || !k->removeValue(name)) return regcode::FileNotFound;
            changed = true;
            return 0;
        },
        snap);
    if (rc == 0) key.snapshot_ = std::move(snap);
    return rc;
}

long RegistryStore::enumSubkeys(const Key& key, std::vector<STRING>& names) {
    const auto snap = current(key);
    if (!snap) return regcode::InvalidHandle;
    if (!exists(snap->file, key.stored_)) return regcode::KeyDeleted;
    names = snap->file.subkeyNames(key.stored_);
    return 0;
}

long RegistryStore::enumValues(const Key& key, std::vector<RegFileValue>& values) {
    const auto snap = current(key);
    if (!snap) return regcode::InvalidHandle;
    if (!exists(snap->file, key.stored_)) return regcode::KeyDeleted;
    const RegFileKey* k = snap->file.findKey(key.stored_);
    if (k != nullptr) values = k->values;
    else values.clear();
    return 0;
}

long RegistryStore::deleteKey(RegRoot root, const STRING& subkey, bool view64) {
    const STRING stored = storedPath(root, subkey, view64);
    if (isRootPath(stored)) return regcode::AccessDenied;
    std::shared_ptr<const RegistrySnapshot> snap;
    return transact(
        [&](RegFile& file, bool& changed) -> long {
            if (!file.keyExists(stored)) return regcode::FileNotFound;
            if (file.hasSubkeys(stored)) return regcode::AccessDenied;
            file.removeTree(stored);
            // The key above stays, even when it was only implied by this one.
            const STRING parent = stored.substr(0, stored.rfind(u'\\'));
            if (!isRootPath(parent) && !file.keyExists(parent)) file.addKey(parent);
            changed = true;
            return 0;
        },
        snap);
}

long RegistryStore::deleteSubkey(const Key& parent, const STRING& name) {
    if (RegFile::normalizePath(name).empty()) return regcode::InvalidParameter;
    return deleteKey(parent.root_, joinPath(parent.subkey_, name), parent.view64_);
}
