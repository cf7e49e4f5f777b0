// Host facts on Windows.
#include <windows.h>

#include <iphlpapi.h>

#include "foundation/system_info.h"

namespace {

using RtlGetVersionFn = LONG(WINAPI*)(OSVERSIONINFOEXW*);

// The version is read with ntdll's RtlGetVersion rather than decided with
// VerifyVersionInfoW. Since Windows 8.1, VerifyVersionInfoW answers according
// to the compatibility section of the executable's manifest: a program that
// does not declare support for Windows 8.1 and 10 is told that those hosts
// are 6.2, so a Windows 10 or Server 2016 host would be reported as
// "Windows 8". RtlGetVersion reports the real version, product type and
// service pack in one call. (Under Wine both report the Windows version
// configured for the prefix, "winecfg" or the registry's "Version" value.)
WindowsVersionFacts versionFacts() {
    WindowsVersionFacts facts;
    OSVERSIONINFOEXW info{};
    info.dwOSVersionInfoSize = sizeof info;
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    const FARPROC proc = ntdll ? GetProcAddress(ntdll, "RtlGetVersion") : nullptr;
    if (!proc) return facts;
    const auto rtlGetVersion = reinterpret_cast<RtlGetVersionFn>(reinterpret_cast<void (*)()>(proc));
    if (rtlGetVersion(&info) != 0) return facts;
    facts.major = info.dwMajorVersion;
    facts.minor = info.dwMinorVersion;
    facts.servicePackMajor = info.wServicePackMajor;
    facts.server = info.wProductType != VER_NT_WORKSTATION;
    return facts;
}

}  // namespace

namespace systeminfo_platform {

ArchitectureFacts architecture() {
    ArchitectureFacts arch;
    SYSTEM_INFO own{};
    GetSystemInfo(&own);
    arch.process = own.wProcessorArchitecture;
    arch.native = own.wProcessorArchitecture;
    // A 32-bit process under emulation sees the emulated processor; the
    // machine's own is in the native system information.
    BOOL wow64 = FALSE;
    if (IsWow64Process(GetCurrentProcess(), &wow64) && wow64) {
        SYSTEM_INFO native{};
        GetNativeSystemInfo(&native);
        arch.native = native.wProcessorArchitecture;
    }
    return arch;
}

OSRecord operatingSystem(const ArchitectureFacts& arch) { return SystemInfo::describeWindows(versionFacts(), arch); }

int computerName(STRING& name) {
    wchar_t buffer[256];
    DWORD size = 256;
    if (!GetComputerNameExW(ComputerNameDnsHostname, buffer, &size)) {
        const DWORD error = GetLastError();
        return error ? static_cast<int>(error) : -1;
    }
    name = STRING(buffer, size);
    return 0;
}

STRING shortComputerName() {
    wchar_t buffer[16];
    DWORD size = 16;
    if (!GetComputerNameExW(ComputerNameNetBIOS, buffer, &size)) return STRING();
    return STRING(buffer, size);
}

std::vector<std::array<uint8_t, 6>> macAddresses() {
    std::vector<std::array<uint8_t, 6>> out;
    ULONG size = sizeof(IP_ADAPTER_INFO);
    std::vector<unsigned char> buffer(size);
    DWORD rc = GetAdaptersInfo(reinterpret_cast<IP_ADAPTER_INFO*>(buffer.data()), &size);
    if (rc == ERROR_BUFFER_OVERFLOW) {
        // The first buffer holds one adapter; the system said how much it needs.
        buffer.assign(size, 0);
        rc = GetAdaptersInfo(reinterpret_cast<IP_ADAPTER_INFO*>(buffer.data()), &size);
    }
    if (rc != NO_ERROR) return out;
    for (const IP_ADAPTER_INFO* a = reinterpret_cast<const IP_ADAPTER_INFO*>(buffer.data()); a; a = a->Next) {
        std::array<uint8_t, 6> address{};
        for (size_t i = 0; i < address.size(); ++i) address[i] = a->Address[i];
        out.push_back(address);
    }
    return out;
}

STRING executableDirectory() {
    std::vector<wchar_t> buffer(MAX_PATH);
    for (;;) {
        const DWORD n = GetModuleFileNameW(nullptr, buffer.data(), static_cast<DWORD>(buffer.size()));
        if (n == 0) return STRING();
        if (n < buffer.size()) {
            STRING path(buffer.data(), n);
            const size_t slash = path.rfind(u'\\');
            return slash == STRING::npos ? STRING() : path.substr(0, slash);
        }
        if (buffer.size() >= 32768) return STRING();
        buffer.resize(buffer.size() * 2);
    }
}

}  // namespace systeminfo_platform
