// Opening, reading and writing a node's data, and changing its length.
#include <algorithm>
#include <cstring>
#include <thread>

#include "api/log.h"
#include "data/cache_service.h"
#include "export/export_service.h"
#include "fs/filesystem_interfaces.h"
#include "libfilesystem/entry_points.h"
#include "tree/file.h"

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

std::shared_ptr<ICacheObj> File::CacheObject() {
    std::lock_guard<std::mutex> lock(dataMutex_);
    return cacheObject_;
}

long long File::FetchableSize() const {
    std::lock_guard<std::mutex> lock(dataMutex_);
    return fetchableSize_;
}

void File::SetStreamingPipe(std::shared_ptr<ICacheIO> pipe) {
    std::lock_guard<std::mutex> lock(stateMutex_);
    streamingPipe_ = std::move(pipe);
}

std::shared_ptr<ICacheIO> File::StreamingPipe() {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return streamingPipe_;
}

void File::OpenCache(char mode) {
    if (IsFolder()) return;
    std::shared_ptr<ICacheObj> opened;
    {
        std::lock_guard<std::mutex> lock(dataMutex_);
        if (cacheObject_) return;
        const std::wstring path = BuildPathForCache('\\');
        cacheObject_ = GetCacheObj(path, mode, Info()->size, this);
        if (!cacheObject_) return;
        cacheKey_ = CacheKey(path);
        if (cacheStale_.exchange(false)) opened = cacheObject_;
    }
    // Clean data the cache held from before is of an unknown version.
    if (opened) opened->DropClean();
}

std::shared_ptr<ICacheObj> File::OpenedCache() {
    OpenCache('r');
    return CacheObject();
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
    std::string key;
    {
        std::lock_guard<std::mutex> lock(dataMutex_);
        if (!cacheObject_) return;
        cacheObject_.reset();
        key = cacheKey_;
    }
    CloseCacheObj(key);
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

    if (!handles_.ExistWriteHandle()) uploadState_ = 1;
    auto self = shared_from_this();
    if (mode == 'w') {
        handle = handles_.OpenHandleWrite(self);
        const bool noModifyMark =
            fileSystem_ != nullptr &&
            (static_cast<uint32_t>(fileSystem_->GetFeature()) & FEATURE_NO_MODIFY_MARK) != 0;
        bool fromUploadSource;
        {
            std::lock_guard<std::mutex> lock(dataMutex_);
            fromUploadSource = !uploadSource_.empty();
        }
        // Opening for write marks the file for upload, even if nothing is
        // written, except for the file manager, which opens files for write
        // just to look at them.
        if (!fromUploadSource && processName != "finder" && !noModifyMark) SetModified();
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
    return SUCCESS;
}

AERROR File::ReadFile(_FS_HANDLE_EXT* handle, void* buffer, unsigned long size, unsigned long* read,
                      long long offset, IExportService* exportService) {
    if (read != nullptr) *read = 0;
    auto record = handle != nullptr ? handles_.GetHandle(handle) : nullptr;
    if (!record) return INVALID_HANDLE;
    const bool asyncUpload =
        fileSystem_ == nullptr ||
        (static_cast<uint32_t>(fileSystem_->GetFeature()) & FEATURE_ASYNC_UPLOAD) != 0;
    // Only a streaming upload takes the content away while it runs; an
    // ordinary upload reads the cache and leaves it readable.
    if (!asyncUpload && IsUploading() && StreamingPipe()) return FILE_READ_FAILED;
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
    auto fail = [&](AERROR code) {
        __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] %s : %s", "WriteFile", GetAERRORA(code));
        return code;
    };
    // New data makes a queued upload stale.
    CancelAsyncJobs();

    const uint32_t features =
        fileSystem_ != nullptr ? static_cast<uint32_t>(fileSystem_->GetFeature()) : 0;
    if ((features & FEATURE_ASYNC_UPLOAD) != 0) {
        while (uploadState_.load() == 3 && !StreamingPipe() && !record->IsClosing()) {
            std::this_thread::sleep_for(kPoll);
        }
    }
    if (!protocol_) return fail(FILE_WRITE_FAILED);

    _WRITEDATA request;
    request.buffer = buffer;
    request.offset = offset;
    request.size = size;
    request.handle = record;
    request.timeout = GetConfig().writetimeout;
    std::shared_ptr<ICacheIO> pipe = StreamingPipe();
    {
        std::lock_guard<std::mutex> lock(dataMutex_);
        auto current = Info();
        auto next = std::make_shared<_FS_FILE_EXT>(*current);
        next->attributes &= ~FILE_ATTRIBUTE_MODIFIED;
        if (offset + static_cast<long long>(size) > next->size) {
            next->size = offset + static_cast<long long>(size);
        }
        request.fileSize = next->size;
        if (!pipe && !next->key.empty() && (next->attributes & FILE_ATTRIBUTE_NO_DELETE) == 0) {
            request.fetch = this;
        }
        if (next->size != current->size || next->attributes != current->attributes) {
            PublishInfo(next);
        }
    }

    if (IsOfflineOnly()) {
        // Kept locally only: never streamed.
        auto cacheObject = CacheObject();
        if (!cacheObject) return fail(FILE_WRITE_FAILED);
        return WriteToCache(cacheObject, request, written);
    }

    auto filter = fileSystem_ != nullptr ? fileSystem_->GetFSFilter() : nullptr;
    if (filter && filter->IsRealtimeUploadProcess(record->process.c_str())) {
        std::lock_guard<std::mutex> lock(stateMutex_);
        // A second stream may not restart a running one.
        if (offset == 0 && uploadState_.load() == 3) return fail(FAILED);
    }

    // A write to a file at rest, or whose last upload has ended, goes to the
    // cache; only a running streaming upload takes writes through its pipe.
    uint32_t state = uploadState_.load();
    if (!pipe && (state == 1 || state == 5 || state == 6)) {
        uploadState_ = 2;
        state = 2;
    }
    if (state != 2) {
        return WriteStreaming(record, request, written, exportService);
    }

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
        return fail(FILE_WRITE_FAILED);
    }
    return WriteToCache(cacheObject, request, written);
}

AERROR File::WriteToCache(const std::shared_ptr<ICacheObj>& cacheObject, _WRITEDATA& request,
                          unsigned long* written) {
    std::shared_lock<std::shared_mutex> content(contentLock_);
    UpdateLastWrite();
    // No reopen at the new size: the cache takes a larger size for remote
    // content to fetch, while a write past the end is local and extends the
    // file with zeros itself.
    const AERROR result = cacheObject->Write(&request);
    if (result != SUCCESS) return result;
    if (written != nullptr) *written = static_cast<unsigned long>(request.written);
    SetModified();
    return SUCCESS;
}

AERROR File::WriteStreaming(const std::shared_ptr<_FS_HANDLE_EXT>& record, _WRITEDATA& request,
                            unsigned long* written, IExportService* exportService) {
    auto fail = [&](AERROR code) {
        __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] %s : %s", "WriteFile", GetAERRORA(code));
        return code;
    };
    const auto config = GetConfig();
    auto lastReset = Clock::now();
    auto keepAlive = [&] {
        const auto now = Clock::now();
        if (std::chrono::duration_cast<milliseconds>(now - lastReset).count() >
            config.timeout_reset) {
            if (exportService != nullptr) exportService->ResetTimeout(config.fstimeout);
            lastReset = now;
        }
    };
    const uint64_t offset = static_cast<uint64_t>(request.offset);
    const uint64_t end = offset + request.size;
    // Writes reach the pipe strictly in order: wait for this one's turn.
    while (record->writeOffset.load() != offset && !record->IsClosing() &&
           uploadState_.load() == 3) {
        std::this_thread::sleep_for(kPoll);
        keepAlive();
    }
    if (uploadState_.load() == 6) return fail(FILE_WRITE_FAILED);
    if (record->IsClosing()) return INVALID_HANDLE;
    auto pipe = StreamingPipe();
    if (!pipe) return fail(FILE_WRITE_FAILED);

    if (static_cast<long long>(end) == Info()->size) uploadState_ = 4;
    const AERROR result = pipe->Write(&request);
    if (result != SUCCESS) return fail(result);
    record->writeOffset = end;
    SetModified();

    // Wait until the upload has consumed this write, so that a write that
    // returns is on its way.
    for (;;) {
        const uint32_t state = uploadState_.load();
        if (record->IsClosing() || (state != 3 && state != 4)) break;
        if (state != 4 && record->consumed.load() >= end) break;
        std::this_thread::sleep_for(kPoll);
        keepAlive();
    }
    const uint32_t state = uploadState_.load();
    if (state == 6) return fail(FILE_WRITE_FAILED);
    if (state == 5) ReopenCache('r');
    if (record->IsClosing()) return INVALID_HANDLE;
    if (written != nullptr) *written = static_cast<unsigned long>(request.written);
    return SUCCESS;
}

AERROR File::SetEndOfFile(_FS_HANDLE_EXT* handle, long long size) {
    if (handle == nullptr || handle->mode != HANDLE_MODE_WRITE) return ACCESS_DENIED;
    std::shared_lock<std::shared_mutex> content(contentLock_);
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
    // Alone, so that the size it reopens the cache at is the cache's own.
    std::unique_lock<std::shared_mutex> content(contentLock_);
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
        fetchableSize_ = std::min(fetchableSize_, static_cast<int64_t>(size));
        if (forgetRemoteContent) next->key.clear();
        PublishInfo(next);
    }
    const bool noModifyMark =
        fileSystem_ != nullptr &&
        (static_cast<uint32_t>(fileSystem_->GetFeature()) & FEATURE_NO_MODIFY_MARK) != 0;
    if (!noModifyMark) SetModified();
}
