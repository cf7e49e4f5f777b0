// RegFile: the text format of a registry export (.reg file), read and
// written without any registry behind it.
//
// Reading accepts:
//   - a first line "Windows Registry Editor Version 5.00" or "REGEDIT4";
//   - UTF-8 (with or without EF BB BF) or UTF-16LE starting with FF FE;
//   - [KEY] lines, and [-KEY] lines that delete a key with its subkeys;
//   - "name"="text" (escapes \\ and \"), "name"=dword:0000000a,
//     "name"=hex:0a,ff (REG_BINARY), "name"=hex(N):.. for any type N
//     (given in hexadecimal), "name"=- (deletes the value), @= for the
//     default value, and hex data continued over lines ending with '\';
//   - the data of hex(1), hex(2) and hex(7) as UTF-16LE bytes in a UTF-16
//     file, and as narrow (UTF-8) text in any other, as the registry editor
//     and "reg import" read them: a UTF-8 file holds an expandable string as
//     hex(2):25,53,79,... and a multi-string as hex(7):61,00,62,00,00;
//   - lines starting with ';' as comments.
// A line that does not fit is skipped and counted; nothing in the input can
// make the reader fail. Deletions are applied while reading, so the result is
// the state the file describes.
//
// Key paths and value names compare without regard to ASCII case, as the
// registry compares them, and keep the case and order in which they first
// appeared.
//
// Writing produces UTF-8 without byte-order mark, the 5.00 header and CR LF
// line ends: REG_SZ data that is one clean NUL-terminated text as "text",
// REG_DWORD as dword:, REG_BINARY as hex:, everything else as hex(N): (text
// types as narrow UTF-8 bytes, see above; an odd last byte or an unpaired
// surrogate in such data does not survive). Names holding a line break
// cannot be written and are left out.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/string.h"

struct RegFileValue {
    STRING name;  // empty for the default value
    uint32_t type = 0;
    std::vector<uint8_t> data;
};

struct RegFileKey {
    STRING path;  // "HKEY_LOCAL_MACHINE\SOFTWARE\X", no empty components
    std::vector<RegFileValue> values;

    RegFileValue* findValue(const STRING& name);
    const RegFileValue* findValue(const STRING& name) const;
    // Adds or replaces a value; a replaced value keeps its name and position.
    void setValue(const STRING& name, uint32_t type, std::vector<uint8_t> data);
    bool removeValue(const STRING& name);
};

class RegFile {
public:
    enum class Header { Missing, Version5, Regedit4 };

    static RegFile parse(std::string_view bytes);
    // The file text: UTF-8, 5.00 header, CR LF line ends.
    std::string write() const;

    Header header() const { return header_; }
    // Lines that were neither blank, comment, header, key nor value.
    size_t skippedLines() const { return skipped_; }

    const std::vector<RegFileKey>& keys() const { return keys_; }

    // Exact (case-insensitive) lookup of a listed key.
    RegFileKey* findKey(const STRING& path);
    const RegFileKey* findKey(const STRING& path) const;
    // A key exists when it is listed or when any key below it is listed.
    bool keyExists(const STRING& path) const;
    // Lists the key if it is not listed yet (parents stay implicit). The
    // reference holds until the next key is added or removed.
    RegFileKey& addKey(const STRING& path);
    // Removes the key and every key below it; false when none was there.
    bool removeTree(const STRING& path);
    // Names of the immediate subkeys, each once, in the case first seen,
    // sorted without regard to case.
    std::vector<STRING> subkeyNames(const STRING& path) const;
    bool hasSubkeys(const STRING& path) const;

    // Splits at backslashes, drops empty components and joins again.
    static STRING normalizePath(const STRING& path);

private:
    Header header_ = Header::Missing;
    size_t skipped_ = 0;
    std::vector<RegFileKey> keys_;
};

// Registry value type numbers used by the file format.
namespace regtype {
constexpr uint32_t None = 0;
constexpr uint32_t Sz = 1;
constexpr uint32_t ExpandSz = 2;
constexpr uint32_t Binary = 3;
constexpr uint32_t DWord = 4;
constexpr uint32_t DWordBigEndian = 5;
constexpr uint32_t MultiSz = 7;
constexpr uint32_t QWord = 11;
}  // namespace regtype

// UTF-16LE bytes of a text followed by a NUL character.
std::vector<uint8_t> regStringBytes(const STRING& text);
