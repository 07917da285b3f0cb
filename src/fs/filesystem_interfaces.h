// The views of a file system that the library's own parts use.
#ifndef LIBFS_FS_FILESYSTEM_INTERFACES_H_
#define LIBFS_FS_FILESYSTEM_INTERFACES_H_

#include <memory>
#include <string>

#include "libfilesystem/event_sink.h"
#include "libfilesystem/filesystem.h"
#include "libfilesystem/filter.h"

// The file system as the export service sees it: the host's interface.
class IFileSystemImpl : public IFileSystem_V2 {
  public:
    // Truncation by path: the volume serves truncate(2) like any disk.
    virtual int Truncate(const char* path, long long size, IExportService* service,
                         std::string process) = 0;
};

// The file system as its nodes see it.
class IFileSystemInternal {
  public:
    virtual std::shared_ptr<IFSFilter> GetFSFilter() = 0;
    virtual FS_FEATURE GetFeature() = 0;
    virtual std::shared_ptr<IFSEvent> GetFSEvent() = 0;
    virtual std::string GetLetter() = 0;
    virtual std::string GetVolumeLabel() = 0;
    virtual std::string GetMountPoint() = 0;
    virtual void QueueFile(std::shared_ptr<File> file) = 0;
    // Background jobs of the tree (listings) run on the host's queue with
    // pointers into the file system: teardown waits until each one that
    // started has finished.
    virtual void JobStarted() = 0;
    virtual void JobFinished() = 0;

  protected:
    ~IFileSystemInternal() = default;
};

#endif  // LIBFS_FS_FILESYSTEM_INTERFACES_H_
