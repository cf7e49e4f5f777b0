#include <md5.h>

#include <cstdint>
#include <new>

#include "foundation/md5.h"

namespace {

std::string hexOf(const uint8_t (&digest)[MD5_DIGEST_LENGTH]) {
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (uint8_t b : digest) {
        out += hex[b >> 4];
        out += hex[b & 0xF];
    }
    return out;
}

}  // namespace

std::string md5Hex(const void* data, size_t size) {
    MD5_CTX ctx;
    MD5Init(&ctx);
    MD5Update(&ctx, static_cast<const uint8_t*>(data), size);
    uint8_t digest[MD5_DIGEST_LENGTH];
    MD5Final(digest, &ctx);
    return hexOf(digest);
}

static_assert(sizeof(MD5_CTX) <= 128 && alignof(MD5_CTX) <= 16, "Md5::state_ holds an MD5_CTX");

Md5::Md5() { MD5Init(new (state_) MD5_CTX); }

Md5::~Md5() { std::launder(reinterpret_cast<MD5_CTX*>(state_))->~MD5_CTX(); }

void Md5::update(const void* data, size_t size) {
    MD5Update(std::launder(reinterpret_cast<MD5_CTX*>(state_)), static_cast<const uint8_t*>(data), size);
}

std::string Md5::hexDigest() {
    uint8_t digest[MD5_DIGEST_LENGTH];
    MD5Final(digest, std::launder(reinterpret_cast<MD5_CTX*>(state_)));
    return hexOf(digest);
}
