// The file system behind one mounted volume.
#ifndef LIBFS_FS_FILESYSTEM_H_
#define LIBFS_FS_FILESYSTEM_H_

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "foundation/config.h"
#include "foundation/semaphore.h"
#include "fs/filesystem_interfaces.h"
#include "libfilesystem/async.h"
#include "libfilesystem/fs_config.h"
#include "tree/file_handles.h"

class File;

// One protocol whose tree the file system overlays at the root.
struct _FS_PROTOCOL {
    std::shared_ptr<File> root;
    std::shared_ptr<IProtocol_V2> protocol;
    std::mutex mutex;  // serialises change polls and quota queries
    std::chrono::steady_clock::time_point lastChangePoll{};
    unsigned long long quotaTotal = 0;
    unsigned long long quotaUsed = 0;
    std::chrono::steady_clock::time_point lastQuota{};
    bool quotaValid = false;
};

// The ten configuration settings, in the order of _FS_CONFIG.
enum ConfigIndex : size_t {
    CONFIG_FSTIMEOUT,
    CONFIG_FETCHASYNC,
    CONFIG_FETCHSYNC,
    CONFIG_READTIMEOUT,
    CONFIG_WRITETIMEOUT,
    CONFIG_TIMEOUT_RESET,
    CONFIG_FILEINFO_INTERVAL,
    CONFIG_CHANGES_INTERVAL,
    CONFIG_QUOTA_INTERVAL,
    CONFIG_CALLBACK_INTERVAL,
    CONFIG_COUNT,
};

class FileSystem final : public IFileSystemImpl,
                         public IAsyncObj,
                         public IFSConfig,
                         public IFileSystemInternal {
  public:
    FileSystem(std::wstring mountPointWide, std::string volumeName, std::string mountPoint,
               FS_FEATURE features);
    ~FileSystem() override;

    // Configuration, names, features and protocols.
    AERROR SetFSName(const char* name) override;
    AERROR SetVolName(const char* name) override;
    AERROR SetFSFilter(std::shared_ptr<IFSFilter> filter) override;
    std::shared_ptr<IFSFilter> GetFSFilter() override;
    int GetProtocolCount() override;
    AERROR GetProtocol(int index, std::shared_ptr<IProtocol_V2>& out) override;
    AERROR SetFeature(FS_FEATURE bits) override;
    AERROR RemoveFeature(FS_FEATURE bits) override;
    FS_FEATURE GetFeature() override;
    AERROR SetFSEvent(std::shared_ptr<IFSEvent> sink) override;
    std::shared_ptr<IFSEvent> GetFSEvent() override;
    AERROR SetConfiguration(const char* json) override;
    AERROR AddProtocol(std::shared_ptr<IProtocol_V2> protocol, const char* name) override;
    std::string GetLetter() override;
    std::string GetVolumeLabel() override;
    std::string GetMountPoint() override;
    void SetNotifier(INotifier* notifier) override;
    _FS_CONFIG GetConfig() override;
    // Takes the values of the configuration store into effect.
    void ApplyConfig();

    // Background work and teardown.
    AERROR UploadCacheSave(const char* path, const char* localPath) override;
    AERROR UploadCacheRetry(const char* path) override;
    AERROR UploadCacheCancel(const char* path) override;
    int CountUploadings() override;
    void CancelUploadings();
    void QueueFile(std::shared_ptr<File> file) override;
    void Process(void* context) override;
    void Canceled(void* context) override;
    void Finalize() override;
    void Destroy() override;

    // Volume operations.
    int Create(const char* path, unsigned short mode, int flags, unsigned long long& handle,
               IExportService* service, std::string process) override;
    int MakeNode(const char* path, unsigned short mode, int dev, std::string process) override;
    int MakeDir(const char* path, unsigned short mode, std::string process) override;
    int Open(const char* path, int flags, unsigned long long& handle, std::string process) override;
    int OpenDir(const char* path, std::string process) override;
    int ReleaseDir(const char* path, std::string process) override;
    int Release(unsigned long long& handle, IExportService* service, std::string process) override;
    int GetAttr(const char* path, struct stat* st, std::string process) override;
    int GetAttrByHandle(unsigned long long handle, struct stat* st, std::string process) override;
    int ReadDir(const char* path, std::list<FS_DIR_ENTRY>& entries, std::string process) override;
    int Ftruncate(unsigned long long handle, long long size, std::string process) override;
    int UtimeNs(const char* path, const struct timespec times[2], unsigned long long handle,
                std::string process) override;
    int Access(const char* path, int mask, std::string process) override;
    int Unlink(const char* path, std::string process) override;
    int RemoveDir(const char* path, std::string process) override;
    int Rename(const char* from, const char* to, std::string process) override;
    int Read(unsigned long long handle, char* buffer, unsigned long size, long long offset,
             IExportService* service, std::string process) override;
    int Write(unsigned long long handle, const char* buffer, unsigned long size, long long offset,
              IExportService* service, std::string process) override;
    int ChangeMode(const char* path, unsigned short mode, IExportService* service,
                   std::string process) override;
    int ChangeOwner(const char* path, unsigned int uid, unsigned int gid,
                    std::string process) override;
    int StatFs(const char* path, struct statvfs* sv, std::string process) override;
    int Flush(const char* path, std::string process) override;

    // Truncates the file at `path`, as if opened for writing, truncated and
    // released.
    int Truncate(const char* path, long long size, IExportService* service,
                 std::string process) override;
    int Fsync(unsigned long long handle, bool dataOnly, std::string process) override;
    int KeepWritten(unsigned long long handle, std::string process) override;
    // Creates the node of a new file in `parent`, on the remote too when its
    // protocol stores new files at once.
    AERROR CreateNewFile(std::shared_ptr<File> parent, std::string name, unsigned long attributes,
                         IExportService* service, std::string process, std::shared_ptr<File>& out);

    // Path resolution. The canonical path is lower case (unless keepCase),
    // "/"-separated, without ".", ".." or empty parts and without a leading
    // separator; the root is "".
    static std::string ToExactPath(const char* path, bool keepCase);
    static std::string ToExactPath(const wchar_t* path, bool keepCase);
    // Resolves a canonical path over every protocol's tree, polling a
    // protocol for remote changes on a miss.
    AERROR GetFile(const char* path, std::shared_ptr<File>& out);
    // The node of `path` as the volume names it (not yet canonical).
    AERROR FindNode(const char* path, std::shared_ptr<File>& out);
    static AERROR GetFile(const char* path, std::shared_ptr<File> root, std::shared_ptr<File>& out);
    AERROR GetParent(const char* path, std::shared_ptr<File>& out);
    static std::string GetObjectName(const char* path, const char* separators);
    static std::wstring GetObjectName(const wchar_t* path, const wchar_t* separators);
    bool IsOfflineOnly(const char* process, const char* name);

    // Handle numbers. RegisterHandle gives `record` the next number (the
    // first is 1; numbers are never reused) and enters it in the handle map;
    // UnregisterHandle takes the number out again.
    std::shared_ptr<_FS_HANDLE_EXT> GetHandle(unsigned long long id);
    unsigned long long RegisterHandle(std::shared_ptr<_FS_HANDLE_EXT> record,
                                      std::shared_ptr<File> file, const std::string& process,
                                      const std::string& path);
    void UnregisterHandle(unsigned long long id, const std::string& process);
    // The record of handle number `handle`, logging whether it was found.
    std::shared_ptr<_FS_HANDLE_EXT> FindHandle(unsigned long long handle,
                                               const std::string& process);

    int WorkerCount() const { return workerCount_; }
    void JobStarted() override;
    void JobFinished() override;
    std::shared_mutex& PlaceGate() override { return placeGate_; }

  private:
    // Both ends of a rename, resolved.
    struct RenamePlan {
        std::shared_ptr<File> source;
        std::shared_ptr<File> sourceDir;
        std::shared_ptr<File> destinationDir;
        std::string newName;           // the final name, as the caller spelled it
        std::shared_ptr<File> target;  // what the rename replaces, if anything
    };
    int PlanRename(const char* from, const char* to, RenamePlan& plan);
    // libfuse's rename of a file unlinked while open to a hidden name.
    int Hide(const char* from, const char* to, std::string process);
    // Files unlinked while open, by hidden name: found by that name even
    // after their folder moved or was listed anew, until libfuse deletes
    // them at the last close. SetHidden with a null node forgets the name.
    bool FindHidden(const std::string& path, std::shared_ptr<File>& out);
    void SetHidden(const std::string& name, std::shared_ptr<File> node);
    // Logs an operation's outcome and converts it for FUSE.
    int Outcome(const char* operation, AERROR result, const std::string& process, const char* path);
    // Asks the protocol of `entry` for remote changes when it reports them
    // itself and its last poll is older than the changes interval.
    void PollChanges(_FS_PROTOCOL& entry);
    std::vector<std::shared_ptr<_FS_PROTOCOL>> Protocols();
    // Resolves `path` and runs a node's upload-recovery `operation` on it.
    AERROR UploadRecovery(const char* name, AERROR (File::*operation)(std::shared_ptr<File>),
                          const char* path);
    // Runs the queued nodes' jobs until the queue is empty.
    void DrainQueue();
    // Sets one of the names under the names lock, logging the change.
    AERROR SetName(const char* what, std::string& name, const char* next);
    // Takes the first queued node (null: a stop signal); false when the
    // queue is empty.
    bool PopQueued(std::shared_ptr<File>& file);
    // Runs a queued node's jobs and lets it be queued again.
    void RunQueued(const std::shared_ptr<File>& file);

    std::mutex mutex_;
    std::unordered_map<std::string, std::shared_ptr<_FS_PROTOCOL>> protocols_;
    std::vector<std::shared_ptr<_FS_PROTOCOL>> protocolOrder_;
    int protocolCount_ = 0;
    std::mutex namesMutex_;
    std::string fsName_;
    std::string volumeLabel_;
    std::string letter_;
    std::string mountPoint_;
    std::wstring mountPointWide_;
    std::atomic<uint32_t> features_;
    std::mutex pointersMutex_;
    std::shared_ptr<IFSFilter> filter_;
    std::shared_ptr<IFSEvent> fsEvent_;
    std::atomic<INotifier*> notifier_{nullptr};
    std::mutex configMutex_;
    Config config_;
    std::array<int64_t, CONFIG_COUNT> configValues_{};

    std::atomic<uint64_t> handleCounter_{0};
    std::mutex handleMapMutex_;
    std::mutex hiddenMutex_;
    std::unordered_map<std::string, std::shared_ptr<File>> hidden_;  // guarded by hiddenMutex_
    std::unordered_map<uint64_t, std::shared_ptr<_FS_HANDLE_EXT>> handleMap_;

    std::mutex queueMutex_;
    std::deque<std::shared_ptr<File>> fileQueue_;
    std::unordered_map<File*, std::shared_ptr<File>> queued_;
    Semaphore queueSemaphore_{0};
    int workerCount_ = 4;
    // Serialises folder moves with the several-call moves of files below.
    std::shared_mutex placeGate_;
    // Workers handed to the host's queue that have not ended yet; teardown
    // waits for them, since they run on this object. With no queue the
    // workers ran inline at construction and the queue is drained by
    // QueueFile itself.
    std::mutex workersMutex_;
    std::condition_variable workersDone_;
    int workersOnQueue_ = 0;
    int backgroundJobs_ = 0;
    std::atomic<int> inlineRuns_{0};
    std::atomic<bool> destroyed_{false};
};

#endif  // LIBFS_FS_FILESYSTEM_H_
