// How a file system is presented to the operating system.
#ifndef LIBFS_EXPORT_EXPORT_SERVICE_H_
#define LIBFS_EXPORT_EXPORT_SERVICE_H_

#include "services/export_interface.h"

// What every export service shares: the file system it serves.
class ExportService : public IExportService {
  public:
    void Release() override { delete this; }
    void SetFileSystem(IFileSystemImpl* fileSystem) override { fileSystem_ = fileSystem; }
    IFileSystemImpl* GetFileSystem() const { return fileSystem_; }

  private:
    IFileSystemImpl* fileSystem_ = nullptr;
};

// A stand-by service that mounts nothing: every mount through it fails.
class ExportServiceRPC : public ExportService {
  public:
    int GetDriverState() override;
    void Wait() override {}
    int Mount(MountParameter& parameter) override;
    void Unmount() override {}
    bool NotifyDirectoryChange(const char*, NOTIFYEVENT, bool) override { return true; }
    void ResetTimeout(unsigned long) override {}
};

#endif  // LIBFS_EXPORT_EXPORT_SERVICE_H_
