// RegistryKey's registry operations on Windows: the registry API.
//
// Every build behaves as a 32-bit process: the default view is the 32-bit
// one, so a 64-bit build passes KEY_WOW64_32KEY where a 32-bit build would
// pass nothing (the flag is harmless there).
#include <windows.h>

#include "foundation/reg_file.h"
#include "foundation/registry.h"

namespace registry_detail {

namespace {

HKEY rootHandle(RegRoot root) {
    switch (root) {
    case RegRoot::ClassesRoot: return HKEY_CLASSES_ROOT;
    case RegRoot::CurrentConfig: return HKEY_CURRENT_CONFIG;
    case RegRoot::CurrentUser: return HKEY_CURRENT_USER;
    case RegRoot::LocalMachine: return HKEY_LOCAL_MACHINE;
    case RegRoot::PerformanceData: return HKEY_PERFORMANCE_DATA;
    case RegRoot::Users: return HKEY_USERS;
    }
    return nullptr;
}

REGSAM viewFlag(bool view64) { return view64 ? KEY_WOW64_64KEY : KEY_WOW64_32KEY; }

HKEY hkey(void* handle) { return static_cast<HKEY>(handle); }

// Attempts for a query that grows its buffer when the value grows meanwhile.
constexpr int kAttempts = 8;

}  // namespace

long openKey(RegRoot root, const STRING& subkey, bool view64, bool writable, void** handle) {
    HKEY h = nullptr;
    LONG rc;
    if (writable) {
        rc = RegCreateKeyExW(rootHandle(root), subkey.wc_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                             KEY_READ | KEY_WRITE | viewFlag(view64), nullptr, &h, nullptr);
    } else {
        rc = RegOpenKeyExW(rootHandle(root), subkey.wc_str(), 0,
                           KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS | viewFlag(view64), &h);
    }
    if (rc == ERROR_SUCCESS) *handle = h;
    return rc;
}

void closeKey(void* handle) { RegCloseKey(hkey(handle)); }

long queryValue(void* handle, const STRING& name, uint32_t* type, uint32_t* size) {
    DWORD t = 0;
    DWORD n = 0;
    const LONG rc = RegQueryValueExW(hkey(handle), name.wc_str(), nullptr, &t, nullptr, &n);
    if (rc != ERROR_SUCCESS) return rc;
    if (type != nullptr) *type = t;
    if (size != nullptr) *size = n;
    return 0;
}

long readValue(void* handle, const STRING& name, uint32_t* type, std::vector<uint8_t>& data) {
    DWORD t = 0;
    DWORD n = 0;
    LONG rc = RegQueryValueExW(hkey(handle), name.wc_str(), nullptr, &t, nullptr, &n);
    if (rc != ERROR_SUCCESS) return rc;
    for (int i = 0; i < kAttempts; ++i) {
        data.assign(n, 0);
        DWORD got = n;
        rc = RegQueryValueExW(hkey(handle), name.wc_str(), nullptr, &t, n != 0 ? data.data() : nullptr, &got);
        if (rc == ERROR_MORE_DATA) {
            n = got > n ? got : n + 256;
            continue;
        }
        if (rc != ERROR_SUCCESS) return rc;
        data.resize(got);
        if (type != nullptr) *type = t;
        return 0;
    }
    return rc;
}

long setValue(void* handle, const STRING& name, uint32_t type, const std::vector<uint8_t>& data) {
    return RegSetValueExW(hkey(handle), name.wc_str(), 0, type, data.empty() ? nullptr : data.data(),
                          static_cast<DWORD>(data.size()));
}

long queryInfo(void* handle, KeyInfo& info) {
    DWORD subkeys = 0, maxSubkey = 0, values = 0, maxName = 0, maxData = 0;
    const LONG rc = RegQueryInfoKeyW(hkey(handle), nullptr, nullptr, nullptr, &subkeys, &maxSubkey, nullptr, &values,
                                     &maxName, &maxData, nullptr, nullptr);
    if (rc != ERROR_SUCCESS) return rc;
    info.subkeys = subkeys;
    info.maxSubkeyLength = maxSubkey;
    info.values = values;
    info.maxValueNameLength = maxName;
    info.maxValueLength = maxData;
    return 0;
}

long enumSubkeys(void* handle, const KeyInfo& info, std::vector<STRING>& names) {
    names.clear();
    std::vector<wchar_t> buf(info.maxSubkeyLength + 1 > 256 ? info.maxSubkeyLength + 1 : 256);
    for (DWORD i = 0; i < info.subkeys; ++i) {
        LONG rc = ERROR_MORE_DATA;
        DWORD len = 0;
        for (int a = 0; a < kAttempts && rc == ERROR_MORE_DATA; ++a) {
            len = static_cast<DWORD>(buf.size());
            rc = RegEnumKeyExW(hkey(handle), i, buf.data(), &len, nullptr, nullptr, nullptr, nullptr);
            if (rc == ERROR_MORE_DATA) buf.resize(buf.size() * 2);
        }
        if (rc == ERROR_NO_MORE_ITEMS) break;
        if (rc != ERROR_SUCCESS) return rc;
        names.emplace_back(buf.data(), static_cast<size_t>(len));
    }
    return 0;
}

long enumValues(void* handle, const KeyInfo& info, std::vector<RegFileValue>& values) {
    values.clear();
    std::vector<wchar_t> name(info.maxValueNameLength + 1 > 256 ? info.maxValueNameLength + 1 : 256);
    std::vector<uint8_t> data(info.maxValueLength > 16 ? info.maxValueLength : 16);
    for (DWORD i = 0; i < info.values; ++i) {
        LONG rc = ERROR_MORE_DATA;
        DWORD nameLen = 0, dataLen = 0, type = 0;
        for (int a = 0; a < kAttempts && rc == ERROR_MORE_DATA; ++a) {
            nameLen = static_cast<DWORD>(name.size());
            dataLen = static_cast<DWORD>(data.size());
            rc = RegEnumValueW(hkey(handle), i, name.data(), &nameLen, nullptr, &type, data.data(), &dataLen);
            if (rc == ERROR_MORE_DATA) {
                name.resize(name.size() * 2);
                data.resize(dataLen > data.size() ? dataLen : data.size() * 2);
            }
        }
        if (rc == ERROR_NO_MORE_ITEMS) break;
        if (rc != ERROR_SUCCESS) return rc;
        RegFileValue v;
        v.name = STRING(name.data(), static_cast<size_t>(nameLen));
        v.type = type;
        v.data.assign(data.begin(), data.begin() + dataLen);
        values.push_back(std::move(v));
    }
    return 0;
}

long deleteKey(RegRoot root, const STRING& subkey, bool view64) {
    return RegDeleteKeyExW(rootHandle(root), subkey.wc_str(), viewFlag(view64), 0);
}

long deleteSubkey(void* handle, const STRING& name) { return RegDeleteKeyW(hkey(handle), name.wc_str()); }

}  // namespace registry_detail
