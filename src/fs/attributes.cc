// Attributes and directory listings of the volume.
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include "fs/errno_for.h"
#include "fs/filesystem.h"
#include "fs/log_macros.h"
#include "libfilesystem/entry_points.h"
#include "tree/file.h"

namespace {

// Seconds of a FUSE time: "now" for UTIME_NOW, 0 (leave as it is) for
// UTIME_OMIT.
long Seconds(const struct timespec& time) {
    if (time.tv_nsec == UTIME_NOW) return static_cast<long>(::time(nullptr));
    if (time.tv_nsec == UTIME_OMIT) return 0;
    return static_cast<long>(time.tv_sec);
}

}  // namespace

int FileSystem::GetAttr(const char* path, struct stat* st, std::string process) {
    LOG_REQUEST("%s : %s", "GetAttr", path);
    std::shared_ptr<File> node;
    AERROR result = FindNode(path, node);
    if (result == SUCCESS && node) result = static_cast<AERROR>(node->getattr(st));
    return Outcome("GetAttr", result, process, path);
}

int FileSystem::GetAttrByHandle(unsigned long long handle, struct stat* st, std::string process) {
    LOG_REQUEST("%s : %llu", "GetAttrByHandle", handle);
    auto record = FindHandle(handle, process);
    if (!record) return ConvertAERROR(INVALID_HANDLE);
    AERROR result = SUCCESS;
    if (record->file) result = static_cast<AERROR>(record->file->getattr(st));
    return Outcome("GetAttrByHandle", result, process, record->path.c_str());
}

int FileSystem::ReadDir(const char* path, std::list<FS_DIR_ENTRY>& entries, std::string process) {
    LOG_REQUEST("%s : %s, %p, %lld", "ReadDir", path, static_cast<void*>(&entries), 0LL);
    const std::string exact = ToExactPath(path, false);
    // Each protocol that holds the folder adds its own listing; a folder that
    // none holds lists as empty.
    for (const auto& entry : Protocols()) {
        std::shared_ptr<File> node;
        if (GetFile(exact.c_str(), entry->root, node) != SUCCESS || !node) continue;
        PollChanges(*entry);
        node->readdir(node, entries);
    }
    return Outcome("ReadDir", SUCCESS, process, path);
}

int FileSystem::Access(const char* path, int mask, std::string process) {
    LOG_REQUEST("%s : %s, %d", "Access", path, mask);
    std::shared_ptr<File> node;
    AERROR result = FindNode(path, node);
    if (result == SUCCESS && node) result = static_cast<AERROR>(node->access(mask));
    return Outcome("Access", result, process, path);
}

int FileSystem::OpenDir(const char* path, std::string process) {
    LOG_REQUEST("%s : %s", "OpenDir", path);
    std::shared_ptr<File> node;
    AERROR result = FindNode(path, node);
    if (result == SUCCESS && node && !node->IsFolder()) result = OPEN_FAILED;
    if (result == SUCCESS && node) result = node->FetchList(node);
    return Outcome("OpenDir", result, process, path);
}

int FileSystem::ChangeMode(const char* path, unsigned short mode, IExportService* service,
                           std::string process) {
    LOG_REQUEST("%s : %s, %d", "ChangeMode", path, mode);
    std::shared_ptr<File> node;
    AERROR result = FindNode(path, node);
    if (result == SUCCESS && node) {
        // Only whether the item is a regular file reaches the node.
        const unsigned long attributes = (mode & S_IFREG) != 0 ? FILE_ATTRIBUTE_NORMAL : 0;
        result = node->SetFileAttributes(attributes, service);
    }
    return Outcome("ChangeMode", result, process, path);
}

int FileSystem::ChangeOwner(const char* path, unsigned int uid, unsigned int gid,
                            std::string process) {
    // The volume stores no owners: every item shows the mounting user's.
    // Asking for that owner changes nothing and succeeds, as it would on any
    // disk (tar and cp -a running as that user do it for every file); any
    // other owner cannot be kept.
    const bool sameUser = uid == static_cast<unsigned int>(-1) || uid == getuid();
    const bool sameGroup = gid == static_cast<unsigned int>(-1) || gid == getgid();
    if (!sameUser || !sameGroup) return ErrnoFor(NOT_SUPPORTED);
    std::shared_ptr<File> node;
    return Outcome("ChangeOwner", FindNode(path, node), process, path);
}

int FileSystem::UtimeNs(const char* path, const struct timespec times[2], unsigned long long handle,
                        std::string process) {
    LOG_REQUEST("%s : %s", "UtimeNs", path);
    std::shared_ptr<File> node;
    AERROR result = SUCCESS;
    if (handle == 0) {
        result = FindNode(path, node);
    } else if (auto record = GetHandle(handle)) {
        // Only a handle open for writing may change the times.
        if (record->mode == HANDLE_MODE_WRITE) node = record->file;
    }
    if (result == SUCCESS && node && times != nullptr) {
        result = node->SetFileTime(0, Seconds(times[0]), Seconds(times[1]));
    }
    return Outcome("UtimeNs", result, process, path);
}

int FileSystem::StatFs(const char* path, struct statvfs* sv, std::string process) {
    LOG_REQUEST("%s : %s", "StatFs", path);
    unsigned long long total = 0;
    unsigned long long used = 0;
    AERROR result = SUCCESS;
    const auto quotaInterval = static_cast<uint64_t>(GetConfig().quota_interval);
    for (const auto& entry : Protocols()) {
        std::lock_guard<std::mutex> entryLock(entry->mutex);
        const auto now = std::chrono::steady_clock::now();
        const auto age =
            std::chrono::duration_cast<std::chrono::milliseconds>(now - entry->lastQuota).count();
        if (!entry->quotaValid || static_cast<uint64_t>(age) > quotaInterval) {
            unsigned long long protocolTotal = 0;
            unsigned long long protocolUsed = 0;
            result = entry->protocol->GetQuota(&protocolTotal, &protocolUsed);
            if (result != SUCCESS) break;
            entry->quotaTotal = protocolTotal;
            entry->quotaUsed = protocolUsed;
            entry->lastQuota = now;
            entry->quotaValid = true;
        }
        total += entry->quotaTotal;
        used += entry->quotaUsed;
    }
    if (sv->f_bsize == 0) sv->f_bsize = 65536;
    sv->f_frsize = 65536;
    sv->f_blocks = total / sv->f_bsize;
    const unsigned long long freeBytes = total > used ? total - used : 0;
    sv->f_bfree = sv->f_bavail = freeBytes / sv->f_bsize;
    sv->f_files = 1048576;
    sv->f_namemax = kMaxNameLength;
    sv->f_ffree = 0;
    return Outcome("StatFs", result, process, path);
}
