// The WebDAV remote, "webdav://[user@]host[:port]/path" and "webdavs://...":
// a folder of a WebDAV server (RFC 4918) served to the library.
//
// Keys are the decoded paths below the share (webdav_address.h); the root's
// key is "/". Records carry the item's ETag in `extra`.
//
//   GetItem        PROPFIND Depth 0
//   ListFolder     PROPFIND Depth 1. The folder's own entry is skipped; an
//                  entry outside the folder, or named "", ".", "..", or with
//                  "/" in it, is left out and logged once. Temporary files of
//                  uploads in progress on Apache (".davfs.tmp...") are not
//                  listed.
//   GetQuota       the RFC 4331 properties of the share; 0 and 0 without them
//   Download       GET with a Range header; a server that ignores the range
//                  (200) is read from the start and the bytes before the
//                  offset are skipped. An interrupted download goes on from
//                  where it stopped, up to three tries.
//   UploadItem     PUT streamed from the source with its length known, with
//                  "If-None-Match: *" for a new file and "If-Match: ETAG"
//                  (webdav_own_etags.h) for an existing one. A file changed
//                  on the server meanwhile is SHARING_VIOLATION and is left as
//                  it is. The record is read back afterwards. The server must
//                  store a PUT body atomically (Apache's mod_dav_fs writes a
//                  temporary file and renames it), so that an upload that dies
//                  midway leaves the old file.
//   RenameItem     MOVE with "Overwrite: F": ALREADY_EXISTS when the name is
//                  taken; `parentKey` must be the item's folder.
//   MoveItem       MOVE; a file of the same name in the target folder is
//                  replaced ("Overwrite: T"), a folder there is ALREADY_EXISTS.
//   MoveFolder     MOVE with "Overwrite: F"; INVALID_PARAMETER into itself.
//   CreateFolder   MKCOL; ALREADY_EXISTS when the name is taken.
//   DeleteItem, DeleteFolder   DELETE.
// A MOVE or DELETE of a folder waits (at most the time-out) for this remote's
// PUTs below it, and such a PUT for it (webdav_transfer_gate.h).
//   GetChanges     polls the folders in use (webdav_folder_watch.h) with
//                  PROPFIND Depth 1 and reports what other clients changed.
// Failures are mapped as webdav_errors.h says, logged once, and described by
// the cookie's text. Thread safe.
#ifndef SKARVO_REMOTES_WEBDAV_PROTOCOL_H_
#define SKARVO_REMOTES_WEBDAV_PROTOCOL_H_

#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "libfilesystem/protocol.h"
#include "remotes/webdav_folder_watch.h"
#include "remotes/webdav_http.h"
#include "remotes/webdav_kept_times.h"
#include "remotes/webdav_multistatus.h"
#include "remotes/webdav_own_etags.h"
#include "remotes/webdav_transfer_gate.h"

class WebdavProtocol : public IProtocol_V2 {
  public:
    WebdavProtocol(WebdavAddress address, HttpSettings settings);

    // Asks the server for the share. Fails, with one line naming the server
    // and its answer (or the certificate problem), when the share is
    // missing, not a folder, the login is refused or the server cannot be
    // reached or trusted.
    Status Check();

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
    // Keeps the modification time for the file's current ETag
    // (webdav_kept_times.h); other times are ignored.
    AERROR SetItemTime(const char* key, long long createTime, long long accessTime,
                       long long modifyTime, void** cookie) override;
    AERROR DescribeCookie(void* cookie, char* buffer, unsigned long length) override;
    unsigned int GetCapabilities() override;
    void ReleaseCookie(void* cookie) override;
    bool IsValidName(const char* name) override;
    AERROR GetRootKey(char* buffer, unsigned long* length) override;

  private:
    // A PROPFIND of `key` with `depth` 0 or 1, parsed.
    Status Propfind(const std::string& key, int depth, bool quota, std::vector<DavEntry>* entries);
    // The record of `key` from its entry, with a kept time.
    void ToRecord(const std::string& key, const DavEntry& entry, _FS_FILE_V2* record);
    // The entry of `key` itself.
    Status Stat(const std::string& key, DavEntry* entry);
    Status StatRecord(const std::string& key, _FS_FILE_V2* record);
    // The records and states of the folder's children.
    Status ReadFolder(const std::string& key, std::vector<_FS_FILE_V2>* records,
                      FolderWatch::Entries* states);
    bool IsChildName(const std::string& folderKey, const DavEntry& entry, std::string* name);
    void LogRefused(const std::string& what);
    void PollFolder(const std::string& key, IFileChanges* sink);

    Status DoDownload(const std::string& key, long long offset, long long size,
                      const std::shared_ptr<_FS_HANDLE>& handle, IFetchCallback* callback);
    Status GetRange(const std::string& key, long long* position, long long end,
                    const std::shared_ptr<_FS_HANDLE>& handle, IFetchCallback* callback);
    Status DoUpload(const std::string& parentKey, const std::shared_ptr<_FS_HANDLE>& handle,
                    ICacheIO* source, _FS_FILE_V2* record, const _TRANSFERPROGRESS* progress);
    Status Put(const std::string& key, const std::string& condition,
               const std::shared_ptr<_FS_HANDLE>& handle, ICacheIO* source, int64_t size,
               const _TRANSFERPROGRESS* progress);
    Status Move(const std::string& key, const std::string& newKey, bool folder, bool overwrite,
                _FS_FILE_V2* record);
    Status DoMoveItem(const std::string& key, const std::string& newParentKey, _FS_FILE_V2* record);
    Status DoCreateFolder(const std::string& parentKey, _FS_FILE_V2* record);
    Status DoDelete(const std::string& key, bool folder);
    // For a folder, once this remote's PUTs below it have ended; nothing for
    // a file.
    std::optional<TransferGate::Pass> ClearFolder(const char* method, const std::string& key,
                                                  bool folder);
    Status Simple(const std::string& method, const std::string& path,
                  std::vector<std::string> headers);

    ILog* const log_;
    HttpClient http_;
    TransferGate gate_;
    FolderWatch watch_;
    OwnEtags etags_;
    KeptTimes times_;
    std::mutex refusedMutex_;
    std::set<std::string> refused_;  // logged already; bounded
};

#endif  // SKARVO_REMOTES_WEBDAV_PROTOCOL_H_
