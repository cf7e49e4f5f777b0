#include "foundation/date.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <mutex>

namespace {

std::mutex& timeLock() {
    static std::mutex m;
    return m;
}

// Floor division, so that times before 1970 split correctly.
int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

std::tm breakDown(int64_t seconds, bool utc) {
    const auto t = static_cast<std::time_t>(seconds);
    std::lock_guard<std::mutex> guard(timeLock());
    const std::tm* p = utc ? std::gmtime(&t) : std::localtime(&t);
    if (p == nullptr) return std::tm{};
    return *p;
}

}  // namespace

Date Date::now() {
    using namespace std::chrono;
    return Date(duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
}

STRING Date::formatUtc() const {
    const std::tm tm = breakDown(floorDiv(ms_, 1000), true);
    char buf[96];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
                  tm.tm_hour, tm.tm_min, tm.tm_sec);
    return STRING::fromUtf8(buf);
}

STRING Date::formatLocalIso() const {
    const std::tm tm = breakDown(floorDiv(ms_, 1000), false);
    char buf[96];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03d", tm.tm_year + 1900, tm.tm_mon + 1,
                  tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms_ - floorDiv(ms_, 1000) * 1000));
    return STRING::fromUtf8(buf);
}

STRING Date::formatLocal(const char* pattern) const {
    const std::tm tm = breakDown(floorDiv(ms_, 1000), false);
    char buf[128];
    const size_t n = std::strftime(buf, sizeof buf, pattern, &tm);
    return STRING::fromUtf8(std::string_view(buf, n));
}
