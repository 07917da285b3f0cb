// The file system of one mounted volume, as the host and the export service
// see it.
#ifndef LIBFILESYSTEM_FILESYSTEM_H_
#define LIBFILESYSTEM_FILESYSTEM_H_

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "libfilesystem/aerror.h"
#include "libfilesystem/event_sink.h"
#include "libfilesystem/filter.h"
#include "libfilesystem/notifier.h"
#include "libfilesystem/protocol.h"

class File;
class IExportService;

// Mount request bits given to Mount. Bits not listed are carried unread.
enum MOUNTTYPE : uint32_t {
    MT_DEFAULT = 0,
    MT_READ_ONLY = 0x10000,        // the volume is mounted read-only
    MT_NO_ASYNC_UPLOAD = 0x20000,  // close() returns only after the upload
    MT_REALTIME_UPLOAD = 0x40000,  // real-time upload for the filter's processes
};
inline MOUNTTYPE operator|(MOUNTTYPE a, MOUNTTYPE b) {
    return static_cast<MOUNTTYPE>(static_cast<uint32_t>(a) | static_cast<uint32_t>(b));
}

// Feature bits of a file system (IFileSystem_V2::GetFeature).
enum FS_FEATURE : uint32_t {
    FEATURE_NONE = 0,
    FEATURE_NO_BACKGROUND_REFRESH = 0x20,  // listings are always fetched in the foreground
    FEATURE_ASYNC_UPLOAD = 0x40,           // uploads run after close, on background workers
    FEATURE_NO_MODIFY_MARK = 0x80,         // opening or truncating does not mark a file
                                           // for upload; only writes do
    FEATURE_REALTIME_UPLOAD = 0x100,       // writes of real-time processes stream out
};
inline FS_FEATURE operator|(FS_FEATURE a, FS_FEATURE b) {
    return static_cast<FS_FEATURE>(static_cast<uint32_t>(a) | static_cast<uint32_t>(b));
}

// How a file system is presented to the operating system.
enum EXPORT_SERVICE_TYPE : uint32_t {
    EXPORT_SERVICE_FUSE = 0,
    EXPORT_SERVICE_FUSE_ALT = 1,  // the same FUSE service
    EXPORT_SERVICE_NONE = 2,      // selects nothing
    EXPORT_SERVICE_RPC = 3,       // a stand-by that mounts nothing
};

// One directory entry: the name shown to the operating system and its
// attributes.
struct FS_DIR_ENTRY {
    std::string name;
    struct stat st;
};

// The interface that Mount hands to the host, and through which the export
// service forwards every request of the operating system.
//
// Results: the configuration and upload-recovery operations (slots 1-20)
// answer AERROR codes. The volume operations (slots 21-43) answer as FUSE
// does: 0 or a byte count on success, a negative errno on failure. `process`
// is the name of the process that made the request; `handle` is a handle
// number given out by Create or Open.
//
// Virtual operations, in slot order:
//   0  GetInterfaceVersion() -> int             2
//   1  SetFSName(name)                          the file-system name shown in logs
//   2  SetVolName(name)                         the volume label
//   3  SetFSFilter(filter)                      replaces the file filter
//   4  GetFSFilter() -> filter
//   5  GetProtocolCount() -> int
//   6  GetProtocol(index, out) -> AERROR        INVALID_PARAMETER past the count
//   7  SetFeature(bits)                         FS_FEATURE bits on
//   8  RemoveFeature(bits)                      FS_FEATURE bits off
//   9  GetFeature() -> FS_FEATURE
//  10  SetFSEvent(sink)                         the host's event sink
//  11  GetFSEvent() -> sink
//  12  SetConfiguration(json) -> AERROR         ACCESS_VIOLATION for null,
//                                               JSON_PARSE_FAILED for broken text
//  13  AddProtocol(protocol, name) -> AERROR    overlays the protocol's tree at
//                                               the root; FS_ALREADY_AUTHORIZED
//                                               for a protocol already added
//  14  UploadCacheSave(path, localPath) -> AERROR
//        Writes the cached content of the file at `path` (a path in the
//        volume) to `localPath`; the cached content stays as it is.
//  15  UploadCacheRetry(path) -> AERROR         queues a new upload of the file
//  16  UploadCacheCancel(path) -> AERROR
//        Drops the pending upload and its data; the remote file stays as it
//        was. Slots 14-16 answer FILE_NOT_FOUND for a path that does not exist.
//  17  CountUploadings() -> int                 uploads queued or running
//  18  QueueFile(file)                          library internal: queue a node's jobs
//  19  GetLetter() -> string                    the drive's identifier in logs
//  20  GetVolumeLabel() -> string
//  21  Create(path, mode, flags, handle, service, process) -> int
//  22  MakeNode(path, mode, dev, process) -> int
//  23  MakeDir(path, mode, process) -> int
//  24  Open(path, flags, handle, process) -> int
//  25  OpenDir(path, process) -> int
//  26  ReleaseDir(path, process) -> int
//  27  Release(handle, service, process) -> int
//  28  GetAttr(path, st, process) -> int
//  29  GetAttrByHandle(handle, st, process) -> int
//  30  ReadDir(path, entries, process) -> int
//  31  Ftruncate(handle, size, process) -> int
//  32  UtimeNs(path, times, handle, process) -> int
//  33  GetMountPoint() -> string
//  34  Access(path, mask, process) -> int
//  35  Unlink(path, process) -> int
//  36  RemoveDir(path, process) -> int
//  37  Rename(from, to, process) -> int
//  38  Read(handle, buffer, size, offset, service, process) -> int   bytes read
//  39  Write(handle, buffer, size, offset, service, process) -> int  bytes written
//  40  ChangeMode(path, mode, service, process) -> int
//  41  ChangeOwner(path, uid, gid, process) -> int
//  42  StatFs(path, sv, process) -> int
//  43  Flush(path, process) -> int
//  44  Finalize()       stops the background workers and closes every handle
//  45  Destroy()        drops the trees and the protocols; runs once
//  46, 47  destructors
//  48  SetNotifier(notifier)                    the host's change notifier
class IFileSystem_V2 {
  public:
    virtual int GetInterfaceVersion() { return 2; }
    virtual AERROR SetFSName(const char* name) = 0;
    virtual AERROR SetVolName(const char* name) = 0;
    virtual AERROR SetFSFilter(std::shared_ptr<IFSFilter> filter) = 0;
    virtual std::shared_ptr<IFSFilter> GetFSFilter() = 0;
    virtual int GetProtocolCount() = 0;
    virtual AERROR GetProtocol(int index, std::shared_ptr<IProtocol_V2>& out) = 0;
    virtual AERROR SetFeature(FS_FEATURE bits) = 0;
    virtual AERROR RemoveFeature(FS_FEATURE bits) = 0;
    virtual FS_FEATURE GetFeature() = 0;
    virtual AERROR SetFSEvent(std::shared_ptr<IFSEvent> sink) = 0;
    virtual std::shared_ptr<IFSEvent> GetFSEvent() = 0;
    virtual AERROR SetConfiguration(const char* json) = 0;
    virtual AERROR AddProtocol(std::shared_ptr<IProtocol_V2> protocol, const char* name) = 0;
    virtual AERROR UploadCacheSave(const char* path, const char* localPath) = 0;
    virtual AERROR UploadCacheRetry(const char* path) = 0;
    virtual AERROR UploadCacheCancel(const char* path) = 0;
    virtual int CountUploadings() = 0;
    virtual void QueueFile(std::shared_ptr<File> file) = 0;
    virtual std::string GetLetter() = 0;
    virtual std::string GetVolumeLabel() = 0;
    virtual int Create(const char* path, unsigned short mode, int flags, unsigned long long& handle,
                       IExportService* service, std::string process) = 0;
    virtual int MakeNode(const char* path, unsigned short mode, int dev, std::string process) = 0;
    virtual int MakeDir(const char* path, unsigned short mode, std::string process) = 0;
    virtual int Open(const char* path, int flags, unsigned long long& handle,
                     std::string process) = 0;
    virtual int OpenDir(const char* path, std::string process) = 0;
    virtual int ReleaseDir(const char* path, std::string process) = 0;
    virtual int Release(unsigned long long& handle, IExportService* service,
                        std::string process) = 0;
    virtual int GetAttr(const char* path, struct stat* st, std::string process) = 0;
    virtual int GetAttrByHandle(unsigned long long handle, struct stat* st,
                                std::string process) = 0;
    virtual int ReadDir(const char* path, std::list<FS_DIR_ENTRY>& entries,
                        std::string process) = 0;
    virtual int Ftruncate(unsigned long long handle, long long size, std::string process) = 0;
    virtual int UtimeNs(const char* path, const struct timespec times[2], unsigned long long handle,
                        std::string process) = 0;
    virtual std::string GetMountPoint() = 0;
    virtual int Access(const char* path, int mask, std::string process) = 0;
    virtual int Unlink(const char* path, std::string process) = 0;
    virtual int RemoveDir(const char* path, std::string process) = 0;
    virtual int Rename(const char* from, const char* to, std::string process) = 0;
    virtual int Read(unsigned long long handle, char* buffer, unsigned long size, long long offset,
                     IExportService* service, std::string process) = 0;
    virtual int Write(unsigned long long handle, const char* buffer, unsigned long size,
                      long long offset, IExportService* service, std::string process) = 0;
    virtual int ChangeMode(const char* path, unsigned short mode, IExportService* service,
                           std::string process) = 0;
    virtual int ChangeOwner(const char* path, unsigned int uid, unsigned int gid,
                            std::string process) = 0;
    virtual int StatFs(const char* path, struct statvfs* sv, std::string process) = 0;
    virtual int Flush(const char* path, std::string process) = 0;
    virtual void Finalize() = 0;
    virtual void Destroy() = 0;
    virtual ~IFileSystem_V2() = default;
    virtual void SetNotifier(INotifier* notifier) = 0;
};

#endif  // LIBFILESYSTEM_FILESYSTEM_H_
