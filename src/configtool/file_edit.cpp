#include "configtool/file_edit.h"

#include <cstdint>
#include <cstdio>
#include <memory>

#include "config/safe_replace.h"
#include "foundation/console.h"
#include "foundation/file_util.h"
#include "foundation/ids_exception.h"
#include "foundation/log.h"
#include "foundation/system_info.h"
#include "foundation/utils.h"

namespace {

using FilePtr = std::unique_ptr<FILE, int (*)(FILE*)>;

// A pair line split at its first '='.
void splitPair(const STRING& line, STRING& name, STRING& value) {
    const size_t eq = line.find(u'=');
    name = line.substr(0, eq);
    value = line.substr(eq + 1);
}

// A name or section name is one line of the file: one that holds a line
// break is refused.
bool holdsLineBreak(const STRING& name) { return name.contains(u'\n') || name.contains(u'\r'); }

FileEdit::Section* findSection(std::vector<FileEdit::Section>& sections, const STRING& name) {
    for (auto& s : sections)
        if (s.name == name) return &s;
    return nullptr;
}

}  // namespace

FileEdit::FileEdit(std::vector<STRING> argv) : argv_(std::move(argv)) {}

bool FileEdit::fail(const STRING& printed, const STRING& error) {
    ConsolePrint(u"%s", printed);
    error_ = error;
    return false;
}

bool FileEdit::readMetadata(Rules& rules) {
    const STRING path = joinPath(SystemInfo::getIPSDirectory(), u"configtool_metadata.ini");
    FILE* fp = openFile(path, "rb");
    if (fp == nullptr) {
        return fail(formatString(u"Failed to Edit file.Unable to open ConfigTool Metadata file:%s\n", path),
                    STRING(u"Unable to open ConfigTool Metadata file:-") + path);
    }
    FilePtr guard(fp, &std::fclose);
    std::vector<STRING> lines;
    try {
        const bool utf16 = Utils::probeUnicode(fp);
        STRING line;
        while (Utils::readLineBuffered(fp, line, utf16) != 0) lines.push_back(line);
    } catch (const IDSException&) {
        if (lines.empty()) {
            return fail(u"Failed to read ConfigTool Metadata File\n", u"Failed to read ConfigTool Metadata File");
        }
    }
    if (lines.empty()) {
        return fail(u"Failed to read ConfigTool Metadata File\n", u"Failed to read ConfigTool Metadata File");
    }
    if (lines[0] != STRING(u"[FileList]")) {
        return fail(u"Failed to Edit file.Metadata File does not [FileList] section.\n",
                    u"Metadata File does not [FileList] section.");
    }
    const STRING& fileName = argv_[2];
    STRING tag;
    size_t i = 1;
    for (; i < lines.size() && lines[i].contains(u'='); ++i) {
        STRING name, value;
        splitPair(lines[i], name, value);
        if (tag.empty() && value == fileName) tag = name;
    }
    if (tag.empty()) {
        return fail(formatString(
                        u"Failed to Edit file.File - %s - not specified in the [FileList] section of Metadata File\n",
                        fileName),
                    u"File is not specified in the section of Metadata File");
    }
    const STRING header = STRING(u"[") + tag + u"]";
    for (; i < lines.size() && lines[i] != header; ++i) {
    }
    if (i == lines.size()) {
        return fail(formatString(u"Failed to Edit file.Properties not specified for File - %s - in the Metadata File.\n",
                                 fileName),
                    u"Properties not specified for the file in the Metadata File.");
    }
    for (++i; i < lines.size() && lines[i].contains(u'='); ++i) {
        STRING name, value;
        splitPair(lines[i], name, value);
        if (name == STRING(u"path")) rules.path = value;
        else if (name == STRING(u"section")) rules.sections = value == STRING(u"true");
        else if (name == STRING(u"casesensitive")) rules.caseSensitive = value == STRING(u"true");
        else if (name.contains(STRING(u"dynamiclist.section"))) rules.numberedList = value == STRING(u"true");
        else if (name.contains(STRING(u"dynamiclist.base"))) rules.base = value;
        else if (name.contains(STRING(u"dynamiclist.counter"))) rules.counter = value;
    }
    return true;
}

bool FileEdit::parseOptions() {
    edits_.clear();
    edits_.push_back(Section{u"Default", true, {}});
    bool waiting = false;
    STRING pendingName;
    // The entry edit belongs to the section edit that was current at its
    // -name, also when a -section comes before its value.
    size_t pendingSection = 0;
    for (size_t i = 3; i < argv_.size(); ++i) {
        const STRING& word = argv_[i];
        Section& current = edits_.back();
        const bool named = word == STRING(u"-section") || word == STRING(u"-name");
        if (named && i + 1 < argv_.size() && holdsLineBreak(argv_[i + 1])) {
            STRING shown;
            Utils::foldLineBreaks(argv_[i + 1], shown);
            return fail(formatString(u"Failed to Edit file.Invalid Option:-  %s - specified.\n", shown),
                        formatString(u"Invalid Option:-  %s - specified.", shown));
        }
        if (word == STRING(u"-section")) {
            if (i + 1 >= argv_.size()) break;
            Section s;
            s.name = argv_[++i];
            if (i + 1 < argv_.size() && argv_[i + 1] == STRING(u"-delete")) {
                s.keep = false;
                ++i;
            }
            edits_.push_back(s);
        } else if (word == STRING(u"-name")) {
            if (waiting) {
                return fail(formatString(u"Failed to Edit file.No value for tag -  %s - specified.\n", pendingName),
                            formatString(u"No value for tag -  %s - specified.", pendingName));
            }
            if (i + 1 >= argv_.size()) {
                waiting = true;
                break;
            }
            pendingName = argv_[++i];
            if (!current.keep) {
                // Entries cannot be edited in a section that is being deleted.
                return fail(
                    formatString(u"Failed to Edit file.Section Unavailable for tag -  %s - specified.\n", pendingName),
                    formatString(u"Section Unavailable for tag -  %s - specified.", pendingName));
            }
            waiting = true;
            pendingSection = edits_.size() - 1;
        } else if (word == STRING(u"-value")) {
            const STRING value = i + 1 < argv_.size() ? argv_[++i] : STRING();
            if (!waiting) {
                return fail(formatString(u"Failed to Edit file. No tag specified for value - %s - .\n", value),
                            formatString(u"No tag specified for value - %s - .", value));
            }
            edits_[pendingSection].entries.push_back(Entry{pendingName, value, true, false});
            waiting = false;
        } else if (word == STRING(u"-delete")) {
            if (waiting) {
                edits_[pendingSection].entries.push_back(Entry{pendingName, STRING(), false, false});
                waiting = false;
            } else {
                current.keep = false;
            }
        } else {
            return fail(formatString(u"Failed to Edit file.Invalid Option:-  %s - specified.\n", word),
                        formatString(u"Invalid Option:-  %s - specified.", word));
        }
    }
    if (waiting) return fail(u"Failed to Edit file.Insufficient Options.\n", u"Insufficient Options.");
    return true;
}

bool FileEdit::readTarget(const STRING& path, std::vector<Section>& sections, bool& utf16) {
    sections.clear();
    sections.push_back(Section{u"Default", true, {}});
    FILE* fp = openFile(path, "rb");
    if (fp == nullptr) return false;
    FilePtr guard(fp, &std::fclose);
    utf16 = Utils::probeUnicode(fp);
    STRING line;
    try {
        while (Utils::readLineBuffered(fp, line, utf16) != 0) {
            if (line.empty()) continue;  // blank lines are written anew between sections
            if (line.contains(u'=')) {
                Entry e;
                splitPair(line, e.name, e.value);
                sections.back().entries.push_back(e);
            } else if (line[0] == u'[' && line.back() == u']') {
                sections.push_back(Section{line.substr(1, line.length() - 2), true, {}});
            } else {
                sections.back().entries.push_back(Entry{line, STRING(), true, true});
            }
        }
    } catch (const IDSException&) {
        return false;
    }
    return true;
}

bool FileEdit::apply(std::vector<Section>& file) {
    for (const Section& edit : edits_) {
        Section* target = findSection(file, edit.name);
        if (!edit.keep) {
            if (target == nullptr) {
                return fail(formatString(u"Failed to Edit file.Section - %s -  not available for delete.\n", edit.name),
                            formatString(u"Section - %s -  not available for delete.", edit.name));
            }
            target->keep = false;
            continue;
        }
        if (target != nullptr && !target->keep) {
            return fail(formatString(u"Failed to Edit file.Section - %s -  already deleted.\n", edit.name),
                        formatString(u"Section - %s -  already deleted.", edit.name));
        }
        bool created = false;
        if (target == nullptr) {
            if (edit.entries.empty() && edit.name == STRING(u"Default")) continue;
            file.push_back(Section{edit.name, true, {}});
            target = &file.back();
            created = true;
        }
        for (const Entry& e : edit.entries) {
            if (!rules_.numberedList && created) {
                // A new section takes the entry edits as they come: nothing
                // is looked up, a delete is simply not written.
                target->entries.push_back(e);
            } else if (!(rules_.numberedList ? applyNumbered(*target, e) : applyEntry(*target, e))) {
                return false;
            }
        }
    }
    return true;
}

bool FileEdit::applyEntry(Section& target, const Entry& e) {
    Entry* found = nullptr;
    // As with sections, the first entry of the name is the one.
    for (auto& fe : target.entries) {
        if (!fe.raw && fe.name == e.name) {
            found = &fe;
            break;
        }
    }
    if (found != nullptr) {
        if (e.keep) found->value = e.value;
        found->keep = e.keep;
    } else if (!e.keep) {
        return fail(formatString(u"Failed to Edit file.Unable to find tag to delete for -%s-.\n", e.name),
                    formatString(u"Unable to find tag to delete for -%s-.", e.name));
    } else {
        target.entries.push_back(e);
    }
    return true;
}

// A numbered list: only the value counts.
bool FileEdit::applyNumbered(Section& target, const Entry& e) {
    Entry* found = nullptr;
    Entry* counter = nullptr;
    for (auto& fe : target.entries) {
        if (fe.raw) continue;
        if (fe.name == rules_.counter) {
            if (counter == nullptr) counter = &fe;
            continue;
        }
        const bool same = rules_.caseSensitive ? fe.value == e.value : fe.value.equalsIgnoreCase(e.value);
        if (same && found == nullptr) found = &fe;
    }
    if (found != nullptr) {
        found->keep = e.keep;
        return true;
    }
    if (!e.keep) {
        return fail(formatString(u"Failed to Edit file.Unable to find tag to delete for value -%s-.\n", e.value),
                    formatString(u"Unable to find tag to delete for value -%s-.", e.value));
    }
    if (rules_.counter.empty() || rules_.base.empty()) {
        return fail(formatString(u"Failed to Edit file.Failed to add Dynamic Value - %s -.\n", e.value),
                    formatString(u"Failed to add Dynamic Value - %s -.", e.value));
    }
    int number = 1;
    if (counter != nullptr) {
        // The next number; past the largest 32-bit number it wraps, as the
        // agent's integers do.
        number = static_cast<int>(static_cast<uint32_t>(counter->value.toIntLenient()) + 1u);
        counter->value = STRING::number(number);
    } else {
        target.entries.push_back(Entry{rules_.counter, u"1", true, false});
    }
    target.entries.push_back(Entry{formatString(u"%s%04d", rules_.base, number), e.value, true, false});
    return true;
}

STRING FileEdit::compose(const std::vector<Section>& sections) {
    STRING text;
    for (const Section& s : sections) {
        if (!s.keep) continue;
        if (s.name != STRING(u"Default")) text += STRING(u"[") + s.name + u"]\r\n";
        for (const Entry& e : s.entries) {
            if (!e.keep) continue;
            text += e.raw ? e.name : Utils::pairLine(e.name, e.value);
            text += u"\r\n";
        }
        text += u"\r\n";
    }
    return text;
}

int FileEdit::run() {
    STRING args;
    for (size_t i = 1; i < argv_.size(); ++i) {
        if (i > 1) args += u' ';
        args += argv_[i];
    }
    auto finish = [&](bool ok) {
        if (ok) {
            ConsolePrint(u"Configtool Edit Successful.\n");
            ConfigToolLog::instance().logNumbered(catalog::EDIT_DONE, u"AgentConfigTool::edit", args);
            return 0;
        }
        ConfigToolLog::instance().logNumbered(catalog::EDIT_FAILED, u"AgentConfigTool::edit", args, error_);
        return 1;
    };

    if (argv_.size() < 3) {
        return finish(fail(u"Failed to run edit option. No Filename Specified.\n", u"No Filename Specified."));
    }
    if (!readMetadata(rules_)) return finish(false);
    if (argv_.size() < 5) {
        return finish(fail(u"Failed to Edit file.Insufficient edit options specified.\n",
                           u"Insufficient edit options specified."));
    }
    if (!parseOptions()) return finish(false);
    for (const Section& s : edits_) {
        if (s.name != STRING(u"Default") && !rules_.sections) {
            return finish(fail(u"File Editing not Allowed, File does not have sections.\n",
                               u"File Editing not Allowed, File does not have sections."));
        }
    }
    std::vector<Section> file;
    bool utf16 = false;
    if (!readTarget(rules_.path, file, utf16)) {
        return finish(fail(formatString(u"Failed to Edit file.Unable to open - %s - .\n", rules_.path),
                           STRING(u"Unable to open file:- ")));
    }
    if (!apply(file)) return finish(false);
    try {
        writeToFile12(rules_.path, compose(file), utf16);
    } catch (const IDSException& e) {
        return finish(fail(formatString(u"Failed to Edit file.%s\n", e.message()), e.message()));
    }
    return finish(true);
}
