// Host facts on Linux: uname and gethostname for names and the machine,
// os-release for the distribution, getifaddrs for the adapter addresses.
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "foundation/system_info.h"

namespace {

// The architecture this program was compiled for.
constexpr uint16_t processArchitecture() {
#if defined(__x86_64__)
    return ArchAmd64;
#elif defined(__i386__)
    return ArchIntel;
#elif defined(__aarch64__)
    return ArchArm64;
#elif defined(__ia64__)
    return ArchIa64;
#elif defined(__mips__)
    return ArchMips;
#elif defined(__powerpc__)
    return ArchPpc;
#elif defined(__alpha__)
    return ArchAlpha;
#else
    return ArchUnknown;
#endif
}

bool readFile(const char* path, std::string& text) {
    FILE* fp = std::fopen(path, "rb");
    if (fp == nullptr) return false;
    text.clear();
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, fp)) > 0) text.append(buf, n);
    std::fclose(fp);
    return true;
}

}  // namespace

namespace systeminfo_platform {

ArchitectureFacts architecture() {
    ArchitectureFacts arch;
    arch.process = processArchitecture();
    struct utsname u {};
    // The kernel's machine, which is what a 32-bit process on a 64-bit
    // kernel needs to learn that the machine is 64-bit.
    arch.native = uname(&u) == 0 ? SystemInfo::architectureOfMachine(u.machine) : arch.process;
    return arch;
}

OSRecord operatingSystem(const ArchitectureFacts& /*arch*/) {
    std::string text;
    if (!readFile("/etc/os-release", text)) readFile("/usr/lib/os-release", text);
    return SystemInfo::describeLinux(SystemInfo::parseOsRelease(text));
}

int computerName(STRING& name) {
    char buffer[256] = {};
    if (gethostname(buffer, sizeof buffer - 1) != 0) return errno ? errno : -1;
    name = STRING::fromNarrow(buffer);
    return 0;
}

// The NetBIOS form of the node name: the first label, upper case, at most
// fifteen characters.
STRING shortComputerName() {
    struct utsname u {};
    if (uname(&u) != 0) return STRING();
    std::string node(u.nodename);
    node = node.substr(0, node.find('.'));
    if (node.size() > 15) node.resize(15);
    return STRING::fromNarrow(node).toUpper();
}

std::vector<std::array<uint8_t, 6>> macAddresses() {
    std::vector<std::array<uint8_t, 6>> out;
    struct ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return out;
    for (const struct ifaddrs* it = list; it; it = it->ifa_next) {
        if (!it->ifa_addr || it->ifa_addr->sa_family != AF_PACKET) continue;
        if (it->ifa_flags & IFF_LOOPBACK) continue;
        const auto* link = reinterpret_cast<const struct sockaddr_ll*>(it->ifa_addr);
        if (link->sll_halen < 6) continue;
        std::array<uint8_t, 6> address{};
        bool zero = true;
        for (size_t i = 0; i < address.size(); ++i) {
            address[i] = link->sll_addr[i];
            if (address[i]) zero = false;
        }
        if (!zero) out.push_back(address);
    }
    freeifaddrs(list);
    return out;
}

STRING executableDirectory() {
    char buffer[4096];
    const ssize_t n = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (n <= 0) return STRING();
    std::string path(buffer, static_cast<size_t>(n));
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return STRING();
    path.resize(slash == 0 ? 1 : slash);
    return STRING::fromNarrow(path);
}

}  // namespace systeminfo_platform
