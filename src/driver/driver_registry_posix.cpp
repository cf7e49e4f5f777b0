#include "driver/driver_registry.h"

#include <vector>

#include "foundation/registry_store.h"

namespace driver_registry {

namespace {
// Opens an existing key for writing: never creates it.
long openForWrite(const STRING& subkey, RegistryStore::Key& key) {
    RegistryStore::Key probe;
    const long rc = RegistryStore::openKey(RegRoot::LocalMachine, subkey, false, probe);
    if (rc != 0) return rc;
    return RegistryStore::createKey(RegRoot::LocalMachine, subkey, false, key);
}
}  // namespace

long setString(const STRING& subkey, const STRING& name, const STRING& value) {
    RegistryStore::Key key;
    const long rc = openForWrite(subkey, key);
    if (rc != 0) return rc;
    std::vector<uint8_t> data;
    for (char16_t c : value.str()) {
        data.push_back(static_cast<uint8_t>(c & 0xFF));
        data.push_back(static_cast<uint8_t>(c >> 8));
    }
    data.push_back(0);
    data.push_back(0);
    return RegistryStore::setValue(key, name, static_cast<uint32_t>(RegValueType::Sz), data);
}

long getString(const STRING& subkey, const STRING& name, STRING& value) {
    RegistryStore::Key key;
    long rc = RegistryStore::openKey(RegRoot::LocalMachine, subkey, false, key);
    if (rc != 0) return rc;
    uint32_t type = 0;
    std::vector<uint8_t> data;
    rc = RegistryStore::queryValue(key, name, &type, &data);
    if (rc != 0) return rc;
    std::u16string text;
    for (size_t i = 0; i + 1 < data.size(); i += 2) {
        const auto c = static_cast<char16_t>(data[i] | (data[i + 1] << 8));
        if (c == 0) break;
        text += c;
    }
    value = STRING(text);
    return 0;
}

long setDword(const STRING& subkey, const STRING& name, uint32_t value) {
    RegistryStore::Key key;
    const long rc = openForWrite(subkey, key);
    if (rc != 0) return rc;
    const std::vector<uint8_t> data = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                                       static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
    return RegistryStore::setValue(key, name, static_cast<uint32_t>(RegValueType::DWord), data);
}

}  // namespace driver_registry
