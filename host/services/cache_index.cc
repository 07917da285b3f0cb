#include "services/cache_index.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "services/make_dirs.h"

namespace {

// Raised with every change of the schema; an older skarvo refuses a newer
// index rather than misread it.
constexpr int kSchemaVersion = 3;

constexpr char kSchema[] = R"(
CREATE TABLE IF NOT EXISTS settings(name TEXT PRIMARY KEY, value INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS entries(
    name TEXT PRIMARY KEY,          -- the data file is data/<name>.data
    key TEXT NOT NULL,
    extra TEXT NOT NULL,            -- the protocol's text given with the last rekey
    clean_version TEXT NOT NULL DEFAULT '',  -- the remote content the fetched blocks hold
    size INTEGER NOT NULL,
    fetch_limit INTEGER NOT NULL,   -- bytes from here on are never fetched
    blocks BLOB NOT NULL,           -- BlockMap::Encode
    unsent INTEGER NOT NULL,        -- bytes written and not committed
    origin_known INTEGER NOT NULL,
    origin_path TEXT NOT NULL,
    origin_remote TEXT NOT NULL,
    base_size INTEGER,              -- NULL: the remote had no copy
    base_time TEXT NOT NULL,
    base_extra TEXT NOT NULL,
    last_use INTEGER NOT NULL,
    unsynced_boot TEXT NOT NULL DEFAULT '');  -- see EntryRecord::unsyncedBoot
)";

constexpr char kColumns[] =
    "name, key, extra, size, fetch_limit, blocks, unsent, origin_known, origin_path, "
    "origin_remote, base_size, base_time, base_extra, last_use, clean_version, unsynced_boot";

// What each version adds to the one before, run in order on an older index.
constexpr const char* kUpgrades[] = {
    // 1 -> 2: the version of the fetched blocks; none is known for old rows.
    "ALTER TABLE entries ADD COLUMN clean_version TEXT NOT NULL DEFAULT '';",
    // 2 -> 3: rows saved before their data was synced; old rows never were.
    "ALTER TABLE entries ADD COLUMN unsynced_boot TEXT NOT NULL DEFAULT '';",
};

EntryRecord ReadRecord(const SqliteStatement& row) {
    EntryRecord record;
    record.name = row.Text(0);
    record.key = row.Text(1);
    record.extra = row.Text(2);
    record.size = row.Int(3);
    record.fetchLimit = row.Int(4);
    record.blocks = row.Text(5);
    record.unsent = static_cast<uint64_t>(row.Int(6));
    EntryOrigin& origin = record.origin;
    origin.known = row.Int(7) != 0;
    origin.path = row.Text(8);
    origin.remote = row.Text(9);
    origin.based = !row.IsNull(10);
    origin.baseSize = origin.based ? row.Int(10) : 0;
    origin.baseModifyTime = row.Text(11);
    origin.baseExtra = row.Text(12);
    record.lastUse = static_cast<uint64_t>(row.Int(13));
    record.cleanVersion = row.Text(14);
    record.unsyncedBoot = row.Text(15);
    return record;
}

}  // namespace

Status CacheIndex::Open(const std::string& path, uint32_t blockSize, ILog* log,
                        std::unique_ptr<CacheIndex>* index) {
    std::unique_ptr<SqliteDb> db;
    Status status = SqliteDb::Open(path, &db);
    if (!status.ok()) return status;
    std::unique_ptr<CacheIndex> opened(new CacheIndex(std::move(db), log));
    status = opened->Prepare(blockSize);
    if (!status.ok()) {
        status.set_message(path + ": " + status.message());
        return status;
    }
    opened->OpenWal(path);
    *index = std::move(opened);
    return Status::Ok();
}

Status CacheIndex::Prepare(uint32_t blockSize) {
    const auto fail = [&](const std::string& what) {
        const Status failed = Status::Error(CACHE_WRITE_FAILED, what + ": " + db_->Error());
        if (db_->InTransaction()) db_->Exec("ROLLBACK");
        return failed;
    };
    sqlite3_busy_timeout(db_->Handle(), 5000);
    std::unique_ptr<SqliteStatement> query;
    if (db_->Prepare("PRAGMA user_version", &query) != SQLITE_OK || query->Step() != SQLITE_ROW) {
        return fail("cannot read the version");
    }
    const int64_t version = query->Int(0);
    query->Step();
    if (version > kSchemaVersion) {
        return Status::Error(CACHE_WRITE_FAILED,
                             "written by a newer skarvo (version " + std::to_string(version) + ")");
    }
    // A new index takes the block size it is given; an existing one keeps its own.
    std::string upgrades;
    if (version > 0) {
        for (int64_t from = version; from < kSchemaVersion; ++from)
            upgrades += kUpgrades[from - 1];
    }
    const std::string setUp = std::string("BEGIN IMMEDIATE;") + upgrades + kSchema +
                              "INSERT OR IGNORE INTO settings VALUES('block_size', " +
                              std::to_string(blockSize) +
                              ");PRAGMA user_version=" + std::to_string(kSchemaVersion) + ";";
    if (db_->Exec("PRAGMA journal_mode=WAL") != SQLITE_OK ||
        db_->Exec("PRAGMA synchronous=NORMAL") != SQLITE_OK ||
        db_->Exec(setUp.c_str()) != SQLITE_OK ||
        db_->Prepare("SELECT value FROM settings WHERE name = 'block_size'", &query) != SQLITE_OK ||
        query->Step() != SQLITE_ROW) {
        return fail("cannot set up the index");
    }
    blockSize_ = static_cast<uint32_t>(query->Int(0));
    query->Step();
    if (db_->Exec("COMMIT") != SQLITE_OK) return fail("cannot set up the index");
    return PrepareStatements();
}

Status CacheIndex::PrepareStatements() {
    const std::string columns = kColumns;
    const std::string values = ") VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
    const std::string save = "INSERT OR REPLACE INTO entries(" + columns + values;
    const std::string import = "INSERT OR IGNORE INTO entries(" + columns + values;
    const std::string load = "SELECT " + columns + " FROM entries ORDER BY last_use, name";
    if (db_->Prepare(save.c_str(), &save_) != SQLITE_OK ||
        db_->Prepare(import.c_str(), &import_) != SQLITE_OK ||
        db_->Prepare("DELETE FROM entries WHERE name = ?", &remove_) != SQLITE_OK ||
        db_->Prepare("UPDATE entries SET last_use = ? WHERE name = ?", &touch_) != SQLITE_OK ||
        db_->Prepare(load.c_str(), &load_) != SQLITE_OK) {
        return Status::Error(CACHE_WRITE_FAILED,
                             "cannot prepare the index's statements: " + db_->Error());
    }
    return Status::Ok();
}

std::vector<EntryRecord> CacheIndex::Load() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<EntryRecord> records;
    int code = SQLITE_ROW;
    while ((code = load_->Step()) == SQLITE_ROW)
        records.push_back(ReadRecord(*load_));
    if (code != SQLITE_DONE) ResultLocked(code, "read the entries");
    return records;
}

void CacheIndex::BindRecord(SqliteStatement* statement, const EntryRecord& record) {
    const EntryOrigin& origin = record.origin;
    statement->Bind(1, record.name);
    statement->Bind(2, record.key);
    statement->Bind(3, record.extra);
    statement->Bind(4, record.size);
    statement->Bind(5, record.fetchLimit);
    statement->BindBlob(6, record.blocks);
    statement->Bind(7, static_cast<int64_t>(record.unsent));
    statement->Bind(8, origin.known ? 1 : 0);
    statement->Bind(9, origin.path);
    statement->Bind(10, origin.remote);
    if (origin.based) {
        statement->Bind(11, origin.baseSize);
    } else {
        statement->BindNull(11);
    }
    statement->Bind(12, origin.baseModifyTime);
    statement->Bind(13, origin.baseExtra);
    statement->Bind(14, static_cast<int64_t>(record.lastUse));
    statement->Bind(15, record.cleanVersion);
    statement->Bind(16, record.unsyncedBoot);
}

void CacheIndex::OpenWal(const std::string& path) {
    // Prepare's transaction made the WAL, and SQLite removes it only when
    // the last connection closes.
    UniqueFd wal(open((path + "-wal").c_str(), O_RDONLY | O_CLOEXEC));
    const size_t slash = path.rfind('/');
    if (wal.Valid() && SyncFolder(slash == std::string::npos ? "." : path.substr(0, slash + 1))) {
        wal_ = std::move(wal);
    }
}

AERROR CacheIndex::Durable(AERROR committed, bool durable) {
    if (committed != SUCCESS || !durable || !wal_.Valid()) return committed;
    return SyncWal();
}

AERROR CacheIndex::SyncWal() {
    if (wal_.Valid() && fdatasync(wal_.Get()) == 0) return SUCCESS;
    const int error = wal_.Valid() ? errno : EBADF;
    if (error == ENOSPC || error == EDQUOT) return CACHE_TOO_SMALL;
    if (log_ != nullptr) {
        log_->Log(LL_ERROR, "[CACHE] cannot sync the index: %s", strerror(error));
    }
    return CACHE_WRITE_FAILED;
}

AERROR CacheIndex::Save(const EntryRecord& record, bool durable) {
    AERROR result = SUCCESS;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        const bool inCommit = SyncsInCommit(durable);
        if (inCommit) db_->Exec("PRAGMA synchronous=FULL");
        BindRecord(save_.get(), record);
        result = ResultLocked(save_->Step(), "save an entry");
        if (inCommit) db_->Exec("PRAGMA synchronous=NORMAL");
    }
    return Durable(result, durable);
}

template <typename Steps>
AERROR CacheIndex::TransactionLocked(bool durable, const char* what, Steps&& steps) {
    const bool inCommit = SyncsInCommit(durable);
    if (inCommit) db_->Exec("PRAGMA synchronous=FULL");
    int code = db_->Exec("BEGIN IMMEDIATE");
    if (code == SQLITE_OK) code = steps();
    if (code == SQLITE_OK || code == SQLITE_DONE) code = db_->Exec("COMMIT");
    const AERROR result = ResultLocked(code, what);
    if (db_->InTransaction()) db_->Exec("ROLLBACK");
    if (inCommit) db_->Exec("PRAGMA synchronous=NORMAL");
    return result;
}

AERROR CacheIndex::Remove(const std::vector<std::string>& names) {
    if (names.empty()) return SUCCESS;
    std::lock_guard<std::mutex> lock(mutex_);
    return TransactionLocked(false, "remove entries", [&] {
        int code = SQLITE_DONE;
        for (size_t i = 0; i < names.size() && code == SQLITE_DONE; ++i) {
            remove_->Bind(1, names[i]);
            code = remove_->Step();
        }
        return code;
    });
}

AERROR CacheIndex::SaveLastUses(const std::vector<std::pair<std::string, uint64_t>>& uses,
                                bool durable) {
    std::unique_lock<std::mutex> lock(mutex_);
    const AERROR result = TransactionLocked(durable, "save the order of use", [&] {
        int code = SQLITE_DONE;
        for (size_t i = 0; i < uses.size() && code == SQLITE_DONE; ++i) {
            touch_->Bind(1, static_cast<int64_t>(uses[i].second));
            touch_->Bind(2, uses[i].first);
            code = touch_->Step();
        }
        return code;
    });
    lock.unlock();
    return Durable(result, durable);
}

AERROR CacheIndex::Import(const std::vector<EntryRecord>& records) {
    std::unique_lock<std::mutex> lock(mutex_);
    const AERROR result = TransactionLocked(true, "import entries", [&] {
        int code = SQLITE_DONE;
        for (size_t i = 0; i < records.size() && code == SQLITE_DONE; ++i) {
            BindRecord(import_.get(), records[i]);
            code = import_->Step();
        }
        return code;
    });
    lock.unlock();
    return Durable(result, true);
}

AERROR CacheIndex::ResultLocked(int code, const char* what) {
    if (code == SQLITE_OK || code == SQLITE_DONE) return SUCCESS;
    const int error = sqlite3_system_errno(db_->Handle());
    // A full disk is said once for all entries, by the cache.
    if (code == SQLITE_FULL || error == ENOSPC || error == EDQUOT) return CACHE_TOO_SMALL;
    if (log_ != nullptr) {
        log_->Log(LL_ERROR, "[CACHE] cannot %s in the index: %s", what, db_->Error().c_str());
    }
    return CACHE_WRITE_FAILED;
}
