// Buffers of many megabytes on large pages where the system has them, so
// that filling one takes a few page faults instead of thousands.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

// Memory for a buffer: one of at least kLargeBufferBytes is placed on the
// system's large pages where it can be (Linux: aligned to them and marked
// for transparent huge pages), a smaller one comes from operator new.
// releaseBufferMemory must be given the same size.
constexpr size_t kLargeBufferBytes = size_t(1) << 20;
void* allocateBufferMemory(size_t bytes);
void releaseBufferMemory(void* p, size_t bytes) noexcept;

// A standard allocator over those two, for the containers that may grow to
// the size of a whole large file.
template <typename T>
struct LargeBufferAllocator {
    using value_type = T;
    LargeBufferAllocator() = default;
    template <typename U>
    LargeBufferAllocator(const LargeBufferAllocator<U>&) noexcept {}
    T* allocate(size_t n) {
        if (n > size_t(-1) / sizeof(T)) throw std::bad_alloc();
        return static_cast<T*>(allocateBufferMemory(n * sizeof(T)));
    }
    void deallocate(T* p, size_t n) noexcept { releaseBufferMemory(p, n * sizeof(T)); }
    // Room that resize() adds is left as it is, not cleared: the caller
    // fills it at once, and a large buffer is not written twice.
    template <typename U>
    void construct(U* p) noexcept {
        ::new (static_cast<void*>(p)) U;
    }
    template <typename U, typename... A>
    void construct(U* p, A&&... args) {
        ::new (static_cast<void*>(p)) U(std::forward<A>(args)...);
    }
    template <typename U>
    bool operator==(const LargeBufferAllocator<U>&) const noexcept {
        return true;
    }
    template <typename U>
    bool operator!=(const LargeBufferAllocator<U>&) const noexcept {
        return false;
    }
};
