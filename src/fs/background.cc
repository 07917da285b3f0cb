// The file system's background workers, its upload queue, and teardown.
#include <algorithm>

#include "fs/filesystem.h"
#include "libfilesystem/entry_points.h"
#include "services/async_queue.h"
#include "services/log.h"
#include "tree/file.h"

void FileSystem::QueueFile(std::shared_ptr<File> file) {
    {
        std::lock_guard<std::mutex> lock(queueMutex_);
        queued_[file.get()] = file;
        fileQueue_.push_back(std::move(file));
    }
    queueSemaphore_.Post();
    bool workersRunning;
    {
        std::lock_guard<std::mutex> lock(workersMutex_);
        workersRunning = workersOnQueue_ > 0;
    }
    if (!workersRunning) DrainQueue();
}

void FileSystem::DrainQueue() {
    std::shared_ptr<File> file;
    while (PopQueued(file)) {
        // A stop signal means nothing when no worker runs.
        if (file) RunQueued(file);
    }
}

bool FileSystem::PopQueued(std::shared_ptr<File>& file) {
    std::lock_guard<std::mutex> lock(queueMutex_);
    if (fileQueue_.empty()) return false;
    file = std::move(fileQueue_.front());
    fileQueue_.pop_front();
    return true;
}

void FileSystem::RunQueued(const std::shared_ptr<File>& file) {
    file->ProcessJobs();
    std::lock_guard<std::mutex> lock(queueMutex_);
    queued_.erase(file.get());
}

void FileSystem::Process(void* context) {
    if (context == kInlineContext) {
        // No queue: never wait for work that would have to come from this
        // very thread.
        ++inlineRuns_;
        DrainQueue();
        return;
    }
    for (bool stop = false; !stop;) {
        // While idle, a worker also asks the protocols that report changes
        // for them, so that remote changes appear within the changes
        // interval even when no lookup misses (a file deleted remotely is
        // still found in the tree). Polls are rate-limited per protocol.
        const auto interval =
            std::chrono::milliseconds(std::max<int64_t>(GetConfig().changes_interval, 100));
        if (!queueSemaphore_.WaitFor(interval)) {
            if (!destroyed_.load()) {
                for (const auto& entry : Protocols())
                    PollChanges(*entry);
            }
            continue;
        }
        // Drain in a loop: the semaphore may lag behind the queue.
        std::shared_ptr<File> file;
        while (PopQueued(file)) {
            if (!file) {
                stop = true;
                break;
            }
            RunQueued(file);
        }
    }
    std::lock_guard<std::mutex> lock(workersMutex_);
    --workersOnQueue_;
    workersDone_.notify_all();
}

void FileSystem::Canceled(void* context) {
    // A worker the queue dropped before it started will never run.
    if (context == kInlineContext) return;
    std::lock_guard<std::mutex> lock(workersMutex_);
    --workersOnQueue_;
    workersDone_.notify_all();
}

int FileSystem::CountUploadings() {
    std::lock_guard<std::mutex> lock(queueMutex_);
    int count = 0;
    for (const auto& entry : queued_) {
        if (entry.second) count += entry.second->CountUploadings();
    }
    return count;
}

void FileSystem::CancelUploadings() {
    std::lock_guard<std::mutex> lock(queueMutex_);
    for (const auto& entry : queued_) {
        if (entry.second) entry.second->CancelUploadings();
    }
}

void FileSystem::Finalize() {
    for (int i = 0; i < workerCount_; ++i)
        QueueFile(nullptr);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& entry : protocolOrder_) {
            if (!entry->root) continue;
            entry->root->ClearHashForChanges();
            entry->root->CloseAllHandles();
        }
        if (INotifier* notifier = notifier_.load()) {
            notifier->ChangeNotify(NE_DRIVE_REMOVE, 0, letter_.c_str(), nullptr);
        }
    }
    // The workers and background jobs run on this object: it must not go
    // away under them.
    std::unique_lock<std::mutex> lock(workersMutex_);
    workersDone_.wait(lock, [this] { return workersOnQueue_ <= 0 && backgroundJobs_ <= 0; });
}

void FileSystem::JobStarted() {
    std::lock_guard<std::mutex> lock(workersMutex_);
    ++backgroundJobs_;
}

void FileSystem::JobFinished() {
    std::lock_guard<std::mutex> lock(workersMutex_);
    --backgroundJobs_;
    workersDone_.notify_all();
}

void FileSystem::Destroy() {
    if (destroyed_.exchange(true)) return;
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& entry : protocolOrder_) {
        if (entry->root) entry->root->ClearChildrens();
    }
    protocols_.clear();
    protocolOrder_.clear();
    protocolCount_ = 0;
    std::lock_guard<std::mutex> hidden(hiddenMutex_);
    hidden_.clear();
}
