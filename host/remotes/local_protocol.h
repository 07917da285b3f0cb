// The local-folder remote, "local:PATH": a folder on this machine served to
// the library as remote storage.
//
// Keys are the items' paths below PATH with a leading "/"; the root's key is
// "/" ("/docs/a.txt"). Keys are resolved without following symbolic links,
// and links and special files are neither listed nor reachable (see
// local_paths.h), so nothing outside PATH is ever read or changed.
//
// Uploads are atomic (local_upload.h). Changes made to PATH by other programs
// are reported through GetChanges (change_watcher.h) when inotify is
// available; only then does GetCapabilities include PROTOCOL_CAP_REPORTS_CHANGES.
//
// Namespace operations:
//   RenameItem  renames within the item's folder; `parentKey` must be that
//               folder (INVALID_PARAMETER otherwise); ALREADY_EXISTS when
//               the new name is taken.
//   MoveItem    moves a file into another folder keeping its name; an
//               existing file of that name is replaced, as rename(2) does;
//               any other item there is ALREADY_EXISTS.
//   MoveFolder  moves a folder; ALREADY_EXISTS when the name is taken,
//               INVALID_PARAMETER when the target lies inside the folder.
//   MoveItem, DeleteItem on a folder and MoveFolder, DeleteFolder on a file
//   are INVALID_PARAMETER. The root cannot be renamed, moved or deleted.
//
// Failures store an error object with the errno's text in the cookie slot;
// DescribeCookie gives the text and ReleaseCookie frees it. Thread safe.
#ifndef SKARVO_REMOTES_LOCAL_PROTOCOL_H_
#define SKARVO_REMOTES_LOCAL_PROTOCOL_H_

#include <memory>
#include <shared_mutex>
#include <string>

#include "common/status.h"
#include "libfilesystem/protocol.h"

class ChangeWatcher;
class LocalPaths;
class UniqueFd;
struct stat;

class LocalProtocol : public IProtocol_V2 {
  public:
    // Opens the folder `path` into *created. Fails with a text such as
    // "remote folder /x does not exist" when the folder is missing, not a
    // folder, or not readable and writable.
    static Status Create(const std::string& path, std::shared_ptr<LocalProtocol>* created);
    ~LocalProtocol() override;

    // The canonical absolute path of the folder.
    const std::string& Root() const;
    // Why changes made by other programs are not reported ("" when they are).
    const std::string& ChangeReportProblem() const { return changeReportProblem_; }

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
    AERROR DescribeCookie(void* cookie, char* buffer, unsigned long length) override;
    unsigned int GetCapabilities() override;
    // Stops the change watcher; reports already collected can still be fetched.
    void Disconnect() override;
    void ReleaseCookie(void* cookie) override;
    bool IsValidName(const char* name) override;
    AERROR GetRootKey(char* buffer, unsigned long* length) override;

  private:
    LocalProtocol(std::shared_ptr<LocalPaths> paths, std::unique_ptr<ChangeWatcher> watcher);

    // Opens the folder that holds `key` and stats the item in it, without
    // following links.
    Status OpenItem(const std::string& key, UniqueFd* parent, std::string* name,
                    struct stat* st) const;
    // The same, refusing an item that is not a folder (`folder`) or a file.
    Status OpenItemOfKind(const std::string& key, bool folder, UniqueFd* parent, std::string* name,
                          struct stat* st) const;
    Status DoDownload(const std::string& key, long long offset, long long size,
                      const std::shared_ptr<_FS_HANDLE>& handle, IFetchCallback* callback);
    Status DoListFolder(const std::string& key, IFileList* sink);
    Status DoRename(const std::string& key, const std::string& parentKey, _FS_FILE_V2* record);
    Status DoMove(const std::string& key, const std::string& newParentKey, bool folder,
                  _FS_FILE_V2* record);
    Status DoCreateFolder(const std::string& parentKey, _FS_FILE_V2* record);
    Status DoDelete(const std::string& key, bool folder);
    Status DoUpload(const char* parentKey, const std::shared_ptr<_FS_HANDLE>& handle,
                    ICacheIO* source, _FS_FILE_V2* record, const _TRANSFERPROGRESS* progress);
    Status DoSetTime(const std::string& key, long long accessTime, long long modifyTime);
    // Whether `dirfd` is still the folder that holds `key`: a folder renamed
    // or moved while an upload into it ran is not (PATH_NOT_FOUND).
    Status StillHolds(int dirfd, const std::string& key) const;
    // Tells the change watcher about a change this protocol is about to make.
    void ExpectOwn(const std::string& key, unsigned int mask, bool subtree);

    const std::shared_ptr<LocalPaths> paths_;
    const std::unique_ptr<ChangeWatcher> watcher_;  // null: changes are not reported
    std::string changeReportProblem_;
    // Renames and moves hold it exclusively; an upload holds it shared while
    // it checks its folder and renames its file into place.
    mutable std::shared_mutex renames_;
};

#endif  // SKARVO_REMOTES_LOCAL_PROTOCOL_H_
