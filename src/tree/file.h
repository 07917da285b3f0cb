// A node of a file system's tree: one remote file or folder.
#ifndef LIBFS_TREE_FILE_H_
#define LIBFS_TREE_FILE_H_

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "fs/file_handles.h"
#include "libfilesystem/cache.h"
#include "libfilesystem/filesystem.h"
#include "libfilesystem/fs_config.h"
#include "libfilesystem/notifier.h"
#include "libfilesystem/protocol.h"
#include "tree/file_records.h"

class FindFiles;
class IFileSystemInternal;
struct _ASYNCJOB;

// Values of File::fileState.
constexpr uint32_t FILE_STATE_NEW = 1;       // a folder never listed
constexpr uint32_t FILE_STATE_LISTED = 2;    // at rest; a folder that has been listed
constexpr uint32_t FILE_STATE_DELETING = 3;  // to be deleted when its handle closes

// A node owns a copy of its remote item's record, knows its parent, its
// children, the protocol that serves it and the file system that owns it,
// and carries the state that reads, writes and uploads of the item need.
// Nodes are always held by shared pointer.
class File : public IFetch, public IFileChanges {
  public:
    using Clock = std::chrono::steady_clock;
    using Children = std::unordered_map<std::string, std::shared_ptr<File>>;

    // `record` is null for the root of a protocol's tree.
    File(std::shared_ptr<IProtocol_V2> protocol, IFileSystemInternal* fs, IFSConfig* config,
         const _FS_FILE_V2* record, File* parent, INotifier* notifier);

    // IFetch: downloads a range of the item for the cache service.
    AERROR Fetch(long long offset, long long size, std::shared_ptr<_FS_HANDLE> handle,
                 IFetchCallback* callback) override;
    virtual void* GetContext();
    virtual ~File();

    // IFileChanges: remote changes reported to a protocol's root.
    AERROR Added(const char* key, _FS_FILE_V2* record) override;
    AERROR Removed(const char* key, const char* name) override;
    AERROR Changed(const char* key, _FS_FILE_V2* record) override;
    AERROR Refresh(const char* key) override;

    // Accessors.
    std::shared_ptr<IProtocol_V2> GetProtocol() const { return protocol_; }
    _FS_CONFIG GetConfig() const;
    std::shared_ptr<IFSEvent> GetFSEvent() const;
    std::string MountPoint() const;
    File* GetRootFile();
    File* GetParent() const { return parent_; }
    bool IsRoot() const { return (Info()->attributes & FILE_ATTRIBUTE_ROOT) != 0; }
    bool IsFolder() const { return (Info()->attributes & FILE_ATTRIBUTE_FOLDER) != 0; }
    bool IsUploading() const {
        const uint32_t state = uploadState_.load();
        return state == 3 || state == 4;
    }
    uint32_t GetFileState() const { return fileState_.load(); }
    void SetFileState(uint32_t state) { fileState_ = state; }
    uint8_t SetModified() { return modified_.exchange(1); }
    bool IsModified() const { return modified_.load() != 0; }
    void SetNotifier(INotifier* notifier) { notifier_ = notifier; }
    std::recursive_mutex* GetChildLock() { return &childLock_; }
    uint64_t Serial() const { return serial_; }
    // The node's record. Records are never changed in place: a change builds
    // a new one under the data lock and publishes it, so a reader's snapshot
    // stays consistent without a lock.
    std::shared_ptr<const _FS_FILE_EXT> Info() const { return std::atomic_load(&info_); }
    std::string Name() const;
    std::string Key() const;
    std::string RemoteKey() const;
    FileHandles& Handles() { return handles_; }

    // Remote keys of folders, kept on a protocol's root so that change
    // reports can find the folder they name. The caller holds the child lock.
    void AddHash(const std::string& key, std::shared_ptr<File> file) { hashes_[key] = file; }
    void ClearHashForChanges();

    static time_t FileTimeToTimet(uint32_t low, uint32_t high);

    // Paths, built by walking up to the root. The root's own path is empty.
    std::string BuildPathA(char sep) const;
    std::wstring BuildPath(char sep) const;
    std::string BuildLocalPathA(char sep) const;
    std::string BuildOriginPathA() const;
    std::wstring BuildPathForCache(char sep) const;
    std::string GetFileNameForPrint() const;
    std::wstring GetFileNameForPrintW() const;
    std::string BuildPathForPrint(char sep, bool raw) const;
    std::wstring BuildPathForPrintW(char sep, bool raw) const;

    // The attributes shown to the operating system.
    int getattr(struct stat* st);
    int access(int mask);
    AERROR SetFileAttributes(unsigned long attributes, IExportService* service);
    // Sets the item's times (seconds since the epoch; 0 leaves one as it is),
    // remotely when the protocol can, and on the node.
    AERROR SetFileTime(long createTime, long accessTime, long modifyTime);

    // Children. `lock` says whether the call takes the child lock itself
    // (true) or runs inside a caller that holds it (false).
    std::shared_ptr<File> AddChild(const _FS_FILE_V2* record, bool lock);
    void AddChild(std::shared_ptr<File> node, bool lock);
    std::shared_ptr<File> RemoveChild(const char* name, bool lock);
    std::shared_ptr<File> operator<<(const _FS_FILE_V2* record) { return AddChild(record, true); }
    std::shared_ptr<File> GetFileWithNoFetch(const char* name);
    // Looks `name` up, listing the folder first when its listing is due.
    std::shared_ptr<File> GetFile(const char* name, std::shared_ptr<File> self);
    // Lists the folder: synchronously the first time (or when background
    // refresh is off), afterwards in the background once the listing is
    // older than the refresh interval.
    AERROR FetchList(std::shared_ptr<File> self);
    // Lists the folder now, whatever the age of its last listing.
    AERROR FetchListWithNoDetectChanges(std::shared_ptr<File> self);
    bool HasAnyOpenedChildHandle();
    void ClearChildrens();
    size_t ChildCount();
    // ".", "..", then one entry per child, named as the server spells it.
    AERROR readdir(std::shared_ptr<File> self, std::list<FS_DIR_ENTRY>& out);
    static bool IsUtf8(const char* text);
    // Stops this folder from being listed (folders that exist only locally).
    void SetNoListing(bool value) { noListing_ = value; }

    // Applies a fresh record of the remote item to the node.
    void Update(const _FS_FILE_V2* record, bool, bool);

    // For the listing job: a node for `record` with this folder as parent,
    // not yet in the tree; the folder's children; the merge of a completed
    // listing; and the end of a listing job.
    std::shared_ptr<File> NewChild(const _FS_FILE_V2* record);
    void CopyChildren(Children& out);
    void MergeListing(const Children& added, const Children& unseen);
    void ListingDone(FindFiles* job);

    // Handles and background work of the whole subtree.
    void CloseAllHandles();
    int CountUploadings();
    void CancelUploadings();
    void ProcessJobs();

  private:
    AERROR RunListing(std::shared_ptr<File> self, bool background);
    void AddMarkerFiles();
    // Replaces the record with `record`; the caller holds dataMutex_.
    void PublishInfo(std::shared_ptr<_FS_FILE_EXT> record) { std::atomic_store(&info_, record); }
    void Notify(NOTIFYEVENT event, const std::wstring& path, const std::wstring* newPath = nullptr);

    std::atomic<Clock::time_point> listedAt_{Clock::time_point{}};
    std::atomic<Clock::time_point> updatedAt_;
    std::shared_ptr<_FS_FILE_EXT> info_;
    IFSConfig* config_;
    std::recursive_mutex childLock_;
    mutable std::mutex dataMutex_;
    std::mutex stateMutex_;
    Children children_;
    // children_.size(), readable without the child lock.
    std::atomic<size_t> childCount_{0};
    Children hashes_;
    File* parent_;
    std::shared_ptr<ICacheObj> cacheObject_;  // guarded by dataMutex_
    std::string cacheKey_;                    // guarded by dataMutex_
    // The cache service may hold clean data of an older remote version of
    // this file (from before this node existed, or from before a remote
    // change seen while no cache object was open): the next cache object
    // opened drops it first.
    std::atomic<bool> cacheStale_{true};
    INotifier* notifier_;
    std::shared_ptr<IProtocol_V2> protocol_;
    std::mutex listingMutex_;  // guards pendingListing_
    std::shared_ptr<FindFiles> pendingListing_;
    std::shared_ptr<ICacheIO> streamingPipe_;
    std::atomic<uint32_t> fileState_{FILE_STATE_NEW};
    std::atomic<uint32_t> uploadState_{1};
    std::atomic<uint8_t> modified_{0};
    std::atomic<bool> noListing_{false};
    std::string remoteKey_;
    std::string (*adjustTime_)(const char*);
    std::string (*adjustOffset_)(long);
    IFileSystemInternal* fileSystem_;
    std::atomic<bool> listed_{false};
    std::mutex jobLock_;
    std::deque<std::shared_ptr<_ASYNCJOB>> jobs_;
    FileHandles handles_;
    uint64_t serial_;
};

// Folds a name to the lower-case form children are keyed by. Only ASCII
// letters change; bytes of multi-byte UTF-8 sequences stay as they are.
std::string FoldName(const std::string& name);

#endif  // LIBFS_TREE_FILE_H_
