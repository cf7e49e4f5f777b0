// The prevention driver's device channel: opening the device "\\.\ZELIPS",
// the one routine through which every control request travels, the control
// codes, the byte layout of every request and response record, and the
// three readers of variable-length lists (PSET snapshot, process dump, local
// whitelist) with their buffer-size negotiation.
//
// Every request opens the device, sends one request and closes the device
// again; no handle is kept between requests. The device is exclusive: while
// one opener holds it, every other open fails (error 32) and the request
// returns 2. Nothing here throws except the record readers of PsetSnapshot
// and ProcessDump, which throw DriverRecordRangeError on a malformed record.
//
// On Windows the device is the driver itself (overlapped DeviceIoControl).
// On Linux it is a Unix stream socket at $ZELIPS_DEVICE, else
// /run/zelshield/ZELIPS, that speaks the request protocol of the team's
// design notes (connect = open, one status word, then request and reply
// frames); tools/driver-sim serves it for the tests.
//
// The tool is a 32-bit process: every record below is the driver's wire
// format, byte for byte, and is checked here by size and offset on every
// build. Strings crossing the device are UTF-16LE, integers little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

#include "foundation/ids_exception.h"
#include "foundation/string.h"

// ---------------------------------------------------------------------------
// Results

// The result of every request to the driver.
using DriverResult = int32_t;

namespace driver_result {
// The request completed. Also returned when the wait for a pending request
// ends with neither the signal, an abandoned wait nor the time-out (the
// lenient outcome): the request is then treated as done.
constexpr DriverResult Completed = 0;
// The device could not be opened (driver not loaded, or held by another opener).
constexpr DriverResult NotOpened = 2;
// The completion event could not be created, or the wait was abandoned.
constexpr DriverResult Abandoned = 3;
// The pending request finished with an error other than "more data".
constexpr DriverResult Failed = 4;
// The request did not complete within its time-out and was cancelled.
constexpr DriverResult TimedOut = 5;
// The request failed at once (an error other than "I/O pending").
constexpr DriverResult CallFailed = 6;
// The pending request finished with "more data": the output buffer is too small.
constexpr DriverResult MoreData = 8;
}  // namespace driver_result

// Win32 error numbers the channel produces or tests for.
namespace driver_error {
constexpr uint32_t FileNotFound = 2;
constexpr uint32_t SharingViolation = 32;    // the device is held by another opener
constexpr uint32_t MoreData = 234;           // ERROR_MORE_DATA
constexpr uint32_t IoPending = 997;          // ERROR_IO_PENDING
constexpr uint32_t InvalidHandle = 0xFFFFFFFFu;  // the synchronous path could not open the device
}  // namespace driver_error

// ---------------------------------------------------------------------------
// Control codes: (device type << 16) | (access << 14) | (function << 2) | method.

namespace driver_ioctl {
constexpr uint32_t DeviceType = 0x8000;  // vendor-defined device type
constexpr uint32_t MethodBuffered = 0;
constexpr uint32_t MethodInDirect = 1;
constexpr uint32_t MethodOutDirect = 2;
constexpr uint32_t ReadAccess = 1;
constexpr uint32_t WriteAccess = 2;

constexpr uint32_t code(uint32_t function, uint32_t method, uint32_t access) {
    return (DeviceType << 16) | (access << 14) | (function << 2) | method;
}
}  // namespace driver_ioctl

constexpr uint32_t IOCTL_ZELIPS_NEW_POLICY =
    driver_ioctl::code(0x000, driver_ioctl::MethodInDirect, driver_ioctl::WriteAccess);
constexpr uint32_t IOCTL_ZELIPS_ROLL_PROFILE_LOG =
    driver_ioctl::code(0x001, driver_ioctl::MethodBuffered, driver_ioctl::WriteAccess);
constexpr uint32_t IOCTL_ZELIPS_ROLL_DRIVER_LOG =
    driver_ioctl::code(0x002, driver_ioctl::MethodBuffered, driver_ioctl::WriteAccess);
constexpr uint32_t IOCTL_ZELIPS_USE_BUILTIN =
    driver_ioctl::code(0x005, driver_ioctl::MethodBuffered, driver_ioctl::WriteAccess);
constexpr uint32_t IOCTL_ZELIPS_PSET_SNAPSHOT =
    driver_ioctl::code(0x003, driver_ioctl::MethodOutDirect, driver_ioctl::ReadAccess);
constexpr uint32_t IOCTL_ZELIPS_QUERY_POLICY =
    driver_ioctl::code(0x006, driver_ioctl::MethodBuffered, driver_ioctl::ReadAccess);
constexpr uint32_t IOCTL_ZELIPS_POLICY_ERROR =
    driver_ioctl::code(0x009, driver_ioctl::MethodBuffered, driver_ioctl::ReadAccess);
constexpr uint32_t IOCTL_ZELIPS_PROCESS_DUMP =
    driver_ioctl::code(0x00A, driver_ioctl::MethodOutDirect, driver_ioctl::ReadAccess);
constexpr uint32_t IOCTL_ZELIPS_LOCAL_WHITELIST =
    driver_ioctl::code(0x00D, driver_ioctl::MethodOutDirect, driver_ioctl::ReadAccess);

static_assert(IOCTL_ZELIPS_NEW_POLICY == 0x80008001u, "new policy code");
static_assert(IOCTL_ZELIPS_ROLL_PROFILE_LOG == 0x80008004u, "roll profile log code");
static_assert(IOCTL_ZELIPS_ROLL_DRIVER_LOG == 0x80008008u, "roll driver log code");
static_assert(IOCTL_ZELIPS_USE_BUILTIN == 0x80008014u, "use built-in code");
static_assert(IOCTL_ZELIPS_PSET_SNAPSHOT == 0x8000400Eu, "PSET snapshot code");
static_assert(IOCTL_ZELIPS_QUERY_POLICY == 0x80004018u, "query policy code");
static_assert(IOCTL_ZELIPS_POLICY_ERROR == 0x80004024u, "policy error code");
static_assert(IOCTL_ZELIPS_PROCESS_DUMP == 0x8000402Au, "process dump code");
static_assert(IOCTL_ZELIPS_LOCAL_WHITELIST == 0x80004036u, "local whitelist code");

// The time-out of each request, in milliseconds (the local whitelist is
// synchronous and has none).
namespace driver_timeout {
constexpr uint32_t NewPolicy = 30000;
constexpr uint32_t RollProfileLog = 30000;
constexpr uint32_t RollDriverLog = 30000;
constexpr uint32_t UseBuiltin = 1000;
constexpr uint32_t PsetSnapshot = 1000;
constexpr uint32_t QueryPolicy = 5000;
constexpr uint32_t PolicyError = 1000;
constexpr uint32_t ProcessDump = 1000;
}  // namespace driver_timeout

// ---------------------------------------------------------------------------
// Records (wire formats)

// Response of IOCTL_ZELIPS_QUERY_POLICY; zero-fill it before the request.
struct PolicyInfoRecord {
    uint32_t builtin;        // non-zero: the driver enforces its built-in policy
    char16_t name[128];      // NUL-terminated
    char16_t version[128];   // NUL-terminated
    char16_t id[256];        // NUL-terminated
};
static_assert(sizeof(PolicyInfoRecord) == 1028, "PolicyInfoRecord size");
static_assert(offsetof(PolicyInfoRecord, builtin) == 0, "PolicyInfoRecord.builtin");
static_assert(offsetof(PolicyInfoRecord, name) == 4, "PolicyInfoRecord.name");
static_assert(offsetof(PolicyInfoRecord, version) == 260, "PolicyInfoRecord.version");
static_assert(offsetof(PolicyInfoRecord, id) == 516, "PolicyInfoRecord.id");

// Response of IOCTL_ZELIPS_POLICY_ERROR.
struct PolicyErrorRecord {
    uint32_t reserved;           // not interpreted
    char16_t description[256];   // why the last policy failed to load, NUL-terminated
};
static_assert(sizeof(PolicyErrorRecord) == 516, "PolicyErrorRecord size");
static_assert(offsetof(PolicyErrorRecord, reserved) == 0, "PolicyErrorRecord.reserved");
static_assert(offsetof(PolicyErrorRecord, description) == 4, "PolicyErrorRecord.description");

// The list responses of the PSET snapshot and the process dump start with
// one count word: before the request the number of records the buffer has
// room for, after it the number of records returned.
constexpr uint32_t kDriverListHeaderSize = 4;

// Counted strings: a signed length in characters precedes each string, and
// a length of zero or less means the string is absent. A name is valid up to
// 255 characters, a PSET name up to 64; anything longer is a malformed record.
constexpr int32_t kMaxDriverNameChars = 255;
constexpr int32_t kMaxPsetNameChars = 64;

// One process of the PSET snapshot. Its PSET name field has room for 66
// characters, of which a valid name uses at most 64; the last two
// characters' room (offset 652) carries the number of child records that
// follow this record directly in the snapshot (see PsetChildRecord).
struct PsetRecord {
    uint32_t processId;
    int32_t processNameLength;
    char16_t processName[256];   // full image path
    int32_t psetNameLength;
    char16_t psetName[66];
};
static_assert(sizeof(PsetRecord) == 656, "PsetRecord size");
static_assert(offsetof(PsetRecord, processId) == 0, "PsetRecord.processId");
static_assert(offsetof(PsetRecord, processNameLength) == 4, "PsetRecord.processNameLength");
static_assert(offsetof(PsetRecord, processName) == 8, "PsetRecord.processName");
static_assert(offsetof(PsetRecord, psetNameLength) == 520, "PsetRecord.psetNameLength");
static_assert(offsetof(PsetRecord, psetName) == 524, "PsetRecord.psetName");
constexpr uint32_t kPsetChildCountOffset = 652;  // uint32 inside psetName's room

// A child entry of the PSET snapshot, following its process record.
struct PsetChildRecord {
    int32_t nameLength;
    char16_t name[256];
    int32_t psetNameLength;
    char16_t psetName[64];
};
static_assert(sizeof(PsetChildRecord) == 648, "PsetChildRecord size");
static_assert(offsetof(PsetChildRecord, name) == 4, "PsetChildRecord.name");
static_assert(offsetof(PsetChildRecord, psetNameLength) == 516, "PsetChildRecord.psetNameLength");
static_assert(offsetof(PsetChildRecord, psetName) == 520, "PsetChildRecord.psetName");

// One process of the process dump.
struct ProcessRecord {
    int32_t terminated;   // non-zero: the process has ended
    uint32_t parentProcessId;
    uint32_t processId;
    int32_t parentNameLength;
    char16_t parentName[256];
    int32_t processNameLength;
    char16_t processName[256];
    int32_t psetNameLength;
    char16_t psetName[66];
};
static_assert(sizeof(ProcessRecord) == 1180, "ProcessRecord size");
static_assert(offsetof(ProcessRecord, terminated) == 0, "ProcessRecord.terminated");
static_assert(offsetof(ProcessRecord, parentProcessId) == 4, "ProcessRecord.parentProcessId");
static_assert(offsetof(ProcessRecord, processId) == 8, "ProcessRecord.processId");
static_assert(offsetof(ProcessRecord, parentNameLength) == 12, "ProcessRecord.parentNameLength");
static_assert(offsetof(ProcessRecord, parentName) == 16, "ProcessRecord.parentName");
static_assert(offsetof(ProcessRecord, processNameLength) == 528, "ProcessRecord.processNameLength");
static_assert(offsetof(ProcessRecord, processName) == 532, "ProcessRecord.processName");
static_assert(offsetof(ProcessRecord, psetNameLength) == 1044, "ProcessRecord.psetNameLength");
static_assert(offsetof(ProcessRecord, psetName) == 1048, "ProcessRecord.psetName");

// The local whitelist response: a count word, four reserved bytes, then the
// records from offset 8.
constexpr uint32_t kWhitelistHeaderSize = 8;

struct WhitelistRecord {
    uint32_t type;        // 0 "Override", 1 "Trusted Updater", other "None"
    uint32_t reserved;
    uint64_t timestamp;   // Windows file time: 100 ns since 1601-01-01 UTC
    char16_t path[1024];  // NT device form, NUL-terminated
};
static_assert(sizeof(WhitelistRecord) == 2064, "WhitelistRecord size");
static_assert(alignof(WhitelistRecord) == 8, "WhitelistRecord alignment");
static_assert(offsetof(WhitelistRecord, type) == 0, "WhitelistRecord.type");
static_assert(offsetof(WhitelistRecord, reserved) == 4, "WhitelistRecord.reserved");
static_assert(offsetof(WhitelistRecord, timestamp) == 8, "WhitelistRecord.timestamp");
static_assert(offsetof(WhitelistRecord, path) == 16, "WhitelistRecord.path");

// The text of a NUL-terminated field: up to its first NUL, or the whole
// field when it has none.
STRING driverFieldText(const char16_t* field, size_t room);
template <size_t N>
STRING driverFieldText(const char16_t (&field)[N]) {
    return driverFieldText(field, N);
}

// ---------------------------------------------------------------------------
// Opening the device and sending requests

class DriverDevice;  // one open device; see driver_device.h

// An open device, or the invalid handle value. Closing it (or destroying
// it) closes the device.
class DriverHandle {
public:
    DriverHandle();
    explicit DriverHandle(std::unique_ptr<DriverDevice> device);
    ~DriverHandle();
    DriverHandle(DriverHandle&&) noexcept;
    DriverHandle& operator=(DriverHandle&&) noexcept;
    DriverHandle(const DriverHandle&) = delete;
    DriverHandle& operator=(const DriverHandle&) = delete;

    bool valid() const { return device_ != nullptr; }
    void close();
    DriverDevice* device() const { return device_.get(); }

private:
    std::unique_ptr<DriverDevice> device_;
};

// Where the device is: "\\.\ZELIPS" on Windows; $ZELIPS_DEVICE, else
// "/run/zelshield/ZELIPS", on Linux.
STRING driverDevicePath();

// Opens the device for overlapped requests: read and write access,
// exclusive, existing only. The first failure of a run of failures logs
// catalog message 10112 with the error of the open; the first success after
// it logs 10400.
DriverHandle OpenDriver();

// One request on an open handle. `buffer`/`length` are the request's output
// for the PSET snapshot, policy query, policy error and process dump codes,
// its input for the new-policy and use-built-in codes, and ignored for every
// other code. Waits at most `timeoutMs` for a pending request, then cancels it.
DriverResult notifyDriverOnHandle(DriverHandle& handle, uint32_t code, void* buffer, uint32_t length,
                                  uint32_t timeoutMs);

// Opens the device, sends one request (as notifyDriverOnHandle) and closes
// the device whatever the outcome. 2 when the device cannot be opened.
DriverResult NotifyDriver(uint32_t code, void* buffer, uint32_t length, uint32_t timeoutMs);

// A cheap presence probe: opens the device as OpenDriver does (with its
// reporting) and closes it again. True from the first successful probe on;
// the flag is never cleared.
bool DriverPresent();

// ---------------------------------------------------------------------------
// Readers of the diagnostic lists

// A counted name of a record that is longer than its buffer allows. The
// listing that meets one ends there; nothing is truncated.
class DriverRecordRangeError : public IDSException {
public:
    DriverRecordRangeError(const STRING& operation, const STRING& message) : IDSException(-1, operation, message) {}
};

// A counted name from a driver record: none when the driver sent none.
using DriverName = std::optional<STRING>;

// The text of a counted string field: none when the length is zero or less
// (the string is absent), else the first `length` characters, cut at a NUL
// (a present name may so be empty).
// Throws DriverRecordRangeError when length > maxChars or the characters do
// not fit in the field's room.
DriverName driverCountedText(const char16_t* field, size_t room, int32_t length, int32_t maxChars);

// One child of a PSET snapshot entry.
struct PsetChild {
    DriverName name;
    DriverName psetName;
};

// One process of the PSET snapshot with its children.
struct PsetEntry {
    uint32_t processId = 0;
    DriverName processName;   // full image path
    DriverName psetName;
    std::vector<PsetChild> children;
};

// One process of the process dump.
struct ProcessEntry {
    int32_t terminated = 0;
    uint32_t parentProcessId = 0;
    uint32_t processId = 0;
    DriverName parentName;
    DriverName processName;
    DriverName psetName;
};

// A list response as the driver returned it: the count word and the records
// in a buffer of the length that was offered to the driver.
class DriverListBuffer {
public:
    // Allocates `length` zeroed bytes; valid() is false when that failed.
    explicit DriverListBuffer(uint32_t length);
    ~DriverListBuffer();
    DriverListBuffer(const DriverListBuffer&) = delete;
    DriverListBuffer& operator=(const DriverListBuffer&) = delete;

    bool valid() const { return data_ != nullptr; }
    uint8_t* data() { return data_; }
    const uint8_t* data() const { return data_; }
    uint32_t length() const { return length_; }
    // The count word (0 when the buffer is shorter than it).
    uint32_t count() const;
    void setCount(uint32_t n);

private:
    uint8_t* data_ = nullptr;
    uint32_t length_ = 0;
};

// The PSET snapshot: count() entries, each a PsetRecord followed by its
// child records.
class PsetSnapshot : public DriverListBuffer {
public:
    using DriverListBuffer::DriverListBuffer;
    // Calls `visit` for each entry in order. An entry that is malformed or
    // reaches past the buffer throws DriverRecordRangeError; the entries
    // before it have been visited.
    void forEachEntry(const std::function<void(const PsetEntry&)>& visit) const;
    std::vector<PsetEntry> entries() const;
};

// The process dump: count() records of 1180 bytes.
class ProcessDump : public DriverListBuffer {
public:
    using DriverListBuffer::DriverListBuffer;
    // Record i (0-based). Throws DriverRecordRangeError when the record is
    // malformed or lies past the buffer.
    ProcessEntry entry(uint32_t index) const;
};

// Sends one snapshot request with `buffer` as output and returns its result.
// The listing commands pass DriverConfig's psetsnapshot / processdump, which
// serialise the request with the other driver operations under the driver
// lock; an empty function sends the request directly (NotifyDriver with the
// request's time-out).
using DriverSnapshotRequest = std::function<DriverResult(void* buffer, uint32_t length)>;

// Negotiates the buffer size (128, 256, 512, ... records) and returns the
// snapshot, or nothing after printing why ("Failed to open driver", or
// "Unable to allocate buffer after ... retries" once 102 attempts failed).
std::unique_ptr<PsetSnapshot> getPsetSnapshot(const DriverSnapshotRequest& request = {});

// The same for the process dump. Also writes "getProcessDriverDump" and
// "Buffer length %d" lines to standard output, and stops at once on results
// 4 and 6 ("Unable to retrieve data from the driver").
std::unique_ptr<ProcessDump> getProcessDriverDump(const DriverSnapshotRequest& request = {});

// One local whitelist entry.
struct LocalWhitelistEntry {
    bool present = false;   // true for every entry the driver returned
    uint32_t type = 0;      // see whitelistTypeName
    STRING timestamp;       // "YYYY-MM-DD hh:mm:ss", UTC
};

// The local whitelist by drive-letter path, ordered by code unit. A later
// record with the same path replaces an earlier one.
using LocalWhitelist = std::map<STRING, LocalWhitelistEntry>;

// "Override" (0), "Trusted Updater" (1) or "None".
const char16_t* whitelistTypeName(uint32_t type);

// The time stamp text of a whitelist record: the file time as UTC date and
// time, "YYYY-MM-DD hh:mm:ss".
STRING whitelistTimestampText(uint64_t fileTime);

// Reads the local whitelist through a synchronous request, doubling the
// buffer from 4096 bytes for as long as the driver reports more data.
// Records whose path has no drive letter are left out. False when the
// request failed or returned nothing.
bool getLocalWhitelist(LocalWhitelist& table);

// Rewrites an NT device path ("\Device\HarddiskVolume2\dir\file.exe") in
// place into drive-letter form ("C:\dir\file.exe") within `capacity`
// characters (including the NUL). Drive letters A: to Y: are tried. False,
// with the path unchanged, when no letter maps to the device.
bool DevicePathToDosPath(char16_t* path, size_t capacity);
bool DevicePathToDosPath(STRING& path);

// ---------------------------------------------------------------------------
// Observation and test controls

// Receives every catalog message the channel logs (10112, 10116, 10117,
// 10118, 10119, 10400) with its label and Win32 error (0 when the message
// carries none). The agent's log keeps these only in the agent process; the
// observer sees them in every process. An empty function removes it.
using DriverMessageObserver = std::function<void(int number, const STRING& label, uint32_t error)>;
void setDriverMessageObserver(DriverMessageObserver observer);

// Caps every wait of the channel, and of the device's own handshakes, at
// `ms` milliseconds (0 removes the cap). Tests use it to keep time-outs short.
void setDriverTimeoutCap(uint32_t ms);
uint32_t driverTimeoutCap();

// Clears the process-wide open-failure-reported and driver-present flags.
void resetDriverChannelState();
