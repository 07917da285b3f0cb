// File data: the cache service that the host supplies, and the request
// records through which every read and write of file data passes.
#ifndef LIBFILESYSTEM_CACHE_H_
#define LIBFILESYSTEM_CACHE_H_

#include <cstdint>
#include <memory>

#include "libfilesystem/aerror.h"
#include "libfilesystem/file_record.h"
#include "libfilesystem/handle.h"

class IFetch;
class IProtocol_V2;

// One read request and its result.
struct _READDATA {
    void* buffer = nullptr;              // where the data is copied
    int64_t offset = 0;                  // file offset of the first byte wanted
    uint64_t size = 0;                   // bytes wanted; an implementation may lower it
    int64_t read = 0;                    // out: bytes delivered; 0 at the end of the data
    std::shared_ptr<_FS_HANDLE> handle;  // the open handle the read is made for
    int64_t fileSize = 0;                // the file's size when the request was made
    IFetch* fetch = nullptr;  // fills missing data from the remote; null: nothing to fetch
    uint64_t timeout = 0;     // milliseconds allowed
    uint8_t partial = 0;      // 1 when the protocol serves ranged downloads
};

// One write request and its result.
struct _WRITEDATA {
    const void* buffer = nullptr;
    int64_t offset = 0;
    uint64_t size = 0;
    uint64_t written = 0;  // out: bytes accepted
    std::shared_ptr<_FS_HANDLE> handle;
    int64_t fileSize = 0;  // the file's size after this write
    IFetch* fetch = nullptr;
    uint64_t timeout = 0;
};

// Anything that file data can be read from and written to: the host's cache
// objects, and the library's pipes.
//   0  Read(request) -> AERROR     fills request->read; SUCCESS with read 0 at the end
//   1  Write(request) -> AERROR    fills request->written
//   2, 3  destructors.
class ICacheIO {
  public:
    virtual AERROR Read(_READDATA* request) = 0;
    virtual AERROR Write(_WRITEDATA* request) = 0;
    virtual ~ICacheIO() = default;
};

// Receives the data of one download.
//   0  FetchWrite(offset, data, size, written) -> AERROR
//        `size` bytes of the item starting at `offset`; sets *written (when
//        not null) to the bytes taken. A failure aborts the download.
//   1, 2  destructors.
class IFetchCallback {
  public:
    virtual AERROR FetchWrite(long long offset, const char* data, long size, long* written) = 0;
    virtual ~IFetchCallback() = default;
};

// What a cache object calls to fill blocks it does not hold. The library's
// file nodes implement it: the node downloads the range from its protocol
// into `callback`, on behalf of `handle` (a fetch without a handle fails).
//   0  Fetch(offset, size, handle, callback) -> AERROR
class IFetch {
  public:
    virtual AERROR Fetch(long long offset, long long size, std::shared_ptr<_FS_HANDLE> handle,
                         IFetchCallback* callback) = 0;

  protected:
    // Not deleted through this interface: nodes own themselves.
    ~IFetch() = default;
};

// The cached content of one file, created by the cache service. Its first two
// operations are those of ICacheIO, so a cache object can stand wherever file
// data is read or written.
//   0  Read(request)   copies cached data. Blocks it does not hold are
//                      filled first through request->fetch, on behalf of
//                      request->handle, in as few ranges as possible; when
//                      request->fetch is null the file has no remote copy and
//                      such blocks read as zeros. A request past the object's
//                      size is cut to it.
//   1  Write(request)  stores data and marks its blocks written locally.
//                      Written blocks are never replaced by fetched data.
//   2  Reopen(mode, size, fetcher) -> AERROR
//        Reopens for 'r' (read) or 'w' (write) with the file's current size
//        and the node that fetches for it (used by FillUnwritten); other
//        modes are CACHE_INVALID_OPEN_MODE. Keeps what the object holds. The
//        object's size is the last one given to Open, Reopen or SetSize,
//        extended by writes past it.
//   3  SetSize(size) -> AERROR
//        Truncates or extends. Bytes beyond the old size read as zeros and
//        count as written, so they are never fetched.
//   4  FillUnwritten(handle) -> AERROR
//        Before an upload: fetches every block up to the size that was never
//        written and is not held, on behalf of `handle`, so that the object
//        holds the file's whole content.
//   5  DropClean() -> AERROR
//        The remote content changed: forgets every fetched block, keeps the
//        written ones (the local writer wins; they are uploaded later). The
//        version of the clean blocks becomes unknown.
//   6  Commit() -> AERROR
//        The written data has been stored remotely: written blocks become
//        ordinary fetched blocks, which the cache may evict. Their version
//        is unknown until SetVersion names it.
//   7  Discard() -> AERROR
//        The upload was abandoned: forgets every block, written or fetched,
//        so that the next read fetches the remote content again.
//   8, 9  destructors.
//  10  Sync() -> AERROR
//        Makes everything written to the object so far survive a crash of
//        the host or of the machine: its data, which blocks were written,
//        its size and its origin (ICacheService::NoteOrigin). The library
//        calls it for fsync and when the last writer closes a file it
//        changed. A cache that keeps nothing across restarts answers SUCCESS.
//  11  CheckVersion(version) -> AERROR
//        The remote content is the one `version` names: an opaque text that
//        the library builds from the file's remote record, or "" when it
//        cannot name it. Unless the object's clean blocks are known to hold
//        exactly that version, forgets them as DropClean does. From then on
//        its clean blocks belong to `version`. The library calls it when it
//        first opens a file's object, so that a cache kept across restarts
//        is read again without fetching. A cache must not trust a version
//        across a crash that may have lost fetched data it had not synced.
//        The default forgets the clean blocks always.
//  12  SetVersion(version) -> AERROR
//        The object's blocks are now exactly the remote content `version`
//        names: called right after Commit, once the upload stored them.
//        The default ignores it.
//  13  SaveWritten() -> AERROR
//        Makes everything written to the object so far survive a crash of
//        the host process, as Sync does, though not necessarily of the
//        machine. The library calls it at every close(2) of a handle that
//        may have written: the kernel does not wait for the release that
//        calls Sync. The default does nothing.
class ICacheObj : public ICacheIO {
  public:
    virtual AERROR Reopen(char mode, long long size, IFetch* fetcher) = 0;
    virtual AERROR SetSize(long long size) = 0;
    virtual AERROR FillUnwritten(std::shared_ptr<_FS_HANDLE> handle) = 0;
    virtual AERROR DropClean() = 0;
    virtual AERROR Commit() = 0;
    virtual AERROR Discard() = 0;
    virtual AERROR Sync() { return SUCCESS; }
    virtual AERROR CheckVersion(const char* /*version*/) { return DropClean(); }
    virtual AERROR SetVersion(const char* /*version*/) { return SUCCESS; }
    virtual AERROR SaveWritten() { return SUCCESS; }
};

// Where the content of a cache entry belongs. Null fields are left as they
// were noted before.
struct _CACHE_ORIGIN {
    // The file's path in the volume, "/"-separated, with the case of its
    // names, such as "/Docs/Report.txt".
    const char* path = nullptr;
    // The remote that holds the file.
    IProtocol_V2* protocol = nullptr;
    // The remote record that the written data replaces; a record with an
    // empty key when the file has no remote copy yet.
    const _FS_FILE_V2* base = nullptr;
};

// The host's cache service, bound with FS_BindCache. Keys are lower-case
// "\"-separated paths such as "\dir\file.txt". The library serialises its
// calls under one process-wide lock, so an implementation must not call back
// into the library from them.
//   0  GetUsage(used, unsent) -> AERROR
//        Bytes the cache holds, and bytes written locally and not uploaded.
//        Host only.
//   1  Flush() -> AERROR
//        Makes the cache's index and block maps durable. Host only.
//   2  Remove(key) -> AERROR
//        Forgets a closed entry and its data. Host only.
//   3  Open(key, mode, size, fetcher) -> shared_ptr<ICacheObj>
//        Opens, or creates, the object for `key` in mode 'r' or 'w' with the
//        file's size and the node that fetches for it. An empty pointer when
//        it cannot.
//   4  Close(key)
//        The library no longer uses the object of `key`. Its data stays
//        cached; data written and not committed must survive.
//   5  Rekey(oldKey, newKey, extra) -> AERROR
//        The file was renamed or moved: the entry of `oldKey` becomes the
//        entry of `newKey`, replacing any entry already there. `extra` is the
//        protocol's opaque text of the file (its record's `extra`).
//   6, 7  destructors.
//   8  NoteOrigin(key, origin)
//        Where the entry of `key` belongs, so that data written to it and
//        never uploaded can still be uploaded after the host died: the
//        library calls it when a file at rest is opened for writing, after
//        an upload stored it, and after a rename or move gave it a new path.
//        Ignoring it is allowed; such a cache cannot recover after a crash.
class ICacheService {
  public:
    virtual AERROR GetUsage(unsigned long long* used, unsigned long long* unsent) = 0;
    virtual AERROR Flush() = 0;
    virtual AERROR Remove(const char* key) = 0;
    virtual std::shared_ptr<ICacheObj> Open(const char* key, char mode, long long size,
                                            IFetch* fetcher) = 0;
    virtual void Close(const char* key) = 0;
    virtual AERROR Rekey(const char* oldKey, const char* newKey, const char* extra) = 0;
    virtual ~ICacheService() = default;
    virtual void NoteOrigin(const char* /*key*/, const _CACHE_ORIGIN* /*origin*/) {}
};

#endif  // LIBFILESYSTEM_CACHE_H_
