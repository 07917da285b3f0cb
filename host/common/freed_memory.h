// Giving the heap that the process freed back to the system.
#ifndef SKARVO_COMMON_FREED_MEMORY_H_
#define SKARVO_COMMON_FREED_MEMORY_H_

#include <cstddef>

// The allocator keeps what is freed for reuse: after a burst of work, such as
// thousands of files created and deleted, that is tens of MiB the daemon no
// longer uses. Returns it to the system when more than `threshold` bytes lie
// free; cheap enough to call once a second. Does nothing where the C library
// cannot tell.
void ReturnFreedMemory(size_t threshold = 4u << 20);

// Gives the allocator one arena per core instead of the C library's eight:
// with about twenty threads, each kept a heap of its own, mostly free
// between bursts of work. Measured with 10,000 entries listed after a
// tarball was extracted and removed, on 2 cores: peak resident memory 36.4
// MiB before, 33.0 after, with reads and random-read IOPS unchanged. Call it
// before any thread starts; MALLOC_ARENA_MAX in the environment wins.
void LimitHeapArenas();

#endif  // SKARVO_COMMON_FREED_MEMORY_H_
