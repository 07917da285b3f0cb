// The WebDAV remote's data transfers: ranged downloads and streamed,
// conditional uploads.
#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "remotes/local_paths.h"
#include "remotes/transfer_io.h"
#include "remotes/webdav_protocol.h"
#include "remotes/webdav_record.h"

namespace {

constexpr int kDownloadAttempts = 3;
// How often an upload refused only because the server still marks the
// file's ETag weak (it changed within the last second) is tried again.
constexpr int kWeakEtagRetries = 3;
constexpr auto kWeakEtagPause = std::chrono::milliseconds(1100);

long StatusOfLine(const std::string& line) {
    const size_t space = line.find(' ');
    return space == std::string::npos ? 0 : strtol(line.c_str() + space + 1, nullptr, 10);
}

// The first byte of a "bytes FIRST-LAST/SIZE" Content-Range, or -1.
long long RangeStart(const std::string& contentRange) {
    if (contentRange.compare(0, 6, "bytes ") != 0) return -1;
    char* end = nullptr;
    const long long first = strtoll(contentRange.c_str() + 6, &end, 10);
    return end != nullptr && *end == '-' ? first : -1;
}

}  // namespace

AERROR WebdavProtocol::Download(const char* key, long long offset, long long size,
                                std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback,
                                void** cookie) {
    if (key == nullptr || callback == nullptr) {
        return ReportStatus(Status::Error(INVALID_PARAMETER, "no key or callback given"), cookie);
    }
    if (offset < 0 || size < 0) {
        return ReportStatus(Status::Error(INVALID_PARAMETER, "negative range"), cookie);
    }
    return ReportStatus(DoDownload(key, offset, size, handle, callback), cookie);
}

Status WebdavProtocol::DoDownload(const std::string& key, long long offset, long long size,
                                  const std::shared_ptr<_FS_HANDLE>& handle,
                                  IFetchCallback* callback) {
    long long position = offset;
    const long long end = offset + size;
    Status status;
    for (int attempt = 1; position < end && attempt <= kDownloadAttempts; ++attempt) {
        const long long before = position;
        status = GetRange(key, &position, end, handle, callback);
        if (status.ok() || status.code() == READ_CANCELED) return status;
        // Only a lost connection is worth another try; it goes on from where
        // it stopped.
        if (status.code() != SOCK_REMOTE_HOST_CLOSED && status.code() != SOCK_TIMEOUT &&
            status.code() != SOCK_CONNECTION_REFUSED && status.code() != SOCK_TEMPORARY_ERROR) {
            return status;
        }
        if (position == before) std::this_thread::sleep_for(std::chrono::milliseconds(500));
    }
    return status;
}

Status WebdavProtocol::GetRange(const std::string& key, long long* position, long long end,
                                const std::shared_ptr<_FS_HANDLE>& handle,
                                IFetchCallback* callback) {
    HttpRequest request;
    HttpResponse response;
    request.method = "GET";
    request.path = http_.Address().PathOf(key, false);
    request.headers = {"Range: bytes=" + std::to_string(*position) + "-" + std::to_string(end - 1),
                       "Accept-Encoding: identity"};
    request.streaming = true;
    request.keepGoing = [&handle] { return !handle || !handle->IsClosing(); };
    long long skip = -1;  // bytes of the answer before *position
    Status delivery;
    request.onData = [&](const char* data, size_t bytes) {
        if (skip < 0) {
            const bool whole = StatusOfLine(response.statusLine) == 200;
            const long long start = whole ? 0 : RangeStart(response.contentRange);
            if (start < 0 || start > *position) {
                delivery = Status::Error(FAILED, key + ": the server sent another range (" +
                                                     response.contentRange + ")");
                return false;
            }
            skip = *position - start;
        }
        const long long dropped = std::min<long long>(skip, static_cast<long long>(bytes));
        skip -= dropped;
        const long long rest = static_cast<long long>(bytes) - dropped;
        const long long usable = std::min<long long>(rest, end - *position);
        if (usable > 0) {
            delivery =
                DeliverFetched(callback, *position, data + dropped, static_cast<long>(usable), key);
            if (!delivery.ok()) return false;
            *position += usable;
        }
        // More than was asked for (a server that ignored the range): stop.
        return usable == rest;
    };
    Status status = http_.Send(request, &response);
    if (!delivery.ok()) return delivery;
    if (status.code() == CANCEL) return Status::Error(READ_CANCELED, key + ": download cancelled");
    // A range that starts past the end: nothing to send.
    if (response.status == 416) return Status::Ok();
    if (!status.ok()) return status;
    if (*position < end && !response.stoppedByReceiver) {
        *position = end;  // the file is shorter than the range: delivered what there was
    }
    return Status::Ok();
}

AERROR WebdavProtocol::UploadItem(const char* parentKey, std::shared_ptr<_FS_HANDLE> handle,
                                  ICacheIO* source, _FS_FILE_V2* record,
                                  const _TRANSFERPROGRESS* progress, void** cookie) {
    if (source == nullptr || record == nullptr || (parentKey == nullptr && record->key.empty())) {
        return ReportStatus(
            Status::Error(INVALID_PARAMETER, "no source, record or folder key given"), cookie);
    }
    return ReportStatus(
        DoUpload(parentKey != nullptr ? parentKey : "", handle, source, record, progress), cookie);
}

Status WebdavProtocol::DoUpload(const std::string& parentKey,
                                const std::shared_ptr<_FS_HANDLE>& handle, ICacheIO* source,
                                _FS_FILE_V2* record, const _TRANSFERPROGRESS* progress) {
    if (record->size < 0) return Status::Error(INVALID_PARAMETER, "negative size");
    const bool existing = !record->key.empty();
    const std::string key = existing ? record->key : JoinKey(parentKey, record->name);
    if (!IsAcceptableDavName(NameOfKey(key))) {
        return Status::Error(INVALID_NAME, "invalid name \"" + NameOfKey(key) + "\"");
    }
    const std::string based = existing ? etags_.Current(key, record->extra) : std::string();
    const std::string condition = !existing       ? "If-None-Match: *"
                                  : based.empty() ? std::string()
                                                  : "If-Match: " + based;
    watch_.Touch(ParentKey(key));
    Status status;
    for (int attempt = 0;; ++attempt) {
        status = Put(key, condition, handle, source, record->size, progress);
        if (status.code() != SHARING_VIOLATION || based.empty() || attempt >= kWeakEtagRetries) {
            break;
        }
        // Refused: either another client changed the file, or the server
        // will not match an ETag it still calls weak. Only the latter is
        // tried again, once the ETag has settled.
        DavEntry current;
        if (!Stat(key, &current).ok() || current.etag != based) break;
        std::this_thread::sleep_for(kWeakEtagPause);
    }
    if (status.code() == SHARING_VIOLATION) {
        status.set_message(status.message() +
                           (existing ? " (the file was changed on the server since it was read; "
                                       "the server's version is kept)"
                                     : " (another client created the file meanwhile; the "
                                       "server's version is kept)"));
        return status;
    }
    if (!status.ok()) return status;
    DavEntry stored;
    status = Stat(key, &stored);
    if (!status.ok()) return status;
    etags_.Stored(key, based, stored.etag);
    watch_.Put(ParentKey(key), NameOfKey(key), DavItemState{false, stored.size, stored.etag});
    const std::string keepName = record->name;
    ToRecord(key, stored, record);
    if (record->name.empty()) record->name = keepName;
    return Status::Ok();
}

Status WebdavProtocol::Put(const std::string& key, const std::string& condition,
                           const std::shared_ptr<_FS_HANDLE>& handle, ICacheIO* source,
                           int64_t size, const _TRANSFERPROGRESS* progress) {
    HttpRequest request;
    request.method = "PUT";
    request.path = http_.Address().PathOf(key, false);
    if (!condition.empty()) request.headers.push_back(condition);
    request.headers.push_back("Content-Type: application/octet-stream");
    request.idempotent = false;  // the host's upload policy decides about retries
    request.streaming = true;
    request.bodySize = size;
    request.readBody = [&](uint64_t offset, char* buffer, size_t want, size_t* got) {
        return ReadUploadSource(source, handle, size, offset, buffer, want, got, key);
    };
    ProgressReporter reporter(progress, static_cast<uint64_t>(size));
    request.onSent = [&reporter](uint64_t sent) { reporter.Report(sent); };
    HttpResponse response;
    Status status;
    {
        const TransferGate::Pass pass = gate_.Upload(key);
        if (pass.WaitedOut() && log_ != nullptr) {
            log_->Log(LL_WARNING, "webdav: PUT of %s goes on while its folder is still moving",
                      key.c_str());
        }
        status = http_.Send(request, &response);
    }
    if (status.code() == CANCEL) return Status::Error(UPLOAD_CANCELED, key + ": upload cancelled");
    if (status.ok() && size == 0) reporter.Report(0);
    return status;
}
