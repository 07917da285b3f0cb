// The record of one open file, as the cache service and protocols see it.
#ifndef LIBFILESYSTEM_HANDLE_H_
#define LIBFILESYSTEM_HANDLE_H_

#include <atomic>
#include <cstdint>

// Access kind of a handle.
constexpr uint32_t HANDLE_MODE_READ = 1;
constexpr uint32_t HANDLE_MODE_WRITE = 2;

// Life of a handle. A handle counts as open while its state is below
// HANDLE_STATE_CLOSED and not 2. Anything that waits on behalf of a handle
// (a download, a cache fill, a pipe read) should give up once the state
// reaches HANDLE_STATE_CLOSED: the file was closed or its transfer cancelled.
constexpr int32_t HANDLE_STATE_OPEN = 1;
constexpr int32_t HANDLE_STATE_CLOSED = 3;

// Every read, write, fetch and upload is made on behalf of an open handle,
// and the library passes it to the cache service and the protocol as
// std::shared_ptr<_FS_HANDLE>. Hosts read it; only the library writes it.
// The library's own record of an open file derives from this one.
struct _FS_HANDLE {
    uint32_t mode = HANDLE_MODE_READ;
    std::atomic<int32_t> state{HANDLE_STATE_OPEN};
    // Position of the upload under way for this handle; -1 when none.
    std::atomic<int64_t> reservedPosition{-1};
    // The protocol's own context of the open item (its record's `context`).
    void* context = nullptr;
    // Streaming writes: the offset the next write must start at, and how far
    // the streaming upload has consumed the data.
    std::atomic<uint64_t> writeOffset{0};
    std::atomic<uint64_t> consumed{0};
    // The handle number given to the operating system; 0 until assigned.
    uint64_t id = 0;
    // How far a pipe has buffered data for this handle, so that the producer
    // keeps it topped up.
    std::atomic<int64_t> fetchMark{0};
    // Position of the last transfer made through the handle; -1 when none.
    std::atomic<int64_t> lastPosition{-1};

    bool IsOpen() const {
        const int32_t s = state.load();
        return s < HANDLE_STATE_CLOSED && s != 2;
    }
    bool IsClosing() const { return state.load() >= HANDLE_STATE_CLOSED; }

    _FS_HANDLE() = default;
    _FS_HANDLE(const _FS_HANDLE&) = delete;
    _FS_HANDLE& operator=(const _FS_HANDLE&) = delete;
    virtual ~_FS_HANDLE() = default;
};

#endif  // LIBFILESYSTEM_HANDLE_H_
