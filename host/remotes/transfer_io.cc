#include "remotes/transfer_io.h"

#include <algorithm>

namespace {

constexpr auto kProgressInterval = std::chrono::milliseconds(250);

}  // namespace

Status DeliverFetched(IFetchCallback* callback, long long offset, const char* data, long size,
                      const std::string& key) {
    while (size > 0) {
        long written = size;
        const AERROR code = callback->FetchWrite(offset, data, size, &written);
        if (code != SUCCESS) {
            return Status::Error(
                code, key + ": the downloaded data was not taken (" + GetAERRORA(code) + ")");
        }
        if (written <= 0) {
            return Status::Error(FILE_WRITE_FAILED, key + ": the downloaded data was not taken");
        }
        written = std::min(written, size);
        offset += written;
        data += written;
        size -= written;
    }
    return Status::Ok();
}

Status ReadUploadSource(ICacheIO* source, const std::shared_ptr<_FS_HANDLE>& handle,
                        int64_t fileSize, uint64_t offset, char* buffer, size_t size, size_t* got,
                        const std::string& key) {
    _READDATA request;
    request.buffer = buffer;
    request.offset = static_cast<int64_t>(offset);
    request.size = size;
    request.handle = handle;
    request.fileSize = fileSize;
    request.partial = 1;
    const AERROR code = source->Read(&request);
    if (code != SUCCESS) {
        return Status::Error(code,
                             key + ": reading the data to store failed (" + GetAERRORA(code) + ")");
    }
    // A source of unknown length ends its data with a read of 0.
    if (request.read == 0 && fileSize == UPLOAD_SIZE_UNKNOWN) {
        *got = 0;
        return Status::Ok();
    }
    if (request.read <= 0 || static_cast<uint64_t>(request.read) > size) {
        return Status::Error(FILE_READ_FAILED, key + ": the data to store ended after " +
                                                   std::to_string(offset) + " of " +
                                                   std::to_string(fileSize) + " bytes");
    }
    *got = static_cast<size_t>(request.read);
    return Status::Ok();
}

ProgressReporter::ProgressReporter(const _TRANSFERPROGRESS* progress, uint64_t total)
    : progress_(progress != nullptr && progress->callback != nullptr ? progress : nullptr),
      total_(total),
      start_(std::chrono::steady_clock::now()),
      last_(start_) {}

void ProgressReporter::Report(uint64_t done) {
    if (progress_ == nullptr) return;
    const auto now = std::chrono::steady_clock::now();
    if (done < total_ && now - last_ < kProgressInterval) return;
    last_ = now;
    const double seconds = std::chrono::duration<double>(now - start_).count();
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0.0;
    progress_->callback(done, total_, rate, progress_->context);
}
