// The prevention driver that the channel's tests talk to through the real
// device of the build:
//   Linux    the driver simulator (tools/driver-sim) on a socket in the
//            test's scratch folder, with ZELIPS_DEVICE pointing at it;
//   Windows  the Wine test driver (tools/wine-driver), a kernel driver that
//            Wine loads as the service ZELIPSDriver behind "\\.\ZELIPS",
//            with its scenario and record file in the service's registry
//            parameters. scripts/test installs it and sets
//            ZELIPS_WINE_DRIVER=1.
// Both answer from the same scenario language (tools/driver-sim/scenario.h)
// and write the same record, one event a line.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "testing/test_support.h"
#include "testing/child_process.h"

#ifdef _WIN32
#include <windows.h>
#else
#include "foundation/registry_store.h"
#endif

namespace testing_support {

class DriverPeer {
public:
    explicit DriverPeer(const ScratchDir& dir)
        : socket_(dir.path() / "dev"), scenario_(dir.path() / "scenario.txt"), record_(dir.path() / "record.txt") {
#ifndef _WIN32
        setEnv("ZELIPS_DEVICE", path(socket_));
#endif
    }
    ~DriverPeer() {
        stop();
        setEnv("ZELIPS_DEVICE", STRING());
    }
    DriverPeer(const DriverPeer&) = delete;
    DriverPeer& operator=(const DriverPeer&) = delete;

    // False where the Wine test driver is not installed.
    static bool available() {
#ifdef _WIN32
        const char* flag = std::getenv("ZELIPS_WINE_DRIVER");
        return flag != nullptr && std::string(flag) == "1";
#else
        return true;
#endif
    }

    // Loads the driver (or keeps it loaded) with these scenario lines, with
    // nothing of them used up yet, and waits until it accepts openers. The
    // record starts afresh.
    ::testing::AssertionResult start(const std::vector<std::string>& scenario) {
#ifdef _WIN32
        // A fresh comment line makes the text new: the driver re-applies a
        // changed text at the next open.
        static int generation = 0;
        std::u16string text = STRING::fromUtf8("# scenario " + std::to_string(++generation)).str() + u'\0';
        for (const auto& line : scenario) text += STRING::fromUtf8(line).str() + u'\0';
        auto ok = setParameter(L"Record", REG_SZ, path(record_).str() + u'\0');
        if (ok) ok = setParameter(L"Scenario", REG_MULTI_SZ, text + u'\0');
        if (ok && !running_) ok = setService(true);
        if (!ok) return ok;
        running_ = true;
#else
        stop();
        {
            std::ofstream out(scenario_, std::ios::binary | std::ios::trunc);
            for (const auto& line : scenario) out << line << '\n';
        }
        std::error_code ec;
        std::filesystem::remove(socket_, ec);
        if (!child_.start({siblingProgram("driver_sim"), path(socket_), u"--scenario", path(scenario_), u"--log",
                           path(record_)})) {
            return ::testing::AssertionFailure() << "driver_sim did not start";
        }
        running_ = true;
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!std::filesystem::exists(socket_)) {
            if (std::chrono::steady_clock::now() > until) return ::testing::AssertionFailure() << "no socket";
            sleepMs(5);
        }
#endif
        mark_ = allLines().size();
        return ::testing::AssertionSuccess();
    }

    // Unloads the driver: every open fails as with no driver at all.
    void stop() {
        if (!running_) return;
        running_ = false;
#ifdef _WIN32
        EXPECT_TRUE(setService(false));
        setParameter(L"Record", REG_SZ, u"");
#else
        child_.kill();
        child_.wait();
#endif
    }

    // The record since the last start.
    std::vector<std::string> record() const {
        const std::vector<std::string> all = allLines();
        return mark_ < all.size() ? std::vector<std::string>(all.begin() + static_cast<std::ptrdiff_t>(mark_), all.end())
                                  : std::vector<std::string>();
    }

    // The request lines only.
    std::vector<std::string> requests() const {
        std::vector<std::string> out;
        for (const auto& line : record())
            if (line.rfind("request ", 0) == 0) out.push_back(line);
        return out;
    }

    // The "out=" capacity of each request line.
    std::vector<unsigned long> capacities() const {
        std::vector<unsigned long> out;
        for (const auto& line : requests()) {
            const size_t at = line.find(" out=");
            out.push_back(at == std::string::npos ? 0 : std::stoul(line.substr(at + 5)));
        }
        return out;
    }

    // Waits until the record holds exactly `n` lines equal to `line` (the
    // driver records a close just after the channel has moved on).
    bool waitForCount(const std::string& line, size_t n, int ms = 5000) const {
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        for (;;) {
            size_t have = 0;
            for (const auto& l : record()) have += l == line ? 1 : 0;
            if (have == n) return true;
            if (have > n || std::chrono::steady_clock::now() > until) return false;
            sleepMs(5);
        }
    }

private:
    static STRING path(const std::filesystem::path& p) { return STRING::fromUtf8(p.u8string()); }

    std::vector<std::string> allLines() const {
        std::ifstream in(record_, std::ios::binary);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

#ifdef _WIN32
    static ::testing::AssertionResult setParameter(const wchar_t* name, DWORD type, const std::u16string& data) {
        HKEY key = nullptr;
        LSTATUS rc = RegCreateKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\ZELIPSDriver\\Parameters",
                                     0, nullptr, 0, KEY_SET_VALUE | KEY_WOW64_64KEY, nullptr, &key, nullptr);
        if (rc != ERROR_SUCCESS) return ::testing::AssertionFailure() << "RegCreateKeyExW: " << rc;
        rc = RegSetValueExW(key, name, 0, type, reinterpret_cast<const BYTE*>(data.data()),
                            static_cast<DWORD>(data.size() * sizeof(char16_t)));
        RegCloseKey(key);
        if (rc != ERROR_SUCCESS) return ::testing::AssertionFailure() << "RegSetValueExW: " << rc;
        return ::testing::AssertionSuccess();
    }

    // Starts or stops the driver's service and waits until it runs or has stopped.
    static ::testing::AssertionResult setService(bool run) {
        SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
        SC_HANDLE service = manager == nullptr ? nullptr
                                               : OpenServiceW(manager, L"ZELIPSDriver",
                                                              SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS);
        SERVICE_STATUS status{};
        DWORD error = service == nullptr ? GetLastError() : 0;
        const BOOL sent = error == 0 && (run ? StartServiceW(service, 0, nullptr)
                                             : ControlService(service, SERVICE_CONTROL_STOP, &status));
        if (error == 0 && !sent && GetLastError() != (run ? ERROR_SERVICE_ALREADY_RUNNING : ERROR_SERVICE_NOT_ACTIVE))
            error = GetLastError();
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        bool reached = false;
        while (error == 0 && !reached && QueryServiceStatus(service, &status) && std::chrono::steady_clock::now() < until) {
            reached = status.dwCurrentState == (run ? SERVICE_RUNNING : SERVICE_STOPPED);
            if (!reached) sleepMs(20);
        }
        if (service != nullptr) CloseServiceHandle(service);
        if (manager != nullptr) CloseServiceHandle(manager);
        if (error != 0) return ::testing::AssertionFailure() << "service ZELIPSDriver: error " << error;
        if (!reached) return ::testing::AssertionFailure() << "service state " << status.dwCurrentState;
        return ::testing::AssertionSuccess();
    }
#else
    ChildProcess child_;
#endif

    std::filesystem::path socket_;
    std::filesystem::path scenario_;
    std::filesystem::path record_;
    bool running_ = false;
    size_t mark_ = 0;
};

// The devices behind the drive letters, as the channel sees them: on Linux
// a registry file of the test's own maps C:, E: and Z: (the channel reads the
// letters from the registry store); on Windows they are the system's.
class DriveLetters {
public:
    explicit DriveLetters(const ScratchDir& dir) {
#ifndef _WIN32
        const STRING file = dir.file("drives.reg");
        writeBytes(file,
                   "Windows Registry Editor Version 5.00\r\n\r\n"
                   "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Session Manager\\DOS Devices]\r\n"
                   "\"AUX\"=\"\\\\DosDevices\\\\COM1\"\r\n"
                   "\"C:\"=\"\\\\Device\\\\HarddiskVolume2\"\r\n"
                   "\"E:\"=\"\\\\Device\\\\HarddiskVolume4\"\r\n"
                   "\"Z:\"=\"\\\\Device\\\\HarddiskVolume9\"\r\n");
        setEnv("ZELIPS_REGISTRY", file);
        RegistryStore::forgetCache();
#else
        (void)dir;
#endif
    }
    ~DriveLetters() {
#ifndef _WIN32
        setEnv("ZELIPS_REGISTRY", STRING());
        RegistryStore::forgetCache();
#endif
    }
    DriveLetters(const DriveLetters&) = delete;
    DriveLetters& operator=(const DriveLetters&) = delete;
};

}  // namespace testing_support
