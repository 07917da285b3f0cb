#include "data/file_content.h"

#include <algorithm>
#include <utility>

#include "data/cache_service.h"

std::shared_ptr<ICacheObj> FileContent::CacheObject() const {
    std::lock_guard<std::mutex> lock(dataMutex_);
    return cacheObject_;
}

std::string FileContent::CacheKey() const {
    std::lock_guard<std::mutex> lock(dataMutex_);
    return cacheKey_;
}

std::shared_ptr<ICacheObj> FileContent::OpenCache(const std::wstring& path, char mode,
                                                  long long size, IFetch* fetch) {
    std::lock_guard<std::mutex> lock(dataMutex_);
    if (cacheObject_) return nullptr;
    cacheObject_ = GetCacheObj(path, mode, size, fetch);
    if (!cacheObject_) return nullptr;
    cacheKey_ = ::CacheKey(path);
    return cacheStale_.exchange(false) ? cacheObject_ : nullptr;
}

std::string FileContent::CloseCache() {
    std::lock_guard<std::mutex> lock(dataMutex_);
    if (!cacheObject_) return "";
    cacheObject_.reset();
    return cacheKey_;
}

std::string FileContent::Rekey(const std::string& key) {
    std::lock_guard<std::mutex> lock(dataMutex_);
    std::string old = cacheKey_;
    if (!old.empty()) cacheKey_ = key;
    return old;
}

long long FileContent::FetchableSize() const {
    std::lock_guard<std::mutex> lock(dataMutex_);
    return fetchableSize_;
}

void FileContent::SetFetchableSize(long long size) {
    std::lock_guard<std::mutex> lock(dataMutex_);
    fetchableSize_ = size;
}

void FileContent::LimitFetchableSize(long long size) {
    std::lock_guard<std::mutex> lock(dataMutex_);
    fetchableSize_ = std::min<int64_t>(fetchableSize_, size);
}

void FileContent::SetStreamingPipe(std::shared_ptr<ICacheIO> pipe) {
    std::lock_guard<std::mutex> lock(pipeMutex_);
    streamingPipe_ = std::move(pipe);
}

std::shared_ptr<ICacheIO> FileContent::StreamingPipe() const {
    std::lock_guard<std::mutex> lock(pipeMutex_);
    return streamingPipe_;
}

void FileContent::Queue(std::shared_ptr<_ASYNCJOB> job) {
    std::lock_guard<std::mutex> lock(jobLock_);
    jobs_.push_back(std::move(job));
}

std::shared_ptr<_ASYNCJOB> FileContent::StartNext() {
    std::lock_guard<std::mutex> lock(jobLock_);
    if (jobs_.empty() || runningJob_) return nullptr;
    runningJob_ = jobs_.front();
    return runningJob_;
}

void FileContent::RunExclusively(std::shared_ptr<_ASYNCJOB> job) {
    std::unique_lock<std::mutex> lock(jobLock_);
    jobsDone_.wait(lock, [this] { return !runningJob_; });
    runningJob_ = std::move(job);
}

bool FileContent::TryRunExclusively(std::shared_ptr<_ASYNCJOB> job) {
    std::lock_guard<std::mutex> lock(jobLock_);
    if (runningJob_ || !jobs_.empty()) return false;
    runningJob_ = std::move(job);
    return true;
}

bool FileContent::IsRunning(const std::shared_ptr<_ASYNCJOB>& job) const {
    std::lock_guard<std::mutex> lock(jobLock_);
    return job && runningJob_ == job;
}

bool FileContent::Finish(const std::shared_ptr<_ASYNCJOB>& job) {
    std::lock_guard<std::mutex> lock(jobLock_);
    if (!jobs_.empty() && jobs_.front() == job) jobs_.pop_front();
    runningJob_.reset();
    jobsDone_.notify_all();
    return !jobs_.empty();
}

std::vector<std::shared_ptr<_ASYNCJOB>> FileContent::DropQueued() {
    std::vector<std::shared_ptr<_ASYNCJOB>> dropped;
    std::lock_guard<std::mutex> lock(jobLock_);
    const size_t keep = runningJob_ ? 1 : 0;
    while (jobs_.size() > keep) {
        dropped.push_back(jobs_.back());
        jobs_.pop_back();
        dropped.back()->canceled = true;
    }
    if (!dropped.empty() && jobs_.empty() && uploadState_.load() == UploadState::Uploading) {
        uploadState_ = UploadState::Written;
    }
    return dropped;
}

void FileContent::CancelRunning() {
    std::lock_guard<std::mutex> lock(jobLock_);
    if (runningJob_) runningJob_->canceled = true;
}

void FileContent::WaitIdle() {
    std::unique_lock<std::mutex> lock(jobLock_);
    jobsDone_.wait(lock, [this] { return !runningJob_; });
}

int FileContent::CountUploads() const {
    std::lock_guard<std::mutex> lock(jobLock_);
    return static_cast<int>(std::count_if(
        jobs_.begin(), jobs_.end(), [](const auto& job) { return job->kind == ASYNCJOB_UPLOAD; }));
}

bool FileContent::HasJobs() const {
    std::lock_guard<std::mutex> lock(jobLock_);
    return !jobs_.empty() || runningJob_ != nullptr;
}
