// The one routine that writes user-visible text: formatted, to standard
// output. Nothing is written to standard error.
#pragma once

#include "foundation/format.h"

// Writes already formatted text to standard output.
void consoleWrite(const STRING& text);

template <class... A>
void ConsolePrint(const char16_t* fmt, const A&... args) {
    consoleWrite(formatString(fmt, args...));
}
