// Where a folder's listing stands: whether it may be listed, whether it was
// asked for, when the last listing ended, and the listing job that runs.
#ifndef LIBFS_TREE_LISTING_STATE_H_
#define LIBFS_TREE_LISTING_STATE_H_

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>

class FindFiles;

class ListingState {
  public:
    using Clock = std::chrono::steady_clock;

    // Whether the folder was asked for its listing (or holds all it has).
    bool Requested() const { return requested_.load(); }
    void SetRequested(bool value) { requested_ = value; }
    // When the last listing was merged.
    Clock::time_point ListedAt() const { return listedAt_.load(); }
    void Stamp() { listedAt_ = Clock::now(); }

    bool Pending() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return pending_ != nullptr;
    }
    // Records `job` as the running listing; false when one runs already.
    bool Begin(std::shared_ptr<FindFiles> job) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (pending_) return false;
        pending_ = std::move(job);
        return true;
    }
    void End(const FindFiles* job) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (pending_.get() == job) pending_.reset();
    }

  private:
    std::atomic<bool> requested_{false};
    std::atomic<Clock::time_point> listedAt_{Clock::time_point{}};
    mutable std::mutex mutex_;
    std::shared_ptr<FindFiles> pending_;  // guarded by mutex_
};

#endif  // LIBFS_TREE_LISTING_STATE_H_
