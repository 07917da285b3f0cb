#include "remotes/fault_protocol.h"

#include <unistd.h>

#include <utility>

#include "remotes/fault_source.h"
#include "remotes/protocol_text.h"

namespace {

constexpr size_t kDescriptionLength = 1024;

const char* RecordKey(const _FS_FILE_V2* record) {
    return record != nullptr ? record->key.c_str() : nullptr;
}

}  // namespace

FaultProtocol::FaultProtocol(std::shared_ptr<IProtocol_V2> wrapped, FaultList faults,
                             std::chrono::milliseconds timeout, std::shared_ptr<StopNotice> stop,
                             ILog* log)
    : wrapped_(std::move(wrapped)),
      faults_(std::move(faults)),
      timeout_(timeout),
      stop_(stop ? std::move(stop) : std::make_shared<StopNotice>()),
      log_(log),
      draws_(faults_.seed) {}

FaultProtocol::~FaultProtocol() = default;

bool FaultProtocol::Active() const {
    return faults_.switchFile.empty() || access(faults_.switchFile.c_str(), F_OK) == 0;
}

AERROR FaultProtocol::Delay(FaultOp op, const char* key, void** cookie) {
    if (!Active()) return SUCCESS;
    const OpFaults& faults = faults_.Of(op);
    if (faults.latency.count() > 0) stop_->WaitFor(faults.latency);
    if (!faults.hang) return SUCCESS;
    const bool stopped = stop_->WaitFor(timeout_);
    return Inject(op, key, stopped ? "hung until skarvo stopped" : "hung until the time-out",
                  SOCK_TIMEOUT, cookie);
}

AERROR FaultProtocol::Before(FaultOp op, const char* key, void** cookie) {
    if (const AERROR delayed = Delay(op, key, cookie)) return delayed;
    const OpFaults& faults = faults_.Of(op);
    if (!Active() || !draws_.Hit(op, faults.fraction)) return SUCCESS;
    return Inject(op, key, "failed", faults.error, cookie);
}

AERROR FaultProtocol::Inject(FaultOp op, const char* key, const std::string& how, AERROR code,
                             void** cookie) {
    const std::string text = std::string("injected fault: ") + FaultOpName(op) +
                             (key != nullptr && key[0] != '\0' ? std::string(" of ") + key : "") +
                             " " + how + " (" + GetAERRORA(code) + ")";
    if (log_ != nullptr) log_->Log(LL_INFO, "%s", text.c_str());
    if (cookie != nullptr) {
        auto own = std::make_unique<std::string>(text);
        std::lock_guard<std::mutex> lock(cookiesMutex_);
        *cookie = own.get();
        cookies_.emplace(own.get(), std::move(own));
    }
    return code;
}

AERROR FaultProtocol::DescribeCookie(void* cookie, char* buffer, unsigned long length) {
    {
        std::lock_guard<std::mutex> lock(cookiesMutex_);
        auto own = cookies_.find(cookie);
        if (own != cookies_.end()) return CopyTextCut(*own->second, buffer, length);
    }
    return wrapped_->DescribeCookie(cookie, buffer, length);
}

void FaultProtocol::ReleaseCookie(void* cookie) {
    {
        std::lock_guard<std::mutex> lock(cookiesMutex_);
        if (cookies_.erase(cookie) != 0) return;
    }
    wrapped_->ReleaseCookie(cookie);
}

// The wrapped remote's own: the faults change how it answers, not what it
// holds, so a mount through them shares its cache and its unsent data with a
// plain mount of the same remote.
AERROR FaultProtocol::GetIdentity(char* buffer, unsigned long length) {
    return wrapped_->GetIdentity(buffer, length);
}

AERROR FaultProtocol::GetQuota(unsigned long long* total, unsigned long long* used) {
    if (const AERROR injected = Before(FaultOp::kQuota, nullptr, nullptr)) return injected;
    return wrapped_->GetQuota(total, used);
}

AERROR FaultProtocol::GetItem(const char* key, _FS_FILE_V2* record, void** cookie) {
    if (const AERROR injected = Before(FaultOp::kGet, key, cookie)) return injected;
    return wrapped_->GetItem(key, record, cookie);
}

AERROR FaultProtocol::GetItemByPath(const char* path, _FS_FILE_V2* record, void** cookie) {
    if (const AERROR injected = Before(FaultOp::kGet, path, cookie)) return injected;
    return wrapped_->GetItemByPath(path, record, cookie);
}

AERROR FaultProtocol::Download(const char* key, long long offset, long long size,
                               std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback,
                               void** cookie) {
    if (const AERROR injected = Before(FaultOp::kDownload, key, cookie)) return injected;
    return wrapped_->Download(key, offset, size, std::move(handle), callback, cookie);
}

AERROR FaultProtocol::ListFolder(const char* key, IFileList* sink, void** cookie) {
    if (const AERROR injected = Before(FaultOp::kList, key, cookie)) return injected;
    return wrapped_->ListFolder(key, sink, cookie);
}

AERROR FaultProtocol::GetChanges(IFileChanges* sink, void** cookie) {
    if (const AERROR injected = Before(FaultOp::kChanges, nullptr, cookie)) return injected;
    return wrapped_->GetChanges(sink, cookie);
}

AERROR FaultProtocol::CopyItem(const char* key, const char* parentKey, _FS_FILE_V2* record,
                               void** cookie) {
    return wrapped_->CopyItem(key, parentKey, record, cookie);
}

AERROR FaultProtocol::RenameItem(const char* key, const char* parentKey, _FS_FILE_V2* record,
                                 void** cookie) {
    if (const AERROR injected = Before(FaultOp::kRename, key, cookie)) return injected;
    return wrapped_->RenameItem(key, parentKey, record, cookie);
}

AERROR FaultProtocol::MoveItem(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                               void** cookie) {
    if (const AERROR injected = Before(FaultOp::kMove, key, cookie)) return injected;
    return wrapped_->MoveItem(key, newParentKey, record, cookie);
}

AERROR FaultProtocol::MoveFolder(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                                 void** cookie) {
    if (const AERROR injected = Before(FaultOp::kMove, key, cookie)) return injected;
    return wrapped_->MoveFolder(key, newParentKey, record, cookie);
}

AERROR FaultProtocol::CreateFolder(const char* parentKey, _FS_FILE_V2* record, void** cookie) {
    if (const AERROR injected = Before(FaultOp::kMkdir, parentKey, cookie)) return injected;
    return wrapped_->CreateFolder(parentKey, record, cookie);
}

AERROR FaultProtocol::DeleteItem(const _FS_FILE_V2* record, void** cookie) {
    if (const AERROR injected = Before(FaultOp::kDelete, RecordKey(record), cookie))
        return injected;
    return wrapped_->DeleteItem(record, cookie);
}

AERROR FaultProtocol::DeleteFolder(const _FS_FILE_V2* record, void** cookie) {
    if (const AERROR injected = Before(FaultOp::kDelete, RecordKey(record), cookie))
        return injected;
    return wrapped_->DeleteFolder(record, cookie);
}

AERROR FaultProtocol::SetItemTime(const char* key, long long createTime, long long accessTime,
                                  long long modifyTime, void** cookie) {
    if (const AERROR injected = Before(FaultOp::kSetTime, key, cookie)) return injected;
    return wrapped_->SetItemTime(key, createTime, accessTime, modifyTime, cookie);
}

AERROR FaultProtocol::SetArchive(const char* key, bool archived, void** cookie) {
    return wrapped_->SetArchive(key, archived, cookie);
}

AERROR FaultProtocol::UploadItem(const char* parentKey, std::shared_ptr<_FS_HANDLE> handle,
                                 ICacheIO* source, _FS_FILE_V2* record,
                                 const _TRANSFERPROGRESS* progress, void** cookie) {
    std::string key = parentKey != nullptr ? parentKey : "";
    if (key.empty() || key.back() != '/') key += '/';
    if (record != nullptr) key += record->name;
    if (const AERROR delayed = Delay(FaultOp::kUpload, key.c_str(), cookie)) return delayed;
    SlowSource slow(source, faults_.uploadRate);
    if (source != nullptr && faults_.uploadRate > 0 && Active()) source = &slow;
    const OpFaults& faults = faults_.Of(FaultOp::kUpload);
    if (!Active() || !draws_.Hit(FaultOp::kUpload, faults.fraction)) {
        return wrapped_->UploadItem(parentKey, std::move(handle), source, record, progress, cookie);
    }
    // Even draws fail at once, odd ones part-way through the file.
    const uint64_t draw = draws_.Next(FaultOp::kUpload);
    const long long size = record != nullptr ? record->size : 0;
    if (size > 0 && source != nullptr && (draw & 1) != 0) {
        const long long cutoff = static_cast<long long>((draw >> 1) % static_cast<uint64_t>(size));
        return UploadCut(parentKey, handle, source, record, progress, cutoff, key.c_str(), cookie);
    }
    return Inject(FaultOp::kUpload, key.c_str(), "failed before it began", faults.error, cookie);
}

AERROR FaultProtocol::UploadCut(const char* parentKey, const std::shared_ptr<_FS_HANDLE>& handle,
                                ICacheIO* source, _FS_FILE_V2* record,
                                const _TRANSFERPROGRESS* progress, long long cutoff,
                                const char* key, void** cookie) {
    const AERROR code = faults_.Of(FaultOp::kUpload).error;
    CutSource cut(source, cutoff, code);
    void* wrappedCookie = nullptr;
    const AERROR result =
        wrapped_->UploadItem(parentKey, handle, &cut, record, progress, &wrappedCookie);
    std::string detail;
    if (wrappedCookie != nullptr) {
        char text[kDescriptionLength] = "";
        wrapped_->DescribeCookie(wrappedCookie, text, sizeof text);
        detail = text;
        wrapped_->ReleaseCookie(wrappedCookie);
    }
    // A remote that stopped reading before the cutoff stored the file whole.
    if (result == SUCCESS) return SUCCESS;
    return Inject(FaultOp::kUpload, key,
                  "failed after " + std::to_string(cutoff) + " bytes" +
                      (detail.empty() ? "" : " (" + detail + ")"),
                  code, cookie);
}
