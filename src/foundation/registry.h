// RegistryKey: one open registry key addressed by a single path text such as
// "HKEY_LOCAL_MACHINE\SOFTWARE\Tessaly\Zelshield\agent\InstallRoot".
//
// The path may start with a view prefix: "64:" (64-bit view only), "6432:"
// (64-bit view, then the 32-bit view), "3264:" (32-bit view, then the 64-bit
// view); without a prefix the 32-bit view is used, on every build.
//
// Every failure throws IDSException with the Win32 error (6 for an unknown
// root), the operation ("RegistryKey::getString", ...) and a message that
// ends with the path as it was given.
//
// On Windows this is the registry API. On Linux the registry is a file in the
// format of a .reg export (see registry_store.h).
#pragma once

#include <cstdint>
#include <vector>

#include "foundation/string.h"

struct RegFileValue;

// Registry value types, numbered as the registry numbers them.
enum class RegValueType : uint32_t {
    None = 0,
    Sz = 1,
    ExpandSz = 2,
    Binary = 3,
    DWord = 4,
    DWordBigEndian = 5,
    MultiSz = 7,
    QWord = 11,
};

// The predefined roots.
enum class RegRoot { ClassesRoot, CurrentConfig, CurrentUser, LocalMachine, PerformanceData, Users };

// Looks a root name up ("HKLM", "HKEY_LOCAL_MACHINE", ...; any case).
bool regRootFromName(const STRING& name, RegRoot& root);
// The full name of a root: "HKEY_LOCAL_MACHINE", ...
const char16_t* regRootName(RegRoot root);

// Win32 error numbers that the registry code produces or tests for.
namespace regcode {
constexpr long Success = 0;
constexpr long FileNotFound = 2;
constexpr long PathNotFound = 3;
constexpr long AccessDenied = 5;
constexpr long InvalidHandle = 6;
constexpr long InvalidData = 13;
constexpr long DiskFull = 112;
constexpr long InvalidParameter = 87;
constexpr long MoreData = 234;
constexpr long NoMoreItems = 259;
constexpr long ArithmeticOverflow = 534;
constexpr long RegistryIoFailed = 1016;
constexpr long KeyDeleted = 1018;
}  // namespace regcode

class RegistryKey {
public:
    // Kinds reported by getType(); KindOther for types without a kind
    // (REG_QWORD, REG_NONE, ...).
    enum Kind { KindOther = -1, KindString = 0, KindMultiString = 1, KindNumber = 2, KindBinary = 4 };

    // View codes derived from the path prefix.
    enum View : uint32_t { ViewDefault = 0, View64Only = 1, View64Then32 = 2, View32Then64 = 3 };

    struct ForWrite {};

    // Opens an existing key for reading. With valueMode the last path
    // component is a value name and the value must exist.
    RegistryKey(const STRING& path, bool valueMode);
    // Opens or creates the key for reading and writing. The root is chosen
    // by name: one beginning with "MACHINE" is HKEY_CURRENT_USER, any other
    // HKEY_LOCAL_MACHINE. With valueMode the value must exist, as above.
    RegistryKey(const STRING& path, bool valueMode, ForWrite);
    ~RegistryKey();
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;

    // The kind of the value (see Kind).
    int getType();
    // REG_DWORD as it stands, REG_DWORD_BIG_ENDIAN byte-swapped; data of up to
    // four bytes of another type is read as little-endian; longer data fails
    // with 234.
    uint32_t getDWord();
    // REG_SZ / REG_EXPAND_SZ: the text (unexpanded). REG_MULTI_SZ: the
    // strings joined with ",". Numbers: decimal. Anything else: the binary
    // rendering of getBinaryString.
    STRING getString();
    // REG_BINARY data as "0x" and two lower-case hex digits per byte; any
    // other type as "0x0".
    STRING getBinaryString();
    std::vector<STRING>& getSubkeys();
    // Prints every value of the key to the console, numbered from 1; the data
    // is shown as getString shows it, and other types as "0x" and their bytes
    // in hex.
    void getRegData();
    // Writes the value named by the path (the default value when the path
    // names a key). REG_SZ / REG_EXPAND_SZ: the text with its NUL; REG_DWORD /
    // REG_DWORD_BIG_ENDIAN: the text as a decimal unsigned 32-bit number
    // (13 when it is not one, 534 when out of range). Other types fail with 87.
    void setRegData(RegValueType type, const STRING& text);
    // The same for a named value of this key, which need not exist yet.
    void setRegData(const STRING& valueName, RegValueType type, const STRING& text);
    // Deletes the key named by the path, in the view it was opened in. The
    // key must have no subkeys.
    void deleteKey();
    void deleteSubKey(const STRING& name);

    const STRING& rootName() const { return root_; }
    const STRING& subkeyPath() const { return subkey_; }
    const STRING& valueName() const { return value_; }
    uint32_t view() const { return view_; }
    const STRING& path() const { return path_; }
    // True when the key was found in (or created in) the 64-bit view.
    bool opened64() const { return opened64_; }

    // Path splitting, shared by both constructors and exposed for tests:
    // fills view, root, subkey and value name.
    static void splitPath(const STRING& path, bool valueMode, uint32_t& view, STRING& root, STRING& subkey,
                          STRING& value);

private:
    void open(RegRoot root, bool writable);
    long attempt(RegRoot root, bool view64, bool writable);
    void readValue(const char16_t* op, const char16_t* sizeMessage, uint32_t& type, std::vector<uint8_t>& data);

    void* handle_ = nullptr;  // HKEY on Windows; RegistryStore::Key on Linux
    uint32_t rootFlag_ = 0;   // writable form: 1 when HKEY_CURRENT_USER was chosen
    uint32_t view_ = ViewDefault;
    STRING root_;
    STRING subkey_;
    STRING value_;
    std::vector<STRING> subkeys_;
    STRING path_;
    bool valueMode_ = false;
    bool opened64_ = false;  // which view the successful attempt used
};

// The few registry operations that RegistryKey needs, implemented once per
// platform (registry_win32.cpp, registry_posix.cpp). Each returns 0 or a
// Win32 error number.
namespace registry_detail {

struct KeyInfo {
    uint32_t subkeys = 0;
    uint32_t maxSubkeyLength = 0;
    uint32_t values = 0;
    uint32_t maxValueNameLength = 0;
    uint32_t maxValueLength = 0;
};

long openKey(RegRoot root, const STRING& subkey, bool view64, bool writable, void** handle);
void closeKey(void* handle);
// Type and size of a value, without its data.
long queryValue(void* handle, const STRING& name, uint32_t* type, uint32_t* size);
long readValue(void* handle, const STRING& name, uint32_t* type, std::vector<uint8_t>& data);
long setValue(void* handle, const STRING& name, uint32_t type, const std::vector<uint8_t>& data);
long queryInfo(void* handle, KeyInfo& info);
long enumSubkeys(void* handle, const KeyInfo& info, std::vector<STRING>& names);
long enumValues(void* handle, const KeyInfo& info, std::vector<RegFileValue>& values);
long deleteKey(RegRoot root, const STRING& subkey, bool view64);
long deleteSubkey(void* handle, const STRING& name);

}  // namespace registry_detail
