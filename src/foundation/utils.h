// The line-oriented properties format shared by the agent's configuration
// files (agent.ini, fallback.ini, the detection service's ini files, the edit
// metadata), and the helpers that read and write it.
//
// A file is UTF-16LE when it starts with FF FE, otherwise UTF-8 without a
// byte-order mark. Lines end with CR LF; on reading every trailing CR and LF
// is removed. A line holds at most 4095 characters (UTF-16) or 4095 bytes
// (UTF-8); the rest of a longer line is read and thrown away. A pair is
// "name=value" split at the first '=', nothing trimmed; a section header is a
// whole line "[...]". Failures throw IDSException.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/string.h"

using PropertyList = std::vector<std::pair<STRING, STRING>>;

// One line of a properties file as the readers take it apart (the line end
// removed). A line without '=' is no pair: a section header to the strict
// reader, a section to the tolerant one. In a pair the name is the first run
// of text between '=' characters (a leading run of '=' is skipped, as the
// reentrant tokeniser skips its delimiters) and the value all that follows
// the '=' after the name; a line of '=' alone has no name.
struct PropertyLine {
    enum Kind { Pair, NoName, NoPair };
    Kind kind = NoPair;
    std::u16string_view name;
    std::u16string_view value;
};
// (Inline: the reader of agent.ini takes every line of a file through it.)
inline PropertyLine scanPropertyLine(std::u16string_view line) {
    PropertyLine out;
    const size_t eq = STRING::findUnit(line, u'=');
    if (eq == std::u16string_view::npos) return out;
    size_t start = 0;
    while (start < line.size() && line[start] == u'=') ++start;
    if (start == line.size()) {
        out.kind = PropertyLine::NoName;
        return out;
    }
    const size_t end = start == 0 ? eq : STRING::findUnit(line, u'=', start);
    out.kind = PropertyLine::Pair;
    out.name = line.substr(start, end == std::u16string_view::npos ? std::u16string_view::npos : end - start);
    if (end != std::u16string_view::npos) out.value = line.substr(end + 1);
    return out;
}

// The lines of a UTF-8 stream, with the same text and the same counts as
// Utils::readLineBuffered gives them, read from large blocks rather than one
// call per line. The reader owns the stream from where it stands on; it
// throws as readLineBuffered does on a read error.
class LineReader {
public:
    // blockSize: the bytes read at a time (a stream known to be small needs
    // no large block).
    explicit LineReader(FILE* fp, size_t blockSize = 65536);
    ~LineReader();
    LineReader(const LineReader&) = delete;
    LineReader& operator=(const LineReader&) = delete;

    // As Utils::readLineBuffered(fp, line, false).
    size_t next(STRING& line);
    // The next line's bytes as next() converts them (cut at a NUL, without
    // the line end), valid until the next call. Returns what next() returns.
    size_t nextBytes(std::string_view& bytes);

private:
    bool refill();

    FILE* fp_;
    size_t blockSize_;
    char* block_;
    size_t begin_ = 0;
    size_t end_ = 0;
    bool atEnd_ = false;
    std::string carry_;  // the start of a line that runs past the block
};

class Utils {
public:
    static constexpr int kLineBuffer = 4096;

    // Reads one line. Returns the number of characters (UTF-16) or bytes
    // (UTF-8) read for it before the line end was removed; 0 at end of file.
    // `buffer`, when given, is a caller-owned area of bufferSize characters.
    static size_t readLineBuffered(FILE* fp, STRING& line, bool utf16, int bufferSize = kLineBuffer,
                                   char16_t* buffer = nullptr);

    // Strict parse: appends every pair in file order, drops section headers,
    // throws on anything else (a blank line included).
    static void getProperties(const STRING& path, PropertyList& out);

    // Appends every line of the file, blank lines as empty strings.
    static void readLines(const STRING& path, std::vector<STRING>& out);

    // Writes text to an open stream. currentSize is the file's text size
    // (fileTextSize); 0 or less means the file is empty, and a UTF-16 write
    // then starts with FF FE. The stream is committed to disk afterwards.
    static void appendProperties(FILE* fp, const STRING& text, long long currentSize, bool utf16);

    // Writes the lines, each followed by CR LF, appending to or replacing
    // the file. The text size is taken before the file is opened, so a
    // replace of a non-empty UTF-16 file writes no new byte-order mark.
    static void writeLines(const STRING& path, const std::vector<STRING>& lines, bool utf16, bool append);

    // File size in bytes, less 2 when it starts with FF FE; -1 when the path
    // is empty or the file cannot be opened.
    static long long fileTextSize(const STRING& path);

    // True (stream left after the mark) when the stream starts with FF FE;
    // otherwise false with the stream back at its start (through its
    // buffer: read with the C runtime's functions only).
    static bool probeUnicode(FILE* fp);

    // Reentrant tokeniser (the contract of wcstok_s/wcstok_r): text is the
    // string on the first call and null afterwards. Throws code 16 when
    // there is no further token.
    static char16_t* tokWrapper(char16_t* text, const char16_t* delimiters, char16_t** context);

    // Replaces every line break (CR LF or a lone LF) with "#&nl!"; a CR not
    // followed by LF is kept.
    static void foldLineBreaks(const STRING& in, STRING& out);

    // A name or a value as every writer of a pair line writes it, so that
    // one pair stays one line whatever it holds: its line breaks folded as
    // above, and the CRs at its end dropped, which a reader would take for
    // part of the line's end (a written file reads back as it was written,
    // its checksum included). Returns `text` itself when nothing changes,
    // else the changed text, kept in `scratch`.
    static std::u16string_view pairText(std::u16string_view text, std::u16string& scratch);
    // "name=value" of those, for writers that build a file's text line by line.
    static STRING pairLine(const STRING& name, const STRING& value);
};
