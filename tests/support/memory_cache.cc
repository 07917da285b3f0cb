#include "support/memory_cache.h"

#include <algorithm>
#include <cstring>

namespace {

bool ValidMode(char mode) {
    return mode == 'r' || mode == 'w';
}

// Collects one fetch into a buffer covering [base, base + length); data
// outside that range breaks the fetch.
class Collector : public IFetchCallback {
  public:
    Collector(long long base, long long length, std::shared_ptr<MemoryCacheStats> stats)
        : base_(base), buffer_(static_cast<std::size_t>(length), 0), stats_(std::move(stats)) {}

    AERROR FetchWrite(long long offset, const char* data, long size, long* written) override {
        if (written != nullptr) {
            *written = 0;
        }
        if (size < 0 || (data == nullptr && size > 0) || offset < base_ ||
            offset - base_ + size > static_cast<long long>(buffer_.size())) {
            return INVALID_PARAMETER;
        }
        std::memcpy(buffer_.data() + (offset - base_), data, static_cast<std::size_t>(size));
        if (written != nullptr) {
            *written = size;
        }
        std::lock_guard<std::mutex> lock(stats_->mu);
        stats_->fetchedBytes += size;
        return SUCCESS;
    }

    const std::vector<char>& Data() const { return buffer_; }

  private:
    const long long base_;
    std::vector<char> buffer_;
    const std::shared_ptr<MemoryCacheStats> stats_;
};

}  // namespace

// ---- MemoryCacheObject ----

MemoryCacheObject::MemoryCacheObject(std::shared_ptr<MemoryCacheStats> stats, long long blockSize)
    : stats_(std::move(stats)), blockSize_(blockSize > 0 ? blockSize : 4096) {}

void MemoryCacheObject::ForgetLocked(long long block) {
    blocks_[static_cast<std::size_t>(block)] = kAbsent;
    const auto start = data_.begin() + block * blockSize_;
    std::fill(start, start + blockSize_, 0);
}

void MemoryCacheObject::ResizeLocked(long long size, bool addedIsWritten) {
    const long long old = size_;
    const auto blocks = static_cast<std::size_t>(BlockCount(size));
    if (size < old) {
        // Forget the cut bytes, so that growing again reads zeros there.
        std::fill(data_.begin() + size, data_.end(), 0);
        data_.resize(blocks * static_cast<std::size_t>(blockSize_));
        blocks_.resize(blocks);
    } else if (size > old) {
        data_.resize(blocks * static_cast<std::size_t>(blockSize_), 0);
        blocks_.resize(blocks, addedIsWritten ? kWritten : kAbsent);
        // The block holding the old end now also holds added bytes. A fetched
        // one changed locally; an absent one stays absent, so that its data
        // below the old end is still fetched.
        if (addedIsWritten && old % blockSize_ != 0) {
            uint8_t& edge = blocks_[static_cast<std::size_t>(old / blockSize_)];
            if (edge == kFetched) {
                edge = kWritten;
            }
        }
    }
    size_ = size;
}

long long MemoryCacheObject::HeldLocked(uint8_t mask) const {
    long long bytes = 0;
    for (std::size_t b = 0; b < blocks_.size(); ++b) {
        if ((blocks_[b] & mask) != 0) {
            const long long start = static_cast<long long>(b) * blockSize_;
            bytes += std::min(start + blockSize_, size_) - start;
        }
    }
    return bytes;
}

AERROR MemoryCacheObject::FetchBlocks(long long first, long long last, IFetch* fetch,
                                      const std::shared_ptr<_FS_HANDLE>& handle) {
    long long offset = 0;
    long long end = 0;
    {
        std::lock_guard<std::mutex> lock(mu_);
        offset = first * blockSize_;
        end = std::min(last * blockSize_, size_);
    }
    if (end <= offset) {
        return SUCCESS;
    }
    {
        std::lock_guard<std::mutex> lock(stats_->mu);
        ++stats_->fetchCalls;
        if (!handle) {
            ++stats_->fetchesWithoutHandle;
        }
        stats_->fetchedRanges.emplace_back(offset, end - offset);
    }
    Collector collector(offset, end - offset, stats_);
    const AERROR rc = fetch->Fetch(offset, end - offset, handle, &collector);
    if (rc != SUCCESS) {
        return rc;
    }
    // Store into the blocks still absent: a block written meanwhile keeps the
    // local data, and one fetched meanwhile already holds the same bytes.
    std::lock_guard<std::mutex> lock(mu_);
    const std::vector<char>& data = collector.Data();
    for (long long b = first; b < last && b < static_cast<long long>(blocks_.size()); ++b) {
        if (blocks_[static_cast<std::size_t>(b)] != kAbsent) {
            continue;
        }
        const long long from = std::max(b * blockSize_, offset);
        const long long to = std::min({(b + 1) * blockSize_, end, size_});
        if (to > from) {
            std::memcpy(data_.data() + from, data.data() + (from - offset),
                        static_cast<std::size_t>(to - from));
        }
        blocks_[static_cast<std::size_t>(b)] = kFetched;
    }
    return SUCCESS;
}

AERROR MemoryCacheObject::FetchMissing(long long first, long long last, IFetch* fetch,
                                       const std::shared_ptr<_FS_HANDLE>& handle) {
    std::vector<std::pair<long long, long long>> runs;
    {
        std::lock_guard<std::mutex> lock(mu_);
        last = std::min(last, static_cast<long long>(blocks_.size()));
        for (long long b = first; b < last; ++b) {
            if (blocks_[static_cast<std::size_t>(b)] != kAbsent) {
                continue;
            }
            if (!runs.empty() && runs.back().second == b) {
                runs.back().second = b + 1;
            } else {
                runs.emplace_back(b, b + 1);
            }
        }
    }
    for (const auto& run : runs) {
        const AERROR rc = FetchBlocks(run.first, run.second, fetch, handle);
        if (rc != SUCCESS) {
            return rc;
        }
    }
    return SUCCESS;
}

AERROR MemoryCacheObject::Read(_READDATA* request) {
    if (request == nullptr || (request->buffer == nullptr && request->size > 0)) {
        return INVALID_PARAMETER;
    }
    {
        std::lock_guard<std::mutex> lock(stats_->mu);
        ++stats_->reads;
    }
    request->read = 0;
    const long long offset = request->offset;
    long long end = 0;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (offset < 0) {
            return INVALID_PARAMETER;
        }
        if (offset >= size_ || request->size == 0) {
            return SUCCESS;
        }
        end = offset + static_cast<long long>(std::min<uint64_t>(request->size, size_ - offset));
    }
    if (request->fetch != nullptr) {
        const AERROR rc =
            FetchMissing(offset / blockSize_, BlockCount(end), request->fetch, request->handle);
        if (rc != SUCCESS) {
            return rc;
        }
    }
    std::lock_guard<std::mutex> lock(mu_);
    end = std::min(end, size_);  // it may have shrunk meanwhile
    if (end > offset) {
        std::memcpy(request->buffer, data_.data() + offset, static_cast<std::size_t>(end - offset));
        request->read = end - offset;
    }
    return SUCCESS;
}

AERROR MemoryCacheObject::Write(_WRITEDATA* request) {
    if (request == nullptr || (request->buffer == nullptr && request->size > 0) ||
        request->offset < 0) {
        return INVALID_PARAMETER;
    }
    {
        std::lock_guard<std::mutex> lock(stats_->mu);
        ++stats_->writes;
    }
    request->written = 0;
    if (request->size == 0) {
        return SUCCESS;
    }
    const long long offset = request->offset;
    const long long end = offset + static_cast<long long>(request->size);
    const long long first = offset / blockSize_;
    const long long last = (end - 1) / blockSize_;
    bool fetchFirst = false;
    bool fetchLast = false;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (mode_ != 'w') {
            std::lock_guard<std::mutex> statsLock(stats_->mu);
            ++stats_->writesInReadMode;
        }
        const auto absent = [&](long long b) {
            return b < static_cast<long long>(blocks_.size()) &&
                   blocks_[static_cast<std::size_t>(b)] == kAbsent;
        };
        // An edge block keeps bytes the write does not cover, below the size.
        fetchFirst = offset % blockSize_ != 0 && first * blockSize_ < size_ && absent(first);
        fetchLast = end % blockSize_ != 0 && end < size_ && absent(last);
    }
    if (request->fetch != nullptr && (fetchFirst || fetchLast)) {
        AERROR rc = SUCCESS;
        if (fetchFirst && fetchLast && last - first <= 1) {
            rc = FetchBlocks(first, last + 1, request->fetch, request->handle);
        } else {
            if (fetchFirst) {
                rc = FetchBlocks(first, first + 1, request->fetch, request->handle);
            }
            if (rc == SUCCESS && fetchLast) {
                rc = FetchBlocks(last, last + 1, request->fetch, request->handle);
            }
        }
        if (rc != SUCCESS) {
            return rc;
        }
    }
    std::lock_guard<std::mutex> lock(mu_);
    if (end > size_) {
        ResizeLocked(end, true);
    }
    std::memcpy(data_.data() + offset, request->buffer, static_cast<std::size_t>(request->size));
    for (long long b = first; b <= last; ++b) {
        blocks_[static_cast<std::size_t>(b)] = kWritten;
    }
    request->written = request->size;
    return SUCCESS;
}

AERROR MemoryCacheObject::Reopen(char mode, long long size, IFetch* fetcher) {
    if (!ValidMode(mode)) {
        return CACHE_INVALID_OPEN_MODE;
    }
    if (size < 0) {
        return INVALID_PARAMETER;
    }
    {
        std::lock_guard<std::mutex> lock(stats_->mu);
        ++stats_->reopens;
    }
    std::lock_guard<std::mutex> lock(mu_);
    mode_ = mode;
    fetcher_ = fetcher;
    ResizeLocked(size, false);
    return SUCCESS;
}

AERROR MemoryCacheObject::SetSize(long long size) {
    if (size < 0) {
        return INVALID_PARAMETER;
    }
    {
        std::lock_guard<std::mutex> lock(stats_->mu);
        ++stats_->setSizes;
    }
    std::lock_guard<std::mutex> lock(mu_);
    ResizeLocked(size, true);
    return SUCCESS;
}

AERROR MemoryCacheObject::FillUnwritten(std::shared_ptr<_FS_HANDLE> handle) {
    {
        std::lock_guard<std::mutex> lock(stats_->mu);
        ++stats_->fills;
    }
    IFetch* fetch = nullptr;
    long long blocks = 0;
    {
        std::lock_guard<std::mutex> lock(mu_);
        fetch = fetcher_;
        blocks = static_cast<long long>(blocks_.size());
    }
    if (fetch == nullptr) {
        return SUCCESS;  // no remote copy: absent blocks are zeros
    }
    return FetchMissing(0, blocks, fetch, handle);
}

AERROR MemoryCacheObject::DropClean() {
    {
        std::lock_guard<std::mutex> lock(stats_->mu);
        ++stats_->drops;
    }
    std::lock_guard<std::mutex> lock(mu_);
    for (std::size_t b = 0; b < blocks_.size(); ++b) {
        if (blocks_[b] == kFetched) {
            ForgetLocked(static_cast<long long>(b));
        }
    }
    return SUCCESS;
}

AERROR MemoryCacheObject::Commit() {
    {
        std::lock_guard<std::mutex> lock(stats_->mu);
        ++stats_->commits;
    }
    std::lock_guard<std::mutex> lock(mu_);
    for (uint8_t& state : blocks_) {
        if (state == kWritten) {
            state = kFetched;
        }
    }
    return SUCCESS;
}

AERROR MemoryCacheObject::Discard() {
    {
        std::lock_guard<std::mutex> lock(stats_->mu);
        ++stats_->discards;
    }
    std::lock_guard<std::mutex> lock(mu_);
    for (std::size_t b = 0; b < blocks_.size(); ++b) {
        ForgetLocked(static_cast<long long>(b));
    }
    return SUCCESS;
}

long long MemoryCacheObject::Size() const {
    std::lock_guard<std::mutex> lock(mu_);
    return size_;
}

char MemoryCacheObject::Mode() const {
    std::lock_guard<std::mutex> lock(mu_);
    return mode_;
}

IFetch* MemoryCacheObject::Fetcher() const {
    std::lock_guard<std::mutex> lock(mu_);
    return fetcher_;
}

std::string MemoryCacheObject::Contents() const {
    std::lock_guard<std::mutex> lock(mu_);
    return std::string(data_.data(), static_cast<std::size_t>(size_));
}

long long MemoryCacheObject::WrittenBytes() const {
    std::lock_guard<std::mutex> lock(mu_);
    return HeldLocked(kWritten);
}

long long MemoryCacheObject::HeldBytes() const {
    std::lock_guard<std::mutex> lock(mu_);
    return HeldLocked(kFetched | kWritten);
}

MemoryCacheObject::BlockState MemoryCacheObject::StateOf(long long block) const {
    std::lock_guard<std::mutex> lock(mu_);
    if (block < 0 || block >= static_cast<long long>(blocks_.size())) {
        return kAbsent;
    }
    return static_cast<BlockState>(blocks_[static_cast<std::size_t>(block)]);
}

std::vector<MemoryCacheObject::BlockState> MemoryCacheObject::States() const {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<BlockState> states;
    for (uint8_t state : blocks_) {
        states.push_back(static_cast<BlockState>(state));
    }
    return states;
}

// ---- MemoryCacheService ----

MemoryCacheService::MemoryCacheService(long long blockSize)
    : blockSize_(blockSize > 0 ? blockSize : 4096), stats_(std::make_shared<MemoryCacheStats>()) {}

AERROR MemoryCacheService::GetUsage(unsigned long long* used, unsigned long long* unsent) {
    if (used == nullptr || unsent == nullptr) {
        return INVALID_PARAMETER;
    }
    std::lock_guard<std::mutex> lock(mu_);
    *used = 0;
    *unsent = 0;
    for (const auto& entry : entries_) {
        *used += static_cast<unsigned long long>(entry.second.object->HeldBytes());
        *unsent += static_cast<unsigned long long>(entry.second.object->WrittenBytes());
    }
    return SUCCESS;
}

AERROR MemoryCacheService::Flush() {
    std::lock_guard<std::mutex> lock(mu_);
    ++flushes_;
    return SUCCESS;
}

AERROR MemoryCacheService::Remove(const char* key) {
    if (key == nullptr) {
        return INVALID_PARAMETER;
    }
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(key);
    if (it == entries_.end()) {
        return FILE_NOT_FOUND;
    }
    if (it->second.openCount > 0) {
        return SHARING_VIOLATION;
    }
    entries_.erase(it);
    ++removes_;
    return SUCCESS;
}

std::shared_ptr<ICacheObj> MemoryCacheService::Open(const char* key, char mode, long long size,
                                                    IFetch* fetcher) {
    if (key == nullptr || !ValidMode(mode) || size < 0) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(mu_);
    if (openFails_) {
        return nullptr;
    }
    Entry& entry = entries_[key];
    if (!entry.object) {
        entry.object = std::make_shared<MemoryCacheObject>(stats_, blockSize_);
    }
    {
        std::lock_guard<std::mutex> objectLock(entry.object->mu_);
        entry.object->mode_ = mode;
        entry.object->fetcher_ = fetcher;
        entry.object->ResizeLocked(size, false);
    }
    ++entry.openCount;
    ++opens_;
    return entry.object;
}

void MemoryCacheService::Close(const char* key) {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = key == nullptr ? entries_.end() : entries_.find(key);
    if (it == entries_.end() || it->second.openCount == 0) {
        ++badCloses_;
        return;
    }
    --it->second.openCount;
    ++closes_;
}

AERROR MemoryCacheService::Rekey(const char* oldKey, const char* newKey, const char* extra) {
    if (oldKey == nullptr || newKey == nullptr) {
        return INVALID_PARAMETER;
    }
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(oldKey);
    if (it == entries_.end()) {
        return FILE_NOT_FOUND;
    }
    if (std::string(oldKey) != newKey) {
        Entry moved = std::move(it->second);
        entries_.erase(it);
        entries_[newKey] = std::move(moved);
    }
    ++rekeys_;
    lastRekeyExtra_ = extra == nullptr ? "" : extra;
    return SUCCESS;
}

void MemoryCacheService::SetOpenFails(bool fail) {
    std::lock_guard<std::mutex> lock(mu_);
    openFails_ = fail;
}

int MemoryCacheService::Opens() const {
    std::lock_guard<std::mutex> lock(mu_);
    return opens_;
}

int MemoryCacheService::Closes() const {
    std::lock_guard<std::mutex> lock(mu_);
    return closes_;
}

int MemoryCacheService::BadCloses() const {
    std::lock_guard<std::mutex> lock(mu_);
    return badCloses_;
}

int MemoryCacheService::Rekeys() const {
    std::lock_guard<std::mutex> lock(mu_);
    return rekeys_;
}

int MemoryCacheService::Flushes() const {
    std::lock_guard<std::mutex> lock(mu_);
    return flushes_;
}

int MemoryCacheService::Removes() const {
    std::lock_guard<std::mutex> lock(mu_);
    return removes_;
}

std::string MemoryCacheService::LastRekeyExtra() const {
    std::lock_guard<std::mutex> lock(mu_);
    return lastRekeyExtra_;
}

int MemoryCacheService::FetchCalls() const {
    std::lock_guard<std::mutex> lock(stats_->mu);
    return stats_->fetchCalls;
}

int MemoryCacheService::FetchesWithoutHandle() const {
    std::lock_guard<std::mutex> lock(stats_->mu);
    return stats_->fetchesWithoutHandle;
}

long long MemoryCacheService::FetchedBytes() const {
    std::lock_guard<std::mutex> lock(stats_->mu);
    return stats_->fetchedBytes;
}

std::vector<std::pair<long long, long long>> MemoryCacheService::FetchedRanges() const {
    std::lock_guard<std::mutex> lock(stats_->mu);
    return stats_->fetchedRanges;
}

int MemoryCacheService::Reads() const {
    std::lock_guard<std::mutex> lock(stats_->mu);
    return stats_->reads;
}

int MemoryCacheService::Writes() const {
    std::lock_guard<std::mutex> lock(stats_->mu);
    return stats_->writes;
}

int MemoryCacheService::WritesInReadMode() const {
    std::lock_guard<std::mutex> lock(stats_->mu);
    return stats_->writesInReadMode;
}

int MemoryCacheService::Reopens() const {
    std::lock_guard<std::mutex> lock(stats_->mu);
    return stats_->reopens;
}

int MemoryCacheService::SetSizes() const {
    std::lock_guard<std::mutex> lock(stats_->mu);
    return stats_->setSizes;
}

int MemoryCacheService::Fills() const {
    std::lock_guard<std::mutex> lock(stats_->mu);
    return stats_->fills;
}

int MemoryCacheService::Drops() const {
    std::lock_guard<std::mutex> lock(stats_->mu);
    return stats_->drops;
}

int MemoryCacheService::Commits() const {
    std::lock_guard<std::mutex> lock(stats_->mu);
    return stats_->commits;
}

int MemoryCacheService::Discards() const {
    std::lock_guard<std::mutex> lock(stats_->mu);
    return stats_->discards;
}

void MemoryCacheService::ResetCounters() {
    {
        std::lock_guard<std::mutex> lock(mu_);
        opens_ = closes_ = badCloses_ = rekeys_ = flushes_ = removes_ = 0;
        lastRekeyExtra_.clear();
    }
    std::lock_guard<std::mutex> lock(stats_->mu);
    stats_->fetchCalls = stats_->fetchesWithoutHandle = 0;
    stats_->fetchedBytes = 0;
    stats_->fetchedRanges.clear();
    stats_->reads = stats_->writes = stats_->writesInReadMode = stats_->reopens = 0;
    stats_->setSizes = stats_->fills = stats_->drops = stats_->commits = stats_->discards = 0;
}

bool MemoryCacheService::HasEntry(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mu_);
    return entries_.count(key) != 0;
}

int MemoryCacheService::OpenCount(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(key);
    return it == entries_.end() ? 0 : it->second.openCount;
}

std::string MemoryCacheService::Contents(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(key);
    return it == entries_.end() ? "" : it->second.object->Contents();
}

long long MemoryCacheService::Size(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(key);
    return it == entries_.end() ? -1 : it->second.object->Size();
}

long long MemoryCacheService::WrittenBytes(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(key);
    return it == entries_.end() ? 0 : it->second.object->WrittenBytes();
}

std::vector<std::string> MemoryCacheService::Keys() const {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<std::string> keys;
    for (const auto& entry : entries_) {
        keys.push_back(entry.first);
    }
    return keys;
}

std::shared_ptr<MemoryCacheObject> MemoryCacheService::Object(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(key);
    return it == entries_.end() ? nullptr : it->second.object;
}
