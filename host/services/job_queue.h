// The host's job queue: a pool of threads that grows on demand up to a bound
// and shrinks again as threads stay idle.
#ifndef SKARVO_SERVICES_JOB_QUEUE_H_
#define SKARVO_SERVICES_JOB_QUEUE_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "libfilesystem/async.h"

// Each mount keeps four jobs running for its whole life, and listings and
// uploads come on top, so a queued job gets a thread of its own whenever no
// idle thread is waiting, up to `maxThreads`. At the bound, jobs wait in
// order for the next thread that comes free. A thread that stays idle for
// `idleTimeout` retires. Jobs start in the order they were queued.
//
// Queue never blocks for long and never calls into the library, so the
// library may call it with its own locks held. Stop, and the destructor, join
// every thread; neither may be called from one of the queue's own jobs.
class JobQueue : public IAsyncQ {
  public:
    static constexpr size_t kDefaultMaxThreads = 64;
    static constexpr std::chrono::milliseconds kDefaultIdleTimeout{30000};

    explicit JobQueue(size_t maxThreads = kDefaultMaxThreads,
                      std::chrono::milliseconds idleTimeout = kDefaultIdleTimeout);
    ~JobQueue() override;

    JobQueue(const JobQueue&) = delete;
    JobQueue& operator=(const JobQueue&) = delete;

    // Refuses new jobs, cancels the queued ones (Canceled is called for each),
    // waits for the running ones and joins all threads.
    void Stop() override;
    // ASYNCQ_NULLOBJECT for a null job, ASYNCQ_STOPPED after Stop, and
    // ASYNCQ_THREADCREATIONFAILED when the job needs a new thread and none can
    // be created (the job is then not kept).
    AERROR Queue(IAsyncObj* job, void* context) override;
    // Waits until every job queued before the call has started (it does not
    // wait for running jobs to end), then joins the threads that retired.
    void Drain() override;

    // Threads alive, jobs running and jobs waiting for a thread.
    size_t ThreadCount() const;
    size_t RunningCount() const;
    size_t PendingCount() const;

  private:
    struct Pending {
        IAsyncObj* job;
        void* context;
        uint64_t serial;
    };

    void WorkerMain(uint64_t id);
    bool StartThreadLocked();
    std::vector<std::thread> TakeRetiredLocked();
    static void JoinAll(std::vector<std::thread>& threads);

    const size_t maxThreads_;
    const std::chrono::milliseconds idleTimeout_;

    mutable std::mutex mutex_;
    std::condition_variable work_;     // a job was queued, or the queue stops
    std::condition_variable started_;  // a job started, or a thread retired
    std::deque<Pending> pending_;
    std::map<uint64_t, std::thread> threads_;  // not yet joined
    std::vector<uint64_t> retired_;            // ids whose thread has returned
    size_t alive_ = 0;
    size_t idle_ = 0;
    size_t running_ = 0;
    uint64_t nextThreadId_ = 0;
    uint64_t lastQueued_ = 0;   // serial of the last job queued
    uint64_t lastStarted_ = 0;  // serial of the last job started or cancelled
    bool stopped_ = false;
};

#endif  // SKARVO_SERVICES_JOB_QUEUE_H_
