// The content of one file node: its cache object, the upload state, the
// streaming pipe and the queue of jobs (uploads, saves) that carry the content
// to the remote side or to a local file.
#ifndef LIBFS_DATA_FILE_CONTENT_H_
#define LIBFS_DATA_FILE_CONTENT_H_

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "data/async_job.h"
#include "foundation/lazy_part.h"
#include "libfilesystem/cache.h"

// Where the content of a file stands with respect to its upload.
enum class UploadState : uint32_t {
    None = 0,
    Opened = 1,             // at rest: nothing written since it was opened
    Written = 2,            // written; an upload is to follow
    Uploading = 3,          // an upload (or a streaming upload) runs
    UploadingLastByte = 4,  // a streaming upload was given the last byte
    Uploaded = 5,           // the last upload succeeded
    UploadFailed = 6,       // the last upload failed
};

class FileContent {
  public:
    // The cache object, its key in the cache service, and whether clean data
    // the cache holds is of an unknown version.
    std::shared_ptr<ICacheObj> CacheObject() const;
    std::string CacheKey() const;
    // Opens the cache object for `path` unless one is open. Returns the
    // object whose clean data must be dropped first (the cache may hold an
    // older remote version), or null.
    std::shared_ptr<ICacheObj> OpenCache(const std::wstring& path, char mode, long long size,
                                         IFetch* fetch);
    // Closes the cache object; returns its key, empty when none was open.
    std::string CloseCache();
    // Gives the content the cache key `key` when it has one; returns the old.
    std::string Rekey(const std::string& key);
    // The next cache object opened drops the clean data first.
    void MarkStale() { cacheStale_ = true; }

    // The length that may be fetched from the remote; bytes past it were
    // written locally.
    long long FetchableSize() const;
    void SetFetchableSize(long long size);
    // Lowers the fetchable size to `size` when it is above it.
    void LimitFetchableSize(long long size);

    // The mark of content changed locally and not yet uploaded; SetModified
    // returns the mark it replaced.
    uint8_t SetModified() { return modified_.exchange(1); }
    bool IsModified() const { return modified_.load() != 0; }
    void ClearModified() { modified_ = 0; }

    UploadState GetUploadState() const { return uploadState_.load(); }
    void SetUploadState(UploadState state) { uploadState_ = state; }
    // Moves the upload state from `from` to `to`; false when it was not `from`.
    bool ChangeUploadState(UploadState from, UploadState to) {
        return uploadState_.compare_exchange_strong(from, to);
    }
    bool IsUploading() const {
        const UploadState state = uploadState_.load();
        return state == UploadState::Uploading || state == UploadState::UploadingLastByte;
    }

    // The pipe a running streaming upload takes written data from.
    void SetStreamingPipe(std::shared_ptr<ICacheIO> pipe);
    std::shared_ptr<ICacheIO> StreamingPipe() const;

    // Counts changes of the content, so that an upload knows whether what it
    // sent is still the latest.
    void NoteWrite() { ++writeGeneration_; }
    uint64_t WriteGeneration() const { return writeGeneration_.load(); }
    // Writers of the content hold it shared while they change the cache and
    // mark the node; an upload that succeeded holds it exclusive while it
    // checks the generation, commits the cache and clears the mark, so that
    // no change can slip between the check and the clearing.
    std::shared_mutex& Lock() { return active_.Get().contentLock; }

    // The job queue. At most one job runs at a time.
    void Queue(std::shared_ptr<_ASYNCJOB> job);
    // The first queued job, now running; null when none is queued or one
    // runs already (another worker serves the queue).
    std::shared_ptr<_ASYNCJOB> StartNext();
    // Waits until no job runs, then runs `job` outside the queue.
    void RunExclusively(std::shared_ptr<_ASYNCJOB> job);
    // Runs `job` outside the queue when no job runs or waits; false otherwise.
    bool TryRunExclusively(std::shared_ptr<_ASYNCJOB> job);
    bool IsRunning(const std::shared_ptr<_ASYNCJOB>& job) const;
    // Ends the running `job` and takes it off the queue; returns whether
    // jobs are still queued.
    bool Finish(const std::shared_ptr<_ASYNCJOB>& job);
    // Cancels and returns the queued jobs that have not started. A queued
    // upload that never started leaves the data pending: an upload state of
    // Uploading goes back to Written.
    std::vector<std::shared_ptr<_ASYNCJOB>> DropQueued();
    // Cancels the running job.
    void CancelRunning();
    void WaitIdle();
    int CountUploads() const;
    bool HasJobs() const;

  private:
    // What only a file that is opened, written or uploaded needs. It is made
    // at the first such use, so that the many nodes a listing makes do
    // without its 330 bytes.
    struct Active {
        mutable std::mutex dataMutex;
        std::shared_ptr<ICacheObj> cacheObject;  // guarded by dataMutex
        std::string cacheKey;                    // guarded by dataMutex
        mutable std::mutex pipeMutex;
        std::shared_ptr<ICacheIO> streamingPipe;  // guarded by pipeMutex
        std::shared_mutex contentLock;
        mutable std::mutex jobLock;
        // A list, not a deque: an empty deque already holds a 512-byte block.
        std::list<std::shared_ptr<_ASYNCJOB>> jobs;  // guarded by jobLock
        std::shared_ptr<_ASYNCJOB> runningJob;       // guarded by jobLock
        std::condition_variable jobsDone;
    };

    LazyPart<Active> active_;
    std::atomic<int64_t> fetchableSize_{0};
    // The cache service may hold clean data of an older remote version of
    // this file (from before this node existed, or from before a remote
    // change seen while no cache object was open).
    std::atomic<bool> cacheStale_{true};
    std::atomic<uint8_t> modified_{0};
    std::atomic<UploadState> uploadState_{UploadState::Opened};
    std::atomic<uint64_t> writeGeneration_{0};
};

#endif  // LIBFS_DATA_FILE_CONTENT_H_
