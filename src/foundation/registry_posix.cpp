// RegistryKey's registry operations on Linux: the file store of registry_store.h.
#include "foundation/registry.h"
#include "foundation/registry_store.h"

namespace registry_detail {

namespace {

RegistryStore::Key* keyOf(void* handle) { return static_cast<RegistryStore::Key*>(handle); }

}  // namespace

long openKey(RegRoot root, const STRING& subkey, bool view64, bool writable, void** handle) {
    auto key = std::make_unique<RegistryStore::Key>();
    const long rc = writable ? RegistryStore::createKey(root, subkey, view64, *key)
                             : RegistryStore::openKey(root, subkey, view64, *key);
    if (rc != 0) return rc;
    *handle = key.release();
    return 0;
}

void closeKey(void* handle) { delete keyOf(handle); }

long queryValue(void* handle, const STRING& name, uint32_t* type, uint32_t* size) {
    if (handle == nullptr) return regcode::InvalidHandle;
    if (size == nullptr) return RegistryStore::queryValue(*keyOf(handle), name, type, nullptr);
    std::vector<uint8_t> data;
    const long rc = RegistryStore::queryValue(*keyOf(handle), name, type, &data);
    if (rc == 0) *size = static_cast<uint32_t>(data.size());
    return rc;
}

long readValue(void* handle, const STRING& name, uint32_t* type, std::vector<uint8_t>& data) {
    if (handle == nullptr) return regcode::InvalidHandle;
    return RegistryStore::queryValue(*keyOf(handle), name, type, &data);
}

long setValue(void* handle, const STRING& name, uint32_t type, const std::vector<uint8_t>& data) {
    if (handle == nullptr) return regcode::InvalidHandle;
    return RegistryStore::setValue(*keyOf(handle), name, type, data);
}

long queryInfo(void* handle, KeyInfo& info) {
    if (handle == nullptr) return regcode::InvalidHandle;
    std::vector<STRING> names;
    long rc = RegistryStore::enumSubkeys(*keyOf(handle), names);
    if (rc != 0) return rc;
    std::vector<RegFileValue> values;
    rc = RegistryStore::enumValues(*keyOf(handle), values);
    if (rc != 0) return rc;
    info = KeyInfo();
    info.subkeys = static_cast<uint32_t>(names.size());
    for (const auto& n : names)
        if (n.length() > info.maxSubkeyLength) info.maxSubkeyLength = static_cast<uint32_t>(n.length());
    info.values = static_cast<uint32_t>(values.size());
    for (const auto& v : values) {
        if (v.name.length() > info.maxValueNameLength) info.maxValueNameLength = static_cast<uint32_t>(v.name.length());
        if (v.data.size() > info.maxValueLength) info.maxValueLength = static_cast<uint32_t>(v.data.size());
    }
    return 0;
}

long enumSubkeys(void* handle, const KeyInfo&, std::vector<STRING>& names) {
    if (handle == nullptr) return regcode::InvalidHandle;
    return RegistryStore::enumSubkeys(*keyOf(handle), names);
}

long enumValues(void* handle, const KeyInfo&, std::vector<RegFileValue>& values) {
    if (handle == nullptr) return regcode::InvalidHandle;
    return RegistryStore::enumValues(*keyOf(handle), values);
}

long deleteKey(RegRoot root, const STRING& subkey, bool view64) { return RegistryStore::deleteKey(root, subkey, view64); }

long deleteSubkey(void* handle, const STRING& name) {
    if (handle == nullptr) return regcode::InvalidHandle;
    return RegistryStore::deleteSubkey(*keyOf(handle), name);
}

}  // namespace registry_detail
