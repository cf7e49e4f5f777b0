#include "foundation/large_pages.h"

// Large pages on Windows need a privilege that the program does not ask
// for: buffers come from the heap as any other.
void* allocateBufferMemory(size_t bytes) { return ::operator new(bytes); }

void releaseBufferMemory(void* p, size_t) noexcept { ::operator delete(p); }
