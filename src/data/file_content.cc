#include "data/file_content.h"

#include <algorithm>
#include <utility>

#include "data/cache_service.h"

std::shared_ptr<ICacheObj> FileContent::CacheObject() const {
    const Active* active = active_.Peek();
    if (active == nullptr) return nullptr;
    std::lock_guard<std::mutex> lock(active->dataMutex);
    return active->cacheObject;
}

std::string FileContent::CacheKey() const {
    const Active* active = active_.Peek();
    if (active == nullptr) return "";
    std::lock_guard<std::mutex> lock(active->dataMutex);
    return active->cacheKey;
}

std::shared_ptr<ICacheObj> FileContent::OpenCache(const std::wstring& path, char mode,
                                                  long long size, IFetch* fetch) {
    Active& active = active_.Get();
    std::lock_guard<std::mutex> lock(active.dataMutex);
    if (active.cacheObject) return nullptr;
    active.cacheObject = GetCacheObj(path, mode, size, fetch);
    if (!active.cacheObject) return nullptr;
    active.cacheKey = ::CacheKey(path);
    return cacheStale_.exchange(false) ? active.cacheObject : nullptr;
}

std::string FileContent::CloseCache() {
    Active* active = active_.Peek();
    if (active == nullptr) return "";
    std::lock_guard<std::mutex> lock(active->dataMutex);
    if (!active->cacheObject) return "";
    active->cacheObject.reset();
    return active->cacheKey;
}

std::string FileContent::Rekey(const std::string& key) {
    // A node that never opened its cache object has no key to change.
    Active* active = active_.Peek();
    if (active == nullptr) return "";
    std::lock_guard<std::mutex> lock(active->dataMutex);
    std::string old = active->cacheKey;
    if (!old.empty()) active->cacheKey = key;
    return old;
}

long long FileContent::FetchableSize() const {
    return fetchableSize_.load();
}

void FileContent::SetFetchableSize(long long size) {
    fetchableSize_ = size;
}

void FileContent::LimitFetchableSize(long long size) {
    int64_t current = fetchableSize_.load();
    while (size < current && !fetchableSize_.compare_exchange_weak(current, size)) {
    }
}

void FileContent::SetStreamingPipe(std::shared_ptr<ICacheIO> pipe) {
    if (!pipe && active_.Peek() == nullptr) return;
    Active& active = active_.Get();
    std::lock_guard<std::mutex> lock(active.pipeMutex);
    active.streamingPipe = std::move(pipe);
}

std::shared_ptr<ICacheIO> FileContent::StreamingPipe() const {
    const Active* active = active_.Peek();
    if (active == nullptr) return nullptr;
    std::lock_guard<std::mutex> lock(active->pipeMutex);
    return active->streamingPipe;
}

void FileContent::Queue(std::shared_ptr<_ASYNCJOB> job) {
    Active& active = active_.Get();
    std::lock_guard<std::mutex> lock(active.jobLock);
    active.jobs.push_back(std::move(job));
}

std::shared_ptr<_ASYNCJOB> FileContent::StartNext() {
    Active* active = active_.Peek();
    if (active == nullptr) return nullptr;
    std::lock_guard<std::mutex> lock(active->jobLock);
    if (active->jobs.empty() || active->runningJob) return nullptr;
    active->runningJob = active->jobs.front();
    return active->runningJob;
}

void FileContent::RunExclusively(std::shared_ptr<_ASYNCJOB> job) {
    Active& active = active_.Get();
    std::unique_lock<std::mutex> lock(active.jobLock);
    active.jobsDone.wait(lock, [&] { return !active.runningJob; });
    active.runningJob = std::move(job);
}

bool FileContent::TryRunExclusively(std::shared_ptr<_ASYNCJOB> job) {
    Active& active = active_.Get();
    std::lock_guard<std::mutex> lock(active.jobLock);
    if (active.runningJob || !active.jobs.empty()) return false;
    active.runningJob = std::move(job);
    return true;
}

bool FileContent::IsRunning(const std::shared_ptr<_ASYNCJOB>& job) const {
    const Active* active = active_.Peek();
    if (active == nullptr || !job) return false;
    std::lock_guard<std::mutex> lock(active->jobLock);
    return active->runningJob == job;
}

bool FileContent::Finish(const std::shared_ptr<_ASYNCJOB>& job) {
    Active& active = active_.Get();
    std::lock_guard<std::mutex> lock(active.jobLock);
    if (!active.jobs.empty() && active.jobs.front() == job) active.jobs.pop_front();
    active.runningJob.reset();
    active.jobsDone.notify_all();
    return !active.jobs.empty();
}

std::vector<std::shared_ptr<_ASYNCJOB>> FileContent::DropQueued() {
    std::vector<std::shared_ptr<_ASYNCJOB>> dropped;
    Active* active = active_.Peek();
    if (active == nullptr) return dropped;
    std::lock_guard<std::mutex> lock(active->jobLock);
    const size_t keep = active->runningJob ? 1 : 0;
    while (active->jobs.size() > keep) {
        dropped.push_back(active->jobs.back());
        active->jobs.pop_back();
        dropped.back()->canceled = true;
    }
    if (!dropped.empty() && active->jobs.empty() && uploadState_.load() == UploadState::Uploading) {
        uploadState_ = UploadState::Written;
    }
    return dropped;
}

void FileContent::CancelRunning() {
    Active* active = active_.Peek();
    if (active == nullptr) return;
    std::lock_guard<std::mutex> lock(active->jobLock);
    if (active->runningJob) active->runningJob->canceled = true;
}

void FileContent::WaitIdle() {
    Active* active = active_.Peek();
    if (active == nullptr) return;
    std::unique_lock<std::mutex> lock(active->jobLock);
    active->jobsDone.wait(lock, [&] { return !active->runningJob; });
}

int FileContent::CountUploads() const {
    const Active* active = active_.Peek();
    if (active == nullptr) return 0;
    std::lock_guard<std::mutex> lock(active->jobLock);
    return static_cast<int>(
        std::count_if(active->jobs.begin(), active->jobs.end(),
                      [](const auto& job) { return job->kind == ASYNCJOB_UPLOAD; }));
}

bool FileContent::HasJobs() const {
    const Active* active = active_.Peek();
    if (active == nullptr) return false;
    std::lock_guard<std::mutex> lock(active->jobLock);
    return !active->jobs.empty() || active->runningJob != nullptr;
}
