#include "foundation/log.h"

#include <atomic>
#include <cerrno>
#include <cstdio>

#include "foundation/date.h"
#include "foundation/file_util.h"
#include "foundation/process_role.h"
#include "foundation/system_info.h"
#include "foundation/utils.h"

namespace {
#ifdef _WIN32
const char kLineEnd[] = "\r\n";
#else
const char kLineEnd[] = "\n";
#endif
std::atomic<bool> g_trace{false};
}  // namespace

bool FileLogPointer::append(const std::string& bytes) {
    // A link planted at the log's name is refused, not written through.
    FILE* fp = openForWriting(path_, WriteMode::Append);
    if (fp == nullptr && errno == ENOENT) {
        Directory::createAll(Directory::parentOf(path_));
        fp = openForWriting(path_, WriteMode::Append);
    }
    if (fp == nullptr) return false;
    const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), fp) == bytes.size();
    return std::fclose(fp) == 0 && ok;
}

long long FileLogPointer::size() {
    const long long n = fileSize(path_);
    return n < 0 ? 0 : n;
}

void FileLogPointer::rotate(int generations) {
    auto gen = [this](int i) { return path_ + u"." + STRING::number(i); };
    removeFile(gen(generations));
    for (int i = generations - 1; i >= 1; --i) renameFile(gen(i), gen(i + 1));
    renameFile(path_, gen(1));
}

RotatingLog::RotatingLog(STRING path, long long maxBytes)
    : path_(std::move(path)), maxBytes_(maxBytes), out_(new FileLogPointer(path_)) {}

bool RotatingLog::accepts(const STRING&) const { return true; }

STRING RotatingLog::formatRecord(const STRING& type, unsigned long sequence, const STRING& stamp, const STRING& label,
                                 int number, const STRING& text) {
    STRING folded;
    Utils::foldLineBreaks(text.replaceAll(u"\"", u"\"\""), folded);
    return formatString(u"%s,%lu,%s,%s,%s,\"%s\"", type, sequence, stamp, label,
                        number < 0 ? STRING() : STRING::number(number), folded);
}

bool RotatingLog::write(const STRING& type, const STRING& label, int number, const STRING& text) {
    if (!accepts(type)) return false;
    Synchronized guard(mutex_);
    const std::string line =
        formatRecord(type, ++sequence_, Date::now().formatLocalIso(), label, number, text).toUtf8() + kLineEnd;
    const long long current = out_->size();
    if (current > 0 && current + static_cast<long long>(line.size()) > maxBytes_) out_->rotate(kGenerations);
    return out_->append(line);
}

AgentLog::AgentLog() : RotatingLog(joinPath(SystemInfo::getLogInstallRoot(), u"agentinitial.log"), 10240000) {}

AgentLog& AgentLog::instance() {
    static AgentLog log;
    return log;
}

bool AgentLog::wouldWrite(bool traceRecord) {
    return ProcessRole::get() == ProcessRole::Agent && (!traceRecord || g_trace.load());
}

void AgentLog::setTraceEnabled(bool on) { g_trace.store(on); }
bool AgentLog::traceEnabled() { return g_trace.load(); }

bool AgentLog::accepts(const STRING& type) const { return wouldWrite(type == STRING(u"TRAC")); }

ConfigToolLog::ConfigToolLog()
    : RotatingLog(joinPath(SystemInfo::getLogInstallRoot(), u"zelipsconfigtool.log"), kMaxBytes) {}

ConfigToolLog& ConfigToolLog::instance() {
    static ConfigToolLog log;
    return log;
}
