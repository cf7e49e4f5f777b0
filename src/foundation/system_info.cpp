#include "foundation/system_info.h"

#include <mutex>

#include "foundation/console.h"
#include "foundation/format.h"
#include "foundation/ids_exception.h"
#include "foundation/registry.h"

namespace {

// One row of the version table: the first row whose version the host has
// reached names it.
struct WindowsRow {
    uint32_t major;
    uint32_t minor;
    const char16_t* workstation;
    const char16_t* workstationCpe;
    const char16_t* server;
    const char16_t* serverCpe;
    bool serverIsR2;   // the server release of this version is an "R2" edition
    bool sp1Rule;      // "SP1" is reported from service pack 1 on
};

// The 10.0 products are capitalised and the 2016 server word is spelt
// without the last "r"; both are reported exactly as written here.
const WindowsRow kWindowsRows[] = {
    {10, 0, u"Windows 10", u"Windows_10", u"Windows Server 2016", u"Windows_Serve_2016", false, false},
    {6, 3, u"Windows 8.1", u"windows_8.1", u"Windows Server 2012 R2", u"windows_server_2012", true, false},
    {6, 2, u"Windows 8", u"windows_8", u"Windows Server 2012", u"windows_server_2012", false, false},
    {6, 1, u"Windows 7", u"windows_7", u"Windows Server 2008 R2", u"windows_server_2008", true, true},
    {6, 0, u"Windows Vista", u"windows_vista", u"Windows Server 2008", u"windows_server_2008", false, true},
};

STRING joinCpe(const std::array<STRING, OSRecord::CpeFieldCount>& fields) {
    STRING out;
    for (size_t i = 0; i < fields.size(); ++i) {
        if (i) out += u':';
        out += fields[i];
    }
    return out;
}

std::optional<STRING> readAgentValue(const char16_t* name) {
    try {
        RegistryKey key(STRING(SystemInfo::AgentKeyPath) + u"\\" + name, true);
        return key.getString();
    } catch (const IDSException&) {
        return std::nullopt;
    }
}

struct InstallDirectoryState {
    std::mutex lock;
    bool known = false;
    STRING directory;
};

InstallDirectoryState& installState() {
    static InstallDirectoryState state;
    return state;
}

bool startsWith(std::string_view s, std::string_view prefix) {
    return s.substr(0, prefix.size()) == prefix;
}

}  // namespace

const char16_t* const SystemInfo::AgentKeyPath = u"HKEY_LOCAL_MACHINE\\SOFTWARE\\Tessaly\\Zelshield\\agent";

SystemInfo::SystemInfo() : arch_(systeminfo_platform::architecture()) {
    os_ = systeminfo_platform::operatingSystem(arch_);
}

STRING SystemInfo::getComputerName() const {
    STRING name;
    const int error = systeminfo_platform::computerName(name);
    if (error != 0) {
        ConsolePrint(u"GetComputerNameEx failed (%d)\n", error);
        throw IDSException(error, u"SystemInfo", u"GetComputerNameEx failed");
    }
    return name;
}

STRING SystemInfo::getShortComputerName() const { return systeminfo_platform::shortComputerName(); }

STRING SystemInfo::getMACAddresses() const { return formatMACAddresses(systeminfo_platform::macAddresses()); }

STRING SystemInfo::getServerComment() const {
    try {
        RegistryKey key(u"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\lanmanserver\\parameters\\srvcomment",
                        true);
        return key.getString();
    } catch (const IDSException&) {
        return STRING();
    }
}

// ---- Install locations

STRING SystemInfo::getInstallRoot() {
    const std::optional<STRING> value = readAgentValue(u"InstallRoot");
    if (!value || value->empty()) return installDirectory();
    return *value;
}

STRING SystemInfo::getLogInstallRoot() {
    const std::optional<STRING> value = readAgentValue(u"LogInstallRoot");
    if (!value || value->empty()) return installDirectory();
    return *value;
}

std::optional<int> SystemInfo::getAgentType() {
    const std::optional<STRING> value = readAgentValue(u"AgentType");
    if (!value) return std::nullopt;
    try {
        return value->toInt();
    } catch (const IDSException&) {
        return std::nullopt;
    }
}

STRING SystemInfo::getIPSDirectory() { return getInstallRoot() + pathSeparator() + u"IPS"; }

STRING SystemInfo::installDirectory() {
    InstallDirectoryState& state = installState();
    std::lock_guard<std::mutex> guard(state.lock);
    if (!state.known) {
        state.directory = systeminfo_platform::executableDirectory();
        state.known = true;
    }
    return state.directory;
}

void SystemInfo::setInstallDirectory(const STRING& directory) {
    InstallDirectoryState& state = installState();
    std::lock_guard<std::mutex> guard(state.lock);
    state.directory = directory;
    state.known = true;
}

const char16_t* SystemInfo::pathSeparator() {
#ifdef _WIN32
    return u"\\";
#else
    return u"/";
#endif
}

// ---- Decisions

OSRecord SystemInfo::describeWindows(const WindowsVersionFacts& facts, const ArchitectureFacts& arch) {
    OSRecord os;
    const WindowsRow* row = nullptr;
    for (const WindowsRow& r : kWindowsRows) {
        if (facts.major > r.major || (facts.major == r.major && facts.minor >= r.minor)) {
            row = &r;
            break;
        }
    }
    if (row) {
        os.description = facts.server ? row->server : row->workstation;
        os.cpeProduct = facts.server ? row->serverCpe : row->workstationCpe;
        os.cpeEdition = (facts.server && row->serverIsR2) ? u"r2" : u"-";
        if (row->sp1Rule && facts.servicePackMajor >= 1) os.servicePack = u"SP1";
    } else {
        os.description = u"Windows";
        os.cpeProduct = u"windows";
        os.cpeEdition = u"-";
    }
    os.version = formatString(u"%u.%u", facts.major, facts.minor);
    os.osType = u"Windows";
    applyServicePack(os);

    os.cpe = {u"cpe", u"2.3", u"o", u"microsoft", os.cpeProduct, os.version, os.cpeUpdate, os.cpeEdition,
              u"-", u"-", u"-", cpeTargetHardware(arch.native), u"-"};
    os.cpeIdentifier = joinCpe(os.cpe);
    return os;
}

OSRecord SystemInfo::describeLinux(const std::map<std::string, STRING>& osRelease) {
    auto field = [&](const char* key) -> STRING {
        const auto it = osRelease.find(key);
        return it == osRelease.end() ? STRING() : it->second;
    };

    OSRecord os;
    os.description = field("PRETTY_NAME");
    if (os.description.empty()) os.description = field("NAME");
    if (os.description.empty()) os.description = u"Linux";
    os.version = field("VERSION_ID");
    os.osType = u"Linux";
    applyServicePack(os);

    const STRING cpeName = field("CPE_NAME");
    const std::vector<STRING> fields = splitCpeName(cpeName);
    if (fields.size() == OSRecord::CpeFieldCount) {
        for (size_t i = 0; i < fields.size(); ++i) os.cpe[i] = fields[i];
    } else {
        STRING id = field("ID");
        if (id.empty()) id = u"linux";
        const STRING version = os.version.empty() ? STRING(u"-") : os.version;
        os.cpe = {u"cpe", u"2.3", u"o", id, id, version, u"-", u"-", u"-", u"-", u"-", u"-", u"-"};
    }
    os.cpeProduct = os.cpe[4];
    os.cpeUpdate = os.cpe[6];
    os.cpeEdition = os.cpe[7];
    os.cpeIdentifier = cpeName.empty() ? joinCpe(os.cpe) : cpeName;
    return os;
}

void SystemInfo::applyServicePack(OSRecord& os) {
    if (os.servicePack.empty()) {
        os.fullDescription = os.description;
        os.cpeUpdate = u"-";
    } else {
        os.fullDescription = os.description + u" " + os.servicePack;
        os.cpeUpdate = cpeUpdateWord(os.servicePack);
    }
}

STRING SystemInfo::cpeUpdateWord(const STRING& servicePackText) {
    static const STRING marker(u"Service Pack");
    const size_t at = servicePackText.find(marker);
    if (at == STRING::npos) return u"-";
    // The number follows the words and one blank.
    const size_t from = at + marker.length() + 1;
    return STRING(u"sp") + (from < servicePackText.length() ? servicePackText.substr(from) : STRING());
}

uint16_t SystemInfo::architectureCode(const ArchitectureFacts& arch) {
    if (arch.process == ArchIntel && (arch.native == ArchAmd64 || arch.native == ArchIa64)) return ArchIa32OnWin64;
    return arch.process;
}

STRING SystemInfo::architectureName(uint16_t code) {
    switch (code) {
        case ArchIntel: return u"IA32";
        case ArchMips: return u"MIPS";
        case ArchAlpha: return u"ALPHA";
        case ArchPpc: return u"PPC";
        case ArchIa64: return u"IA64";
        case ArchAmd64: return u"AMD64";
        case ArchIa32OnWin64: return u"IA64/32";
        default: return u"Unknown";
    }
}

STRING SystemInfo::wordSize(const ArchitectureFacts& arch) {
    return (arch.native == ArchAmd64 || arch.native == ArchIa64) ? u"64bit" : u"32bit";
}

STRING SystemInfo::cpeTargetHardware(uint16_t nativeArchitecture) {
    if (nativeArchitecture == ArchIntel) return u"win32";
    if (nativeArchitecture == ArchAmd64 || nativeArchitecture == ArchIa64) return u"x64";
    return u"*";
}

STRING SystemInfo::releaseName(WindowsRelease release) {
    switch (release) {
        case WindowsRelease::Vista: return u"Vista";
        case WindowsRelease::Server2008: return u"Server 2008";
        case WindowsRelease::Server2008R2: return u"Server 2008 R2";
        case WindowsRelease::Server2012: return u"Server 2012";
        case WindowsRelease::Server2012R2: return u"Server 2012 R2";
        case WindowsRelease::Server2016: return u"Server 2016";
        case WindowsRelease::Server2019: return u"Server 2019";
    }
    return STRING();
}

uint16_t SystemInfo::architectureOfMachine(std::string_view machine) {
    if (machine == "x86_64" || machine == "amd64") return ArchAmd64;
    if (machine == "i386" || machine == "i486" || machine == "i586" || machine == "i686" || machine == "x86")
        return ArchIntel;
    if (machine == "ia64") return ArchIa64;
    if (machine == "aarch64" || machine == "arm64") return ArchArm64;
    if (startsWith(machine, "mips")) return ArchMips;
    if (startsWith(machine, "alpha")) return ArchAlpha;
    if (startsWith(machine, "ppc") || startsWith(machine, "powerpc")) return ArchPpc;
    return ArchUnknown;
}

STRING SystemInfo::formatMACAddresses(const std::vector<std::array<uint8_t, 6>>& addresses) {
    STRING out;
    for (size_t i = 0; i < addresses.size(); ++i) {
        const auto& a = addresses[i];
        if (i) out += u',';
        out += formatString(u"%02X:%02X:%02X:%02X:%02X:%02X", a[0], a[1], a[2], a[3], a[4], a[5]);
    }
    return out;
}

std::map<std::string, STRING> SystemInfo::parseOsRelease(std::string_view text) {
    std::map<std::string, STRING> out;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;

        while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
            line.remove_suffix(1);
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
        if (line.empty() || line.front() == '#') continue;
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos || eq == 0) continue;

        // The value is a shell word: unquoted characters (a backslash takes
        // the next one as it is), "double quoted" parts in which a backslash
        // escapes $ ` " and \, and 'single quoted' parts taken as they stand.
        const std::string_view raw = line.substr(eq + 1);
        std::string value;
        size_t i = 0;
        while (i < raw.size()) {
            const char c = raw[i];
            if (c == '"') {
                for (++i; i < raw.size() && raw[i] != '"'; ++i) {
                    if (raw[i] == '\\' && i + 1 < raw.size() &&
                        (raw[i + 1] == '"' || raw[i + 1] == '\\' || raw[i + 1] == '$' || raw[i + 1] == '`'))
                        ++i;
                    value += raw[i];
                }
                ++i;  // past the closing quote
            } else if (c == '\'') {
                const size_t close = raw.find('\'', i + 1);
                const size_t stop = close == std::string_view::npos ? raw.size() : close;
                value.append(raw.substr(i + 1, stop - i - 1));
                i = stop + 1;
            } else if (c == '\\' && i + 1 < raw.size()) {
                value += raw[i + 1];
                i += 2;
            } else if (c == ' ' || c == '\t') {
                break;  // end of the word; what follows is not part of the value
            } else {
                value += c;
                ++i;
            }
        }
        out[std::string(line.substr(0, eq))] = STRING::fromUtf8(value);
    }
    return out;
}

std::vector<STRING> SystemInfo::splitCpeName(const STRING& name) {
    std::vector<STRING> fields;
    if (name.startsWith(u"cpe:2.3:")) {
        // Formatted string: a backslash quotes the next character, so "\:"
        // does not split. Some distributions stop after the version; the
        // fields left out mean any value ("*").
        STRING current;
        for (size_t i = 0; i < name.length(); ++i) {
            const char16_t c = name[i];
            if (c == u'\\' && i + 1 < name.length()) {
                current += c;
                current += name[++i];
            } else if (c == u':') {
                fields.push_back(current);
                current.clear();
            } else {
                current += c;
            }
        }
        fields.push_back(current);
        if (fields.size() > OSRecord::CpeFieldCount) fields.clear();
        while (!fields.empty() && fields.size() < OSRecord::CpeFieldCount) fields.push_back(u"*");
        return fields;
    }
    if (name.startsWith(u"cpe:/")) {
        // URI form: part, vendor, product, version, update, edition,
        // language; an empty or missing component means any value ("*").
        const STRING rest = name.substr(5);
        std::vector<STRING> parts;
        size_t from = 0;
        while (true) {
            const size_t colon = rest.find(u':', from);
            parts.push_back(rest.substr(from, colon == STRING::npos ? STRING::npos : colon - from));
            if (colon == STRING::npos) break;
            from = colon + 1;
        }
        if (parts.size() > 7) return fields;
        fields = {u"cpe", u"2.3"};
        for (size_t i = 0; i < OSRecord::CpeFieldCount - 2; ++i) {
            const STRING part = i < parts.size() ? parts[i] : STRING();
            fields.push_back(part.empty() ? STRING(u"*") : part);
        }
        return fields;
    }
    return fields;
}
