#include "services/read_ahead.h"

#include <utility>

namespace {

// Deletes itself once it has run or been cancelled: the queue never deletes
// its jobs.
class ReadAheadJob : public IAsyncObj {
  public:
    ReadAheadJob(std::shared_ptr<CacheEntry> entry, const ReadAheadPlan& plan)
        : entry_(std::move(entry)), plan_(plan) {}

    void Process(void* /*context*/) override {
        entry_->RunReadAhead(plan_);
        delete this;
    }

    void Canceled(void* /*context*/) override {
        entry_->ReadAheadEnded();
        delete this;
    }

  private:
    const std::shared_ptr<CacheEntry> entry_;
    const ReadAheadPlan plan_;
};

}  // namespace

void StartReadAhead(IAsyncQ* queue, std::shared_ptr<CacheEntry> entry, const ReadAheadPlan& plan) {
    if (queue == nullptr) {
        entry->ReadAheadEnded();
        return;
    }
    auto* job = new ReadAheadJob(entry, plan);
    if (queue->Queue(job, nullptr) != SUCCESS) {
        delete job;
        entry->ReadAheadEnded();
    }
}
