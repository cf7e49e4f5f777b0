// The platform-independent half of RegistryKey: path splitting, root names,
// the open-with-fallback rule, value decoding and every exception text. The
// registry itself is reached through registry_detail (one file per platform).
#include "foundation/console.h"
#include "foundation/ids_exception.h"
#include "foundation/reg_file.h"
#include "foundation/registry.h"

namespace {

struct RootEntry {
    const char16_t* name;
    RegRoot root;
};

// Looked up in this order, without regard to case.
const RootEntry kRoots[] = {
    {u"HKCR", RegRoot::ClassesRoot},
    {u"HKCC", RegRoot::CurrentConfig},
    {u"HKCU", RegRoot::CurrentUser},
    {u"HKLM", RegRoot::LocalMachine},
    {u"HKPD", RegRoot::PerformanceData},
    {u"HKU", RegRoot::Users},
    {u"HKEY_CLASSES_ROOT", RegRoot::ClassesRoot},
    {u"HKEY_CURRENT_CONFIG", RegRoot::CurrentConfig},
    {u"HKEY_CURRENT_USER", RegRoot::CurrentUser},
    {u"HKEY_LOCAL_MACHINE", RegRoot::LocalMachine},
    {u"HKEY_PERFORMANCE_DATA", RegRoot::PerformanceData},
    {u"HKEY_USERS", RegRoot::Users},
};

const char16_t kOpConstructor[] = u"RegistryKey::RegistryKey";
const char16_t kOpGetType[] = u"RegistryKey::getType";
const char16_t kOpGetDWord[] = u"RegistryKey::getDWord";
const char16_t kOpGetString[] = u"RegistryKey::getString";
const char16_t kOpGetRegData[] = u"RegistryKey::getRegData";
const char16_t kOpGetSubkeys[] = u"RegistryKey::getSubkeys";
const char16_t kOpSetRegData[] = u"RegistryKey::setRegData";
const char16_t kOpDeleteKey[] = u"RegistryKey::deleteKey";
const char16_t kOpDeleteSubKey[] = u"RegistryKey::deleteSubKey";

const char16_t kInvalidRoot[] = u"Invalid Root Key: ";
const char16_t kAccessDenied[] = u"read/write access denied on key: ";
const char16_t kErrorOpening[] = u"error opening key: ";
const char16_t kErrorQueryingKey[] = u"error querying key: ";
const char16_t kErrorQueryingValue[] = u"error querying key value: ";
const char16_t kErrorQueryingSize[] = u"error querying key value size: ";
const char16_t kErrorKeyInfo[] = u"Error querying key info: ";
const char16_t kErrorEnumSubkeys[] = u"Error enumerating subkeys for: ";
const char16_t kErrorEnumValues[] = u"Error enumerating values and data for: ";
const char16_t kErrorSetting[] = u"Error setting value for the registry key: ";
const char16_t kErrorDeletingKey[] = u"Error deleting registry key: ";
const char16_t kErrorDeletingSubkey[] = u"Error deleting subkey for the registry key: ";

[[noreturn]] void fail(long code, const char16_t* op, const char16_t* message, const STRING& path) {
    throw IDSException(static_cast<int>(code), op, message + path);
}

bool isPrefixChar(char16_t c) { return c == u'6' || c == u'4' || c == u'3' || c == u'2' || c == u':'; }

uint32_t le32(const std::vector<uint8_t>& d) {
    uint32_t v = 0;
    for (size_t i = 0; i < d.size() && i < 4; ++i) v |= static_cast<uint32_t>(d[i]) << (8 * i);
    return v;
}

uint32_t swap32(uint32_t v) { return (v >> 24) | ((v >> 8) & 0xFF00) | ((v << 8) & 0xFF0000) | (v << 24); }

// UTF-16LE text up to the first NUL; an odd last byte is ignored.
std::u16string utf16Text(const std::vector<uint8_t>& d, size_t& pos) {
    std::u16string out;
    while (pos + 1 < d.size()) {
        const auto c = static_cast<char16_t>(d[pos] | d[pos + 1] << 8);
        pos += 2;
        if (c == 0) break;
        out += c;
    }
    return out;
}

STRING hexRendering(const std::vector<uint8_t>& d) {
    static const char16_t digits[] = u"0123456789abcdef";
    std::u16string out = u"0x";
    for (uint8_t b : d) {
        out += digits[b >> 4];
        out += digits[b & 0xF];
    }
    return STRING(std::move(out));
}

// The text form shared by getString and the Data column of getRegData.
STRING renderValue(uint32_t type, const std::vector<uint8_t>& d) {
    switch (type) {
    case regtype::Sz:
    case regtype::ExpandSz: {
        size_t pos = 0;
        return STRING(utf16Text(d, pos));
    }
    case regtype::MultiSz: {
        // The components, up to the empty one that ends the list, joined with ",".
        STRING joined;
        size_t pos = 0;
        bool first = true;
        while (pos + 1 < d.size()) {
            std::u16string part = utf16Text(d, pos);
            if (part.empty()) break;
            if (!first) joined += u',';
            joined += STRING(std::move(part));
            first = false;
        }
        return joined;
    }
    case regtype::DWord:
        if (d.size() == 4) return STRING::unsignedNumber(le32(d));
        break;
    case regtype::DWordBigEndian:
        if (d.size() == 4) return STRING::unsignedNumber(swap32(le32(d)));
        break;
    case regtype::QWord:
        if (d.size() == 8) {
            unsigned long long v = 0;
            for (size_t i = 0; i < 8; ++i) v |= static_cast<unsigned long long>(d[i]) << (8 * i);
            return STRING::unsignedNumber(v);
        }
        break;
    default:
        break;
    }
    return hexRendering(d);
}

// A decimal unsigned 32-bit number; leading blanks and a '+' are allowed.
long parseUnsigned(const STRING& text, uint32_t& value) {
    size_t i = 0;
    while (i < text.length() && (text[i] == u' ' || text[i] == u'\t')) ++i;
    if (i < text.length() && text[i] == u'+') ++i;
    if (i < text.length() && text[i] == u'-') {
        // A sign that makes any non-zero number negative is out of range.
        size_t j = i + 1;
        bool digits = j < text.length();
        bool zero = true;
        for (; j < text.length(); ++j) {
            if (text[j] < u'0' || text[j] > u'9') return regcode::InvalidData;
            if (text[j] != u'0') zero = false;
        }
        if (!digits) return regcode::InvalidData;
        if (!zero) return regcode::ArithmeticOverflow;
        value = 0;
        return 0;
    }
    if (i == text.length()) return regcode::InvalidData;
    unsigned long long v = 0;
    bool overflow = false;
    for (; i < text.length(); ++i) {
        const char16_t c = text[i];
        if (c < u'0' || c > u'9') return regcode::InvalidData;
        if (overflow) continue;
        v = v * 10 + static_cast<unsigned>(c - u'0');
        if (v > 0xFFFFFFFFull) overflow = true;
    }
    if (overflow) return regcode::ArithmeticOverflow;
    value = static_cast<uint32_t>(v);
    return 0;
}

}  // namespace

bool regRootFromName(const STRING& name, RegRoot& root) {
    if (name.empty()) return false;
    for (const auto& e : kRoots) {
        if (name.equalsIgnoreCase(e.name)) {
            root = e.root;
            return true;
        }
    }
    return false;
}

const char16_t* regRootName(RegRoot root) {
    switch (root) {
    case RegRoot::ClassesRoot: return u"HKEY_CLASSES_ROOT";
    case RegRoot::CurrentConfig: return u"HKEY_CURRENT_CONFIG";
    case RegRoot::CurrentUser: return u"HKEY_CURRENT_USER";
    case RegRoot::LocalMachine: return u"HKEY_LOCAL_MACHINE";
    case RegRoot::PerformanceData: return u"HKEY_PERFORMANCE_DATA";
    case RegRoot::Users: return u"HKEY_USERS";
    }
    return u"";
}

void RegistryKey::splitPath(const STRING& path, bool valueMode, uint32_t& view, STRING& root, STRING& subkey,
                            STRING& value) {
    if (path.startsWith(u"64:")) view = View64Only;
    else if (path.startsWith(u"6432:")) view = View64Then32;
    else if (path.startsWith(u"3264:")) view = View32Then64;
    else view = ViewDefault;

    // Whatever prefix was found, the whole leading run of prefix characters goes.
    size_t start = 0;
    while (start < path.length() && isPrefixChar(path[start])) ++start;
    const std::vector<STRING> parts = path.substr(start).split(u'\\', true);

    root.clear();
    subkey.clear();
    value.clear();
    if (parts.empty()) return;
    root = parts[0];
    size_t end = parts.size();
    if (valueMode && parts.size() > 1) {
        value = parts.back();
        --end;
    }
    for (size_t i = 1; i < end; ++i) {
        if (i > 1) subkey += u'\\';
        subkey += parts[i];
    }
}

RegistryKey::RegistryKey(const STRING& path, bool valueMode) : path_(path), valueMode_(valueMode) {
    splitPath(path, valueMode, view_, root_, subkey_, value_);
    RegRoot root;
    if (!regRootFromName(root_, root)) fail(regcode::InvalidHandle, kOpConstructor, kInvalidRoot, root_);
    open(root, false);
}

RegistryKey::RegistryKey(const STRING& path, bool valueMode, ForWrite) : path_(path), valueMode_(valueMode) {
    splitPath(path, valueMode, view_, root_, subkey_, value_);
    // Only HKEY_LOCAL_MACHINE paths are written through this form; the root
    // table is not consulted.
    rootFlag_ = root_.startsWith(u"MACHINE") ? 1 : 0;
    open(rootFlag_ ? RegRoot::CurrentUser : RegRoot::LocalMachine, true);
}

RegistryKey::~RegistryKey() {
    if (handle_ != nullptr) registry_detail::closeKey(handle_);
}

long RegistryKey::attempt(RegRoot root, bool view64, bool writable) {
    void* h = nullptr;
    long rc = registry_detail::openKey(root, subkey_, view64, writable, &h);
    if (rc != 0) return rc;
    if (valueMode_) {
        rc = registry_detail::queryValue(h, value_, nullptr, nullptr);
        if (rc != 0) {
            registry_detail::closeKey(h);
            return rc;
        }
    }
    handle_ = h;
    opened64_ = view64;
    return 0;
}

void RegistryKey::open(RegRoot root, bool writable) {
    const bool first64 = view_ == View64Only || view_ == View64Then32;
    long rc = attempt(root, first64, writable);
    if (rc != 0 && (view_ == View64Then32 || view_ == View32Then64)) rc = attempt(root, !first64, writable);
    if (rc == regcode::AccessDenied) fail(rc, kOpConstructor, kAccessDenied, path_);
    if (rc != 0) fail(rc, kOpConstructor, kErrorOpening, path_);
}

void RegistryKey::readValue(const char16_t* op, const char16_t* sizeMessage, uint32_t& type,
                            std::vector<uint8_t>& data) {
    uint32_t size = 0;
    long rc = registry_detail::queryValue(handle_, value_, &type, &size);
    if (rc != 0) fail(rc, op, sizeMessage, path_);
    rc = registry_detail::readValue(handle_, value_, &type, data);
    if (rc != 0) fail(rc, op, kErrorQueryingValue, path_);
}

int RegistryKey::getType() {
    uint32_t type = 0;
    const long rc = registry_detail::queryValue(handle_, value_, &type, nullptr);
    if (rc != 0) fail(rc, kOpGetType, kErrorQueryingKey, path_);
    switch (type) {
    case regtype::Sz:
    case regtype::ExpandSz: return KindString;
    case regtype::MultiSz: return KindMultiString;
    case regtype::DWord:
    case regtype::DWordBigEndian: return KindNumber;
    case regtype::Binary: return KindBinary;
    default: return KindOther;
    }
}

uint32_t RegistryKey::getDWord() {
    uint32_t type = 0;
    std::vector<uint8_t> data;
    readValue(kOpGetDWord, kErrorQueryingValue, type, data);
    // The value is read into a four-byte buffer: longer data does not fit.
    if (data.size() > 4) fail(regcode::MoreData, kOpGetDWord, kErrorQueryingValue, path_);
    const uint32_t v = le32(data);
    return type == regtype::DWordBigEndian && data.size() == 4 ? swap32(v) : v;
}

STRING RegistryKey::getString() {
    uint32_t type = 0;
    std::vector<uint8_t> data;
    readValue(kOpGetString, kErrorQueryingSize, type, data);
    return renderValue(type, data);
}

STRING RegistryKey::getBinaryString() {
    uint32_t type = 0;
    std::vector<uint8_t> data;
    readValue(kOpGetString, kErrorQueryingSize, type, data);
    if (type != regtype::Binary) return STRING(u"0x0");
    return hexRendering(data);
}

std::vector<STRING>& RegistryKey::getSubkeys() {
    registry_detail::KeyInfo info;
    long rc = registry_detail::queryInfo(handle_, info);
    if (rc != 0) fail(rc, kOpGetSubkeys, kErrorKeyInfo, path_);
    std::vector<STRING> names;
    rc = registry_detail::enumSubkeys(handle_, info, names);
    if (rc != 0) fail(rc, kOpGetSubkeys, kErrorEnumSubkeys, path_);
    subkeys_ = std::move(names);
    return subkeys_;
}

void RegistryKey::getRegData() {
    registry_detail::KeyInfo info;
    long rc = registry_detail::queryInfo(handle_, info);
    if (rc != 0) fail(rc, kOpGetRegData, kErrorKeyInfo, path_);
    std::vector<RegFileValue> values;
    rc = registry_detail::enumValues(handle_, info, values);
    if (rc != 0) fail(rc, kOpGetRegData, kErrorEnumValues, path_);
    ConsolePrint(u"\nNumber of Values: %d\n", info.values);
    int n = 0;
    for (const auto& v : values) ConsolePrint(u"(%d) Value: %s\tData: %s\n", ++n, v.name, renderValue(v.type, v.data));
}

void RegistryKey::setRegData(RegValueType type, const STRING& text) { setRegData(value_, type, text); }

void RegistryKey::setRegData(const STRING& valueName, RegValueType type, const STRING& text) {
    std::vector<uint8_t> data;
    switch (type) {
    case RegValueType::Sz:
    case RegValueType::ExpandSz:
        data = regStringBytes(text);
        break;
    case RegValueType::DWord:
    case RegValueType::DWordBigEndian: {
        uint32_t v = 0;
        const long rc = parseUnsigned(text, v);
        if (rc != 0) fail(rc, kOpSetRegData, kErrorSetting, path_);
        if (type == RegValueType::DWordBigEndian) v = swap32(v);
        data = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
                static_cast<uint8_t>(v >> 24)};
        break;
    }
    default:
        fail(regcode::InvalidParameter, kOpSetRegData, kErrorSetting, path_);
    }
    const long rc = registry_detail::setValue(handle_, valueName, static_cast<uint32_t>(type), data);
    if (rc != 0) fail(rc, kOpSetRegData, kErrorSetting, path_);
}

void RegistryKey::deleteKey() {
    RegRoot root;
    if (!regRootFromName(root_, root)) fail(regcode::InvalidHandle, kOpDeleteKey, kInvalidRoot, root_);
    const long rc = registry_detail::deleteKey(root, subkey_, opened64_);
    if (rc != 0) fail(rc, kOpDeleteKey, kErrorDeletingKey, path_);
}

void RegistryKey::deleteSubKey(const STRING& name) {
    const long rc = registry_detail::deleteSubkey(handle_, name);
    if (rc != 0) fail(rc, kOpDeleteSubKey, kErrorDeletingSubkey, path_);
}
