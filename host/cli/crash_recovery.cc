#include "cli/crash_recovery.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "cli/remote_lookup.h"
#include "libfilesystem/unique_fd.h"

namespace {

// Fills the blocks a cache entry lacks from the remote file it was based on.
class RemoteFetch : public IFetch {
  public:
    RemoteFetch(IProtocol_V2* protocol, std::string key)
        : protocol_(protocol), key_(std::move(key)) {}

    AERROR Fetch(long long offset, long long size, std::shared_ptr<_FS_HANDLE> handle,
                 IFetchCallback* callback) override {
        void* cookie = nullptr;
        const AERROR result =
            protocol_->Download(key_.c_str(), offset, size, handle, callback, &cookie);
        if (cookie != nullptr) protocol_->ReleaseCookie(cookie);
        return result;
    }

  private:
    IProtocol_V2* const protocol_;
    const std::string key_;
};

// Reads `size` bytes at `offset` of `object`, a file of `fileSize` bytes, on
// behalf of `handle`, fetching what it lacks through `fetch` when there is
// one. How many bytes it read: 0 when it failed or found none.
int64_t ReadCached(ICacheObj* object, const std::shared_ptr<_FS_HANDLE>& handle, int64_t fileSize,
                   int64_t offset, char* buffer, uint64_t size, IFetch* fetch) {
    _READDATA request;
    request.buffer = buffer;
    request.offset = offset;
    request.size = size;
    request.handle = handle;
    request.fileSize = fileSize;
    request.fetch = fetch;
    if (object->Read(&request) != SUCCESS || request.read < 0) return 0;
    return request.read;
}

// Compares what a download delivers with the same bytes of a cache object.
// It takes everything, so that the remote logs no refused download.
class CompareWithCache : public IFetchCallback {
  public:
    CompareWithCache(ICacheObj* object, int64_t size) : object_(object), size_(size) {}

    AERROR FetchWrite(long long offset, const char* data, long size, long* written) override {
        *written = size;
        for (long done = 0; same_ && done < size;) {
            char cached[64 * 1024];
            const int64_t read = ReadCached(
                object_, handle_, size_, offset + done, cached,
                static_cast<uint64_t>(std::min<long>(size - done, sizeof(cached))), nullptr);
            same_ = read > 0 && memcmp(cached, data + done, static_cast<size_t>(read)) == 0;
            done += read;
        }
        if (same_) compared_ += size;
        return SUCCESS;
    }
    // Whether the whole file arrived and matched.
    bool Same() const { return same_ && compared_ == size_; }

  private:
    ICacheObj* const object_;
    const int64_t size_;
    const std::shared_ptr<_FS_HANDLE> handle_ = std::make_shared<_FS_HANDLE>();
    bool same_ = true;
    long long compared_ = 0;
};

// The parts of one entry's recovery.
class EntryRecovery {
  public:
    EntryRecovery(DiskCache* cache, const DiskCache::Unsent& unsent, const std::string& mountPoint,
                  UploadEvents* events, ILog* log)
        : cache_(cache),
          unsent_(unsent),
          localPath_(mountPoint + unsent.origin.VolumePath(unsent.key)),
          events_(events),
          log_(log) {}

    // Sends the data to `remote`, or saves it, and counts what became of it.
    void Run(const RecoveryRemote* remote, RecoveryResult* result);

  private:
    static bool SameVersion(const EntryOrigin& origin, const _FS_FILE_V2& current);
    // Why the data cannot go to the remote as it is; empty when it can.
    std::string Conflict(const RemotePlace& place) const;
    AERROR Upload(IProtocol_V2* protocol, const RemotePlace& place);
    // Whether the remote file holds exactly the cached data: an upload that
    // ended as skarvo died, before it was noted. Then the data is committed.
    bool AlreadyThere(IProtocol_V2* protocol, const RemotePlace& place);
    // Saves the data to the recovery folder and forgets the entry, counted
    // as saved; when it cannot, the entry stays, counted as kept.
    void Save(const std::string& reason, IFetch* fetch, RecoveryResult* result);
    Status CopyTo(const std::string& target, IFetch* fetch);
    void Log(LOGLEVEL level, const std::string& text) const {
        if (log_ != nullptr) log_->Log(level, "recovered %s: %s", localPath_.c_str(), text.c_str());
    }

    DiskCache* const cache_;
    const DiskCache::Unsent& unsent_;
    const std::string localPath_;
    UploadEvents* const events_;
    ILog* const log_;
};

bool EntryRecovery::SameVersion(const EntryOrigin& origin, const _FS_FILE_V2& current) {
    if (origin.baseSize != current.size) return false;
    if (!origin.baseExtra.empty() && !current.extra.empty()) {
        return origin.baseExtra == current.extra;
    }
    // RFC 3339 times, compared to the second: remotes keep times at
    // different precisions.
    const std::string& a = origin.baseModifyTime;
    const std::string& b = current.modifyTime;
    return a.size() >= 19 && b.size() >= 19 && a.compare(0, 19, b, 0, 19) == 0;
}

std::string EntryRecovery::Conflict(const RemotePlace& place) const {
    const EntryOrigin& origin = unsent_.origin;
    if (!place.folderFound) return "its folder is gone from the remote";
    if (place.fileFound && (place.file.attributes & FILE_ATTRIBUTE_FOLDER) != 0) {
        return "a folder of its name is on the remote now";
    }
    if (!origin.based && place.fileFound) return "another file of its name is on the remote now";
    if (origin.based && !place.fileFound) return "the remote file was deleted meanwhile";
    if (origin.based && !SameVersion(origin, place.file)) {
        return "the remote file changed since the local change began";
    }
    return "";
}

AERROR EntryRecovery::Upload(IProtocol_V2* protocol, const RemotePlace& place) {
    RemoteFetch fetch(protocol, place.file.key);
    auto object =
        cache_->Open(unsent_.key.c_str(), 'w', unsent_.size, place.fileFound ? &fetch : nullptr);
    if (!object) return CACHE_NOT_OPENED;
    auto handle = std::make_shared<_FS_HANDLE>();
    handle->mode = HANDLE_MODE_WRITE;
    _FS_FILE_V2 record = place.fileFound ? place.file : _FS_FILE_V2();
    handle->context = record.context.get();
    AERROR result = place.fileFound ? object->FillUnwritten(handle) : SUCCESS;
    const std::string& path = unsent_.origin.path;
    record.name = path.substr(path.rfind('/') + 1);
    record.size = unsent_.size;
    record.attributes |= FILE_ATTRIBUTE_FILE;
    if (result == SUCCESS) {
        void* cookie = nullptr;
        result = protocol->UploadItem(place.folderKey.c_str(), handle, object.get(), &record,
                                      nullptr, &cookie);
        if (cookie != nullptr) protocol->ReleaseCookie(cookie);
    }
    if (result == SUCCESS) result = object->Commit();
    object.reset();
    cache_->Close(unsent_.key.c_str());
    return result;
}

bool EntryRecovery::AlreadyThere(IProtocol_V2* protocol, const RemotePlace& place) {
    if (!place.fileFound || (place.file.attributes & FILE_ATTRIBUTE_FOLDER) != 0 ||
        place.file.size != unsent_.size) {
        return false;
    }
    auto object = cache_->Open(unsent_.key.c_str(), 'r', unsent_.size, nullptr);
    if (!object) return false;
    CompareWithCache compare(object.get(), unsent_.size);
    auto handle = std::make_shared<_FS_HANDLE>();
    handle->context = place.file.context.get();
    void* cookie = nullptr;
    AERROR result =
        protocol->Download(place.file.key.c_str(), 0, unsent_.size, handle, &compare, &cookie);
    if (cookie != nullptr) protocol->ReleaseCookie(cookie);
    const bool same = result == SUCCESS && compare.Same();
    if (same) result = object->Commit();
    object.reset();
    cache_->Close(unsent_.key.c_str());
    return same && result == SUCCESS;
}

Status EntryRecovery::CopyTo(const std::string& target, IFetch* fetch) {
    auto object = cache_->Open(unsent_.key.c_str(), 'r', unsent_.size, fetch);
    const std::string part = target + kRecoveryPartSuffix;
    UniqueFd fd(open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    bool ok = object != nullptr && fd.Valid();
    auto handle = std::make_shared<_FS_HANDLE>();
    std::vector<char> buffer(1 << 20);
    for (int64_t offset = 0; ok && offset < unsent_.size;) {
        const int64_t read = ReadCached(
            object.get(), handle, unsent_.size, offset, buffer.data(),
            static_cast<uint64_t>(std::min<int64_t>(buffer.size(), unsent_.size - offset)), fetch);
        ok = read > 0 && WriteAll(fd.Get(), buffer.data(), static_cast<size_t>(read));
        offset += read;
    }
    ok = ok && fsync(fd.Get()) == 0 && rename(part.c_str(), target.c_str()) == 0;
    Status status;
    if (!ok) {
        status = Status::Error(fd.Valid() ? strerror(errno)
                                          : "cannot create " + part + ": " + strerror(errno));
        unlink(part.c_str());
    }
    object.reset();
    cache_->Close(unsent_.key.c_str());
    return status;
}

void EntryRecovery::Save(const std::string& reason, IFetch* fetch, RecoveryResult* result) {
    std::string target;
    Status status = events_->ReserveRecoveryPath(localPath_, &target);
    if (status.ok()) status = CopyTo(target, fetch);
    if (status.ok()) {
        cache_->Remove(unsent_.key.c_str());
        Log(LL_WARNING, reason + "; the local version is saved to " + target);
        ++result->saved;
        return;
    }
    Log(LL_ERROR,
        reason + ", and it cannot be saved (" + status.message() + "); it stays in the cache");
    ++result->kept;
}

void EntryRecovery::Run(const RecoveryRemote* remote, RecoveryResult* result) {
    const EntryOrigin& origin = unsent_.origin;
    if (origin.BelongsNowhere()) {
        // Written to a file that was deleted while open: it belongs nowhere.
        cache_->Remove(unsent_.key.c_str());
        ++result->dropped;
        return;
    }
    if (!origin.known) {
        Save("its place in the volume was not recorded", nullptr, result);
        return;
    }
    if (unsent_.mayBeIncomplete) {
        // Never uploaded as if whole: a restart of the machine may have cut
        // it short.
        Save("the machine restarted before its data was synced, so it may be incomplete", nullptr,
             result);
        return;
    }
    if (remote == nullptr) {
        Log(LL_WARNING, "it belongs to " + origin.remote +
                            ", which is not mounted now; it stays in the cache until it is");
        ++result->kept;
        return;
    }
    RemotePlace place;
    const AERROR looked = LookUpRemotePath(remote->protocol, origin.path, &place);
    std::string reason = looked != SUCCESS ? std::string("looking it up on ") + remote->name +
                                                 " failed with " + GetAERRORA(looked)
                                           : Conflict(place);
    if (reason.empty()) {
        const AERROR uploaded = Upload(remote->protocol, place);
        if (uploaded == SUCCESS) {
            Log(LL_INFO, "uploaded to " + remote->name);
            ++result->uploaded;
            return;
        }
        reason =
            std::string("its upload to ") + remote->name + " failed with " + GetAERRORA(uploaded);
    }
    if (looked == SUCCESS && AlreadyThere(remote->protocol, place)) {
        Log(LL_INFO, "it was on " + remote->name + " already: its upload ended as skarvo stopped");
        ++result->uploaded;
        return;
    }
    // Only blocks of the version the change began from may fill the copy.
    RemoteFetch fetch(remote->protocol, place.file.key);
    const bool sameBase = place.fileFound && origin.based && SameVersion(origin, place.file);
    Save(reason, sameBase ? &fetch : nullptr, result);
}

}  // namespace

RecoveryResult RecoverUnsentData(DiskCache* cache, const std::vector<RecoveryRemote>& remotes,
                                 const std::string& mountPoint, UploadEvents* events, ILog* log) {
    RecoveryResult result;
    for (const DiskCache::Unsent& unsent : cache->UnsentEntries()) {
        const RecoveryRemote* remote = nullptr;
        for (const RecoveryRemote& candidate : remotes) {
            if (candidate.identity == unsent.origin.remote) remote = &candidate;
        }
        EntryRecovery(cache, unsent, mountPoint, events, log).Run(remote, &result);
    }
    return result;
}
