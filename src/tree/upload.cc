// Upload jobs: running a node's queued jobs, uploading its cached content,
// and what the host may decide when an upload fails.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <thread>
#include <vector>

#include "data/async_job.h"
#include "data/cache_io.h"
#include "data/upload_place.h"
#include "foundation/shared_hold.h"
#include "foundation/time_utils.h"
#include "libfilesystem/entry_points.h"
#include "libfilesystem/unique_fd.h"
#include "services/log.h"
#include "tree/file.h"
#include "tree/filesystem_view.h"

namespace {

// Progress reports are throttled against this clock.
const auto kLoaded = std::chrono::steady_clock::now();

struct ProgressContext {
    File* node;
    std::string localPath;
    long long interval;  // milliseconds between reports
    long long last = -1;
};

void TransferCallback(unsigned long long done, unsigned long long total, double rate,
                      void* context) {
    auto* progress = static_cast<ProgressContext*>(context);
    const long long now = std::chrono::duration_cast<std::chrono::milliseconds>(
                              std::chrono::steady_clock::now() - kLoaded)
                              .count();
    if (done < total && progress->last >= 0 && now - progress->last < progress->interval) return;
    progress->last = now;
    if (auto sink = progress->node->GetFSEvent()) {
        sink->Progress(progress->localPath.c_str(), done, total, rate);
    }
}

// The upload's source: the cached content, failing at once when the upload
// is cancelled, so that no protocol needs to know how the library cancels.
class CancellableSource : public ICacheIO {
  public:
    CancellableSource(ICacheIO* source, const std::atomic<bool>& canceled)
        : source_(source), canceled_(canceled) {}
    AERROR Read(_READDATA* request) override {
        if (canceled_.load()) return UPLOAD_CANCELED;
        return source_->Read(request);
    }
    AERROR Write(_WRITEDATA*) override { return FILE_WRITE_FAILED; }

  private:
    ICacheIO* source_;
    const std::atomic<bool>& canceled_;
};

}  // namespace

File& File::operator<<(std::shared_ptr<_ASYNCJOB> job) {
    content_.Queue(std::move(job));
    return *this;
}

void File::ProcessJobs() {
    for (;;) {
        // Another worker may be running this node's jobs already.
        const std::shared_ptr<_ASYNCJOB> job = content_.StartNext();
        if (!job) return;
        if (job->kind == ASYNCJOB_SAVE) {
            const AERROR result = SaveCacheToFile(job->target);
            if (auto sink = GetFSEvent()) {
                sink->Notice(result == SUCCESS ? FSNOTICE_SAVED_TO_FILE : FSNOTICE_SAVE_FAILED,
                             BuildPathA('/').c_str(), BuildOriginPathA().c_str(),
                             job->target.c_str());
            }
        } else {
            AERROR result = SUCCESS;
            while ((result = AsyncJobUpload(result, job, nullptr)) == RETRY_UPLOAD) {
            }
        }
        if (job->handle) job->handle->state = HANDLE_STATE_CLOSED;
        const bool idle = !content_.Finish(job);
        // The cache object is kept only while the node is in use.
        if (idle && !handles_.HasAnyOpened()) CloseCache();
    }
}

void File::CancelAsyncJobs() {
    // A queued upload that never started leaves the data pending in the cache.
    for (const auto& job : content_.DropQueued()) {
        if (job->handle) job->handle->state = HANDLE_STATE_CLOSED;
    }
}

void File::WaitAsyncJobs() {
    content_.WaitIdle();
}

int File::CountUploadings() {
    return content_.CountUploads();
}

void File::CancelUploadings() {
    CancelAsyncJobs();
    content_.CancelRunning();
}

AERROR File::AsyncJobUpload(AERROR, std::shared_ptr<_ASYNCJOB> job, IExportService* exportService) {
    const std::string name = Name();
    if (!protocol_) {
        __LOG__A(CurrentLogger(), LL_ERROR,
                 "[ASYNCJOB  ] Protocol not found. Upload %s has failed.", name.c_str());
        return FAILED;
    }
    if (job->canceled.load()) return UPLOAD_CANCELED;
    // The cache object may have been closed since the file was: the data is
    // still in the cache service.
    auto cacheObject = OpenedCache();
    if (!cacheObject) {
        __LOG__A(CurrentLogger(), LL_ERROR, "[ASYNCJOB  ] Cache not found. Upload %s has failed.",
                 name.c_str());
        content_.SetUploadState(UploadState::UploadFailed);
        return FAILED;
    }
    __LOG__A(CurrentLogger(), LL_INFO, "[ASYNCJOB  ] Upload - %s", name.c_str());
    content_.SetUploadState(UploadState::Uploading);
    uint64_t generation;
    UploadPlace place;
    _FS_FILE_V2 record = PrepareUpload(cacheObject, *job, place, generation);
    void* cookie = nullptr;
    AERROR result = UPLOAD_CANCELED;
    {
        UploadPlaceReservation reservation(place, job->canceled);
        if (reservation.Held())
            result = SendUpload(cacheObject, *job, record, place, exportService, &cookie);
        if (result == SUCCESS) result = CommitUpload(record, place, generation, cacheObject);
    }
    if (result != SUCCESS) {
        __LOG__A(CurrentLogger(), LL_ERROR, "[ASYNCJOB  ] Upload failed. Protocol returns %s",
                 GetAERRORA(result));
        content_.SetUploadState(UploadState::UploadFailed);
        if (result != UPLOAD_CANCELED) result = AskAboutFailure(result, job);
    }
    if (cookie != nullptr) protocol_->ReleaseCookie(cookie);
    __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] AsyncJobUpload - %s(%s) done(%s)",
             name.c_str(), BuildOriginPathA().c_str(), result == SUCCESS ? "Success" : "Failed");
    return result;
}

_FS_FILE_V2 File::PrepareUpload(const std::shared_ptr<ICacheObj>& cacheObject, const _ASYNCJOB& job,
                                UploadPlace& place, uint64_t& generation) {
    std::string remoteKey;
    _FS_FILE_V2 record;
    {
        // Taken while no writer is in the middle of a change, so that what
        // the upload reads is at least as new as this generation, and the
        // size is the cache's own.
        std::unique_lock<std::shared_mutex> content(content_.Lock());
        generation = content_.WriteGeneration();
        std::lock_guard<std::mutex> lock(placeLock_);
        place.protocol = protocol_.get();
        place.parentKey = Parent() != nullptr ? Parent()->Key() : std::string();
        place.name = Name();
        record = Info()->Record();
        remoteKey = RemoteKey();
        cacheObject->Reopen('w', record.size, this);
    }
    if (!record.key.empty()) {
        __LOG__A(CurrentLogger(), LL_INFO,
                 "[ASYNCJOB  ] If file does not fully written, fill data from server.");
        cacheObject->FillUnwritten(job.handle);
    }
    if (job.handle) job.handle->reservedPosition = 0;
    if (record.key.empty() && !remoteKey.empty()) {
        record.key = remoteKey;
        __LOG__A(CurrentLogger(), LL_INFO, "[ASYNCJOB  ] Upload overwrite mode for %s.",
                 record.name.c_str());
    } else if (record.key.empty()) {
        __LOG__A(CurrentLogger(), LL_INFO, "[ASYNCJOB  ] Upload new file.");
    }
    return record;
}

AERROR File::SendUpload(const std::shared_ptr<ICacheObj>& cacheObject, const _ASYNCJOB& job,
                        _FS_FILE_V2& record, const UploadPlace& place,
                        IExportService* exportService, void** cookie) {
    PreventTimeoutCacheIO timeoutSource(cacheObject, exportService, config_);
    CancellableSource source(&timeoutSource, job.canceled);
    ProgressContext progressContext{this, BuildLocalPathA('/'), GetConfig().callback_interval};
    _TRANSFERPROGRESS progress;
    progress.callback = TransferCallback;
    progress.context = &progressContext;
    return protocol_->UploadItem(place.parentKey.c_str(), job.handle, &source, &record,
                                 record.size != 0 ? &progress : nullptr, cookie);
}

AERROR File::CommitUpload(_FS_FILE_V2& record, const UploadPlace& place, uint64_t generation,
                          const std::shared_ptr<ICacheObj>& cacheObject) {
    __LOG__A(CurrentLogger(), LL_INFO, "[ASYNCJOB  ] Transfer success.");
    const auto local = Info();
    const bool timeSet = MarkStoredItem(record.key, *local);
    {
        std::lock_guard<std::mutex> lock(placeLock_);
        const AERROR followed = FollowPlace(record, place);
        if (followed != SUCCESS) return followed;
        std::lock_guard<std::mutex> data(dataMutex_);
        remoteKey_ = record.key;
        auto next = std::make_shared<_FS_FILE_EXT>(*Info());
        next->key = record.key;
        next->extra = record.extra;
        next->knownSize = record.size;
        // What changed since the upload started is local: only what was sent
        // may be fetched.
        content_.SetFetchableSize(std::min<int64_t>(next->size, record.size));
        PublishInfo(next);
    }
    __LOG__A(CurrentLogger(), LL_INFO, "[ASYNCJOB  ] Close and flush writable cache.");
    // What was sent is stored remotely, unless the file changed while it was
    // sent: then it stays marked, and its next close uploads again.
    {
        std::unique_lock<std::shared_mutex> content(content_.Lock());
        if (content_.WriteGeneration() == generation) {
            cacheObject->Commit();
            cacheObject->SetVersion(Info()->ContentVersion().c_str());
            content_.ClearModified();
        }
        cacheObject->Reopen('r', Info()->size, this);
    }
    content_.SetUploadState(UploadState::Uploaded);
    IndexForChanges(shared_from_this());
    // What is left to send, if anything, builds on what was just stored.
    _FS_FILE_V2 stored(record);
    stored.name = Name();
    if (timeSet) stored.modifyTime = local->modifyTime;
    NoteOrigin(&stored);
    return SUCCESS;
}

bool File::MarkStoredItem(const std::string& key, const _FS_FILE_EXT& local) {
    if (key.empty()) return false;
    bool timeSet = false;
    if ((protocol_->GetCapabilities() & PROTOCOL_CAP_SET_TIME) != 0) {
        __LOG__A(CurrentLogger(), LL_INFO, "[ASYNCJOB  ] Change file time.");
        void* cookie = nullptr;
        const long modifyTime = ToServerTime(RFC3339ToTM(local.modifyTime.c_str()));
        if (protocol_->SetItemTime(key.c_str(), 0, 0, modifyTime, &cookie) == SUCCESS) {
            __LOG__A(CurrentLogger(), LL_INFO, "[ASYNCJOB  ] Change file time success.");
            timeSet = true;
        }
        if (cookie != nullptr) protocol_->ReleaseCookie(cookie);
    }
    if ((local.attributes & FILE_ATTRIBUTE_ARCHIVED) != 0) {
        __LOG__A(CurrentLogger(), LL_INFO, "[ASYNCJOB  ] File was archived, set archive bit now.");
        // The data is stored either way: a protocol without archive marks
        // (NOT_SUPPORTED), or one that fails here, does not fail the upload.
        void* cookie = nullptr;
        protocol_->SetArchive(key.c_str(), true, &cookie);
        if (cookie != nullptr) protocol_->ReleaseCookie(cookie);
    }
    return timeSet;
}

AERROR File::FollowPlace(_FS_FILE_V2& record, const UploadPlace& place) {
    // No folder above either place changes its key until the item is where
    // the node is.
    SharedHold gate(PlaceGate(), false);
    const std::string parentKey = Parent() != nullptr ? Parent()->Key() : std::string();
    const std::string name = Name();
    if (parentKey == place.parentKey && name == place.name) return SUCCESS;
    const std::string current = RemoteKey();
    // A protocol that keeps an item's identity across moves stored the data
    // in the item the rename moved: nothing is left to do.
    if (current == record.key) return SUCCESS;
    __LOG__A(CurrentLogger(), LL_INFO, "[ASYNCJOB  ] %s was renamed while uploading; moving it.",
             name.c_str());
    void* cookie = nullptr;
    AERROR result = SUCCESS;
    if (parentKey != place.parentKey) {
        // Through a name no one uses, so that the move replaces nothing.
        record.name = TransitName();
        result =
            protocol_->RenameItem(record.key.c_str(), place.parentKey.c_str(), &record, &cookie);
        if (result == SUCCESS) {
            result = protocol_->MoveItem(record.key.c_str(), parentKey.c_str(), &record, &cookie);
        }
    }
    // The older copy that the rename took along is replaced.
    if (result == SUCCESS && !current.empty()) {
        _FS_FILE_V2 stale(record);
        stale.key = current;
        result = protocol_->DeleteItem(&stale, &cookie);
        if (result == FILE_NOT_FOUND) result = SUCCESS;
    }
    if (result == SUCCESS) {
        record.name = name;
        result = protocol_->RenameItem(record.key.c_str(), parentKey.c_str(), &record, &cookie);
    }
    if (cookie != nullptr) protocol_->ReleaseCookie(cookie);
    if (result != SUCCESS) {
        // The data is still cached and marked: the copy just sent goes, and
        // the next upload stores it anew where the node is.
        void* deleteCookie = nullptr;
        protocol_->DeleteItem(&record, &deleteCookie);
        if (deleteCookie != nullptr) protocol_->ReleaseCookie(deleteCookie);
        std::lock_guard<std::mutex> data(dataMutex_);
        remoteKey_.clear();
        auto next = std::make_shared<_FS_FILE_EXT>(*Info());
        next->key.clear();
        PublishInfo(next);
    }
    return result;
}

AERROR File::AskAboutFailure(AERROR result, const std::shared_ptr<_ASYNCJOB>& job) {
    auto sink = GetFSEvent();
    const bool closed = !job->origin || job->origin->IsClosing();
    if (!sink || !closed) return result;
    __LOG__A(CurrentLogger(), LL_WARNING,
             "[ASYNCJOB  ] Error occured while uploading file. User action required.");
    std::vector<char> answerPath(65536, '\0');
    const std::string localPath = BuildLocalPathA('/');
    const int answer =
        sink->AskUploadFailure(result, localPath.c_str(), answerPath.data(), answerPath.size() - 1);
    // The file was deleted, or the volume stops, while the host decided.
    if (job->canceled.load()) return UPLOAD_CANCELED;
    if (answer == UPLOAD_ANSWER_CANCEL) {
        __LOG__A(CurrentLogger(), LL_WARNING, "[ASYNCJOB  ] User canceled upload.");
        UploadCacheCancel(shared_from_this());
        sink->Notice(FSNOTICE_UPLOAD_DECIDED, localPath.c_str(), BuildOriginPathA().c_str(),
                     BuildPathForPrint('/', false).c_str());
    } else if (answer == UPLOAD_ANSWER_RETRY) {
        __LOG__A(CurrentLogger(), LL_WARNING, "[ASYNCJOB  ] User retried upload.");
        sink->Notice(FSNOTICE_UPLOAD_DECIDED, localPath.c_str(), BuildOriginPathA().c_str(),
                     BuildPathForPrint('/', false).c_str());
        return RETRY_UPLOAD;
    } else if (answer == UPLOAD_ANSWER_SAVE) {
        const std::string target(answerPath.data());
        __LOG__A(CurrentLogger(), LL_WARNING, "[ASYNCJOB  ] User choose save to local file %s.",
                 target.c_str());
        // The volume keeps showing what was written: the data stays cached
        // and marked as not uploaded until a later upload succeeds or the
        // file is deleted.
        const AERROR saved = SaveCacheToFile(target);
        sink->Notice(saved == SUCCESS ? FSNOTICE_SAVED_TO_FILE : FSNOTICE_SAVE_FAILED,
                     localPath.c_str(), BuildOriginPathA().c_str(), target.c_str());
    }
    return result;
}

AERROR File::UploadNow(std::shared_ptr<_FS_HANDLE_EXT> handle, IExportService* exportService,
                       std::shared_ptr<_FS_HANDLE_EXT> origin) {
    auto job = std::make_shared<_ASYNCJOB>();
    job->kind = ASYNCJOB_UPLOAD;
    job->handle = handle;
    job->origin = origin ? std::move(origin) : handle;
    // Runs as the node's job, so that a delete cancels it and waits.
    content_.RunExclusively(job);
    AERROR result = SUCCESS;
    while ((result = AsyncJobUpload(result, job, exportService)) == RETRY_UPLOAD) {
    }
    const bool queued = content_.Finish(job);
    // A worker that came for a job queued meanwhile found this upload running
    // and left it to the runner, which is this thread: hand it back.
    if (queued && fileSystem_ != nullptr) fileSystem_->QueueFile(shared_from_this());
    return result;
}

AERROR File::SaveCacheToFile(const std::string& path) {
    if (path.empty() || IsFolder()) return SAVE_FAILED;
    auto cacheObject = OpenedCache();
    auto info = Info();
    if (!cacheObject && info->size > 0) return SAVE_FAILED;
    const std::string temporary = path + ".skarvo-part";
    UniqueFd fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd.Valid()) return SAVE_FAILED;
    auto handle = std::shared_ptr<_FS_HANDLE_EXT>(FileHandles::NewHandle());
    handle->context = GetContext();
    std::vector<char> buffer(1 << 20);
    AERROR result = SUCCESS;
    for (long long offset = 0; offset < info->size && result == SUCCESS;) {
        _READDATA request;
        request.buffer = buffer.data();
        request.offset = offset;
        request.size = std::min<long long>(buffer.size(), info->size - offset);
        request.handle = handle;
        request.fileSize = info->size;
        request.fetch = !info->key.empty() ? this : nullptr;
        result = cacheObject->Read(&request);
        if (result == SUCCESS && request.read <= 0) result = SAVE_FAILED;
        if (result != SUCCESS) break;
        if (!WriteAll(fd.Get(), buffer.data(), static_cast<size_t>(request.read))) {
            result = SAVE_FAILED;
        }
        offset += request.read;
    }
    if (result == SUCCESS && ::fsync(fd.Get()) != 0) result = SAVE_FAILED;
    fd.Reset();
    if (result == SUCCESS && ::rename(temporary.c_str(), path.c_str()) != 0) result = SAVE_FAILED;
    if (result != SUCCESS) {
        ::unlink(temporary.c_str());
        return SAVE_FAILED;
    }
    return SUCCESS;
}

AERROR File::UploadCacheSave(std::shared_ptr<File>, const char* localPath) {
    return SaveCacheToFile(localPath != nullptr ? localPath : "");
}

AERROR File::UploadCacheRetry(std::shared_ptr<File> self) {
    auto job = std::make_shared<_ASYNCJOB>();
    job->kind = ASYNCJOB_UPLOAD;
    job->handle = JobHandle(nullptr);
    job->handle->context = GetContext();
    content_.SetUploadState(UploadState::Uploading);
    *this << job;
    if (fileSystem_ != nullptr) fileSystem_->QueueFile(self);
    return SUCCESS;
}

AERROR File::UploadCacheCancel(std::shared_ptr<File>) {
    CancelAsyncJobs();
    // The remote file stays as it was: forget what was written locally, so
    // that reads show the remote content again.
    if (auto cacheObject = CacheObject()) cacheObject->Discard();
    {
        std::lock_guard<std::mutex> lock(dataMutex_);
        auto next = std::make_shared<_FS_FILE_EXT>(*Info());
        next->size = next->knownSize;
        if (next->key.empty()) next->key = remoteKey_;
        content_.SetFetchableSize(next->size);
        PublishInfo(next);
    }
    ReopenCache('r');
    content_.ClearModified();
    content_.SetUploadState(UploadState::Opened);
    return SUCCESS;
}
