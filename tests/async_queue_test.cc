// Jobs reach the host's queue, or run inline when there is none.
#include <gtest/gtest.h>

#include <vector>

#include "api/async_queue.h"
#include "api/log.h"
#include "libfilesystem/entry_points.h"

namespace {

class CountingJob : public IAsyncObj {
  public:
    void Process(void* context) override { processed.push_back(context); }
    void Canceled(void* context) override { canceled.push_back(context); }
    std::vector<void*> processed;
    std::vector<void*> canceled;
};

// Holds jobs until the test runs them, or refuses them all.
class HoldingQueue : public IAsyncQ {
  public:
    explicit HoldingQueue(AERROR answer = SUCCESS) : answer_(answer) {}
    void Stop() override {}
    AERROR Queue(IAsyncObj* job, void* context) override {
        if (answer_ == SUCCESS) held.emplace_back(job, context);
        return answer_;
    }
    void Drain() override {}
    std::vector<std::pair<IAsyncObj*, void*>> held;

  private:
    AERROR answer_;
};

class QueueAsyncTest : public ::testing::Test {
  protected:
    void TearDown() override { FS_UnbindAsyncQ(); }
};

TEST_F(QueueAsyncTest, WithoutAQueueTheJobRunsInlineWithContextOne) {
    CountingJob job;
    QueueAsync(&job, nullptr);
    ASSERT_EQ(job.processed.size(), 1u);
    EXPECT_EQ(job.processed[0], reinterpret_cast<void*>(1));

    int context = 0;
    QueueAsync(&job, &context);
    ASSERT_EQ(job.processed.size(), 2u);
    EXPECT_EQ(job.processed[1], &context);
}

TEST_F(QueueAsyncTest, WithAQueueTheJobIsHandedOverNotRun) {
    HoldingQueue queue;
    FS_BindAsyncQ(&queue);
    CountingJob job;
    QueueAsync(&job, nullptr);
    EXPECT_TRUE(job.processed.empty());
    ASSERT_EQ(queue.held.size(), 1u);
    EXPECT_EQ(queue.held[0].first, &job);
    EXPECT_EQ(queue.held[0].second, nullptr);
}

TEST_F(QueueAsyncTest, AJobTheQueueRefusesStillRunsInline) {
    HoldingQueue queue(ASYNCQ_STOPPED);
    FS_BindAsyncQ(&queue);
    CountingJob job;
    int context = 0;
    QueueAsync(&job, &context);
    ASSERT_EQ(job.processed.size(), 1u);
    EXPECT_EQ(job.processed[0], reinterpret_cast<void*>(1));
}

TEST(LogTest, NullLoggerIsIgnored) {
    __LOG__A(nullptr, LL_ERROR, "[FILESYSTEM] %s", "dropped");
}

}  // namespace
