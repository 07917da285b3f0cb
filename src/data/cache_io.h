// The library's own ICacheIO objects: a pass-through that keeps the kernel
// from timing out a long transfer, two single-producer single-consumer pipes,
// and the fetch callback that downloads straight into a caller's buffer.
#ifndef LIBFS_DATA_CACHE_IO_H_
#define LIBFS_DATA_CACHE_IO_H_

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>

#include "libfilesystem/cache.h"
#include "libfilesystem/fs_config.h"
#include "libfilesystem/handle.h"

class IExportService;
struct evbuffer;

// Re-arms the kernel's time-out for the request under way, at most once per
// `timeout_reset` milliseconds of the configuration as it is at each call.
// `service` and `config` are borrowed and may be null; without either of them
// nothing is re-armed. Used by one thread at a time.
class TimeoutKeeper {
  public:
    TimeoutKeeper(IExportService* service, IFSConfig* config)
        : service_(service), config_(config), lastReset_(std::chrono::steady_clock::now()) {}
    void operator()();

  private:
    IExportService* service_;
    IFSConfig* config_;
    std::chrono::steady_clock::time_point lastReset_;
};

// Forwards reads and writes to a host cache object. While data moves through
// it, it re-arms the kernel's time-out for the operation under way at most
// once per `timeout_reset` milliseconds, so that an upload or a long read is
// not cut off. Used by one transfer at a time; it has no lock.
class PreventTimeoutCacheIO : public ICacheIO {
  public:
    // `service` and `config` are borrowed and may be null; without either of
    // them no time-out is ever reset.
    PreventTimeoutCacheIO(std::shared_ptr<ICacheObj> cacheObject, IExportService* service,
                          IFSConfig* config);

    // Both return ACCESS_VIOLATION when there is no cache object, and
    // otherwise the cache object's own result.
    AERROR Read(_READDATA* request) override;
    AERROR Write(_WRITEDATA* request) override;

  private:
    std::shared_ptr<ICacheObj> cacheObject_;
    TimeoutKeeper keeper_;
};

// A strictly sequential memory pipe of `total` bytes between one writer and
// one reader, on behalf of an open handle.
//
// Write appends to a libevent buffer; the offset is not looked at. Read takes
// the bytes out in order: a request must start where the previous one ended,
// it blocks (polling every 10 ms, without holding the lock) until data
// arrives, and it gives up with FAILED once the handle is closing. After each
// read the handle's fetchMark is raised to the number of bytes the pipe has
// received, while less than 2 MiB are buffered, to tell the producer to keep
// the pipe topped up.
//
// The handle's state is read without the lock. A pipe without a handle cannot
// be cancelled, so its reads fail with FAILED instead of waiting.
class EvCache : public ICacheIO {
  public:
    // Throws std::bad_alloc when libevent cannot allocate the buffer, after
    // releasing whatever was taken.
    EvCache(std::shared_ptr<_FS_HANDLE> handle, long long total);

    // SUCCESS with read 0 once `total` bytes have been read out;
    // FILE_READ_FAILED for a request that does not start at the bytes read
    // so far, or when nothing could be taken out; FAILED when the handle is
    // closing. A read never goes past `total`, whatever was written.
    AERROR Read(_READDATA* request) override;
    // FILE_WRITE_FAILED when libevent refuses the data.
    AERROR Write(_WRITEDATA* request) override;

  protected:
    static constexpr std::chrono::milliseconds kPollInterval{10};
    // The pipe stops raising the fetch mark while it holds this much.
    static constexpr size_t kTopUpLimit = 2 * 1024 * 1024;

    bool HandleClosing() const;
    // Polls `ready` (which takes the lock itself) every kPollInterval until
    // it holds; false as soon as the handle is found closing after a sleep.
    template <typename Ready>
    bool WaitUntil(Ready ready) const;

    std::shared_ptr<_FS_HANDLE> handle_;
    std::shared_ptr<evbuffer> buffer_;
    const long long total_;
    long long consumed_ = 0;  // guarded by lock_
    mutable std::mutex lock_;
};

// A pipe over another ICacheIO, the target, that stores the bytes. The writer
// fills the target from the start; the reader may read anywhere below what
// has been filled, and blocks only for data not yet written. The buffer
// inherited from EvCache is not used.
class FileCache : public EvCache {
  public:
    FileCache(std::shared_ptr<_FS_HANDLE> handle, long long total,
              std::shared_ptr<ICacheIO> target);

    // SUCCESS with read 0 at or past `total`; FAILED when the handle is
    // closing; FILE_READ_FAILED when the target fails. The request's size is
    // lowered so that it ends at the bytes filled so far.
    AERROR Read(_READDATA* request) override;
    // Forwards to the target and counts what it accepted; FILE_WRITE_FAILED
    // when the target fails.
    AERROR Write(_WRITEDATA* request) override;

  private:
    std::shared_ptr<ICacheIO> target_;
    long long filled_ = 0;  // guarded by lock_
};

// Receives one contiguous download into a caller's buffer. Every chunk is
// copied to the start of the destination: the offset is not looked at, so
// one object serves one fetch of one range.
class FetchToBuffer : public IFetchCallback {
  public:
    explicit FetchToBuffer(char* destination) : destination_(destination) {}

    AERROR FetchWrite(long long offset, const char* data, long size, long* written) override;
    long long GetTotalWritten() const { return totalWritten_; }

  private:
    char* destination_;
    long long totalWritten_ = 0;
};

#endif  // LIBFS_DATA_CACHE_IO_H_
