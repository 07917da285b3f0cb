// The host's cache service: file contents kept in sparse files on disk, filled
// on demand from the remote, kept across restarts and evicted by age.
#ifndef SKARVO_SERVICES_DISK_CACHE_H_
#define SKARVO_SERVICES_DISK_CACHE_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "libfilesystem/async.h"
#include "libfilesystem/cache.h"
#include "libfilesystem/log.h"
#include "services/cache_context.h"
#include "services/cache_entry.h"
#include "services/dir_lock.h"

struct DiskCacheOptions {
    // Used for a new cache folder; a folder keeps the block size it was made with.
    uint32_t blockSize = 64 * 1024;
    uint32_t readAheadBlocks = 16;  // how far sequential reads fetch ahead; 0: never
    uint32_t maxFetchBlocks = 256;  // the longest range asked for in one fetch
};

// Layout of the cache folder:
//   lock              held with flock while a cache uses the folder
//   index             the entries, least recently used first
//   data/<name>.data  the sparse copy of one file
//   data/<name>.map   its key, size and block map
// Entry names derive from a hash of the key and never change, so a rekey only
// rewrites the entry's .map file, in one atomic rename.
//
// When the cache holds more than its limit, closed entries without written
// data go, least recently used first. Entries holding written data that was
// not committed are never evicted; the cache grows past its limit for them
// and logs a warning.
class DiskCache : public ICacheService, public std::enable_shared_from_this<DiskCache> {
  public:
    // Opens, or creates, the cache in `dir` and restores what it held. Null,
    // with the reason in *error, when the folder cannot be used, among others
    // when another process (or another cache in this one) uses it. `queue`
    // runs read-ahead (none without it) and must outlive the cache; `log` may
    // be null.
    static std::shared_ptr<DiskCache> Create(const std::string& dir, uint64_t maxBytes,
                                             IAsyncQ* queue, ILog* log, std::string* error,
                                             const DiskCacheOptions& options = DiskCacheOptions());
    // Waits for read-ahead to end and saves everything. Objects still held
    // fail with CACHE_NOT_OPENED afterwards.
    ~DiskCache() override;

    DiskCache(const DiskCache&) = delete;
    DiskCache& operator=(const DiskCache&) = delete;

    AERROR GetUsage(unsigned long long* used, unsigned long long* unsent) override;
    AERROR Flush() override;
    // FILE_NOT_FOUND for an unknown key, SHARING_VIOLATION while it is open.
    AERROR Remove(const char* key) override;
    std::shared_ptr<ICacheObj> Open(const char* key, char mode, long long size,
                                    IFetch* fetcher) override;
    void Close(const char* key) override;
    AERROR Rekey(const char* oldKey, const char* newKey, const char* extra) override;

    uint32_t BlockSize() const { return context_->blockSize; }
    size_t EntryCount() const;
    // Keys of the entries holding written data not yet committed.
    std::vector<std::string> UnsentKeys() const;

  private:
    DiskCache(std::string dir, uint64_t maxBytes, std::shared_ptr<CacheContext> context,
              std::unique_ptr<DirLock> lock);

    void Restore();
    void Trim(bool released);
    CacheEntry::Files FilesFor(const std::string& name) const;
    std::string NewNameLocked(const std::string& key) const;
    bool SaveIndexLocked(bool durable);
    void Log(LOGLEVEL level, const char* format, ...) const __attribute__((format(printf, 3, 4)));

    const std::string dir_;
    const std::string dataDir_;
    const uint64_t maxBytes_;
    const std::shared_ptr<CacheContext> context_;
    const std::unique_ptr<DirLock> lock_;

    // Closes and commits, after which entries may have become evictable.
    std::atomic<uint64_t> releases_{0};
    std::atomic<bool> overLimitWarned_{false};

    mutable std::mutex mutex_;  // taken before any entry's own lock
    std::unordered_map<std::string, std::shared_ptr<CacheEntry>> entries_;  // by key
    std::set<std::string> names_;            // of entries, and of files that could not be read
    uint64_t fruitlessTrimAt_ = UINT64_MAX;  // releases_ when a trim last found nothing
    bool stopped_ = false;
};

#endif  // SKARVO_SERVICES_DISK_CACHE_H_
