#include "data/cache_io.h"

#include <event2/buffer.h>

#include <climits>
#include <cstring>
#include <new>
#include <thread>
#include <utility>

#include "services/export_interface.h"

// --- TimeoutKeeper -----------------------------------------------------------

void TimeoutKeeper::operator()() {
    if (config_ == nullptr || service_ == nullptr) return;
    const long long elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  std::chrono::steady_clock::now() - lastReset_)
                                  .count();
    if (elapsed > config_->GetConfig().timeout_reset) {
        // The configuration may have changed since the first look.
        service_->ResetTimeout(static_cast<unsigned long>(config_->GetConfig().fstimeout));
        lastReset_ = std::chrono::steady_clock::now();
    }
}

// --- PreventTimeoutCacheIO ---------------------------------------------------

PreventTimeoutCacheIO::PreventTimeoutCacheIO(std::shared_ptr<ICacheObj> cacheObject,
                                             IExportService* service, IFSConfig* config)
    : cacheObject_(std::move(cacheObject)), keeper_(service, config) {}

AERROR PreventTimeoutCacheIO::Read(_READDATA* request) {
    if (!cacheObject_) return ACCESS_VIOLATION;
    keeper_();
    return cacheObject_->Read(request);
}

AERROR PreventTimeoutCacheIO::Write(_WRITEDATA* request) {
    if (!cacheObject_) return ACCESS_VIOLATION;
    keeper_();
    return cacheObject_->Write(request);
}

// --- EvCache -----------------------------------------------------------------

namespace {

std::shared_ptr<evbuffer> NewEvBuffer() {
    evbuffer* raw = evbuffer_new();
    if (raw == nullptr) throw std::bad_alloc();
    // Should the control block fail to allocate, shared_ptr frees `raw`
    // through the deleter before it throws.
    return std::shared_ptr<evbuffer>(raw, evbuffer_free);
}

}  // namespace

EvCache::EvCache(std::shared_ptr<_FS_HANDLE> handle, long long total)
    : handle_(std::move(handle)), buffer_(NewEvBuffer()), total_(total) {}

bool EvCache::HandleClosing() const {
    return handle_ == nullptr || handle_->IsClosing();
}

template <typename Ready>
bool EvCache::WaitUntil(Ready ready) const {
    // The lock is taken only inside `ready`, never across the sleep, so the
    // writer is not held up by a waiting reader.
    while (!ready()) {
        std::this_thread::sleep_for(kPollInterval);
        if (HandleClosing()) return false;
    }
    return true;
}

AERROR EvCache::Write(_WRITEDATA* request) {
    if (request == nullptr) return INVALID_PARAMETER;
    if (request->size > 0 && request->buffer == nullptr) return INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(lock_);
    if (evbuffer_add(buffer_.get(), request->buffer, request->size) != 0) {
        return FILE_WRITE_FAILED;
    }
    request->written = request->size;
    return SUCCESS;
}

AERROR EvCache::Read(_READDATA* request) {
    if (request == nullptr) return INVALID_PARAMETER;
    long long consumed;
    {
        std::lock_guard<std::mutex> lock(lock_);
        consumed = consumed_;
    }
    if (consumed >= total_) {
        request->read = 0;
        return SUCCESS;
    }
    // Only the reader moves consumed_, so it cannot change behind our back.
    if (request->offset != consumed) return FILE_READ_FAILED;
    if (HandleClosing()) return FAILED;

    const bool ready = WaitUntil([this] {
        std::lock_guard<std::mutex> lock(lock_);
        return evbuffer_get_length(buffer_.get()) != 0;
    });
    if (!ready) return FAILED;

    std::lock_guard<std::mutex> lock(lock_);
    // Never hand out bytes beyond the pipe's total, and stay within what
    // evbuffer_remove can report.
    uint64_t wanted = request->size;
    const uint64_t remaining = static_cast<uint64_t>(total_ - consumed_);
    if (wanted > remaining) wanted = remaining;
    if (wanted > static_cast<uint64_t>(INT_MAX)) wanted = INT_MAX;
    const int removed = wanted == 0 ? 0 : evbuffer_remove(buffer_.get(), request->buffer, wanted);
    if (removed < 1) return FILE_READ_FAILED;
    consumed_ += removed;
    request->read = removed;

    // Tell the producer how far the data has been received, so that it keeps
    // the pipe topped up; it is not asked for more while 2 MiB wait here.
    const size_t buffered = evbuffer_get_length(buffer_.get());
    const long long received = consumed_ + static_cast<long long>(buffered);
    if (buffered < kTopUpLimit && received < total_ && handle_) handle_->fetchMark = received;
    return SUCCESS;
}

// --- FileCache ---------------------------------------------------------------

FileCache::FileCache(std::shared_ptr<_FS_HANDLE> handle, long long total,
                     std::shared_ptr<ICacheIO> target)
    : EvCache(std::move(handle), total), target_(std::move(target)) {}

AERROR FileCache::Write(_WRITEDATA* request) {
    if (request == nullptr) return INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(lock_);
    if (!target_ || target_->Write(request) != SUCCESS) return FILE_WRITE_FAILED;
    filled_ += static_cast<long long>(request->written);
    return SUCCESS;
}

AERROR FileCache::Read(_READDATA* request) {
    if (request == nullptr) return INVALID_PARAMETER;
    const long long offset = request->offset;
    // Nothing is ever written past the total, so a read there would wait
    // for ever: it is the end of the data.
    if (offset >= total_) {
        request->read = 0;
        return SUCCESS;
    }
    if (offset < 0) return FILE_READ_FAILED;
    if (HandleClosing()) return FAILED;

    const bool ready = WaitUntil([this, offset] {
        std::lock_guard<std::mutex> lock(lock_);
        return filled_ > offset;
    });
    if (!ready) return FAILED;

    std::lock_guard<std::mutex> lock(lock_);
    const uint64_t available = static_cast<uint64_t>(filled_ - offset);
    if (available < request->size) request->size = available;
    if (!target_ || target_->Read(request) != SUCCESS) return FILE_READ_FAILED;
    const long long end = offset + request->read;
    if (end < total_ && handle_) handle_->fetchMark = end;
    return SUCCESS;
}

// --- FetchToBuffer -----------------------------------------------------------

AERROR FetchToBuffer::FetchWrite(long long /*offset*/, const char* data, long size, long* written) {
    if (size < 0) return INVALID_PARAMETER;
    if (size > 0 && (data == nullptr || destination_ == nullptr)) return INVALID_PARAMETER;
    if (size > 0) memcpy(destination_, data, static_cast<size_t>(size));
    if (written != nullptr) *written = size;
    totalWritten_ += size;
    return SUCCESS;
}
