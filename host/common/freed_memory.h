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

#endif  // SKARVO_COMMON_FREED_MEMORY_H_
