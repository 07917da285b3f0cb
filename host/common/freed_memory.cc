#include "common/freed_memory.h"

#include <malloc.h>

void ReturnFreedMemory(size_t threshold) {
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 33)
    // Sums the free chunks of every arena, the threads' included.
    if (mallinfo2().fordblks > threshold) malloc_trim(0);
#else
    (void)threshold;
#endif
}
