// A node of a file system's tree: one remote file or folder.
#ifndef LIBFS_TREE_FILE_H_
#define LIBFS_TREE_FILE_H_

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "data/file_content.h"
#include "foundation/string_utils.h"
#include "foundation/time_utils.h"
#include "libfilesystem/cache.h"
#include "libfilesystem/filesystem.h"
#include "libfilesystem/fs_config.h"
#include "libfilesystem/notifier.h"
#include "libfilesystem/protocol.h"
#include "tree/file_handles.h"
#include "tree/file_records.h"
#include "tree/key_index.h"
#include "tree/listed_child.h"
#include "tree/listing_state.h"

class FindFiles;
class IFileSystemInternal;
struct UploadPlace;
class StreamPipe;

// A node's parent: a plain pointer readable without a lock, and a reference
// that keeps the parent alive for as long as the node lives.
class ParentLink {
  public:
    File* Get() const { return parent_.load(); }
    void Set(File* parent, std::shared_ptr<File> reference) {
        std::lock_guard<std::mutex> lock(mutex_);
        parent_ = parent;
        reference_ = std::move(reference);
    }

  private:
    std::atomic<File*> parent_{nullptr};
    std::mutex mutex_;
    std::shared_ptr<File> reference_;  // guarded by mutex_
};

// Values of File::fileState.
constexpr uint32_t FILE_STATE_NEW = 1;       // a folder never listed
constexpr uint32_t FILE_STATE_LISTED = 2;    // at rest; a folder that has been listed
constexpr uint32_t FILE_STATE_DELETING = 3;  // to be deleted when its handle closes

// A node owns a copy of its remote item's record, knows its parent, its
// children, the protocol that serves it and the file system that owns it,
// and carries the state that reads, writes and uploads of the item need.
// Nodes are always held by shared pointer.
class File : public IFetch, public IFileChanges, public std::enable_shared_from_this<File> {
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
    File* GetParent() const { return parent_.Get(); }
    File* Parent() const { return parent_.Get(); }
    // Puts the node under `parent`. The node holds its parent as long as it
    // lives, so that a node kept by an upload or an open handle after its
    // folder left the tree still reaches it.
    void SetParent(File* parent);
    bool IsRoot() const { return (Info()->attributes & FILE_ATTRIBUTE_ROOT) != 0; }
    bool IsFolder() const { return (Info()->attributes & FILE_ATTRIBUTE_FOLDER) != 0; }
    bool IsUploading() const { return content_.IsUploading(); }
    uint32_t GetFileState() const { return fileState_.load(); }
    void SetFileState(uint32_t state) { fileState_ = state; }
    uint8_t SetModified() { return content_.SetModified(); }
    bool IsModified() const { return content_.IsModified(); }
    void SetNotifier(INotifier* notifier) { notifier_ = notifier; }
    std::recursive_mutex* GetChildLock() { return &children_.lock; }
    uint64_t Serial() const { return serial_; }
    // The node's record. Records are never changed in place: a change builds
    // a new one under the data lock and publishes it, so a reader's snapshot
    // stays consistent without a lock.
    std::shared_ptr<const _FS_FILE_EXT> Info() const { return std::atomic_load(&info_); }
    std::string Name() const;
    std::string Key() const;
    std::string RemoteKey() const;
    FileHandles& Handles() { return handles_; }

    // Remote keys of listed items, kept on a protocol's root so that change
    // reports can find what they name. The index has a lock of its own, so
    // that reports never hold a tree lock while taking another.
    void AddHash(const std::string& key, std::shared_ptr<File> file);
    void RemoveHash(const std::string& key);
    std::shared_ptr<File> FindHash(const std::string& key);
    void ClearHashForChanges();
    // Tells the host that the free space changed.
    void UpdateFreeSpace();
    // Stores the node on the remote at once, empty or with its cached data.
    AERROR Touch(IExportService* service);

    // Namespace changes. Each calls the protocol first and changes the tree
    // only once it succeeded; a failure is reported to the event sink once.
    AERROR CreateDirectory(const char* name);
    AERROR unlink(bool lock);
    // unlink(2) of a file that is still open, which libfuse turns into a
    // rename to a hidden name it deletes at the last close: the remote item
    // is deleted now, and the node lives on, unlisted, under `hiddenName`.
    AERROR Hide(const std::string& hiddenName);
    // Removes this node, which `source` is about to replace under its name,
    // as rename(2) does: a file by a file, an empty folder by a folder.
    AERROR Replace(const File& source, bool lock);
    // Marks the node for deletion when its handle is cleaned up.
    AERROR DeleteFile(_FS_HANDLE_EXT* handle, bool deleting);
    // Renames this node within its folder.
    AERROR RenameFile(std::shared_ptr<File> self, const char* newName, bool notify);
    // Renames `source`, a child of this folder, to `newName`, replacing an
    // item of that name.
    AERROR RenameFile(std::shared_ptr<File> source, const std::string& newName,
                      const std::string& process);
    // Moves this node into `newParent`, renaming it when `newName` is not
    // empty and differs from its name.
    AERROR MoveFile(std::shared_ptr<File> self, std::shared_ptr<File> newParent,
                    std::string newName);

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
    // A time as the protocol is to be sent it: a server that keeps its local
    // time gets the local wall-clock time. 0 stays 0.
    long ToServerTime(long t) const;

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
    // The folder's children are all it holds, without a listing.
    void MarkListed();
    bool HasAnyOpenedChildHandle();
    // Whether the folder holds anything but items that exist only locally
    // and are empty (its marker files).
    bool HasEntries();
    void ClearChildrens();
    // The node left the tree for good: a folder lets go of its children.
    void Detach();
    size_t ChildCount();
    // ".", "..", then one entry per child, named as the server spells it.
    AERROR readdir(std::shared_ptr<File> self, std::list<FS_DIR_ENTRY>& out);
    static bool IsUtf8(const char* text);
    // Applies a fresh record of the remote item to the node; with
    // `sameContent` (a rename or move) the cached data stays as it is.
    void Update(const _FS_FILE_V2* record, bool sameContent, bool);

    // For the listing job: a node for `record` with this folder as parent,
    // not yet in the tree; the folder's children; the merge of a completed
    // listing, with the children it did not report; and the end of a
    // listing job.
    std::shared_ptr<File> NewChild(const _FS_FILE_V2* record);
    void CopyChildren(ListedChildren& out);
    void MergeListing(const Children& added, const ListedChildren& unseen);
    void ListingDone(FindFiles* job);

    // File data. `mode` is 'r' or 'w'; `handle` receives the new handle.
    AERROR Open(char mode, unsigned long flags, unsigned long spare, const std::string& processName,
                std::shared_ptr<_FS_HANDLE_EXT>& handle, const char* extra);
    void OpenCache(char mode);
    // Reopens the node's cache object for `mode`, opening one if it has none.
    void ReopenCache(char mode);
    void CloseCache();
    // Tells the cache where this node's content belongs: its path in the
    // volume and its remote, and, when `base` is not null, the remote record
    // that the local changes replace.
    void NoteOrigin(const _FS_FILE_V2* base);
    std::shared_ptr<ICacheObj> CacheObject() const { return content_.CacheObject(); }
    // The node's cache object, opened for reading if it has none (the cache
    // service keeps a file's data after its object closed); null without a
    // cache service.
    std::shared_ptr<ICacheObj> OpenedCache();
    // Makes the data written to the node durable in the cache (fsync, and
    // the close that ends a change). SUCCESS when nothing is cached.
    AERROR SyncCache();
    // Records the data written to the node in the cache so that it survives
    // a crash of the host (a close(2), which does not wait for the release).
    AERROR SaveWrittenCache();
    AERROR ReadFile(_FS_HANDLE_EXT* handle, void* buffer, unsigned long size, unsigned long* read,
                    long long offset, IExportService* exportService);
    AERROR WriteFile(_FS_HANDLE_EXT* handle, const void* buffer, unsigned long size,
                     unsigned long* written, long long offset, IExportService* exportService);
    AERROR SetEndOfFile(_FS_HANDLE_EXT* handle, long long size);
    AERROR SetAllocationSize(_FS_HANDLE_EXT* handle, long long size);
    AERROR ftruncate(const std::string& path, long long size);
    // Whether the file system has `feature` on; never for a node that
    // belongs to none.
    bool HasFeature(FS_FEATURE feature) const;
    bool IsOfflineOnly() const { return (Info()->attributes & FILE_ATTRIBUTE_NO_DELETE) != 0; }
    UploadState GetUploadState() const { return content_.GetUploadState(); }
    // The pipe a running streaming upload takes written data from.
    void SetStreamingPipe(std::shared_ptr<ICacheIO> pipe) {
        content_.SetStreamingPipe(std::move(pipe));
    }
    std::shared_ptr<ICacheIO> StreamingPipe() const { return content_.StreamingPipe(); }
    long long FetchableSize() const { return content_.FetchableSize(); }
    // Real-time upload (stream_upload.cc): `record`'s successful write also
    // goes to the streaming upload, starting one when the write begins an
    // empty file and its process is one the filter streams; anything else
    // abandons a running stream.
    void FeedStream(const std::shared_ptr<_FS_HANDLE_EXT>& record, const _WRITEDATA& request,
                    long long priorSize, IExportService* exportService);
    // The writer `record` closes: ends its stream and waits for the upload.
    void EndStream(const std::shared_ptr<_FS_HANDLE_EXT>& record, IExportService* exportService);
    // Gives the running stream up; the close uploads from the cache.
    void AbandonStream();
    // The upload job of a stream, on the host's queue.
    AERROR RunStream(const std::shared_ptr<_ASYNCJOB>& job,
                     const std::shared_ptr<StreamPipe>& pipe);

    // Handles and background work of the whole subtree.
    void CloseAllHandles();
    // Uploads of this node queued or running.
    int CountUploadings();
    // Stops the running upload and drops the queued ones; the data stays
    // cached.
    void CancelUploadings();
    // Runs the node's queued jobs until none is left.
    void ProcessJobs();
    // Drops the queued jobs that have not started; new data makes them stale.
    void CancelAsyncJobs();
    // Waits until no job of the node runs.
    void WaitAsyncJobs();
    File& operator<<(std::shared_ptr<_ASYNCJOB> job);

    // Uploads the node's cached content once; RETRY_UPLOAD asks for another
    // try.
    AERROR AsyncJobUpload(AERROR result, std::shared_ptr<_ASYNCJOB> job,
                          IExportService* exportService);
    // Uploads at once, on the caller's thread, on behalf of `handle`.
    // `origin` is the open the upload follows: once it is closed, a failure
    // is put to the host (retried or saved), never just returned.
    AERROR UploadNow(std::shared_ptr<_FS_HANDLE_EXT> handle, IExportService* exportService,
                     std::shared_ptr<_FS_HANDLE_EXT> origin = nullptr);
    // Writes the cached content to a local file (through a temporary file
    // renamed into place).
    AERROR SaveCacheToFile(const std::string& path);
    // What the host may do about a failed upload.
    AERROR UploadCacheSave(std::shared_ptr<File> self, const char* localPath);
    AERROR UploadCacheRetry(std::shared_ptr<File> self);
    AERROR UploadCacheCancel(std::shared_ptr<File> self);
    // Releasing `handle`: closes it, uploads new content (queued or at once)
    // when it was the last writer, and carries out a delete on close.
    AERROR Cleanup(_FS_HANDLE_EXT* handle, bool deleting, IExportService* exportService);
    // The handle an upload job of `origin` works on behalf of.
    static std::shared_ptr<_FS_HANDLE_EXT> JobHandle(const std::shared_ptr<_FS_HANDLE_EXT>& origin);
    // The last writer of a changed file closed `record`: makes the data
    // durable and queues the upload, or runs it with --no-async-upload.
    AERROR StoreAfterClose(const std::shared_ptr<_FS_HANDLE_EXT>& record,
                           IExportService* exportService);
    // The node was deleted on the remote: nothing of it is uploaded any more.
    bool IsRemoved() const { return removed_.load(); }
    void UpdateLastWrite() { content_.NoteWrite(); }

  private:
    AERROR RunListing(std::shared_ptr<File> self, bool background);
    // The steps of one upload: what to send and where, sending it, and
    // recording the result (bringing the data to where the node is now if
    // it was renamed meanwhile); a failure is put to the host.
    _FS_FILE_V2 PrepareUpload(const std::shared_ptr<ICacheObj>& cacheObject, const _ASYNCJOB& job,
                              UploadPlace& place, uint64_t& generation);
    AERROR SendUpload(const std::shared_ptr<ICacheObj>& cacheObject, const _ASYNCJOB& job,
                      _FS_FILE_V2& record, const UploadPlace& place, IExportService* exportService,
                      void** cookie);
    AERROR CommitUpload(_FS_FILE_V2& record, const UploadPlace& place, uint64_t generation,
                        const std::shared_ptr<ICacheObj>& cacheObject);
    // Gives the stored item `key` the node's modification time and, for a
    // node with the archive mark, the mark again; true when the time was set.
    bool MarkStoredItem(const std::string& key, const _FS_FILE_EXT& local);
    AERROR FollowPlace(_FS_FILE_V2& record, const UploadPlace& place);
    // The volume's place gate (IFileSystemInternal::PlaceGate); a node of no
    // file system shares one with every other such node.
    std::shared_mutex& PlaceGate();
    AERROR AskAboutFailure(AERROR result, const std::shared_ptr<_ASYNCJOB>& job);
    // Sets the record's size (and the fetchable size) after a truncation,
    // and marks the node; the caller holds the content lock shared.
    void Resize(long long size, bool forgetRemoteContent);
    // Writes the request into the cache object and marks the node; on
    // failure puts back the size the file had before, `priorSize`.
    AERROR WriteToCache(const std::shared_ptr<ICacheObj>& cacheObject, _WRITEDATA& request,
                        long long priorSize, unsigned long* written);
    // Logs a failed write and returns `code`.
    static AERROR WriteFailed(AERROR code);
    // Grows the record's size to the end of the write and fills in the
    // request's file size and fetch source; returns the size before.
    long long GrowForWrite(_WRITEDATA& request, bool streaming);
    // A write to a file at rest, or whose last upload has ended, marks the
    // content written.
    void MarkWritten(bool hasPipe);
    // Writes into the cache object, opening one for writing if needed.
    AERROR WriteToOpenedCache(_WRITEDATA& request, long long priorSize, unsigned long* written);
    std::shared_ptr<StreamPipe> StartStream(const std::shared_ptr<_FS_HANDLE_EXT>& record);
    std::shared_ptr<StreamPipe> CurrentStream();
    void AddMarkerFiles();
    // Replaces the record with `record`; the caller holds dataMutex_.
    void PublishInfo(std::shared_ptr<_FS_FILE_EXT> record) { std::atomic_store(&info_, record); }
    void Notify(NOTIFYEVENT event, const std::wstring& path, const std::wstring* newPath = nullptr);
    // Reports a failed remote operation of `kind` to the event sink.
    void ReportError(int kind, AERROR code, void* cookie);
    // Renames the node (the remote item first when it has one) and, when
    // `rekey`, its entry in the parent's child map.
    AERROR RenameInPlace(const std::string& newName, bool rekey, void** cookie);
    // Deletes the remote item, stopping uploads first; with `keepContent`,
    // the node keeps its content for the handles still open.
    AERROR DeleteRemotely(bool keepContent);
    // Fetches what the cache lacks of the file, so that it stays readable
    // after the remote item is deleted.
    AERROR KeepContentLocally();
    // Detaches a deleted, still open file from the remote and from its name
    // in the cache; its content goes when the last handle closes.
    void SetAside();
    // Forgets the cached content, unsent data included.
    void DropContent();
    // A name for a node on its way to another folder, used by no one else
    // (IsTransitName tells it).
    std::string TransitName() const;
    // Moves the remote item into `newParent`, under its transit name when
    // `renaming`; `record` receives its new record. A node never stored
    // remotely moves only in the tree.
    AERROR MoveRemote(const std::shared_ptr<File>& newParent, bool renaming, _FS_FILE_V2& record);
    // Marks the folder, and the folders below it, to be listed again.
    void ForgetListing();
    // Whether the node or anything below it is open, or has changes not yet
    // uploaded.
    bool HoldsLocalChanges();
    // Forgets the node's children so that the folder is listed again.
    void ForgetChildren();
    // Indexes `node` on the root when the protocol reports changes itself.
    void IndexForChanges(const std::shared_ptr<File>& node);

    std::shared_ptr<_FS_FILE_EXT> info_;
    IFSConfig* config_;
    // Serialises changes of the record (info_) and of remoteKey_.
    mutable std::mutex dataMutex_;
    // The children by folded name, and their lock (the child lock).
    struct ChildSet {
        std::recursive_mutex lock;
        Children map;  // guarded by lock
        // map.size(), readable without the lock.
        std::atomic<size_t> count{0};
    } children_;
    // On the volume's root (made without a parent) only: nodes by remote
    // key, for change reports. Other nodes do without its 96 bytes.
    std::unique_ptr<KeyIndex> hashes_;
    // The parent, held for as long as the node lives.
    ParentLink parent_;
    INotifier* notifier_;
    std::shared_ptr<IProtocol_V2> protocol_;
    std::atomic<uint32_t> fileState_{FILE_STATE_NEW};
    std::string remoteKey_;
    // When the remote record of the file was last checked on open.
    std::atomic<Clock::time_point> lastCheck_{Clock::time_point{}};
    // How times are read from and sent to the server.
    struct ServerTime {
        std::string (*fromServer)(const char*) = NoAdjustServerTimeOffset;
        std::string (*toServer)(long) = NoAdjustOffsetForServerTime;
    } serverTime_;
    IFileSystemInternal* fileSystem_;
    ListingState listing_;
    // Serialises changes of the node's remote name or place (rename, move)
    // with the start and the end of its uploads. Lookups never take it, and
    // it is never held while data is sent.
    std::mutex placeLock_;
    std::atomic<bool> removed_{false};
    // The cache object, upload state, streaming pipe and job queue.
    FileContent content_;
    FileHandles handles_;
    uint64_t serial_;
};

// Whether `name` is one a node takes only on its way to another folder.
bool IsTransitName(const std::string& name);

#endif  // LIBFS_TREE_FILE_H_
