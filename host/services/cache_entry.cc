#include "services/cache_entry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "services/atomic_file.h"

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

std::shared_ptr<CacheEntry> CacheEntry::Create(std::shared_ptr<CacheContext> context,
                                               const Files& files, const std::string& key,
                                               std::string* error) {
    std::shared_ptr<CacheEntry> entry(new CacheEntry(std::move(context), files));
    entry->key_ = key;
    entry->fd_ = open(files.data.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (entry->fd_ < 0) {
        if (error != nullptr) *error = "cannot create " + files.data + ": " + strerror(errno);
        return nullptr;
    }
    entry->dirty_ = true;
    entry->Touch();
    return entry;
}

std::shared_ptr<CacheEntry> CacheEntry::Restore(std::shared_ptr<CacheContext> context,
                                                const Files& files, const EntryRecord& record,
                                                std::string* error) {
    const auto fail = [&](const std::string& why) {
        if (error != nullptr) *error = files.record + ": " + why;
        return nullptr;
    };
    if (record.blockSize != context->blockSize) return fail("saved with another block size");
    if (record.size < 0 || record.fetchLimit < 0) return fail("damaged record");
    struct stat data {};
    if (stat(files.data.c_str(), &data) != 0) return fail("its data file is missing");
    const uint64_t bytes =
        std::max<uint64_t>(static_cast<uint64_t>(record.size), static_cast<uint64_t>(data.st_size));
    std::shared_ptr<CacheEntry> entry(new CacheEntry(std::move(context), files));
    if (!BlockMap::Decode(record.blocks, BlockMap::BlocksFor(bytes, record.blockSize) + 1,
                          &entry->map_)) {
        return fail("damaged block map");
    }
    entry->key_ = record.key;
    entry->extra_ = record.extra;
    entry->size_ = record.size;
    entry->fetchLimit_ = record.fetchLimit;
    const uint64_t blocks =
        BlockMap::BlocksFor(static_cast<uint64_t>(record.size), record.blockSize);
    if (entry->map_.Count() < blocks) entry->map_.Resize(blocks);
    std::lock_guard<std::mutex> lock(entry->mutex_);
    entry->UpdateUsageLocked();
    return entry;
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
    SaveLocked();
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

AERROR CacheEntry::Rekey(const std::string& key, const std::string& extra, int extraOpens) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_) return CACHE_NOT_OPENED;
    key_ = key;
    extra_ = extra;
    openCount_ += std::max(extraOpens, 0);
    dirty_ = true;
    // Rewriting the one record moves the entry on disk in a single rename.
    return SaveLocked();
}

void CacheEntry::Forget(bool deleteFiles) {
    std::lock_guard<std::mutex> lock(mutex_);
    forgotten_ = true;
    stopReadAhead_ = true;
    fetcher_ = nullptr;
    CloseDataLocked();
    UpdateUsageLocked();
    changed_.notify_all();
    if (deleteFiles) {
        unlink(files_.record.c_str());
        unlink((files_.record + ".tmp").c_str());
        unlink(files_.data.c_str());
    }
}

void CacheEntry::StopReadAhead() {
    std::unique_lock<std::mutex> lock(mutex_);
    stopReadAhead_ = true;
    changed_.wait(lock, [this] { return !readAheadRunning_; });
}

AERROR CacheEntry::Save() {
    std::lock_guard<std::mutex> lock(mutex_);
    return SaveLocked();
}

void CacheEntry::Shutdown() {
    std::unique_lock<std::mutex> lock(mutex_);
    stopReadAhead_ = true;
    changed_.wait(lock, [this] { return !readAheadRunning_; });
    if (forgotten_) return;
    SaveLocked();
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
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_) return CACHE_NOT_OPENED;
    DropBlocksLocked(BlockState::kFetched);
    ++generation_;  // fetches under way bring the old content
    dirty_ = true;
    UpdateUsageLocked();
    return SaveLocked();
}

AERROR CacheEntry::Commit() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_) return CACHE_NOT_OPENED;
    map_.Replace(BlockState::kWritten, BlockState::kFetched);
    // The remote now holds exactly [0, size_): anything kept past it is gone.
    map_.Resize(BlockMap::BlocksFor(static_cast<uint64_t>(size_), blockSize_));
    if (OpenDataLocked() && fileLength_ > size_ && ftruncate(fd_, size_) == 0) fileLength_ = size_;
    fetchLimit_ = size_;
    dirty_ = true;
    UpdateUsageLocked();
    return SaveLocked();
}

AERROR CacheEntry::Discard() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_) return CACHE_NOT_OPENED;
    map_.Resize(0);
    map_.Resize(BlockMap::BlocksFor(static_cast<uint64_t>(size_), blockSize_));
    if (OpenDataLocked() && ftruncate(fd_, 0) == 0) fileLength_ = 0;
    ++generation_;
    fetchLimit_ = size_;
    dirty_ = true;
    UpdateUsageLocked();
    return SaveLocked();
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
// fetched later, and the fetch limit makes the rest zeros.
AERROR CacheEntry::ExtendLocked(int64_t size) {
    const int64_t old = size_;
    const uint64_t oldBlocks = BlockMap::BlocksFor(static_cast<uint64_t>(old), blockSize_);
    if (!OpenDataLocked()) return CACHE_WRITE_FAILED;
    // Written blocks kept past the old size are overwritten by zeros now.
    if (map_.Count() > oldBlocks) map_.Resize(oldBlocks);
    if (fileLength_ > old && ftruncate(fd_, old) != 0) return CACHE_WRITE_FAILED;
    if (ftruncate(fd_, size) != 0) return CACHE_WRITE_FAILED;
    fileLength_ = size;
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
    if (!OpenDataLocked() || ftruncate(fd_, size) != 0) return CACHE_WRITE_FAILED;
    fileLength_ = size;
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

AERROR CacheEntry::SaveLocked() {
    if (forgotten_ || !dirty_) return SUCCESS;
    // The data goes to disk before the record that vouches for it.
    if (fd_ >= 0 && fdatasync(fd_) != 0) {
        if (context_->log != nullptr) {
            context_->log->Log(LL_ERROR, "[CACHE] cannot sync %s: %s", files_.data.c_str(),
                               strerror(errno));
        }
        return CACHE_WRITE_FAILED;
    }
    EntryRecord record;
    record.key = key_;
    record.extra = extra_;
    record.blockSize = blockSize_;
    record.size = size_;
    record.fetchLimit = fetchLimit_;
    record.blocks = map_.Encode();
    std::string error;
    if (!ReplaceFileContent(files_.record, EncodeEntryRecord(record), true, &error)) {
        if (context_->log != nullptr) context_->log->Log(LL_ERROR, "[CACHE] %s", error.c_str());
        return CACHE_WRITE_FAILED;
    }
    dirty_ = false;
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
