#include "services/queued_call.h"

#include <utility>

namespace {

// Deletes itself once it has run or been cancelled: the queue never deletes
// its jobs.
class CallJob : public IAsyncObj {
  public:
    CallJob(std::function<void()> run, std::function<void()> canceled)
        : run_(std::move(run)), canceled_(std::move(canceled)) {}

    void Process(void* /*context*/) override {
        run_();
        delete this;
    }

    void Canceled(void* /*context*/) override {
        if (canceled_) canceled_();
        delete this;
    }

  private:
    const std::function<void()> run_;
    const std::function<void()> canceled_;
};

}  // namespace

bool RunQueued(IAsyncQ* queue, std::function<void()> run, std::function<void()> canceled) {
    if (queue == nullptr) return false;
    auto* job = new CallJob(std::move(run), std::move(canceled));
    if (queue->Queue(job, nullptr) == SUCCESS) return true;
    delete job;
    return false;
}
