#include "remotes/local_protocol.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "libfilesystem/unique_fd.h"
#include "remotes/change_watcher.h"
#include "remotes/local_errors.h"
#include "remotes/local_paths.h"
#include "remotes/local_record.h"
#include "remotes/local_upload.h"
#include "remotes/protocol_text.h"
#include "remotes/transfer_io.h"

namespace {

constexpr long long kDownloadChunk = 1 << 20;

Status MissingArgument(const char* what) {
    return Status::Error(INVALID_PARAMETER, std::string("no ") + what + " given");
}

Status InvalidName(const std::string& name) {
    return Status::Error(INVALID_NAME, "invalid name \"" + name + "\"");
}

// rename(2) that fails with EEXIST instead of replacing an existing target.
int RenameNoReplace(int fromDir, const std::string& from, int toDir, const std::string& to) {
    if (renameat2(fromDir, from.c_str(), toDir, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    if (errno != EINVAL && errno != ENOSYS) return -1;
    // File systems without RENAME_NOREPLACE: check first, then rename.
    struct stat st {};
    if (fstatat(toDir, to.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        errno = EEXIST;
        return -1;
    }
    return renameat(fromDir, from.c_str(), toDir, to.c_str());
}

}  // namespace

LocalProtocol::LocalProtocol(std::shared_ptr<LocalPaths> paths,
                             std::unique_ptr<ChangeWatcher> watcher)
    : paths_(std::move(paths)), watcher_(std::move(watcher)) {}

LocalProtocol::~LocalProtocol() = default;

Status LocalProtocol::Create(const std::string& path, std::shared_ptr<LocalProtocol>* created) {
    std::shared_ptr<LocalPaths> paths;
    const Status opened = LocalPaths::Open(path, &paths);
    if (!opened.ok()) return opened;
    // Without a watcher the protocol still works; the library then refreshes
    // listings on its own timer instead.
    std::unique_ptr<ChangeWatcher> watcher;
    const Status watching = ChangeWatcher::Start(paths, &watcher);
    std::shared_ptr<LocalProtocol> protocol(new LocalProtocol(paths, std::move(watcher)));
    protocol->changeReportProblem_ = watching.message();
    *created = std::move(protocol);
    return Status::Ok();
}

const std::string& LocalProtocol::Root() const {
    return paths_->Root();
}

void LocalProtocol::ExpectOwn(const std::string& key, unsigned int mask, bool subtree) {
    if (watcher_) watcher_->ExpectOwn(key, mask, subtree);
}

AERROR LocalProtocol::GetIdentity(char* buffer, unsigned long length) {
    return CopyText("local:" + paths_->Root(), buffer, length);
}

AERROR LocalProtocol::GetRootKey(char* buffer, unsigned long* length) {
    if (length == nullptr) return INVALID_PARAMETER;
    const std::string key = kLocalRootKey;
    const AERROR code = CopyText(key, buffer, *length);
    *length = key.size();
    return code;
}

AERROR LocalProtocol::GetQuota(unsigned long long* total, unsigned long long* used) {
    struct statvfs sv {};
    if (fstatvfs(paths_->RootFd(), &sv) != 0) return MapErrno(errno);
    const unsigned long long unit = sv.f_frsize != 0 ? sv.f_frsize : sv.f_bsize;
    if (total != nullptr) *total = unit * sv.f_blocks;
    if (used != nullptr) *used = unit * (sv.f_blocks - sv.f_bfree);
    return SUCCESS;
}

unsigned int LocalProtocol::GetCapabilities() {
    return PROTOCOL_CAP_PARTIAL_READ | PROTOCOL_CAP_SET_TIME |
           (watcher_ ? PROTOCOL_CAP_REPORTS_CHANGES : 0u);
}

bool LocalProtocol::IsValidName(const char* name) {
    return name != nullptr && IsValidItemName(name);
}

AERROR LocalProtocol::DescribeCookie(void* cookie, char* buffer, unsigned long length) {
    return CopyTextCut(CookieText(cookie), buffer, length);
}

void LocalProtocol::ReleaseCookie(void* cookie) {
    FreeCookie(cookie);
}

void LocalProtocol::Disconnect() {
    if (watcher_) watcher_->Stop();
}

AERROR LocalProtocol::GetItem(const char* key, _FS_FILE_V2* record, void** cookie) {
    if (key == nullptr || record == nullptr) {
        return ReportStatus(MissingArgument("key or record"), cookie);
    }
    return ReportStatus(ReadRecord(*paths_, key, record), cookie);
}

AERROR LocalProtocol::Download(const char* key, long long offset, long long size,
                               std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback,
                               void** cookie) {
    if (key == nullptr || callback == nullptr) {
        return ReportStatus(MissingArgument("key or callback"), cookie);
    }
    if (offset < 0 || size < 0) {
        return ReportStatus(Status::Error(INVALID_PARAMETER, "negative range"), cookie);
    }
    return ReportStatus(DoDownload(key, offset, size, handle, callback), cookie);
}

Status LocalProtocol::OpenItem(const std::string& key, UniqueFd* parent, std::string* name,
                               struct stat* st) const {
    Status status = paths_->OpenParent(key, parent, name);
    if (!status.ok()) return status;
    return LocalPaths::StatItem(parent->Get(), *name, key, st);
}

Status LocalProtocol::OpenItemOfKind(const std::string& key, bool folder, UniqueFd* parent,
                                     std::string* name, struct stat* st) const {
    Status status = OpenItem(key, parent, name, st);
    if (!status.ok()) return status;
    if (S_ISDIR(st->st_mode) != folder) {
        return Status::Error(INVALID_PARAMETER,
                             key + (folder ? " is not a folder" : " is a folder"));
    }
    return Status::Ok();
}

Status LocalProtocol::DoDownload(const std::string& key, long long offset, long long size,
                                 const std::shared_ptr<_FS_HANDLE>& handle,
                                 IFetchCallback* callback) {
    UniqueFd parent;
    std::string name;
    // Checked before opening, so that devices and pipes are never opened, and
    // again after: O_NONBLOCK keeps a pipe swapped in meanwhile from hanging.
    struct stat st {};
    Status status = OpenItem(key, &parent, &name, &st);
    if (!status.ok()) return status;
    UniqueFd file(
        openat(parent.Get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.Valid()) return Status::FromErrno(errno, key);
    if (fstat(file.Get(), &st) != 0) return Status::FromErrno(errno, key);
    if (!S_ISREG(st.st_mode)) {
        return Status::Error(ACCESS_DENIED, key + ": not a regular file");
    }
    // A range past the end is cut to it.
    const long long end =
        offset >= st.st_size ? offset : offset + std::min(size, st.st_size - offset);
    std::vector<char> buffer(
        static_cast<size_t>(std::min(kDownloadChunk, std::max(end - offset, 1LL))));
    for (long long position = offset; position < end;) {
        if (handle && handle->IsClosing()) {
            return Status::Error(READ_CANCELED, key + ": download cancelled");
        }
        const size_t want = static_cast<size_t>(
            std::min<long long>(static_cast<long long>(buffer.size()), end - position));
        const ssize_t got = pread(file.Get(), buffer.data(), want, position);
        if (got < 0) {
            if (errno == EINTR) continue;
            Status failure = Status::FromErrno(errno, key);
            failure.set_code(FILE_READ_FAILED);
            return failure;
        }
        if (got == 0) break;  // the file was cut meanwhile: deliver what there was
        status = DeliverFetched(callback, position, buffer.data(), static_cast<long>(got), key);
        if (!status.ok()) return status;
        position += got;
    }
    return Status::Ok();
}

AERROR LocalProtocol::ListFolder(const char* key, IFileList* sink, void** cookie) {
    if (key == nullptr || sink == nullptr)
        return ReportStatus(MissingArgument("key or sink"), cookie);
    return ReportStatus(DoListFolder(key, sink), cookie);
}

Status LocalProtocol::DoListFolder(const std::string& key, IFileList* sink) {
    std::vector<LocalEntry> items;
    {
        UniqueFd dir;
        Status status = paths_->OpenFolder(key, FILE_NOT_FOUND, &dir);
        if (!status.ok()) return status;
        status = LocalPaths::ReadItems(dir.Get(), key, &items);
        if (!status.ok()) return status;
    }
    for (const LocalEntry& item : items) {
        _FS_FILE_V2 record;
        FillRecord(JoinKey(key, item.name), item.name, item.st, &record);
        const AERROR code = sink->AddFile(&record);
        if (code != SUCCESS) {
            return Status::Error(code, key + ": the listing was not taken");
        }
    }
    return Status::Ok();
}

AERROR LocalProtocol::GetChanges(IFileChanges* sink, void** cookie) {
    if (sink == nullptr) return ReportStatus(MissingArgument("sink"), cookie);
    if (watcher_) watcher_->Deliver(sink);
    return SUCCESS;
}

AERROR LocalProtocol::RenameItem(const char* key, const char* parentKey, _FS_FILE_V2* record,
                                 void** cookie) {
    if (key == nullptr || parentKey == nullptr || record == nullptr) {
        return ReportStatus(MissingArgument("key, folder key or record"), cookie);
    }
    return ReportStatus(DoRename(key, parentKey, record), cookie);
}

Status LocalProtocol::DoRename(const std::string& key, const std::string& parentKey,
                               _FS_FILE_V2* record) {
    const std::string newName = record->name;
    if (!IsValidItemName(newName)) return InvalidName(newName);
    std::lock_guard<std::shared_mutex> renaming(renames_);
    UniqueFd parent;
    std::string name;
    Status status = paths_->OpenParent(key, &parent, &name);
    if (!status.ok()) return status;
    if (ParentKey(key) != parentKey) {
        return Status::Error(INVALID_PARAMETER, key + " is not in the folder " + parentKey);
    }
    struct stat st {};
    status = LocalPaths::StatItem(parent.Get(), name, key, &st);
    if (!status.ok()) return status;
    const std::string newKey = JoinKey(parentKey, newName);
    if (newName != name) {
        ExpectOwn(key, IN_MOVED_FROM, false);
        ExpectOwn(newKey, IN_MOVED_TO, false);
        if (RenameNoReplace(parent.Get(), name, parent.Get(), newName) != 0) {
            return Status::FromErrno(errno, key + " -> " + newKey);
        }
        status = LocalPaths::StatItem(parent.Get(), newName, newKey, &st);
        if (!status.ok()) return status;
    }
    FillRecord(newKey, newName, st, record);
    return Status::Ok();
}

AERROR LocalProtocol::MoveItem(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                               void** cookie) {
    if (key == nullptr || newParentKey == nullptr || record == nullptr) {
        return ReportStatus(MissingArgument("key, folder key or record"), cookie);
    }
    return ReportStatus(DoMove(key, newParentKey, false, record), cookie);
}

AERROR LocalProtocol::MoveFolder(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                                 void** cookie) {
    if (key == nullptr || newParentKey == nullptr || record == nullptr) {
        return ReportStatus(MissingArgument("key, folder key or record"), cookie);
    }
    return ReportStatus(DoMove(key, newParentKey, true, record), cookie);
}

Status LocalProtocol::DoMove(const std::string& key, const std::string& newParentKey, bool folder,
                             _FS_FILE_V2* record) {
    std::lock_guard<std::shared_mutex> moving(renames_);
    UniqueFd from;
    std::string name;
    struct stat st {};
    Status status = OpenItemOfKind(key, folder, &from, &name, &st);
    if (!status.ok()) return status;
    if (folder && IsSameOrBelow(newParentKey, key)) {
        return Status::Error(INVALID_PARAMETER, key + " cannot move into itself");
    }
    UniqueFd to;
    status = paths_->OpenFolder(newParentKey, PATH_NOT_FOUND, &to);
    if (!status.ok()) return status;
    const std::string newKey = JoinKey(newParentKey, name);
    if (newKey != key) {
        // Only a file may take the place of another file.
        struct stat target {};
        const bool exists = fstatat(to.Get(), name.c_str(), &target, AT_SYMLINK_NOFOLLOW) == 0;
        const bool replace = exists && !folder && S_ISREG(target.st_mode);
        if (exists && !replace) {
            return Status::Error(ALREADY_EXISTS, newKey + ": the name is taken");
        }
        ExpectOwn(key, IN_MOVED_FROM, false);
        ExpectOwn(newKey, IN_MOVED_TO, false);
        const int result = replace ? renameat(from.Get(), name.c_str(), to.Get(), name.c_str())
                                   : RenameNoReplace(from.Get(), name, to.Get(), name);
        if (result != 0) return Status::FromErrno(errno, key + " -> " + newKey);
        status = LocalPaths::StatItem(to.Get(), name, newKey, &st);
        if (!status.ok()) return status;
    }
    FillRecord(newKey, name, st, record);
    return Status::Ok();
}

AERROR LocalProtocol::CreateFolder(const char* parentKey, _FS_FILE_V2* record, void** cookie) {
    if (parentKey == nullptr || record == nullptr) {
        return ReportStatus(MissingArgument("folder key or record"), cookie);
    }
    return ReportStatus(DoCreateFolder(parentKey, record), cookie);
}

Status LocalProtocol::DoCreateFolder(const std::string& parentKey, _FS_FILE_V2* record) {
    const std::string name = record->name;
    if (!IsValidItemName(name)) return InvalidName(name);
    UniqueFd parent;
    Status status = paths_->OpenFolder(parentKey, PATH_NOT_FOUND, &parent);
    if (!status.ok()) return status;
    const std::string key = JoinKey(parentKey, name);
    ExpectOwn(key, IN_CREATE, false);
    if (mkdirat(parent.Get(), name.c_str(), 0777) != 0) return Status::FromErrno(errno, key);
    struct stat st {};
    status = LocalPaths::StatItem(parent.Get(), name, key, &st);
    if (!status.ok()) return status;
    FillRecord(key, name, st, record);
    return Status::Ok();
}

AERROR LocalProtocol::DeleteItem(const _FS_FILE_V2* record, void** cookie) {
    if (record == nullptr) return ReportStatus(MissingArgument("record"), cookie);
    return ReportStatus(DoDelete(record->key, false), cookie);
}

AERROR LocalProtocol::DeleteFolder(const _FS_FILE_V2* record, void** cookie) {
    if (record == nullptr) return ReportStatus(MissingArgument("record"), cookie);
    return ReportStatus(DoDelete(record->key, true), cookie);
}

Status LocalProtocol::DoDelete(const std::string& key, bool folder) {
    UniqueFd parent;
    std::string name;
    struct stat st {};
    Status status = OpenItemOfKind(key, folder, &parent, &name, &st);
    if (!status.ok()) return status;
    if (!folder) {
        ExpectOwn(key, IN_DELETE, false);
        if (unlinkat(parent.Get(), name.c_str(), 0) != 0) return Status::FromErrno(errno, key);
        return Status::Ok();
    }
    ExpectOwn(key, IN_ALL_EVENTS, true);
    return LocalPaths::RemoveTree(parent.Get(), name, key);
}

AERROR LocalProtocol::UploadItem(const char* parentKey, std::shared_ptr<_FS_HANDLE> handle,
                                 ICacheIO* source, _FS_FILE_V2* record,
                                 const _TRANSFERPROGRESS* progress, void** cookie) {
    if (source == nullptr || record == nullptr) {
        return ReportStatus(MissingArgument("source or record"), cookie);
    }
    return ReportStatus(DoUpload(parentKey, handle, source, record, progress), cookie);
}

Status LocalProtocol::DoUpload(const char* parentKey, const std::shared_ptr<_FS_HANDLE>& handle,
                               ICacheIO* source, _FS_FILE_V2* record,
                               const _TRANSFERPROGRESS* progress) {
    if (record->size < 0 && record->size != UPLOAD_SIZE_UNKNOWN) {
        return Status::Error(INVALID_PARAMETER, "negative size");
    }
    UniqueFd dir;
    LocalUpload upload;
    Status status;
    if (!record->key.empty()) {
        // Overwrite: the key names the file, wherever the library thinks it is.
        upload.key = record->key;
        status = paths_->OpenParent(upload.key, &dir, &upload.name);
    } else {
        if (parentKey == nullptr) return MissingArgument("folder key");
        if (!IsValidItemName(record->name)) return InvalidName(record->name);
        upload.name = record->name;
        upload.key = JoinKey(parentKey, upload.name);
        status = paths_->OpenFolder(parentKey, PATH_NOT_FOUND, &dir);
    }
    if (!status.ok()) return status;
    upload.dirfd = dir.Get();
    upload.source = source;
    upload.handle = handle;
    upload.size = record->size;
    upload.progress = progress;
    upload.renames = &renames_;
    upload.beforeRename = [this, &upload] {
        // The folder opened at the start may have been renamed or moved
        // since: the file must not land there under a key that names
        // another place. The library uploads again where the file is now.
        Status still = StillHolds(upload.dirfd, upload.key);
        if (still.ok()) ExpectOwn(upload.key, IN_MOVED_TO, false);
        return still;
    };
    status = StoreAtomically(upload);
    if (!status.ok()) return status;
    struct stat st {};
    status = LocalPaths::StatItem(dir.Get(), upload.name, upload.key, &st);
    if (!status.ok()) return status;
    FillRecord(upload.key, upload.name, st, record);
    return Status::Ok();
}

Status LocalProtocol::StillHolds(int dirfd, const std::string& key) const {
    UniqueFd now;
    std::string name;
    Status status = paths_->OpenParent(key, &now, &name);
    struct stat opened {};
    struct stat current {};
    if (status.ok() && fstat(dirfd, &opened) == 0 && fstat(now.Get(), &current) == 0 &&
        opened.st_dev == current.st_dev && opened.st_ino == current.st_ino) {
        return Status::Ok();
    }
    return Status::Error(PATH_NOT_FOUND, key + ": its folder moved while it was uploaded");
}

AERROR LocalProtocol::SetItemTime(const char* key, long long /*createTime*/, long long accessTime,
                                  long long modifyTime, void** cookie) {
    // The creation time (the status change time here) cannot be set.
    if (key == nullptr) return ReportStatus(MissingArgument("key"), cookie);
    return ReportStatus(DoSetTime(key, accessTime, modifyTime), cookie);
}

Status LocalProtocol::DoSetTime(const std::string& key, long long accessTime,
                                long long modifyTime) {
    struct timespec times[2] = {};
    times[0].tv_sec = accessTime;
    times[0].tv_nsec = accessTime == 0 ? UTIME_OMIT : 0;
    times[1].tv_sec = modifyTime;
    times[1].tv_nsec = modifyTime == 0 ? UTIME_OMIT : 0;
    if (key == kLocalRootKey) {
        if (futimens(paths_->RootFd(), times) != 0) return Status::FromErrno(errno, key);
        return Status::Ok();
    }
    UniqueFd parent;
    std::string name;
    struct stat st {};
    Status status = OpenItem(key, &parent, &name, &st);
    if (!status.ok()) return status;
    ExpectOwn(key, IN_ATTRIB, false);
    if (utimensat(parent.Get(), name.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
        return Status::FromErrno(errno, key);
    }
    return Status::Ok();
}
