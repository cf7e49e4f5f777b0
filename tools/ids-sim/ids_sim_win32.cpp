// The stand-in's events on Windows: auto-reset named events "Global\<name>".
#include <windows.h>

#include <string>

#include "ids_sim.h"

void installStopHandlers() {}

bool stopRequested() { return false; }

bool ServiceEvents::create(const std::vector<std::string>& names, std::string& error) {
    destroy();
    for (const auto& n : names) {
        const std::string name = "Global\\" + n;
        const std::wstring wide(name.begin(), name.end());  // the names are ASCII
        HANDLE event = CreateEventW(nullptr, FALSE, FALSE, wide.c_str());
        const DWORD err = GetLastError();
        if (event == nullptr || err == ERROR_ALREADY_EXISTS) {
            if (event) CloseHandle(event);
            error = "cannot create " + name + ": error " + std::to_string(err);
            destroy();
            return false;
        }
        names_.push_back(name);
        handles_.push_back(event);
    }
    return true;
}

int ServiceEvents::wait(int ms) {
    if (handles_.empty()) {
        Sleep(static_cast<DWORD>(ms));
        return -1;
    }
    const DWORD rc = WaitForMultipleObjects(static_cast<DWORD>(handles_.size()),
                                            reinterpret_cast<HANDLE*>(handles_.data()), FALSE,
                                            static_cast<DWORD>(ms));
    if (rc < WAIT_OBJECT_0 + handles_.size()) return static_cast<int>(rc - WAIT_OBJECT_0);
    return -1;
}

void ServiceEvents::destroy() {
    for (void* h : handles_) CloseHandle(static_cast<HANDLE>(h));
    handles_.clear();
    names_.clear();
}
