// The -edit command: changes one configuration file of the installation
// under the rules that configtool_metadata.ini (in the IPS folder) gives for
// it: whether the file has sections, whether value comparisons respect case,
// and whether a section is a numbered list ("item0001=...", with a counter
// entry).
//
//   zelipsconfig -edit <file name> [-section <name> [-delete]]
//                                  [-name <entry> (-value <value> | -delete)] ...
#pragma once

#include <vector>

#include "foundation/string.h"

class FileEdit {
public:
    explicit FileEdit(std::vector<STRING> argv);
    // 0 on success, 1 on any failure (reported on the console and in the
    // tool's log).
    int run();

    struct Entry {
        STRING name;
        STRING value;
        bool keep = true;
        bool raw = false;  // a line that is no pair (a comment), written back as it stood
    };
    struct Section {
        STRING name;
        bool keep = true;
        std::vector<Entry> entries;
    };
    struct Rules {
        STRING path;
        bool sections = false;
        bool caseSensitive = false;
        bool numberedList = false;
        STRING base;
        STRING counter;
    };

    // The target file's text for these sections (CR LF line ends).
    static STRING compose(const std::vector<Section>& sections);
    // Reads a properties file into sections ("Default" first).
    static bool readTarget(const STRING& path, std::vector<Section>& sections, bool& utf16);

private:
    bool fail(const STRING& printed, const STRING& error);
    bool readMetadata(Rules& rules);
    bool parseOptions();
    bool apply(std::vector<Section>& file);
    // One entry edit in an existing section: by name in an ordinary file,
    // by value in a numbered list. False after printing why it failed.
    bool applyEntry(Section& target, const Entry& edit);
    bool applyNumbered(Section& target, const Entry& edit);

    std::vector<STRING> argv_;
    std::vector<Section> edits_;
    Rules rules_;
    STRING error_;
};
