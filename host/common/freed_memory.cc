#include "common/freed_memory.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <thread>

void ReturnFreedMemory(size_t threshold) {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 33)
    // Sums the free chunks of every arena, the threads' included.
    if (mallinfo2().fordblks > threshold) malloc_trim(0);
#else
    (void)threshold;
#endif
}

void LimitHeapArenas() {
#if defined(__GLIBC__)
    if (getenv("MALLOC_ARENA_MAX") != nullptr) return;
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    mallopt(M_ARENA_MAX, static_cast<int>(cores));
#endif
}
