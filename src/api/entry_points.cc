// The exported C entry points: binding the host's services, initialising,
// and the thin forwards into the mount manager.
#include "libfilesystem/entry_points.h"

#include <mutex>
#include <string>

#include "api/mount_manager.h"
#include "services/log.h"

extern "C" {

LIBFS_API int FS_BindLogger(int kind, ILog* log) {
    if (log == nullptr) return 0;
    std::lock_guard<std::mutex> lock(ll);
    if (kind == FS_LOGGER_MAIN) {
        logger = log;
    } else if (kind == FS_LOGGER_ASYNC) {
        ajlogger = log;
    }
    return 1;
}

LIBFS_API int FS_BindAsyncQ(IAsyncQ* queue) {
    if (queue == nullptr) return 0;
    std::lock_guard<std::mutex> lock(aql);
    aq = queue;
    return 1;
}

LIBFS_API int FS_BindCache(ICacheService* service) {
    if (service == nullptr) return 0;
    std::lock_guard<std::mutex> lock(cl);
    cache = service;
    return 1;
}

LIBFS_API void FS_UnbindLogger() {
    std::lock_guard<std::mutex> lock(ll);
    logger = nullptr;
    ajlogger = nullptr;
}

LIBFS_API void FS_UnbindAsyncQ() {
    std::lock_guard<std::mutex> lock(aql);
    aq = nullptr;
}

LIBFS_API void FS_UnbindCache() {
    std::lock_guard<std::mutex> lock(cl);
    cache = nullptr;
}

LIBFS_API AERROR FS_Initialize(const char* product) {
    if (product == nullptr) return INVALID_PARAMETER;
    productname = product;
    __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] FS_Initilize");
    return SUCCESS;
}

LIBFS_API AERROR Mount(const char* mountPoint, const char* volumeName, MOUNTTYPE type,
                       IFileSystem_V2** outFs, void* reserved, const char* configuration) {
    return MountManager::GetInstance().Mount(mountPoint, volumeName, type, outFs, reserved,
                                             configuration, EXPORT_SERVICE_FUSE);
}

LIBFS_API AERROR Unmount(const char* mountPoint, bool force) {
    return MountManager::GetInstance().Unmount(mountPoint, force);
}

LIBFS_API IFileSystem_V2* FS_GetFileSystemImpl(const char* mountPoint) {
    if (mountPoint == nullptr) return nullptr;
    return MountManager::GetInstance().GetFileSystem(std::string(mountPoint));
}

}  // extern "C"
