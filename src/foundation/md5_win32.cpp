#include <windows.h>

#include <bcrypt.h>

#include <new>

#include "foundation/md5.h"

#ifndef NT_SUCCESS
#define NT_SUCCESS(status) (((NTSTATUS)(status)) >= 0)
#endif

namespace {

std::string hexOf(const UCHAR (&digest)[16]) {
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (UCHAR b : digest) {
        out += hex[b >> 4];
        out += hex[b & 0xF];
    }
    return out;
}

// An open CNG hash; ok turns false at the first failure, and the digest is
// then empty, as md5Hex reports a failure.
struct HashState {
    BCRYPT_ALG_HANDLE alg = nullptr;
    BCRYPT_HASH_HANDLE hash = nullptr;
    bool ok = false;

    HashState() {
        ok = NT_SUCCESS(BCryptOpenAlgorithmProvider(&alg, BCRYPT_MD5_ALGORITHM, nullptr, 0));
        ok = ok && NT_SUCCESS(BCryptCreateHash(alg, &hash, nullptr, 0, nullptr, 0, 0));
    }
    ~HashState() {
        if (hash) BCryptDestroyHash(hash);
        if (alg) BCryptCloseAlgorithmProvider(alg, 0);
    }
    void update(const void* data, size_t size) {
        // CNG takes at most 4 GiB minus one byte per call.
        const auto* p = static_cast<const UCHAR*>(data);
        while (ok && size > 0) {
            const ULONG n = size > 0x40000000u ? 0x40000000u : static_cast<ULONG>(size);
            ok = NT_SUCCESS(BCryptHashData(hash, const_cast<PUCHAR>(p), n, 0));
            p += n;
            size -= n;
        }
    }
    std::string finish() {
        UCHAR digest[16] = {};
        ok = ok && NT_SUCCESS(BCryptFinishHash(hash, digest, sizeof digest, 0));
        return ok ? hexOf(digest) : std::string();
    }
};

}  // namespace

std::string md5Hex(const void* data, size_t size) {
    HashState state;
    if (size > 0) state.update(data, size);
    return state.finish();
}

static_assert(sizeof(HashState) <= 128 && alignof(HashState) <= 16, "Md5::state_ holds a HashState");

Md5::Md5() { new (state_) HashState; }

Md5::~Md5() { std::launder(reinterpret_cast<HashState*>(state_))->~HashState(); }

void Md5::update(const void* data, size_t size) {
    if (size > 0) std::launder(reinterpret_cast<HashState*>(state_))->update(data, size);
}

std::string Md5::hexDigest() { return std::launder(reinterpret_cast<HashState*>(state_))->finish(); }
