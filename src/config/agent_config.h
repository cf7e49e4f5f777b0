// AgentConfig: the model of agent.ini, and its persistence.
//
// One object per process (instance()) holds every setting of the agent as a
// typed value, knows each key's section, type, default and write rule (see
// agent_config_keys.h), turns name/value pairs read from the file into typed
// values (setValue) and the model back into the file's text (serialise).
// Every accessor takes the object's recursive lock; every setter records the
// new value's text in the change record, which is replayed onto the disk
// contents before each write, so that changes made by another process since
// our last read survive and our own changes win for the keys we changed.
//
// On disk: agent.ini and its copy fallback.ini in the IPS folder, guarded by
// the file "lockFile" in the same folder, protected by an MD5 checksum line,
// and replaced through "<file>.2" and "<file>.1" (writeToFile12).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string_view>
#include <vector>

#include "config/agent_config_keys.h"
#include "foundation/large_pages.h"
#include "foundation/string.h"
#include "foundation/sync.h"
#include "foundation/utils.h"

class Utf16leMd5;

class AgentConfig : public Synchronizable {
public:
    enum class Type { Text, Bool, Int, LogPriority, RolloverCause, Comm, Reboot, ExternalLogs, OtherPairs, Checksum };
    enum class Rule {
        Always,
        NotEmpty,
        NotEmptyOrServerManaged,
        ConfigToolRole,
        RebootKey,
        ConsolidateOn,
        RolloverNotNone,
        ContentMetadata,
        Never
    };
    enum Key : int {
#define AGENT_CONFIG_ENUM(name, section, key, type, def, rule) k##name,
        AGENT_CONFIG_KEYS(AGENT_CONFIG_ENUM)
#undef AGENT_CONFIG_ENUM
            kKeyCount
    };
    struct KeyInfo {
        const char16_t* section;  // without brackets; nullptr: never written
        const char16_t* name;
        Type type;
        const char16_t* defaultText;  // nullptr: no value of its own
        Rule rule;
    };
    static const KeyInfo& keyInfo(Key key);

    // Log priority and roll-over cause values.
    enum { PriorityMin = 0, PriorityNorm = 1, PriorityMax = 2 };
    enum { RolloverNone = 0, RolloverSize = 1, RolloverDate = 2 };

    static constexpr const char16_t* kNotComputed = u"Not Computed";

    // ---- The process's instance

    // Creates and loads the model on first use (repairing agent.ini from
    // fallback.ini when it had to be used), counts the use.
    static AgentConfig* instance();
    // Drops one use; the last one destroys the model.
    static void releaseInstance();

    // A model of the agent.ini at this path (its folder holds fallback.ini
    // and the lock file). The process normally uses instance().
    explicit AgentConfig(STRING iniPath);
    ~AgentConfig() override;
    AgentConfig(const AgentConfig&) = delete;
    AgentConfig& operator=(const AgentConfig&) = delete;

    // ---- Typed accessors, one pair per key

#define AGENT_CONFIG_DECL_Text(name) \
    STRING get##name();              \
    void set##name(const STRING& value);
#define AGENT_CONFIG_DECL_Comm(name) AGENT_CONFIG_DECL_Text(name)
#define AGENT_CONFIG_DECL_Bool(name) \
    bool get##name();                \
    void set##name(bool value);
#define AGENT_CONFIG_DECL_Int(name) \
    int get##name();                \
    void set##name(int value);
#define AGENT_CONFIG_DECL_LogPriority(name) AGENT_CONFIG_DECL_Int(name)
#define AGENT_CONFIG_DECL_RolloverCause(name) AGENT_CONFIG_DECL_Int(name)
#define AGENT_CONFIG_DECL_Reboot(name)
#define AGENT_CONFIG_DECL_ExternalLogs(name)
#define AGENT_CONFIG_DECL_OtherPairs(name)
#define AGENT_CONFIG_DECL_Checksum(name)
#define AGENT_CONFIG_DECL(name, section, key, type, def, rule) AGENT_CONFIG_DECL_##type(name)
    AGENT_CONFIG_KEYS(AGENT_CONFIG_DECL)
#undef AGENT_CONFIG_DECL

    // The reboot-required flags of the prevention driver and of file
    // monitoring. Their setters take "reboot done" and store its negation.
    bool getIpsRebootRequired();
    void setIpsRebootDone(bool rebootDone);
    bool getFimRebootRequired();
    void setFimRebootDone(bool rebootDone);

    std::vector<STRING> getExternalLogs();
    void setExternalLogs(const std::vector<STRING>& logs);
    PropertyList getOtherPairs();

    // Text of any communication-map key ("agent.id", "failback.interval", ...).
    STRING getCommValue(const STRING& name);

    // ---- Management server connection settings
    //
    // "server.list" holds the management servers as comma-separated entries;
    // entries are trimmed and empty ones dropped, both when the list is
    // stored and when it is read. The first entry is the primary server.
    //
    // "agent.http.url" is the address the agent posts to:
    //   protocol "://" current server [":" port] "/" path
    // The current server is the host of that address (the first server of
    // the list while the address is empty). Changing the protocol, the port
    // or the current server rebuilds the address from the protocol, the
    // current server, the port and the path it already had. Storing a server
    // list that does not contain the current server makes its first entry
    // the current server.
    std::vector<STRING> getServerList();
    int getServerCount();
    void setServerList(const STRING& commaSeparated);
    // "Unknown" when neither the address nor the list names a server.
    STRING getCurrentServer();
    void setCurrentServer(const STRING& server);
    // The address's port, or the protocol's default (443, 80) when it has none.
    int getPort();
    void setPort(int port);
    // "http" or "https" ("https" while the address is empty).
    STRING getProtocol();
    void setProtocol(const STRING& protocol);
    // "failback.interval" in seconds (lenient conversion of its text).
    int getFailbackInterval();
    void setFailbackInterval(int seconds);

    // ---- Reading and writing pairs

    // What setValue made of a pair.
    enum SetValueResult { kPairStored = 1, kChecksumLine = 2 };
    // One pair of the file under the current section: kChecksumLine for the
    // checksum line (its value becomes the stored checksum), kPairStored for
    // every other pair.
    int setValue(const STRING& name, const STRING& value);
    // The whole agent.ini text, ending with the checksum line.
    STRING serialise();
    // The same text handed to sink in pieces of whole lines, for a caller
    // that passes it on without holding all of it.
    void serialiseTo(const std::function<void(std::u16string_view)>& sink);
    // The checksum of a text: MD5 over its UTF-16LE bytes, 32 hex digits.
    static STRING checksumOf(const STRING& text);

    // The version of the agent: "version" and "build.number" of
    // zel-version.properties in the agent's folder, joined with ".".
    STRING getCorvaneVersion();

    // ---- Persistence

    const STRING& iniPath() const { return iniPath_; }
    // agent.ini could be read under the lock file: false when the last load
    // could not take the lock file or read neither file, and when agent.ini
    // cannot be read (a missing file among them). The model then holds no
    // configuration from disk, and no command may act on it.
    bool isAccessible();
    STRING fallbackPath() const;
    STRING lockFilePath() const;

    // Loads agent.ini (fallback.ini when agent.ini is unreadable or corrupt,
    // then usedFallback is set). Returns at once when agent.ini has not
    // changed since this process last read or wrote it.
    bool loadIniFile(bool& usedFallback);
    // Tolerant read of a file into the model; path empty: agent.ini.
    bool readIniFileInMem(int64_t& modificationTime, const STRING& path = STRING());
    // True when the last read failed or its checksum does not verify.
    bool isCorrupt(bool readOk);
    // Re-reads agent.ini (or fallback.ini) and replays the change record.
    void mergeNVPData();
    // Writes the model to a file by the safe replace; path empty: agent.ini,
    // after a merge. Throws IDSException (256) when a remove or rename fails.
    bool updateIniFile(bool objectLockHeld, bool lockFileHeld, const STRING& path = STRING());
    // Writes agent.ini and then fallback.ini under one lock.
    bool UpdateAllIni();
    // Takes a configuration received from the server and writes it.
    bool newConfiguration(const PropertyList& pairs);

    // Mirrors "reboot required" into the driver's registry key when it has
    // changed; the registry write's result, 0 when nothing was written.
    int updateRebootRequiredFlag();
    // The driver's "RebootRequired" value is absent or 0.
    static bool isRebootDone();
    void setIPSServiceStatus(int status);

    bool rebootPending() const { return rebootPending_; }
    int64_t lastLoadTime() const { return lastLoadTime_; }
    // How many times a file was actually read (for the tests of the reload rule).
    int readCount() const { return readCount_; }

    // ---- Process-wide switches

    static bool recordChanges() { return recordChanges_.load(); }
    static void setRecordChanges(bool on) { recordChanges_.store(on); }
    // On when "agent.charset" is anything but "UTF-8": files are then UTF-16.
    static bool wideCharset() { return wideCharset_.load(); }

    // The agent's own reboot check for a component (role 1 only).
    using RebootCheck = std::function<bool(Key)>;
    void setRebootCheck(RebootCheck check) { rebootCheck_ = std::move(check); }
    // The pause between attempts to open the lock file (tests shorten it).
    static void setLockRetrySleep(std::function<void(int ms)> sleep);

    // The change record (name -> value text).
    std::map<STRING, STRING> changes();

private:
    struct Slot {
        STRING text;
        bool flag = false;
        int number = 0;
        bool assigned = false;
    };

    class TextSink;
    class SerialWriter;
    // Hands the file's text, in order, to the sink.
    void generate(TextSink& sink);
    // setValue on the text of the name and the value; setPairLocked with
    // the object lock already held.
    // inText: name and value stand in otherText_, a line of the read that is
    // under way.
    int setPair(std::u16string_view name, std::u16string_view value);
    int setPairLocked(std::u16string_view name, std::u16string_view value, bool inText = false);
    // updateIniFile, handing back the text it wrote.
    bool updateIniFile(bool objectLockHeld, bool lockFileHeld, const STRING& path, STRING* written);
    void resetToDefaults();
    // Finishes a replace of agent.ini or fallback.ini that a killed writer
    // left between its two renames. The lock file must be held.
    void completeInterruptedReplaces();
    void assign(Key key, const STRING& value);
    void record(Key key);
    STRING valueText(Key key);
    bool shouldWrite(Key key);
    STRING& comm(Key key);
    void setRolloverCause(int cause);
    void rebuildUrl(const STRING* scheme, const STRING* host, const int* port);

    STRING iniPath_;
    std::vector<Slot> slots_;
    std::map<STRING, STRING> comm_;
    std::vector<STRING> externalLogs_;
    // The pairs the model has no key for ("[Other]" and unknown sections),
    // in file order. Their characters stand in one buffer, otherText_, which
    // is also the text of the last read: every line of it but the checksum
    // line, each ended by CR LF, as the checksum covers it. A pair of the
    // file is its place in that text; a pair set later is added at the end
    // as "name=value" and CR LF. A large file's pairs cost no copy and two
    // allocations, not two each.
    struct OtherPair {
        size_t at;             // the name; "=" and the value follow it
        uint32_t nameLength;
        uint32_t valueLength;
    };
    // Reading (readIniFileInMem): room made ahead for a file of `bytes`
    // bytes, its lines read into the text and through the digest (throws
    // IDSException), and one line's pair or section taken (false for the
    // checksum line, which does not stay in the text).
    void prepareRead(long long bytes);
    void readText(FILE* fp, long long bytes, Utf16leMd5& md5);
    bool takeLine(std::u16string_view text);

    void clearOtherPairs();
    void addOtherPair(std::u16string_view name, std::u16string_view value, bool inText);
    std::u16string_view otherName(const OtherPair& p) const { return {otherText_.data() + p.at, p.nameLength}; }
    std::u16string_view otherValue(const OtherPair& p) const {
        if (p.valueLength == 0) return {};
        return {otherText_.data() + p.at + p.nameLength + 1, p.valueLength};
    }
    // The pair stands in the text as the line serialise() writes for it,
    // "name=value" and CR LF (a line of the read without "=" has no value
    // and does not).
    bool otherPairStandsWhole(const OtherPair& p) const {
        return p.at + p.nameLength < otherText_.size() && otherText_[p.at + p.nameLength] == u'=';
    }
    void appendOtherText(std::u16string_view t) { otherText_.insert(otherText_.end(), t.begin(), t.end()); }
    // Both may hold a whole large file.
    std::vector<char16_t, LargeBufferAllocator<char16_t>> otherText_;
    std::vector<OtherPair, LargeBufferAllocator<OtherPair>> otherPairs_;
    STRING currentSection_;
    // The checksum line's value as the last read found it: empty when the
    // file had none, and then the file does not verify (only the value
    // "Not Computed" turns the check off).
    STRING storedChecksum_;
    // What the last read took in: its text is otherText_ up to readTextEnd_
    // (every line but the checksum line; pairs set afterwards stand after
    // it), and readChecksum() is that text's checksum. Before the first read
    // and after a failed one the text is empty (readChecksum_ too, and
    // readChecksum() is the checksum of no text).
    const STRING& readChecksum();
    STRING readChecksum_;
    size_t readTextEnd_ = 0;
    std::map<STRING, STRING> changes_;
    STRING version_;

    int64_t lastLoadTime_ = -1;
    int readCount_ = 0;
    // When the last read of agent.ini read it whole (isAccessible's answer
    // for a moment afterwards), and whether the last load failed.
    bool iniOpened_ = false;
    bool loadFailed_ = false;
    std::chrono::steady_clock::time_point iniOpenedAt_;
    bool rebootPending_ = false;
    int mirroredReboot_ = -1;  // state last written to the registry; -1 none
    unsigned lockFailures_ = 0;
    unsigned lockFailuresReported_ = 0;
    RebootCheck rebootCheck_;

    static std::atomic<bool> recordChanges_;
    static std::atomic<bool> wideCharset_;

    friend class IniLock;
};
