// The portable half of the driver channel: the request routine with its
// wait and cancel logic, the open-failure reporting, the buffer negotiation
// of the list readers and the parsing of their records. The device itself
// is behind DriverDevice (driver_device.h).
#include "driver/driver_channel.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "driver/driver_device.h"
#include "foundation/console.h"
#include "foundation/date.h"
#include "foundation/log.h"

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "the driver's records are read in place: little-endian hosts only"
#endif

namespace {

std::atomic<bool> g_openFailureReported{false};
std::atomic<bool> g_driverPresent{false};
std::atomic<uint32_t> g_timeoutCap{0};

std::mutex& observerLock() {
    static std::mutex m;
    return m;
}

DriverMessageObserver& observerSlot() {
    static DriverMessageObserver observer;
    return observer;
}

void notifyObserver(int number, const char16_t* label, uint32_t error) {
    DriverMessageObserver observer;
    {
        std::lock_guard<std::mutex> guard(observerLock());
        observer = observerSlot();
    }
    if (observer) observer(number, STRING(label), error);
}

// A catalog message whose arguments are the label alone.
void report(catalog::Message<1> message, const char16_t* label) {
    logMessage(message, label, label);
    notifyObserver(message.number, label, 0);
}

// A catalog message whose arguments are the label and a Win32 error.
void report(catalog::Message<2> message, const char16_t* label, uint32_t error) {
    logMessage(message, label, label, error);
    notifyObserver(message.number, label, error);
}

uint32_t capped(uint32_t timeoutMs) {
    const uint32_t cap = g_timeoutCap.load();
    return cap != 0 && timeoutMs > cap ? cap : timeoutMs;
}

// Narrow text straight to standard output (the process dump's progress lines).
void writeNarrow(const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

template <class T>
T readAt(const uint8_t* data, size_t offset) {
    T value;
    std::memcpy(&value, data + offset, sizeof value);
    return value;
}

}  // namespace

// ---------------------------------------------------------------------------
// Fields

STRING driverFieldText(const char16_t* field, size_t room) {
    size_t n = 0;
    while (n < room && field[n] != 0) ++n;
    return STRING(field, n);
}

DriverName driverCountedText(const char16_t* field, size_t room, int32_t length, int32_t maxChars) {
    if (length <= 0) return std::nullopt;
    if (length > maxChars || static_cast<size_t>(length) > room) {
        throw DriverRecordRangeError(u"driverCountedText",
                                     formatString(u"range check failed: a name of %d characters, at most %d fit",
                                                  length, maxChars));
    }
    return driverFieldText(field, static_cast<size_t>(length));
}

// ---------------------------------------------------------------------------
// Handles and requests

DriverHandle::DriverHandle() = default;
DriverHandle::DriverHandle(std::unique_ptr<DriverDevice> device) : device_(std::move(device)) {}
DriverHandle::~DriverHandle() = default;
DriverHandle::DriverHandle(DriverHandle&&) noexcept = default;
DriverHandle& DriverHandle::operator=(DriverHandle&&) noexcept = default;
void DriverHandle::close() { device_.reset(); }

STRING driverDevicePath() { return driver_device::devicePath(); }

DriverHandle OpenDriver() {
    uint32_t error = 0;
    std::unique_ptr<DriverDevice> device = driver_device::open(true, error);
    if (!device) {
        if (!g_openFailureReported.exchange(true)) report(catalog::DRV_OPEN_FAILED, u"OpenDriver()", error);
        return DriverHandle();
    }
    if (g_openFailureReported.exchange(false)) report(catalog::DRV_AVAILABLE, u"OpenDriver()");
    return DriverHandle(std::move(device));
}

DriverResult notifyDriverOnHandle(DriverHandle& handle, uint32_t code, void* buffer, uint32_t length,
                                  uint32_t timeoutMs) {
    DriverDevice* device = handle.device();
    if (device == nullptr) {
        // What the device call itself answers for the invalid handle value.
        report(catalog::DRV_REQUEST_FAILED, u"NotifyDriver()", 6);
        return driver_result::CallFailed;
    }
    if (!device->createEvent()) {
        report(catalog::DRV_EVENT_FAILED, u"NotifyDriver()");
        return driver_result::Abandoned;
    }

    const void* input = nullptr;
    uint32_t inputLength = 0;
    void* output = nullptr;
    uint32_t outputLength = 0;
    switch (code) {
    case IOCTL_ZELIPS_PSET_SNAPSHOT:
    case IOCTL_ZELIPS_QUERY_POLICY:
    case IOCTL_ZELIPS_POLICY_ERROR:
    case IOCTL_ZELIPS_PROCESS_DUMP:
        output = buffer;
        outputLength = length;
        break;
    case IOCTL_ZELIPS_NEW_POLICY:
    case IOCTL_ZELIPS_USE_BUILTIN:
        input = buffer;
        inputLength = length;
        break;
    default:
        break;
    }
    if (buffer == nullptr) {
        input = nullptr;
        inputLength = 0;
        output = nullptr;
        outputLength = 0;
    }

    const uint32_t timeout = capped(timeoutMs);
    uint32_t error = 0;
    const DriverDevice::Start started =
        device->start(code, input, inputLength, output, outputLength, timeout, error);
    if (started == DriverDevice::Start::Completed) {
        trace(u"NotifyDriver()::_NotifyDriver", u"I/O completed.");
        device->closeEvent();
        return driver_result::Completed;
    }
    if (started == DriverDevice::Start::Failed) {
        report(catalog::DRV_REQUEST_FAILED, u"NotifyDriver()", error);
        device->closeEvent();
        return driver_result::CallFailed;
    }

    trace(u"NotifyDriver()", u"I/O pending.");
    trace(u"NotifyDriver", u"Waiting for I/O, max %ld ms.", timeout);
    const uint32_t waited = device->wait(timeout);
    trace(u"NotifyDriver", u"Done waiting.");

    if (waited == device_wait::Abandoned) {
        report(catalog::DRV_WAIT_ABANDONED, u"NotifyDriver()");
        device->closeEvent();
        return driver_result::Abandoned;
    }
    if (waited == device_wait::TimedOut) {
        report(catalog::DRV_TIMEOUT, u"NotifyDriver()");
        device->cancel();
        device->closeEvent();
        return driver_result::TimedOut;
    }
    if (waited != device_wait::Signalled) {
        // Any other outcome of the wait counts as done.
        device->closeEvent();
        return driver_result::Completed;
    }

    DriverResult result = driver_result::Completed;
    if (!device->result(error)) {
        result = error == driver_error::MoreData ? driver_result::MoreData : driver_result::Failed;
    }
    trace(u"NotifyDriver()", u"Waited, %s", result == driver_result::Completed ? u"okay" : u"failed");
    device->closeEvent();
    return result;
}

DriverResult NotifyDriver(uint32_t code, void* buffer, uint32_t length, uint32_t timeoutMs) {
    DriverHandle handle = OpenDriver();
    if (!handle.valid()) return driver_result::NotOpened;
    const DriverResult result = notifyDriverOnHandle(handle, code, buffer, length, timeoutMs);
    handle.close();
    return result;
}

bool DriverPresent() {
    DriverHandle handle = OpenDriver();
    if (handle.valid()) g_driverPresent.store(true);
    handle.close();
    return g_driverPresent.load();
}

// ---------------------------------------------------------------------------
// List buffers and their records

DriverListBuffer::DriverListBuffer(uint32_t length) {
    if (length == 0) return;
    data_ = static_cast<uint8_t*>(std::calloc(length, 1));
    if (data_ != nullptr) length_ = length;
}

DriverListBuffer::~DriverListBuffer() { std::free(data_); }

uint32_t DriverListBuffer::count() const {
    return length_ >= kDriverListHeaderSize ? readAt<uint32_t>(data_, 0) : 0;
}

void DriverListBuffer::setCount(uint32_t n) {
    if (length_ >= kDriverListHeaderSize) std::memcpy(data_, &n, sizeof n);
}

void PsetSnapshot::forEachEntry(const std::function<void(const PsetEntry&)>& visit) const {
    const STRING op(u"PsetSnapshot::forEachEntry");
    const uint32_t n = count();
    size_t offset = kDriverListHeaderSize;
    for (uint32_t i = 0; i < n; ++i) {
        if (offset + sizeof(PsetRecord) > length()) {
            throw DriverRecordRangeError(op, formatString(u"range check failed: PSET entry %u lies past the buffer", i));
        }
        const auto record = readAt<PsetRecord>(data(), offset);
        PsetEntry entry;
        entry.processId = record.processId;
        entry.processName = driverCountedText(record.processName, 256, record.processNameLength, kMaxDriverNameChars);
        entry.psetName = driverCountedText(record.psetName, 66, record.psetNameLength, kMaxPsetNameChars);
        const uint32_t children = readAt<uint32_t>(data(), offset + kPsetChildCountOffset);
        offset += sizeof(PsetRecord);
        if (children > (length() - offset) / sizeof(PsetChildRecord)) {
            throw DriverRecordRangeError(
                op, formatString(u"range check failed: %u children of PSET entry %u lie past the buffer", children, i));
        }
        entry.children.reserve(children);
        for (uint32_t c = 0; c < children; ++c) {
            const auto child = readAt<PsetChildRecord>(data(), offset);
            PsetChild item;
            item.name = driverCountedText(child.name, 256, child.nameLength, kMaxDriverNameChars);
            item.psetName = driverCountedText(child.psetName, 64, child.psetNameLength, kMaxPsetNameChars);
            entry.children.push_back(std::move(item));
            offset += sizeof(PsetChildRecord);
        }
        visit(entry);
    }
}

std::vector<PsetEntry> PsetSnapshot::entries() const {
    std::vector<PsetEntry> out;
    forEachEntry([&out](const PsetEntry& e) { out.push_back(e); });
    return out;
}

ProcessEntry ProcessDump::entry(uint32_t index) const {
    const size_t offset = kDriverListHeaderSize + static_cast<size_t>(index) * sizeof(ProcessRecord);
    if (index >= count() || offset + sizeof(ProcessRecord) > length()) {
        throw DriverRecordRangeError(u"ProcessDump::entry",
                                     formatString(u"range check failed: process record %u lies past the buffer", index));
    }
    const auto record = readAt<ProcessRecord>(data(), offset);
    ProcessEntry e;
    e.terminated = record.terminated;
    e.parentProcessId = record.parentProcessId;
    e.processId = record.processId;
    e.parentName = driverCountedText(record.parentName, 256, record.parentNameLength, kMaxDriverNameChars);
    e.processName = driverCountedText(record.processName, 256, record.processNameLength, kMaxDriverNameChars);
    e.psetName = driverCountedText(record.psetName, 66, record.psetNameLength, kMaxPsetNameChars);
    return e;
}

// ---------------------------------------------------------------------------
// Snapshot negotiation

namespace {

constexpr int kRetryBudget = 100;

// The outcome of one snapshot attempt that ends the negotiation.
enum class Attempt { Done, GiveUp, Retry };

// The doubling loop shared by both snapshots. `recordSize` is the size of
// one record; `onAttempt` runs before each request with the byte length;
// `stopAtOnce` tells which results end the negotiation with `stopText`.
template <class Buffer>
std::unique_ptr<Buffer> negotiate(uint32_t recordSize, const DriverSnapshotRequest& request,
                                  const std::function<void(uint32_t)>& onAttempt,
                                  const std::function<bool(DriverResult)>& stopAtOnce) {
    uint32_t capacity = 64;
    int budget = kRetryBudget;
    for (;;) {
        capacity *= 2;  // wraps as the 32-bit arithmetic does; the budget bounds the loop
        const uint32_t length = capacity * recordSize + kDriverListHeaderSize;
        auto buffer = std::make_unique<Buffer>(length);
        if (!buffer->valid()) {
            ConsolePrint(u"Unable to allocate buffer after %d retries\n", kRetryBudget - budget);
            return nullptr;
        }
        buffer->setCount(capacity);
        if (onAttempt) onAttempt(length);
        const DriverResult result = request(buffer->data(), length);
        if (result == driver_result::Completed) return buffer;
        if (result == driver_result::NotOpened) {
            ConsolePrint(u"Failed to open driver\n");
            return nullptr;
        }
        if (stopAtOnce && stopAtOnce(result)) {
            ConsolePrint(u"Unable to retrieve data from the driver\n");
            return nullptr;
        }
        const int noted = budget--;
        if (noted < 0) break;
    }
    ConsolePrint(u"Unable to allocate buffer after 100 retries\n");
    return nullptr;
}

DriverSnapshotRequest directRequest(uint32_t code, uint32_t timeoutMs) {
    return [code, timeoutMs](void* buffer, uint32_t length) { return NotifyDriver(code, buffer, length, timeoutMs); };
}

}  // namespace

std::unique_ptr<PsetSnapshot> getPsetSnapshot(const DriverSnapshotRequest& request) {
    const DriverSnapshotRequest send =
        request ? request : directRequest(IOCTL_ZELIPS_PSET_SNAPSHOT, driver_timeout::PsetSnapshot);
    return negotiate<PsetSnapshot>(sizeof(PsetRecord), send, nullptr, nullptr);
}

std::unique_ptr<ProcessDump> getProcessDriverDump(const DriverSnapshotRequest& request) {
    const DriverSnapshotRequest send =
        request ? request : directRequest(IOCTL_ZELIPS_PROCESS_DUMP, driver_timeout::ProcessDump);
    writeNarrow("getProcessDriverDump\n");
    return negotiate<ProcessDump>(
        sizeof(ProcessRecord), send,
        [](uint32_t length) {
            char line[64];
            std::snprintf(line, sizeof line, "Buffer length %d\n", static_cast<int>(static_cast<int32_t>(length)));
            writeNarrow(line);
        },
        [](DriverResult r) { return r == driver_result::Failed || r == driver_result::CallFailed; });
}

// ---------------------------------------------------------------------------
// Local whitelist

namespace {

constexpr uint32_t kWhitelistFirstSize = 4096;
constexpr uint64_t kFileTimeEpochOffset = 116444736000000000ULL;  // 1601-01-01 to 1970-01-01 in 100 ns

// One synchronous whitelist request: 0 or the Win32 error (all bits set
// when the device cannot be opened).
uint32_t whitelistRequest(DriverListBuffer& buffer, uint32_t& bytesReturned) {
    uint32_t error = 0;
    std::unique_ptr<DriverDevice> device = driver_device::open(false, error);
    if (!device) return driver_error::InvalidHandle;
    error = device->control(IOCTL_ZELIPS_LOCAL_WHITELIST, buffer.data(), buffer.length(), bytesReturned);
    device.reset();
    return error;
}

// The devices behind the drive letters A: to Y:, looked up once.
class DosDeviceTable {
public:
    DosDeviceTable() {
        for (char16_t letter = u'A'; letter <= u'Y'; ++letter) {
            STRING drive;
            drive += letter;
            drive += u':';
            STRING target;
            if (driver_device::queryDosDevice(drive, target) && target.length() < 260) {
                entries_.push_back({drive, target});
            }
        }
    }
    // The drive ("C:") whose device is `prefix`, or empty.
    STRING driveOf(const STRING& prefix) const {
        for (const auto& e : entries_)
            if (e.second.equalsIgnoreCase(prefix)) return e.first;
        return STRING();
    }

private:
    std::vector<std::pair<STRING, STRING>> entries_;
};

size_t boundedLength(const char16_t* text, size_t capacity) {
    size_t n = 0;
    while (n < capacity && text[n] != 0) ++n;
    return n;
}

bool rewriteDevicePath(char16_t* path, size_t capacity, const DosDeviceTable& drives) {
    if (path == nullptr || capacity == 0) return false;
    const size_t length = boundedLength(path, capacity);
    size_t first = 1;
    while (first < length && path[first] != u'\\') ++first;
    if (first >= length) return false;
    size_t second = first + 1;
    while (second < length && path[second] != u'\\') ++second;
    if (second >= length) return false;

    const STRING drive = drives.driveOf(STRING(path, second));
    if (drive.empty()) return false;
    const STRING rewritten = drive + u"\\" + STRING(path + second + 1, length - second - 1);
    const size_t n = rewritten.length() < capacity ? rewritten.length() : capacity - 1;
    std::memcpy(path, rewritten.c_str(), n * sizeof(char16_t));
    path[n] = 0;
    return true;
}

}  // namespace

const char16_t* whitelistTypeName(uint32_t type) {
    switch (type) {
    case 0: return u"Override";
    case 1: return u"Trusted Updater";
    default: return u"None";
    }
}

STRING whitelistTimestampText(uint64_t fileTime) {
    const auto seconds = static_cast<int64_t>(fileTime - kFileTimeEpochOffset) / 10000000;
    STRING text = Date(seconds * 1000).formatUtc();
    auto blank = [](char16_t c) { return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n'; };
    size_t b = 0;
    size_t e = text.length();
    while (b < e && blank(text[b])) ++b;
    while (e > b && blank(text[e - 1])) --e;
    return text.substr(b, e - b);
}

bool getLocalWhitelist(LocalWhitelist& table) {
    uint32_t size = kWhitelistFirstSize;
    auto buffer = std::make_unique<DriverListBuffer>(size);
    uint32_t bytesReturned = 0;
    uint32_t error = buffer->valid() ? whitelistRequest(*buffer, bytesReturned) : 0;
    while (buffer && error == driver_error::MoreData) {
        buffer.reset();
        size *= 2;  // 32-bit, as the request's length is; a wrap to 0 leaves no buffer
        if (size == 0) break;
        buffer = std::make_unique<DriverListBuffer>(size);
        if (!buffer->valid()) {
            buffer.reset();
            break;
        }
        bytesReturned = 0;
        error = whitelistRequest(*buffer, bytesReturned);
    }
    if (!buffer || !buffer->valid() || bytesReturned == 0 || error != 0) return false;

    const uint32_t count = buffer->count();
    if (kWhitelistHeaderSize + static_cast<uint64_t>(count) * sizeof(WhitelistRecord) > buffer->length()) {
        // More records claimed than the buffer holds: not a response we can read.
        return false;
    }
    const DosDeviceTable drives;
    for (uint32_t i = 0; i < count; ++i) {
        const auto record =
            readAt<WhitelistRecord>(buffer->data(), kWhitelistHeaderSize + static_cast<size_t>(i) * sizeof(WhitelistRecord));
        char16_t path[1025];
        std::memcpy(path, record.path, sizeof record.path);
        path[1024] = 0;
        if (!rewriteDevicePath(path, 1024, drives)) continue;
        LocalWhitelistEntry entry;
        entry.present = true;
        entry.type = record.type;
        entry.timestamp = whitelistTimestampText(record.timestamp);
        table[STRING(path, boundedLength(path, 1024))] = std::move(entry);
    }
    return true;
}

bool DevicePathToDosPath(char16_t* path, size_t capacity) {
    const DosDeviceTable drives;
    return rewriteDevicePath(path, capacity, drives);
}

bool DevicePathToDosPath(STRING& path) {
    std::u16string buffer = path.str();
    buffer.push_back(0);
    if (!DevicePathToDosPath(&buffer[0], buffer.size())) return false;
    path = STRING(buffer.c_str());
    return true;
}

// ---------------------------------------------------------------------------
// Observation and test controls

void setDriverMessageObserver(DriverMessageObserver observer) {
    std::lock_guard<std::mutex> guard(observerLock());
    observerSlot() = std::move(observer);
}

void setDriverTimeoutCap(uint32_t ms) { g_timeoutCap.store(ms); }
uint32_t driverTimeoutCap() { return g_timeoutCap.load(); }

void resetDriverChannelState() {
    g_openFailureReported.store(false);
    g_driverPresent.store(false);
}
