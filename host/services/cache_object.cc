#include "services/cache_object.h"

#include <utility>

#include "services/queued_call.h"

CacheObject::CacheObject(std::shared_ptr<CacheEntry> entry, std::shared_ptr<CacheContext> context,
                         GrownFn grown, RoomFn room)
    : entry_(std::move(entry)),
      context_(std::move(context)),
      grown_(std::move(grown)),
      room_(std::move(room)) {}

template <typename Operation>
AERROR CacheObject::WithRoom(uint64_t bytes, Operation&& operation) {
    AERROR result = operation();
    if (result == CACHE_TOO_SMALL && room_(bytes)) result = operation();
    if (result == CACHE_TOO_SMALL) context_->NoteFull();
    return result;
}

AERROR CacheObject::Read(_READDATA* request) {
    ReadAheadPlan plan;
    // A read stores what it fetches: it may need room too.
    const uint64_t room = request != nullptr ? request->size + 2ull * context_->blockSize : 0;
    const AERROR result = WithRoom(room, [&] { return entry_->Read(request, &plan); });
    if (plan.wanted) {
        // The job keeps the entry alive until it ends; an entry whose
        // read-ahead never runs is told so at once.
        const std::shared_ptr<CacheEntry> entry = entry_;
        const auto ended = [entry] { entry->ReadAheadEnded(); };
        if (!RunQueued(
                context_->queue, [entry, plan] { entry->RunReadAhead(plan); }, ended)) {
            ended();
        }
    }
    if (result == SUCCESS) grown_(false);
    return result;
}

AERROR CacheObject::Write(_WRITEDATA* request) {
    // The blocks at either end may be filled in besides the bytes written.
    const uint64_t room = request != nullptr ? request->size + 2ull * context_->blockSize : 0;
    const AERROR result = WithRoom(room, [&] { return entry_->Write(request); });
    if (result == SUCCESS) {
        context_->NoteRoom();
        grown_(false);
    }
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
    const uint64_t room = static_cast<uint64_t>(context_->maxFetchBlocks) * context_->blockSize;
    const AERROR result = WithRoom(room, [&] { return entry_->FillUnwritten(handle); });
    grown_(false);
    return result;
}

AERROR CacheObject::DropClean() {
    return entry_->DropClean();
}

AERROR CacheObject::CheckVersion(const char* version) {
    return entry_->CheckVersion(version != nullptr ? version : "");
}

AERROR CacheObject::SetVersion(const char* version) {
    return entry_->SetVersion(version != nullptr ? version : "");
}

AERROR CacheObject::Commit() {
    AERROR result = entry_->Commit();
    // The commit holds in memory even when its record did not fit: saving it
    // again keeps a restart from taking uploaded data for unsent data.
    if (result == CACHE_TOO_SMALL && room_(context_->blockSize)) result = entry_->Save();
    // Committed data may be evicted once the entry is closed.
    grown_(true);
    return result;
}

AERROR CacheObject::Discard() {
    const AERROR result = entry_->Discard();
    grown_(true);
    return result;
}

AERROR CacheObject::Sync() {
    // Only records are written: a little room is enough.
    return WithRoom(context_->blockSize, [&] { return entry_->Sync(); });
}

AERROR CacheObject::SaveWritten() {
    return WithRoom(context_->blockSize, [&] { return entry_->SaveWritten(); });
}
