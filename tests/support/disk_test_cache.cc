#include "support/disk_test_cache.h"

#include <stdexcept>

#include "services/disk_cache.h"

DiskTestCache::DiskTestCache(uint32_t blockSize) {
    DiskCacheOptions options;
    options.blockSize = blockSize;
    options.readAheadBlocks = 0;
    const Status created =
        DiskCache::Create(dir_ / "cache", 1ull << 30, nullptr, nullptr, &disk_, options);
    // Thrown, so that a test (or a benchmark) stops before using no cache.
    if (!created.ok()) throw std::runtime_error("disk cache: " + created.message());
}

DiskTestCache::~DiskTestCache() = default;

AERROR DiskTestCache::GetUsage(unsigned long long* used, unsigned long long* unsent) {
    return disk_->GetUsage(used, unsent);
}

AERROR DiskTestCache::Flush() {
    return disk_->Flush();
}

AERROR DiskTestCache::Remove(const char* key) {
    return disk_->Remove(key);
}

std::shared_ptr<ICacheObj> DiskTestCache::Open(const char* key, char mode, long long size,
                                               IFetch* fetcher) {
    if (openFails_) return nullptr;
    return disk_->Open(key, mode, size, fetcher);
}

void DiskTestCache::Close(const char* key) {
    disk_->Close(key);
}

AERROR DiskTestCache::Rekey(const char* oldKey, const char* newKey, const char* extra) {
    return disk_->Rekey(oldKey, newKey, extra);
}

void DiskTestCache::NoteOrigin(const char* key, const _CACHE_ORIGIN* origin) {
    disk_->NoteOrigin(key, origin);
}
