// An in-memory remote store for tests: a tree of folders and files that the
// library reaches through IProtocol_V2, with switches to make operations fail,
// pause or slow down, and counters that tests read afterwards.
//
// Keys. The root folder's key is "/" (SetRootKey changes it); every other item
// gets a generated key "k1", "k2", ... when it is created and keeps it for its
// whole life, through renames, moves and overwrites. Keys are never reused.
//
// Paths. The test helpers name items by "/"-separated paths below the root
// ("/docs/a.txt"; "/" or "" is the root). Names are case-preserving and every
// lookup, by the helpers and by the protocol operations, is exact.
//
// Strictness. The protocol refuses calls a careful remote would refuse, so
// that a library fault shows up as a failure: MoveItem/DeleteItem on a folder
// and MoveFolder/DeleteFolder on a file are INVALID_PARAMETER; RenameItem with
// a parentKey that is not the item's folder is INVALID_PARAMETER; SetItemTime
// without PROTOCOL_CAP_SET_TIME is NOT_SUPPORTED; an upload whose source ends
// before record->size bytes is FILE_READ_FAILED and stores nothing.
//
// Cookies. Every failed operation that was given a cookie slot stores a new
// error object there (and, with SetCookieOnSuccess(true), every successful
// one too). The protocol keeps the set of live cookies, so tests can check
// that the library releases each exactly once: releasing a pointer that is
// not live is counted in BadCookieReleases() and otherwise ignored; releasing
// null is harmless and not counted. Cookies still live when the protocol is
// destroyed are freed then.
//
// Threads. All state sits behind one mutex, which is never held while the
// protocol calls back into the library (list sinks, change sinks, fetch
// callbacks, upload sources, progress callbacks).
#ifndef LIBFS_TESTS_SUPPORT_MEMORY_PROTOCOL_H_
#define LIBFS_TESTS_SUPPORT_MEMORY_PROTOCOL_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "libfilesystem/protocol.h"

class MemoryProtocol : public IProtocol_V2 {
  public:
    // One value per operation of IProtocol_V2, for counters and switches.
    enum class Op {
        Connect,
        GetIdentity,
        GetQuota,
        GetItem,
        Download,
        ListFolder,
        GetChanges,
        CopyItem,
        RenameItem,
        MoveItem,
        MoveFolder,
        CreateFolder,
        DeleteItem,
        DeleteFolder,
        GetItemByPath,
        UploadItem,
        SetItemTime,
        SetArchive,
        DescribeCookie,
        GetCapabilities,
        Disconnect,
        ReleaseCookie,
        GetMaxFileSize,
        IsValidName,
        GetRootKey,
        kCount
    };
    static const char* OpName(Op op);

    // The time text given to items that AddFile creates unless told otherwise.
    static constexpr const char* kDefaultTime = "2024-01-05T07:08:09.000Z";
    // Largest piece handed to a fetch callback unless SetPieceSize says otherwise.
    static constexpr std::size_t kDefaultPieceSize = 64 * 1024;

    explicit MemoryProtocol(std::string identity = "memory://test");
    ~MemoryProtocol() override;

    // ---- Tree setup (no change reports, no counters) ----
    // Creates the folder and any missing parents; returns its key, or "" when
    // a file stands in the way.
    std::string AddFolder(const std::string& path);
    // Creates or replaces the file (an existing file keeps its key) and any
    // missing parent folders; all three times are set to `modifyTime`.
    // Returns its key, or "" when a folder stands in the way.
    std::string AddFile(const std::string& path, const std::string& contents,
                        const std::string& modifyTime = kDefaultTime);
    // Removes the item and everything below it; false when there is none.
    bool Remove(const std::string& path);
    // Renames the root's key (the tree keeps its shape).
    void SetRootKey(const std::string& key);

    // ---- Inspection ----
    bool GetContents(const std::string& path, std::string* out) const;
    bool Exists(const std::string& path) const;
    bool IsFolder(const std::string& path) const;
    bool IsArchived(const std::string& path) const;
    std::string KeyOf(const std::string& path) const;  // "" when missing
    std::string PathOf(const std::string& key) const;  // "" when missing; "/" for the root
    std::string RootKey() const;
    _FS_FILE_V2 Record(const std::string& path) const;                  // empty key when missing
    std::vector<std::string> ListNames(const std::string& path) const;  // sorted by name

    // ---- Remote-side changes: change the tree and queue a report for GetChanges ----
    // Adds a file (parent must exist, name must be free): Added(parentKey, record).
    bool RemoteAdd(const std::string& path, const std::string& contents);
    // Adds a folder (parent must exist, name must be free): Added(parentKey, record).
    bool RemoteAddFolder(const std::string& path);
    // Removes an item and everything below it: Removed(parentKey, name).
    bool RemoteRemove(const std::string& path);
    // Replaces a file's contents and sets its modify time (now when empty):
    // Changed(itemKey, record).
    bool RemoteChange(const std::string& path, const std::string& contents,
                      const std::string& modifyTime = "");
    // Moves or renames an item to the full path `to` (its folder must exist,
    // the name be free): Removed(oldParentKey, oldName), then
    // Added(newParentKey, record). The item keeps its key.
    bool RemoteMove(const std::string& from, const std::string& to);
    // Queues Refresh(folderKey) without changing anything.
    bool QueueRefresh(const std::string& folderPath);
    std::size_t PendingChanges() const;

    // ---- Behaviour switches ----
    void SetCapabilities(unsigned int caps);  // default PROTOCOL_CAP_PARTIAL_READ
    void SetQuota(unsigned long long total, unsigned long long used);
    // Time text for items created or changed through the protocol; "" (the
    // default) uses the current UTC time.
    void SetNowText(const std::string& text);
    void SetPieceSize(std::size_t bytes);
    // Sleeps this long at the start of every remote operation (everything but
    // GetCapabilities, ReleaseCookie, DescribeCookie, GetMaxFileSize and
    // IsValidName, which a real protocol answers locally).
    void SetDelay(std::chrono::milliseconds delay);
    // The next `times` calls of `op` fail with `code`, before touching anything.
    void FailNext(Op op, AERROR code, int times = 1);
    void FailAlways(Op op, AERROR code);
    void ClearFailures();
    void SetCookieOnSuccess(bool on);
    // Calls of `op` that start while paused wait (after counting and delay)
    // until Resume. A paused Download also stops waiting when its handle
    // starts closing, and then ends with READ_CANCELED.
    void Pause(Op op);
    void Resume(Op op);
    // Waits until `count` calls of `op` are held by Pause, or `limit` passes.
    bool WaitForPaused(Op op, int count,
                       std::chrono::milliseconds limit = std::chrono::seconds(10)) const;

    // ---- Counters ----
    int Calls(Op op) const;
    void ResetCounters();  // calls, downloaded ranges and bytes, uploaded bytes
    // Every Download as asked: (offset, size), in call order.
    std::vector<std::pair<long long, long long>> DownloadedRanges() const;
    long long DownloadedBytes() const;  // bytes handed to fetch callbacks
    long long UploadedBytes() const;    // bytes read from upload sources
    int CookiesCreated() const;
    int CookiesReleased() const;
    int CookiesOutstanding() const;
    int BadCookieReleases() const;

    // ---- IProtocol_V2 ----
    AERROR Connect() override;
    AERROR GetIdentity(char* buffer, unsigned long length) override;
    AERROR GetQuota(unsigned long long* total, unsigned long long* used) override;
    AERROR GetItem(const char* key, _FS_FILE_V2* record, void** cookie) override;
    AERROR Download(const char* key, long long offset, long long size,
                    std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback,
                    void** cookie) override;
    AERROR ListFolder(const char* key, IFileList* sink, void** cookie) override;
    AERROR GetChanges(IFileChanges* sink, void** cookie) override;
    AERROR CopyItem(const char* key, const char* parentKey, _FS_FILE_V2* record,
                    void** cookie) override;
    AERROR RenameItem(const char* key, const char* parentKey, _FS_FILE_V2* record,
                      void** cookie) override;
    AERROR MoveItem(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                    void** cookie) override;
    AERROR MoveFolder(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                      void** cookie) override;
    AERROR CreateFolder(const char* parentKey, _FS_FILE_V2* record, void** cookie) override;
    AERROR DeleteItem(const _FS_FILE_V2* record, void** cookie) override;
    AERROR DeleteFolder(const _FS_FILE_V2* record, void** cookie) override;
    AERROR GetItemByPath(const char* path, _FS_FILE_V2* record, void** cookie) override;
    AERROR UploadItem(const char* parentKey, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* source,
                      _FS_FILE_V2* record, const _TRANSFERPROGRESS* progress,
                      void** cookie) override;
    AERROR SetItemTime(const char* key, long long createTime, long long accessTime,
                       long long modifyTime, void** cookie) override;
    AERROR SetArchive(const char* key, bool archived, void** cookie) override;
    AERROR DescribeCookie(void* cookie, char* buffer, unsigned long length) override;
    unsigned int GetCapabilities() override;
    void Disconnect() override;
    void ReleaseCookie(void* cookie) override;
    long long GetMaxFileSize() override;
    bool IsValidName(const char* name) override;
    AERROR GetRootKey(char* buffer, unsigned long* length) override;

    // Formats Unix seconds as "YYYY-MM-DDTHH:MM:SS.000Z".
    static std::string FormatTime(std::time_t seconds);

  private:
    struct Item {
        std::string key;
        std::string name;
        bool folder = false;
        std::string contents;
        std::string createTime;
        std::string accessTime;
        std::string modifyTime;
        bool archived = false;
        std::string parentKey;                        // "" for the root
        std::map<std::string, std::string> children;  // name -> key, folders only
    };
    struct Change {
        enum Kind { kAdded, kRemoved, kChanged, kRefresh } kind;
        std::string key;
        std::string name;
        _FS_FILE_V2 record;
    };
    struct Failure {
        AERROR code = SUCCESS;
        int remaining = 0;  // -1: always
    };

    // Common start of an operation: clears the cookie slot, counts the call,
    // sleeps, waits while paused, and applies a failure switch. Returns the
    // code to fail with, or SUCCESS.
    AERROR Enter(Op op, void** cookie, bool remote = true,
                 const std::shared_ptr<_FS_HANDLE>& handle = nullptr);
    // Ends an operation: creates a cookie when one is due and returns `code`.
    AERROR Finish(Op op, AERROR code, void** cookie);
    void* NewCookie(Op op, AERROR code);  // caller holds mu_
    // MoveItem (folder false) and MoveFolder (folder true); caller holds mu_.
    AERROR MoveLocked(const char* key, const char* newParentKey, bool folder, _FS_FILE_V2* record);
    // Where an upload goes: an existing file (`*target`: record.key, or a
    // same-name file in the folder) or a new file in `*parent`; caller holds mu_.
    AERROR UploadTargetLocked(const std::string& parentKey, const _FS_FILE_V2& record,
                              Item** target, Item** parent);

    // All below: caller holds mu_.
    Item* Find(const std::string& key);
    const Item* Find(const std::string& key) const;
    Item* FindPath(const std::string& path);
    const Item* FindPath(const std::string& path) const;
    std::string PathOfLocked(const Item& item) const;
    bool IsInside(const std::string& key, const std::string& folderKey) const;
    Item& NewItem(Item* parent, const std::string& name, bool folder, const std::string& time);
    void EraseTree(const std::string& key);
    std::string CopyTree(const Item& source, Item* parent, const std::string& name);
    std::string Now() const;
    _FS_FILE_V2 RecordOf(const Item& item) const;
    static void Fill(const _FS_FILE_V2& from, _FS_FILE_V2* to);
    static bool SplitPath(const std::string& path, std::vector<std::string>* parts);
    static bool ValidName(const std::string& name);

    mutable std::mutex mu_;
    mutable std::condition_variable pauseCv_;
    const std::string identity_;
    std::string rootKey_ = "/";
    std::map<std::string, Item> items_;  // key -> item
    unsigned long long nextKey_ = 1;
    std::vector<Change> changes_;

    unsigned int caps_ = PROTOCOL_CAP_PARTIAL_READ;
    bool quotaSet_ = false;
    unsigned long long quotaTotal_ = 0;
    unsigned long long quotaUsed_ = 0;
    std::string nowText_;
    std::size_t pieceSize_ = kDefaultPieceSize;
    std::chrono::milliseconds delay_{0};
    std::map<Op, Failure> failures_;
    bool cookieOnSuccess_ = false;
    std::set<Op> paused_;
    std::map<Op, int> waiting_;

    std::map<Op, int> calls_;
    std::vector<std::pair<long long, long long>> downloadedRanges_;
    long long downloadedBytes_ = 0;
    long long uploadedBytes_ = 0;
    std::set<void*> liveCookies_;
    int cookiesCreated_ = 0;
    int cookiesReleased_ = 0;
    int badCookieReleases_ = 0;
};

#endif  // LIBFS_TESTS_SUPPORT_MEMORY_PROTOCOL_H_
