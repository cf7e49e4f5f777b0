// The platform half of the driver channel: one open device and the few
// operations the portable request logic (driver_channel.cpp) needs from it.
// driver_device_win32.cpp implements them with overlapped DeviceIoControl on
// "\\.\ZELIPS"; driver_device_posix.cpp with the socket protocol of the
// Linux device. Internal to src/driver.
#pragma once

#include <cstdint>
#include <memory>

#include "foundation/string.h"

// Wait outcomes, numbered as WaitForSingleObject numbers them.
namespace device_wait {
constexpr uint32_t Signalled = 0x00000000;
constexpr uint32_t Abandoned = 0x00000080;
constexpr uint32_t TimedOut = 0x00000102;
constexpr uint32_t Failed = 0xFFFFFFFFu;
}  // namespace device_wait

class DriverDevice {
public:
    enum class Start { Completed, Pending, Failed };

    virtual ~DriverDevice() = default;

    // Prepares the completion event of the next overlapped request (step 1
    // of a request); false when it cannot be created.
    virtual bool createEvent() = 0;
    // Releases the completion event. The request must be finished or cancelled.
    virtual void closeEvent() = 0;

    // Starts one overlapped request. Completed: it finished at once and
    // successfully. Failed: it failed at once with `error`. Pending: finish
    // it with wait(). `startLimitMs` bounds how long a device that cannot
    // tell at once may take to find out (the socket device); a device that
    // has not found out by then reports Pending.
    virtual Start start(uint32_t code, const void* input, uint32_t inputLength, void* output,
                        uint32_t outputLength, uint32_t startLimitMs, uint32_t& error) = 0;
    // Waits for the pending request; returns a device_wait value.
    virtual uint32_t wait(uint32_t timeoutMs) = 0;
    // The outcome of the finished request, without waiting: true on
    // success, else false with its Win32 error.
    virtual bool result(uint32_t& error) = 0;
    // Cancels the pending request.
    virtual void cancel() = 0;

    // One synchronous request with an output buffer (a device opened without
    // overlapped I/O): returns 0 or the Win32 error, and the bytes returned.
    virtual uint32_t control(uint32_t code, void* output, uint32_t outputLength, uint32_t& bytesReturned) = 0;
};

namespace driver_device {

// Where the device is (see driverDevicePath()).
STRING devicePath();

// Opens the device: read and write access, exclusive, existing only, with
// or without overlapped I/O. Null with the Win32 error on failure.
std::unique_ptr<DriverDevice> open(bool overlapped, uint32_t& error);

// The NT device behind a drive letter such as "C:" (the first target when
// there are several). False when the letter is not defined.
bool queryDosDevice(const STRING& letter, STRING& target);

}  // namespace driver_device
