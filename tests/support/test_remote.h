// The remote the library's tests and benchmarks run over: the host's local:
// remote on a folder of its own, wrapped so that a test can count, fail and
// hold calls and change the capabilities and quota it claims. What it stores
// is plain files below Path(""), which tests seed and check directly; keys
// are paths ("/docs/a.txt"). Changes made there are reported a moment later,
// through GetChanges, once the claimed capabilities say so.
//
// Like a careful remote it refuses SetItemTime (NOT_SUPPORTED) unless the
// claimed capabilities include SET_TIME. Every cookie it hands out, its own
// for an injected failure or the folder's, must come back exactly once.
#ifndef LIBFS_TESTS_SUPPORT_TEST_REMOTE_H_
#define LIBFS_TESTS_SUPPORT_TEST_REMOTE_H_

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "libfilesystem/protocol.h"
#include "support/test_env.h"

class TestRemote : public IProtocol_V2 {
    template <typename F>
    auto Locked(F body) {
        std::lock_guard<std::mutex> lock(mu_);
        return body();
    }

  public:
    // clang-format off
    enum class Op { GetQuota, GetItem, Download, ListFolder, GetChanges, RenameItem, MoveItem,
                    MoveFolder, CreateFolder, DeleteItem, DeleteFolder, UploadItem, SetItemTime };
    // clang-format on

    TestRemote();

    std::string Path(const std::string& path) const { return dir_.path() + path; }
    // Both create missing folders; AddFile sets the modify time when given.
    void AddFolder(const std::string& path) { std::filesystem::create_directories(Path(path)); }
    void AddFile(const std::string& path, const std::string& contents,
                 const std::string& modifyTime = "");
    void Remove(const std::string& path) { std::filesystem::remove_all(Path(path)); }
    bool Exists(const std::string& path) const { return std::filesystem::exists(Path(path)); }
    std::string Contents(const std::string& path) const {  // "<missing>" when no file
        return std::filesystem::is_regular_file(Path(path)) ? ReadFile(Path(path)) : "<missing>";
    }
    // Reports Refresh(folderKey) at the next GetChanges, after the folder's changes.
    void QueueRefresh(const std::string& key) {
        Locked([&] { refreshes_.push_back(key); });
    }

    void SetCapabilities(unsigned int caps) { caps_ = caps; }           // default PARTIAL_READ
    void SetQuota(unsigned long long total, unsigned long long used) {  // default 1 GiB, 0
        quotaTotal_ = total, quotaUsed_ = used;
    }
    // The next `times` calls of `op` (all, with FailAlways) fail with `code`
    // before reaching the folder.
    void FailNext(Op op, AERROR code, int times = 1) {
        Locked([&] { failures_[op] = {code, times}; });
    }
    void FailAlways(Op op, AERROR code) { FailNext(op, code, -1); }
    void ClearFailures() {
        Locked([&] { failures_.clear(); });
    }
    // Calls of `op` that start while paused wait until Resume.
    void Pause(Op op) {
        Locked([&] { paused_.insert(op); });
    }
    void Resume(Op op) {
        Locked([&] { paused_.erase(op), cv_.notify_all(); });
    }
    // Waits until `count` calls of `op` are held (false after ten seconds).
    bool WaitForPaused(Op op, int count) {
        std::unique_lock<std::mutex> lock(mu_);
        return cv_.wait_for(lock, std::chrono::seconds(10), [&] { return held_[op] >= count; });
    }
    int Calls(Op op) { return calls_[int(op)]; }
    void ResetCounters() { std::fill(std::begin(calls_), std::end(calls_), 0); }
    int CookiesOutstanding() {
        return Locked([&] { return int(cookies_.size()); });
    }
    int BadCookieReleases() { return badReleases_; }

    AERROR GetIdentity(char* buffer, unsigned long length) override {
        return local_->GetIdentity(buffer, length);
    }
    AERROR GetQuota(unsigned long long* total, unsigned long long* used) override {
        return Run(Op::GetQuota, nullptr,
                   [&] { return *total = quotaTotal_, *used = quotaUsed_, SUCCESS; });
    }
    AERROR GetItem(const char* key, _FS_FILE_V2* record, void** cookie) override {
        return Run(Op::GetItem, cookie, [&] { return local_->GetItem(key, record, cookie); });
    }
    AERROR Download(const char* key, long long offset, long long size,
                    std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback,
                    void** cookie) override {
        return Run(Op::Download, cookie,
                   [&] { return local_->Download(key, offset, size, handle, callback, cookie); });
    }
    AERROR ListFolder(const char* key, IFileList* sink, void** cookie) override {
        return Run(Op::ListFolder, cookie, [&] { return local_->ListFolder(key, sink, cookie); });
    }
    AERROR GetChanges(IFileChanges* sink, void** cookie) override;
    AERROR RenameItem(const char* key, const char* parentKey, _FS_FILE_V2* record,
                      void** cookie) override {
        return Run(Op::RenameItem, cookie,
                   [&] { return local_->RenameItem(key, parentKey, record, cookie); });
    }
    AERROR MoveItem(const char* key, const char* parentKey, _FS_FILE_V2* record,
                    void** cookie) override {
        return Run(Op::MoveItem, cookie,
                   [&] { return local_->MoveItem(key, parentKey, record, cookie); });
    }
    AERROR MoveFolder(const char* key, const char* parentKey, _FS_FILE_V2* record,
                      void** cookie) override {
        return Run(Op::MoveFolder, cookie,
                   [&] { return local_->MoveFolder(key, parentKey, record, cookie); });
    }
    AERROR CreateFolder(const char* parentKey, _FS_FILE_V2* record, void** cookie) override {
        return Run(Op::CreateFolder, cookie,
                   [&] { return local_->CreateFolder(parentKey, record, cookie); });
    }
    AERROR DeleteItem(const _FS_FILE_V2* record, void** cookie) override {
        return Run(Op::DeleteItem, cookie, [&] { return local_->DeleteItem(record, cookie); });
    }
    AERROR DeleteFolder(const _FS_FILE_V2* record, void** cookie) override {
        return Run(Op::DeleteFolder, cookie, [&] { return local_->DeleteFolder(record, cookie); });
    }
    AERROR UploadItem(const char* parentKey, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* source,
                      _FS_FILE_V2* record, const _TRANSFERPROGRESS* progress,
                      void** cookie) override {
        return Run(Op::UploadItem, cookie, [&] {
            return local_->UploadItem(parentKey, handle, source, record, progress, cookie);
        });
    }
    AERROR SetItemTime(const char* key, long long createTime, long long accessTime,
                       long long modifyTime, void** cookie) override {
        return Run(Op::SetItemTime, cookie, [&] {
            if ((GetCapabilities() & PROTOCOL_CAP_SET_TIME) == 0) return NOT_SUPPORTED;
            return local_->SetItemTime(key, createTime, accessTime, modifyTime, cookie);
        });
    }
    unsigned int GetCapabilities() override { return caps_; }
    void ReleaseCookie(void* cookie) override;
    AERROR GetRootKey(char* buffer, unsigned long* length) override {
        return local_->GetRootKey(buffer, length);
    }

  private:
    // Counts the call, holds it while `op` is paused, then fails it as told
    // or runs `body`; notes the cookie handed out.
    template <typename Body>
    AERROR Run(Op op, void** cookie, Body body);

    TempDir dir_;  // outlives the folder's remote
    std::shared_ptr<IProtocol_V2> local_;
    std::mutex mu_;
    std::condition_variable cv_;
    std::atomic<unsigned int> caps_{PROTOCOL_CAP_PARTIAL_READ};
    std::atomic<unsigned long long> quotaTotal_{1ULL << 30}, quotaUsed_{0};
    std::vector<std::string> refreshes_;
    std::map<Op, std::pair<AERROR, int>> failures_;  // code, calls left (-1: all)
    std::set<Op> paused_;
    std::map<Op, int> held_;
    std::atomic<int> calls_[int(Op::SetItemTime) + 1] = {};
    std::map<void*, bool> cookies_;  // live ones; true: an injected failure's
    std::atomic<int> badReleases_{0};
};

template <typename Body>
AERROR TestRemote::Run(Op op, void** cookie, Body body) {
    if (cookie != nullptr) *cookie = nullptr;
    AERROR result = SUCCESS;
    {
        std::unique_lock<std::mutex> lock(mu_);
        ++calls_[int(op)], ++held_[op];
        cv_.notify_all();
        cv_.wait(lock, [&] { return paused_.count(op) == 0; });
        --held_[op];
        auto failure = failures_.find(op);
        if (failure != failures_.end()) {
            result = failure->second.first;
            if (--failure->second.second == 0) failures_.erase(failure);
        }
    }
    const bool injected = result != SUCCESS;
    if (!injected) result = body();
    if (injected && cookie != nullptr) *cookie = new AERROR(result);
    if (cookie != nullptr && *cookie != nullptr) Locked([&] { cookies_[*cookie] = injected; });
    return result;
}

#endif  // LIBFS_TESTS_SUPPORT_TEST_REMOTE_H_
