// MD5 digests from the platform's maintained implementation (libmd on Linux,
// CNG on Windows).
#pragma once

#include <cstddef>
#include <string>

// The digest of the bytes as 32 lower-case hexadecimal digits.
std::string md5Hex(const void* data, size_t size);
