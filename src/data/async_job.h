// A job queued on a node: upload its content, or save it to a local file.
#ifndef LIBFS_DATA_ASYNC_JOB_H_
#define LIBFS_DATA_ASYNC_JOB_H_

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

struct _FS_HANDLE_EXT;

constexpr uint64_t ASYNCJOB_UPLOAD = 1;
constexpr uint64_t ASYNCJOB_SAVE = 4;

struct _ASYNCJOB {
    uint64_t kind = ASYNCJOB_UPLOAD;
    // The handle the job fetches and uploads on behalf of, a copy of the
    // open that produced it; closed when the job leaves the queue.
    std::shared_ptr<_FS_HANDLE_EXT> handle;
    // The open itself: once it is closed, a failure is put to the host.
    std::shared_ptr<_FS_HANDLE_EXT> origin;
    // For ASYNCJOB_SAVE: the local file to write.
    std::string target;
    // Set when the job is given up (the file was deleted, or the volume
    // stops): it ends at the next chance, and is never tried again, even
    // when the host answered a failure with retry meanwhile.
    std::atomic<bool> canceled{false};
};

#endif  // LIBFS_DATA_ASYNC_JOB_H_
