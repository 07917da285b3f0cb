// The notice that skarvo is stopping, for remotes that wait on something of
// their own (a fault remote's hung or delayed calls): their waits end at once
// when it is given, and every later wait returns at once. Thread safe.
#ifndef SKARVO_REMOTES_STOP_NOTICE_H_
#define SKARVO_REMOTES_STOP_NOTICE_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

class StopNotice {
  public:
    void Stop() {
        std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
        changed_.notify_all();
    }
    // Waits up to `timeout`; true when the notice came first or had come.
    bool WaitFor(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, timeout, [this] { return stopped_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool stopped_ = false;
};

#endif  // SKARVO_REMOTES_STOP_NOTICE_H_
