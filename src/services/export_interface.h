// The interface of an export service, the way a file system is presented to
// the operating system. It sits below the layers that call it: the data and
// tree layers keep the kernel from timing out a long request through it.
#ifndef LIBFS_SERVICES_EXPORT_INTERFACE_H_
#define LIBFS_SERVICES_EXPORT_INTERFACE_H_

#include <cstdint>
#include <functional>
#include <string>

#include "libfilesystem/filesystem.h"
#include "libfilesystem/notifier.h"

class IFileSystemImpl;

// Something that is destroyed through its own Release().
class IRefObject {
  public:
    virtual void Release() = 0;

  protected:
    ~IRefObject() = default;
};

// A mount request, built by the mount manager and handed to
// IExportService::Mount.
struct MountParameter {
    MOUNTTYPE type = MT_DEFAULT;
    // Allow users other than the one who mounted to use the volume.
    bool allowOther = false;
    std::string mountPoint;
    std::string volumeName;
    // Called by the service with the mount point once the operating system
    // has taken the volume down.
    std::function<void(const char*)> unmountCallback;
};

// The interface through which the mount manager drives an export service.
//   0  Release()                 destroys the service
//   1  SetFileSystem(fs)         the file system to serve; not owned
//   2  GetDriverState() -> int   0 when what the service needs is installed
//   3  Wait()                    serves requests until the volume goes away
//                                (runs on the mount thread)
//   4  Mount(parameter) -> int   attaches the volume; 0 on success
//   5  Unmount()                 asks the operating system to detach it
//   6  NotifyDirectoryChange(path, event, flag) -> bool
//   7  ResetTimeout(value)       keeps the kernel from timing out a long request
//   8, 9  destructors
class IExportService : public IRefObject {
  public:
    virtual void SetFileSystem(IFileSystemImpl* fileSystem) = 0;
    virtual int GetDriverState() = 0;
    virtual void Wait() = 0;
    virtual int Mount(MountParameter& parameter) = 0;
    virtual void Unmount() = 0;
    virtual bool NotifyDirectoryChange(const char* path, NOTIFYEVENT event, bool flag) = 0;
    virtual void ResetTimeout(unsigned long value) = 0;
    virtual ~IExportService() = default;
};

#endif  // LIBFS_SERVICES_EXPORT_INTERFACE_H_
