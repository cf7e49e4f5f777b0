#include "foundation/registry.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "foundation/ids_exception.h"
#include "testing/test_support.h"

#ifndef _WIN32
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <set>

#include "foundation/reg_file.h"
#include "foundation/registry_store.h"
#endif

using testing_support::ScratchDir;

namespace {

using Outcome = testing_support::Thrown;
const auto run = testing_support::thrownBy;
using testing_support::testName;

// ---- Path splitting and roots: no registry needed.

TEST(RegistryPath, SplitsViewPrefixRootSubkeyAndValue) {
    struct Case {
        const char16_t* path;
        bool valueMode;
        uint32_t view;
        const char16_t* root;
        const char16_t* subkey;
        const char16_t* value;
    };
    const Case cases[] = {
        {u"HKEY_LOCAL_MACHINE\\SOFTWARE\\X\\Name", false, 0, u"HKEY_LOCAL_MACHINE", u"SOFTWARE\\X\\Name", u""},
        {u"HKEY_LOCAL_MACHINE\\SOFTWARE\\X\\Name", true, 0, u"HKEY_LOCAL_MACHINE", u"SOFTWARE\\X", u"Name"},
        {u"64:HKLM\\SOFTWARE\\X", true, 1, u"HKLM", u"SOFTWARE", u"X"},
        {u"6432:HKLM\\SOFTWARE\\X", false, 2, u"HKLM", u"SOFTWARE\\X", u""},
        {u"3264:HKLM\\SOFTWARE\\X", false, 3, u"HKLM", u"SOFTWARE\\X", u""},
        // The whole leading run of 6, 4, 3, 2 and ':' goes, whichever prefix was seen.
        {u"6464:::HKLM\\A", false, 0, u"HKLM", u"A", u""},
        {u"64:4:HKLM\\A", false, 1, u"HKLM", u"A", u""},
        {u"643:HKLM\\A", false, 0, u"HKLM", u"A", u""},
        // Empty components are skipped.
        {u"\\\\HKCU\\\\Software\\\\\\Zel\\\\Value\\", true, 0, u"HKCU", u"Software\\Zel", u"Value"},
        // A root alone: nothing to take as the value.
        {u"HKLM", true, 0, u"HKLM", u"", u""},
        {u"HKLM\\Value", true, 0, u"HKLM", u"", u"Value"},
        {u"", false, 0, u"", u"", u""},
        {u"64:", true, 1, u"", u"", u""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(STRING(c.path).toUtf8() + (c.valueMode ? " (value)" : " (key)"));
        uint32_t view = 99;
        STRING root = u"old", subkey = u"old", value = u"old";
        RegistryKey::splitPath(c.path, c.valueMode, view, root, subkey, value);
        EXPECT_EQ(view, c.view);
        EXPECT_EQ(root, STRING(c.root));
        EXPECT_EQ(subkey, STRING(c.subkey));
        EXPECT_EQ(value, STRING(c.value));
    }
}

TEST(RegistryPath, RootNamesMatchTheTableInAnyCase) {
    const std::pair<const char16_t*, RegRoot> known[] = {
        {u"HkCu", RegRoot::CurrentUser}, {u"hku", RegRoot::Users},
        {u"hkey_current_user", RegRoot::CurrentUser}, {u"HKEY_LOCAL_MACHINE", RegRoot::LocalMachine},
    };
    for (const auto& [name, want] : known) {
        RegRoot root = RegRoot::ClassesRoot == want ? RegRoot::Users : RegRoot::ClassesRoot;
        EXPECT_TRUE(regRootFromName(name, root)) << STRING(name).toUtf8();
        EXPECT_EQ(root, want) << STRING(name).toUtf8();
    }
    for (const char16_t* name : {u"", u"HKXX", u"HKLM2", u"MACHINE", u"HKEY_LOCAL_MACHINEX"}) {
        RegRoot root;
        EXPECT_FALSE(regRootFromName(name, root)) << STRING(name).toUtf8();
    }
}

// ---- Tests that write: a scratch key per test, in a scratch file on Linux
// and in the real registry (both views, both hives) on Windows.

class RegistryScratch : public ::testing::Test {
protected:
    void SetUp() override {
#ifndef _WIN32
        testing_support::useRegistryFile(dir_.file("registry.reg"));
#endif
        tail_ = u"SOFTWARE\\ZelipsTest\\" + STRING::fromUtf8(testName());
        base_ = u"HKEY_LOCAL_MACHINE\\" + tail_;
        cleanup();
    }
    void TearDown() override { cleanup(); }

    void cleanup() {
        for (const char16_t* root : {u"HKEY_LOCAL_MACHINE\\", u"64:HKEY_LOCAL_MACHINE\\", u"HKEY_CURRENT_USER\\"})
            deleteTree(root + tail_);
    }

    static void deleteTree(const STRING& path) {
        try {
            RegistryKey key(path, false);
            for (const auto& sub : std::vector<STRING>(key.getSubkeys())) deleteTree(path + u"\\" + sub);
            key.deleteKey();
        } catch (const IDSException&) {
        }
    }

    // Writes the value named by the last component of the path.
    static void write(const STRING& path, RegValueType type, const STRING& text) {
        const size_t slash = path.rfind(u'\\');
        RegistryKey key(path.substr(0, slash), false, RegistryKey::ForWrite{});
        key.setRegData(path.substr(slash + 1), type, text);
    }

    static bool opens(const STRING& path) {
        return !run([&] { RegistryKey key(path, false); }).thrown;
    }

#ifndef _WIN32
    ScratchDir dir_;
#endif
    STRING tail_;  // below the root
    STRING base_;  // HKEY_LOCAL_MACHINE\<tail>
};

TEST_F(RegistryScratch, WritableFormCreatesTheChainAndChoosesItsRootByName) {
    struct Case { const char16_t* root; bool landsInCurrentUser; };
    const Case cases[] = {
        {u"HKEY_LOCAL_MACHINE", false}, {u"HKLM", false},        {u"HKXX", false},
        {u"machine", false},            {u"MACHINE", true},      {u"MACHINEX", true},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(STRING(c.root).toUtf8());
        const STRING rel = tail_ + u"\\k" + STRING::number(++n) + u"\\a\\b";
        { RegistryKey created(STRING(c.root) + u"\\" + rel, false, RegistryKey::ForWrite{}); }
        EXPECT_EQ(opens(u"HKEY_CURRENT_USER\\" + rel), c.landsInCurrentUser);
        EXPECT_EQ(opens(u"HKEY_LOCAL_MACHINE\\" + rel), !c.landsInCurrentUser);
        // Every key above it exists too.
        const STRING hive = c.landsInCurrentUser ? u"HKCU\\" : u"HKLM\\";
        EXPECT_TRUE(opens(hive + tail_ + u"\\k" + STRING::number(n) + u"\\a"));
    }
}

TEST_F(RegistryScratch, WrittenValuesReadBackWithTheirKinds) {
    struct Case { RegValueType type; const char16_t* text; int kind; const char16_t* asString; uint32_t dword; };
    const Case cases[] = {
        {RegValueType::Sz, u"", RegistryKey::KindString, u"", 0},
        {RegValueType::Sz, u"x", RegistryKey::KindString, u"x", 0x78},  // 'x', NUL: four bytes
        {RegValueType::ExpandSz, u"%TEMP%\\zel", RegistryKey::KindString, u"%TEMP%\\zel", 0},
        {RegValueType::DWord, u"0", RegistryKey::KindNumber, u"0", 0},
        {RegValueType::DWord, u"4294967295", RegistryKey::KindNumber, u"4294967295", 4294967295u},
        {RegValueType::DWord, u"+007", RegistryKey::KindNumber, u"7", 7},
        {RegValueType::DWordBigEndian, u"258", RegistryKey::KindNumber, u"258", 258},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(STRING(c.text).toUtf8());
        const STRING path = base_ + u"\\v" + STRING::number(++n);
        write(path, c.type, c.text);
        RegistryKey key(path, true);
        EXPECT_EQ(key.getType(), c.kind);
        EXPECT_EQ(key.getString(), STRING(c.asString));
        EXPECT_EQ(key.getBinaryString(), STRING(u"0x0"));
        if (c.kind == RegistryKey::KindNumber || c.dword != 0) { EXPECT_EQ(key.getDWord(), c.dword); }
    }
}

TEST_F(RegistryScratch, ViewPrefixesChooseAndFallBack) {
    // "both" differs between the views; "v32" and "v64" exist in one view each;
    // the key "only64" exists in the 64-bit view only.
    write(base_ + u"\\both", RegValueType::Sz, u"thirty-two");
    write(u"64:" + base_ + u"\\both", RegValueType::Sz, u"sixty-four");
    write(base_ + u"\\v32", RegValueType::Sz, u"32");
    write(u"64:" + base_ + u"\\v64", RegValueType::Sz, u"64");
    { RegistryKey k(u"64:" + base_ + u"\\only64", false, RegistryKey::ForWrite{}); }

    struct Case {
        const char16_t* prefix;
        const char16_t* name;
        bool valueMode;
        const char16_t* want;  // nullptr: fails with 2
    };
    const Case cases[] = {
        {u"", u"both", true, u"thirty-two"},     {u"64:", u"both", true, u"sixty-four"},
        {u"6432:", u"both", true, u"sixty-four"}, {u"3264:", u"both", true, u"thirty-two"},
        {u"", u"v64", true, nullptr},            {u"64:", u"v32", true, nullptr},
        {u"6432:", u"v32", true, u"32"},          {u"3264:", u"v64", true, u"64"},
        {u"6432:", u"none", true, nullptr},       {u"3264:", u"none", true, nullptr},
        {u"", u"only64", false, nullptr},        {u"3264:", u"only64", false, u""},
        {u"6432:", u"only64", false, u""},
    };
    for (const auto& c : cases) {
        const STRING path = STRING(c.prefix) + base_ + u"\\" + c.name;
        SCOPED_TRACE(path.toUtf8());
        STRING got;
        const Outcome o = run([&] {
            RegistryKey key(path, c.valueMode);
            if (c.valueMode) got = key.getString();
        });
        if (c.want == nullptr) {
            EXPECT_TRUE(o.thrown);
            EXPECT_EQ(o.code, 2);
            EXPECT_EQ(o.message, u"error opening key: " + path);
        } else {
            EXPECT_FALSE(o.thrown) << o.message;
            EXPECT_EQ(got, STRING(c.want));
        }
    }
}

TEST_F(RegistryScratch, FailuresCarryCodeOperationAndText) {
    write(base_ + u"\\text", RegValueType::Sz, u"longer than four bytes");
    write(base_ + u"\\num", RegValueType::DWord, u"1");
    const STRING missingValue = base_ + u"\\nothing";
    const STRING ctor = u"RegistryKey::RegistryKey", set = u"RegistryKey::setRegData";
    const STRING setFailed = u"Error setting value for the registry key: " + base_;
    struct Case { const char* label; std::function<void()> action; int code; STRING operation; STRING message; };
    const Case cases[] = {
        {"unknown root", [] { RegistryKey k(u"HKXX\\Software", false); }, 6, ctor, u"Invalid Root Key: HKXX"},
        {"empty path", [] { RegistryKey k(u"", false); }, 6, ctor, u"Invalid Root Key: "},
        {"missing key", [&] { RegistryKey k(u"3264:" + base_ + u"\\no\\such", false); }, 2, ctor,
         u"error opening key: 3264:" + base_ + u"\\no\\such"},
        {"missing value", [&] { RegistryKey k(missingValue, true); }, 2, ctor, u"error opening key: " + missingValue},
        {"missing value, writable", [&] { RegistryKey k(missingValue, true, RegistryKey::ForWrite{}); }, 2, ctor,
         u"error opening key: " + missingValue},
        {"getType without a value", [&] { RegistryKey(base_, false).getType(); }, 2, u"RegistryKey::getType",
         u"error querying key: " + base_},
        {"getDWord without a value", [&] { RegistryKey(base_, false).getDWord(); }, 2, u"RegistryKey::getDWord",
         u"error querying key value: " + base_},
        {"getString without a value", [&] { RegistryKey(base_, false).getString(); }, 2, u"RegistryKey::getString",
         u"error querying key value size: " + base_},
        {"getDWord of long data", [&] { RegistryKey(base_ + u"\\text", true).getDWord(); }, 234,
         u"RegistryKey::getDWord", u"error querying key value: " + base_ + u"\\text"},
        {"DWORD out of range",
         [&] { RegistryKey(base_ + u"\\num", true, RegistryKey::ForWrite{}).setRegData(RegValueType::DWord, u"4294967296"); },
         534, set, setFailed + u"\\num"},
        {"negative DWORD", [&] { write(base_ + u"\\n", RegValueType::DWord, u"-1"); }, 534, set, setFailed},
        {"DWORD not a number", [&] { write(base_ + u"\\n", RegValueType::DWord, u"12a"); }, 13, set, setFailed},
        {"DWORD empty", [&] { write(base_ + u"\\n", RegValueType::DWord, u""); }, 13, set, setFailed},
        {"unsupported type", [&] { write(base_ + u"\\n", RegValueType::Binary, u"00"); }, 87, set, setFailed},
        {"write through a read-only key", [&] { RegistryKey(base_, false).setRegData(RegValueType::Sz, u"x"); }, 5,
         set, setFailed},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        const Outcome o = run(c.action);
        ASSERT_TRUE(o.thrown);
        EXPECT_EQ(o.code, c.code);
        EXPECT_EQ(o.operation, c.operation);
        EXPECT_EQ(o.message, c.message);
    }
    // Nothing was written by the failed writes.
    EXPECT_EQ(run([&] { RegistryKey(base_ + u"\\n", true); }).code, 2);
    EXPECT_EQ(RegistryKey(base_ + u"\\num", true).getDWord(), 1u);
}

// ---- The shared fixture, read the same way on both platforms.

class RegistryFixture : public ::testing::Test {
protected:
    void SetUp() override {
#ifdef _WIN32
        const char* imported = std::getenv("ZELIPS_WINE_REGISTRY_IMPORTED");
        if (imported == nullptr || std::string(imported) != "1")
            GTEST_SKIP() << "tests/fixtures/registry/shared.reg has not been imported into this registry "
                            "(ZELIPS_WINE_REGISTRY_IMPORTED=1 is not set)";
#else
        const STRING copy = testing_support::useRegistryFile(dir_.file("shared.reg"));
        testing_support::writeBytes(copy, testing_support::readBytes(
                                              STRING::fromUtf8(ZELIPS_SOURCE_DIR "/tests/fixtures/registry/shared.reg")));
        ASSERT_FALSE(testing_support::readBytes(copy).empty());
#endif
    }
#ifndef _WIN32
    ScratchDir dir_;
#endif
};

// Every kind of value, and where each view finds the keys: 32-bit SOFTWARE
// keys under WOW6432Node, SYSTEM shared by both views.
TEST_F(RegistryFixture, ValuesAndViews) {
    const STRING agent = u"HKLM\\SOFTWARE\\Tessaly\\Zelshield\\agent\\";
    const STRING parameters = u"HKLM\\SYSTEM\\CurrentControlSet\\Services\\ZELIPSDriver\\Parameters\\";
    struct Case {
        STRING path;
        int kind;
        const char16_t* text;  // nullptr: the value is not found (error 2)
        const char16_t* binary;
    };
    const Case cases[] = {
        {agent + u"AgentType", RegistryKey::KindString, u"1", u"0x0"},
        {agent + u"InstallRoot", RegistryKey::KindString, u"C:\\Program Files (x86)\\Tessaly\\Zelshield\\agent", u"0x0"},
        {agent + u"Binary", RegistryKey::KindBinary, u"0x0aff", u"0x0aff"},
        {agent + u"Count", RegistryKey::KindNumber, u"10", u"0x0"},
        {agent + u"BigEndian", RegistryKey::KindNumber, u"258", u"0x0"},
        {agent + u"Expand", RegistryKey::KindString, u"%SystemRoot%\\zelips\\bin", u"0x0"},
        {agent + u"Multi", RegistryKey::KindMultiString, u"alpha,beta,gamma", u"0x0"},
        {agent + u"Quad", RegistryKey::KindOther, u"10", u"0x0"},
        {agent + u"Quoted", RegistryKey::KindString, u"say \"hi\" to C:\\", u"0x0"},
        {agent + u"alpha\\Inside", RegistryKey::KindString, u"alpha value", u"0x0"},
        {u"64:" + agent + u"InstallRoot", RegistryKey::KindString, u"C:\\Program Files\\Tessaly\\Zelshield\\agent", u"0x0"},
        {agent + u"Only64", 0, nullptr, nullptr},
        {u"64:" + agent + u"AgentType", 0, nullptr, nullptr},
        {parameters + u"Log File", RegistryKey::KindString, u"C:\\ProgramData\\Tessaly\\Zelshield\\logs\\driver.log", u"0x0"},
        {u"64:" + parameters + u"Log File", RegistryKey::KindString,
         u"C:\\ProgramData\\Tessaly\\Zelshield\\logs\\driver.log", u"0x0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path.toUtf8());
        if (c.text == nullptr) {
            EXPECT_EQ(run([&] { RegistryKey k(c.path, true); }).code, 2);
            continue;
        }
        RegistryKey key(c.path, true);
        EXPECT_EQ(key.getType(), c.kind);
        EXPECT_EQ(key.getString(), STRING(c.text));
        EXPECT_EQ(key.getBinaryString(), STRING(c.binary));
    }
    EXPECT_EQ(RegistryKey(agent + u"Count", true).getDWord(), 10u);
    EXPECT_EQ(RegistryKey(agent + u"BigEndian", true).getDWord(), 258u);
}

#ifndef _WIN32
// ---- The Linux store: where keys live in the file, locking, permissions.

// A scratch registry file per test.
class RegistryStoreFile : public ::testing::Test {
protected:
    ScratchDir dir_;
    const STRING file_ = testing_support::useRegistryFile(dir_.file("registry.reg"));
};

TEST_F(RegistryStoreFile, ThirtyTwoBitSoftwareKeysLiveUnderWow6432Node) {
    struct Case { RegRoot root; const char16_t* subkey; bool view64; const char16_t* stored; };
    const Case cases[] = {
        {RegRoot::LocalMachine, u"software\\X\\Y", false, u"HKEY_LOCAL_MACHINE\\software\\WOW6432Node\\X\\Y"},
        {RegRoot::LocalMachine, u"SOFTWARE", false, u"HKEY_LOCAL_MACHINE\\SOFTWARE\\WOW6432Node"},
        {RegRoot::LocalMachine, u"SOFTWARE\\Wow6432Node\\X", false, u"HKEY_LOCAL_MACHINE\\SOFTWARE\\Wow6432Node\\X"},
        {RegRoot::LocalMachine, u"SOFTWAREX\\Y", false, u"HKEY_LOCAL_MACHINE\\SOFTWAREX\\Y"},
        {RegRoot::LocalMachine, u"", false, u"HKEY_LOCAL_MACHINE"},
        {RegRoot::CurrentUser, u"SOFTWARE\\X", false, u"HKEY_CURRENT_USER\\SOFTWARE\\X"},
        {RegRoot::Users, u"\\a\\\\b\\", false, u"HKEY_USERS\\a\\b"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(STRING(c.subkey).toUtf8());
        EXPECT_EQ(RegistryStore::storedPath(c.root, c.subkey, c.view64), STRING(c.stored));
    }
}

TEST_F(RegistryStoreFile, MissingFileIsEmptyAndTheFirstWriteCreatesIt) {
    const STRING file = testing_support::useRegistryFile(dir_.file("etc/zelshield/registry.reg"));
    EXPECT_EQ(run([] { RegistryKey k(u"HKLM\\SYSTEM", false); }).code, 2);
    EXPECT_FALSE(std::filesystem::exists(dir_.path() / "etc"));  // reading creates nothing

    {
        RegistryKey key(u"HKEY_LOCAL_MACHINE\\SOFTWARE\\Zel\\agent", false, RegistryKey::ForWrite{});
        key.setRegData(u"InstallRoot", RegValueType::Sz, u"/opt/zel");
        RegistryKey system(u"HKLM\\SYSTEM\\CurrentControlSet\\Services\\ZELIPSDriver\\Parameters", false,
                           RegistryKey::ForWrite{});
        system.setRegData(u"RebootRequired", RegValueType::DWord, u"1");
        RegistryKey wide(u"64:HKLM\\SOFTWARE\\Zel\\agent", false, RegistryKey::ForWrite{});
        wide.setRegData(u"Bits", RegValueType::DWord, u"64");
    }
    EXPECT_EQ(testing_support::readBytes(file),
              "Windows Registry Editor Version 5.00\r\n\r\n"
              "[HKEY_LOCAL_MACHINE\\SOFTWARE\\WOW6432Node\\Zel\\agent]\r\n"
              "\"InstallRoot\"=\"/opt/zel\"\r\n\r\n"
              "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\ZELIPSDriver\\Parameters]\r\n"
              "\"RebootRequired\"=dword:00000001\r\n\r\n"
              "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Zel\\agent]\r\n"
              "\"Bits\"=dword:00000040\r\n\r\n");
    // Only the file and its lock file are left in the folder.
    std::set<std::string> left;
    for (const auto& e : std::filesystem::directory_iterator(dir_.path() / "etc/zelshield"))
        left.insert(e.path().filename().string());
    EXPECT_EQ(left, (std::set<std::string>{"registry.reg", "registry.reg.lock"}));
}

TEST_F(RegistryStoreFile, AWriteKeepsWhatOthersWroteAndReadsUtf16) {
    const std::u16string original =
        u"Windows Registry Editor Version 5.00\r\n\r\n"
        u"[HKEY_CURRENT_USER\\Other]\r\n\"Name\"=hex(2):25,00,41,00,25,00,00,00\r\n\r\n"
        u"[HKEY_LOCAL_MACHINE\\SOFTWARE\\WOW6432Node\\Zel]\r\n\"Keep\"=\"kept\"\r\n";
    testing_support::writeBytes(file_, testing_support::utf16le(original, true));

    RegistryKey key(u"HKLM\\SOFTWARE\\Zel\\Keep", true, RegistryKey::ForWrite{});
    EXPECT_EQ(key.getString(), STRING(u"kept"));
    key.setRegData(u"Added", RegValueType::Sz, u"new");

    const RegFile after = RegFile::parse(testing_support::readBytes(file_));
    EXPECT_EQ(after.header(), RegFile::Header::Version5);
    ASSERT_EQ(after.keys().size(), 2u);
    const RegFileValue* other = after.keys()[0].findValue(u"name");
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(other->data, (std::vector<uint8_t>{0x25, 0, 0x41, 0, 0x25, 0, 0, 0}));
    EXPECT_EQ(after.keys()[1].values.size(), 2u);
    EXPECT_EQ(RegistryKey(u"HKCU\\Other\\Name", true).getString(), STRING(u"%A%"));
}

TEST_F(RegistryStoreFile, AnOpenKeyKeepsTheStateItWasOpenedWith) {
    // A change made by another process after the open is not seen by the
    // open key (it read the file once), but by the next open.
    testing_support::writeBytes(file_, "REGEDIT4\r\n[HKEY_CURRENT_USER\\A]\r\n\"v\"=\"one\"\r\n");
    RegistryKey early(u"HKCU\\A\\v", true);
    testing_support::writeBytes(dir_.file("next.reg"), "REGEDIT4\r\n[HKEY_CURRENT_USER\\A]\r\n\"v\"=\"two\"\r\n");
    std::filesystem::rename(dir_.path() / "next.reg", dir_.path() / "registry.reg");
    EXPECT_EQ(early.getString(), STRING(u"one"));
    EXPECT_EQ(RegistryKey(u"HKCU\\A\\v", true).getString(), STRING(u"two"));
}

TEST_F(RegistryStoreFile, ConcurrentWritersFromSeveralProcessesLoseNoChange) {
    constexpr int kProcesses = 6;
    constexpr int kWrites = 12;
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        const pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            int failures = 0;
            for (int i = 0; i < kWrites; ++i) {
                try {
                    RegistryKey key(u"HKLM\\SYSTEM\\Zel\\p" + STRING::number(p), false, RegistryKey::ForWrite{});
                    key.setRegData(u"v" + STRING::number(i), RegValueType::DWord, STRING::number(p * 100 + i));
                    RegistryKey shared(u"HKLM\\SYSTEM\\Zel\\shared", false, RegistryKey::ForWrite{});
                    shared.setRegData(u"p" + STRING::number(p) + u"_" + STRING::number(i), RegValueType::Sz, u"x");
                } catch (const IDSException&) {
                    ++failures;
                }
            }
            ::_exit(failures == 0 ? 0 : 1);
        }
        children.push_back(pid);
    }
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(::waitpid(pid, &status, 0), pid);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    const RegFile result = RegFile::parse(testing_support::readBytes(file_));
    const RegFileKey* shared = result.findKey(u"HKEY_LOCAL_MACHINE\\SYSTEM\\Zel\\shared");
    ASSERT_NE(shared, nullptr);
    EXPECT_EQ(shared->values.size(), static_cast<size_t>(kProcesses * kWrites));
    for (int p = 0; p < kProcesses; ++p) {
        RegistryKey key(u"HKLM\\SYSTEM\\Zel\\p" + STRING::number(p) + u"\\v" + STRING::number(kWrites - 1), true);
        EXPECT_EQ(key.getDWord(), static_cast<uint32_t>(p * 100 + kWrites - 1));
    }
}

// Runs CHECK in a child process that is not root (root passes every
// permission check) and gives its exit status: 0 when every check held.
int exitStatusAsNobody(const std::function<int()>& check) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (::geteuid() == 0 && ::setuid(65534) != 0) ::_exit(10);
        ::_exit(check());
    }
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

TEST_F(RegistryStoreFile, UnreadableOrUnwritableFileIsAccessDenied) {
    testing_support::writeBytes(file_, "REGEDIT4\r\n[HKEY_LOCAL_MACHINE\\SYSTEM\\Zel]\r\n\"v\"=\"x\"\r\n");
    // Readable, not writable (by the owner either, for a test that does not
    // run as root).
    ::chmod(file_.toUtf8().c_str(), 0444);
    ::chmod(dir_.dir().toUtf8().c_str(), 0555);
    const STRING path = u"HKLM\\SYSTEM\\Zel\\v";
    EXPECT_EQ(exitStatusAsNobody([&] {
                  int bad = 0;
                  if (run([&] { RegistryKey(path, true).getString(); }).thrown) bad |= 1;
                  const Outcome w = run([&] { RegistryKey k(path, true, RegistryKey::ForWrite{}); });
                  if (w.code != 5 || w.message != u"read/write access denied on key: " + path) bad |= 2;
                  if (run([] { RegistryKey k(u"HKLM\\SYSTEM\\Zel\\new", false, RegistryKey::ForWrite{}); }).code != 5)
                      bad |= 4;
                  return bad;
              }),
              0);
    // Unreadable: the read itself is refused.
    ::chmod(file_.toUtf8().c_str(), 0000);
    EXPECT_EQ(exitStatusAsNobody([&] {
                  const Outcome r = run([&] { RegistryKey(path, true); });
                  return r.code == 5 && r.message == u"read/write access denied on key: " + path ? 0 : 1;
              }),
              0);
    ::chmod(dir_.dir().toUtf8().c_str(), 0755);
}
#endif

}  // namespace
