// Windows side of the detection-service interface: the Toolhelp process list
// and named events.
#include <windows.h>
#include <tlhelp32.h>

#include "driver/hid_present.h"
#include "foundation/ids_exception.h"

namespace hid_platform {

bool processRunning(const STRING& imageName) {
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0);
    if (snapshot == INVALID_HANDLE_VALUE) return false;
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof entry;
    bool found = false;
    for (BOOL more = Process32FirstW(snapshot, &entry); more && !found; more = Process32NextW(snapshot, &entry)) {
        found = STRING(entry.szExeFile).equalsIgnoreCase(imageName);
    }
    CloseHandle(snapshot);
    return found;
}

void setNamedEvent(const STRING& name) {
    HANDLE event = OpenEventW(EVENT_MODIFY_STATE, FALSE, name.wc_str());
    if (event == nullptr) {
        throw IDSException(static_cast<int>(GetLastError()), u"hid_platform::setNamedEvent",
                           STRING(u"Could not open the event : ") + name);
    }
    const BOOL ok = SetEvent(event);
    const DWORD err = GetLastError();
    CloseHandle(event);
    if (!ok) {
        throw IDSException(static_cast<int>(err), u"hid_platform::setNamedEvent",
                           STRING(u"Could not set the event : ") + name);
    }
}

}  // namespace hid_platform
