// Exports a file system to the operating system through FUSE.
#ifndef LIBFS_EXPORT_EXPORT_SERVICE_FUSE_H_
#define LIBFS_EXPORT_EXPORT_SERVICE_FUSE_H_

#include <fuse.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>

#include "export/export_service.h"

// Each FUSE callback reaches one file system operation with the name of the
// process that made the request. The FUSE loop runs on the mount thread
// (Wait) with worker threads of its own.
class ExportServiceFUSE : public ExportService {
  public:
    ExportServiceFUSE();
    ~ExportServiceFUSE() override;

    int GetDriverState() override;
    void Wait() override;
    int Mount(MountParameter& parameter) override;
    void Unmount() override;
    bool NotifyDirectoryChange(const char*, NOTIFYEVENT, bool) override { return true; }
    void ResetTimeout(unsigned long value) override;

    // Makes requests that are in flight fail at once; the next Unmount then
    // takes the volume down even while the file system is stuck.
    void AbortConnection();

    // How often ResetTimeout was called (Linux has no kernel time-out to
    // extend, so the calls are only counted).
    unsigned long ResetTimeoutCount() const { return resetTimeouts_.load(); }

    // The name of the process behind the current FUSE request: lower case,
    // with every backslash turned into "/". For a process that is gone, its
    // pid in decimal.
    static std::string GetProcessName();
    static std::string GetProcessName(pid_t pid);

    static void FillOperations(fuse_operations* operations);

    // The callbacks, one per FUSE operation.
    int getattr(const char* path, struct stat* st);
    int fgetattr(const char* path, struct stat* st, fuse_file_info* fi);
    int mknod(const char* path, mode_t mode, dev_t dev);
    int mkdir(const char* path, mode_t mode);
    int unlink(const char* path);
    int rmdir(const char* path);
    int rename(const char* from, const char* to);
    int chmod(const char* path, mode_t mode);
    int chown(const char* path, uid_t uid, gid_t gid);
    int open(const char* path, fuse_file_info* fi);
    int read(const char* path, char* buffer, size_t size, off_t offset, fuse_file_info* fi);
    int write(const char* path, const char* buffer, size_t size, off_t offset, fuse_file_info* fi);
    int statfs(const char* path, struct statvfs* sv);
    int flush(const char* path, fuse_file_info* fi);
    int fsync(const char* path, int datasync, fuse_file_info* fi);
    int release(const char* path, fuse_file_info* fi);
    int opendir(const char* path, fuse_file_info* fi);
    int readdir(const char* path, void* buffer, fuse_fill_dir_t filler, off_t offset,
                fuse_file_info* fi);
    int releasedir(const char* path, fuse_file_info* fi);
    void destroy();
    int create(const char* path, mode_t mode, fuse_file_info* fi);
    int ftruncate(const char* path, off_t size, fuse_file_info* fi);
    int truncate(const char* path, off_t size);
    int utimens(const char* path, const struct timespec tv[2]);
    int access(const char* path, int mask);
    int setxattr(const char* path, const char* name, const char* value, size_t size, int flags);

  private:
    // Reads the name of `pid` from the system, every time.
    static std::string ReadProcessName(pid_t pid);
    // Calls `body` with the file system and the requesting process's name,
    // turning every escaping exception into a logged -EIO. A null `path` (a
    // file unlinked while open) answers -ENOENT.
    template <typename Body>
    int Call(const char* callback, const char* path, Body&& body);

    char* fusePoint_ = nullptr;
    fuse_chan* channel_ = nullptr;
    fuse* fuse_ = nullptr;
    fuse_operations operations_;
    std::string mountPoint_;
    std::string volumeName_;
    std::function<void(const char*)> unmountCallback_;
    std::atomic<bool> destroyed_{false};
    std::atomic<unsigned long> resetTimeouts_{0};
    // The kernel's id of the FUSE connection, to abort it.
    std::string connection_;
};

#endif  // LIBFS_EXPORT_EXPORT_SERVICE_FUSE_H_
