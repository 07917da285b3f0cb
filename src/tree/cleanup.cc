// Releasing a handle: the upload of new content and the delete on close.

#include "data/async_job.h"
#include "services/export_interface.h"
#include "services/log.h"
#include "tree/file.h"
#include "tree/filesystem_view.h"

std::shared_ptr<_FS_HANDLE_EXT> File::JobHandle(const std::shared_ptr<_FS_HANDLE_EXT>& origin) {
    // A record of its own, outside the node's table: an upload is not a
    // writer, and must not stop a close during the upload from queueing the
    // next one.
    auto handle = std::shared_ptr<_FS_HANDLE_EXT>(FileHandles::NewHandle());
    handle->mode = HANDLE_MODE_WRITE;
    if (origin) FileHandles::CopyOwner(*handle, *origin);
    return handle;
}

AERROR File::StoreAfterClose(const std::shared_ptr<_FS_HANDLE_EXT>& record,
                             IExportService* exportService) {
    // Until the upload has stored it, the cache holds the only copy of what
    // was written: it must survive a crash from here on, so that a restarted
    // host still finds it. A failure is logged; the upload goes ahead.
    const AERROR synced = SyncCache();
    if (synced != SUCCESS) {
        __LOG__A(CurrentLogger(), LL_WARNING,
                 "[FILESYSTEM] %s: the written data could not be made durable in the cache (%s); "
                 "uploading it all the same",
                 BuildOriginPathA().c_str(), GetAERRORA(synced));
    }
    // Kept locally only: never uploaded.
    if ((Info()->attributes & FILE_ATTRIBUTE_NO_DELETE) != 0) return SUCCESS;
    auto copy = JobHandle(record);
    const bool asyncUpload = HasFeature(FEATURE_ASYNC_UPLOAD);
    if (asyncUpload && Info()->size != 0) {
        content_.SetUploadState(UploadState::Uploading);
        auto job = std::make_shared<_ASYNCJOB>();
        job->kind = ASYNCJOB_UPLOAD;
        job->handle = copy;
        job->origin = record;
        *this << job;
        fileSystem_->QueueFile(shared_from_this());
        return SUCCESS;
    }
    const std::string origin = BuildOriginPathA();
    __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] Upload - %s(%s)", Name().c_str(),
             origin.c_str());
    // The release is the last word on this file: a failure goes to the host,
    // so that it is retried or saved.
    const AERROR result = UploadNow(copy, exportService, record);
    __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] Upload - %s(%s) done(%s)", Name().c_str(),
             origin.c_str(), result == SUCCESS ? "Success" : "Failed");
    copy->state = HANDLE_STATE_CLOSED;
    return result;
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
    // A stream of this writer stores the file now; one that failed leaves
    // the file marked, and it is uploaded below as any other.
    if (writer) EndStream(record, exportService);
    if (record) handles_.CloseHandle(handle);

    if (writer) {
        // The last writer uploads.
        if (!handles_.ExistWriteHandle()) {
            auto info = Info();
            if (protocol_ && (protocol_->GetCapabilities() & PROTOCOL_CAP_EMPTY_IS_CREATED) != 0 &&
                info->size == 0) {
                content_.ClearModified();
            }
            if (!IsRemoved() && fileState_.load() != FILE_STATE_DELETING && IsModified()) {
                result = StoreAfterClose(record, exportService);
            }
        }
    }

    if (fileState_.load() == FILE_STATE_DELETING) {
        __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] Delete file(Delete on close) - %s(%s)",
                 Name().c_str(), BuildOriginPathA().c_str());
        result = unlink(true);
    }
    fileState_ = FILE_STATE_LISTED;
    // The cache object is kept while the node is open or has jobs to run.
    if (!content_.HasJobs() && !handles_.HasAnyOpened()) {
        if (IsRemoved()) {
            DropContent();
        } else {
            CloseCache();
        }
    }
    return result;
}
