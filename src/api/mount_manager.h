// The process-wide table of mounted drives.
#ifndef LIBFS_API_MOUNT_MANAGER_H_
#define LIBFS_API_MOUNT_MANAGER_H_

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "libfilesystem/aerror.h"
#include "libfilesystem/filesystem.h"

class IExportService;

// For each mount the manager creates the file system, the export service and
// the change notifier, wires them together, mounts, and runs the service's
// request loop on a mount thread. Once the operating system reports the
// volume gone, a finalising thread removes the mount: it joins the mount
// thread, finalises and destroys the file system, and removes the mount
// point directory.
class MountManager {
  public:
    static MountManager& GetInstance();

    // `configuration`, when not null, is a JSON text given to the new file
    // system before the volume is attached; its "/fuse/allow_other" (true, or
    // a text "1"/"true") lets other users reach the volume.
    AERROR Mount(const char* mountPoint, const char* volumeName, MOUNTTYPE type,
                 IFileSystem_V2** outFs, void* reserved, const char* configuration,
                 EXPORT_SERVICE_TYPE serviceType);
    AERROR Unmount(const char* mountPoint, bool force);
    IFileSystem_V2* GetFileSystem(const std::string& mountPoint);
    static IExportService* CreateExportService(EXPORT_SERVICE_TYPE type);
    // Starts the finalising thread of `mountPoint` and returns at once. When
    // no thread can start, the mount thread finalises once its request loop
    // has ended.
    void UnmountFinalize(const char* mountPoint);

    // Starts `body` on a detached thread; throws std::system_error when the
    // thread cannot start. Replaceable, so that tests can refuse threads.
    using ThreadStarter = void (*)(std::function<void()> body);
    static ThreadStarter startThread;

  private:
    struct MountData;

    MountManager();
    ~MountManager();
    void Finalize(std::string mountPoint);

    // Serialises Mount, Unmount and the removal of an entry.
    std::mutex mutex_;
    // Guards the table itself, briefly, so that lookups never wait for a
    // mount or a teardown in progress.
    std::mutex tableMutex_;
    std::unordered_map<std::string, std::shared_ptr<MountData>> mounts_;
};

#endif  // LIBFS_API_MOUNT_MANAGER_H_
