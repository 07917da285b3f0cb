// The data path of a cache entry: filling missing blocks through IFetch,
// reading, writing and read-ahead.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>

#include "services/cache_entry.h"

namespace {

constexpr int kMaxFetchRounds = 4;
constexpr std::chrono::milliseconds kBusyPoll{100};

bool PreadAll(int fd, char* out, int64_t length, int64_t offset, int64_t* got) {
    *got = 0;
    while (*got < length) {
        const ssize_t done =
            pread(fd, out + *got, static_cast<size_t>(length - *got), offset + *got);
        if (done < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (done == 0) break;  // past the end of the data file
        *got += done;
    }
    return true;
}

bool PwriteAll(int fd, const char* data, int64_t length, int64_t offset) {
    while (length > 0) {
        const ssize_t done = pwrite(fd, data, static_cast<size_t>(length), offset);
        if (done < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        data += done;
        offset += done;
        length -= done;
    }
    return true;
}

}  // namespace

// Takes the bytes of one fetched run in order and stores each block as soon
// as it is complete, so no more than one block is buffered however long the
// run. Bytes that the fetch does not deliver read as zeros.
class CacheEntry::BlockSink : public IFetchCallback {
  public:
    BlockSink(CacheEntry* entry, int64_t begin, int64_t end, uint64_t generation,
              const std::atomic<bool>* abort)
        : entry_(entry),
          blockSize_(entry->blockSize_),
          cursor_(begin),
          end_(end),
          generation_(generation),
          abort_(abort),
          block_(entry->blockSize_, 0) {}

    AERROR FetchWrite(long long offset, const char* data, long size, long* written) override {
        if (written != nullptr) *written = 0;
        if (abort_ != nullptr && abort_->load()) return CANCEL;
        if (size < 0 || (size > 0 && data == nullptr)) return INVALID_PARAMETER;
        // Pieces come in order; a gap means bytes were lost on the way.
        if (offset > cursor_) return FAILED;
        const long long repeated = cursor_ - offset;
        if (repeated < size) {
            const AERROR result = Take(data + repeated, size - repeated);
            if (result != SUCCESS) return result;
        }
        if (written != nullptr) *written = size;
        return SUCCESS;
    }

    // The fetch succeeded: what it did not deliver is past the remote's end.
    AERROR Finish() {
        while (cursor_ < end_) {
            const int64_t start = cursor_ - cursor_ % blockSize_;
            const int64_t stop = std::min<int64_t>(start + blockSize_, end_);
            memset(block_.data() + (cursor_ - start), 0, static_cast<size_t>(stop - cursor_));
            cursor_ = stop;
            const AERROR result = Store(start);
            if (result != SUCCESS) return result;
        }
        return SUCCESS;
    }

    // Why a block could not be stored (a full disk among others), whatever
    // the protocol made of the refusal.
    AERROR Failure() const { return failure_; }

  private:
    AERROR Take(const char* data, long long size) {
        while (size > 0 && cursor_ < end_) {
            const int64_t start = cursor_ - cursor_ % blockSize_;
            const int64_t stop = std::min<int64_t>(start + blockSize_, end_);
            const int64_t count = std::min<int64_t>(size, stop - cursor_);
            memcpy(block_.data() + (cursor_ - start), data, static_cast<size_t>(count));
            cursor_ += count;
            data += count;
            size -= count;
            if (cursor_ == stop) {
                const AERROR result = Store(start);
                if (result != SUCCESS) return result;
            }
        }
        return SUCCESS;
    }

    AERROR Store(int64_t start) {
        const int64_t filled = cursor_ - start;
        if (filled < blockSize_) {
            memset(block_.data() + filled, 0, static_cast<size_t>(blockSize_ - filled));
        }
        const AERROR result = entry_->StoreFetched(static_cast<uint64_t>(start / blockSize_),
                                                   block_.data(), generation_);
        if (result != SUCCESS) failure_ = result;
        return result;
    }

    CacheEntry* const entry_;
    const int64_t blockSize_;
    int64_t cursor_;  // the next byte expected
    const int64_t end_;
    const uint64_t generation_;
    const std::atomic<bool>* const abort_;
    std::vector<char> block_;
    AERROR failure_ = SUCCESS;
};

AERROR CacheEntry::Fill(const WantedFn& wanted, const std::shared_ptr<_FS_HANDLE>& handle,
                        IFetch* fetch, const FillOptions& options, const ReadyFn& ready) {
    int rounds = 0;
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        if (forgotten_) return CACHE_NOT_OPENED;
        std::vector<BlockRun> own;
        bool busy = false;
        if (fetch != nullptr) {
            for (const BlockRun& run : wanted()) {
                for (uint64_t block = run.first; block < run.second; ++block) {
                    if (IsBusyLocked(block)) {
                        busy = true;
                    } else if (!own.empty() && own.back().second == block &&
                               block - own.back().first < context_->maxFetchBlocks) {
                        own.back().second = block + 1;
                    } else {
                        own.emplace_back(block, block + 1);
                    }
                }
            }
        }
        if (own.empty()) {
            if (!busy || !options.waitForBusy) return ready ? ready() : SUCCESS;
            // Another fetch is filling blocks we need: wait for it rather than
            // download them twice.
            changed_.wait_for(lock, kBusyPoll);
            if (handle != nullptr && handle->IsClosing()) return READ_CANCELED;
            continue;
        }
        // Each round stores what it fetched unless the content changed meanwhile.
        if (++rounds > kMaxFetchRounds) return CACHE_READ_FAILED;
        const int64_t limit = FetchableEndLocked();
        if (!options.ranged) {
            // Without ranged downloads the whole file comes in one piece.
            own.assign(1,
                       BlockRun(0, BlockMap::BlocksFor(static_cast<uint64_t>(limit), blockSize_)));
        }
        const uint64_t generation = generation_;
        busy_.insert(busy_.end(), own.begin(), own.end());
        lock.unlock();

        AERROR result = SUCCESS;
        for (const BlockRun& run : own) {
            result = FetchRun(run, limit, generation, handle, fetch, options.abort);
            if (result != SUCCESS) break;
        }

        lock.lock();
        for (const BlockRun& run : own) {
            const auto found = std::find(busy_.begin(), busy_.end(), run);
            if (found != busy_.end()) busy_.erase(found);
        }
        changed_.notify_all();
        if (result != SUCCESS) return result;
    }
}

AERROR CacheEntry::FetchRun(BlockRun run, int64_t limit, uint64_t generation,
                            const std::shared_ptr<_FS_HANDLE>& handle, IFetch* fetch,
                            const std::atomic<bool>* abort) {
    const int64_t begin = static_cast<int64_t>(run.first) * blockSize_;
    const int64_t end = std::min<int64_t>(static_cast<int64_t>(run.second) * blockSize_, limit);
    if (end <= begin) return SUCCESS;
    BlockSink sink(this, begin, end, generation, abort);
    AERROR result = fetch->Fetch(begin, end - begin, handle, &sink);
    if (sink.Failure() != SUCCESS) return sink.Failure();
    if (result == SUCCESS) result = sink.Finish();
    return result;
}

AERROR CacheEntry::StoreFetched(uint64_t block, const char* data, uint64_t generation) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (forgotten_ || generation != generation_) return SUCCESS;  // stale: dropped
    const int64_t start = static_cast<int64_t>(block) * blockSize_;
    // Written blocks are never replaced by fetched data.
    if (start >= size_ || map_.Get(block) != BlockState::kAbsent) return SUCCESS;
    const int64_t length = std::min<int64_t>(blockSize_, size_ - start);
    if (!OpenDataLocked()) return CACHE_WRITE_FAILED;
    if (!PwriteAll(fd_, data, length, start)) return CacheContext::WriteFailure(errno);
    fileLength_ = std::max(fileLength_, start + length);
    map_.Set(block, block + 1, BlockState::kFetched);
    dirty_ = true;
    dataDirty_ = true;
    UpdateUsageLocked();
    return SUCCESS;
}

AERROR CacheEntry::Read(_READDATA* request, ReadAheadPlan* plan) {
    if (request == nullptr || request->offset < 0 ||
        (request->size > 0 && request->buffer == nullptr)) {
        return INVALID_PARAMETER;
    }
    request->read = 0;
    const int64_t offset = request->offset;
    const int64_t end =
        offset +
        static_cast<int64_t>(std::min<uint64_t>(
            request->size, static_cast<uint64_t>(std::numeric_limits<int64_t>::max() - offset)));
    FillOptions options;
    options.ranged = request->partial != 0;
    const AERROR result = Fill(
        [&] { return AbsentRunsLocked(offset, end); }, request->handle, request->fetch, options,
        [&]() -> AERROR {
            ranged_ = options.ranged;
            if (offset >= size_) return SUCCESS;  // at or past the end: nothing to read
            const int64_t length = std::min(end, size_) - offset;
            const AERROR copied =
                CopyOutLocked(offset, length, static_cast<char*>(request->buffer));
            if (copied != SUCCESS) return copied;
            request->read = length;
            PlanReadAheadLocked(*request, offset + length, plan);
            return SUCCESS;
        });
    if (result == SUCCESS) Touch();
    return result;
}

AERROR CacheEntry::Write(_WRITEDATA* request) {
    if (request == nullptr || request->offset < 0 ||
        (request->size > 0 && request->buffer == nullptr) ||
        request->size >
            static_cast<uint64_t>(std::numeric_limits<int64_t>::max() - request->offset)) {
        return INVALID_PARAMETER;
    }
    request->written = 0;
    if (request->size == 0) return SUCCESS;
    const int64_t offset = request->offset;
    const int64_t end = offset + static_cast<int64_t>(request->size);
    FillOptions options;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        options.ranged = ranged_;
    }
    // A block that the write covers only in part keeps the rest of its
    // content, so an absent one is fetched first.
    const auto partialAbsentBlocks = [&] {
        std::vector<BlockRun> runs;
        const int64_t fetchable = FetchableEndLocked();
        const int64_t newSize = std::max(size_, end);
        for (const int64_t block : {offset / blockSize_, (end - 1) / blockSize_}) {
            if (!runs.empty() && runs.back().first == static_cast<uint64_t>(block)) continue;
            const int64_t start = block * blockSize_;
            const bool covered =
                offset <= start && end >= std::min<int64_t>(start + blockSize_, newSize);
            if (!covered && start < fetchable && map_.Get(block) == BlockState::kAbsent) {
                runs.emplace_back(block, block + 1);
            }
        }
        return runs;
    };
    const AERROR result =
        Fill(partialAbsentBlocks, request->handle, request->fetch, options, [&]() -> AERROR {
            const AERROR written =
                WriteLocked(offset, end - offset, static_cast<const char*>(request->buffer));
            if (written == SUCCESS) request->written = request->size;
            return written;
        });
    if (result == SUCCESS) Touch();
    return result;
}

AERROR CacheEntry::FillUnwritten(const std::shared_ptr<_FS_HANDLE>& handle) {
    IFetch* fetch = nullptr;
    FillOptions options;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (forgotten_) return CACHE_NOT_OPENED;
        fetch = fetcher_;
        options.ranged = ranged_;
    }
    // Without a fetcher there is no remote copy: absent blocks are zeros.
    if (fetch == nullptr) return SUCCESS;
    return Fill([&] { return AbsentRunsLocked(0, size_); }, handle, fetch, options, nullptr);
}

void CacheEntry::RunReadAhead(const ReadAheadPlan& plan) {
    if (!stopReadAhead_.load() && plan.handle != nullptr && !plan.handle->IsClosing()) {
        FillOptions options;
        options.waitForBusy = false;
        options.abort = &stopReadAhead_;
        Fill([&] { return AbsentRunsLocked(plan.begin, plan.end); }, plan.handle, plan.fetch,
             options, nullptr);
    }
    ReadAheadEnded();
}

void CacheEntry::ReadAheadEnded() {
    std::lock_guard<std::mutex> lock(mutex_);
    readAheadRunning_ = false;
    changed_.notify_all();
}

std::vector<BlockRun> CacheEntry::AbsentRunsLocked(int64_t begin, int64_t end) const {
    end = std::min(end, FetchableEndLocked());
    if (end <= begin) return {};
    return map_.AbsentRuns(static_cast<uint64_t>(begin) / blockSize_,
                           BlockMap::BlocksFor(static_cast<uint64_t>(end), blockSize_),
                           std::numeric_limits<uint64_t>::max());
}

bool CacheEntry::IsBusyLocked(uint64_t block) const {
    for (const BlockRun& run : busy_) {
        if (block >= run.first && block < run.second) return true;
    }
    return false;
}

int64_t CacheEntry::FetchableEndLocked() const {
    return std::min(size_, fetchLimit_);
}

AERROR CacheEntry::CopyOutLocked(int64_t offset, int64_t length, char* out) {
    const int64_t end = offset + length;
    int64_t pos = offset;
    while (pos < end) {
        // One pass per stretch of blocks that are all held or all absent.
        const bool held = map_.Get(static_cast<uint64_t>(pos / blockSize_)) != BlockState::kAbsent;
        int64_t stop = std::min<int64_t>(pos - pos % blockSize_ + blockSize_, end);
        while (stop < end && (map_.Get(static_cast<uint64_t>(stop / blockSize_)) !=
                              BlockState::kAbsent) == held) {
            stop = std::min<int64_t>(stop + blockSize_, end);
        }
        char* target = out + (pos - offset);
        int64_t got = 0;
        if (held) {
            if (!OpenDataLocked() || !PreadAll(fd_, target, stop - pos, pos, &got)) {
                return CACHE_READ_FAILED;
            }
        }
        // Absent blocks here have nothing to fetch, and a data file shorter
        // than the block holds zeros past its end.
        memset(target + got, 0, static_cast<size_t>(stop - pos - got));
        pos = stop;
    }
    return SUCCESS;
}

// On failure the entry is as before the write: the size, the data file's
// length and the block map, except that fetched blocks the write reached count
// as absent again, since their bytes may now be partly the write's.
AERROR CacheEntry::WriteLocked(int64_t offset, int64_t length, const char* data) {
    const int64_t end = offset + length;
    const uint64_t first = static_cast<uint64_t>(offset / blockSize_);
    const uint64_t last = static_cast<uint64_t>((end - 1) / blockSize_);
    const int64_t oldSize = size_;
    const int64_t oldLimit = fetchLimit_;
    const uint64_t tail = static_cast<uint64_t>(oldSize) / blockSize_;
    const BlockState tailState = map_.Get(tail);
    AERROR result = end > size_ ? ExtendLocked(end, false) : SUCCESS;
    if (result == SUCCESS) result = StoreLocked(offset, length, data);
    if (result != SUCCESS) {
        if (size_ != oldSize) {
            map_.Resize(BlockMap::BlocksFor(static_cast<uint64_t>(oldSize), blockSize_));
            if (oldSize % blockSize_ != 0) map_.Set(tail, tail + 1, tailState);
            // Gives back the space that the write took past the old end.
            if (ftruncate(fd_, oldSize) == 0) fileLength_ = oldSize;
            size_ = oldSize;
            fetchLimit_ = oldLimit;
        }
        for (uint64_t block = first; block <= last && block < map_.Count(); ++block) {
            if (map_.Get(block) == BlockState::kFetched) {
                map_.Set(block, block + 1, BlockState::kAbsent);
            }
        }
        UpdateUsageLocked();
        return result;
    }
    fileLength_ = std::max(fileLength_, end);
    dataDirty_ = true;
    // Rewriting blocks already written leaves the row as it is.
    for (uint64_t block = first; block <= last && !dirty_; ++block) {
        dirty_ = map_.Get(block) != BlockState::kWritten;
    }
    map_.Set(first, last + 1, BlockState::kWritten);
    UpdateUsageLocked();
    return SUCCESS;
}

AERROR CacheEntry::StoreLocked(int64_t offset, int64_t length, const char* data) {
    if (!OpenDataLocked()) return CACHE_WRITE_FAILED;
    const int64_t end = offset + length;
    const uint64_t first = static_cast<uint64_t>(offset / blockSize_);
    const uint64_t last = static_cast<uint64_t>((end - 1) / blockSize_);
    // An absent block written in part, with nothing to fetch, is otherwise zeros.
    const uint64_t edges[2] = {first, last};
    for (int index = 0; index < (first == last ? 1 : 2); ++index) {
        const uint64_t block = edges[index];
        if (map_.Get(block) != BlockState::kAbsent) continue;
        const int64_t start = static_cast<int64_t>(block) * blockSize_;
        const int64_t stop = std::min<int64_t>(start + blockSize_, size_);
        if (offset <= start && end >= stop) continue;
        const std::vector<char> zeros(static_cast<size_t>(stop - start), 0);
        if (!PwriteAll(fd_, zeros.data(), stop - start, start)) {
            return CacheContext::WriteFailure(errno);
        }
    }
    if (!PwriteAll(fd_, data, length, offset)) return CacheContext::WriteFailure(errno);
    return SUCCESS;
}

void CacheEntry::PlanReadAheadLocked(const _READDATA& request, int64_t readEnd,
                                     ReadAheadPlan* plan) {
    if (request.offset == lastReadEnd_) {
        ++sequentialReads_;
    } else {
        sequentialReads_ = request.offset == 0 ? 1 : 0;
    }
    lastReadEnd_ = readEnd;
    if (plan == nullptr || sequentialReads_ < 2 || !ranged_ || readAheadRunning_ ||
        stopReadAhead_.load() || openCount_ == 0 || context_->queue == nullptr ||
        context_->readAheadBlocks == 0 || request.fetch == nullptr || request.handle == nullptr ||
        request.handle->IsClosing()) {
        return;
    }
    const int64_t window = static_cast<int64_t>(context_->readAheadBlocks) * blockSize_;
    const int64_t end = std::min(readEnd + window, FetchableEndLocked());
    // Start only when the nearer half of the window lacks blocks, so that each
    // read-ahead fetches a good stretch rather than one block at a time.
    bool needed = false;
    for (const BlockRun& run : AbsentRunsLocked(readEnd, readEnd + window / 2)) {
        for (uint64_t block = run.first; block < run.second && !needed; ++block) {
            needed = !IsBusyLocked(block);
        }
    }
    if (!needed) return;
    readAheadRunning_ = true;
    plan->wanted = true;
    plan->begin = readEnd;
    plan->end = end;
    plan->handle = request.handle;
    plan->fetch = request.fetch;
}
