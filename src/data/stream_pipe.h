// The pipe between a real-time writer and the streaming upload of its file.
#ifndef LIBFS_DATA_STREAM_PIPE_H_
#define LIBFS_DATA_STREAM_PIPE_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "libfilesystem/cache.h"
#include "libfilesystem/handle.h"

struct _ASYNCJOB;

// Carries the bytes of one writer, in file order from offset 0, to the
// protocol's upload, which reads them as its source. Memory stays bounded:
// a writer waits while the pipe holds more than kMaxBuffered bytes.
//
// The stream ends in one of two ways. Finish says the writer closed the file
// and every byte is in: the reader gets the rest, then the end of the data
// (read 0). Abandon (or a cancelled job, or the writer's handle closing
// before Finish) stops it: every wait ends, and reads and pushes fail with
// UPLOAD_CANCELED, so that the upload fails and stores nothing.
class StreamPipe : public ICacheIO {
  public:
    static constexpr size_t kMaxBuffered = size_t{4} << 20;

    // `owner` is the writer's handle, `job` the upload job that reads.
    StreamPipe(const std::shared_ptr<_FS_HANDLE>& owner, const std::shared_ptr<_ASYNCJOB>& job);

    // Blocks until bytes are there, the data ended, or the stream stopped.
    // A request must start where the previous one ended (FILE_READ_FAILED
    // otherwise).
    AERROR Read(_READDATA* request) override;
    // Push without a time-out to re-arm.
    AERROR Write(_WRITEDATA* request) override;
    // Appends the request's bytes. FAILED when it does not start where the
    // data so far ends (the writer seeked); UPLOAD_CANCELED once the stream
    // stopped or finished. While the pipe is full it waits, calling
    // `keepAlive` (when given) about every 10 ms without holding the lock.
    AERROR Push(const _WRITEDATA& request, const std::function<void()>& keepAlive);

    void Finish();
    void Abandon();
    bool Stopped() const;

    bool IsOwner(const _FS_HANDLE* handle) const { return handle == ownerId_; }
    // The upload job reading the pipe; empty once it is over.
    std::shared_ptr<_ASYNCJOB> Job() const { return job_.lock(); }
    // The node's write generation after the last byte pushed, so that a
    // change that did not go through the pipe is noticed at the end.
    void NoteGeneration(uint64_t generation);
    uint64_t Generation() const;
    // Bytes pushed so far.
    long long Received() const;

  private:
    bool StoppedLocked() const;
    size_t Buffered() const { return data_.size() - head_; }

    const _FS_HANDLE* ownerId_;
    std::weak_ptr<_FS_HANDLE> owner_;
    std::weak_ptr<_ASYNCJOB> job_;
    mutable std::mutex lock_;
    std::condition_variable changed_;
    std::string data_;  // bytes pushed, not yet read, from head_
    size_t head_ = 0;
    long long received_ = 0;  // bytes pushed
    long long consumed_ = 0;  // bytes read
    uint64_t generation_ = 0;
    bool finished_ = false;
    bool abandoned_ = false;
};

#endif  // LIBFS_DATA_STREAM_PIPE_H_
