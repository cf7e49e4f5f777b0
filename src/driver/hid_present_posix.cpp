// Linux side of the detection-service interface: processes from /proc, events
// as POSIX named semaphores.
#include <dirent.h>
#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>

#include "driver/hid_present.h"
#include "foundation/ids_exception.h"

namespace {

bool allDigits(const char* s) {
    if (!*s) return false;
    for (; *s; ++s)
        if (!std::isdigit(static_cast<unsigned char>(*s))) return false;
    return true;
}

// The base name of argv[0] of a process; empty when it cannot be read (the
// process ended, a kernel thread).
std::string imageNameOf(const char* pid) {
    const int fd = ::open((std::string("/proc/") + pid + "/cmdline").c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return std::string();
    // argv[0] is the text up to the first NUL.
    std::string argv0;
    char buf[4096];
    ssize_t n;
    bool ended = false;
    while (!ended && (n = ::read(fd, buf, sizeof buf)) > 0) {
        const char* nul = static_cast<const char*>(std::memchr(buf, '\0', static_cast<size_t>(n)));
        ended = nul != nullptr;
        argv0.append(buf, ended ? static_cast<size_t>(nul - buf) : static_cast<size_t>(n));
    }
    ::close(fd);
    const size_t slash = argv0.rfind('/');
    return slash == std::string::npos ? argv0 : argv0.substr(slash + 1);
}

// "Global\NAME" -> "/NAME"
std::string semaphoreName(const STRING& eventName) {
    const STRING global(u"Global\\");
    const STRING bare = eventName.startsWith(global) ? eventName.substr(global.length()) : eventName;
    return "/" + bare.toUtf8();
}

}  // namespace

namespace hid_platform {

bool processRunning(const STRING& imageName) {
    DIR* proc = ::opendir("/proc");
    if (!proc) return false;
    bool found = false;
    while (const dirent* entry = ::readdir(proc)) {
        if (!allDigits(entry->d_name)) continue;
        const std::string name = imageNameOf(entry->d_name);
        if (!name.empty() && STRING::fromUtf8(name).equalsIgnoreCase(imageName)) {
            found = true;
            break;
        }
    }
    ::closedir(proc);
    return found;
}

void setNamedEvent(const STRING& name) {
    const std::string sem = semaphoreName(name);
    sem_t* s = ::sem_open(sem.c_str(), 0);
    if (s == SEM_FAILED) {
        throw IDSException(errno, u"hid_platform::setNamedEvent", STRING(u"Could not open the event : ") + name);
    }
    const int rc = ::sem_post(s);
    const int err = errno;
    ::sem_close(s);
    if (rc != 0) throw IDSException(err, u"hid_platform::setNamedEvent", STRING(u"Could not set the event : ") + name);
}

}  // namespace hid_platform
