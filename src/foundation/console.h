// The one routine that writes user-visible text: formatted, to standard
// output. Nothing is written to standard error.
#pragma once

#include "foundation/format.h"

// Writes already formatted text to standard output.
void consoleWrite(const STRING& text);

// Output of a long text given in pieces: each piece is converted as
// consoleWrite converts text and written as it comes, and standard output is
// flushed when the stream is done. The output is the same as one
// consoleWrite of all the pieces joined, provided no piece ends inside a
// surrogate pair.
class ConsoleStream {
public:
    ConsoleStream() = default;
    ~ConsoleStream();
    ConsoleStream(const ConsoleStream&) = delete;
    ConsoleStream& operator=(const ConsoleStream&) = delete;

    void write(std::u16string_view piece);
};

template <class... A>
void ConsolePrint(const char16_t* fmt, const A&... args) {
    consoleWrite(formatString(fmt, args...));
}
