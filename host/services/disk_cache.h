// The host's cache service: file contents kept in sparse files on disk, filled
// on demand from the remote, kept across restarts and evicted by age.
#ifndef SKARVO_SERVICES_DISK_CACHE_H_
#define SKARVO_SERVICES_DISK_CACHE_H_

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/boot_id.h"
#include "common/status.h"
#include "libfilesystem/async.h"
#include "libfilesystem/cache.h"
#include "libfilesystem/log.h"
#include "services/cache_context.h"
#include "services/cache_entry.h"
#include "services/cache_index.h"
#include "services/dir_lock.h"

struct DiskCacheOptions {
    // Used for a new cache folder; a folder keeps the block size it was made with.
    uint32_t blockSize = 64 * 1024;
    uint32_t readAheadBlocks = 16;  // how far sequential reads fetch ahead; 0: never
    uint32_t maxFetchBlocks = 256;  // the longest range asked for in one fetch
    // This boot of the machine (CurrentBootId); "": rows are never saved
    // before their data is synced.
    std::string bootId = CurrentBootId();
};

// Layout of the cache folder:
//   lock              held with flock while a cache uses the folder
//   index.db          the entries' rows (key, size, block map, origin, last
//                     use): an SQLite database in WAL mode (CacheIndex)
//   data/<name>.data  the sparse copy of one file
// Entry names derive from a hash of the key and never change, so a rekey only
// updates the entry's row. A folder of an older version, with a text record
// per entry (data/<name>.map), has them imported into the index at start.
//
// The entry of a deleted file (noted to belong nowhere) goes when it is
// closed, its files and row with the next RemoveDropped. When the cache holds
// more than its limit, closed entries without written data go, least recently
// used first. Entries holding written data that was
// not committed are never evicted; the cache grows past its limit for them
// and logs a warning. When the folder's disk is full, a write first evicts
// closed clean entries to make room and is tried once more; if it still does
// not fit it fails with CACHE_TOO_SMALL (ENOSPC on the volume), changing
// nothing, and the log says once that the folder is full.
//
// ICacheObj::Sync makes an entry durable: its data file is synced, then the
// data folder when files were created in it, then its row is committed
// durably. It does nothing when nothing changed since the last durable save.
// Other changes of rows (closes, commits, origins, evictions) are committed
// without waiting for the disk: they survive a crash of skarvo, and a power
// cut once a later sync point or checkpoint passed.
class DiskCache : public ICacheService, public std::enable_shared_from_this<DiskCache> {
  public:
    // Opens, or creates, the cache in `dir`, restores what it held and puts
    // it in *created. Fails, saying why, when the folder cannot be used,
    // among others when another process (or another cache in this one) uses
    // it. `queue` runs read-ahead (none without it) and large batches of
    // RemoveDropped (inline without it), and must outlive the cache; `log`
    // may be null.
    static Status Create(const std::string& dir, uint64_t maxBytes, IAsyncQ* queue, ILog* log,
                         std::shared_ptr<DiskCache>* created,
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
    // Kept in the entry's record, with the remote named by its identity
    // (SetRemoteIdentities); notes of unknown keys are ignored. A closed
    // entry holding written data that is noted to belong nowhere (an empty
    // path: its file was deleted) is removed at once.
    void NoteOrigin(const char* key, const _CACHE_ORIGIN* origin) override;

    // The identities under which the remotes of the volume are recorded.
    // Set before the library can note origins.
    void SetRemoteIdentities(std::map<const IProtocol_V2*, std::string> identities);

    uint32_t BlockSize() const { return context_->blockSize; }
    size_t EntryCount() const;
    // An entry holding written data not yet committed.
    struct Unsent {
        std::string key;
        EntryOrigin origin;
        int64_t size = 0;              // of the file
        uint64_t bytes = 0;            // written and not committed
        bool mayBeIncomplete = false;  // see CacheEntry::MayBeIncomplete
    };
    // Every such entry, by key.
    std::vector<Unsent> UnsentEntries() const;
    // Deletes the data files and rows of the entries of deleted files, in
    // one transaction. The host calls it now and then (skarvo: once a
    // second); the cache calls it itself when many wait, and at the end.
    void RemoveDropped();

  private:
    DiskCache(std::string dir, uint64_t maxBytes, std::shared_ptr<CacheContext> context,
              std::unique_ptr<DirLock> lock, std::unique_ptr<CacheIndex> index);

    // Takes up the entries a previous run left in the folder, leaving the
    // data of the `kept` names alone.
    void Restore(const std::set<std::string>& kept);
    // Takes up the entry of `record` (whose data file must be among
    // `dataFiles`), adds its name to *dropped when its data is gone, or
    // leaves a row it cannot use alone.
    void RestoreEntryLocked(const EntryRecord& record, const std::set<std::string>& dataFiles,
                            std::vector<std::string>* dropped);
    // Forgets the closed entry of `key` at once, and its files and row with
    // the next RemoveDropped: a deleted file's unlink does not wait for them.
    void Drop(const std::string& key);
    void Trim(bool released);
    // Evicts closed clean entries, least recently used first, until about
    // `bytes` were freed; true when any went.
    bool MakeRoom(uint64_t bytes);
    // Evicts idle entries, least recently used first, until `enough` says
    // so; true when any went.
    template <typename Enough>
    bool EvictLocked(Enough&& enough);
    CacheEntry::Files FilesFor(const std::string& name) const;
    std::string NewNameLocked(const std::string& key) const;
    // Saves every entry's last use, durably.
    AERROR SaveLastUsesLocked();
    void Log(LOGLEVEL level, const char* format, ...) const __attribute__((format(printf, 3, 4)));

    const std::string dir_;
    const std::string dataDir_;
    const uint64_t maxBytes_;
    const std::shared_ptr<CacheContext> context_;
    const std::unique_ptr<DirLock> lock_;
    const std::unique_ptr<CacheIndex> index_;  // outlives the entries, which use it

    // Closes and commits, after which entries may have become evictable.
    std::atomic<uint64_t> releases_{0};
    std::atomic<bool> overLimitWarned_{false};

    mutable std::mutex mutex_;  // taken before any entry's own lock
    std::unordered_map<std::string, std::shared_ptr<CacheEntry>> entries_;  // by key
    std::set<std::string> names_;       // of entries, and of files that could not be read
    std::vector<std::string> dropped_;  // names whose files and rows are to go
    std::map<const IProtocol_V2*, std::string> identities_;
    uint64_t fruitlessTrimAt_ = UINT64_MAX;  // releases_ when a trim last found nothing
    bool stopped_ = false;
};

#endif  // SKARVO_SERVICES_DISK_CACHE_H_
