// Points in time with millisecond resolution, and their text forms.
#pragma once

#include <cstdint>

#include "foundation/string.h"

class Date {
public:
    explicit Date(int64_t millisSinceEpoch = 0) : ms_(millisSinceEpoch) {}
    static Date now();

    int64_t millis() const { return ms_; }
    int64_t seconds() const { return ms_ / 1000; }

    // "YYYY-MM-DD hh:mm:ss" in UTC.
    STRING formatUtc() const;
    // "YYYY-MM-DDThh:mm:ss.mmm" in local time (ISO 8601).
    STRING formatLocalIso() const;
    // strftime pattern applied to local time (e.g. "%Y%m%d%H%M%S").
    STRING formatLocal(const char* pattern) const;

private:
    int64_t ms_;
};
