// The views of a file system that the library's own parts use.
#ifndef LIBFS_FS_FILESYSTEM_INTERFACES_H_
#define LIBFS_FS_FILESYSTEM_INTERFACES_H_

#include <memory>
#include <string>

#include "libfilesystem/event_sink.h"
#include "libfilesystem/filesystem.h"
#include "libfilesystem/filter.h"
#include "tree/filesystem_view.h"

// The file system as the export service sees it: the host's interface.
class IFileSystemImpl : public IFileSystem_V2 {
  public:
    // Truncation by path: the volume serves truncate(2) like any disk.
    virtual int Truncate(const char* path, long long size, IExportService* service,
                         std::string process) = 0;
    // fsync(2) and fdatasync(2) of an open file: its written data is durable
    // in the cache when it returns 0. The upload still follows the close.
    virtual int Fsync(unsigned long long handle, bool dataOnly, std::string process) = 0;
    // close(2) of an open file (FUSE's flush): what the handle wrote is
    // recorded in the cache so that a crash of the host loses none of it.
    // The kernel does not wait for the release, which makes it durable and
    // starts the upload.
    virtual int KeepWritten(unsigned long long handle, std::string process) = 0;
};

#endif  // LIBFS_FS_FILESYSTEM_INTERFACES_H_
