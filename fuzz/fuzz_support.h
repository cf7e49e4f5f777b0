// Helpers shared by the fuzz targets: scratch files, splitting an input
// into parts, and a throw-away copy of the demo installation that is put
// back to its first state after every input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/string.h"

namespace fuzz {

// A folder of this process's own (on /dev/shm when there is one, so that
// the program's flushes to disk cost nothing), removed at exit. Its first
// use points the registry and the driver device into it, at nothing.
const std::string& scratchDir();

// Writes bytes to a file, replacing it; aborts when it cannot.
void writeFile(const std::string& path, std::string_view bytes);

// Splits at every occurrence of the separator.
std::vector<std::string_view> split(std::string_view data, std::string_view separator);

// True when the bytes hold a path separator ('/' or '\\'). Targets whose
// input names files reject such inputs, so that everything the program
// writes stays inside the throw-away installation.
bool namesOtherFolder(std::string_view data);

// The process's standard output goes to /dev/null (the program prints a
// lot; libFuzzer reports on standard error).
void silenceStdout();

// A copy of examples/demo in the scratch folder, with the registry and
// device environment variables pointing into it, and the current folder set
// to its IPS folder. Every file that the program may have written, created
// or removed is put back by restore().
class Installation {
public:
    static Installation& instance();

    const std::string& root() const { return root_; }
    std::string path(const std::string& relative) const { return root_ + "/" + relative; }
    // Adds a file to the installation and to the state restore() brings back.
    void addFile(const std::string& relative, std::string_view bytes);
    void restore();

private:
    struct Signature {
        unsigned long long inode = 0;
        long long size = -1, modified = 0, changed = 0;
        bool regular = false;
        bool operator==(const Signature& o) const {
            return inode == o.inode && size == o.size && modified == o.modified && changed == o.changed &&
                   regular == o.regular;
        }
    };
    static Signature signature(const std::string& path);

    Installation();
    std::string root_;
    std::map<std::string, std::string> files_;       // relative path -> bytes
    std::map<std::string, Signature> signatures_;    // as last put back
};

}  // namespace fuzz
