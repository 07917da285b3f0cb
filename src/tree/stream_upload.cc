// Real-time upload: the writes of a real-time writer reach the remote while
// the file is being written.
//
// A stream starts when a writer that the file filter names as real-time
// writes at offset 0 of an empty file (new, or just truncated) and is the
// file's only writer. Its writes then go, in file order, both into the cache
// and into a StreamPipe that an upload job reads as the source of the
// protocol's ordinary upload, of a size that is known only at the end
// (UPLOAD_SIZE_UNKNOWN). When the writer closes the file, the pipe ends and the
// upload stores the file; close then has nothing left to upload.
//
// The cache always holds everything written, so giving a stream up costs
// nothing but the bytes already sent: a write out of order, a second writer,
// a truncation, a changed content, a failing or cancelled upload all abandon
// the stream, the protocol's upload fails and stores nothing, and the close
// uploads the whole file from the cache as without real-time upload.
#include <thread>

#include "data/async_job.h"
#include "data/cache_io.h"
#include "data/stream_pipe.h"
#include "data/upload_place.h"
#include "libfilesystem/entry_points.h"
#include "services/async_queue.h"
#include "services/export_interface.h"
#include "services/log.h"
#include "tree/file.h"
#include "tree/filesystem_view.h"

namespace {

constexpr auto kPoll = std::chrono::milliseconds(10);

// Runs one stream on the host's job queue; deletes itself when done.
class StreamJob : public IAsyncObj {
  public:
    StreamJob(std::shared_ptr<File> node, std::shared_ptr<_ASYNCJOB> job,
              std::shared_ptr<StreamPipe> pipe)
        : node_(std::move(node)), job_(std::move(job)), pipe_(std::move(pipe)) {}

    void Process(void* context) override {
        // Run inline, the stream would wait for writes that this very thread
        // has to make: give it up instead.
        if (context == kInlineContext) job_->canceled = true;
        node_->RunStream(job_, pipe_);
        delete this;
    }
    void Canceled(void*) override {
        job_->canceled = true;
        node_->RunStream(job_, pipe_);
        delete this;
    }

  private:
    std::shared_ptr<File> node_;
    std::shared_ptr<_ASYNCJOB> job_;
    std::shared_ptr<StreamPipe> pipe_;
};

}  // namespace

std::shared_ptr<StreamPipe> File::CurrentStream() {
    return std::dynamic_pointer_cast<StreamPipe>(StreamingPipe());
}

void File::FeedStream(const std::shared_ptr<_FS_HANDLE_EXT>& record, const _WRITEDATA& request,
                      long long priorSize, IExportService* exportService) {
    auto pipe = CurrentStream();
    if (pipe && pipe->Stopped()) return;
    if (!pipe) {
        if (request.offset != 0 || priorSize != 0) return;
        // Asked only here, where a stream could start, not on every write.
        auto filter = fileSystem_ != nullptr ? fileSystem_->GetFSFilter() : nullptr;
        if (!filter || !filter->IsRealtimeUploadProcess(record->process.c_str())) return;
        pipe = StartStream(record);
        if (!pipe) return;
    }
    TimeoutKeeper keepAlive(exportService, config_);
    if (!pipe->IsOwner(record.get()) || pipe->Push(request, std::ref(keepAlive)) != SUCCESS) {
        AbandonStream();
        return;
    }
    pipe->NoteGeneration(content_.WriteGeneration());
}

std::shared_ptr<StreamPipe> File::StartStream(const std::shared_ptr<_FS_HANDLE_EXT>& record) {
    if (!protocol_ || IsOfflineOnly() || handles_.WriteCount() != 1) return nullptr;
    auto job = std::make_shared<_ASYNCJOB>();
    job->kind = ASYNCJOB_UPLOAD;
    job->handle = JobHandle(record);
    job->origin = record;
    // Runs as the node's job, so that no other upload of it runs meanwhile
    // and a delete cancels it and waits for it.
    if (!content_.TryRunExclusively(job)) return nullptr;
    auto pipe = std::make_shared<StreamPipe>(record, job);
    content_.SetStreamingPipe(pipe);
    content_.SetUploadState(UploadState::Uploading);
    __LOG__A(CurrentLogger(), LL_INFO, "[ASYNCJOB  ] Streaming upload - %s", Name().c_str());
    QueueAsync(new StreamJob(shared_from_this(), job, pipe), nullptr);
    return pipe;
}

void File::AbandonStream() {
    if (auto pipe = CurrentStream()) pipe->Abandon();
}

void File::EndStream(const std::shared_ptr<_FS_HANDLE_EXT>& record, IExportService* exportService) {
    auto pipe = CurrentStream();
    if (!pipe || !pipe->IsOwner(record.get())) return;
    // The stream holds the whole file only if it took every change, and
    // all of the file; a file deleted meanwhile is not stored at all.
    const bool whole =
        pipe->Generation() == content_.WriteGeneration() && pipe->Received() == Info()->size;
    const bool deleted = IsRemoved() || fileState_.load() == FILE_STATE_DELETING;
    if (whole && !deleted &&
        content_.ChangeUploadState(UploadState::Uploading, UploadState::UploadingLastByte)) {
        pipe->Finish();
    } else {
        pipe->Abandon();
    }
    TimeoutKeeper keepAlive(exportService, config_);
    const auto job = pipe->Job();
    while (content_.IsRunning(job)) {
        keepAlive();
        std::this_thread::sleep_for(kPoll);
    }
    SetStreamingPipe(nullptr);
}

AERROR File::RunStream(const std::shared_ptr<_ASYNCJOB>& job,
                       const std::shared_ptr<StreamPipe>& pipe) {
    const std::string name = Name();
    auto cacheObject = OpenedCache();
    UploadPlace place;
    _FS_FILE_V2 record;
    {
        std::lock_guard<std::mutex> lock(placeLock_);
        place.protocol = protocol_.get();
        place.parentKey = Parent() != nullptr ? Parent()->Key() : std::string();
        place.name = name;
        record = Info()->Record();
        // A file truncated to be written anew replaces its remote item.
        if (record.key.empty()) record.key = RemoteKey();
    }
    record.size = UPLOAD_SIZE_UNKNOWN;
    void* cookie = nullptr;
    AERROR result = cacheObject ? UPLOAD_CANCELED : FAILED;
    if (cacheObject) {
        UploadPlaceReservation reservation(place, job->canceled);
        if (reservation.Held()) {
            result = protocol_->UploadItem(place.parentKey.c_str(), job->handle, pipe.get(),
                                           &record, nullptr, &cookie);
        }
        if (result == SUCCESS && record.size < 0) record.size = Info()->size;
        // Whatever was not streamed stays marked, and the close uploads it.
        if (result == SUCCESS)
            result = CommitUpload(record, place, pipe->Generation(), cacheObject);
    }
    if (cookie != nullptr) protocol_->ReleaseCookie(cookie);
    if (result != SUCCESS) {
        // Nothing partial was stored: the close uploads the file from the cache.
        pipe->Abandon();
        content_.SetUploadState(UploadState::UploadFailed);
    }
    __LOG__A(CurrentLogger(), LL_INFO, "[ASYNCJOB  ] Streaming upload - %s done(%s)", name.c_str(),
             result == SUCCESS ? "Success" : GetAERRORA(result));
    if (job->handle) job->handle->state = HANDLE_STATE_CLOSED;
    const bool queued = content_.Finish(job);
    if (queued && fileSystem_ != nullptr) fileSystem_->QueueFile(shared_from_this());
    return result;
}
