#include "data/stream_pipe.h"

#include <algorithm>
#include <cstring>

#include "data/async_job.h"

namespace {

constexpr auto kWake = std::chrono::milliseconds(10);

}  // namespace

StreamPipe::StreamPipe(const std::shared_ptr<_FS_HANDLE>& owner,
                       const std::shared_ptr<_ASYNCJOB>& job)
    : ownerId_(owner.get()), owner_(owner), job_(job) {}

bool StreamPipe::StoppedLocked() const {
    if (abandoned_) return true;
    auto job = job_.lock();
    if (!job || job->canceled.load()) return true;
    // A writer that went away without finishing leaves the data incomplete.
    auto owner = owner_.lock();
    return !finished_ && (!owner || owner->IsClosing());
}

bool StreamPipe::Stopped() const {
    std::lock_guard<std::mutex> lock(lock_);
    return StoppedLocked();
}

AERROR StreamPipe::Read(_READDATA* request) {
    if (request == nullptr || (request->size > 0 && request->buffer == nullptr)) {
        return INVALID_PARAMETER;
    }
    std::unique_lock<std::mutex> lock(lock_);
    if (request->offset != consumed_) return FILE_READ_FAILED;
    // Timed waits, so that a cancelled job or a closed handle, which do not
    // notify, are seen too.
    while (Buffered() == 0 && !finished_ && !StoppedLocked())
        changed_.wait_for(lock, kWake);
    if (StoppedLocked()) return UPLOAD_CANCELED;
    const size_t count = std::min<uint64_t>(request->size, Buffered());
    memcpy(request->buffer, data_.data() + head_, count);
    head_ += count;
    if (head_ == data_.size()) {
        data_.clear();
        head_ = 0;
    } else if (head_ > kMaxBuffered) {
        data_.erase(0, head_);
        head_ = 0;
    }
    consumed_ += static_cast<long long>(count);
    request->read = static_cast<int64_t>(count);
    if (auto owner = owner_.lock()) owner->consumed = static_cast<uint64_t>(consumed_);
    changed_.notify_all();
    return SUCCESS;
}

AERROR StreamPipe::Write(_WRITEDATA* request) {
    if (request == nullptr) return INVALID_PARAMETER;
    const AERROR result = Push(*request, nullptr);
    if (result == SUCCESS) request->written = request->size;
    return result;
}

AERROR StreamPipe::Push(const _WRITEDATA& request, const std::function<void()>& keepAlive) {
    if (request.size > 0 && request.buffer == nullptr) return INVALID_PARAMETER;
    std::unique_lock<std::mutex> lock(lock_);
    if (finished_ || StoppedLocked()) return UPLOAD_CANCELED;
    if (request.offset != received_) return FAILED;
    while (Buffered() > kMaxBuffered && !StoppedLocked()) {
        changed_.wait_for(lock, kWake);
        if (keepAlive) {
            lock.unlock();
            keepAlive();
            lock.lock();
        }
    }
    if (StoppedLocked()) return UPLOAD_CANCELED;
    data_.append(static_cast<const char*>(request.buffer), request.size);
    received_ += static_cast<long long>(request.size);
    if (auto owner = owner_.lock()) owner->writeOffset = static_cast<uint64_t>(received_);
    changed_.notify_all();
    return SUCCESS;
}

void StreamPipe::Finish() {
    std::lock_guard<std::mutex> lock(lock_);
    finished_ = true;
    changed_.notify_all();
}

void StreamPipe::Abandon() {
    std::lock_guard<std::mutex> lock(lock_);
    abandoned_ = true;
    data_.clear();
    head_ = 0;
    changed_.notify_all();
}

void StreamPipe::NoteGeneration(uint64_t generation) {
    std::lock_guard<std::mutex> lock(lock_);
    generation_ = generation;
}

uint64_t StreamPipe::Generation() const {
    std::lock_guard<std::mutex> lock(lock_);
    return generation_;
}

long long StreamPipe::Received() const {
    std::lock_guard<std::mutex> lock(lock_);
    return received_;
}
