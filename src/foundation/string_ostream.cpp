// STRING on a standard stream (test diagnostics), apart from string.cpp so
// that a program that never prints to a stream does not link the streams.
#include <ostream>

#include "foundation/string.h"

std::ostream& operator<<(std::ostream& os, const STRING& s) { return os << s.toUtf8(); }
