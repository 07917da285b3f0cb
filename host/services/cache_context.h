// Settings and counters shared by the disk cache and all of its entries.
#ifndef SKARVO_SERVICES_CACHE_CONTEXT_H_
#define SKARVO_SERVICES_CACHE_CONTEXT_H_

#include <atomic>
#include <cstdint>

#include "libfilesystem/async.h"
#include "libfilesystem/log.h"

struct CacheContext {
    uint32_t blockSize = 64 * 1024;
    uint32_t readAheadBlocks = 16;  // 0 turns read-ahead off
    uint32_t maxFetchBlocks = 256;  // the longest range asked for in one fetch
    IAsyncQ* queue = nullptr;       // runs read-ahead; null: no read-ahead
    ILog* log = nullptr;            // optional

    std::atomic<uint64_t> usedBytes{0};    // bytes of the blocks held
    std::atomic<uint64_t> unsentBytes{0};  // of which written and not committed
    std::atomic<uint64_t> clock{0};        // ticks of use, for least-recently-used order
};

#endif  // SKARVO_SERVICES_CACHE_CONTEXT_H_
