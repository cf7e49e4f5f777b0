// Bounds-checked arrays: Array<T> and the byte buffer ByteArray.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "foundation/ids_exception.h"

template <class T>
class Array {
public:
    Array() = default;
    explicit Array(size_t n) : v_(n) {}
    Array(const T* data, size_t n) : v_(data, data + n) {}

    T operator[](int i) const {
        if (i < 0 || static_cast<size_t>(i) >= v_.size()) throw IndexOutOfRange();
        return v_[static_cast<size_t>(i)];
    }
    T& at(int i) {
        if (i < 0 || static_cast<size_t>(i) >= v_.size()) throw IndexOutOfRange();
        return v_[static_cast<size_t>(i)];
    }
    size_t length() const { return v_.size(); }
    bool empty() const { return v_.empty(); }
    void resize(size_t n) { v_.resize(n); }
    void clear() { v_.clear(); }
    void append(const T& x) { v_.push_back(x); }
    void append(const T* data, size_t n) { v_.insert(v_.end(), data, data + n); }
    T* data() { return v_.data(); }
    const T* data() const { return v_.data(); }
    const std::vector<T>& vec() const { return v_; }
    std::vector<T>& vec() { return v_; }

private:
    std::vector<T> v_;
};

class ByteArray : public Array<uint8_t> {
public:
    using Array<uint8_t>::Array;
    using Array<uint8_t>::append;
    void append(const char* data, size_t n) { Array<uint8_t>::append(reinterpret_cast<const uint8_t*>(data), n); }
    void append(const ByteArray& other) { Array<uint8_t>::append(other.data(), other.length()); }
    void appendU32(uint32_t v) {
        const uint8_t b[4] = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
                              static_cast<uint8_t>(v >> 24)};
        Array<uint8_t>::append(b, 4);
    }
    // Little-endian 32-bit read at a byte offset; throws IndexOutOfRange past the end.
    uint32_t readU32(size_t offset) const {
        if (offset + 4 > length() || offset + 4 < offset) throw IndexOutOfRange();
        const uint8_t* p = data() + offset;
        return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
    }
};
