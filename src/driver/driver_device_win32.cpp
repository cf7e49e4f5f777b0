// The driver device on Windows: "\\.\ZELIPS", opened exclusively, with
// overlapped DeviceIoControl requests completed through an event.
#include <windows.h>

#include <cstdlib>

#include "driver/driver_channel.h"
#include "driver/driver_device.h"

namespace {

// How long a cancelled request may take to come back before its OVERLAPPED
// is given up: memory the driver may still complete into is never freed.
constexpr DWORD kCancelGraceMs = 1000;

class Win32Device : public DriverDevice {
public:
    explicit Win32Device(HANDLE handle) : handle_(handle) {}
    ~Win32Device() override {
        closeEvent();
        CloseHandle(handle_);
    }

    bool createEvent() override {
        closeEvent();
        overlapped_ = new OVERLAPPED();
        overlapped_->hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
        if (overlapped_->hEvent == nullptr) {
            delete overlapped_;
            overlapped_ = nullptr;
            return false;
        }
        return true;
    }

    void closeEvent() override {
        if (overlapped_ == nullptr) return;
        if (pending_) settle();
        CloseHandle(overlapped_->hEvent);
        if (pending_) {
            // Still in the driver's hands: leave the OVERLAPPED to it.
            overlapped_->hEvent = nullptr;
        } else {
            delete overlapped_;
        }
        overlapped_ = nullptr;
        pending_ = false;
    }

    Start start(uint32_t code, const void* input, uint32_t inputLength, void* output, uint32_t outputLength,
                uint32_t /*startLimitMs: the driver answers within the call*/, uint32_t& error) override {
        pending_ = false;
        if (DeviceIoControl(handle_, code, const_cast<void*>(input), inputLength, output, outputLength, nullptr,
                            overlapped_)) {
            return Start::Completed;
        }
        error = GetLastError();
        if (error == ERROR_IO_PENDING) {
            pending_ = true;
            return Start::Pending;
        }
        return Start::Failed;
    }

    uint32_t wait(uint32_t timeoutMs) override { return WaitForSingleObject(overlapped_->hEvent, timeoutMs); }

    bool result(uint32_t& error) override {
        DWORD transferred = 0;
        if (GetOverlappedResult(handle_, overlapped_, &transferred, FALSE)) {
            pending_ = false;
            return true;
        }
        error = GetLastError();
        if (error != ERROR_IO_INCOMPLETE) pending_ = false;
        return false;
    }

    void cancel() override {
        CancelIo(handle_);
        settle();
    }

    uint32_t control(uint32_t code, void* output, uint32_t outputLength, uint32_t& bytesReturned) override {
        DWORD returned = 0;
        const BOOL ok = DeviceIoControl(handle_, code, nullptr, 0, output, outputLength, &returned, nullptr);
        bytesReturned = returned;
        return ok ? 0 : GetLastError();
    }

private:
    // Lets a cancelled or abandoned request come back, within the grace time.
    void settle() {
        if (!pending_) return;
        CancelIo(handle_);
        if (WaitForSingleObject(overlapped_->hEvent, kCancelGraceMs) == WAIT_OBJECT_0) pending_ = false;
    }

    HANDLE handle_;
    OVERLAPPED* overlapped_ = nullptr;
    bool pending_ = false;
};

}  // namespace

namespace driver_device {

STRING devicePath() {
#ifdef ZELIPS_TEST_HOOKS
    // A test build may point the channel at another device name; a build
    // without tests always opens the driver's own device.
    const wchar_t* env = _wgetenv(L"ZELIPS_DEVICE");
    if (env != nullptr && *env != L'\0') return STRING(env);
#endif
    return STRING(u"\\\\.\\ZELIPS");
}

std::unique_ptr<DriverDevice> open(bool overlapped, uint32_t& error) {
    const STRING path = devicePath();
    HANDLE handle = CreateFileW(path.wc_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                overlapped ? FILE_FLAG_OVERLAPPED : 0, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        error = GetLastError();
        return nullptr;
    }
    error = 0;
    return std::make_unique<Win32Device>(handle);
}

bool queryDosDevice(const STRING& letter, STRING& target) {
    wchar_t buffer[260];
    if (QueryDosDeviceW(letter.wc_str(), buffer, 260) == 0) return false;
    buffer[259] = L'\0';
    target = STRING(buffer);
    return !target.empty();
}

}  // namespace driver_device
