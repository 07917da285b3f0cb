#include "services/cache_entry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "services/cache_index.h"

namespace {

bool IsValidMode(char mode) {
    return mode == 'r' || mode == 'w';
}

}  // namespace

CacheEntry::CacheEntry(std::shared_ptr<CacheContext> context, const Files& files)
    : context_(std::move(context)), files_(files), blockSize_(context_->blockSize) {}

CacheEntry::~CacheEntry() {
    std::lock_guard<std::mutex> lock(mutex_);
    CloseDataLocked();
}

Status CacheEntry::Create(std::shared_ptr<CacheContext> context, const Files& files,
                          const std::string& key, std::shared_ptr<CacheEntry>* created) {
    std::shared_ptr<CacheEntry> entry(new CacheEntry(std::move(context), files));
    entry->key_ = key;
    entry->fd_ = open(files.data.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (entry->fd_ < 0) {
        return Status::Error("cannot create " + files.data + ": " + strerror(errno));
    }
    entry->context_->newNames = true;
    entry->dirty_ = true;
    entry->Touch();
    *created = std::move(entry);
    return Status::Ok();
}

Status CacheEntry::Restore(std::shared_ptr<CacheContext> context, const Files& files,
                           const EntryRecord& record, std::shared_ptr<CacheEntry>* restored) {
    const auto fail = [&](const std::string& why) {
        return Status::Error("the entry of " + record.key + ": " + why);
    };
    if (record.size < 0 || record.fetchLimit < 0) return fail("damaged row");
    struct stat data {};
    if (stat(files.data.c_str(), &data) != 0) return fail("its data file is missing");
    const uint32_t blockSize = context->blockSize;
    const uint64_t length = static_cast<uint64_t>(data.st_size);
    const uint64_t bytes = std::max<uint64_t>(static_cast<uint64_t>(record.size), length);
    std::shared_ptr<CacheEntry> entry(new CacheEntry(std::move(context), files));
    BlockMap& map = entry->map_;
    if (!BlockMap::Decode(record.blocks, BlockMap::BlocksFor(bytes, blockSize) + 1, &map)) {
        return fail("damaged block map");
    }
    // Written data reaches into the last written block; a shorter data file
    // lost some of it.
    const std::vector<BlockRun> written = map.RunsOf(BlockState::kWritten);
    if (!written.empty() && length <= (written.back().second - 1) * blockSize) {
        return fail("its data file is shorter than its written blocks");
    }
    // A fetched block cut off by the data file's end is fetched again.
    for (uint64_t block = length / blockSize; block < map.Count(); ++block) {
        const uint64_t end = std::min<uint64_t>((block + 1) * blockSize, record.size);
        if (map.Get(block) == BlockState::kFetched && length < end) {
            map.Set(block, block + 1, BlockState::kAbsent);
            entry->dirty_ = true;
        }
    }
    entry->key_ = record.key;
    entry->extra_ = record.extra;
    entry->cleanVersion_ = record.cleanVersion;
    entry->origin_ = record.origin;
    entry->size_ = record.size;
    entry->fetchLimit_ = record.fetchLimit;
    entry->savedDurably_ = !entry->dirty_;
    const uint64_t blocks = BlockMap::BlocksFor(static_cast<uint64_t>(record.size), blockSize);
    if (map.Count() < blocks) map.Resize(blocks);
    std::lock_guard<std::mutex> lock(entry->mutex_);
    if (!record.unsyncedBoot.empty()) entry->RestoreUnsyncedLocked(record.unsyncedBoot);
    entry->UpdateUsageLocked();
    *restored = entry;
    return Status::Ok();
}

void CacheEntry::RestoreUnsyncedLocked(const std::string& boot) {
    // Saved at a close, before the data was synced: the data is whole
    // unless the machine restarted since.
    rowUnsynced_ = true;
    dataDirty_ = true;
    mayBeIncomplete_ = boot != context_->bootId;
    if (mayBeIncomplete_ && map_.AnyFrom(0, BlockState::kFetched)) {
        // Blocks fetched before the restart may be cut short too; they can
        // be fetched again. Written ones go to the recovery folder.
        DropBlocksLocked(BlockState::kFetched);
        cleanVersion_.clear();
        dirty_ = true;
    }
}

std::string CacheEntry::Key() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return key_;
}

void CacheEntry::Touch() {
    lastUse_.store(++context_->clock);
}

AERROR CacheEntry::AddOpen(char mode, int64_t size, IFetch* fetcher) {
    if (!IsValidMode(mode)) return CACHE_INVALID_OPEN_MODE;
    if (size < 0) return INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_) return CACHE_NOT_OPENED;
    ++openCount_;
    stopReadAhead_ = false;
    fetcher_ = fetcher;
    ApplyOpenSizeLocked(size);
    Touch();
    return SUCCESS;
}

void CacheEntry::ReleaseOpen() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (openCount_ > 0) --openCount_;
    if (openCount_ > 0) return;
    // The node that fetches may go once the library has closed the entry, so
    // neither the fetcher nor a read-ahead using it may stay behind.
    fetcher_ = nullptr;
    stopReadAhead_ = true;
    changed_.wait(lock, [this] { return !readAheadRunning_; });
    if (openCount_ > 0 || forgotten_) return;
    SaveLocked(false);
    CloseDataLocked();
}

int CacheEntry::OpenCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return openCount_;
}

bool CacheEntry::EvictIfIdle() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (forgotten_ || openCount_ > 0 || readAheadRunning_ ||
            map_.CountOf(BlockState::kWritten) > 0) {
            return false;
        }
        // Checked and forgotten under one lock, so no write slips in between.
        forgotten_ = true;
    }
    Forget(true);
    return true;
}

uint64_t CacheEntry::UnsentBytes() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return reportedUnsent_;
}

int64_t CacheEntry::Size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return size_;
}

EntryOrigin CacheEntry::Origin() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return origin_;
}

void CacheEntry::SetOrigin(const EntryOrigin& origin) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (origin_ == origin) return;
    origin_ = origin;
    dirty_ = true;
    if (map_.CountOf(BlockState::kWritten) > 0) SaveLocked(false);
}

AERROR CacheEntry::Rekey(const std::string& key, const std::string& extra, int extraOpens) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_) return CACHE_NOT_OPENED;
    key_ = key;
    extra_ = extra;
    openCount_ += std::max(extraOpens, 0);
    dirty_ = true;
    // The data file keeps its name: the row alone moves the entry.
    return SaveLocked(false);
}

void CacheEntry::Forget(bool deleteFiles) {
    std::lock_guard<std::mutex> lock(mutex_);
    forgotten_ = true;
    stopReadAhead_ = true;
    fetcher_ = nullptr;
    CloseDataLocked();
    UpdateUsageLocked();
    changed_.notify_all();
    if (deleteFiles) unlink(files_.data.c_str());
}

void CacheEntry::StopReadAhead() {
    std::unique_lock<std::mutex> lock(mutex_);
    stopReadAhead_ = true;
    changed_.wait(lock, [this] { return !readAheadRunning_; });
}

AERROR CacheEntry::Save() {
    std::lock_guard<std::mutex> lock(mutex_);
    return SaveLocked(false);
}

AERROR CacheEntry::SaveWritten() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_) return CACHE_NOT_OPENED;
    // A close: the writer's copy is gone, and the kernel does not wait for
    // the release that makes the data durable. The row goes to the index
    // now, so that skarvo restarted after it died finds the data, which the
    // kernel keeps meanwhile; a row saved so says in which boot it was.
    if (!dataDirty_ || context_->bootId.empty()) return SaveLocked(false);
    if (!dirty_ && rowUnsynced_) return SUCCESS;
    return WriteRowLocked(false, context_->bootId);
}

bool CacheEntry::MayBeIncomplete() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return mayBeIncomplete_;
}

AERROR CacheEntry::Sync() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_) return CACHE_NOT_OPENED;
    // Here the cache may hold the only copy of the data: it, its name and
    // the row that vouches for it must survive a power cut.
    return SaveLocked(true);
}

void CacheEntry::Shutdown() {
    std::unique_lock<std::mutex> lock(mutex_);
    stopReadAhead_ = true;
    changed_.wait(lock, [this] { return !readAheadRunning_; });
    if (forgotten_) return;
    SaveLocked(false);
    CloseDataLocked();
    forgotten_ = true;
    fetcher_ = nullptr;
    changed_.notify_all();
}

AERROR CacheEntry::Reopen(char mode, int64_t size, IFetch* fetcher) {
    if (!IsValidMode(mode)) return CACHE_INVALID_OPEN_MODE;
    if (size < 0) return INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_) return CACHE_NOT_OPENED;
    fetcher_ = fetcher;
    ApplyOpenSizeLocked(size);
    Touch();
    return SUCCESS;
}

AERROR CacheEntry::SetSize(int64_t size) {
    if (size < 0) return INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_) return CACHE_NOT_OPENED;
    AERROR result = SUCCESS;
    if (size < size_) {
        result = ShrinkLocked(size);
    } else if (size > size_) {
        result = ExtendLocked(size);
    }
    UpdateUsageLocked();
    return result;
}

AERROR CacheEntry::DropClean() {
    return CheckVersion("");
}

AERROR CacheEntry::CheckVersion(const std::string& version) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_) return CACHE_NOT_OPENED;
    // "" names no version, so it never matches, not even an unknown one.
    if (!version.empty() && version == cleanVersion_) return SUCCESS;
    // The version itself reaches the index with the row's next save (a close
    // at the latest): one lost in a crash only costs fetching again. Every
    // file created or first opened passes here, so nothing is saved for it
    // unless blocks go.
    cleanVersion_ = version;
    dirty_ = true;
    ++generation_;  // fetches under way bring the old content
    if (!map_.AnyFrom(0, BlockState::kFetched)) return SUCCESS;
    DropBlocksLocked(BlockState::kFetched);
    UpdateUsageLocked();
    return SaveLocked(false);
}

AERROR CacheEntry::SetVersion(const std::string& version) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_) return CACHE_NOT_OPENED;
    cleanVersion_ = version;
    dirty_ = true;  // saved with the row's next save, as in CheckVersion
    return SUCCESS;
}

AERROR CacheEntry::Commit() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_) return CACHE_NOT_OPENED;
    map_.Replace(BlockState::kWritten, BlockState::kFetched);
    cleanVersion_.clear();  // until SetVersion names the stored content
    // The remote now holds exactly [0, size_): anything kept past it is gone.
    map_.Resize(BlockMap::BlocksFor(static_cast<uint64_t>(size_), blockSize_));
    if (OpenDataLocked() && fileLength_ > size_ && ftruncate(fd_, size_) == 0) fileLength_ = size_;
    fetchLimit_ = size_;
    dirty_ = true;
    UpdateUsageLocked();
    return SaveLocked(false);
}

AERROR CacheEntry::Discard() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_) return CACHE_NOT_OPENED;
    map_.Resize(0);
    map_.Resize(BlockMap::BlocksFor(static_cast<uint64_t>(size_), blockSize_));
    if (OpenDataLocked() && ftruncate(fd_, 0) == 0) fileLength_ = 0;
    ++generation_;
    cleanVersion_.clear();
    fetchLimit_ = size_;
    dirty_ = true;
    UpdateUsageLocked();
    return SaveLocked(false);
}

// Open and Reopen give the size the library knows. Unlike SetSize this is no
// local change: a shorter size drops the fetched blocks past it but keeps
// written ones (they are data not yet uploaded, and reappear if the size
// grows back), and a longer size is remote content, to be fetched.
void CacheEntry::ApplyOpenSizeLocked(int64_t size) {
    const uint64_t blocks = BlockMap::BlocksFor(static_cast<uint64_t>(size), blockSize_);
    if (size < size_) {
        for (uint64_t block = static_cast<uint64_t>(size) / blockSize_; block < map_.Count();
             ++block) {
            if (map_.Get(block) == BlockState::kFetched) {
                map_.Set(block, block + 1, BlockState::kAbsent);
            }
        }
        map_.TrimAbsentTail(blocks);
        if (!map_.AnyFrom(blocks, BlockState::kWritten) && OpenDataLocked() && fileLength_ > size &&
            ftruncate(fd_, size) == 0) {
            fileLength_ = size;
        }
        dirty_ = true;
    } else if (size > size_) {
        // Past the old end the block on disk holds zeros, not the remote's bytes.
        const uint64_t tail = static_cast<uint64_t>(size_) / blockSize_;
        if (size_ % blockSize_ != 0 && map_.Get(tail) == BlockState::kFetched) {
            map_.Set(tail, tail + 1, BlockState::kAbsent);
        }
        if (map_.Count() < blocks) map_.Resize(blocks);
        dirty_ = true;
    }
    size_ = size;
    if (map_.CountOf(BlockState::kWritten) == 0) {
        if (size < fetchLimit_) ++generation_;
        fetchLimit_ = size;
    } else {
        LowerFetchLimitLocked(size);
    }
    UpdateUsageLocked();
}

// Bytes past the old size read as zeros and count as written. The block that
// held the old end keeps its state when it is absent: its remote part is
// fetched later, and the fetch limit makes the rest zeros. Without
// `setLength` the data file keeps its length: a write past the end that
// follows lengthens it, and the hole it leaves reads as zeros too. That
// saves an ftruncate on every appending write.
AERROR CacheEntry::ExtendLocked(int64_t size, bool setLength) {
    const int64_t old = size_;
    const uint64_t oldBlocks = BlockMap::BlocksFor(static_cast<uint64_t>(old), blockSize_);
    if (!OpenDataLocked()) return CACHE_WRITE_FAILED;
    // Written blocks kept past the old size are overwritten by zeros now.
    if (map_.Count() > oldBlocks) map_.Resize(oldBlocks);
    if (fileLength_ > old) {
        if (ftruncate(fd_, old) != 0) return CacheContext::WriteFailure(errno);
        fileLength_ = old;
    }
    if (setLength) {
        if (ftruncate(fd_, size) != 0) return CacheContext::WriteFailure(errno);
        fileLength_ = size;
    }
    dataDirty_ = true;
    if (old % blockSize_ != 0) {
        const uint64_t tail = static_cast<uint64_t>(old) / blockSize_;
        if (map_.Get(tail) != BlockState::kAbsent) map_.Set(tail, tail + 1, BlockState::kWritten);
    }
    map_.Set(oldBlocks, BlockMap::BlocksFor(static_cast<uint64_t>(size), blockSize_),
             BlockState::kWritten);
    LowerFetchLimitLocked(old);
    size_ = size;
    dirty_ = true;
    return SUCCESS;
}

AERROR CacheEntry::ShrinkLocked(int64_t size) {
    map_.Resize(BlockMap::BlocksFor(static_cast<uint64_t>(size), blockSize_));
    size_ = size;
    LowerFetchLimitLocked(size);
    dirty_ = true;
    // Truncating also zeroes the tail of the block that holds the new end.
    if (!OpenDataLocked()) return CACHE_WRITE_FAILED;
    if (ftruncate(fd_, size) != 0) return CacheContext::WriteFailure(errno);
    fileLength_ = size;
    dataDirty_ = true;
    return SUCCESS;
}

void CacheEntry::LowerFetchLimitLocked(int64_t limit) {
    if (limit >= fetchLimit_) return;
    fetchLimit_ = limit;
    ++generation_;  // a fetch under way may bring bytes that are now past the limit
}

void CacheEntry::DropBlocksLocked(BlockState state) {
    const bool open = OpenDataLocked();
    for (const BlockRun& run : map_.RunsOf(state)) {
        map_.Set(run.first, run.second, BlockState::kAbsent);
        if (!open) continue;
        // Give the space back; the bytes of absent blocks are never read.
        const int64_t offset = static_cast<int64_t>(run.first) * blockSize_;
        const int64_t length = static_cast<int64_t>(run.second - run.first) * blockSize_;
        fallocate(fd_, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, offset, length);
    }
}

bool CacheEntry::OpenDataLocked() {
    if (fd_ >= 0) return true;
    if (forgotten_) return false;
    fd_ = open(files_.data.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) {
        if (context_->log != nullptr) {
            context_->log->Log(LL_ERROR, "[CACHE] cannot open %s: %s", files_.data.c_str(),
                               strerror(errno));
        }
        return false;
    }
    struct stat data {};
    fileLength_ = fstat(fd_, &data) == 0 ? data.st_size : 0;
    return true;
}

void CacheEntry::CloseDataLocked() {
    if (fd_ < 0) return;
    close(fd_);
    fd_ = -1;
}

AERROR CacheEntry::SaveLocked(bool durable) {
    if (forgotten_ || (!dirty_ && !dataDirty_ && (savedDurably_ || !durable))) return SUCCESS;
    // The data goes to disk before the row that vouches for it, so that no
    // row, once durable, claims blocks a power cut lost.
    if (dataDirty_ && (!OpenDataLocked() || fdatasync(fd_) != 0)) {
        const int error = errno;
        if (context_->log != nullptr) {
            context_->log->Log(LL_ERROR, "[CACHE] cannot sync %s: %s", files_.data.c_str(),
                               strerror(error));
        }
        return CacheContext::WriteFailure(error);
    }
    dataDirty_ = false;
    // A row that says the data was not synced is now wrong the safe way;
    // set right with this save.
    if (rowUnsynced_) dirty_ = true;
    if (!dirty_ && (savedDurably_ || !durable)) return SUCCESS;
    if (durable && !context_->SyncNewNames()) {
        const int error = errno;
        if (context_->log != nullptr) {
            context_->log->Log(LL_ERROR, "[CACHE] cannot sync %s: %s", context_->dataFolder.c_str(),
                               strerror(error));
        }
        return CacheContext::WriteFailure(error);
    }
    return WriteRowLocked(durable, "");
}

AERROR CacheEntry::WriteRowLocked(bool durable, const std::string& unsyncedBoot) {
    EntryRecord record;
    record.name = files_.name;
    record.key = key_;
    record.extra = extra_;
    record.cleanVersion = cleanVersion_;
    record.size = size_;
    record.fetchLimit = fetchLimit_;
    record.blocks = map_.Encode();
    record.unsent = reportedUnsent_;
    record.origin = origin_;
    record.lastUse = lastUse_.load();
    record.unsyncedBoot = unsyncedBoot;
    const AERROR saved = context_->index->Save(record, durable);
    if (saved != SUCCESS) return saved;
    dirty_ = false;
    savedDurably_ = durable;
    rowUnsynced_ = !unsyncedBoot.empty();
    return SUCCESS;
}

void CacheEntry::UpdateUsageLocked() {
    uint64_t used = 0;
    uint64_t unsent = 0;
    if (!forgotten_) {
        // Whole blocks, except the one holding the end of the file.
        const uint64_t tailBlock = static_cast<uint64_t>(size_) / blockSize_;
        const uint64_t tailGap = size_ % blockSize_ == 0 ? 0 : blockSize_ - size_ % blockSize_;
        const auto bytesOf = [&](BlockState state) {
            uint64_t bytes = map_.CountOf(state) * blockSize_;
            if (tailGap != 0 && map_.Get(tailBlock) == state) bytes -= tailGap;
            return bytes;
        };
        unsent = bytesOf(BlockState::kWritten);
        used = unsent + bytesOf(BlockState::kFetched);
    }
    // Unsigned wrap-around makes adding the difference right either way.
    context_->usedBytes.fetch_add(used - reportedUsed_);
    context_->unsentBytes.fetch_add(unsent - reportedUnsent_);
    reportedUsed_ = used;
    reportedUnsent_ = unsent;
}
