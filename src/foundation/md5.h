// MD5 digests from the platform's maintained implementation (libmd on Linux,
// CNG on Windows).
#pragma once

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

// The digest of the bytes as 32 lower-case hexadecimal digits.
std::string md5Hex(const void* data, size_t size);

// The same digest over bytes that arrive in pieces, so that a large text
// need not be gathered into one buffer first.
class Md5 {
public:
    Md5();
    ~Md5();
    Md5(const Md5&) = delete;
    Md5& operator=(const Md5&) = delete;

    void update(const void* data, size_t size);
    // The digest of every byte given so far, as md5Hex gives it. Call it
    // once: the object takes no further bytes afterwards.
    std::string hexDigest();

private:
    // The platform's digest state, kept in place (no allocation).
    alignas(16) unsigned char state_[128];
};

// The digest of UTF-16 text taken as its UTF-16LE bytes, the text given in
// pieces of any size; the bytes reach the digest in blocks.
class Utf16leMd5 {
public:
    void add(std::u16string_view text) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        // The text's own storage is its UTF-16LE bytes: a long text goes to
        // the digest as it stands, a short one is gathered into the block.
        const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text.data());
        size_t size = text.size() * 2;
        if (size >= sizeof block_) {
            flush();
            md5_.update(bytes, size);
            return;
        }
        while (size > 0) {
            const size_t take = size < sizeof block_ - used_ ? size : sizeof block_ - used_;
            std::memcpy(block_ + used_, bytes, take);
            used_ += take;
            bytes += take;
            size -= take;
            if (used_ == sizeof block_) flush();
        }
        return;
#endif
        for (const char16_t c : text) {
            block_[used_++] = static_cast<unsigned char>(c & 0xFF);
            block_[used_++] = static_cast<unsigned char>(c >> 8);
            if (used_ == sizeof block_) flush();
        }
    }
    // As Md5::hexDigest: call it once.
    std::string hexDigest() {
        flush();
        return md5_.hexDigest();
    }

private:
    void flush() {
        md5_.update(block_, used_);
        used_ = 0;
    }

    Md5 md5_;
    unsigned char block_[8192];
    size_t used_ = 0;
};
