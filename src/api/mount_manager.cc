#include "api/mount_manager.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <system_error>
#include <thread>

#include "export/export_service_fuse.h"
#include "export/notify_export_service.h"
#include "foundation/json_object.h"
#include "foundation/string_utils.h"
#include "fs/filesystem.h"
#include "libfilesystem/entry_points.h"
#include "services/log.h"

namespace {

// Whether the configuration text asks for other users to reach the volume.
bool WantsAllowOther(const char* configuration) {
    if (configuration == nullptr) return false;
    try {
        JsonObject json(configuration);
        if (!json.HasObject("/fuse/allow_other")) return false;
        JsonObject value = json.GetObject("/fuse/allow_other");
        const std::string text = value;
        return text == "1" || text == "true";
    } catch (...) {
        return false;
    }
}

// The file-system features that the mount type asks for, each one logged.
uint32_t FeaturesFor(MOUNTTYPE type, const std::string& point) {
    uint32_t features = 0;
    if ((type & MT_NO_ASYNC_UPLOAD) != 0) {
        __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] %s: Async Upload Off", point.c_str());
    } else {
        features = FEATURE_ASYNC_UPLOAD;
        __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] %s: Async Upload On", point.c_str());
    }
    if ((type & MT_REALTIME_UPLOAD) != 0) {
        features |= FEATURE_REALTIME_UPLOAD;
        __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] %s: Realtime Upload On", point.c_str());
    } else {
        __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] %s: Realtime Upload Off", point.c_str());
    }
    return features;
}

}  // namespace

struct MountManager::MountData {
    std::wstring mountPoint;
    std::wstring volumeName;
    std::shared_ptr<std::thread> thread;
    std::shared_ptr<INotifier> notifier;
    std::shared_ptr<FileSystem> fileSystem;
    std::shared_ptr<IExportService> exportService;
    // Set when the finalising thread could not start: the mount thread
    // finalises itself after its request loop.
    std::shared_ptr<std::atomic<bool>> finalizeOnMountThread =
        std::make_shared<std::atomic<bool>>(false);

    void SetExportService(IExportService* service) {
        exportService = std::shared_ptr<IExportService>(service, [](IExportService* s) {
            if (s != nullptr) s->Release();
        });
    }

    // Joins the mount thread, finalises and destroys the file system, and
    // releases the rest; runs once.
    void Close() {
        if (closed) return;
        closed = true;
        if (thread && thread->joinable()) {
            // The mount thread finalising itself cannot wait for itself.
            if (thread->get_id() == std::this_thread::get_id()) {
                thread->detach();
            } else {
                thread->join();
            }
        }
        if (fileSystem) fileSystem->Finalize();
        if (IAsyncQ* queue = aq) queue->Drain();
        if (fileSystem) fileSystem->Destroy();
        exportService.reset();
        notifier.reset();
        thread.reset();
    }

    // The file system object itself goes last: lookups in the table may
    // still read its address while the entry is being closed.
    ~MountData() {
        Close();
        fileSystem.reset();
    }

    bool closed = false;
};

MountManager::MountManager() {
    mounts_.max_load_factor(1.0);
}
MountManager::~MountManager() = default;

MountManager& MountManager::GetInstance() {
    static MountManager instance;
    return instance;
}

IExportService* MountManager::CreateExportService(EXPORT_SERVICE_TYPE type) {
    switch (type) {
        case EXPORT_SERVICE_FUSE:
        case EXPORT_SERVICE_FUSE_ALT:
            return new ExportServiceFUSE();
        case EXPORT_SERVICE_RPC:
            return new ExportServiceRPC();
        default:
            return nullptr;
    }
}

AERROR MountManager::Mount(const char* mountPoint, const char* volumeName, MOUNTTYPE type,
                           IFileSystem_V2** outFs, void* /*reserved*/, const char* configuration,
                           EXPORT_SERVICE_TYPE serviceType) {
    const std::string point = mountPoint != nullptr ? mountPoint : "";
    const std::string volume = volumeName != nullptr ? volumeName : "";
    __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] Mount Drive %s", point.c_str());
    if (productname.empty()) return FS_INITIALIZE_FIRST;

    std::lock_guard<std::mutex> lock(mutex_);
    if (outFs == nullptr || point.empty()) return INVALID_PARAMETER;
    {
        std::lock_guard<std::mutex> table(tableMutex_);
        if (mounts_.count(point) != 0) {
            __LOG__A(CurrentLogger(), LL_WARNING, "[FILESYSTEM] %s already mounted", point.c_str());
            return FS_ALREADY_MOUNTED;
        }
    }
    const std::wstring widePoint = s2ws(point);
    IExportService* service = CreateExportService(serviceType);
    if (service == nullptr) return NOT_SUPPORTED;

    auto data = std::make_shared<MountData>();
    data->SetExportService(service);
    const uint32_t features = FeaturesFor(type, point);
    data->mountPoint = widePoint;
    data->volumeName = s2ws(volume);
    data->fileSystem =
        std::make_shared<FileSystem>(widePoint, volume, point, static_cast<FS_FEATURE>(features));
    if (configuration != nullptr) {
        const AERROR result = data->fileSystem->SetConfiguration(configuration);
        if (result != SUCCESS) return result;
    }
    service->SetFileSystem(data->fileSystem.get());
    data->notifier = std::make_shared<NotifyExportService>(service, widePoint);
    mkdir(point.c_str(), 0700);
    *outFs = data->fileSystem.get();
    data->fileSystem->SetNotifier(data->notifier.get());

    if (service->GetDriverState() != 0) return FS_DRIVER_ERROR;
    MountParameter parameter;
    parameter.type = type;
    parameter.allowOther = WantsAllowOther(configuration);
    parameter.mountPoint = point;
    parameter.volumeName = volume;
    parameter.unmountCallback = [this](const char* unmounted) { UnmountFinalize(unmounted); };
    const int result = service->Mount(parameter);
    if (result != 0) {
        __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] Mount failed : %d(%s, %s)", result,
                 point.c_str(), volume.c_str());
        return FS_MOUNT_ERROR;
    }
    auto finalizeHere = data->finalizeOnMountThread;
    data->thread = std::make_shared<std::thread>([this, service, finalizeHere, point] {
        service->Wait();
        if (finalizeHere->load()) Finalize(point);
    });
    std::lock_guard<std::mutex> table(tableMutex_);
    mounts_.emplace(point, data);
    return SUCCESS;
}

AERROR MountManager::Unmount(const char* mountPoint, bool force) {
    if (productname.empty()) return FS_INITIALIZE_FIRST;
    const std::string point = mountPoint != nullptr ? mountPoint : "";
    std::lock_guard<std::mutex> lock(mutex_);
    std::shared_ptr<MountData> data;
    {
        std::lock_guard<std::mutex> table(tableMutex_);
        auto it = mounts_.find(point);
        if (it != mounts_.end()) data = it->second;
    }
    if (!data) {
        __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] %s not mounted", point.c_str());
        return FS_INVALID_LETTER;
    }
    if (data->fileSystem->CountUploadings() > 0) {
        if (!force) return FS_UNMOUNT_EXIST_UPLOADING;
        data->fileSystem->CancelUploadings();
    }
    __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] Unmounting %s...", point.c_str());
    data->exportService->Unmount();
    if (force) {
        if (auto* fuse = dynamic_cast<ExportServiceFUSE*>(data->exportService.get())) {
            fuse->AbortConnection();
        }
    }
    return SUCCESS;
}

IFileSystem_V2* MountManager::GetFileSystem(const std::string& mountPoint) {
    std::lock_guard<std::mutex> table(tableMutex_);
    auto it = mounts_.find(mountPoint);
    return it == mounts_.end() ? nullptr : it->second->fileSystem.get();
}

MountManager::ThreadStarter MountManager::startThread = [](std::function<void()> body) {
    std::thread(std::move(body)).detach();
};

void MountManager::UnmountFinalize(const char* mountPoint) {
    // The mount thread calls this from inside its own teardown, and the
    // finalising thread is about to join it: the finalising thread must
    // outlive the caller, so it is detached.
    const std::string point(mountPoint != nullptr ? mountPoint : "");
    try {
        startThread([this, point] { Finalize(point); });
    } catch (const std::system_error&) {
        // Nothing may be thrown into the volume's teardown.
        __LOG__A(CurrentLogger(), LL_ERROR, "[FILESYSTEM] %s: thread constructor failed",
                 point.c_str());
        std::lock_guard<std::mutex> table(tableMutex_);
        auto it = mounts_.find(point);
        if (it != mounts_.end()) *it->second->finalizeOnMountThread = true;
    }
}

void MountManager::Finalize(std::string mountPoint) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::shared_ptr<MountData> data;
    {
        std::lock_guard<std::mutex> table(tableMutex_);
        auto it = mounts_.find(mountPoint);
        if (it != mounts_.end()) data = it->second;
    }
    if (data) data->Close();
    rmdir(mountPoint.c_str());
    __LOG__A(CurrentLogger(), LL_INFO, "[FILESYSTEM] %s unmounted", mountPoint.c_str());
    // The entry leaves the table last: a host that sees no file system at
    // the point may unbind and destroy its services at once, so nothing here
    // touches them afterwards.
    std::lock_guard<std::mutex> table(tableMutex_);
    mounts_.erase(mountPoint);
}
