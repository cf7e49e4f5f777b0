#include <md5.h>

#include <cstdint>

#include "foundation/md5.h"

std::string md5Hex(const void* data, size_t size) {
    MD5_CTX ctx;
    MD5Init(&ctx);
    MD5Update(&ctx, static_cast<const uint8_t*>(data), size);
    uint8_t digest[MD5_DIGEST_LENGTH];
    MD5Final(digest, &ctx);
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (uint8_t b : digest) {
        out += hex[b >> 4];
        out += hex[b & 0xF];
    }
    return out;
}
