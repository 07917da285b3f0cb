// An in-memory remote for the library's tests and benchmarks: a tree of
// folders and files reached through IProtocol_V2, with switches that make
// operations fail, wait or slow down, and counters. The root's key is "/";
// other items get "k1", "k2"... and keep it through renames, moves and
// overwrites. Helpers name items by "/"-separated paths.
//
// It refuses what a careful remote refuses, so that library faults show:
// MoveItem/DeleteItem on a folder, MoveFolder/DeleteFolder on a file, and
// RenameItem with a parentKey other than the item's folder are
// INVALID_PARAMETER; SetItemTime without PROTOCOL_CAP_SET_TIME is
// NOT_SUPPORTED; an upload whose source ends before record->size stores
// nothing (FILE_READ_FAILED). Each failure with a cookie slot stores a new
// cookie, which the library must release exactly once. One mutex guards all
// state and is never held while calling back into the library.
#ifndef LIBFS_TESTS_SUPPORT_MEMORY_PROTOCOL_H_
#define LIBFS_TESTS_SUPPORT_MEMORY_PROTOCOL_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "libfilesystem/protocol.h"

class MemoryProtocol : public IProtocol_V2 {
    // Runs `body` under the one mutex (defined first, for the inline helpers).
    template <typename F>
    auto Locked(F body) const {
        std::lock_guard<std::mutex> lock(mu_);
        return body();
    }

  public:
    // The remote operations, for counters and switches.
    enum class Op {
        GetQuota,
        GetItem,
        Download,
        ListFolder,
        GetChanges,
        RenameItem,
        MoveItem,
        MoveFolder,
        CreateFolder,
        DeleteItem,
        DeleteFolder,
        UploadItem,
        SetItemTime,
        GetRootKey,
    };

    // The times of items that the setup helpers create unless told otherwise.
    static constexpr const char* kDefaultTime = "2024-01-05T07:08:09.000Z";

    explicit MemoryProtocol(std::string identity = "memory://test");
    ~MemoryProtocol() override;

    // ---- Tree setup (no change reports, no counters) ----
    // Both create missing parent folders and return the item's key, or ""
    // when a file stands where a folder should (or the reverse). AddFile
    // replaces an existing file's contents and times, keeping its key.
    std::string AddFolder(const std::string& path);
    std::string AddFile(const std::string& path, const std::string& contents,
                        const std::string& modifyTime = kDefaultTime);

    // ---- Inspection ----
    bool GetContents(const std::string& path, std::string* out) const;
    bool Exists(const std::string& path) const;

    // ---- Remote-side changes, queued for GetChanges ----
    // Adds a file whose folder exists: Added(parentKey, record).
    bool RemoteAdd(const std::string& path, const std::string& contents);
    // Removes an item and everything below it: Removed(parentKey, name).
    bool RemoteRemove(const std::string& path);
    // Replaces a file's contents: Changed(itemKey, record).
    bool RemoteChange(const std::string& path, const std::string& contents);
    // Refresh(folderKey), changing nothing.
    bool QueueRefresh(const std::string& folderPath);

    // ---- Behaviour switches ----
    void SetCapabilities(unsigned int caps) { Set(caps_, caps); }       // default PARTIAL_READ
    void SetQuota(unsigned long long total, unsigned long long used) {  // default 1 GiB, 0
        Locked([&] { quotaTotal_ = total, quotaUsed_ = used; });
    }
    void SetPieceSize(std::size_t bytes) { Set(pieceSize_, bytes); }  // largest piece fetched
    // Sleeps this long at the start of every remote operation.
    void SetDelay(std::chrono::milliseconds delay) { Set(delay_, delay); }
    // The next `times` calls of `op` (every call, with FailAlways) fail with
    // `code` before touching anything.
    void FailNext(Op op, AERROR code, int times = 1) {
        Locked([&] { failures_[op] = Failure{code, times}; });
    }
    void FailAlways(Op op, AERROR code) { FailNext(op, code, -1); }
    void ClearFailures() { Set(failures_, std::map<Op, Failure>()); }
    // Calls of `op` that start while paused wait until Resume.
    void Pause(Op op) {
        Locked([&] { paused_.insert(op); });
    }
    void Resume(Op op) {
        Locked([&] { paused_.erase(op); });
        pauseCv_.notify_all();
    }
    // Waits until `count` calls of `op` are held by Pause (a guard against
    // hangs: false after ten seconds).
    bool WaitForPaused(Op op, int count) const;

    // ---- Counters ----
    int Calls(Op op) const {
        return Locked([&] { return calls_.count(op) != 0 ? calls_.at(op) : 0; });
    }
    void ResetCounters() {  // calls and uploaded bytes
        Locked([&] { calls_.clear(), uploadedBytes_ = 0; });
    }
    // Bytes read from upload sources (for the benchmarks).
    long long UploadedBytes() const {
        return Locked([&] { return uploadedBytes_; });
    }
    int CookiesOutstanding() const {
        return Locked([&] { return int(liveCookies_.size()); });
    }
    // Releases of a cookie that is not live.
    int BadCookieReleases() const {
        return Locked([&] { return badCookieReleases_; });
    }

    // ---- IProtocol_V2 ----
    AERROR GetIdentity(char* buffer, unsigned long length) override;
    AERROR GetQuota(unsigned long long* total, unsigned long long* used) override;
    AERROR GetItem(const char* key, _FS_FILE_V2* record, void** cookie) override;
    AERROR Download(const char* key, long long offset, long long size,
                    std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback,
                    void** cookie) override;
    AERROR ListFolder(const char* key, IFileList* sink, void** cookie) override;
    AERROR GetChanges(IFileChanges* sink, void** cookie) override;
    AERROR RenameItem(const char* key, const char* parentKey, _FS_FILE_V2* record,
                      void** cookie) override;
    AERROR MoveItem(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                    void** cookie) override;
    AERROR MoveFolder(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                      void** cookie) override;
    AERROR CreateFolder(const char* parentKey, _FS_FILE_V2* record, void** cookie) override;
    AERROR DeleteItem(const _FS_FILE_V2* record, void** cookie) override;
    AERROR DeleteFolder(const _FS_FILE_V2* record, void** cookie) override;
    AERROR UploadItem(const char* parentKey, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* source,
                      _FS_FILE_V2* record, const _TRANSFERPROGRESS* progress,
                      void** cookie) override;
    AERROR SetItemTime(const char* key, long long createTime, long long accessTime,
                       long long modifyTime, void** cookie) override;
    unsigned int GetCapabilities() override;
    void ReleaseCookie(void* cookie) override;
    AERROR GetRootKey(char* buffer, unsigned long* length) override;

  private:
    template <typename T, typename V>
    void Set(T& field, V value) {
        Locked([&] { field = std::move(value); });
    }
    struct Item {
        std::string key;
        std::string name;
        bool folder = false;
        std::string contents;
        std::string createTime;
        std::string accessTime;
        std::string modifyTime;
        std::string parentKey;                        // "" for the root
        std::map<std::string, std::string> children;  // name -> key, folders only
    };
    struct Failure {
        AERROR code = SUCCESS;
        int remaining = 0;  // -1: always
    };

    // Runs one remote operation: counts the call, sleeps, waits while paused,
    // applies a failure switch or else runs `body` (which takes the lock
    // itself), and stores a cookie for a failure.
    template <typename Body>
    AERROR Run(Op op, void** cookie, Body body);
    void* NewCookie();  // caller holds mu_

    // All below: caller holds mu_.
    Item* Find(const std::string& key);
    // The item at `path`, or null.
    Item* FindPath(const std::string& path);
    const Item* FindPath(const std::string& path) const {
        return const_cast<MemoryProtocol*>(this)->FindPath(path);
    }
    // The folder that holds `path` and the last name in it; missing folders
    // are created when `create`. Null when a file stands in the way, the
    // folder is missing, or `path` names the root.
    Item* ParentOf(const std::string& path, std::string* name, bool create);
    Item& NewItem(Item* parent, const std::string& name, bool folder, const std::string& time);
    void Unlink(Item* item);  // removes the item and everything below it
    // DeleteItem (folder false) and DeleteFolder (folder true); takes mu_.
    AERROR Delete(const std::string& key, bool folder);
    // MoveItem (folder false) and MoveFolder (folder true).
    AERROR MoveLocked(const char* key, const char* newParentKey, bool folder, _FS_FILE_V2* record);
    // Where an upload goes: an existing file (`*target`: record.key, or a
    // same-name file in the folder) or a new file in `*folder`.
    AERROR UploadTarget(const std::string& parentKey, const _FS_FILE_V2& record, Item** target,
                        Item** folder);
    static _FS_FILE_V2 RecordOf(const Item& item);
    static bool ValidName(const std::string& name);

    mutable std::mutex mu_;
    mutable std::condition_variable pauseCv_;
    const std::string identity_;
    const std::string rootKey_ = "/";
    std::map<std::string, Item> items_;  // key -> item
    unsigned long long nextKey_ = 1;
    std::vector<std::function<void(IFileChanges*)>> changes_;  // reports, in order

    unsigned int caps_ = PROTOCOL_CAP_PARTIAL_READ;
    unsigned long long quotaTotal_ = 1ULL << 30;
    unsigned long long quotaUsed_ = 0;
    std::size_t pieceSize_ = 64 * 1024;
    std::chrono::milliseconds delay_{0};
    std::map<Op, Failure> failures_;
    std::set<Op> paused_;
    std::map<Op, int> waiting_;

    std::map<Op, int> calls_;
    long long uploadedBytes_ = 0;
    std::set<void*> liveCookies_;
    int badCookieReleases_ = 0;
};

#endif  // LIBFS_TESTS_SUPPORT_MEMORY_PROTOCOL_H_
