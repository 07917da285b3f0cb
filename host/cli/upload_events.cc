#include "cli/upload_events.h"

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "libfilesystem/aerror.h"
#include "libfilesystem/unique_fd.h"
#include "services/make_dirs.h"

namespace {

constexpr int kMaxRecoverySuffix = 10000;

const char* ErrorKindText(int kind) {
    switch (kind) {
        case FSEVENT_LIST_FAILED:
            return "listing";
        case FSEVENT_STORE_FAILED:
            return "upload";
        case FSEVENT_READ_FAILED:
            return "download";
        case FSEVENT_CREATE_FOLDER_FAILED:
            return "creating the folder";
        case FSEVENT_DELETE_FAILED:
            return "deleting";
        case FSEVENT_MOVE_FAILED:
            return "moving";
        case FSEVENT_RENAME_FAILED:
            return "renaming";
        default:
            return "operation";
    }
}

std::string Text(const char* text) {
    return text != nullptr ? text : "";
}

size_t TerminalWidth() {
    struct winsize size {};
    if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return 80;
}

}  // namespace

UploadEvents::UploadEvents(UploadPolicy policy, std::string mountPoint, ILog* log, bool terminal,
                           Sleeper sleeper)
    : policy_(std::move(policy)),
      mountPoint_(std::move(mountPoint)),
      log_(log),
      terminal_(terminal),
      sleeper_(std::move(sleeper)),
      view_(terminal) {}

std::chrono::seconds UploadEvents::Backoff(int retry) {
    if (retry <= 1) return std::chrono::seconds(1);
    if (retry > 7) return std::chrono::seconds(60);
    return std::chrono::seconds(std::min(1 << (retry - 1), 60));
}

std::string UploadEvents::RecoveryPathFor(const std::string& recoveryDir,
                                          const std::string& mountPoint,
                                          const std::string& localPath) {
    std::string inVolume = localPath;
    if (!mountPoint.empty() && mountPoint != "/" &&
        localPath.compare(0, mountPoint.size(), mountPoint) == 0 &&
        (localPath.size() == mountPoint.size() || localPath[mountPoint.size()] == '/')) {
        inVolume = localPath.substr(mountPoint.size());
    }
    // Only plain names are kept, so the result never leaves the recovery folder.
    std::string relative;
    size_t start = 0;
    while (start <= inVolume.size()) {
        size_t slash = inVolume.find('/', start);
        if (slash == std::string::npos) slash = inVolume.size();
        const std::string name = inVolume.substr(start, slash - start);
        start = slash + 1;
        if (name.empty() || name == "." || name == "..") continue;
        if (!relative.empty()) relative += '/';
        relative += name;
    }
    if (relative.empty()) relative = "unnamed";
    std::string dir = recoveryDir;
    while (dir.size() > 1 && dir.back() == '/')
        dir.pop_back();
    return (dir == "/" ? "" : dir) + "/" + relative;
}

std::string UploadEvents::DisplayName(const std::string& localPath) const {
    // "/dir/name" below an empty recovery folder: the path in the volume.
    return RecoveryPathFor("", mountPoint_, localPath).substr(1);
}

void UploadEvents::Log(LOGLEVEL level, const std::string& text) {
    if (log_ != nullptr) log_->Log(level, "%s", text.c_str());
}

void UploadEvents::WriteTerminal(const std::string& text) {
    WriteAll(STDERR_FILENO, text.data(), text.size());
}

void UploadEvents::Shutdown() {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    wake_.notify_all();
}

void UploadEvents::Say(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    WriteTerminal(view_.Break() + line + "\n");
}

void UploadEvents::Error(int kind, AERROR code, const char* localPath, const char* /*originPath*/,
                         void* cookie) {
    std::string text = std::string(ErrorKindText(kind)) + " of " + Text(localPath) +
                       " failed: " + GetAERRORA(code);
    if (cookie != nullptr && describer_) {
        const std::string detail = describer_(cookie);
        if (!detail.empty()) text += " (" + detail + ")";
    }
    Log(LL_ERROR, text);
}

void UploadEvents::Notice(int kind, const char* localPath, const char* /*originPath*/,
                          const char* /*printPath*/) {
    const std::string path = Text(localPath);
    std::string target;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (kind == FSNOTICE_SAVED_TO_FILE || kind == FSNOTICE_SAVE_FAILED) {
            auto found = saving_.find(path);
            if (found != saving_.end()) {
                target = found->second;
                saving_.erase(found);
            }
        }
    }
    const std::string where = target.empty() ? "the recovery folder" : target;
    switch (kind) {
        case FSNOTICE_SAVED_TO_FILE:
            // The decision to save was logged as a warning already.
            Log(LL_INFO, "the data of " + path + " that was not uploaded is saved in " + where);
            break;
        case FSNOTICE_SAVE_FAILED:
            Log(LL_ERROR, "could not save the data of " + path + " to " + where +
                              "; it stays in the cache, not uploaded");
            break;
        case FSNOTICE_UPLOAD_DECIDED:
            Log(LL_DEBUG, "the answer for the failed upload of " + path + " was carried out");
            break;
        case FSNOTICE_RENAMED:
            Log(LL_DEBUG, "renamed " + path);
            break;
        default:
            break;
    }
}

bool UploadEvents::Pause(std::unique_lock<std::mutex>& lock, std::chrono::seconds delay) {
    if (stopping_) return false;
    if (!sleeper_) return !wake_.wait_for(lock, delay, [this] { return stopping_; });
    lock.unlock();
    const bool completed = sleeper_(delay);
    lock.lock();
    return completed && !stopping_;
}

int UploadEvents::AskUploadFailure(AERROR code, const char* localPath, char* answerPath,
                                   unsigned long answerLength) {
    const std::string path = Text(localPath);
    const std::string failure = "upload of " + path + " failed (" + GetAERRORA(code) + ")";
    ledger_.Failed(path, code);
    std::unique_lock<std::mutex> lock(mutex_);
    const ProgressView::Output ended = view_.Abandon(DisplayName(path));
    if (!ended.terminal.empty()) WriteTerminal(ended.terminal);

    switch (policy_.action) {
        case UploadFailureAction::kCancel:
            retries_.erase(path);
            ledger_.Forget(path);
            Log(LL_ERROR, failure +
                              "; cancelled as --on-upload-failure=cancel asks: the remote "
                              "file stays as it was and the changes are dropped");
            return UPLOAD_ANSWER_CANCEL;
        case UploadFailureAction::kSave:
            return AnswerSave(path, failure, answerPath, answerLength);
        case UploadFailureAction::kRetry:
            break;
    }

    if (stopping_)
        return AnswerSave(path, failure + " while skarvo stops", answerPath, answerLength);
    // The remote file was changed by someone else: another try would fail
    // the same way, and overwriting would lose their change.
    if (code == SHARING_VIOLATION) {
        return AnswerSave(path, failure + ": the remote file was changed meanwhile", answerPath,
                          answerLength);
    }
    const int retry = ++retries_[path];
    if (retry > policy_.retries) {
        return AnswerSave(path, failure + " after " + std::to_string(policy_.retries) + " retries",
                          answerPath, answerLength);
    }
    const std::chrono::seconds delay = Backoff(retry);
    Log(LL_WARNING, failure + "; retrying in " + std::to_string(delay.count()) + " s (retry " +
                        std::to_string(retry) + " of " + std::to_string(policy_.retries) + ")");
    if (!Pause(lock, delay)) {
        return AnswerSave(path, failure + " while skarvo stops", answerPath, answerLength);
    }
    return UPLOAD_ANSWER_RETRY;
}

int UploadEvents::AnswerSave(const std::string& localPath, const std::string& reason,
                             char* answerPath, unsigned long answerLength) {
    retries_.erase(localPath);
    ledger_.Forget(localPath);
    std::string target;
    Status status = ReserveRecoveryFile(localPath, &target);
    if (status.ok() && (answerPath == nullptr || target.size() + 1 > answerLength)) {
        reserved_.erase(target);
        status = Status::Error("its recovery path " + target + " is too long");
    } else if (status.ok()) {
        memcpy(answerPath, target.c_str(), target.size() + 1);
        saving_[localPath] = target;
        Log(LL_WARNING, reason + "; saving its data to " + target);
        return UPLOAD_ANSWER_SAVE;
    }
    Log(LL_ERROR, reason + " and its data cannot be saved: " + status.message() +
                      "; it stays in the cache, not uploaded");
    return 0;
}

Status UploadEvents::ReserveRecoveryPath(const std::string& localPath, std::string* path) {
    std::lock_guard<std::mutex> lock(mutex_);
    return ReserveRecoveryFile(localPath, path);
}

Status UploadEvents::ReserveRecoveryFile(const std::string& localPath, std::string* path) {
    const std::string base = RecoveryPathFor(policy_.recoveryDir, mountPoint_, localPath);
    const std::string parent = base.substr(0, base.rfind('/'));
    if (!parent.empty()) {
        const Status made = MakeDirs(parent);
        if (!made.ok()) return made;
    }
    for (int suffix = 0; suffix <= kMaxRecoverySuffix; ++suffix) {
        const std::string candidate = suffix == 0 ? base : base + "." + std::to_string(suffix);
        if (reserved_.count(candidate) != 0) continue;
        struct stat info {};
        if (lstat(candidate.c_str(), &info) == 0) continue;
        if (errno != ENOENT) {
            return Status::Error("cannot check " + candidate + ": " + strerror(errno));
        }
        reserved_.insert(candidate);
        *path = candidate;
        return Status::Ok();
    }
    return Status::Error("every name from " + base + " to " + base + "." +
                         std::to_string(kMaxRecoverySuffix) + " is taken");
}

void UploadEvents::Progress(const char* localPath, unsigned long long done,
                            unsigned long long total, double rate) {
    const std::string path = Text(localPath);
    ledger_.Progress(path, done, total);
    const size_t width = terminal_ ? TerminalWidth() : 80;
    ProgressView::Output out;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (done >= total) retries_.erase(path);
        out = view_.Update(DisplayName(path), done, total, rate, ProgressView::Clock::now(), width);
        if (!out.terminal.empty()) WriteTerminal(out.terminal);
    }
    if (!out.log.empty()) Log(LL_INFO, out.log);
}
