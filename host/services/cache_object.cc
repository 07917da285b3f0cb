#include "services/cache_object.h"

#include <utility>

#include "services/read_ahead.h"

CacheObject::CacheObject(std::shared_ptr<CacheEntry> entry, std::shared_ptr<CacheContext> context,
                         GrownFn grown)
    : entry_(std::move(entry)), context_(std::move(context)), grown_(std::move(grown)) {}

AERROR CacheObject::Read(_READDATA* request) {
    ReadAheadPlan plan;
    const AERROR result = entry_->Read(request, &plan);
    if (plan.wanted) StartReadAhead(context_->queue, entry_, plan);
    if (result == SUCCESS) grown_(false);
    return result;
}

AERROR CacheObject::Write(_WRITEDATA* request) {
    const AERROR result = entry_->Write(request);
    if (result == SUCCESS) grown_(false);
    return result;
}

AERROR CacheObject::Reopen(char mode, long long size, IFetch* fetcher) {
    return entry_->Reopen(mode, size, fetcher);
}

AERROR CacheObject::SetSize(long long size) {
    const AERROR result = entry_->SetSize(size);
    if (result == SUCCESS) grown_(false);
    return result;
}

AERROR CacheObject::FillUnwritten(std::shared_ptr<_FS_HANDLE> handle) {
    const AERROR result = entry_->FillUnwritten(handle);
    grown_(false);
    return result;
}

AERROR CacheObject::DropClean() {
    return entry_->DropClean();
}

AERROR CacheObject::Commit() {
    const AERROR result = entry_->Commit();
    // Committed data may be evicted once the entry is closed.
    grown_(true);
    return result;
}

AERROR CacheObject::Discard() {
    const AERROR result = entry_->Discard();
    grown_(true);
    return result;
}
