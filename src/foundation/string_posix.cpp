// Narrow text on Linux is UTF-8.
#include "foundation/string.h"

STRING STRING::fromNarrow(std::string_view in) { return fromUtf8(in); }
std::string STRING::toNarrow(std::u16string_view text) { return toUtf8(text); }
