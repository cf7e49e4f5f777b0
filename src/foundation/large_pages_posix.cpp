#include <sys/mman.h>

#include <cstdint>

#include "foundation/large_pages.h"

namespace {

constexpr size_t kLargePage = size_t(2) << 20;  // x86-64's and arm64's 2 MB pages
// From this size up to a large buffer, a buffer is mapped with all its pages
// at once: one system call instead of a page fault for every 4 KB.
constexpr size_t kMappedBufferBytes = size_t(64) << 10;

size_t mappedSize(size_t bytes) { return (bytes + kLargePage - 1) & ~(kLargePage - 1); }

}  // namespace

void* allocateBufferMemory(size_t bytes) {
    if (bytes < kMappedBufferBytes) return ::operator new(bytes);
    if (bytes < kLargeBufferBytes) {
        void* p = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
        if (p == MAP_FAILED) throw std::bad_alloc();
        return p;
    }
    // Mapped one large page too long, then cut to a large page boundary:
    // only a region that covers whole aligned large pages can use them.
    const size_t size = mappedSize(bytes);
    void* raw = ::mmap(nullptr, size + kLargePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (raw == MAP_FAILED) throw std::bad_alloc();
    const uintptr_t start = reinterpret_cast<uintptr_t>(raw);
    const uintptr_t aligned = (start + kLargePage - 1) & ~(kLargePage - 1);
    if (aligned > start) ::munmap(raw, aligned - start);
    const size_t tail = kLargePage - (aligned - start);
    if (tail > 0) ::munmap(reinterpret_cast<void*>(aligned + size), tail);
#ifdef MADV_HUGEPAGE
    ::madvise(reinterpret_cast<void*>(aligned), size, MADV_HUGEPAGE);  // a hint: refused is fine
#endif
    return reinterpret_cast<void*>(aligned);
}

void releaseBufferMemory(void* p, size_t bytes) noexcept {
    if (p == nullptr) return;
    if (bytes < kMappedBufferBytes) {
        ::operator delete(p);
        return;
    }
    ::munmap(p, bytes < kLargeBufferBytes ? bytes : mappedSize(bytes));
}
