// The library's C entry points and the process-wide state it shares with its
// host.
//
// A host binds its logger, job queue and cache service, names itself with
// FS_Initialize, then mounts:
//
//   FS_BindLogger(1, &myLogger);
//   FS_BindAsyncQ(&myQueue);
//   FS_BindCache(&myCache);
//   FS_Initialize("myproduct");
//   IFileSystem_V2* fs = nullptr;
//   if (Mount("/mnt/drive", "Drive", MT_DEFAULT, &fs, nullptr, nullptr) == SUCCESS) {
//       fs->AddProtocol(protocol, "remote");
//       ...
//       Unmount("/mnt/drive", false);
//   }
//
// The library borrows the bound objects and never deletes them; unbind them
// before destroying them.
#ifndef LIBFILESYSTEM_ENTRY_POINTS_H_
#define LIBFILESYSTEM_ENTRY_POINTS_H_

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "libfilesystem/aerror.h"
#include "libfilesystem/async.h"
#include "libfilesystem/cache.h"
#include "libfilesystem/filesystem.h"
#include "libfilesystem/log.h"
#include "libfilesystem/visibility.h"

// Logger kinds for FS_BindLogger.
constexpr int FS_LOGGER_MAIN = 1;   // receives every line of the library
constexpr int FS_LOGGER_ASYNC = 2;  // kept for hosts that separate job logs; unused

extern "C" {

// Binds a logger of `kind` (FS_LOGGER_MAIN or FS_LOGGER_ASYNC). Returns 0 for a
// null logger (nothing changes), else 1 (also for an unknown kind, which
// changes nothing).
LIBFS_API int FS_BindLogger(int kind, ILog* log);
// Binds the job queue; 0 for null, else 1. Without a queue, jobs run inline.
LIBFS_API int FS_BindAsyncQ(IAsyncQ* queue);
// Binds the cache service; 0 for null, else 1. Without one, files cannot be
// opened for writing.
LIBFS_API int FS_BindCache(ICacheService* service);
LIBFS_API void FS_UnbindLogger();  // clears both loggers
LIBFS_API void FS_UnbindAsyncQ();
LIBFS_API void FS_UnbindCache();

// Names the host product; required before Mount and Unmount. INVALID_PARAMETER
// for null. May be called again to replace the name; an empty name leaves the
// library uninitialised.
LIBFS_API AERROR FS_Initialize(const char* product);

// Mounts a volume at `mountPoint` (created when missing) and hands its file
// system to `*outFs`, which the caller may use only when SUCCESS is returned.
// Returns at once; the volume is served on a thread of its own until it is
// unmounted. FS_INITIALIZE_FIRST before FS_Initialize, FS_ALREADY_MOUNTED
// when the point is mounted or being unmounted, FS_DRIVER_ERROR without FUSE,
// FS_MOUNT_ERROR when the mount itself fails. `reserved` is not read.
// `configuration`, when not null, is a JSON text given to the file system
// (as IFileSystem_V2::SetConfiguration) before the volume is attached, so it
// also carries the mount's own options: {"fuse": {"allow_other": true}} lets
// users other than the one who mounted reach the volume. A text that is not
// JSON fails the mount with JSON_PARSE_FAILED.
LIBFS_API AERROR Mount(const char* mountPoint, const char* volumeName, MOUNTTYPE type,
                       IFileSystem_V2** outFs, void* reserved, const char* configuration);

// Asks to unmount `mountPoint`. FS_INVALID_LETTER when nothing is mounted
// there; FS_UNMOUNT_EXIST_UPLOADING while uploads run, unless `force`, which
// cancels them. The volume goes away asynchronously: the mount point is
// removed and FS_GetFileSystemImpl answers null once it is gone.
LIBFS_API AERROR Unmount(const char* mountPoint, bool force);

// The file system mounted at `mountPoint`, or null.
LIBFS_API IFileSystem_V2* FS_GetFileSystemImpl(const char* mountPoint);

// Process-wide state shared by the host and the library, under plain names.
LIBFS_API extern ILog* logger;              // the main logger; null logs nothing
LIBFS_API extern ILog* ajlogger;            // the job logger; stored, never written to
LIBFS_API extern IAsyncQ* aq;               // the job queue; null runs jobs inline
LIBFS_API extern ICacheService* cache;      // the cache service; null: none
LIBFS_API extern std::string productname;   // empty until FS_Initialize
LIBFS_API extern std::atomic<uint64_t> gn;  // the last serial number given to a file node
LIBFS_API extern std::mutex ll;             // guards logger and ajlogger
LIBFS_API extern std::mutex aql;            // guards aq
LIBFS_API extern std::mutex cl;             // guards cache
LIBFS_API extern std::mutex ml;             // reserved

}  // extern "C"

#endif  // LIBFILESYSTEM_ENTRY_POINTS_H_
