// File data between the library and a remote: downloaded bytes handed to the
// library's fetch callback, bytes to upload read from its cache source, and
// the progress reports of an upload.
#ifndef SKARVO_REMOTES_TRANSFER_IO_H_
#define SKARVO_REMOTES_TRANSFER_IO_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "libfilesystem/cache.h"
#include "libfilesystem/protocol.h"
#include "remotes/local_errors.h"

// Hands `size` bytes at `offset` to the callback, offering again what it did
// not take. A refusal is the callback's code, or FILE_WRITE_FAILED when it
// took nothing.
Status DeliverFetched(IFetchCallback* callback, long long offset, const char* data, long size,
                      const std::string& key);

// Reads up to `size` bytes at `offset` of the upload source, on behalf of
// `handle`, of a file of `fileSize` bytes. A failing source gives its code;
// a source with nothing more before `fileSize`, FILE_READ_FAILED. With
// `fileSize` UPLOAD_SIZE_UNKNOWN, the end of the source is *got 0.
Status ReadUploadSource(ICacheIO* source, const std::shared_ptr<_FS_HANDLE>& handle,
                        int64_t fileSize, uint64_t offset, char* buffer, size_t size, size_t* got,
                        const std::string& key);

// Progress reports to the library, at most one every 250 ms and always one
// when the last byte is in.
class ProgressReporter {
  public:
    ProgressReporter(const _TRANSFERPROGRESS* progress, uint64_t total);
    void Report(uint64_t done);

  private:
    const _TRANSFERPROGRESS* progress_;
    const uint64_t total_;
    const std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point last_;
};

#endif  // SKARVO_REMOTES_TRANSFER_IO_H_
