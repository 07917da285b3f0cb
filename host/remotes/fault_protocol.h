// The fault remote, "fault:FAULTS:REMOTE": a testing aid that forwards every
// call to another remote and injects the failures, delays and hangs that
// FAULTS asks for (fault_list.h), so that tests can see how the volume and
// skarvo live with an unreliable remote.
//
// For a call of an operation that FAULTS names, in order:
//   latency  the call waits that long first;
//   hang     the call waits for the remote time-out and fails with
//            SOCK_TIMEOUT without reaching the wrapped remote;
//   failure  a draw (fault_draws.h) picks the calls that fail with the
//            chosen error. Most fail before reaching the wrapped remote. An
//            upload fails, as a coin toss decides, either so, or after the
//            wrapped remote has read part of the file (fault_source.h):
//            the wrapped remote's own handling of a broken upload then makes
//            sure nothing partial is stored under the file's name.
// Waits end at once when skarvo stops (stop_notice.h); a hung call then
// fails with SOCK_TIMEOUT too.
//
// An injected failure is logged (info level) with the item it hit, and
// stores an error object of this protocol's own in the cookie slot, saying
// that the failure was injected; every other cookie is the wrapped remote's
// and is passed back to it. The identity is
// "fault:FAULTS:" followed by the wrapped remote's, so a remote can be
// mounted beside itself with faults. Thread safe.
#ifndef SKARVO_REMOTES_FAULT_PROTOCOL_H_
#define SKARVO_REMOTES_FAULT_PROTOCOL_H_

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "libfilesystem/log.h"
#include "libfilesystem/protocol.h"
#include "remotes/fault_draws.h"
#include "remotes/fault_list.h"
#include "remotes/stop_notice.h"

class FaultProtocol : public IProtocol_V2 {
  public:
    // `timeout` is how long a hung call waits; `stop` may be null (never),
    // and `log` too.
    FaultProtocol(std::shared_ptr<IProtocol_V2> wrapped, FaultList faults,
                  std::chrono::milliseconds timeout, std::shared_ptr<StopNotice> stop, ILog* log);
    ~FaultProtocol() override;

    AERROR Connect() override { return wrapped_->Connect(); }
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
    unsigned int GetCapabilities() override { return wrapped_->GetCapabilities(); }
    void Disconnect() override { wrapped_->Disconnect(); }
    void ReleaseCookie(void* cookie) override;
    long long GetMaxFileSize() override { return wrapped_->GetMaxFileSize(); }
    bool IsValidName(const char* name) override { return wrapped_->IsValidName(name); }
    AERROR GetRootKey(char* buffer, unsigned long* length) override {
        return wrapped_->GetRootKey(buffer, length);
    }

  private:
    // The latency and hang of a call of `op` on the item `key`, then its
    // drawn failure: SUCCESS when the call is to be forwarded.
    AERROR Before(FaultOp op, const char* key, void** cookie);
    // The latency and hang only.
    // Whether the faults apply now (see FaultList::switchFile).
    bool Active() const;
    AERROR Delay(FaultOp op, const char* key, void** cookie);
    // Fails `op` on `key` with `code`, `how` saying more ("hung until the
    // time-out"); logs it and stores an error object saying it in *cookie.
    AERROR Inject(FaultOp op, const char* key, const std::string& how, AERROR code, void** cookie);
    // An upload of `key` that fails after the wrapped remote read `cutoff`
    // bytes.
    AERROR UploadCut(const char* parentKey, const std::shared_ptr<_FS_HANDLE>& handle,
                     ICacheIO* source, _FS_FILE_V2* record, const _TRANSFERPROGRESS* progress,
                     long long cutoff, const char* key, void** cookie);

    const std::shared_ptr<IProtocol_V2> wrapped_;
    const FaultList faults_;
    const std::chrono::milliseconds timeout_;
    const std::shared_ptr<StopNotice> stop_;
    ILog* const log_;
    FaultDraws draws_;

    std::mutex cookiesMutex_;
    // The error objects of injected failures, by the pointer handed out.
    std::unordered_map<void*, std::unique_ptr<std::string>> cookies_;
};

#endif  // SKARVO_REMOTES_FAULT_PROTOCOL_H_
