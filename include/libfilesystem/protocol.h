// Remote storage as the library sees it: the protocol objects that a host
// adds to a file system, and the sinks they report listings and changes to.
#ifndef LIBFILESYSTEM_PROTOCOL_H_
#define LIBFILESYSTEM_PROTOCOL_H_

#include <memory>

#include "libfilesystem/aerror.h"
#include "libfilesystem/cache.h"
#include "libfilesystem/file_record.h"
#include "libfilesystem/handle.h"

// Capability bits that a protocol answers from GetCapabilities.
// Ranged downloads: Download serves any offset and size.
constexpr unsigned int PROTOCOL_CAP_PARTIAL_READ = 0x8;
// A file created on the volume is stored remotely at once, empty.
constexpr unsigned int PROTOCOL_CAP_CREATE_REMOTE = 0x10;
// Like PROTOCOL_CAP_CREATE_REMOTE, but only while the folder has not been
// listed yet; later creations wait for the first upload.
constexpr unsigned int PROTOCOL_CAP_CREATE_REMOTE_UNLISTED = 0x20;
// SetItemTime is supported.
constexpr unsigned int PROTOCOL_CAP_SET_TIME = 0x100;
// The protocol reports remote changes itself through GetChanges, so listings
// are not refreshed on a timer.
constexpr unsigned int PROTOCOL_CAP_REPORTS_CHANGES = 0x200;
// An empty file needs no upload: creating it made it.
constexpr unsigned int PROTOCOL_CAP_EMPTY_IS_CREATED = 0x400;
// The server writes times in its local zone: times are corrected by the
// server time offset.
constexpr unsigned int PROTOCOL_CAP_SERVER_TIME_OFFSET = 0x800;

// The record size of a streaming upload (UploadItem), whose length is known
// only when the source reports the end of its data.
constexpr long long UPLOAD_SIZE_UNKNOWN = -1;

// Receives the entries of one folder listing.
//   0  AddFile(record) -> AERROR    one entry; the record is copied
//   1, 2  destructors.
class IFileList {
  public:
    virtual AERROR AddFile(const _FS_FILE_V2* record) = 0;
    virtual ~IFileList() = default;
};

// Receives remote changes. `key` is always the key of a folder; changes to
// folders the library never listed are ignored. Every operation answers 0.
//   0  Added(key, record)     the folder gained the entry `record`
//   1  Removed(key, name)     the folder lost the entry `name`
//   2  Changed(key, record)   the item `key` has a new record
//   3  Refresh(key)           the folder changed in ways not reported: list it again
class IFileChanges {
  public:
    virtual AERROR Added(const char* key, _FS_FILE_V2* record) = 0;
    virtual AERROR Removed(const char* key, const char* name) = 0;
    virtual AERROR Changed(const char* key, _FS_FILE_V2* record) = 0;
    virtual AERROR Refresh(const char* key) = 0;

  protected:
    // Not deleted through this interface: nodes own themselves.
    ~IFileChanges() = default;
};

// Upload progress: `done` of `total` bytes sent, at `rate` bytes a second.
typedef void (*TRANSFERCALLBACK)(unsigned long long done, unsigned long long total, double rate,
                                 void* context);
struct _TRANSFERPROGRESS {
    TRANSFERCALLBACK callback = nullptr;
    void* context = nullptr;
};

// A remote store, implemented by the host and added to a file system with
// IFileSystem_V2::AddProtocol, held by shared pointer.
//
// Cookies. An operation with a `cookie` argument may store there an error
// object of its own (null when it has nothing to say). The library passes it
// on to the host's event sink with the failure and then hands every non-null
// cookie back to ReleaseCookie exactly once, on success and on failure.
//
// Items are named by their record's `key`. Records passed "in/out" carry what
// the library knows and are filled by the protocol with the item's new state.
// Calls come from several threads at once; an implementation is thread safe.
//
// Virtual operations, in slot order (those the library calls are marked *):
//   0  Connect() -> AERROR
//        Opens the session with the remote; called by the host before it adds
//        the protocol. Default: SUCCESS.
//   1* GetIdentity(buffer, length) -> AERROR
//        A text that names this remote uniquely (a file system refuses a second
//        protocol with the same identity), into `buffer` of `length` bytes.
//   2* GetQuota(total, used) -> AERROR
//        Bytes of the remote's space in all and in use.
//   3* GetItem(key, record, cookie) -> AERROR
//        The current record of the item `key`; FILE_NOT_FOUND when it is gone.
//        Asked when a file is opened, to see whether it changed remotely.
//   4* Download(key, offset, size, handle, callback, cookie) -> AERROR
//        Sends `size` bytes of the item starting at `offset` to `callback`, in
//        order, in as many pieces as it likes. READ_CANCELED when the handle
//        started closing (handle->IsClosing()) before the end.
//   5* ListFolder(key, sink, cookie) -> AERROR
//        Calls sink->AddFile once per entry of the folder `key`, then returns.
//   6* GetChanges(sink, cookie) -> AERROR
//        Reports the remote changes since the last call to `sink` (only for
//        protocols with PROTOCOL_CAP_REPORTS_CHANGES).
//   7  CopyItem(key, parentKey, record, cookie) -> AERROR
//        Copies an item into the folder `parentKey` under record->name.
//        Default: NOT_SUPPORTED.
//   8* RenameItem(key, parentKey, record, cookie) -> AERROR
//        Renames the item `key` in its folder `parentKey` to record->name.
//   9* MoveItem(key, newParentKey, record, cookie) -> AERROR
//        Moves the file `key` into the folder `newParentKey`, keeping its name.
//  10* MoveFolder(key, newParentKey, record, cookie) -> AERROR
//        The same for a folder, with everything in it.
//  11* CreateFolder(parentKey, record, cookie) -> AERROR
//        Creates the folder record->name in `parentKey`; ALREADY_EXISTS when
//        the name is taken.
//  12* DeleteItem(record, cookie) -> AERROR           deletes the file record->key
//  13* DeleteFolder(record, cookie) -> AERROR         deletes the folder record->key
//        and everything in it
//  14  GetItemByPath(path, record, cookie) -> AERROR
//        The record of the item at a "/"-separated path below the protocol's
//        root. Default: NOT_SUPPORTED.
//  15* UploadItem(parentKey, handle, source, record, progress, cookie) -> AERROR
//        Stores record->size bytes read from `source` (offsets 0 upwards) as
//        the file record->name in the folder `parentKey`; when record->key is
//        not empty the existing item is overwritten. Readers of the remote
//        must never see a partial file. Reports to `progress` when it is not
//        null. Fills `record` with the stored item's record. With record->size
//        UPLOAD_SIZE_UNKNOWN (a real-time upload) it reads until the source
//        ends its data (read 0), and stores nothing when the source fails; a
//        protocol that cannot store such a file answers INVALID_PARAMETER.
//  16* SetItemTime(key, createTime, accessTime, modifyTime, cookie) -> AERROR
//        Sets the item's times, in seconds since the epoch; 0 leaves a time as
//        it is (only with PROTOCOL_CAP_SET_TIME).
//  17* SetArchive(key, archived, cookie) -> AERROR
//        Sets or clears the item's archive mark. Default: NOT_SUPPORTED.
//  18  DescribeCookie(cookie, buffer, length) -> AERROR
//        A readable text of an error object, for the host's messages.
//        Default: an empty text.
//  19* GetCapabilities() -> unsigned int       PROTOCOL_CAP_* bits
//  20  Disconnect()
//        Ends the session; called by the host after unmounting. Default: nothing.
//  21* ReleaseCookie(cookie)                    frees an error object
//  22  GetMaxFileSize() -> long long
//        The largest file the remote accepts; 0 for no limit. Default: 0.
//  23  IsValidName(name) -> bool
//        Whether the remote accepts `name` as an item name. Default: true.
//  24* GetRootKey(buffer, length) -> AERROR
//        The key of the protocol's root folder into `buffer`; `*length` is the
//        buffer's size on entry and the text's length on return.
//  25, 26  destructors.
class IProtocol_V2 {
  public:
    virtual AERROR Connect() { return SUCCESS; }
    virtual AERROR GetIdentity(char* buffer, unsigned long length) = 0;
    virtual AERROR GetQuota(unsigned long long* total, unsigned long long* used) = 0;
    virtual AERROR GetItem(const char* key, _FS_FILE_V2* record, void** cookie) = 0;
    virtual AERROR Download(const char* key, long long offset, long long size,
                            std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback,
                            void** cookie) = 0;
    virtual AERROR ListFolder(const char* key, IFileList* sink, void** cookie) = 0;
    virtual AERROR GetChanges(IFileChanges* sink, void** cookie) = 0;
    virtual AERROR CopyItem(const char* /*key*/, const char* /*parentKey*/, _FS_FILE_V2* /*record*/,
                            void** /*cookie*/) {
        return NOT_SUPPORTED;
    }
    virtual AERROR RenameItem(const char* key, const char* parentKey, _FS_FILE_V2* record,
                              void** cookie) = 0;
    virtual AERROR MoveItem(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                            void** cookie) = 0;
    virtual AERROR MoveFolder(const char* key, const char* newParentKey, _FS_FILE_V2* record,
                              void** cookie) = 0;
    virtual AERROR CreateFolder(const char* parentKey, _FS_FILE_V2* record, void** cookie) = 0;
    virtual AERROR DeleteItem(const _FS_FILE_V2* record, void** cookie) = 0;
    virtual AERROR DeleteFolder(const _FS_FILE_V2* record, void** cookie) = 0;
    virtual AERROR GetItemByPath(const char* /*path*/, _FS_FILE_V2* /*record*/, void** /*cookie*/) {
        return NOT_SUPPORTED;
    }
    virtual AERROR UploadItem(const char* parentKey, std::shared_ptr<_FS_HANDLE> handle,
                              ICacheIO* source, _FS_FILE_V2* record,
                              const _TRANSFERPROGRESS* progress, void** cookie) = 0;
    virtual AERROR SetItemTime(const char* key, long long createTime, long long accessTime,
                               long long modifyTime, void** cookie) = 0;
    virtual AERROR SetArchive(const char* /*key*/, bool /*archived*/, void** /*cookie*/) {
        return NOT_SUPPORTED;
    }
    virtual AERROR DescribeCookie(void* /*cookie*/, char* buffer, unsigned long length) {
        if (buffer != nullptr && length > 0) buffer[0] = '\0';
        return SUCCESS;
    }
    virtual unsigned int GetCapabilities() = 0;
    virtual void Disconnect() {}
    virtual void ReleaseCookie(void* cookie) = 0;
    virtual long long GetMaxFileSize() { return 0; }
    virtual bool IsValidName(const char* /*name*/) { return true; }
    virtual AERROR GetRootKey(char* buffer, unsigned long* length) = 0;
    virtual ~IProtocol_V2() = default;
};

#endif  // LIBFILESYSTEM_PROTOCOL_H_
