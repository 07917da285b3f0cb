// The job queue: growth past long-running jobs, the thread bound, Stop, Drain
// and idle threads retiring.
#include "services/job_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "support/test_env.h"

namespace {

using namespace std::chrono_literals;

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

using Jobs = std::vector<std::unique_ptr<Job>>;
Jobs MakeJobs(int count, const std::function<void()>& body = {}) {
    Jobs jobs;
    for (int i = 0; i < count; ++i)
        jobs.push_back(std::make_unique<Job>(body));
    return jobs;
}
bool All(const Jobs& jobs, std::atomic<bool> Job::*flag) {
    return std::all_of(jobs.begin(), jobs.end(),
                       [&](const auto& job) { return (*job.*flag).load(); });
}
void QueueAll(JobQueue& queue, const Jobs& jobs, void* context = nullptr) {
    for (auto& job : jobs)
        ASSERT_EQ(queue.Queue(job.get(), context), SUCCESS);
}

// In every test the jobs are declared before the queue, so that the queue
// has joined its threads before any job is destroyed.

TEST(JobQueueTest, RunsEveryJobWithItsContextAndJobsMayQueueMore) {
    auto jobs = MakeJobs(20);
    int contexts[20];
    Job child;
    JobQueue* queuePointer = nullptr;
    Job parent([&] { EXPECT_EQ(queuePointer->Queue(&child, nullptr), SUCCESS); });
    JobQueue queue;
    queuePointer = &queue;
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(queue.Queue(jobs[i].get(), &contexts[i]), SUCCESS);
    ASSERT_EQ(queue.Queue(&parent, nullptr), SUCCESS);
    ASSERT_TRUE(WaitUntil([&] { return All(jobs, &Job::processed) && child.processed; }));
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(jobs[i]->Context(), &contexts[i]);
    EXPECT_EQ(queue.Queue(nullptr, nullptr), ASYNCQ_NULLOBJECT);
    queue.Stop();
    Job refused;
    EXPECT_EQ(queue.Queue(&refused, nullptr), ASYNCQ_STOPPED);
    EXPECT_FALSE(refused.started || refused.canceled) << "a refused job is the caller's again";
}

TEST(JobQueueTest, KeepsToItsThreadBoundAndDrainWaitsForQueuedJobsToStart) {
    Gate gate;
    auto blockers = MakeJobs(2, [&] { gate.Wait(); });
    auto waiting = MakeJobs(1);
    JobQueue queue(2);
    OpenOnExit openGate(gate);
    QueueAll(queue, blockers);
    ASSERT_TRUE(WaitUntil([&] { return queue.RunningCount() == 2; }));
    QueueAll(queue, waiting);
    EXPECT_EQ(queue.ThreadCount(), 2u);
    EXPECT_EQ(queue.PendingCount(), 1u);
    std::atomic<size_t> pendingWhenDrained{99};
    std::thread drainer([&] {
        queue.Drain();
        pendingWhenDrained = queue.PendingCount();
    });
    std::this_thread::sleep_for(10ms);
    EXPECT_FALSE(All(waiting, &Job::started));
    gate.Open();
    drainer.join();
    EXPECT_EQ(pendingWhenDrained, 0u);
    EXPECT_TRUE(WaitUntil([&] { return All(waiting, &Job::processed); }));
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
    QueueAll(queue, queued, &context);
    std::atomic<bool> stopped{false};
    std::thread stopper([&] {
        queue.Stop();
        stopped = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return All(queued, &Job::canceled); }));
    EXPECT_FALSE(stopped) << "Stop returned while a job was still running";
    gate.Open();
    stopper.join();
    EXPECT_TRUE(running.processed);
    for (auto& job : queued)
        EXPECT_TRUE(!job->started && job->Context() == &context);
    EXPECT_EQ(queue.ThreadCount(), 0u);
}

TEST(JobQueueTest, IdleThreadsRetireAndTheQueueStaysUsable) {
    Gate gate;
    auto jobs = MakeJobs(4, [&] { gate.Wait(); });
    Job later;
    Job slow([] { std::this_thread::sleep_for(50ms); });
    {
        JobQueue queue(JobQueue::kDefaultMaxThreads, 20ms);
        OpenOnExit openGate(gate);
        QueueAll(queue, jobs);
        ASSERT_TRUE(WaitUntil([&] { return queue.RunningCount() == 4; }));
        gate.Open();
        EXPECT_TRUE(WaitUntil([&] { return queue.ThreadCount() == 0; }));
        queue.Drain();  // joins the retired threads
        ASSERT_EQ(queue.Queue(&later, nullptr), SUCCESS);
        EXPECT_TRUE(WaitUntil([&] { return later.processed.load(); }));
        ASSERT_EQ(queue.Queue(&slow, nullptr), SUCCESS);
        ASSERT_TRUE(WaitUntil([&] { return slow.started.load(); }));
    }
    EXPECT_TRUE(slow.processed) << "destruction did not wait for a running job";
}

}  // namespace
