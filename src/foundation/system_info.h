// SystemInfo: what the agent reports about its host (computer name, operating
// system and its CPE 2.3 identifier, processor architecture and word size,
// adapter hardware addresses, server comment) and where the agent is
// installed.
//
// The decisions are made by pure functions over the facts the system
// reports (describeWindows, describeLinux, architectureName, ...), so they
// are the same and testable on every build. The platform files only gather
// those facts: system_info_win32.cpp from the Windows API, system_info_posix.cpp
// from uname, gethostname, /etc/os-release and getifaddrs.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/string.h"

// Processor architecture codes, numbered as Windows numbers them.
enum : uint16_t {
    ArchIntel = 0,
    ArchMips = 1,
    ArchAlpha = 2,
    ArchPpc = 3,
    ArchIa64 = 6,
    ArchAmd64 = 9,
    ArchIa32OnWin64 = 10,
    ArchArm64 = 12,
    ArchUnknown = 0xFFFF,
};

// The operating-system record, filled once per SystemInfo object.
struct OSRecord {
    STRING description;      // "Windows 10", "Windows Server 2012 R2"
    STRING fullDescription;  // description, plus " " and the service pack text when there is one
    STRING cpeProduct;       // "Windows_10", "windows_8.1"
    STRING version;          // "10.0", "6.3"
    STRING cpeEdition;       // "r2" or "-"
    STRING servicePack;      // "SP1" or empty
    STRING cpeUpdate;        // "sp<N>" or "-"
    STRING osType;           // "Windows" (or "Linux")

    // cpe, 2.3, part, vendor, product, version, update, edition, language,
    // software edition, target software, target hardware, other.
    static constexpr size_t CpeFieldCount = 13;
    std::array<STRING, CpeFieldCount> cpe;
    // The identifier as reported: the fields joined by ":" on Windows, the
    // distribution's own CPE_NAME on Linux.
    STRING cpeIdentifier;
};

// What Windows reports about its version and processors.
struct WindowsVersionFacts {
    uint32_t major = 0;
    uint32_t minor = 0;
    uint32_t servicePackMajor = 0;
    bool server = false;  // product type other than workstation
};

// Processor architecture of this process and of the machine. On a 32-bit
// process under 64-bit emulation the two differ (0 and 9).
struct ArchitectureFacts {
    uint16_t process = ArchUnknown;
    uint16_t native = ArchUnknown;
};

// The releases by name, for callers that need to speak of one.
enum class WindowsRelease { Vista, Server2008, Server2008R2, Server2012, Server2012R2, Server2016, Server2019 };

class SystemInfo {
public:
    // Gathers the version and architecture facts and fills the OS record.
    // Never throws.
    SystemInfo();

    // DNS host name of the computer. On failure prints
    // "GetComputerNameEx failed (<error>)" and throws IDSException
    // (error, "SystemInfo", "GetComputerNameEx failed").
    STRING getComputerName() const;
    // NetBIOS name; empty when it cannot be read.
    STRING getShortComputerName() const;

    const OSRecord& getOS() const { return os_; }
    const STRING& getOSDescription() const { return os_.description; }
    const STRING& getOSFullDescription() const { return os_.fullDescription; }
    const STRING& getOSVersion() const { return os_.version; }
    const STRING& getOSType() const { return os_.osType; }
    const STRING& getCPEIdentifier() const { return os_.cpeIdentifier; }

    // "32bit" or "64bit".
    STRING getWordSize() const { return wordSize(arch_); }
    // "IA32", "AMD64", "IA64/32", ... (see architectureName).
    STRING getArchitectureName() const { return architectureName(architectureCode(arch_)); }
    const ArchitectureFacts& architecture() const { return arch_; }

    // Hardware addresses of the network adapters, in the system's order,
    // "%02X:..." each, joined with ","; empty when there are none.
    STRING getMACAddresses() const;

    // The server comment of the host (lanmanserver "srvcomment"); empty
    // when not set.
    STRING getServerComment() const;

    // ---- Install locations (read from the agent's registry key on each call)

    static const char16_t* const AgentKeyPath;

    // "InstallRoot"; the process-wide install directory when missing or empty.
    static STRING getInstallRoot();
    // "LogInstallRoot"; the process-wide install directory when missing or empty.
    static STRING getLogInstallRoot();
    // "AgentType" read as text and converted strictly; nothing when the value
    // is missing or not a number.
    static std::optional<int> getAgentType();
    // The install root, the path separator and "IPS".
    static STRING getIPSDirectory();

    // The process-wide install directory: by default the folder of the
    // running executable; setInstallDirectory replaces it for the process.
    static STRING installDirectory();
    static void setInstallDirectory(const STRING& directory);

    // "\" on Windows, "/" on Linux.
    static const char16_t* pathSeparator();

    // ---- Decisions, pure and portable

    // The Windows OS record from the version table.
    static OSRecord describeWindows(const WindowsVersionFacts& facts, const ArchitectureFacts& arch);
    // The Linux OS record from the fields of os-release.
    static OSRecord describeLinux(const std::map<std::string, STRING>& osRelease);
    // Fills the full description and update word from description and
    // service pack text.
    static void applyServicePack(OSRecord& os);
    // "sp" and the number after "Service Pack " in the text, or "-".
    static STRING cpeUpdateWord(const STRING& servicePackText);
    // The architecture code to report: 10 for a 32-bit process on a 64-bit
    // machine, otherwise the process's own.
    static uint16_t architectureCode(const ArchitectureFacts& arch);
    static STRING architectureName(uint16_t code);
    static STRING wordSize(const ArchitectureFacts& arch);
    // CPE target hardware: "win32", "x64" or "*".
    static STRING cpeTargetHardware(uint16_t nativeArchitecture);
    static STRING releaseName(WindowsRelease release);
    // Architecture code of a uname machine name ("x86_64" -> 9).
    static uint16_t architectureOfMachine(std::string_view machine);

    // "AA:BB:CC:DD:EE:FF" for each address, joined with ",".
    static STRING formatMACAddresses(const std::vector<std::array<uint8_t, 6>>& addresses);
    // Key/value pairs of an os-release text: comments and blank lines
    // skipped; values unquoted, "double quoted" with backslash escapes, or
    // 'single quoted'.
    static std::map<std::string, STRING> parseOsRelease(std::string_view text);
    // The thirteen fields of a CPE name, formatted ("cpe:2.3:...") or URI
    // ("cpe:/o:vendor:product:..."); fields left out are "*" (any), as are
    // empty URI components. Empty when the text is neither or has too many
    // fields.
    static std::vector<STRING> splitCpeName(const STRING& name);

private:
    OSRecord os_;
    ArchitectureFacts arch_;
};

// Platform side: implemented once in system_info_win32.cpp and once in
// system_info_posix.cpp. Used by SystemInfo only.
namespace systeminfo_platform {
ArchitectureFacts architecture();
OSRecord operatingSystem(const ArchitectureFacts& arch);
// Returns the system error code, 0 on success.
int computerName(STRING& name);
STRING shortComputerName();
std::vector<std::array<uint8_t, 6>> macAddresses();
// Folder that holds the running executable; empty when unknown.
STRING executableDirectory();
}  // namespace systeminfo_platform
