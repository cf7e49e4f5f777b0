#include "foundation/system_info.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <iterator>

#include "testing/test_support.h"

namespace {

// The CPE identifier's fields, as a text joined with ':'.
STRING joinedCpe(const OSRecord& os) {
    STRING joined;
    for (size_t i = 0; i < os.cpe.size(); ++i) joined += (i ? STRING(u":") : STRING()) + os.cpe[i];
    return joined;
}

TEST(SystemInfoWindows, VersionTableGivesDescriptionsAndCpe) {
    struct Case {
        uint32_t major, minor, servicePack;
        bool server;
        uint16_t native;
        const char16_t* description;
        const char16_t* servicePackText;  // the full description adds it after a blank
        const char16_t* cpeId;
    };
    // The rows of the table are data; these cases are the rules around them.
    const Case cases[] = {
        {6, 3, 0, true, 9, u"Windows Server 2012 R2", u"", u"cpe:2.3:o:microsoft:windows_server_2012:6.3:-:r2:-:-:-:x64:-"},
        {5, 2, 2, true, 12, u"Windows", u"", u"cpe:2.3:o:microsoft:windows:5.2:-:-:-:-:-:*:-"},
        // Versions between and above the rows take the row below them.
        {6, 4, 0, false, 9, u"Windows 8.1", u"", u"cpe:2.3:o:microsoft:windows_8.1:6.4:-:-:-:-:-:x64:-"},
        {11, 0, 0, true, 9, u"Windows Server 2016", u"", u"cpe:2.3:o:microsoft:Windows_Serve_2016:11.0:-:-:-:-:-:x64:-"},
        // Service pack 1 and later of 6.1 and 6.0 show as "SP1"; its update
        // word stays "-" because the text is not "Service Pack N".
        {6, 1, 1, true, 9, u"Windows Server 2008 R2", u"SP1", u"cpe:2.3:o:microsoft:windows_server_2008:6.1:-:r2:-:-:-:x64:-"},
        {6, 0, 2, false, 0, u"Windows Vista", u"SP1", u"cpe:2.3:o:microsoft:windows_vista:6.0:-:-:-:-:-:win32:-"},
        // No other version reports its service pack.
        {6, 2, 1, false, 9, u"Windows 8", u"", u"cpe:2.3:o:microsoft:windows_8:6.2:-:-:-:-:-:x64:-"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(STRING(c.cpeId).toUtf8());
        ArchitectureFacts arch;
        arch.native = arch.process = c.native;
        const OSRecord os = SystemInfo::describeWindows(WindowsVersionFacts{c.major, c.minor, c.servicePack, c.server}, arch);
        const STRING sp(c.servicePackText);
        EXPECT_EQ(os.description, STRING(c.description));
        EXPECT_EQ(os.fullDescription, sp.empty() ? STRING(c.description) : c.description + (u" " + sp));
        EXPECT_EQ(os.servicePack, sp);
        EXPECT_EQ(os.osType, STRING(u"Windows"));
        EXPECT_EQ(os.cpeIdentifier, STRING(c.cpeId));
        // The record's own fields are the ones inside the identifier.
        EXPECT_EQ(joinedCpe(os), STRING(c.cpeId));
        const std::vector<STRING> parts = STRING(c.cpeId).split(u':', false);
        ASSERT_EQ(parts.size(), OSRecord::CpeFieldCount);
        EXPECT_EQ((std::vector<STRING>{os.cpeProduct, os.version, os.cpeUpdate, os.cpeEdition}),
                  std::vector<STRING>(parts.begin() + 4, parts.begin() + 8));
    }
}

TEST(SystemInfoWindows, ServicePackTextGivesFullDescriptionAndUpdateWord) {
    struct Case { const char16_t* text; const char16_t* fullDescription; const char16_t* update; };
    const Case cases[] = {
        {u"", u"Windows XP", u"-"},
        {u"Service Pack 3", u"Windows XP Service Pack 3", u"sp3"},
        {u"Service Pack 2, v.3244", u"Windows XP Service Pack 2, v.3244", u"sp2, v.3244"},
        {u"Microsoft Service Pack 1", u"Windows XP Microsoft Service Pack 1", u"sp1"},
        {u"Service Pack", u"Windows XP Service Pack", u"sp"},
        {u"SP1", u"Windows XP SP1", u"-"},
        {u"service pack 1", u"Windows XP service pack 1", u"-"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(STRING(c.text).toUtf8());
        OSRecord os;
        os.description = u"Windows XP";
        os.servicePack = c.text;
        SystemInfo::applyServicePack(os);
        EXPECT_EQ(os.fullDescription, STRING(c.fullDescription));
        EXPECT_EQ(os.cpeUpdate, STRING(c.update));
        EXPECT_EQ(SystemInfo::cpeUpdateWord(c.text), STRING(c.update));
    }
}

TEST(SystemInfoArchitecture, NamesWordSizeAndTargetHardware) {
    struct Case {
        uint16_t process, native;
        const char16_t* name;
        const char16_t* wordSize;
        const char16_t* targetHardware;
    };
    const Case cases[] = {
        {0, 0, u"IA32", u"32bit", u"win32"},
        {9, 9, u"AMD64", u"64bit", u"x64"},
        // A 32-bit process on a 64-bit machine.
        {0, 9, u"IA64/32", u"64bit", u"x64"},
        {10, 6, u"IA64/32", u"64bit", u"x64"},
        {3, 3, u"PPC", u"32bit", u"*"},
        {5, 5, u"Unknown", u"32bit", u"*"},
        {0, 12, u"IA32", u"32bit", u"*"},
        {ArchUnknown, ArchUnknown, u"Unknown", u"32bit", u"*"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "process " << c.process << " native " << c.native);
        ArchitectureFacts arch;
        arch.process = c.process;
        arch.native = c.native;
        EXPECT_EQ(SystemInfo::architectureName(SystemInfo::architectureCode(arch)), STRING(c.name));
        EXPECT_EQ(SystemInfo::wordSize(arch), STRING(c.wordSize));
        const OSRecord os = SystemInfo::describeWindows(WindowsVersionFacts{10, 0, 0, false}, arch);
        EXPECT_EQ(os.cpe[11], STRING(c.targetHardware));
    }
}

TEST(SystemInfoArchitecture, MachineNamesMapToCodes) {
    struct Case { const char* machine; uint16_t code; };
    const Case cases[] = {
        {"x86_64", ArchAmd64}, {"i686", ArchIntel}, {"aarch64", ArchArm64}, {"mips64", ArchMips},
        {"ppc64le", ArchPpc},  {"s390x", ArchUnknown}, {"", ArchUnknown}, {"x86_64 ", ArchUnknown},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.machine);
        EXPECT_EQ(SystemInfo::architectureOfMachine(c.machine), c.code);
    }
}

TEST(SystemInfoMac, FormatsUpperCaseAndJoinsWithCommas) {
    struct Case { std::vector<std::array<uint8_t, 6>> addresses; const char16_t* text; };
    const Case cases[] = {
        {{}, u""},
        {{{0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e}, {0xfe, 0x0f, 0x00, 0x01, 0xa0, 0xff}},
         u"00:1A:2B:3C:4D:5E,FE:0F:00:01:A0:FF"},
        {{{1, 2, 3, 4, 5, 6}, {1, 2, 3, 4, 5, 6}, {0, 0, 0, 0, 0, 0}}, u"01:02:03:04:05:06,01:02:03:04:05:06,00:00:00:00:00:00"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(STRING(c.text).toUtf8());
        EXPECT_EQ(SystemInfo::formatMACAddresses(c.addresses), STRING(c.text));
    }
}

TEST(SystemInfoOsRelease, ParsesQuotingVariants) {
    const std::string text =
        "# a comment\n"
        "\n"
        "NAME=\"Debian GNU/Linux\"\n"
        "ID=debian\n"
        "VERSION_ID='12'\r\n"
        "  INDENTED=yes\n"
        "ESCAPED=\"say \\\"hi\\\" \\\\ \\$HOME \\`x\\` \\n\"\n"
        "SINGLE='no \\escapes \"here\"'\n"
        "MIXED=one\"two three\"'four'\n"
        "BARE=a\\ b\n"
        "TRAILING=value # note\n"
        "EMPTY=\n"
        "EMPTYQUOTES=\"\"\n"
        "UNTERMINATED=\"open to the end\n"
        "UTF8=\"Caf\xC3\xA9\"\n"
        "no equals sign here\n"
        "=no key\n"
        "ID=later-wins";
    const auto fields = SystemInfo::parseOsRelease(text);
    struct Case { const char* key; const char16_t* value; };
    const Case cases[] = {
        {"NAME", u"Debian GNU/Linux"},
        {"VERSION_ID", u"12"},
        {"INDENTED", u"yes"},
        {"ESCAPED", u"say \"hi\" \\ $HOME `x` \\n"},
        {"SINGLE", u"no \\escapes \"here\""},
        {"MIXED", u"onetwo threefour"},
        {"BARE", u"a b"},
        {"TRAILING", u"value"},
        {"EMPTY", u""},
        {"EMPTYQUOTES", u""},
        {"UNTERMINATED", u"open to the end"},
        {"UTF8", u"Caf\u00e9"},
        {"ID", u"later-wins"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key);
        const auto it = fields.find(c.key);
        ASSERT_NE(it, fields.end());
        EXPECT_EQ(it->second, STRING(c.value));
    }
    EXPECT_EQ(fields.size(), std::size(cases));
}

TEST(SystemInfoOsRelease, DescribesTheDistribution) {
    struct Case {
        const char* osRelease;
        const char16_t* description;
        const char16_t* version;
        const char16_t* product;
        const char16_t* cpeId;
        const char16_t* cpeFields;  // the thirteen fields as the record holds them
    };
    const Case cases[] = {
        {"PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nNAME=\"Debian GNU/Linux\"\nVERSION_ID=\"12\"\nID=debian\n"
         "CPE_NAME=\"cpe:/o:debian:debian_linux:12\"\n",
         u"Debian GNU/Linux 12 (bookworm)", u"12", u"debian_linux", u"cpe:/o:debian:debian_linux:12",
         u"cpe:2.3:o:debian:debian_linux:12:*:*:*:*:*:*:*"},
        {"NAME=Fedora\nVERSION_ID=39\nCPE_NAME=\"cpe:/o:fedoraproject:fedora:39::server\"\n", u"Fedora", u"39",
         u"fedora", u"cpe:/o:fedoraproject:fedora:39::server", u"cpe:2.3:o:fedoraproject:fedora:39:*:server:*:*:*:*:*"},
        {"PRETTY_NAME=\"Amazon Linux 2023\"\nVERSION_ID=\"2023\"\nCPE_NAME=\"cpe:2.3:o:amazon:amazon_linux:2023\"\n",
         u"Amazon Linux 2023", u"2023", u"amazon_linux", u"cpe:2.3:o:amazon:amazon_linux:2023",
         u"cpe:2.3:o:amazon:amazon_linux:2023:*:*:*:*:*:*:*"},
        {"PRETTY_NAME=\"Odd\"\nCPE_NAME=\"cpe:2.3:o:a\\\\:b:prod:1:-:-:en:-:-:x64:-\"\n", u"Odd", u"", u"prod",
         u"cpe:2.3:o:a\\:b:prod:1:-:-:en:-:-:x64:-", u"cpe:2.3:o:a\\:b:prod:1:-:-:en:-:-:x64:-"},
        // Without a CPE name the identifier is made from ID and VERSION_ID.
        {"PRETTY_NAME=\"Ubuntu 22.04.3 LTS\"\nID=ubuntu\nVERSION_ID=\"22.04\"\n", u"Ubuntu 22.04.3 LTS", u"22.04",
         u"ubuntu", u"cpe:2.3:o:ubuntu:ubuntu:22.04:-:-:-:-:-:-:-", u"cpe:2.3:o:ubuntu:ubuntu:22.04:-:-:-:-:-:-:-"},
        {"", u"Linux", u"", u"linux", u"cpe:2.3:o:linux:linux:-:-:-:-:-:-:-:-", u"cpe:2.3:o:linux:linux:-:-:-:-:-:-:-:-"},
        // A CPE name that cannot be split is still the identifier.
        {"NAME=X\nID=x\nCPE_NAME=\"not a cpe\"\n", u"X", u"", u"x", u"not a cpe", u"cpe:2.3:o:x:x:-:-:-:-:-:-:-:-"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.osRelease);
        const OSRecord os = SystemInfo::describeLinux(SystemInfo::parseOsRelease(c.osRelease));
        EXPECT_EQ(os.description, STRING(c.description));
        EXPECT_EQ(os.fullDescription, STRING(c.description));
        EXPECT_EQ(os.version, STRING(c.version));
        EXPECT_EQ(os.osType, STRING(u"Linux"));
        EXPECT_EQ(os.cpeProduct, STRING(c.product));
        EXPECT_EQ(os.cpeIdentifier, STRING(c.cpeId));
        EXPECT_EQ(joinedCpe(os), STRING(c.cpeFields));
    }
}

TEST(SystemInfoOsRelease, RejectsMalformedCpeNames) {
    for (const char16_t* name :
         {u"", u"cpe", u"cpe:2.2:o:a:b", u"cpe:/o:a:b:1:2:3:4:5", u"cpe:2.3:o:a:b:1:-:-:-:-:-:-:-:-:extra"})
        EXPECT_TRUE(SystemInfo::splitCpeName(name).empty()) << STRING(name).toUtf8();
}

// The facts of the host the tests run on: a fault in gathering them shows as
// an empty or inconsistent record.
TEST(SystemInfoHost, GathersAConsistentRecord) {
    const SystemInfo info;
    EXPECT_FALSE(info.getComputerName().empty());
    const STRING shortName = info.getShortComputerName();
    EXPECT_LE(shortName.length(), 15u);
    EXPECT_EQ(shortName, shortName.toUpper());

    const OSRecord& os = info.getOS();
#ifdef _WIN32
    EXPECT_EQ(os.osType, STRING(u"Windows"));
    EXPECT_TRUE(os.description.startsWith(u"Windows"));
    EXPECT_TRUE(os.cpeIdentifier.startsWith(u"cpe:2.3:o:microsoft:"));
    EXPECT_NE(os.version, STRING(u"0.0"));
#else
    EXPECT_EQ(os.osType, STRING(u"Linux"));
    EXPECT_FALSE(os.description.empty());
    EXPECT_TRUE(os.cpeIdentifier.startsWith(u"cpe:"));
#endif
#if defined(__x86_64__) || defined(_M_X64)
    EXPECT_EQ(info.getWordSize(), STRING(u"64bit"));
    EXPECT_EQ(info.getArchitectureName(), STRING(u"AMD64"));
#elif defined(__i386__) || defined(_M_IX86)
    EXPECT_TRUE(info.getArchitectureName() == STRING(u"IA32") || info.getArchitectureName() == STRING(u"IA64/32"));
#endif

    for (const STRING& mac : info.getMACAddresses().split(u',', false)) {
        ASSERT_EQ(mac.length(), 17u) << mac.toUtf8();
        for (size_t i = 0; i < mac.length(); ++i) {
            const char16_t c = mac[i];
            EXPECT_TRUE(i % 3 == 2 ? c == u':' : (c >= u'0' && c <= u'9') || (c >= u'A' && c <= u'F')) << mac.toUtf8();
        }
    }
}

TEST(SystemInfoInstall, DefaultDirectoryHoldsTheRunningProgram) {
    const STRING directory = SystemInfo::installDirectory();
    ASSERT_FALSE(directory.empty());
    bool found = false;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::u8path(directory.toUtf8()))) {
        if (entry.path().filename().u8string().rfind("foundation_tests", 0) == 0) found = true;
    }
    EXPECT_TRUE(found) << directory;
}

#ifndef _WIN32
// Each case gets a registry file of its own, so that no case can see the
// previous one's registry.
void useRegistry(const testing_support::ScratchDir& dir, const std::string& body) {
    static int serial = 0;
    testing_support::writeBytes(
        testing_support::useRegistryFile(dir.file("registry-" + std::to_string(++serial) + ".reg")),
        "Windows Registry Editor Version 5.00\r\n\r\n" + body);
}

TEST(SystemInfoInstall, ReadsLocationsAndFallsBackToTheInstallDirectory) {
    const std::string agentKey = "[HKEY_LOCAL_MACHINE\\SOFTWARE\\WOW6432Node\\Tessaly\\Zelshield\\agent]\r\n";
    struct Case {
        const char* name;
        std::string registry;
        const char16_t* installRoot;
        const char16_t* logRoot;
        std::optional<int> agentType;
    };
    const Case cases[] = {
        {"empty values fall back", agentKey + "\"InstallRoot\"=\"\"\r\n\"LogInstallRoot\"=\"\"\r\n\"AgentType\"=\"003\"\r\n",
         u"/fallback", u"/fallback", 3},
        {"missing values", agentKey + "\"Other\"=\"x\"\r\n", u"/fallback", u"/fallback", std::nullopt},
        {"missing key", "[HKEY_LOCAL_MACHINE\\SOFTWARE\\WOW6432Node\\Tessaly\\Zelshield]\r\n", u"/fallback",
         u"/fallback", std::nullopt},
        {"64-bit view only is not read",
         "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Tessaly\\Zelshield\\agent]\r\n\"InstallRoot\"=\"/opt/64\"\r\n",
         u"/fallback", u"/fallback", std::nullopt},
        {"agent type not a number", agentKey + "\"InstallRoot\"=\"/opt/zel\"\r\n\"AgentType\"=\"2x\"\r\n", u"/opt/zel",
         u"/fallback", std::nullopt},
        {"agent type negative", agentKey + "\"AgentType\"=\"-1\"\r\n", u"/fallback", u"/fallback", -1},
        {"agent type empty", agentKey + "\"AgentType\"=\"\"\r\n", u"/fallback", u"/fallback", std::nullopt},
    };
    const testing_support::ScratchDir dir;
    const STRING programDirectory = SystemInfo::installDirectory();
    SystemInfo::setInstallDirectory(u"/fallback");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        useRegistry(dir, c.registry);
        EXPECT_EQ(SystemInfo::getInstallRoot(), STRING(c.installRoot));
        EXPECT_EQ(SystemInfo::getLogInstallRoot(), STRING(c.logRoot));
        EXPECT_EQ(SystemInfo::getIPSDirectory(), STRING(c.installRoot) + u"/IPS");
        EXPECT_EQ(SystemInfo::getAgentType(), c.agentType);
    }
    SystemInfo::setInstallDirectory(programDirectory);
}
#endif

}  // namespace
