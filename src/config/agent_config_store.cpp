// AgentConfig on disk: loading with the fallback rule, merging, the safe
// replace under the lock file, and the reboot state in the registry.
#include <cerrno>
#include <cstdio>
#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

#include "config/agent_config.h"
#include "config/safe_replace.h"
#include "foundation/file_util.h"
#include "foundation/ids_exception.h"
#include "foundation/lock_file.h"
#include "foundation/md5.h"
#include "foundation/log.h"
#include "foundation/process_role.h"
#include "foundation/registry.h"
#include "foundation/system_info.h"

namespace {

constexpr int kLockTries = 10;
constexpr long kLockBytes = 10000;
// The read text goes to the checksum in blocks of this many characters.
constexpr size_t kChecksumBlock = 8192;
const char16_t* const kDriverParametersKey =
    u"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\ZELIPSDriver\\Parameters";
const char16_t* const kRebootValuePath =
    u"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\ZELIPSDriver\\Parameters\\RebootRequired";

std::function<void(int)>& lockRetrySleep() {
    static std::function<void(int)> sleep = [](int ms) {
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
    };
    return sleep;
}

std::mutex g_instanceMutex;
AgentConfig* g_instance = nullptr;
int g_instanceUses = 0;

}  // namespace

void AgentConfig::setLockRetrySleep(std::function<void(int)> sleep) { lockRetrySleep() = std::move(sleep); }

// The lock file, taken for the lifetime of the scope. The object lock must
// already be held: it is always taken first.
class IniLock {
public:
    IniLock(AgentConfig& config, const char16_t* label) {
        const STRING path = config.lockFilePath();
        for (int attempt = 0; attempt < kLockTries; ++attempt) {
            if (file_.open(path)) {
                file_.lock(kLockBytes);
                ok_ = true;
                return;
            }
            trace(label, u"Waiting to open lock file");
            lockRetrySleep()(1000);
        }
        trace(label, u"Could not open lock file.");
        ++config.lockFailures_;
    }
    ~IniLock() {
        if (ok_) {
            file_.unlock(kLockBytes);
            file_.close();
        }
    }
    IniLock(const IniLock&) = delete;
    IniLock& operator=(const IniLock&) = delete;
    bool ok() const { return ok_; }

private:
    LockFile file_;
    bool ok_ = false;
};

STRING AgentConfig::fallbackPath() const { return joinPath(Directory::parentOf(iniPath_), u"fallback.ini"); }

STRING AgentConfig::lockFilePath() const { return joinPath(Directory::parentOf(iniPath_), u"lockFile"); }

bool AgentConfig::isAccessible() {
    // Under the lock file, as every reader: a writer in another process
    // takes agent.ini away for a moment between the two renames of its
    // replace. (Without the lock file, the file is looked at as it stands.)
    Synchronized object(*this);
    // A command asks right after the process's load. A load that could not
    // take the lock file has read nothing: the model holds the built-in
    // defaults, not the configuration. When the load read agent.ini under
    // the lock file a moment ago, that is the answer.
    if (loadFailed_) return false;
    if (iniOpened_ && std::chrono::steady_clock::now() - iniOpenedAt_ < std::chrono::seconds(1)) return true;
    IniLock lock(*this, u"AgentConfig::isAccessible");
    if (!lock.ok()) return false;
    FILE* fp = openFile(iniPath_, "rb");
    if (fp == nullptr) return false;
    std::fclose(fp);
    return true;
}

// ---- The process's instance

AgentConfig* AgentConfig::instance() {
    bool fresh = false;
    bool usedFallback = false;
    bool loaded = false;
    {
        std::lock_guard<std::mutex> guard(g_instanceMutex);
        if (g_instance == nullptr) {
            g_instance = new AgentConfig(joinPath(SystemInfo::getIPSDirectory(), u"agent.ini"));
            loaded = g_instance->loadIniFile(usedFallback);
            fresh = true;
        }
        ++g_instanceUses;
    }
    if (fresh) {
        static const char16_t* const kLoadLabel = u"AgentConfig::loadIniFile";
        if (usedFallback) logMessage(catalog::CFG_FALLBACK_USED, kLoadLabel, kLoadLabel);
        // Repair agent.ini from fallback.ini, or write the pending reboot state.
        if (ProcessRole::get() != 4 && (g_instance->rebootPending_ || (usedFallback && loaded))) {
            try {
                g_instance->updateIniFile(false, false);
            } catch (const IDSException& e) {
                trace(u"AgentConfig::loadIniFile", u"%s", e.toString());
            }
        }
    }
    return g_instance;
}

void AgentConfig::releaseInstance() {
    std::lock_guard<std::mutex> guard(g_instanceMutex);
    if (g_instanceUses > 0 && --g_instanceUses == 0) {
        delete g_instance;
        g_instance = nullptr;
    }
}

// ---- Reading

bool AgentConfig::readIniFileInMem(int64_t& modificationTime, const STRING& path) {
    static const char16_t* const kLabel = u"AgentConfig::readIniFileInMem";
    Synchronized lock(*this);
    currentSection_.clear();
    if (iniPath_.empty()) {
        logMessage(catalog::CFG_NO_PATH, kLabel, kLabel);
        return false;
    }
    const STRING file = path.empty() ? iniPath_ : path;
    // Binary mode: line ends are removed by the reader, and a UTF-16 file
    // must not pass through the C runtime's text translation.
    FILE* fp = openFile(file, "rb");
    if (file == iniPath_) iniOpened_ = false;
    if (fp == nullptr) {
        logMessage(catalog::CFG_OPEN_FAILED, kLabel, kLabel, file, errno);
        return false;
    }
    std::unique_ptr<FILE, int (*)(FILE*)> guard(fp, &std::fclose);
    const long long bytes = fileSize(fp);
    prepareRead(bytes);
    Utf16leMd5 md5;
    try {
        readText(fp, bytes, md5);
    } catch (const IDSException& e) {
        trace(kLabel, u"%s", e.toString());
        return false;
    }
    readChecksum_ = STRING::fromUtf8(md5.hexDigest());
    readTextEnd_ = otherText_.size();
    modificationTime = fileModificationTime(fp);
    guard.reset();
    if (file == iniPath_) {
        iniOpened_ = true;
        iniOpenedAt_ = std::chrono::steady_clock::now();
    }
    ++readCount_;
    trace(kLabel, u"Agent Configuration Updated from disk");
    return true;
}

void AgentConfig::prepareRead(long long bytes) {
    externalLogs_.clear();
    clearOtherPairs();
    // Room for the text at once, so that it is not copied as it grows: it
    // has no more characters than the file has bytes, but for the CR of
    // lines that end in LF alone. The list of pairs assumes lines of at
    // least 48 bytes (it grows if they are shorter); a small file's few
    // pairs need no room made ahead.
    constexpr long long kPairsAhead = 16384;
    if (bytes >= 0) otherText_.reserve(static_cast<size_t>(bytes + bytes / 32 + 64));
    if (bytes > kPairsAhead) otherPairs_.reserve(static_cast<size_t>(bytes / 48));
    readTextEnd_ = 0;
    readChecksum_.clear();
    storedChecksum_.clear();
}

// (Inline: every line of a file goes through it.)
inline bool AgentConfig::takeLine(std::u16string_view text) {
    const PropertyLine line = scanPropertyLine(text);
    if (line.kind == PropertyLine::NoPair) {
        currentSection_ = STRING(text);
        return true;
    }
    if (line.kind == PropertyLine::NoName) return true;
    if (ProcessRole::get() == ProcessRole::Agent &&
        (line.name == u"ips.reboot.required" || line.name == u"fim.reboot.required")) {
        rebootPending_ = true;
    }
    return setPairLocked(line.name, line.value, true) != kChecksumLine;
}

void AgentConfig::readText(FILE* fp, long long bytes, Utf16leMd5& md5) {
    const bool utf16 = Utils::probeUnicode(fp);
    // A UTF-8 file is read in blocks of at most 16 KB, one block reused from
    // line to line (a small file gets a block of its size); a UTF-16 one a
    // unit at a time.
    constexpr long long kReadBlock = 16384;
    const size_t block = static_cast<size_t>(bytes >= 0 && bytes < kReadBlock ? bytes + 1 : kReadBlock);
    std::unique_ptr<LineReader> reader(utf16 ? nullptr : new LineReader(fp, block));
    // Each line is decoded straight into the model's text, followed by the
    // CR LF that the checksum covers, and read from there.
    STRING line;  // a UTF-16 file's line
    auto nextLine = [&]() -> bool {
        if (reader) {
            std::string_view lineBytes;
            if (reader->nextBytes(lineBytes) == 0) return false;
            const size_t at = otherText_.size();
            otherText_.resize(at + lineBytes.size() + 2);  // room not cleared first
            char16_t* const out = otherText_.data() + at;
            const size_t units = STRING::decodeUtf8(lineBytes, out);
            out[units] = u'\r';
            out[units + 1] = u'\n';
            otherText_.resize(at + units + 2);
            return true;
        }
        if (Utils::readLineBuffered(fp, line, true) == 0) return false;
        appendOtherText(line.str());
        appendOtherText(u"\r\n");
        return true;
    };
    // The text goes through the digest in blocks as it is read, while the
    // block is still in the cache; a checksum line is taken out again.
    size_t digested = 0;
    for (size_t at = otherText_.size(); nextLine(); at = otherText_.size()) {
        if (!takeLine(std::u16string_view(otherText_.data() + at, otherText_.size() - at - 2))) {
            otherText_.resize(at);
            continue;
        }
        if (otherText_.size() - digested >= kChecksumBlock) {
            md5.add(std::u16string_view(otherText_.data() + digested, otherText_.size() - digested));
            digested = otherText_.size();
        }
    }
    md5.add(std::u16string_view(otherText_.data() + digested, otherText_.size() - digested));
}


bool AgentConfig::isCorrupt(bool readOk) {
    Synchronized lock(*this);
    if (!readOk) return true;
    return storedChecksum_ != STRING(kNotComputed) && readChecksum() != storedChecksum_;
}

const STRING& AgentConfig::readChecksum() {
    if (readChecksum_.empty()) readChecksum_ = checksumOf(STRING());
    return readChecksum_;
}

bool AgentConfig::loadIniFile(bool& usedFallback) {
    static const char16_t* const kLabel = u"AgentConfig::loadIniFile";
    usedFallback = false;
    if (lastLoadTime_ != -1) {
        const long long onDisk = fileModificationTime(iniPath_);
        if (onDisk != -1 && onDisk == lastLoadTime_) return true;
    }

    Synchronized lock(*this);
    IniLock lockFile(*this, kLabel);
    if (!lockFile.ok()) {
        loadFailed_ = true;
        return false;
    }
    completeInterruptedReplaces();
    setRecordChanges(false);
    int64_t modified = -1;
    bool ok = readIniFileInMem(modified);
    if (ok && !isCorrupt(ok)) {
        lastLoadTime_ = modified;
    } else {
        // agent.ini is unreadable or does not verify: use its copy.
        usedFallback = true;
        int64_t ignored = -1;
        ok = readIniFileInMem(ignored, fallbackPath());
        const STRING logFile = slots_[kAgentlogLogfile].text.empty() ? STRING(u"agentinitial.log")
                                                                      : slots_[kAgentlogLogfile].text;
        trace(kLabel, u"WalkLogChain returned : %s", logFile);
    }
    setRecordChanges(true);
    loadFailed_ = !ok;
    return ok;
}

void AgentConfig::completeInterruptedReplaces() {
    for (const STRING& file : {iniPath_, fallbackPath()}) {
        if (completeInterruptedReplace(file)) {
            trace(u"AgentConfig::loadIniFile", u"Completed an interrupted write of %s", file);
        }
    }
}

void AgentConfig::mergeNVPData() {
    Synchronized lock(*this);
    completeInterruptedReplaces();
    setRecordChanges(false);
    int64_t modified = -1;
    const bool ok = readIniFileInMem(modified);
    if (ok) lastLoadTime_ = modified;
    if (!ok || isCorrupt(ok)) {
        trace(u"AgentConfig::mergeNVPData", u"Agent.ini is corrupt, reading from Fallback.ini");
        int64_t ignored = -1;
        readIniFileInMem(ignored, fallbackPath());
    }
    const std::map<STRING, STRING> replay = std::move(changes_);
    changes_.clear();
    for (const auto& change : replay) setValue(change.first, change.second);
    setRecordChanges(true);
}

// ---- Writing

bool AgentConfig::updateIniFile(bool objectLockHeld, bool lockFileHeld, const STRING& path) {
    return updateIniFile(objectLockHeld, lockFileHeld, path, nullptr);
}

bool AgentConfig::updateIniFile(bool objectLockHeld, bool lockFileHeld, const STRING& path, STRING* written) {
    rebootPending_ = false;
    std::unique_ptr<Synchronized> objectLock;
    if (!objectLockHeld) objectLock.reset(new Synchronized(*this));
    std::unique_ptr<IniLock> lockFile;
    if (!lockFileHeld) {
        lockFile.reset(new IniLock(*this, u"AgentConfig::updateIniFile"));
        if (!lockFile->ok()) return false;
    }
    if (path.empty()) mergeNVPData();
    rebootPending_ = false;
    const STRING text = serialise();
    if (written) *written = text;
    const STRING target = path.empty() ? iniPath_ : path;
    writeToFile12(target, text, wideCharset());
    // Our own write must not look like a change on disk.
    if (target == iniPath_) lastLoadTime_ = fileModificationTime(iniPath_);
    return true;
}

bool AgentConfig::UpdateAllIni() {
    static const char16_t* const kLabel = u"AgentConfig::UpdateAllIni";
    // The error number of the first failure is the one the caller sees in
    // errno: what the later steps (the copy, the trace, releasing the lock
    // file) leave there says nothing about why a write failed.
    int failure = 0;
    const auto noteFailure = [&failure] {
        if (failure == 0) failure = errno;
    };
    bool iniWritten = false;
    bool fallbackWritten = false;
    {
        Synchronized lock(*this);
        IniLock lockFile(*this, kLabel);
        if (!lockFile.ok()) {
            noteFailure();
        } else {
            STRING text;
            try {
                iniWritten = updateIniFile(true, true, STRING(), &text);
                if (!iniWritten) noteFailure();
            } catch (const IDSException& e) {
                noteFailure();
                trace(kLabel, u"%s", e.toString());
            }
            // The copy is written even when agent.ini could not be. Nothing
            // has changed since agent.ini's text was made, so the copy gets
            // the same text; only with the agent's reboot check, which is
            // asked afresh each time, is the text made again.
            try {
                if (text.empty() || rebootCheck_) {
                    fallbackWritten = updateIniFile(true, true, fallbackPath());
                } else {
                    rebootPending_ = false;
                    writeToFile12(fallbackPath(), text, wideCharset());
                    fallbackWritten = true;
                }
                if (!fallbackWritten) noteFailure();
            } catch (const IDSException& e) {
                noteFailure();
                trace(kLabel, u"%s", e.toString());
            }
        }
    }
    const bool written = iniWritten && fallbackWritten;
    if (!written && failure != 0) errno = failure;
    return written;
}

bool AgentConfig::newConfiguration(const PropertyList& pairs) {
    static const char16_t* const kLabel = u"AgentConfig::newConfiguration";
    Synchronized lock(*this);
    externalLogs_.clear();
    currentSection_.clear();
    for (const auto& p : pairs) setValue(p.first, p.second);
    bool written = false;
    try {
        written = updateIniFile(true, false);
    } catch (const IDSException& e) {
        trace(kLabel, u"%s", e.toString());
    }
    if (written) {
        trace(kLabel, u"Agent Configuration from server written to disk");
    } else if (lockFailures_ != lockFailuresReported_) {
        lockFailuresReported_ = lockFailures_;
        trace(kLabel, u"Agent Configuration from server could not written to disk");
    }
    return written;
}

// ---- Reboot state

int AgentConfig::updateRebootRequiredFlag() {
    Synchronized lock(*this);
    const bool required = slots_[kIpsRebootRequired].flag || slots_[kFimRebootRequired].flag;
    if (mirroredReboot_ == (required ? 1 : 0)) return 0;
    mirroredReboot_ = required ? 1 : 0;
    trace(u"AgentConfig::updateRebootRequiredFlag", u"Reboot required? [%s]", required ? u"true" : u"false");
    try {
        // The key is opened (or created) without the value, so that the
        // value is created on its first write.
        RegistryKey key(kDriverParametersKey, false, RegistryKey::ForWrite{});
        key.setRegData(u"RebootRequired", RegValueType::DWord, required ? u"1" : u"0");
        return 0;
    } catch (const IDSException& e) {
        return e.code() != 0 ? e.code() : -1;
    }
}

bool AgentConfig::isRebootDone() {
    try {
        RegistryKey key(kRebootValuePath, true);
        return key.getDWord() == 0;
    } catch (const IDSException&) {
        return true;
    }
}

void AgentConfig::setIPSServiceStatus(int status) {
    static const char16_t* const kLabel = u"AgentConfig::setIPSServiceStatus";
    Synchronized lock(*this);
    const bool done = isRebootDone();
    if (status == 0) {
        if (done) {
            trace(kLabel, u"System reboot done...? [%s]", done ? u"Yes" : u"No");
            setIpsRebootDone(true);
            setFimRebootDone(true);
            setSourceRebootRequested(0);
        }
        setConfigtoolRebootRequested(false);
        setConfigtoolFimRebootRequested(false);
        try {
            updateIniFile(false, false);
        } catch (const IDSException& e) {
            trace(kLabel, u"%s", e.toString());
        }
    } else if (status == 2) {
        trace(kLabel, u"System reboot done...? [%s]", done ? u"Yes" : u"No");
        setIpsRebootDone(true);
    }
}

// ---- Version

STRING AgentConfig::getCorvaneVersion() {
    Synchronized lock(*this);
    if (!version_.empty()) return version_;
    const STRING path = joinPath(Directory::parentOf(iniPath_), u"zel-version.properties");
    std::vector<STRING> lines;
    try {
        Utils::readLines(path, lines);
    } catch (const IDSException&) {
        trace(u"AgentConfig::getCorvaneVersion", u"Cannot open version file : %s", path);
        return version_;
    }
    STRING version;
    STRING build;
    for (const auto& l : lines) {
        const size_t eq = l.find(u'=');
        if (eq == STRING::npos) continue;
        const STRING key = l.substr(0, eq);
        if (key == STRING(u"version")) version = l.substr(eq + 1);
        else if (key == STRING(u"build.number")) build = l.substr(eq + 1);
    }
    version_ = version + u"." + build;
    return version_;
}
