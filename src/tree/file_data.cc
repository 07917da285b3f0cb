// Opening, reading and writing a node's data, and changing its length.
#include <algorithm>
#include <cstring>
#include <thread>

#include "data/cache_service.h"
#include "libfilesystem/entry_points.h"
#include "services/export_interface.h"
#include "services/log.h"
#include "tree/file.h"
#include "tree/filesystem_view.h"

namespace {

using std::chrono::milliseconds;

constexpr auto kPoll = milliseconds(10);

// Places the pieces of one ranged download at their offsets in the caller's
// buffer. Protocols deliver a range in several pieces, so each must land
// where it belongs; anything outside the range is refused.
class RangeToBuffer : public IFetchCallback {
  public:
    RangeToBuffer(char* buffer, long long offset, long long size)
        : buffer_(buffer), offset_(offset), size_(size) {}

    AERROR FetchWrite(long long offset, const char* data, long size, long* written) override {
        if (offset < offset_ || size < 0 || offset + size > offset_ + size_) return FAILED;
        memcpy(buffer_ + (offset - offset_), data, static_cast<size_t>(size));
        if (written != nullptr) *written = size;
        const long long end = offset + size - offset_;
        if (end > total_) total_ = end;
        return SUCCESS;
    }
    long long Total() const { return total_; }

  private:
    char* buffer_;
    long long offset_;
    long long size_;
    long long total_ = 0;
};

bool ReportsTo(const std::shared_ptr<IFSEvent>& sink) {
    return sink != nullptr;
}

}  // namespace

void File::OpenCache(char mode) {
    if (IsFolder()) return;
    if (content_.CacheObject()) return;
    const std::shared_ptr<ICacheObj> opened =
        content_.OpenCache(BuildPathForCache('\\'), mode, Info()->size, this);
    if (!opened) return;
    // Clean data the cache held from before stays when it is of the version
    // the remote has; only a node at rest knows that version.
    const bool atRest = !IsModified() && !IsUploading() && !IsRemoved();
    opened->CheckVersion(atRest ? Info()->ContentVersion().c_str() : "");
}

void File::NoteOrigin(const _FS_FILE_V2* base) {
    const std::string key = content_.CacheKey();
    if (key.empty()) return;
    // The content of a deleted file never goes anywhere.
    const std::string path = IsRemoved() ? "" : "/" + BuildPathA('/');
    NoteCacheOrigin(key, path.c_str(), protocol_.get(), base);
}

std::shared_ptr<ICacheObj> File::OpenedCache() {
    OpenCache('r');
    return CacheObject();
}

AERROR File::SyncCache() {
    // A node with written data keeps its cache object while it is open or
    // has an upload to run; without one there is nothing to make durable.
    const std::shared_ptr<ICacheObj> cacheObject = CacheObject();
    return cacheObject ? cacheObject->Sync() : SUCCESS;
}

AERROR File::SaveWrittenCache() {
    const std::shared_ptr<ICacheObj> cacheObject = CacheObject();
    return cacheObject ? cacheObject->SaveWritten() : SUCCESS;
}

void File::ReopenCache(char mode) {
    std::shared_ptr<ICacheObj> cacheObject = CacheObject();
    if (!cacheObject) {
        OpenCache(mode);
        return;
    }
    cacheObject->Reopen(mode, Info()->size, this);
}

void File::CloseCache() {
    const std::string key = content_.CloseCache();
    if (!key.empty()) CloseCacheObj(key);
}

AERROR File::Open(char mode, unsigned long flags, unsigned long, const std::string& processName,
                  std::shared_ptr<_FS_HANDLE_EXT>& handle, const char* extra) {
    if ((mode != 'r' && mode != 'w') || !Info()) return OPEN_FAILED;

    // A file at rest is checked against its remote record at most once per
    // fileinfo interval, so that a remote change is seen when it is opened.
    const auto now = Clock::now();
    const auto sinceCheck =
        std::chrono::duration_cast<milliseconds>(now - lastCheck_.load()).count();
    const std::string identity = Info()->key;
    if (!IsFolder() && fileState_.load() == FILE_STATE_LISTED &&
        sinceCheck > GetConfig().fileinfo_interval && !identity.empty() && protocol_) {
        lastCheck_ = now;
        _FS_FILE_V2 record;
        void* cookie = nullptr;
        const AERROR result = protocol_->GetItem(identity.c_str(), &record, &cookie);
        if (cookie != nullptr) protocol_->ReleaseCookie(cookie);
        if (result != SUCCESS) return OPEN_FAILED;
        Update(&record, false, false);
    }

    // A file at rest opened for writing starts a local change, based on the
    // remote record it has now.
    const bool changeStarts = mode == 'w' && !handles_.ExistWriteHandle() && !IsModified();
    if (!handles_.ExistWriteHandle()) content_.SetUploadState(UploadState::Opened);
    auto self = shared_from_this();
    if (mode == 'w') {
        // A second writer: the stream no longer has the file to itself.
        if (handles_.ExistWriteHandle()) AbandonStream();
        handle = handles_.OpenHandleWrite(self);
        // Opening for write marks the file for upload, even if nothing is
        // written, except for the file manager, which opens files for write
        // just to look at them.
        if (processName != "finder" && !HasFeature(FEATURE_NO_MODIFY_MARK)) SetModified();
    } else {
        handle = handles_.OpenHandleRead(self);
    }
    handle->writeOffset = 0;
    handle->consumed = 0;
    handle->context = GetContext();
    handle->flags = flags;
    handle->process = processName;
    if (extra != nullptr) {
        handle->originKind = 2;
        handle->originText = extra;
    }
    if (!IsFolder() && !CacheObject()) OpenCache(IsOfflineOnly() ? 'w' : 'r');
    if (changeStarts && !IsFolder()) {
        const _FS_FILE_V2 base = Info()->Record();
        NoteOrigin(&base);
    }
    return SUCCESS;
}

AERROR File::ReadFile(_FS_HANDLE_EXT* handle, void* buffer, unsigned long size, unsigned long* read,
                      long long offset, IExportService* exportService) {
    if (read != nullptr) *read = 0;
    auto record = handle != nullptr ? handles_.GetHandle(handle) : nullptr;
    if (!record) return INVALID_HANDLE;
    if (!protocol_) return FILE_READ_FAILED;

    auto info = Info();
    // Reads stop at the end of the file.
    unsigned long long wanted = size;
    if (offset >= info->size) {
        wanted = 0;
    } else if (offset + static_cast<long long>(wanted) > info->size) {
        wanted = static_cast<unsigned long long>(info->size - offset);
    }
    const bool fetchable = !info->key.empty() && !IsOfflineOnly();
    if (auto cacheObject = CacheObject()) {
        if (exportService != nullptr) exportService->ResetTimeout(60000);
        _READDATA request;
        request.buffer = buffer;
        request.offset = offset;
        request.size = wanted;
        request.handle = record;
        request.fileSize = info->size;
        request.fetch = fetchable ? this : nullptr;
        request.timeout = (wanted >> 16) * GetConfig().readtimeout;
        request.partial = (protocol_->GetCapabilities() & PROTOCOL_CAP_PARTIAL_READ) != 0;
        if (cacheObject->Read(&request) == SUCCESS) {
            if (read != nullptr) *read = static_cast<unsigned long>(request.read);
            return SUCCESS;
        }
    }
    if (IsOfflineOnly()) return FILE_READ_FAILED;
    if (wanted == 0) return SUCCESS;
    if (info->key.empty()) return FILE_READ_FAILED;

    // The cache could not serve: download the range straight into the buffer.
    RangeToBuffer target(static_cast<char*>(buffer), offset, static_cast<long long>(wanted));
    void* cookie = nullptr;
    const AERROR result = protocol_->Download(
        info->key.c_str(), offset, static_cast<long long>(wanted), record, &target, &cookie);
    if (result == SUCCESS) {
        if (read != nullptr) *read = static_cast<unsigned long>(target.Total());
    } else if (result != READ_CANCELED) {
        auto sink = GetFSEvent();
        if (ReportsTo(sink)) {
            sink->Error(FSEVENT_READ_FAILED, result, BuildLocalPathA('/').c_str(),
                        BuildOriginPathA().c_str(), cookie);
        }
    }
    if (cookie != nullptr) protocol_->ReleaseCookie(cookie);
    return result;
}

AERROR File::Fetch(long long offset, long long size, std::shared_ptr<_FS_HANDLE> handle,
                   IFetchCallback* callback) {
    const std::string identity = Info()->key;
    if (identity.empty() || !protocol_) return FAILED;
    const long long fetchable = FetchableSize();
    if (offset + size > fetchable) size = fetchable - offset;
    if (size < 1) return SUCCESS;
    if (!handle) return FAILED;
    handle->context = GetContext();
    void* cookie = nullptr;
    const AERROR result =
        protocol_->Download(identity.c_str(), offset, size, handle, callback, &cookie);
    if (result != SUCCESS && result != READ_CANCELED) {
        if (auto sink = GetFSEvent()) {
            sink->Error(FSEVENT_READ_FAILED, result, BuildLocalPathA('/').c_str(),
                        BuildOriginPathA().c_str(), cookie);
        }
    }
    if (cookie != nullptr) protocol_->ReleaseCookie(cookie);
    return handle->IsClosing() ? INVALID_HANDLE : result;
}

AERROR File::WriteFile(_FS_HANDLE_EXT* handle, const void* buffer, unsigned long size,
                       unsigned long* written, long long offset, IExportService* exportService) {
    auto record = handle != nullptr ? handles_.GetHandle(handle) : nullptr;
    if (!record) {
        __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] Invalid handle : Unknown handle on %s",
                 "WriteFile");
        return INVALID_HANDLE;
    }
    // New data makes a queued upload stale.
    CancelAsyncJobs();
    if (HasFeature(FEATURE_ASYNC_UPLOAD)) {
        while (content_.GetUploadState() == UploadState::Uploading && !StreamingPipe() &&
               !record->IsClosing()) {
            std::this_thread::sleep_for(kPoll);
        }
    }
    if (!protocol_) return WriteFailed(FILE_WRITE_FAILED);

    _WRITEDATA request;
    request.buffer = buffer;
    request.offset = offset;
    request.size = size;
    request.handle = record;
    request.timeout = GetConfig().writetimeout;
    const std::shared_ptr<ICacheIO> pipe = StreamingPipe();
    const long long priorSize = GrowForWrite(request, pipe != nullptr);

    if (IsOfflineOnly()) {
        // Kept locally only: never streamed.
        auto cacheObject = CacheObject();
        if (!cacheObject) return WriteFailed(FILE_WRITE_FAILED);
        return WriteToCache(cacheObject, request, priorSize, written);
    }
    MarkWritten(pipe != nullptr);
    // Every write goes to the cache, a streamed one as well.
    const AERROR result = WriteToOpenedCache(request, priorSize, written);
    if (result == SUCCESS) FeedStream(record, request, priorSize, exportService);
    return result;
}

AERROR File::WriteFailed(AERROR code) {
    __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] %s : %s", "WriteFile", GetAERRORA(code));
    return code;
}

long long File::GrowForWrite(_WRITEDATA& request, bool streaming) {
    std::lock_guard<std::mutex> lock(dataMutex_);
    auto current = Info();
    auto next = std::make_shared<_FS_FILE_EXT>(*current);
    next->attributes &= ~FILE_ATTRIBUTE_MODIFIED;
    const long long end = request.offset + static_cast<long long>(request.size);
    if (end > next->size) next->size = end;
    request.fileSize = next->size;
    if (!streaming && !next->key.empty() && (next->attributes & FILE_ATTRIBUTE_NO_DELETE) == 0) {
        request.fetch = this;
    }
    if (next->size != current->size || next->attributes != current->attributes) {
        PublishInfo(next);
    }
    return current->size;
}

void File::MarkWritten(bool hasPipe) {
    // A write to a file at rest, or whose last upload has ended, marks data
    // pending in the cache. A write while an ordinary upload reads the cache
    // (a writer that opened the file as the last one closed it) goes to the
    // cache too: the upload sees the change by its generation, and the next
    // close uploads again.
    const UploadState state = content_.GetUploadState();
    if (!hasPipe && (state == UploadState::Opened || state == UploadState::Uploaded ||
                     state == UploadState::UploadFailed)) {
        content_.SetUploadState(UploadState::Written);
    }
}

AERROR File::WriteToOpenedCache(_WRITEDATA& request, long long priorSize, unsigned long* written) {
    auto cacheObject = CacheObject();
    if (!cacheObject) {
        ReopenCache('w');
        cacheObject = CacheObject();
    }
    if (!cacheObject) {
        if (!HasCacheService()) {
            __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] %s : %s - No cache", "WriteFile",
                     GetAERRORA(FILE_WRITE_FAILED));
            return FILE_WRITE_FAILED;
        }
        return WriteFailed(FILE_WRITE_FAILED);
    }
    return WriteToCache(cacheObject, request, priorSize, written);
}

AERROR File::WriteToCache(const std::shared_ptr<ICacheObj>& cacheObject, _WRITEDATA& request,
                          long long priorSize, unsigned long* written) {
    std::shared_lock<std::shared_mutex> content(content_.Lock());
    UpdateLastWrite();
    // No reopen at the new size: the cache takes a larger size for remote
    // content to fetch, while a write past the end is local and extends the
    // file with zeros itself.
    const AERROR result = cacheObject->Write(&request);
    if (result != SUCCESS) {
        // A write the cache refused (a full disk) leaves the file as it was,
        // as the cache does: the size goes back unless another write has
        // changed it since.
        std::lock_guard<std::mutex> lock(dataMutex_);
        auto current = Info();
        if (request.fileSize > priorSize && current->size == request.fileSize) {
            auto next = std::make_shared<_FS_FILE_EXT>(*current);
            next->size = priorSize;
            PublishInfo(next);
        }
        return result;
    }
    if (written != nullptr) *written = static_cast<unsigned long>(request.written);
    SetModified();
    return SUCCESS;
}

AERROR File::SetEndOfFile(_FS_HANDLE_EXT* handle, long long size) {
    if (handle == nullptr || handle->mode != HANDLE_MODE_WRITE) return ACCESS_DENIED;
    AbandonStream();
    std::shared_lock<std::shared_mutex> content(content_.Lock());
    UpdateLastWrite();
    if (auto cacheObject = CacheObject()) {
        // A cache that refuses the size leaves the file as it was.
        if (cacheObject->SetSize(size) != SUCCESS) return SUCCESS;
    }
    Resize(size, false);
    content.unlock();
    Notify(NE_UPDATEITEM, BuildPath('\\'));
    return SUCCESS;
}

AERROR File::SetAllocationSize(_FS_HANDLE_EXT* handle, long long size) {
    return SetEndOfFile(handle, size);
}

AERROR File::ftruncate(const std::string&, long long size) {
    AbandonStream();
    // Alone, so that the size it reopens the cache at is the cache's own.
    std::unique_lock<std::shared_mutex> content(content_.Lock());
    UpdateLastWrite();
    if (auto cacheObject = CacheObject()) {
        // Opened for writing at the size it has, so that the new size is a
        // local change: bytes past the old end read as zeros, never as
        // remote content.
        cacheObject->Reopen('w', Info()->size, this);
        if (cacheObject->SetSize(size) != SUCCESS) return SUCCESS;
    }
    // An empty file is never fetched: it keeps no remote identity. The
    // remote key stays, so that the upload overwrites the same item.
    Resize(size, size == 0);
    return SUCCESS;
}

void File::Resize(long long size, bool forgetRemoteContent) {
    {
        std::lock_guard<std::mutex> lock(dataMutex_);
        auto next = std::make_shared<_FS_FILE_EXT>(*Info());
        next->size = size;
        // A file made longer reads zeros past its old end: only what is
        // below both ends may come from the remote.
        content_.LimitFetchableSize(size);
        if (forgetRemoteContent) next->key.clear();
        PublishInfo(next);
    }
    if (!HasFeature(FEATURE_NO_MODIFY_MARK)) SetModified();
}
