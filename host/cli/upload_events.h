// skarvo's event sink: logs the failures the library reports, answers failed
// uploads by the --on-upload-failure policy, and shows upload progress.
#ifndef SKARVO_CLI_UPLOAD_EVENTS_H_
#define SKARVO_CLI_UPLOAD_EVENTS_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "cli/progress.h"
#include "cli/upload_ledger.h"
#include "cli/upload_policy.h"
#include "common/status.h"
#include "libfilesystem/event_sink.h"
#include "libfilesystem/log.h"

// A file being saved to the recovery folder carries this suffix until its
// data is complete (the library's saves and crash recovery's alike).
inline constexpr char kRecoveryPartSuffix[] = ".skarvo-part";

// Failed uploads, by policy:
//   retry   answers UPLOAD_ANSWER_RETRY after a pause of 1, 2, 4... seconds
//           (Backoff), up to policy.retries times per file, then saves. A
//           file's count starts again once an upload of it completes (its
//           progress reaches its size) and after it was saved. A conflict
//           (SHARING_VIOLATION: the remote file was changed by someone else
//           since the local change began) is saved at once, never retried.
//   save    answers UPLOAD_ANSWER_SAVE with a free path under the recovery
//           folder that mirrors the file's path in the volume: never an
//           existing file; "name.1", "name.2"... when "name" is taken.
//   cancel  answers UPLOAD_ANSWER_CANCEL.
// When no recovery path can be made, the answer is 0: the library keeps the
// data cached and the upload pending. Every decision is logged at warning
// level (error for cancel and for data that cannot be saved), with the file's
// path and the error's name.
//
// Thread safe. AskUploadFailure blocks for the pause on the library's worker;
// Shutdown ends every pause at once, and from then on failed uploads are
// saved instead of retried.
class UploadEvents : public IFSEvent {
  public:
    // Pauses for `delay`; false when the pause was cut short.
    using Sleeper = std::function<bool(std::chrono::seconds delay)>;
    // A readable text of a protocol's error object.
    using CookieDescriber = std::function<std::string(void* cookie)>;

    // `mountPoint` is the absolute mount point; `log` may be null. With
    // `terminal`, progress is drawn on standard error; otherwise it is
    // logged. A null `sleeper` waits on a clock, cut short by Shutdown.
    UploadEvents(UploadPolicy policy, std::string mountPoint, ILog* log, bool terminal,
                 Sleeper sleeper = nullptr);

    // Set before the sink is handed to the file system.
    void SetCookieDescriber(CookieDescriber describer) { describer_ = std::move(describer); }

    void Shutdown();
    // Each upload's progress and failures, for `skarvo status`.
    const UploadLedger& Ledger() const { return ledger_; }
    // Writes `line` to standard error on a line of its own, ending a progress
    // bar first.
    void Say(const std::string& line);

    void Error(int kind, AERROR code, const char* localPath, const char* originPath,
               void* cookie) override;
    void Notice(int kind, const char* localPath, const char* originPath,
                const char* printPath) override;
    int AskUploadFailure(AERROR code, const char* localPath, char* answerPath,
                         unsigned long answerLength) override;
    void Progress(const char* localPath, unsigned long long done, unsigned long long total,
                  double rate) override;

    // The pause before retry number `retry` (1-based): 1, 2, 4... seconds,
    // at most a minute.
    static std::chrono::seconds Backoff(int retry);
    // A free path in the recovery folder for the data of `localPath` (the
    // file's path under the mount point), with its folders made, in *path;
    // fails, saying why, when there is none.
    Status ReserveRecoveryPath(const std::string& localPath, std::string* path);

    // Where the data of `localPath` is saved: its path below `mountPoint`,
    // under `recoveryDir`.
    static std::string RecoveryPathFor(const std::string& recoveryDir,
                                       const std::string& mountPoint, const std::string& localPath);

  private:
    // Answers UPLOAD_ANSWER_SAVE with a free recovery path, or 0 when there is
    // none. Called with mutex_ held.
    int AnswerSave(const std::string& localPath, const std::string& reason, char* answerPath,
                   unsigned long answerLength);
    // Creates the parent folders and picks a path nobody uses, into *path;
    // fails, saying why, when it cannot.
    Status ReserveRecoveryFile(const std::string& localPath, std::string* path);
    // Pauses with `lock` held on entry and on return; false when cut short.
    bool Pause(std::unique_lock<std::mutex>& lock, std::chrono::seconds delay);
    // The file's path in the volume, as progress shows it: "dir/name".
    std::string DisplayName(const std::string& localPath) const;
    void Log(LOGLEVEL level, const std::string& text);
    static void WriteTerminal(const std::string& text);

    const UploadPolicy policy_;
    const std::string mountPoint_;
    ILog* const log_;
    const bool terminal_;
    const Sleeper sleeper_;
    CookieDescriber describer_;

    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;
    std::map<std::string, int> retries_;         // retries answered, by local path
    std::set<std::string> reserved_;             // recovery paths handed out
    std::map<std::string, std::string> saving_;  // recovery path, by local path
    ProgressView view_;
    UploadLedger ledger_;
};

#endif  // SKARVO_CLI_UPLOAD_EVENTS_H_
