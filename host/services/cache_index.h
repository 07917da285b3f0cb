// The disk cache's index: one row per entry in an SQLite database beside the
// data files, so that a change of an entry is one small transaction.
#ifndef SKARVO_SERVICES_CACHE_INDEX_H_
#define SKARVO_SERVICES_CACHE_INDEX_H_

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "common/status.h"
#include "libfilesystem/aerror.h"
#include "libfilesystem/log.h"
#include "libfilesystem/unique_fd.h"
#include "services/cache_records.h"
#include "services/sqlite_db.h"

// Thread safe: one connection behind a mutex of its own, which is always the
// last lock taken. The database runs in WAL mode with synchronous=NORMAL: a
// commit survives a crash of the process at once and a power cut from the
// next checkpoint on; Save with `durable` survives a power cut when it
// returns. Durable saves and transactions sync the WAL after they have let
// go of the mutex, so other entries' saves do not queue behind the sync.
class CacheIndex {
  public:
    // Opens, or creates, the index `path`. A new index takes `blockSize`; an
    // existing one keeps its own (BlockSize). Fails, saying why, when the
    // file cannot be used or was made by a newer skarvo.
    static Status Open(const std::string& path, uint32_t blockSize, ILog* log,
                       std::unique_ptr<CacheIndex>* index);

    CacheIndex(const CacheIndex&) = delete;
    CacheIndex& operator=(const CacheIndex&) = delete;

    uint32_t BlockSize() const { return blockSize_; }
    // Every row, least recently used first.
    std::vector<EntryRecord> Load();
    // Adds or replaces the row of record.name. CACHE_TOO_SMALL when the disk
    // is full, CACHE_WRITE_FAILED (logged) on any other failure.
    AERROR Save(const EntryRecord& record, bool durable);
    // Each in one transaction.
    AERROR Remove(const std::vector<std::string>& names);
    AERROR SaveLastUses(const std::vector<std::pair<std::string, uint64_t>>& uses, bool durable);
    // Adds rows for records whose name has none yet, durably.
    AERROR Import(const std::vector<EntryRecord>& records);

  private:
    CacheIndex(std::unique_ptr<SqliteDb> db, ILog* log) : db_(std::move(db)), log_(log) {}
    // Opens the WAL for SyncWal, and syncs the folder that holds it, since
    // its name was made without a sync. When it cannot, durable saves sync
    // inside their commits instead.
    void OpenWal(const std::string& path);
    // Makes every commit so far durable: they are all in the WAL, which
    // SQLite only appends to until a checkpoint, and a checkpoint syncs the
    // WAL before it copies any of it.
    AERROR SyncWal();
    // Whether a durable commit must sync inside itself (under the mutex):
    // only when the WAL is not at hand for SyncWal.
    bool SyncsInCommit(bool durable) const { return durable && !wal_.Valid(); }
    // What a commit made under the mutex gives, made durable afterwards
    // through SyncWal when asked and not done inside the commit.
    AERROR Durable(AERROR committed, bool durable);
    // Checks the version, creates the tables when missing and reads the
    // block size.
    Status Prepare(uint32_t blockSize);
    Status PrepareStatements();
    static void BindRecord(SqliteStatement* statement, const EntryRecord& record);
    // Runs `steps` in one transaction, made durable when asked.
    template <typename Steps>
    AERROR TransactionLocked(bool durable, const char* what, Steps&& steps);
    AERROR ResultLocked(int code, const char* what);

    std::mutex mutex_;
    const std::unique_ptr<SqliteDb> db_;
    UniqueFd wal_;  // SQLite keeps the file while a connection is open
    ILog* const log_;
    uint32_t blockSize_ = 0;
    std::unique_ptr<SqliteStatement> save_;
    std::unique_ptr<SqliteStatement> import_;
    std::unique_ptr<SqliteStatement> remove_;
    std::unique_ptr<SqliteStatement> touch_;
    std::unique_ptr<SqliteStatement> load_;
};

#endif  // SKARVO_SERVICES_CACHE_INDEX_H_
