#include "support/memory_cache.h"

#include <algorithm>
#include <cstring>

namespace {

// Collects one fetch of [base, base + length); data outside it breaks the fetch.
class Collector : public IFetchCallback {
  public:
    Collector(long long base, long long length) : base_(base), data(length, '\0') {}

    AERROR FetchWrite(long long offset, const char* bytes, long size, long* written) override {
        if (size < 0 || offset < base_ ||
            offset - base_ + size > static_cast<long long>(data.size()))
            return INVALID_PARAMETER;
        data.replace(offset - base_, size, bytes, size);
        if (written != nullptr) *written = size;
        return SUCCESS;
    }

    const long long base_;
    std::string data;
};

}  // namespace

void MemoryCacheObject::ForgetLocked(std::size_t block) {
    blocks_[block] = kAbsent;
    std::fill_n(data_.begin() + block * blockSize_, blockSize_, '\0');
}

void MemoryCacheObject::ResizeLocked(long long size, bool addedIsWritten) {
    const long long old = size_;
    const auto blocks = static_cast<std::size_t>((size + blockSize_ - 1) / blockSize_);
    // Forget cut bytes, so that growing again reads zeros there.
    if (size < old) std::fill(data_.begin() + size, data_.end(), '\0');
    data_.resize(blocks * blockSize_, '\0');
    blocks_.resize(blocks, addedIsWritten ? kWritten : kAbsent);
    // The block that held the old end now also holds added bytes: a fetched
    // one changed locally; an absent one stays absent, so that its data below
    // the old end is still fetched.
    if (size > old && addedIsWritten && old % blockSize_ != 0 &&
        blocks_[old / blockSize_] == kFetched)
        blocks_[old / blockSize_] = kWritten;
    size_ = size;
}

AERROR MemoryCacheObject::FetchMissing(long long first, long long last, IFetch* fetch,
                                       const std::shared_ptr<_FS_HANDLE>& handle) {
    for (long long b = first;; ++b) {
        long long offset = 0;
        long long end = 0;
        {
            std::lock_guard<std::mutex> lock(mu_);
            last = std::min<long long>(last, blocks_.size());
            while (b < last && blocks_[b] != kAbsent)
                ++b;
            if (b >= last) return SUCCESS;
            const long long runStart = b;
            while (b < last && blocks_[b] == kAbsent)
                ++b;
            offset = runStart * blockSize_;
            end = std::min(b * blockSize_, size_);
        }
        {
            std::lock_guard<std::mutex> lock(fetches_->mu);
            fetches_->ranges.emplace_back(offset, end - offset);
        }
        Collector collector(offset, end - offset);
        const AERROR rc = fetch->Fetch(offset, end - offset, handle, &collector);
        if (rc != SUCCESS) return rc;
        // Only blocks still absent take the data: one written meanwhile keeps
        // the local data.
        std::lock_guard<std::mutex> lock(mu_);
        end = std::min(end, size_);
        for (long long at = offset / blockSize_; at * blockSize_ < end; ++at) {
            if (blocks_[at] != kAbsent) continue;
            const long long from = at * blockSize_;
            const long long to = std::min(from + blockSize_, end);
            std::copy_n(collector.data.begin() + (from - offset), to - from, data_.begin() + from);
            blocks_[at] = kFetched;
        }
    }
}

AERROR MemoryCacheObject::Read(_READDATA* request) {
    request->read = 0;
    const long long offset = request->offset;
    long long end = 0;
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (offset < 0) return INVALID_PARAMETER;
        end = std::min<long long>(offset + request->size, size_);
    }
    if (end <= offset) return SUCCESS;
    if (request->fetch != nullptr) {
        const AERROR rc = FetchMissing(offset / blockSize_, (end + blockSize_ - 1) / blockSize_,
                                       request->fetch, request->handle);
        if (rc != SUCCESS) return rc;
    }
    std::lock_guard<std::mutex> lock(mu_);
    end = std::min(end, size_);  // it may have shrunk meanwhile
    if (end > offset) {
        std::memcpy(request->buffer, data_.data() + offset, end - offset);
        request->read = end - offset;
    }
    return SUCCESS;
}

AERROR MemoryCacheObject::Write(_WRITEDATA* request) {
    request->written = 0;
    if (request->offset < 0) return INVALID_PARAMETER;
    if (request->size == 0) return SUCCESS;
    const long long offset = request->offset;
    const long long end = offset + static_cast<long long>(request->size);
    const long long first = offset / blockSize_;
    const long long last = (end - 1) / blockSize_;
    // An edge block keeps bytes the write does not cover, below the size.
    long long size = 0;
    {
        std::lock_guard<std::mutex> lock(mu_);
        size = size_;
    }
    if (request->fetch != nullptr) {
        AERROR rc = SUCCESS;
        if (offset % blockSize_ != 0)
            rc = FetchMissing(first, first + 1, request->fetch, request->handle);
        if (rc == SUCCESS && end % blockSize_ != 0 && end < size)
            rc = FetchMissing(last, last + 1, request->fetch, request->handle);
        if (rc != SUCCESS) return rc;
    }
    std::lock_guard<std::mutex> lock(mu_);
    if (end > size_) ResizeLocked(end, true);
    std::memcpy(&data_[offset], request->buffer, request->size);
    std::fill(blocks_.begin() + first, blocks_.begin() + last + 1, kWritten);
    request->written = request->size;
    return SUCCESS;
}

AERROR MemoryCacheObject::Reopen(char mode, long long size, IFetch* fetcher) {
    if (mode != 'r' && mode != 'w') return CACHE_INVALID_OPEN_MODE;
    if (size < 0) return INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mu_);
    fetcher_ = fetcher;
    ResizeLocked(size, false);
    return SUCCESS;
}

AERROR MemoryCacheObject::SetSize(long long size) {
    if (size < 0) return INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(mu_);
    ResizeLocked(size, true);
    return SUCCESS;
}

AERROR MemoryCacheObject::FillUnwritten(std::shared_ptr<_FS_HANDLE> handle) {
    IFetch* fetch = nullptr;
    {
        std::lock_guard<std::mutex> lock(mu_);
        fetch = fetcher_;
    }
    // Without a remote copy absent blocks are zeros.
    return fetch == nullptr ? SUCCESS : FetchMissing(0, INT64_MAX, fetch, handle);
}

AERROR MemoryCacheObject::DropClean() {
    std::lock_guard<std::mutex> lock(mu_);
    for (std::size_t b = 0; b < blocks_.size(); ++b) {
        if (blocks_[b] == kFetched) ForgetLocked(b);
    }
    return SUCCESS;
}

AERROR MemoryCacheObject::Commit() {
    std::lock_guard<std::mutex> lock(mu_);
    std::replace(blocks_.begin(), blocks_.end(), kWritten, kFetched);
    return SUCCESS;
}

AERROR MemoryCacheObject::Discard() {
    std::lock_guard<std::mutex> lock(mu_);
    for (std::size_t b = 0; b < blocks_.size(); ++b)
        ForgetLocked(b);
    return SUCCESS;
}

std::string MemoryCacheObject::Contents() const {
    std::lock_guard<std::mutex> lock(mu_);
    return data_.substr(0, size_);
}

std::shared_ptr<ICacheObj> MemoryCacheService::Open(const char* key, char mode, long long size,
                                                    IFetch* fetcher) {
    std::lock_guard<std::mutex> lock(mu_);
    if (openFails_) return nullptr;
    auto& object = entries_[key];
    if (!object) object = std::make_shared<MemoryCacheObject>(fetches_, blockSize_);
    if (object->Reopen(mode, size, fetcher) != SUCCESS) return nullptr;
    return object;
}

AERROR MemoryCacheService::Rekey(const char* oldKey, const char* newKey, const char*) {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(oldKey);
    if (it == entries_.end()) return FILE_NOT_FOUND;
    auto object = std::move(it->second);
    entries_.erase(it);
    entries_[newKey] = std::move(object);
    return SUCCESS;
}

void MemoryCacheService::SetOpenFails(bool fail) {
    std::lock_guard<std::mutex> lock(mu_);
    openFails_ = fail;
}

std::string MemoryCacheService::Contents(const std::string& key) const {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = entries_.find(key);
    return it == entries_.end() ? "" : it->second->Contents();
}

int MemoryCacheService::FetchCalls() const {
    std::lock_guard<std::mutex> lock(fetches_->mu);
    return static_cast<int>(fetches_->ranges.size());
}

std::vector<std::pair<long long, long long>> MemoryCacheService::FetchedRanges() const {
    std::lock_guard<std::mutex> lock(fetches_->mu);
    return fetches_->ranges;
}
