// Releasing a handle: the upload of new content and the delete on close.
#include <thread>

#include "api/log.h"
#include "data/async_job.h"
#include "export/export_service.h"
#include "fs/filesystem_interfaces.h"
#include "tree/file.h"

std::shared_ptr<_FS_HANDLE_EXT> File::JobHandle(const std::shared_ptr<_FS_HANDLE_EXT>& origin) {
    // A record of its own, outside the node's table: an upload is not a
    // writer, and must not stop a close during the upload from queueing the
    // next one.
    auto handle = std::shared_ptr<_FS_HANDLE_EXT>(FileHandles::NewHandle());
    handle->mode = HANDLE_MODE_WRITE;
    if (origin) {
        handle->context = origin->context;
        handle->id = origin->id;
        handle->file = origin->file;
        handle->process = origin->process;
        handle->path = origin->path;
        handle->flags = origin->flags;
    }
    return handle;
}

AERROR File::Cleanup(_FS_HANDLE_EXT* handle, bool deleting, IExportService* exportService) {
    std::shared_ptr<_FS_HANDLE_EXT> record;
    if (handle != nullptr) {
        record = handles_.GetHandle(handle);
        if (!record) return INVALID_HANDLE;
    }
    if (deleting) fileState_ = FILE_STATE_DELETING;
    AERROR result = SUCCESS;
    const bool writer = record && record->mode == HANDLE_MODE_WRITE;
    if (record) handles_.CloseHandle(handle);

    if (writer) {
        const auto config = GetConfig();
        // A streaming upload of this node is taking its last bytes.
        while (IsUploading() && StreamingPipe()) {
            if (exportService != nullptr) exportService->ResetTimeout(config.fstimeout);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        // The last writer uploads.
        const uint32_t state = uploadState_.load();
        const bool streamed = StreamingPipe() && (state == 5 || state == 6);
        if (!handles_.ExistWriteHandle() && !streamed) {
            auto info = Info();
            if (protocol_ && (protocol_->GetCapabilities() & PROTOCOL_CAP_EMPTY_IS_CREATED) != 0 &&
                info->size == 0) {
                modified_ = 0;
            }
            const bool asyncUpload =
                fileSystem_ != nullptr &&
                (static_cast<uint32_t>(fileSystem_->GetFeature()) & FEATURE_ASYNC_UPLOAD) != 0;
            if ((info->attributes & FILE_ATTRIBUTE_NO_DELETE) == 0 && !IsRemoved() &&
                fileState_.load() != FILE_STATE_DELETING && IsModified()) {
                auto copy = JobHandle(record);
                if (asyncUpload && info->size != 0) {
                    uploadState_ = 3;
                    auto job = std::make_shared<_ASYNCJOB>();
                    job->kind = ASYNCJOB_UPLOAD;
                    job->handle = copy;
                    job->origin = record;
                    *this << job;
                    fileSystem_->QueueFile(shared_from_this());
                } else {
                    const std::string origin = BuildOriginPathA();
                    __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] Upload - %s(%s)",
                             Name().c_str(), origin.c_str());
                    // The release is the last word on this file: a failure
                    // goes to the host, so that it is retried or saved.
                    result = UploadNow(copy, exportService, record);
                    __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] Upload - %s(%s) done(%s)",
                             Name().c_str(), origin.c_str(),
                             result == SUCCESS ? "Success" : "Failed");
                    copy->state = HANDLE_STATE_CLOSED;
                }
            }
        }
        if (streamed) SetStreamingPipe(nullptr);
    }

    if (fileState_.load() == FILE_STATE_DELETING) {
        __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] Delete file(Delete on close) - %s(%s)",
                 Name().c_str(), BuildOriginPathA().c_str());
        result = unlink(true);
    }
    fileState_ = FILE_STATE_LISTED;
    // The cache object is kept while the node is open or has jobs to run.
    bool busy;
    {
        std::lock_guard<std::mutex> lock(jobLock_);
        busy = !jobs_.empty() || runningJob_ != nullptr;
    }
    if (!busy && !handles_.HasAnyOpened()) {
        if (IsRemoved()) {
            DropContent();
        } else {
            CloseCache();
        }
    }
    return result;
}
