#include "foundation/console.h"

#include <cstdio>

// Linux writes UTF-8. Windows writes the narrow (ANSI code page) form through
// the C runtime's text-mode stdout, as a wide print to a redirected console does.
void consoleWrite(const STRING& text) {
    const std::string bytes = text.toNarrow();
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
    std::fflush(stdout);
}

// Each piece goes to the C runtime's stream as it comes: a large piece is
// written through at once, small ones are gathered in the stream's buffer.
void ConsoleStream::write(std::u16string_view piece) {
    const std::string bytes = STRING::toNarrow(piece);
    std::fwrite(bytes.data(), 1, bytes.size(), stdout);
}

ConsoleStream::~ConsoleStream() { std::fflush(stdout); }
