#include "foundation/utils.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "foundation/file_util.h"
#include "foundation/ids_exception.h"

namespace {

// Closes a FILE* on scope exit.
struct FileCloser {
    void operator()(FILE* fp) const {
        if (fp) std::fclose(fp);
    }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

// The lines are read a character at a time; the stream belongs to the one
// reader, so the C library's per-call stream lock is skipped where it can be.
#ifdef _WIN32
inline int nextByte(FILE* fp) { return std::getc(fp); }
#else
inline int nextByte(FILE* fp) { return getc_unlocked(fp); }
#endif

// Reads up to max-1 UTF-16LE units, stopping after a line feed. Returns the
// number of units read; `error` is set on a read error.
size_t readWideChunk(FILE* fp, char16_t* buf, size_t max, bool& error) {
    size_t n = 0;
    while (n + 1 < max) {
        const int lo = nextByte(fp);
        if (lo == EOF) break;
        const int hi = nextByte(fp);
        if (hi == EOF) break;  // a lone trailing byte is not a character
        const auto c = static_cast<char16_t>((hi << 8) | lo);
        buf[n++] = c;
        if (c == u'\n') break;
    }
    buf[n] = 0;
    error = std::ferror(fp) != 0;
    return n;
}

// Reads up to max-1 bytes, stopping after a line feed.
size_t readNarrowChunk(FILE* fp, char* buf, size_t max, bool& error) {
    size_t n = 0;
    while (n + 1 < max) {
        const int c = nextByte(fp);
        if (c == EOF) break;
        buf[n++] = static_cast<char>(c);
        if (c == '\n') break;
    }
    buf[n] = 0;
    error = std::ferror(fp) != 0;
    return n;
}

// The text of a line's bytes as readLineBuffered makes it: the first count
// bytes, cut at a NUL, without the CR and LF at its end. They are cut from
// the bytes: a NUL, CR or LF byte is never part of a longer UTF-8 sequence,
// so the text is what cutting the converted line would leave.
std::string_view lineBytes(std::string_view bytes, size_t count) {
    size_t keep = count;
    if (const void* nul = std::memchr(bytes.data(), 0, keep)) {
        keep = static_cast<size_t>(static_cast<const char*>(nul) - bytes.data());
    }
    while (keep > 0 && (bytes[keep - 1] == '\r' || bytes[keep - 1] == '\n')) --keep;
    return bytes.substr(0, keep);
}

// Cuts the text at its first NUL, as the C string it stands for, and removes
// every trailing CR and LF.
void finishLine(std::u16string& s) {
    const size_t nul = s.find(char16_t(0));
    if (nul != std::u16string::npos) s.resize(nul);
    size_t e = s.size();
    while (e > 0 && (s[e - 1] == u'\r' || s[e - 1] == u'\n')) --e;
    s.resize(e);
}

}  // namespace

size_t Utils::readLineBuffered(FILE* fp, STRING& line, bool utf16, int bufferSize, char16_t* buffer) {
    if (fp == nullptr) throw IDSException(-1, u"readLineBuffered", u"Error fp is NULL");
    const size_t max = bufferSize > 1 ? static_cast<size_t>(bufferSize) : 2;
    // The usual line buffer lives on the stack; a larger one is allocated.
    const bool onStack = max <= static_cast<size_t>(kLineBuffer);
    bool error = false;
    size_t count;
    bool endedLine;
    if (utf16) {
        char16_t local[kLineBuffer];
        std::unique_ptr<char16_t[]> own;
        if (buffer == nullptr) {
            if (!onStack) own.reset(new char16_t[max]);
            buffer = onStack ? local : own.get();
        }
        count = readWideChunk(fp, buffer, max, error);
        if (error && !std::feof(fp)) throw IDSException(errno, u"readLineBuffered", u"Error reading file");
        endedLine = count > 0 && buffer[count - 1] == u'\n';
        line.str().assign(buffer, count);
    } else {
#ifndef _WIN32
        // getdelim takes the whole line (up to and with its line feed, NULs
        // included) in one call; what lies past max-1 bytes is dropped, as
        // the rest of an overlong line is.
        struct HeldLine {
            char* data = nullptr;
            size_t size = 0;
            ~HeldLine() { std::free(data); }
        };
        thread_local HeldLine held;
        const ssize_t got = ::getdelim(&held.data, &held.size, '\n', fp);
        if (got < 0) {
            if (std::ferror(fp) && !std::feof(fp)) throw IDSException(errno, u"readLineBuffered", u"Error reading file");
            line.clear();
            return 0;
        }
        count = static_cast<size_t>(got) < max - 1 ? static_cast<size_t>(got) : max - 1;
        line.assignUtf8(lineBytes(std::string_view(held.data, count), count));
        if (held.size > 65536) {  // an overlong line's area is not kept
            std::free(held.data);
            held.data = nullptr;
            held.size = 0;
        }
        return count;
#else
        char local[kLineBuffer];
        std::unique_ptr<char[]> own;
        if (!onStack) own.reset(new char[max]);
        char* bytes = onStack ? local : own.get();
        count = readNarrowChunk(fp, bytes, max, error);
        if (error && !std::feof(fp)) throw IDSException(errno, u"readLineBuffered", u"Error reading file");
        endedLine = count > 0 && bytes[count - 1] == '\n';
        line = STRING::fromUtf8(std::string_view(bytes, count));
#endif
    }
    // A filled buffer that did not reach the line end: the rest of the line is
    // read and thrown away.
    if (count == max - 1 && !endedLine) {
        std::unique_ptr<char[]> scratch(new char[max * 2]);
        while (true) {
            size_t got;
            bool ended;
            if (utf16) {
                got = readWideChunk(fp, reinterpret_cast<char16_t*>(scratch.get()), max, error);
                ended = got > 0 && reinterpret_cast<char16_t*>(scratch.get())[got - 1] == u'\n';
            } else {
                got = readNarrowChunk(fp, scratch.get(), max, error);
                ended = got > 0 && scratch[got - 1] == '\n';
            }
            if (error && !std::feof(fp)) throw IDSException(errno, u"readLineBuffered", u"Error reading file");
            if (got < max - 1 || ended) break;
        }
    }
    finishLine(line.str());
    return count;
}

LineReader::LineReader(FILE* fp, size_t blockSize)
    : fp_(fp), blockSize_(blockSize > 0 ? blockSize : 1), block_(new char[blockSize_]) {}

LineReader::~LineReader() { delete[] block_; }

bool LineReader::refill() {
    if (atEnd_) return false;
    begin_ = 0;
    end_ = std::fread(block_, 1, blockSize_, fp_);
    if (end_ < blockSize_) {
        if (std::ferror(fp_) && !std::feof(fp_)) {
            throw IDSException(errno, u"readLineBuffered", u"Error reading file");
        }
        atEnd_ = true;
    }
    return end_ > 0;
}

size_t LineReader::next(STRING& line) {
    std::string_view bytes;
    const size_t count = nextBytes(bytes);
    line.assignUtf8(bytes);
    return count;
}

size_t LineReader::nextBytes(std::string_view& line) {
    const size_t max = static_cast<size_t>(Utils::kLineBuffer);
    carry_.clear();
    for (;;) {
        if (begin_ < end_) {
            const char* start = block_ + begin_;
            const void* lf = std::memchr(start, '\n', end_ - begin_);
            if (lf != nullptr) {
                const size_t len = static_cast<size_t>(static_cast<const char*>(lf) - start) + 1;
                begin_ += len;
                std::string_view bytes(start, len);
                if (!carry_.empty()) {
                    carry_.append(start, len);
                    bytes = carry_;
                }
                const size_t count = bytes.size() < max - 1 ? bytes.size() : max - 1;
                line = lineBytes(bytes, count);
                return count;
            }
            carry_.append(start, end_ - begin_);
            begin_ = end_;
        }
        if (!refill()) break;
    }
    // The end of the stream: the last line has no line feed.
    if (carry_.empty()) return 0;
    const size_t count = carry_.size() < max - 1 ? carry_.size() : max - 1;
    line = lineBytes(carry_, count);
    return count;
}

bool Utils::probeUnicode(FILE* fp) {
    const int a = std::getc(fp);
    if (a != 0xFF && a != EOF) {
        // One byte goes back into the stream's buffer: no new read.
        std::ungetc(a, fp);
        return false;
    }
    const int b = a == EOF ? EOF : std::getc(fp);
    if (a == 0xFF && b == 0xFE) return true;
    std::rewind(fp);
    return false;
}

void Utils::getProperties(const STRING& path, PropertyList& out) {
    static const char16_t* const kOp = u"Utils::getProperties";
    errno = 0;
    FilePtr fp(openFile(path, "rb"));
    if (!fp) throw IDSException(errno, kOp, STRING(u"Could not open file : ") + path);
    const bool utf16 = probeUnicode(fp.get());
    STRING line;
    while (readLineBuffered(fp.get(), line, utf16) != 0) {
        const PropertyLine scanned = scanPropertyLine(line.str());
        if (scanned.kind == PropertyLine::NoName) {
            throw IDSException(17, kOp,
                               STRING(u"Error parsing name value pair, found empty name; malformed file: ") + path +
                                   u". Error in line : " + line);
        }
        if (scanned.kind == PropertyLine::Pair) {
            out.emplace_back(STRING(scanned.name), STRING(scanned.value));
        } else if (line.empty() || line[0] != u'[' || line.back() != u']') {
            throw IDSException(17, kOp,
                               STRING(u"Error while parsing file, malform section header  : ") + path +
                                   u". Error in line : " + line);
        }
    }
}

void Utils::readLines(const STRING& path, std::vector<STRING>& out) {
    errno = 0;
    FilePtr fp(openFile(path, "rb"));
    if (!fp) throw IDSException(errno, u"Utils::readLines", STRING(u"Could not open file : ") + path);
    const bool utf16 = probeUnicode(fp.get());
    STRING line;
    while (readLineBuffered(fp.get(), line, utf16) != 0) out.push_back(line);
}

void Utils::appendProperties(FILE* fp, const STRING& text, long long currentSize, bool utf16) {
    static const char16_t* const kOp = u"Utils::appendProperties";
    if (fp == nullptr) throw IDSException(-1, kOp, u"Error fp is NULL");
    if (utf16) {
        if (currentSize <= 0) {
            static const unsigned char bom[2] = {0xFF, 0xFE};
            if (std::fwrite(bom, 1, 2, fp) != 2) throw IDSException(errno, kOp, u"Could not write Unicode Header ");
        }
        std::string bytes;
        bytes.reserve(text.length() * 2);
        for (char16_t c : text.str()) {
            bytes += static_cast<char>(c & 0xFF);
            bytes += static_cast<char>(c >> 8);
        }
        if (!bytes.empty() && std::fwrite(bytes.data(), 2, text.length(), fp) != text.length()) {
            throw IDSException(errno, kOp, u"Could not write Unicode Data");
        }
    } else {
        const std::string bytes = text.toUtf8();
        if (!bytes.empty() && std::fwrite(bytes.data(), 1, bytes.size(), fp) != bytes.size()) {
            throw IDSException(errno, kOp, u"Could not write Unicode Data");
        }
    }
    if (!commitToDisk(fp)) throw IDSException(errno, kOp, u"Could not write Unicode Data");
}

void Utils::writeLines(const STRING& path, const std::vector<STRING>& lines, bool utf16, bool append) {
    const long long size = fileTextSize(path);
    errno = 0;
    FilePtr fp(openForWriting(path, append ? WriteMode::Append : WriteMode::Truncate));
    if (!fp) throw IDSException(errno, u"Utils::writeLines", STRING(u"Could not open file : ") + path);
    STRING text;
    for (const auto& l : lines) {
        text += l;
        text += u"\r\n";
    }
    appendProperties(fp.get(), text, size, utf16);
    if (std::fclose(fp.release()) != 0) {
        throw IDSException(errno, u"Utils::appendProperties", u"Could not write Unicode Data");
    }
}

long long Utils::fileTextSize(const STRING& path) {
    if (path.empty()) return -1;
    FilePtr fp(openFile(path, "rb"));
    if (!fp) return -1;
    const bool utf16 = probeUnicode(fp.get());
    if (std::fseek(fp.get(), 0, SEEK_END) != 0) return -1;
    const long long size = std::ftell(fp.get());
    return utf16 ? size - 2 : size;
}

char16_t* Utils::tokWrapper(char16_t* text, const char16_t* delimiters, char16_t** context) {
    auto isDelim = [delimiters](char16_t c) {
        for (const char16_t* d = delimiters; *d; ++d)
            if (*d == c) return true;
        return false;
    };
    char16_t* p = text != nullptr ? text : (context ? *context : nullptr);
    if (p != nullptr) {
        while (*p && isDelim(*p)) ++p;
    }
    if (p == nullptr || *p == 0) {
        if (context) *context = p;
        throw IDSException(16, u"tokWrapper", u"NullPointer returned form tcstok");
    }
    char16_t* token = p;
    while (*p && !isDelim(*p)) ++p;
    if (*p) *p++ = 0;
    *context = p;
    return token;
}

std::u16string_view Utils::pairText(std::u16string_view text, std::u16string& scratch) {
    if (text.find(u'\n') == std::u16string_view::npos && (text.empty() || text.back() != u'\r')) return text;
    STRING folded;
    foldLineBreaks(STRING(text), folded);
    scratch = folded.str();
    while (!scratch.empty() && scratch.back() == u'\r') scratch.pop_back();
    return scratch;
}

STRING Utils::pairLine(const STRING& name, const STRING& value) {
    std::u16string scratch;
    std::u16string line(pairText(name.str(), scratch));
    line += u'=';
    line += pairText(value.str(), scratch);
    return STRING(std::move(line));
}

void Utils::foldLineBreaks(const STRING& in, STRING& out) {
    std::u16string result;
    const std::u16string& s = in.str();
    result.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == u'\r' && i + 1 < s.size() && s[i + 1] == u'\n') {
            result += u"#&nl!";
            ++i;
        } else if (s[i] == u'\n') {
            result += u"#&nl!";
        } else {
            result += s[i];
        }
    }
    out = STRING(std::move(result));
}
