// A job queue for tests: every job runs at once on a thread of its own.
#ifndef LIBFS_TESTS_SUPPORT_THREAD_QUEUE_H_
#define LIBFS_TESTS_SUPPORT_THREAD_QUEUE_H_

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include "libfilesystem/async.h"

class ThreadQueue : public IAsyncQ {
  public:
    ~ThreadQueue() override;

    void Stop() override;
    AERROR Queue(IAsyncObj* job, void* context) override;
    // Joins the threads whose jobs have returned.
    void Drain() override;

    int Queued() const { return queued_.load(); }
    int Running();

  private:
    struct Worker {
        std::thread thread;
        std::atomic<bool> done{false};
    };

    std::mutex mutex_;
    std::list<std::unique_ptr<Worker>> workers_;
    std::atomic<int> queued_{0};
    bool stopped_ = false;
};

#endif  // LIBFS_TESTS_SUPPORT_THREAD_QUEUE_H_
