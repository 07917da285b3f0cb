// Settings and counters shared by the disk cache and all of its entries.
#ifndef SKARVO_SERVICES_CACHE_CONTEXT_H_
#define SKARVO_SERVICES_CACHE_CONTEXT_H_

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <string>

#include "libfilesystem/aerror.h"
#include "libfilesystem/async.h"
#include "libfilesystem/log.h"
#include "services/make_dirs.h"

class CacheIndex;

struct CacheContext {
    uint32_t blockSize = 64 * 1024;
    uint32_t readAheadBlocks = 16;  // 0 turns read-ahead off
    uint32_t maxFetchBlocks = 256;  // the longest range asked for in one fetch
    IAsyncQ* queue = nullptr;       // runs read-ahead; null: no read-ahead
    ILog* log = nullptr;            // optional
    std::string folder;             // the cache's folder, for messages
    std::string dataFolder;         // where the data files are
    CacheIndex* index = nullptr;    // the entries' rows; outlives every entry
    std::string bootId;             // this boot of the machine; "": unknown

    std::atomic<uint64_t> usedBytes{0};    // bytes of the blocks held
    std::atomic<uint64_t> unsentBytes{0};  // of which written and not committed
    std::atomic<uint64_t> clock{0};        // ticks of use, for least-recently-used order
    std::atomic<bool> full{false};         // the folder's disk refused data; not yet said again
    std::atomic<bool> newNames{false};     // data files created since the data folder's last sync

    // The code for a write to the cache's files that failed with `error`: a
    // full disk (or quota) is CACHE_TOO_SMALL, which the volume answers with
    // ENOSPC; anything else is CACHE_WRITE_FAILED (EIO).
    static AERROR WriteFailure(int error) {
        return error == ENOSPC || error == EDQUOT ? CACHE_TOO_SMALL : CACHE_WRITE_FAILED;
    }

    // Says that the disk is full, once until some data fits again.
    void NoteFull() {
        if (full.exchange(true) || log == nullptr) return;
        log->Log(LL_ERROR,
                 "[CACHE] the cache folder %s is full: free space on its disk or choose a larger "
                 "one with --cache-dir; writes to the volume fail with ENOSPC (No space left on "
                 "device) until then. %llu bytes not yet uploaded are kept",
                 folder.c_str(), static_cast<unsigned long long>(unsentBytes.load()));
    }
    // Makes the names of data files created since the last call durable by
    // syncing their folder; false when that failed.
    bool SyncNewNames() {
        if (!newNames.exchange(false)) return true;
        if (SyncFolder(dataFolder)) return true;
        newNames = true;
        return false;
    }
    // Data fitted again: a later full disk is a new episode, said again.
    void NoteRoom() {
        if (full.load()) full = false;
    }
};

#endif  // SKARVO_SERVICES_CACHE_CONTEXT_H_
