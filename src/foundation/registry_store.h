// RegistryStore: the registry of the Linux build.
//
// The registry is one file in the format of a .reg export (reg_file.h): the
// file named by $ZELIPS_REGISTRY, else /etc/zelshield/registry.reg. A missing
// file is an empty registry; the first write creates it, and its folder.
//
// Views: the 32-bit view of HKEY_LOCAL_MACHINE\SOFTWARE and everything below
// it lives under HKEY_LOCAL_MACHINE\SOFTWARE\WOW6432Node, as a 64-bit Windows
// export shows it; the 64-bit view is the file as it stands. Nothing else is
// redirected.
//
// Reading: an open key holds the parsed file it was opened from. Opening
// checks the file's identity (device, inode, size, times) and reuses the last
// parse when it is unchanged, so a read-only open reads the file at most once.
// Later queries on the key use that state, or a newer one that this process
// has read or written since.
//
// Writing: every change takes an fcntl lock on "<file>.lock", re-reads the
// file, applies the change, writes "<file>.XXXXXX" in the same folder, fsyncs
// it and renames it over the file. Readers never lock: they see the old file
// or the new one.
//
// Every operation returns 0 or a Win32 error number: 2 for a missing key or
// value, 5 when the file or its folder cannot be read or written (and for a
// change through a key opened read-only, or deleting a key that has
// subkeys), 1018 for a key deleted since it was opened, 87 for a name that
// cannot be stored (it holds a line break), 1016 for other file failures.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "foundation/reg_file.h"
#include "foundation/registry.h"

struct RegistrySnapshot;

class RegistryStore {
public:
    // An open key: where it is, in which view, and the state it was read from.
    class Key {
    public:
        RegRoot root() const { return root_; }
        // The path below the root as the caller gave it (normalised).
        const STRING& subkey() const { return subkey_; }
        bool view64() const { return view64_; }
        bool writable() const { return writable_; }
        // Where the key lives in the file: "HKEY_LOCAL_MACHINE\SOFTWARE\WOW6432Node\X".
        const STRING& storedPath() const { return stored_; }

    private:
        friend class RegistryStore;
        RegRoot root_ = RegRoot::LocalMachine;
        STRING subkey_;
        bool view64_ = false;
        bool writable_ = false;
        STRING stored_;
        std::shared_ptr<const RegistrySnapshot> snapshot_;
    };

    // The file: $ZELIPS_REGISTRY, else /etc/zelshield/registry.reg.
    static std::string filePath();
    // Where a key of a view is kept in the file.
    static STRING storedPath(RegRoot root, const STRING& subkey, bool view64);

    // Opens an existing key for reading (2 when it does not exist). An empty
    // subkey opens the root itself.
    static long openKey(RegRoot root, const STRING& subkey, bool view64, Key& out);
    // Opens a key for reading and writing, creating it and the keys above it
    // when missing. `created` tells whether it was created.
    static long createKey(RegRoot root, const STRING& subkey, bool view64, Key& out, bool* created = nullptr);
    // Opens a key below an open one, in the same view.
    static long openSubkey(const Key& parent, const STRING& subkey, bool writable, Key& out);

    // Type and data of a value (either pointer may be null). The empty name
    // is the default value.
    static long queryValue(const Key& key, const STRING& name, uint32_t* type, std::vector<uint8_t>* data);
    static long setValue(Key& key, const STRING& name, uint32_t type, const std::vector<uint8_t>& data);
    static long deleteValue(Key& key, const STRING& name);
    // Immediate subkey names, sorted without regard to case.
    static long enumSubkeys(const Key& key, std::vector<STRING>& names);
    // Values in the order they are stored.
    static long enumValues(const Key& key, std::vector<RegFileValue>& values);
    // Deletes a key that has no subkeys (5 when it has some, 2 when missing).
    static long deleteKey(RegRoot root, const STRING& subkey, bool view64);
    static long deleteSubkey(const Key& parent, const STRING& name);

    // Drops the parse kept in memory (tests that rewrite the file by hand
    // within one time-stamp tick call this).
    static void forgetCache();

private:
    static std::shared_ptr<const RegistrySnapshot> current(const Key& key);
};
