#include <windows.h>

#include <vector>

#include "driver/driver_registry.h"

namespace driver_registry {

long setString(const STRING& subkey, const STRING& name, const STRING& value) {
    HKEY key = nullptr;
    LONG rc = RegOpenKeyExW(HKEY_LOCAL_MACHINE, subkey.wc_str(), 0, KEY_WRITE, &key);
    if (rc != ERROR_SUCCESS) return rc;
    const DWORD bytes = static_cast<DWORD>((value.length() + 1) * sizeof(wchar_t));
    rc = RegSetValueExW(key, name.wc_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(value.wc_str()), bytes);
    RegCloseKey(key);
    return rc;
}

long getString(const STRING& subkey, const STRING& name, STRING& value) {
    HKEY key = nullptr;
    LONG rc = RegOpenKeyExW(HKEY_LOCAL_MACHINE, subkey.wc_str(), 0, KEY_READ, &key);
    if (rc != ERROR_SUCCESS) return rc;
    DWORD type = 0;
    DWORD size = 0;
    rc = RegQueryValueExW(key, name.wc_str(), nullptr, &type, nullptr, &size);
    if (rc == ERROR_SUCCESS) {
        std::vector<wchar_t> data((size + 1) * 2 / sizeof(wchar_t) + 1, L'\0');
        DWORD got = static_cast<DWORD>(data.size() * sizeof(wchar_t));
        rc = RegQueryValueExW(key, name.wc_str(), nullptr, &type, reinterpret_cast<BYTE*>(data.data()), &got);
        if (rc == ERROR_SUCCESS) value = STRING(data.data());
    }
    RegCloseKey(key);
    return rc;
}

long setDword(const STRING& subkey, const STRING& name, uint32_t value) {
    HKEY key = nullptr;
    LONG rc = RegOpenKeyExW(HKEY_LOCAL_MACHINE, subkey.wc_str(), 0, KEY_WRITE, &key);
    if (rc != ERROR_SUCCESS) return rc;
    const DWORD v = value;
    rc = RegSetValueExW(key, name.wc_str(), 0, REG_DWORD, reinterpret_cast<const BYTE*>(&v), sizeof v);
    RegCloseKey(key);
    return rc;
}

}  // namespace driver_registry
