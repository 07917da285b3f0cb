// Creating, opening and releasing files, the data path, and deleting and
// renaming: the volume operations that change files.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <cstring>

#include "data/cache_service.h"
#include "foundation/time_utils.h"
#include "fs/errno_for.h"
#include "fs/filesystem.h"
#include "fs/log_macros.h"
#include "fs/open_flags.h"
#include "libfilesystem/entry_points.h"
#include "tree/file.h"

namespace {

// Whether the last component of `path` is longer than a folder entry may be.
bool NameTooLong(const char* path) {
    return FileSystem::GetObjectName(path, "\\/").size() > kMaxNameLength;
}

}  // namespace

int FileSystem::Outcome(const char* operation, AERROR result, const std::string& process,
                        const char* path) {
    __LOG__A(CurrentLogger(), result != SUCCESS ? LL_ERROR : LL_DEBUG,
             "[FILESYSTEM] [%s:%s] %s => %s : %s", letter_.c_str(), process.c_str(), operation,
             GetAERRORA(result), path != nullptr ? path : "");
    return ErrnoFor(result);
}

std::shared_ptr<_FS_HANDLE_EXT> FileSystem::FindHandle(unsigned long long handle,
                                                       const std::string& process) {
    auto record = GetHandle(handle);
    if (!record) {
        __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] [%s:%s] handle not found : %llu",
                 letter_.c_str(), process.c_str(), handle);
        return nullptr;
    }
    LOG_REQUEST("handle found : %s", record->path.c_str());
    return record;
}

AERROR FileSystem::CreateNewFile(std::shared_ptr<File> parent, std::string name,
                                 unsigned long attributes, IExportService* service,
                                 std::string process, std::shared_ptr<File>& out) {
    out.reset();
    if (!HasCacheService()) return ACCESS_DENIED;
    __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] [%s:%s] Create file : /%s/%s", letter_.c_str(),
             process.c_str(), parent->BuildPathA('/').c_str(), name.c_str());
    _FS_FILE_V2 record;
    record.name = name;
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct tm local;
    time_t seconds = now.tv_sec;
    localtime_r(&seconds, &local);
    record.createTime = record.accessTime = record.modifyTime = TMToRFC3339(&local);
    if ((attributes & FILE_ATTRIBUTE_NORMAL) != 0) record.attributes |= FILE_ATTRIBUTE_FILE;
    if (IsOfflineOnly(process.c_str(), name.c_str())) {
        record.attributes |= FILE_ATTRIBUTE_NO_DELETE;
    }
    auto node = *parent << &record;
    if (!node) return INVALID_NAME;
    out = node;
    if (node->IsOfflineOnly()) return SUCCESS;
    // The file manager creates files in several steps: nothing is stored
    // remotely until the file is written and released.
    if (process == "finder") return SUCCESS;
    auto protocol = parent->GetProtocol();
    const unsigned int capabilities = protocol ? protocol->GetCapabilities() : 0;
    if ((capabilities & PROTOCOL_CAP_CREATE_REMOTE) != 0) {
        if (node->Touch(service) != SUCCESS) {
            parent->RemoveChild(name.c_str(), true);
            out.reset();
            return WRITE_PROTECT;
        }
    } else if ((capabilities & PROTOCOL_CAP_CREATE_REMOTE_UNLISTED) != 0) {
        const uint32_t state = parent->GetFileState();
        if (state == FILE_STATE_DELETING) {
            parent->RemoveChild(name.c_str(), true);
            out.reset();
            return WRITE_PROTECT;
        }
        if (state == FILE_STATE_NEW) {
            if (node->Touch(service) == SUCCESS) {
                parent->SetFileState(FILE_STATE_LISTED);
            } else {
                parent->RemoveChild(name.c_str(), true);
                parent->SetFileState(FILE_STATE_DELETING);
                out.reset();
                return WRITE_PROTECT;
            }
        }
    }
    return SUCCESS;
}

int FileSystem::Create(const char* path, unsigned short mode, int flags, unsigned long long& handle,
                       IExportService* service, std::string process) {
    LOG_REQUEST("%s : %s, %d with %s", "Create", path, mode, OpenFlagsText(flags).c_str());
    if (NameTooLong(path)) return -ENAMETOOLONG;
    const std::string exact = ToExactPath(path, false);
    std::shared_ptr<File> node;
    AERROR result = GetFile(exact.c_str(), node);
    if (result == SUCCESS && node) return Outcome("Create", FILE_EXISTS, process, path);
    std::shared_ptr<File> parent;
    result = GetParent(exact.c_str(), parent);
    if (result == SUCCESS && parent) {
        // The new entry keeps the caller's letter case.
        result = CreateNewFile(parent, GetObjectName(path, "\\/"), FILE_ATTRIBUTE_NORMAL, service,
                               process, node);
    }
    if (result == SUCCESS && node) {
        std::shared_ptr<_FS_HANDLE_EXT> record;
        // A new file not yet stored remotely is opened for writing even when
        // the caller reads only, so that its release stores it: created
        // empty with O_RDONLY, it must still exist on the remote. The
        // kernel refuses writes through a read-only descriptor itself.
        const bool stored = !node->RemoteKey().empty();
        const char mode = (flags & O_ACCMODE) != 0 || !stored ? 'w' : 'r';
        result = node->Open(mode, 0, 0, process, record, nullptr);
        if (result == SUCCESS && record) handle = RegisterHandle(record, node, process, exact);
    }
    return Outcome("Create", result, process, path);
}

int FileSystem::MakeNode(const char* path, unsigned short mode, int, std::string process) {
    // Regular files are all the volume stores; mknod(2) of one creates it.
    if (!S_ISREG(mode)) return Outcome("MakeNode", NOT_SUPPORTED, process, path);
    unsigned long long handle = 0;
    const int created = Create(path, mode, O_WRONLY | O_CREAT | O_EXCL, handle, nullptr, process);
    if (created != 0) return created;
    return Release(handle, nullptr, process);
}

int FileSystem::MakeDir(const char* path, unsigned short mode, std::string process) {
    LOG_REQUEST("%s : %s, %d", "MakeDir", path, mode);
    if (NameTooLong(path)) return -ENAMETOOLONG;
    const std::string exact = ToExactPath(path, false);
    std::shared_ptr<File> node;
    if (GetFile(exact.c_str(), node) == SUCCESS && node) {
        return Outcome("MakeDir", ALREADY_EXISTS, process, path);
    }
    std::shared_ptr<File> parent;
    AERROR result = GetParent(exact.c_str(), parent);
    if (result == SUCCESS && parent) {
        result = parent->CreateDirectory(GetObjectName(path, "\\/").c_str());
    }
    return Outcome("MakeDir", result, process, path);
}

int FileSystem::Open(const char* path, int flags, unsigned long long& handle, std::string process) {
    LOG_REQUEST("%s : %s with %s", "Open", path, OpenFlagsText(flags).c_str());
    const std::string exact = ToExactPath(path, false);
    std::shared_ptr<File> node;
    AERROR result = GetFile(exact.c_str(), node);
    if (result == SUCCESS && node) {
        LOG_REQUEST("%s : %s found(%p)", "Open", path, static_cast<void*>(node.get()));
        const bool write = (flags & (O_WRONLY | O_RDWR | O_APPEND)) != 0;
        if (GetObjectName(exact.c_str(), "\\/").find(':') != std::string::npos) {
            result = NOT_SUPPORTED;
        } else if (write && !HasCacheService()) {
            result = ACCESS_DENIED;
        } else {
            std::shared_ptr<_FS_HANDLE_EXT> record;
            result = node->Open(write ? 'w' : 'r', 0, 0, process, record, nullptr);
            if (result == SUCCESS && record) handle = RegisterHandle(record, node, process, exact);
        }
    }
    return Outcome("Open", result, process, path);
}

int FileSystem::ReleaseDir(const char* path, std::string process) {
    LOG_REQUEST("%s : %s", "ReleaseDir", path);
    return Outcome("ReleaseDir", SUCCESS, process, path);
}

int FileSystem::Release(unsigned long long& handle, IExportService* service, std::string process) {
    LOG_REQUEST("%s: %llu", "Release", handle);
    auto record = GetHandle(handle);
    if (!record) {
        __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] [%s:%s] handle not found",
                 letter_.c_str(), process.c_str());
        return ConvertAERROR(INVALID_HANDLE);
    }
    LOG_REQUEST("handle found : %s", record->path.c_str());
    AERROR result = SUCCESS;
    if (record->file) result = record->file->Cleanup(record.get(), false, service);
    handle = 0;
    UnregisterHandle(record->id, process);
    return Outcome("Release", result, process, record->path.c_str());
}

int FileSystem::Read(unsigned long long handle, char* buffer, unsigned long size, long long offset,
                     IExportService* service, std::string process) {
    LOG_REQUEST("%s : %llu, %lld, %d", "Read", handle, offset, static_cast<int>(size));
    auto record = FindHandle(handle, process);
    if (!record) return -EIO;
    unsigned long count = 0;
    AERROR result = SUCCESS;
    if (record->file) {
        result = record->file->ReadFile(record.get(), buffer, size, &count, offset, service);
    }
    Outcome("Read", result, process, record->path.c_str());
    return result != SUCCESS ? -EIO : static_cast<int>(count);
}

int FileSystem::Write(unsigned long long handle, const char* buffer, unsigned long size,
                      long long offset, IExportService* service, std::string process) {
    __LOG__A(CurrentLogger(), LL_DEBUG, "[FILESYSTEM] [%s] %s : %llu, %lld, %d", letter_.c_str(),
             "Write", handle, offset, static_cast<int>(size));
    auto record = FindHandle(handle, process);
    if (!record) return -EIO;
    if (offset < 0 || offset > kMaxFileSize - static_cast<long long>(size)) return -EFBIG;
    unsigned long count = 0;
    AERROR result = SUCCESS;
    if (record->file) {
        result = record->file->WriteFile(record.get(), buffer, size, &count, offset, service);
    }
    // A full cache is ENOSPC, a time-out ETIMEDOUT; anything else is EIO.
    const int refusal = Outcome("Write", result, process, record->path.c_str());
    if (refusal == -ENOSPC || refusal == -ETIMEDOUT) return refusal;
    return result != SUCCESS ? -EIO : static_cast<int>(count);
}

int FileSystem::Ftruncate(unsigned long long handle, long long size, std::string process) {
    LOG_REQUEST("%s : %llu, %lld", "Ftruncate", handle, size);
    if (size > kMaxFileSize) return -EFBIG;
    auto record = FindHandle(handle, process);
    if (!record) return ConvertAERROR(INVALID_HANDLE);
    AERROR result = SUCCESS;
    if (record->file) result = record->file->ftruncate(std::string(process), size);
    return Outcome("Ftruncate", result, process, record->path.c_str());
}

int FileSystem::Truncate(const char* path, long long size, IExportService* service,
                         std::string process) {
    if (size > kMaxFileSize) return -EFBIG;
    unsigned long long handle = 0;
    const int opened = Open(path, O_WRONLY, handle, process);
    if (opened != 0) return opened;
    const int truncated = Ftruncate(handle, size, process);
    const int released = Release(handle, service, process);
    return truncated != 0 ? truncated : released;
}

int FileSystem::Flush(const char*, std::string) {
    return ConvertAERROR(SUCCESS);
}

int FileSystem::KeepWritten(unsigned long long handle, std::string process) {
    auto record = FindHandle(handle, process);
    if (!record || record->mode != HANDLE_MODE_WRITE || !record->file) return 0;
    const AERROR result = record->file->SaveWrittenCache();
    return Outcome("Flush", result, process, record->path.c_str());
}

int FileSystem::Fsync(unsigned long long handle, bool dataOnly, std::string process) {
    LOG_REQUEST("%s : %llu, %d", "Fsync", handle, dataOnly ? 1 : 0);
    auto record = FindHandle(handle, process);
    if (!record) return ConvertAERROR(INVALID_HANDLE);
    // The size and the block map are kept with the data, so fdatasync has
    // no less to do than fsync.
    const AERROR result = record->file ? record->file->SyncCache() : SUCCESS;
    return Outcome("Fsync", result, process, record->path.c_str());
}

int FileSystem::Unlink(const char* path, std::string process) {
    LOG_REQUEST("%s : %s", "Unlink", path);
    const std::string exact = ToExactPath(path, false);
    std::shared_ptr<File> node;
    AERROR result = GetFile(exact.c_str(), node);
    // unlink(2) never removes a folder, whatever the kernel thought it was.
    if (result == SUCCESS && node && node->IsFolder()) return -EISDIR;
    if (result == SUCCESS && node) result = node->unlink(true);
    const std::string name = GetObjectName(exact.c_str(), "\\/");
    if (IsHiddenByFuse(name)) SetHidden(name, nullptr);
    return Outcome("Unlink", result, process, path);
}

int FileSystem::RemoveDir(const char* path, std::string process) {
    LOG_REQUEST("%s : %s", "RemoveDir", path);
    std::shared_ptr<File> node;
    AERROR result = FindNode(path, node);
    if (result == SUCCESS && node) {
        // rmdir never deletes what a folder holds: list it if it never was,
        // and refuse while anything but its marker files is in it.
        if (node->IsFolder() && node->GetFileState() != FILE_STATE_LISTED) node->FetchList(node);
        if (node->IsFolder() && node->HasEntries()) {
            result = DIR_NOT_EMPTY;
        } else if (!node->IsFolder()) {
            result = INVALID_DIRECTORY;
        } else {
            result = node->unlink(true);
        }
    }
    return Outcome("RemoveDir", result, process, path);
}

int FileSystem::Rename(const char* from, const char* to, std::string process) {
    LOG_REQUEST("%s : %s to %s", "Rename", from, to);
    if (IsHiddenByFuse(GetObjectName(to, "\\/"))) return Hide(from, to, process);
    RenamePlan plan;
    int refusal = PlanRename(from, to, plan);
    AERROR result = SUCCESS;
    // What is replaced goes first, before the folders' locks are taken: its
    // delete waits for its own upload to stop.
    if (refusal == 0 && plan.target) result = plan.target->Replace(*plan.source, true);
    if (result != SUCCESS) {
        refusal = ErrnoFor(result);
    } else if (refusal == 0 && plan.sourceDir != plan.destinationDir) {
        result = plan.source->MoveFile(plan.source, plan.destinationDir, plan.newName);
    } else if (refusal == 0) {
        result = plan.sourceDir->RenameFile(plan.source, plan.newName, process);
    }
    if (refusal == 0) refusal = ErrnoFor(result);
    __LOG__A(CurrentLogger(), refusal != 0 ? LL_ERROR : LL_DEBUG,
             "[FILESYSTEM] [%s:%s] %s => %s : %s to %s", letter_.c_str(), process.c_str(), "Rename",
             refusal != 0 ? strerror(-refusal) : GetAERRORA(result), from, to);
    return refusal;
}

int FileSystem::Hide(const char* from, const char* to, std::string process) {
    std::shared_ptr<File> node;
    AERROR result = FindNode(from, node);
    const std::string hiddenName = GetObjectName(to, "\\/");
    if (result == SUCCESS && node) result = node->Hide(hiddenName);
    if (result == SUCCESS && node) SetHidden(hiddenName, node);
    return Outcome("Hide", result, process, from);
}

// Resolves both ends of a rename and applies rename(2)'s refusals; 0 or a
// negative errno. The destination is always the final name: the kernel has
// already turned "mv a dir/" into rename(a, dir/a).
int FileSystem::PlanRename(const char* from, const char* to, RenamePlan& plan) {
    const std::string exactFrom = ToExactPath(from, false);
    const std::string exactTo = ToExactPath(to, false);
    if (GetFile(exactFrom.c_str(), plan.source) != SUCCESS || !plan.source) return -ENOENT;
    if (GetParent(exactFrom.c_str(), plan.sourceDir) != SUCCESS || !plan.sourceDir) return -ENOENT;
    if (GetParent(exactTo.c_str(), plan.destinationDir) != SUCCESS || !plan.destinationDir) {
        return -ENOENT;
    }
    // The one place where case is kept: the name as the caller wrote it.
    plan.newName = GetObjectName(ToExactPath(to, true).c_str(), "\\/");
    if (plan.newName.size() > kMaxNameLength) return -ENAMETOOLONG;
    // An open file must not move with its folder.
    if (plan.source->IsFolder() && plan.source->HasAnyOpenedChildHandle()) return -EBUSY;
    // Files never move between protocols: tools copy them instead.
    if (plan.sourceDir->GetProtocol() != plan.destinationDir->GetProtocol()) return -EXDEV;
    std::shared_ptr<File>& target = plan.target;
    if (GetFile(exactTo.c_str(), target) != SUCCESS || target == plan.source) target.reset();
    if (!target) return 0;
    if (plan.source->IsFolder() && !target->IsFolder()) return -ENOTDIR;
    if (!plan.source->IsFolder() && target->IsFolder()) return -EISDIR;
    if (target->IsFolder()) {
        // Only an empty folder may be replaced; list it if it never was.
        if (target->GetFileState() != FILE_STATE_LISTED) target->FetchList(target);
        if (target->HasEntries()) return -ENOTEMPTY;
    }
    return 0;
}

AERROR FileSystem::UploadCacheSave(const char* path, const char* localPath) {
    std::shared_ptr<File> node;
    AERROR result = FindNode(path, node);
    if (result == SUCCESS && node) result = node->UploadCacheSave(node, localPath);
    __LOG__A(CurrentLogger(), result != SUCCESS ? LL_ERROR : LL_DEBUG,
             "[FILESYSTEM] %s %s => %s : %s", letter_.c_str(), "UploadCacheSave",
             GetAERRORA(result), path != nullptr ? path : "");
    return result;
}

AERROR FileSystem::UploadCacheRetry(const char* path) {
    return UploadRecovery("UploadCacheRetry", &File::UploadCacheRetry, path);
}

AERROR FileSystem::UploadCacheCancel(const char* path) {
    return UploadRecovery("UploadCacheCancel", &File::UploadCacheCancel, path);
}

AERROR FileSystem::UploadRecovery(const char* name,
                                  AERROR (File::*operation)(std::shared_ptr<File>),
                                  const char* path) {
    std::shared_ptr<File> node;
    AERROR result = FindNode(path, node);
    if (result == SUCCESS && node) result = (node.get()->*operation)(node);
    __LOG__A(CurrentLogger(), result != SUCCESS ? LL_ERROR : LL_DEBUG,
             "[FILESYSTEM] %s %s => %s : %s", letter_.c_str(), name, GetAERRORA(result),
             path != nullptr ? path : "");
    return result;
}
