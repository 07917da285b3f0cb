// One cached file: a sparse data file, the map of which blocks it holds, and
// its row in the cache's index, which keeps both across restarts.
#ifndef SKARVO_SERVICES_CACHE_ENTRY_H_
#define SKARVO_SERVICES_CACHE_ENTRY_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "common/status.h"
#include "libfilesystem/cache.h"
#include "services/block_map.h"
#include "services/cache_context.h"
#include "services/cache_records.h"

// Read-ahead that a read asks for: fetch [begin, end) for `handle`.
struct ReadAheadPlan {
    bool wanted = false;
    int64_t begin = 0;
    int64_t end = 0;
    std::shared_ptr<_FS_HANDLE> handle;
    IFetch* fetch = nullptr;
};

// All operations are thread safe. No lock is held while IFetch::Fetch runs:
// the fetched bytes are gathered one block at a time in a buffer of their own
// and then stored under the lock, only into blocks that are still absent, so
// local writes always win. Once the entry is forgotten
// (evicted, removed, replaced or shut down) every operation fails with
// CACHE_NOT_OPENED.
class CacheEntry {
  public:
    struct Files {
        std::string name;  // stem of the data file's name, and the row's name
        std::string data;  // the sparse copy of the file's bytes
    };

    // A new, empty entry with a new, empty data file, in *created.
    static Status Create(std::shared_ptr<CacheContext> context, const Files& files,
                         const std::string& key, std::shared_ptr<CacheEntry>* created);
    // An entry as saved in `record`, in *restored; its data file must exist.
    // Fetched blocks past the data file's end count as absent; written ones
    // there make the entry damaged.
    static Status Restore(std::shared_ptr<CacheContext> context, const Files& files,
                          const EntryRecord& record, std::shared_ptr<CacheEntry>* restored);
    ~CacheEntry();

    CacheEntry(const CacheEntry&) = delete;
    CacheEntry& operator=(const CacheEntry&) = delete;

    const std::string& Name() const { return files_.name; }
    std::string Key() const;
    uint64_t LastUse() const { return lastUse_.load(); }
    // Marks the entry as used just now.
    void Touch();

    // The cache service's side.
    AERROR AddOpen(char mode, int64_t size, IFetch* fetcher);
    // Undoes one AddOpen. The last one stops read-ahead (waiting for a running
    // one), saves the row and closes the data file.
    void ReleaseOpen();
    int OpenCount() const;
    // Forgets the entry and deletes its data file when it is closed and holds
    // no written data; false, changing nothing, otherwise. The caller removes
    // the row.
    bool EvictIfIdle();
    uint64_t UnsentBytes() const;
    int64_t Size() const;
    EntryOrigin Origin() const;
    // Keeps where the content belongs; saved at once while the entry holds
    // written data, with the next save otherwise.
    void SetOrigin(const EntryOrigin& origin);
    // Moves the entry to `key`, taking over `extraOpens` opens of an entry it
    // replaces, and saves the row.
    AERROR Rekey(const std::string& key, const std::string& extra, int extraOpens);
    // Detaches the entry for good, deleting its data file when asked (the
    // caller removes the row). A running
    // read-ahead is told to stop; StopReadAhead waits for it.
    void Forget(bool deleteFiles);
    // Stops read-ahead for good and waits until none runs.
    void StopReadAhead();
    // Syncs data stored since the last save, then saves the row when it
    // changed. CACHE_TOO_SMALL when the disk is full.
    AERROR Save();
    // Stops read-ahead, saves and detaches, keeping the files.
    void Shutdown();

    // The cache object's side; see ICacheObj.
    AERROR Read(_READDATA* request, ReadAheadPlan* plan);
    AERROR Write(_WRITEDATA* request);
    AERROR Reopen(char mode, int64_t size, IFetch* fetcher);
    AERROR SetSize(int64_t size);
    AERROR FillUnwritten(const std::shared_ptr<_FS_HANDLE>& handle);
    AERROR DropClean();
    AERROR CheckVersion(const std::string& version);
    AERROR SetVersion(const std::string& version);
    AERROR Commit();
    AERROR Discard();
    AERROR Sync();
    AERROR SaveWritten();
    // The row was saved before its data was synced, in an earlier boot of
    // the machine: the data may have been cut short by the restart.
    bool MayBeIncomplete() const;

    // The read-ahead job's side: runs a plan that Read returned, then reports
    // the end with ReadAheadEnded (also when the job is dropped unrun).
    void RunReadAhead(const ReadAheadPlan& plan);
    void ReadAheadEnded();

  private:
    class BlockSink;
    // Lists, under the lock, the absent blocks that must be fetched.
    using WantedFn = std::function<std::vector<BlockRun>()>;
    // Runs, under the lock, once every wanted block is held.
    using ReadyFn = std::function<AERROR()>;
    struct FillOptions {
        bool ranged = true;       // false: the protocol only serves whole files
        bool waitForBusy = true;  // wait for blocks that another fetch is filling
        const std::atomic<bool>* abort = nullptr;
    };

    CacheEntry(std::shared_ptr<CacheContext> context, const Files& files);

    AERROR Fill(const WantedFn& wanted, const std::shared_ptr<_FS_HANDLE>& handle, IFetch* fetch,
                const FillOptions& options, const ReadyFn& ready);
    AERROR FetchRun(BlockRun run, int64_t limit, uint64_t generation,
                    const std::shared_ptr<_FS_HANDLE>& handle, IFetch* fetch,
                    const std::atomic<bool>* abort);
    AERROR StoreFetched(uint64_t block, const char* data, uint64_t generation);

    // Helpers that expect mutex_ held.
    std::vector<BlockRun> AbsentRunsLocked(int64_t begin, int64_t end) const;
    bool IsBusyLocked(uint64_t block) const;
    int64_t FetchableEndLocked() const;
    void ApplyOpenSizeLocked(int64_t size);
    AERROR ExtendLocked(int64_t size, bool setLength = true);
    AERROR ShrinkLocked(int64_t size);
    void LowerFetchLimitLocked(int64_t limit);
    void DropBlocksLocked(BlockState state);
    AERROR CopyOutLocked(int64_t offset, int64_t length, char* out);
    AERROR WriteLocked(int64_t offset, int64_t length, const char* data);
    AERROR StoreLocked(int64_t offset, int64_t length, const char* data);
    void PlanReadAheadLocked(const _READDATA& request, int64_t readEnd, ReadAheadPlan* plan);
    bool OpenDataLocked();
    void CloseDataLocked();
    // With `durable`, also when the row is unchanged but not yet durable,
    // and so that it survives a power cut.
    AERROR SaveLocked(bool durable);
    // A restored row saved before its data was synced, in boot `boot`.
    void RestoreUnsyncedLocked(const std::string& boot);
    // Writes the row as it is; `unsyncedBoot` as in EntryRecord.
    AERROR WriteRowLocked(bool durable, const std::string& unsyncedBoot);
    void UpdateUsageLocked();

    const std::shared_ptr<CacheContext> context_;
    const Files files_;
    const uint32_t blockSize_;
    std::atomic<uint64_t> lastUse_{0};
    std::atomic<bool> stopReadAhead_{false};

    mutable std::mutex mutex_;
    std::condition_variable changed_;  // a fetch or a read-ahead ended
    std::string key_;
    std::string extra_;
    std::string cleanVersion_;  // of the fetched blocks; "": unknown
    EntryOrigin origin_;
    BlockMap map_;                // covers at least the blocks below size_
    int64_t size_ = 0;            // the file's size as the library sees it
    int64_t fetchLimit_ = 0;      // bytes from here on are never fetched
    uint64_t generation_ = 0;     // bumped when fetched data in flight goes stale
    std::vector<BlockRun> busy_;  // runs being fetched
    int fd_ = -1;
    int64_t fileLength_ = 0;  // of the data file, while it is open
    int openCount_ = 0;
    IFetch* fetcher_ = nullptr;     // from the last Open or Reopen
    bool ranged_ = true;            // whether the protocol serves ranges (last read)
    bool dirty_ = false;            // the row differs from what is saved
    bool savedDurably_ = false;     // the row was last saved durably
    bool rowUnsynced_ = false;      // the saved row says the data was not synced
    bool mayBeIncomplete_ = false;  // see MayBeIncomplete
    bool dataDirty_ = false;        // data or length changed since the data file was last synced
    bool forgotten_ = false;
    bool readAheadRunning_ = false;
    int64_t lastReadEnd_ = -1;
    int sequentialReads_ = 0;
    uint64_t reportedUsed_ = 0;
    uint64_t reportedUnsent_ = 0;
};

#endif  // SKARVO_SERVICES_CACHE_ENTRY_H_
