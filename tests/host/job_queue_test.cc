// The job queue: growth past long-running jobs, the thread bound, Stop, Drain
// and idle threads retiring.
#include "services/job_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using namespace std::chrono_literals;

// Hang guard for waits: far longer than any correct run needs.
constexpr auto kHangGuard = 60s;

bool WaitUntil(const std::function<bool()>& done) {
    const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// A barrier that jobs wait on until the test opens it.
class Gate {
  public:
    void Open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        opened_.notify_all();
    }
    void Wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        opened_.wait(lock, [this] { return open_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable opened_;
    bool open_ = false;
};

// Opens the gate when a test ends, also by a failed assertion, so that the
// queue's destructor never waits on a job that is still shut in.
class OpenOnExit {
  public:
    explicit OpenOnExit(Gate& gate) : gate_(gate) {}
    ~OpenOnExit() { gate_.Open(); }

  private:
    Gate& gate_;
};

class Job : public IAsyncObj {
  public:
    explicit Job(std::function<void()> body = {}) : body_(std::move(body)) {}
    void Process(void* context) override {
        context_ = context;
        started = true;
        if (body_) body_();
        processed = true;
    }
    void Canceled(void* context) override {
        context_ = context;
        canceled = true;
    }
    void* Context() const { return context_.load(); }

    std::atomic<bool> started{false};
    std::atomic<bool> processed{false};
    std::atomic<bool> canceled{false};

  private:
    std::function<void()> body_;
    std::atomic<void*> context_{nullptr};
};

std::vector<std::unique_ptr<Job>> MakeJobs(int count, const std::function<void()>& body = {}) {
    std::vector<std::unique_ptr<Job>> jobs;
    for (int i = 0; i < count; ++i)
        jobs.push_back(std::make_unique<Job>(body));
    return jobs;
}

// In every test the jobs are declared before the queue, so that the queue
// has joined its threads before any job is destroyed.

TEST(JobQueueTest, RunsEveryJobWithItsContext) {
    auto jobs = MakeJobs(20);
    int contexts[20];
    JobQueue queue;
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(queue.Queue(jobs[i].get(), &contexts[i]), SUCCESS);
    }
    ASSERT_TRUE(WaitUntil([&] {
        for (auto& job : jobs) {
            if (!job->processed) return false;
        }
        return true;
    }));
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(jobs[i]->Context(), &contexts[i]);
    }
}

TEST(JobQueueTest, RefusesNullJobsAndAnythingAfterStop) {
    Job job;
    JobQueue queue;
    EXPECT_EQ(queue.Queue(nullptr, nullptr), ASYNCQ_NULLOBJECT);
    queue.Stop();
    EXPECT_EQ(queue.Queue(&job, nullptr), ASYNCQ_STOPPED);
    EXPECT_FALSE(job.started);
    EXPECT_FALSE(job.canceled) << "a refused job belongs to the caller again";
}

TEST(JobQueueTest, GrowsPastLongRunningJobs) {
    Gate gate;
    // Two mounts' worth of workers that run until the gate opens.
    auto workers = MakeJobs(8, [&] { gate.Wait(); });
    Job listing;
    JobQueue queue;
    OpenOnExit openGate(gate);
    for (auto& worker : workers) {
        ASSERT_EQ(queue.Queue(worker.get(), nullptr), SUCCESS);
    }
    ASSERT_TRUE(WaitUntil([&] { return queue.RunningCount() == 8; }));

    ASSERT_EQ(queue.Queue(&listing, nullptr), SUCCESS);
    EXPECT_TRUE(WaitUntil([&] { return listing.processed.load(); }))
        << "a short job starved behind long-running ones";
    EXPECT_GE(queue.ThreadCount(), 9u);
    gate.Open();
}

TEST(JobQueueTest, KeepsToItsThreadBoundAndQueuesTheRest) {
    Gate gate;
    auto blockers = MakeJobs(2, [&] { gate.Wait(); });
    auto waiting = MakeJobs(3);
    JobQueue queue(2);
    OpenOnExit openGate(gate);
    for (auto& blocker : blockers) {
        ASSERT_EQ(queue.Queue(blocker.get(), nullptr), SUCCESS);
    }
    ASSERT_TRUE(WaitUntil([&] { return queue.RunningCount() == 2; }));

    for (auto& job : waiting) {
        ASSERT_EQ(queue.Queue(job.get(), nullptr), SUCCESS);
    }
    EXPECT_EQ(queue.ThreadCount(), 2u);
    EXPECT_EQ(queue.PendingCount(), 3u);
    for (auto& job : waiting) {
        EXPECT_FALSE(job->started);
    }

    gate.Open();
    EXPECT_TRUE(WaitUntil([&] {
        for (auto& job : waiting) {
            if (!job->processed) return false;
        }
        return true;
    }));
    EXPECT_LE(queue.ThreadCount(), 2u);
}

TEST(JobQueueTest, StopCancelsQueuedJobsAndWaitsForRunningOnes) {
    Gate gate;
    Job running([&] { gate.Wait(); });
    auto queued = MakeJobs(3);
    int context = 0;
    JobQueue queue(1);
    OpenOnExit openGate(gate);
    ASSERT_EQ(queue.Queue(&running, nullptr), SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return running.started.load(); }));
    for (auto& job : queued) {
        ASSERT_EQ(queue.Queue(job.get(), &context), SUCCESS);
    }

    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        queue.Stop();
        stopped = true;
    });
    const bool allCanceled = WaitUntil([&] {
        for (auto& job : queued) {
            if (!job->canceled) return false;
        }
        return true;
    });
    EXPECT_TRUE(allCanceled);
    EXPECT_FALSE(stopped) << "Stop returned while a job was still running";
    gate.Open();
    stopper.join();
    EXPECT_TRUE(running.processed);
    for (auto& job : queued) {
        EXPECT_FALSE(job->started);
        EXPECT_EQ(job->Context(), &context);
    }
    EXPECT_EQ(queue.ThreadCount(), 0u);
}

TEST(JobQueueTest, DrainReturnsWhileLongRunningJobsKeepRunning) {
    Gate gate;
    auto workers = MakeJobs(4, [&] { gate.Wait(); });
    auto finishing = MakeJobs(3);
    JobQueue queue;
    OpenOnExit openGate(gate);
    for (auto& worker : workers) {
        ASSERT_EQ(queue.Queue(worker.get(), nullptr), SUCCESS);
    }
    for (auto& job : finishing) {
        ASSERT_EQ(queue.Queue(job.get(), nullptr), SUCCESS);
    }

    auto drained = std::async(std::launch::async, [&] { queue.Drain(); });
    EXPECT_EQ(drained.wait_for(kHangGuard), std::future_status::ready)
        << "Drain waited for jobs that never end";
    EXPECT_EQ(queue.PendingCount(), 0u) << "Drain returned before the queued jobs started";
    for (auto& worker : workers) {
        EXPECT_FALSE(worker->processed);
    }
    gate.Open();
}

TEST(JobQueueTest, DrainWaitsUntilJobsQueuedBeforeItHaveStarted) {
    Gate gate;
    Job blocker([&] { gate.Wait(); });
    Job queued;
    JobQueue queue(1);
    OpenOnExit openGate(gate);
    ASSERT_EQ(queue.Queue(&blocker, nullptr), SUCCESS);
    ASSERT_EQ(queue.Queue(&queued, nullptr), SUCCESS);

    std::atomic<size_t> pendingWhenDrained{99};
    std::thread drainer([&] {
        queue.Drain();
        pendingWhenDrained = queue.PendingCount();
    });
    gate.Open();
    drainer.join();
    EXPECT_EQ(pendingWhenDrained, 0u);
}

TEST(JobQueueTest, IdleThreadsRetireAndTheQueueStaysUsable) {
    Gate gate;
    auto jobs = MakeJobs(4, [&] { gate.Wait(); });
    Job later;
    JobQueue queue(JobQueue::kDefaultMaxThreads, 20ms);
    OpenOnExit openGate(gate);
    for (auto& job : jobs) {
        ASSERT_EQ(queue.Queue(job.get(), nullptr), SUCCESS);
    }
    ASSERT_TRUE(WaitUntil([&] { return queue.RunningCount() == 4; }));
    gate.Open();
    EXPECT_TRUE(WaitUntil([&] { return queue.ThreadCount() == 0; }));
    queue.Drain();  // joins the retired threads

    ASSERT_EQ(queue.Queue(&later, nullptr), SUCCESS);
    EXPECT_TRUE(WaitUntil([&] { return later.processed.load(); }));
}

TEST(JobQueueTest, JobsMayQueueFurtherJobs) {
    Job child;
    JobQueue* queuePointer = nullptr;
    Job parent([&] { EXPECT_EQ(queuePointer->Queue(&child, nullptr), SUCCESS); });
    JobQueue queue;
    queuePointer = &queue;
    ASSERT_EQ(queue.Queue(&parent, nullptr), SUCCESS);
    EXPECT_TRUE(WaitUntil([&] { return child.processed.load(); }));
}

TEST(JobQueueTest, DestructionWaitsForRunningJobs) {
    Job slow([] { std::this_thread::sleep_for(50ms); });
    {
        JobQueue queue;
        ASSERT_EQ(queue.Queue(&slow, nullptr), SUCCESS);
        ASSERT_TRUE(WaitUntil([&] { return slow.started.load(); }));
    }
    EXPECT_TRUE(slow.processed);
}

}  // namespace
