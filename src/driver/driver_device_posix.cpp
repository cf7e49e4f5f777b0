// The driver device on Linux: a Unix stream socket at $ZELIPS_DEVICE, else
// /run/zelshield/ZELIPS. All integers are little-endian 32-bit words.
//
//   open     connect; the driver sends one word: 0 = opened, else the Win32
//            error of the open (32 when another opener holds the device).
//            A missing or refusing socket is error 2.
//   request  code, input length, output capacity, input bytes.
//   reply    a disposition word, then
//            0 immediate:    status, output length, output bytes
//            1 pending:      nothing now; later a completion frame of status,
//                            output length, output bytes
//            2 abandoned, 3 wait failed: nothing more.
//   cancel   the client closes the connection.
//
// Drive letters: the NT device behind "C:" is the REG_SZ value "C:" of
// HKEY_LOCAL_MACHINE\SYSTEM\CurrentControlSet\Control\Session Manager\DOS Devices
// in the registry store, for example "C:"="\Device\HarddiskVolume2".
#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>

#include "driver/driver_channel.h"
#include "driver/driver_device.h"
#include "foundation/registry_store.h"

namespace {

constexpr uint32_t kDispositionImmediate = 0;
constexpr uint32_t kDispositionPending = 1;
constexpr uint32_t kDispositionAbandoned = 2;
constexpr uint32_t kDispositionWaitFailed = 3;

constexpr uint32_t kErrorAccessDenied = 5;
constexpr uint32_t kErrorOperationAborted = 995;
constexpr uint32_t kErrorIoIncomplete = 996;
constexpr uint32_t kErrorDeviceNotConnected = 1167;
constexpr uint32_t kErrorTimeout = 1460;

// How long the driver may take to answer an open.
constexpr uint32_t kOpenAnswerMs = 5000;

using Clock = std::chrono::steady_clock;

// A point in time to give up at; `forever` never passes.
struct Deadline {
    bool forever = false;
    Clock::time_point at;

    static Deadline in(uint32_t ms) {
        Deadline d;
        d.at = Clock::now() + std::chrono::milliseconds(ms);
        return d;
    }
    static Deadline never() {
        Deadline d;
        d.forever = true;
        return d;
    }
    // Milliseconds left for poll(): -1 forever, 0 when passed.
    int remainingMs() const {
        if (forever) return -1;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(at - Clock::now()).count();
        if (left <= 0) return 0;
        return left > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(left);
    }
};

// Synchronous waits are unbounded unless the tests cap them.
Deadline unboundedWait() {
    const uint32_t cap = driverTimeoutCap();
    return cap != 0 ? Deadline::in(cap) : Deadline::never();
}

enum class Io { Ok, TimedOut, Closed };

// Reads exactly `length` bytes before the deadline.
Io readExact(int fd, void* data, size_t length, const Deadline& deadline) {
    auto* p = static_cast<uint8_t*>(data);
    size_t done = 0;
    while (done < length) {
        pollfd pfd{fd, POLLIN, 0};
        const int ready = ::poll(&pfd, 1, deadline.remainingMs());
        if (ready < 0) {
            if (errno == EINTR) continue;
            return Io::Closed;
        }
        if (ready == 0) return Io::TimedOut;
        const ssize_t n = ::recv(fd, p + done, length - done, 0);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return Io::Closed;
        }
        if (n == 0) return Io::Closed;
        done += static_cast<size_t>(n);
    }
    return Io::Ok;
}

Io readWord(int fd, uint32_t& word, const Deadline& deadline) {
    uint8_t b[4];
    const Io io = readExact(fd, b, 4, deadline);
    if (io == Io::Ok) word = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
    return io;
}

// Reads and drops `length` bytes.
Io skip(int fd, uint32_t length, const Deadline& deadline) {
    uint8_t scratch[4096];
    while (length > 0) {
        const size_t n = length < sizeof scratch ? length : sizeof scratch;
        const Io io = readExact(fd, scratch, n, deadline);
        if (io != Io::Ok) return io;
        length -= static_cast<uint32_t>(n);
    }
    return Io::Ok;
}

bool writeAll(int fd, const uint8_t* data, size_t length, const Deadline& deadline) {
    size_t done = 0;
    while (done < length) {
        pollfd pfd{fd, POLLOUT, 0};
        const int ready = ::poll(&pfd, 1, deadline.remainingMs());
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        const ssize_t n = ::send(fd, data + done, length - done, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

void appendWord(std::string& out, uint32_t v) {
    out += static_cast<char>(v & 0xFF);
    out += static_cast<char>((v >> 8) & 0xFF);
    out += static_cast<char>((v >> 16) & 0xFF);
    out += static_cast<char>((v >> 24) & 0xFF);
}

class SocketDevice : public DriverDevice {
public:
    explicit SocketDevice(int fd) : fd_(fd) {}
    ~SocketDevice() override { closeSocket(); }

    bool createEvent() override {
        state_ = State::Idle;
        status_ = 0;
        output_ = nullptr;
        outputLength_ = 0;
        return true;
    }

    void closeEvent() override {}

    Start start(uint32_t code, const void* input, uint32_t inputLength, void* output, uint32_t outputLength,
                uint32_t startLimitMs, uint32_t& error) override {
        output_ = output;
        outputLength_ = output != nullptr ? outputLength : 0;
        const Deadline limit = Deadline::in(startLimitMs);
        startDeadline_ = limit;
        if (!sendRequest(code, input, inputLength, limit)) {
            error = kErrorDeviceNotConnected;
            return Start::Failed;
        }
        uint32_t disposition = 0;
        const Io io = readWord(fd_, disposition, limit);
        if (io == Io::TimedOut) {
            // Not known yet: the wait finds out.
            state_ = State::AwaitingDisposition;
            return Start::Pending;
        }
        if (io == Io::Closed) {
            error = kErrorDeviceNotConnected;
            return Start::Failed;
        }
        switch (disposition) {
        case kDispositionImmediate: {
            if (readFrame(frameDeadline(startLimitMs)) != Io::Ok) {
                error = kErrorDeviceNotConnected;
                return Start::Failed;
            }
            if (status_ == 0) return Start::Completed;
            error = status_;
            return Start::Failed;
        }
        case kDispositionPending:
            state_ = State::Pending;
            return Start::Pending;
        case kDispositionAbandoned:
            state_ = State::Abandoned;
            return Start::Pending;
        case kDispositionWaitFailed:
            state_ = State::WaitFailed;
            return Start::Pending;
        default:
            error = kErrorDeviceNotConnected;
            return Start::Failed;
        }
    }

    uint32_t wait(uint32_t timeoutMs) override {
        // A request whose disposition is still unknown has already spent its
        // start limit of the same time-out: it keeps that deadline.
        const Deadline deadline = state_ == State::AwaitingDisposition ? startDeadline_ : Deadline::in(timeoutMs);
        if (state_ == State::AwaitingDisposition) {
            uint32_t disposition = 0;
            const Io io = readWord(fd_, disposition, deadline);
            if (io == Io::TimedOut) return device_wait::TimedOut;
            if (io == Io::Closed) return lost();
            if (disposition == kDispositionImmediate) {
                // A late answer: it finishes the request like a completion.
                return finish(readFrame(frameDeadline(timeoutMs)));
            }
            if (disposition == kDispositionPending) state_ = State::Pending;
            else if (disposition == kDispositionAbandoned) state_ = State::Abandoned;
            else if (disposition == kDispositionWaitFailed) state_ = State::WaitFailed;
            else return lost();
        }
        switch (state_) {
        case State::Pending: {
            uint32_t first = 0;
            const Io io = readWord(fd_, first, deadline);
            if (io == Io::TimedOut) return device_wait::TimedOut;
            if (io == Io::Closed) return lost();
            status_ = first;
            return finish(readFrameBody(frameDeadline(timeoutMs)));
        }
        case State::Abandoned: return device_wait::Abandoned;
        case State::WaitFailed: return device_wait::Failed;
        case State::Finished: return device_wait::Signalled;
        default: return device_wait::Failed;
        }
    }

    bool result(uint32_t& error) override {
        if (state_ != State::Finished) {
            error = kErrorIoIncomplete;
            return false;
        }
        if (status_ == 0) return true;
        error = status_;
        return false;
    }

    void cancel() override {
        // Closing the connection is the cancel.
        closeSocket();
        state_ = State::Idle;
    }

    uint32_t control(uint32_t code, void* output, uint32_t outputLength, uint32_t& bytesReturned) override {
        bytesReturned = 0;
        output_ = output;
        outputLength_ = output != nullptr ? outputLength : 0;
        const Deadline deadline = unboundedWait();
        if (!sendRequest(code, nullptr, 0, deadline)) return kErrorDeviceNotConnected;
        uint32_t disposition = 0;
        Io io = readWord(fd_, disposition, deadline);
        if (io == Io::TimedOut) return kErrorTimeout;
        if (io == Io::Closed) return kErrorDeviceNotConnected;
        if (disposition == kDispositionAbandoned || disposition == kDispositionWaitFailed) return kErrorOperationAborted;
        if (disposition != kDispositionImmediate && disposition != kDispositionPending) return kErrorDeviceNotConnected;
        // A synchronous request simply blocks until the driver completes it.
        io = readFrame(deadline);
        if (io == Io::TimedOut) return kErrorTimeout;
        if (io == Io::Closed) return kErrorDeviceNotConnected;
        bytesReturned = copied_;
        return status_;
    }

private:
    enum class State { Idle, AwaitingDisposition, Pending, Abandoned, WaitFailed, Finished };

    void closeSocket() {
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }

    // Once a frame has begun, its remainder follows at once.
    static Deadline frameDeadline(uint32_t ms) { return Deadline::in(ms > 1000 ? ms : 1000); }

    bool sendRequest(uint32_t code, const void* input, uint32_t inputLength, const Deadline& deadline) {
        if (fd_ < 0) return false;
        std::string frame;
        appendWord(frame, code);
        appendWord(frame, input != nullptr ? inputLength : 0);
        appendWord(frame, outputLength_);
        if (input != nullptr) frame.append(static_cast<const char*>(input), inputLength);
        return writeAll(fd_, reinterpret_cast<const uint8_t*>(frame.data()), frame.size(), deadline);
    }

    // status, output length, output bytes.
    Io readFrame(const Deadline& deadline) {
        const Io io = readWord(fd_, status_, deadline);
        if (io != Io::Ok) return io;
        return readFrameBody(deadline);
    }

    // output length and output bytes, after the status word.
    Io readFrameBody(const Deadline& deadline) {
        uint32_t length = 0;
        Io io = readWord(fd_, length, deadline);
        if (io != Io::Ok) return io;
        const uint32_t keep = length < outputLength_ ? length : outputLength_;
        if (keep > 0) {
            io = readExact(fd_, output_, keep, deadline);
            if (io != Io::Ok) return io;
        }
        copied_ = keep;
        return skip(fd_, length - keep, deadline);
    }

    uint32_t finish(Io io) {
        if (io != Io::Ok) return lost();
        state_ = State::Finished;
        return device_wait::Signalled;
    }

    // The driver went away mid-request: the request finished with an error.
    uint32_t lost() {
        state_ = State::Finished;
        status_ = kErrorDeviceNotConnected;
        return device_wait::Signalled;
    }

    int fd_;
    State state_ = State::Idle;
    uint32_t status_ = 0;
    void* output_ = nullptr;
    uint32_t outputLength_ = 0;
    uint32_t copied_ = 0;
    Deadline startDeadline_;
};

}  // namespace

namespace driver_device {

STRING devicePath() {
    const char* env = std::getenv("ZELIPS_DEVICE");
    if (env != nullptr && *env != '\0') return STRING::fromUtf8(env);
    return STRING(u"/run/zelshield/ZELIPS");
}

std::unique_ptr<DriverDevice> open(bool /*overlapped: every request is the same on the socket*/, uint32_t& error) {
    const std::string path = devicePath().toUtf8();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        error = driver_error::FileNotFound;
        return nullptr;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);

    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = driver_error::FileNotFound;
        return nullptr;
    }
    int rc;
    do {
        rc = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        error = errno == EACCES || errno == EPERM ? kErrorAccessDenied : driver_error::FileNotFound;
        ::close(fd);
        return nullptr;
    }
    const uint32_t cap = driverTimeoutCap();
    uint32_t status = 0;
    const Io io = readWord(fd, status, Deadline::in(cap != 0 && cap < kOpenAnswerMs ? cap : kOpenAnswerMs));
    if (io != Io::Ok || status != 0) {
        error = io == Io::TimedOut ? kErrorTimeout : io == Io::Closed ? driver_error::FileNotFound : status;
        ::close(fd);
        return nullptr;
    }
    error = 0;
    return std::make_unique<SocketDevice>(fd);
}

bool queryDosDevice(const STRING& letter, STRING& target) {
    RegistryStore::Key key;
    if (RegistryStore::openKey(RegRoot::LocalMachine,
                               u"SYSTEM\\CurrentControlSet\\Control\\Session Manager\\DOS Devices", true, key) != 0) {
        return false;
    }
    uint32_t type = 0;
    std::vector<uint8_t> data;
    if (RegistryStore::queryValue(key, letter, &type, &data) != 0) return false;
    if (type != static_cast<uint32_t>(RegValueType::Sz) && type != static_cast<uint32_t>(RegValueType::ExpandSz) &&
        type != static_cast<uint32_t>(RegValueType::MultiSz)) {
        return false;
    }
    std::u16string text;
    for (size_t i = 0; i + 1 < data.size(); i += 2) {
        const char16_t c = static_cast<char16_t>(data[i] | data[i + 1] << 8);
        if (c == 0) break;
        text.push_back(c);
    }
    if (text.empty()) return false;
    target = STRING(std::move(text));
    return true;
}

}  // namespace driver_device
