// The -edit command's readers: the metadata file (configtool_metadata.ini),
// the file it names, and the edit's own words, in a throw-away installation.
//
// Input: three parts separated by a line "%%": the metadata, the text of
// the file "target.ini" in the IPS folder (where the metadata's relative
// paths point), and the words after "-edit", separated by NUL bytes.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "configtool/file_edit.h"
#include "foundation/message_catalog.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::silenceStdout();
    fuzz::Installation::instance();
    loadMessageCatalog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    // Metadata paths must not lead out of the installation.
    if (fuzz::namesOtherFolder(input)) return -1;
    const std::vector<std::string_view> parts = fuzz::split(input, "\n%%\n");
    if (parts.size() != 3) return -1;

    fuzz::Installation& inst = fuzz::Installation::instance();
    fuzz::writeFile(inst.path("IPS/configtool_metadata.ini"), parts[0]);
    fuzz::writeFile(inst.path("IPS/target.ini"), parts[1]);
    std::vector<STRING> argv = {u"zelipsconfig", u"-edit"};
    for (std::string_view word : fuzz::split(parts[2], std::string_view("\0", 1)))
        argv.push_back(STRING::fromUtf8(word));

    FileEdit edit(argv);
    edit.run();
    std::vector<FileEdit::Section> sections;
    bool utf16 = false;
    if (FileEdit::readTarget(u"target.ini", sections, utf16)) (void)FileEdit::compose(sections);

    inst.restore();
    return 0;
}
