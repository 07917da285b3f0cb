#include "export/export_service_fuse.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <list>
#include <sstream>
#include <vector>

#include "export/mount_arguments.h"
#include "export/process_names.h"
#include "export/session_loop.h"
#include "foundation/string_utils.h"
#include "fs/filesystem_interfaces.h"
#include "libfilesystem/unique_fd.h"
#include "services/log.h"

extern char** environ;

namespace {

ExportServiceFUSE* Service() {
    return static_cast<ExportServiceFUSE*>(fuse_get_context()->private_data);
}

int FUSE_getattr(const char* path, struct stat* st) {
    return Service()->getattr(path, st);
}
int FUSE_fgetattr(const char* path, struct stat* st, fuse_file_info* fi) {
    return Service()->fgetattr(path, st, fi);
}
int FUSE_mknod(const char* path, mode_t mode, dev_t dev) {
    return Service()->mknod(path, mode, dev);
}
int FUSE_mkdir(const char* path, mode_t mode) {
    return Service()->mkdir(path, mode);
}
int FUSE_unlink(const char* path) {
    const int result = Service()->unlink(path);
    __LOG__A(CurrentLogger(), LL_DEBUG, "FUSE_unlink: %d", result);
    return result;
}
int FUSE_rmdir(const char* path) {
    return Service()->rmdir(path);
}
int FUSE_rename(const char* from, const char* to) {
    return Service()->rename(from, to);
}
int FUSE_chmod(const char* path, mode_t mode) {
    return Service()->chmod(path, mode);
}
int FUSE_chown(const char* path, uid_t uid, gid_t gid) {
    return Service()->chown(path, uid, gid);
}
int FUSE_open(const char* path, fuse_file_info* fi) {
    return Service()->open(path, fi);
}
int FUSE_read(const char* path, char* buffer, size_t size, off_t offset, fuse_file_info* fi) {
    return Service()->read(path, buffer, size, offset, fi);
}
int FUSE_write(const char* path, const char* buffer, size_t size, off_t offset,
               fuse_file_info* fi) {
    return Service()->write(path, buffer, size, offset, fi);
}
int FUSE_statfs(const char* path, struct statvfs* sv) {
    return Service()->statfs(path, sv);
}
int FUSE_flush(const char* path, fuse_file_info* fi) {
    return Service()->flush(path, fi);
}
int FUSE_fsync(const char* path, int datasync, fuse_file_info* fi) {
    return Service()->fsync(path, datasync, fi);
}
int FUSE_release(const char* path, fuse_file_info* fi) {
    return Service()->release(path, fi);
}
int FUSE_opendir(const char* path, fuse_file_info* fi) {
    return Service()->opendir(path, fi);
}
int FUSE_readdir(const char* path, void* buffer, fuse_fill_dir_t filler, off_t offset,
                 fuse_file_info* fi) {
    return Service()->readdir(path, buffer, filler, offset, fi);
}
int FUSE_releasedir(const char* path, fuse_file_info* fi) {
    return Service()->releasedir(path, fi);
}
// The context's private data is cleared while FUSE tears down: the service
// comes as the argument instead.
void FUSE_destroy(void* data) {
    if (data != nullptr) static_cast<ExportServiceFUSE*>(data)->destroy();
}
int FUSE_create(const char* path, mode_t mode, fuse_file_info* fi) {
    return Service()->create(path, mode, fi);
}
int FUSE_ftruncate(const char* path, off_t size, fuse_file_info* fi) {
    return Service()->ftruncate(path, size, fi);
}
int FUSE_truncate(const char* path, off_t size) {
    return Service()->truncate(path, size);
}
int FUSE_utimens(const char* path, const struct timespec tv[2]) {
    return Service()->utimens(path, tv);
}

// Mount points in /proc/self/mountinfo escape blanks and backslashes in
// octal.
std::string EscapeMountInfo(const std::string& path) {
    std::string escaped;
    for (char c : path) {
        if (c == ' ' || c == '\t' || c == '\n' || c == '\\') {
            char octal[5];
            snprintf(octal, sizeof octal, "\\%03o", static_cast<unsigned char>(c));
            escaped += octal;
        } else {
            escaped += c;
        }
    }
    return escaped;
}

// The FUSE connection number of the volume mounted at `mountPoint`: the
// minor device number that /proc/self/mountinfo shows for it.
std::string FindConnection(const std::string& mountPoint) {
    std::ifstream mountinfo("/proc/self/mountinfo");
    const std::string wanted = EscapeMountInfo(mountPoint);
    std::string line;
    std::string found;
    while (std::getline(mountinfo, line)) {
        std::istringstream fields(line);
        std::string id, parent, device, root, point;
        fields >> id >> parent >> device >> root >> point;
        if (point != wanted) continue;
        const size_t colon = device.find(':');
        if (colon != std::string::npos) found = device.substr(colon + 1);
    }
    return found;
}

// Runs fusermount with `arguments`; true when it succeeded.
bool RunFusermount(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "fusermount");
    std::vector<char*> argv;
    for (auto& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_t pid;
    if (posix_spawnp(&pid, "fusermount", nullptr, nullptr, argv.data(), environ) != 0) {
        return false;
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string LowerProcessName(std::string name) {
    std::replace(name.begin(), name.end(), '\\', '/');
    return FoldName(std::move(name));
}

}  // namespace

ExportServiceFUSE::ExportServiceFUSE() {
    memset(&operations_, 0, sizeof operations_);
}

ExportServiceFUSE::~ExportServiceFUSE() {
    // Only a mount whose loop never ran gets here with FUSE state left.
    unmountCallback_ = nullptr;
    if (channel_ != nullptr) fuse_unmount(fusePoint_, channel_);
    if (fuse_ != nullptr) fuse_destroy(fuse_);
    free(fusePoint_);
}

void ExportServiceFUSE::FillOperations(fuse_operations* operations) {
    memset(operations, 0, sizeof *operations);
    operations->getattr = FUSE_getattr;
    // By handle: a file unlinked while open has no path any more.
    operations->fgetattr = FUSE_fgetattr;
    operations->mknod = FUSE_mknod;
    operations->mkdir = FUSE_mkdir;
    operations->unlink = FUSE_unlink;
    operations->rmdir = FUSE_rmdir;
    operations->rename = FUSE_rename;
    operations->chmod = FUSE_chmod;
    operations->chown = FUSE_chown;
    operations->open = FUSE_open;
    operations->read = FUSE_read;
    operations->write = FUSE_write;
    operations->statfs = FUSE_statfs;
    operations->flush = FUSE_flush;
    operations->fsync = FUSE_fsync;
    operations->release = FUSE_release;
    operations->opendir = FUSE_opendir;
    operations->readdir = FUSE_readdir;
    operations->releasedir = FUSE_releasedir;
    operations->destroy = FUSE_destroy;
    operations->create = FUSE_create;
    operations->ftruncate = FUSE_ftruncate;
    // truncate(2) and open(O_TRUNC) of a file that is not open arrive here.
    operations->truncate = FUSE_truncate;
    operations->utimens = FUSE_utimens;
    // access, setxattr and init are deliberately left out: FUSE answers them
    // itself.
    //
    // Reads, writes and releases work by handle, so a file unlinked while
    // open keeps working (libfuse then gives no path); operations by path
    // answer ENOENT for it.
    operations->flag_nullpath_ok = 1;
}

int ExportServiceFUSE::GetDriverState() {
#ifdef __APPLE__
    __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] Skarvo filesystem(%s) installed",
             osxfuse_version());
    return 0;
#else
    const UniqueFd fd(::open("/dev/fuse", O_RDWR | O_CLOEXEC));
    if (!fd.Valid()) {
        const int error = errno;
        __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] Cannot open /dev/fuse: %s",
                 strerror(error));
        return error != 0 ? error : 1;
    }
    __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] Skarvo filesystem(%s) installed",
             std::to_string(fuse_version()).c_str());
    return 0;
#endif
}

int ExportServiceFUSE::Mount(MountParameter& parameter) {
    FillOperations(&operations_);
    mountPoint_ = parameter.mountPoint;
    volumeName_ = parameter.volumeName;
    unmountCallback_ = std::move(parameter.unmountCallback);
    __LOG__A(CurrentLogger(), LL_DEBUG, "ExportServiceFUSE::Mount mount_to_: %s, %s",
             mountPoint_.c_str(), volumeName_.c_str());

    fuse_args args = FUSE_ARGS_INIT(0, nullptr);
    for (const auto& argument : BuildMountArguments(parameter, kThisPlatform)) {
        fuse_opt_add_arg(&args, argument.c_str());
    }
    if (fuse_parse_cmdline(&args, &fusePoint_, nullptr, nullptr) == -1 || fusePoint_ == nullptr) {
        fuse_opt_free_args(&args);
        return FS_MOUNT_ERROR;
    }
    channel_ = fuse_mount(fusePoint_, &args);
    if (channel_ == nullptr) {
        fuse_opt_free_args(&args);
        return FS_MOUNT_ERROR;
    }
    fuse_ = fuse_new(channel_, &args, &operations_, sizeof operations_, this);
    fuse_opt_free_args(&args);
    if (fuse_ == nullptr) {
        // Never leave a volume mounted that nothing serves.
        fuse_unmount(fusePoint_, channel_);
        channel_ = nullptr;
        return FS_MOUNT_ERROR;
    }
    connection_ = FindConnection(fusePoint_);
    return SUCCESS;
}

void ExportServiceFUSE::Wait() {
    fuse* handle = fuse_;
    if (handle == nullptr) return;
#ifdef __APPLE__
    fuse_loop_mt(handle);
#else
    ServeSession(fuse_get_session(handle));
#endif
    // The kernel dropped the volume (Unmount, or an unmount from a shell).
    // Release the channel, then destroy the FUSE object: that runs the
    // destroy callback, which starts the teardown of the mount.
    fuse_unmount(fusePoint_, channel_);
    channel_ = nullptr;
    fuse_ = nullptr;
    fuse_destroy(handle);
    // FUSE calls destroy only for a volume that completed its handshake;
    // the mount must be torn down either way.
    if (!destroyed_.load() && GetFileSystem() != nullptr && unmountCallback_) {
        unmountCallback_(mountPoint_.c_str());
    }
}

void ExportServiceFUSE::Unmount() {
    const std::string point = fusePoint_ != nullptr ? fusePoint_ : mountPoint_;
#ifdef __APPLE__
    unmount(point.c_str(), MNT_FORCE);
    if (channel_ != nullptr) fuse_unmount(fusePoint_, channel_);
#else
    // Detach the kernel mount without touching the channel that the loop
    // threads read: the kernel ends the connection and the loop returns. A
    // busy volume is detached lazily so that it always goes away.
    if (geteuid() == 0) {
        if (umount2(point.c_str(), 0) != 0 && errno == EBUSY) umount2(point.c_str(), MNT_DETACH);
    } else if (!RunFusermount({"-u", "-q", point})) {
        RunFusermount({"-u", "-q", "-z", point});
    }
#endif
}

void ExportServiceFUSE::AbortConnection() {
#ifndef __APPLE__
    if (connection_.empty()) return;
    const std::string control = "/sys/fs/fuse/connections";
    const std::string abort = control + "/" + connection_ + "/abort";
    if (::access(abort.c_str(), W_OK) != 0 && geteuid() == 0) {
        ::mount("fusectl", control.c_str(), "fusectl", 0, nullptr);
    }
    const UniqueFd fd(::open(abort.c_str(), O_WRONLY | O_CLOEXEC));
    if (!fd.Valid()) return;
    if (::write(fd.Get(), "1", 1) != 1) {
        __LOG__A(CurrentLogger(), LL_WARNING, "[FILESYSTEM] Cannot abort FUSE connection %s",
                 connection_.c_str());
    }
#endif
}

void ExportServiceFUSE::ResetTimeout(unsigned long value) {
    ++resetTimeouts_;
#ifdef __APPLE__
    if (fuse_ != nullptr) fuse_increase_timeout_count(fuse_, value);
#else
    (void)value;
#endif
}

std::string ExportServiceFUSE::GetProcessName() {
    return GetProcessName(fuse_get_context()->pid);
}

std::string ExportServiceFUSE::GetProcessName(pid_t pid) {
    static ProcessNames names(ReadProcessName);
    return names.Get(pid);
}

std::string ExportServiceFUSE::ReadProcessName(pid_t pid) {
#ifdef __APPLE__
    std::vector<char> buffer(65536, 0);
    if (proc_name(pid, buffer.data(), buffer.size()) > 0 && buffer[0] != '\0') {
        return LowerProcessName(buffer.data());
    }
    if (proc_pidpath(pid, buffer.data(), buffer.size()) <= 0) return std::to_string(pid);
    std::string path(buffer.data());
#else
    std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
    std::string name;
    if (std::getline(comm, name) && !name.empty()) return LowerProcessName(name);
    std::vector<char> buffer(65536, 0);
    const std::string exe = "/proc/" + std::to_string(pid) + "/exe";
    const ssize_t length = readlink(exe.c_str(), buffer.data(), buffer.size() - 1);
    if (length <= 0) return std::to_string(pid);
    std::string path(buffer.data(), static_cast<size_t>(length));
#endif
    const size_t slash = path.find_last_of('/');
    std::string last = slash == std::string::npos ? path : path.substr(slash + 1);
    if (last.empty()) return std::to_string(pid);
    return LowerProcessName(last);
}

template <typename Body>
int ExportServiceFUSE::Call(const char* callback, const char* path, Body&& body) {
    IFileSystemImpl* fs = GetFileSystem();
    if (fs == nullptr) return -EIO;
    if (path == nullptr) return -ENOENT;
    try {
        return body(fs, GetProcessName());
    } catch (...) {
        LogCaughtException(callback);
    }
    return -EIO;
}

int ExportServiceFUSE::getattr(const char* path, struct stat* st) {
    return Call("FUSE_getattr", path, [&](IFileSystemImpl* fs, std::string process) {
        return fs->GetAttr(path, st, std::move(process));
    });
}

int ExportServiceFUSE::fgetattr(const char*, struct stat* st, fuse_file_info* fi) {
    return Call("FUSE_fgetattr", "", [&](IFileSystemImpl* fs, std::string process) {
        return fs->GetAttrByHandle(fi->fh, st, std::move(process));
    });
}

int ExportServiceFUSE::mknod(const char* path, mode_t mode, dev_t dev) {
    return Call("FUSE_mknod", path, [&](IFileSystemImpl* fs, std::string process) {
        return fs->MakeNode(path, static_cast<unsigned short>(mode), static_cast<int>(dev),
                            std::move(process));
    });
}

int ExportServiceFUSE::mkdir(const char* path, mode_t mode) {
    return Call("FUSE_mkdir", path, [&](IFileSystemImpl* fs, std::string process) {
        return fs->MakeDir(path, static_cast<unsigned short>(mode), std::move(process));
    });
}

int ExportServiceFUSE::unlink(const char* path) {
    return Call("FUSE_unlink", path, [&](IFileSystemImpl* fs, std::string process) {
        return fs->Unlink(path, std::move(process));
    });
}

int ExportServiceFUSE::rmdir(const char* path) {
    return Call("FUSE_rmdir", path, [&](IFileSystemImpl* fs, std::string process) {
        return fs->RemoveDir(path, std::move(process));
    });
}

int ExportServiceFUSE::rename(const char* from, const char* to) {
    return Call("FUSE_rename", from, [&](IFileSystemImpl* fs, std::string process) {
        return fs->Rename(from, to, std::move(process));
    });
}

int ExportServiceFUSE::chmod(const char* path, mode_t mode) {
    return Call("FUSE_chmod", path, [&](IFileSystemImpl* fs, std::string process) {
        return fs->ChangeMode(path, static_cast<unsigned short>(mode), this, std::move(process));
    });
}

int ExportServiceFUSE::chown(const char* path, uid_t uid, gid_t gid) {
    return Call("FUSE_chown", path, [&](IFileSystemImpl* fs, std::string process) {
        return fs->ChangeOwner(path, uid, gid, std::move(process));
    });
}

int ExportServiceFUSE::open(const char* path, fuse_file_info* fi) {
    return Call("FUSE_open", path, [&](IFileSystemImpl* fs, std::string process) {
        unsigned long long handle = 0;
        const int result = fs->Open(path, fi->flags, handle, std::move(process));
        fi->fh = handle;
        return result;
    });
}

int ExportServiceFUSE::read(const char*, char* buffer, size_t size, off_t offset,
                            fuse_file_info* fi) {
    return Call("FUSE_read", "", [&](IFileSystemImpl* fs, std::string process) {
        return fs->Read(fi->fh, buffer, size, offset, this, std::move(process));
    });
}

int ExportServiceFUSE::write(const char*, const char* buffer, size_t size, off_t offset,
                             fuse_file_info* fi) {
    return Call("FUSE_write", "", [&](IFileSystemImpl* fs, std::string process) {
        return fs->Write(fi->fh, buffer, size, offset, this, std::move(process));
    });
}

int ExportServiceFUSE::statfs(const char* path, struct statvfs* sv) {
    return Call("FUSE_statfs", path, [&](IFileSystemImpl* fs, std::string process) {
        return fs->StatFs(path, sv, std::move(process));
    });
}

int ExportServiceFUSE::flush(const char* path, fuse_file_info* fi) {
    return Call("FUSE_flush", "", [&](IFileSystemImpl* fs, std::string process) {
        const int kept = fs->KeepWritten(fi->fh, process);
        const int flushed = fs->Flush(path, std::move(process));
        return kept != 0 ? kept : flushed;
    });
}

int ExportServiceFUSE::fsync(const char*, int datasync, fuse_file_info* fi) {
    return Call("FUSE_fsync", "", [&](IFileSystemImpl* fs, std::string process) {
        return fs->Fsync(fi->fh, datasync != 0, std::move(process));
    });
}

int ExportServiceFUSE::release(const char*, fuse_file_info* fi) {
    return Call("FUSE_release", "", [&](IFileSystemImpl* fs, std::string process) {
        unsigned long long handle = fi->fh;
        const int result = fs->Release(handle, this, std::move(process));
        fi->fh = handle;
        return result;
    });
}

int ExportServiceFUSE::opendir(const char* path, fuse_file_info*) {
    return Call("FUSE_opendir", path, [&](IFileSystemImpl* fs, std::string process) {
        return fs->OpenDir(path, std::move(process));
    });
}

int ExportServiceFUSE::readdir(const char* path, void* buffer, fuse_fill_dir_t filler, off_t,
                               fuse_file_info*) {
    return Call("FUSE_readdir", path, [&](IFileSystemImpl* fs, std::string process) {
        std::list<FS_DIR_ENTRY> entries;
        const int result = fs->ReadDir(path, entries, std::move(process));
        for (const auto& entry : entries)
            filler(buffer, entry.name.c_str(), &entry.st, 0);
        return result;
    });
}

int ExportServiceFUSE::releasedir(const char* path, fuse_file_info*) {
    return Call("FUSE_releasedir", path, [&](IFileSystemImpl* fs, std::string process) {
        return fs->ReleaseDir(path, std::move(process));
    });
}

void ExportServiceFUSE::destroy() {
    if (GetFileSystem() == nullptr) return;
    destroyed_ = true;
    if (fuse_ != nullptr) fuse_exit(fuse_);
    if (unmountCallback_) unmountCallback_(mountPoint_.c_str());
}

int ExportServiceFUSE::create(const char* path, mode_t mode, fuse_file_info* fi) {
    return Call("FUSE_create", path, [&](IFileSystemImpl* fs, std::string process) {
        unsigned long long handle = 0;
        const int result = fs->Create(path, static_cast<unsigned short>(mode), fi->flags, handle,
                                      this, std::move(process));
        fi->fh = handle;
        return result;
    });
}

int ExportServiceFUSE::ftruncate(const char*, off_t size, fuse_file_info* fi) {
    return Call("FUSE_ftruncate", "", [&](IFileSystemImpl* fs, std::string process) {
        return fs->Ftruncate(fi->fh, size, std::move(process));
    });
}

int ExportServiceFUSE::truncate(const char* path, off_t size) {
    return Call("FUSE_truncate", path, [&](IFileSystemImpl* fs, std::string process) {
        return fs->Truncate(path, size, this, std::move(process));
    });
}

int ExportServiceFUSE::utimens(const char* path, const struct timespec tv[2]) {
    return Call("FUSE_utimens", path, [&](IFileSystemImpl* fs, std::string process) {
        return fs->UtimeNs(path, tv, 0, std::move(process));
    });
}

int ExportServiceFUSE::access(const char* path, int mask) {
    return Call("FUSE_access", path, [&](IFileSystemImpl* fs, std::string process) {
        return fs->Access(path, mask, std::move(process));
    });
}

int ExportServiceFUSE::setxattr(const char* path, const char* name, const char* value, size_t size,
                                int flags) {
    // The value is not a C string: print exactly its `size` bytes.
    const std::string text(value != nullptr ? value : "", value != nullptr ? size : 0);
    __LOG__A(CurrentLogger(), LL_CRITICAL, "[FILESYSTEM] %s : %s, %s, %s, %lld, %d, %d",
             "FUSE_setxattr", path, name, text.c_str(), static_cast<long long>(size), flags, 0);
    return -EACCES;
}
