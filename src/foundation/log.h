// Logs.
//
// RotatingLog writes one line per record, comma-separated:
//   type word, sequence number, local ISO-8601 time stamp, operation label,
//   message number (empty when none), "text" (quotes doubled, line breaks
//   folded to "#&nl!")
// When a record would take the file past its size limit, the file becomes
// ".1" and older generations shift up to ".5".
//
// AgentLog is the agent's log: it keeps records only when the process is the
// agent (role 1), and trace records ("TRAC") only when tracing is on.
// ConfigToolLog is this tool's own audit log, "zelipsconfigtool.log" in the
// agent's log folder, limited to 10,240,000 bytes.
#pragma once

#include <memory>

#include "foundation/catalog_messages.h"
#include "foundation/format.h"
#include "foundation/message_catalog.h"
#include "foundation/string.h"
#include "foundation/sync.h"

// Where a log's records go.
class LogPointer {
public:
    virtual ~LogPointer() = default;
    virtual bool append(const std::string& bytes) = 0;
    virtual long long size() = 0;
    // Moves the current file to generation 1, shifting older ones up.
    virtual void rotate(int generations) = 0;
};

class FileLogPointer : public LogPointer {
public:
    explicit FileLogPointer(STRING path) : path_(std::move(path)) {}
    bool append(const std::string& bytes) override;
    long long size() override;
    void rotate(int generations) override;
    const STRING& path() const { return path_; }

private:
    STRING path_;
};

class RotatingLog {
public:
    static constexpr int kGenerations = 5;

    RotatingLog(STRING path, long long maxBytes);
    virtual ~RotatingLog() = default;

    // Writes one record; number < 0 means none. Returns false when the
    // record was dropped or could not be written.
    bool write(const STRING& type, const STRING& label, int number, const STRING& text);
    const STRING& path() const { return path_; }
    long long maxBytes() const { return maxBytes_; }

    // The record line, as written (without the line end).
    static STRING formatRecord(const STRING& type, unsigned long sequence, const STRING& stamp, const STRING& label,
                               int number, const STRING& text);

protected:
    virtual bool accepts(const STRING& type) const;

private:
    STRING path_;
    long long maxBytes_;
    std::unique_ptr<LogPointer> out_;
    unsigned long sequence_ = 0;
    RecursiveMutex mutex_;
};

class AgentLog : public RotatingLog {
public:
    static AgentLog& instance();
    // True when a record of this type would be kept: role 1, and for
    // "TRAC" with tracing on. Cheap: call it before formatting.
    static bool wouldWrite(bool trace);
    static void setTraceEnabled(bool on);
    static bool traceEnabled();

protected:
    bool accepts(const STRING& type) const override;

private:
    AgentLog();
};

class ConfigToolLog : public RotatingLog {
public:
    static constexpr long long kMaxBytes = 10240000;
    static ConfigToolLog& instance();

    // A numbered catalog message with its arguments, as many as its text
    // takes.
    template <int N, class... A>
    bool logNumbered(catalog::Message<N> message, const char16_t* label, const A&... args) {
        static_assert(sizeof...(A) == N, "the catalog's text takes another number of arguments");
        const CatalogRecord* r = MessageCatalog::instance().find(message.number);
        return write(r && !r->severity.empty() ? r->severity : STRING(u"INFO"), label, message.number,
                     MessageCatalog::instance().format(message.number, args...));
    }
    // Free text (the -log command).
    bool logText(const STRING& text) { return write(u"TEXT", u"AgentConfigTool::log", -1, text); }

private:
    ConfigToolLog();
};

// A trace line to the agent's log under an operation label.
template <class... A>
void trace(const char16_t* label, const char16_t* fmt, const A&... args) {
    if (!AgentLog::wouldWrite(true)) return;
    AgentLog::instance().write(u"TRAC", label, -1, formatString(fmt, args...));
}

// A numbered catalog message to the agent's log, with as many arguments as
// its text takes.
template <int N, class... A>
void logMessage(catalog::Message<N> message, const char16_t* label, const A&... args) {
    static_assert(sizeof...(A) == N, "the catalog's text takes another number of arguments");
    if (!AgentLog::wouldWrite(false)) return;
    const CatalogRecord* r = MessageCatalog::instance().find(message.number);
    AgentLog::instance().write(r && !r->severity.empty() ? r->severity : STRING(u"INFO"), label, message.number,
                               MessageCatalog::instance().format(message.number, args...));
}
