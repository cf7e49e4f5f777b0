// RegistryKey: one open registry key addressed by a single path text such as
// "HKEY_LOCAL_MACHINE\SOFTWARE\Tessaly\Zelshield\agent\InstallRoot".
//
// The path may start with a view prefix: "64:" (64-bit view only), "6432:"
// (64-bit view, then the 32-bit view), "3264:" (32-bit view, then the 64-bit
// view); without a prefix the 32-bit view is used, on every build.
//
// On Windows this is the registry API. On Linux the registry is a file in the
// format of a .reg export (see registry_store.h).
#pragma once

#include <cstdint>
#include <vector>

#include "foundation/string.h"

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

class RegistryKey {
public:
    // Kinds reported by getType().
    enum Kind { KindString = 0, KindMultiString = 1, KindNumber = 2, KindBinary = 4 };

    // View codes derived from the path prefix.
    enum View : uint32_t { ViewDefault = 0, View64Only = 1, View64Then32 = 2, View32Then64 = 3 };

    struct ForWrite {};

    // Opens an existing key for reading. With valueMode the last path
    // component is a value name and the value must exist.
    RegistryKey(const STRING& path, bool valueMode);
    // Opens or creates the key for reading and writing.
    RegistryKey(const STRING& path, bool valueMode, ForWrite);
    ~RegistryKey();
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;

    int getType();
    uint32_t getDWord();
    STRING getString();
    // REG_BINARY data as "0x" and two lower-case hex digits per byte; any
    // other type as "0x0".
    STRING getBinaryString();
    std::vector<STRING>& getSubkeys();
    // Prints every value of the key to the console.
    void getRegData();
    // REG_SZ: the text; REG_DWORD: the text parsed as an unsigned number.
    void setRegData(RegValueType type, const STRING& text);
    void deleteKey();
    void deleteSubKey(const STRING& name);

    const STRING& rootName() const { return root_; }
    const STRING& subkeyPath() const { return subkey_; }
    const STRING& valueName() const { return value_; }
    uint32_t view() const { return view_; }
    const STRING& path() const { return path_; }

    // Path splitting, shared by both constructors and exposed for tests:
    // fills view, root, subkey and value name.
    static void splitPath(const STRING& path, bool valueMode, uint32_t& view, STRING& root, STRING& subkey,
                          STRING& value);

private:
    void open(bool writable);

    void* handle_ = nullptr;  // HKEY on Windows; store key on Linux
    uint32_t rootFlag_ = 0;
    uint32_t view_ = ViewDefault;
    STRING root_;
    STRING subkey_;
    STRING value_;
    std::vector<STRING> subkeys_;
    STRING path_;
    bool valueMode_ = false;
    bool opened64_ = false;  // which view the successful attempt used
};
