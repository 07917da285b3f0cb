// The file system that owns a tree, as its nodes see it.
#ifndef LIBFS_TREE_FILESYSTEM_VIEW_H_
#define LIBFS_TREE_FILESYSTEM_VIEW_H_

#include <memory>
#include <shared_mutex>
#include <string>

#include "libfilesystem/event_sink.h"
#include "libfilesystem/filesystem.h"
#include "libfilesystem/filter.h"

class File;

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
    // Folders change their remote place (rename, move) holding it
    // exclusively; a file whose remote change of place takes several calls
    // (a move through its transit name, an upload that follows a rename)
    // holds it shared, so that no folder above it changes its key between
    // two of those calls and strands the file under a transit name.
    virtual std::shared_mutex& PlaceGate() = 0;

  protected:
    ~IFileSystemInternal() = default;
};

#endif  // LIBFS_TREE_FILESYSTEM_VIEW_H_
