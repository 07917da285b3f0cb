#include "support/thread_queue.h"

ThreadQueue::~ThreadQueue() {
    Stop();
}

void ThreadQueue::Stop() {
    std::list<std::unique_ptr<Worker>> workers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
        workers.swap(workers_);
    }
    for (auto& worker : workers)
        worker->thread.join();
}

AERROR ThreadQueue::Queue(IAsyncObj* job, void* context) {
    if (job == nullptr) return ASYNCQ_NULLOBJECT;
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopped_) return ASYNCQ_STOPPED;
    auto worker = std::make_unique<Worker>();
    Worker* raw = worker.get();
    raw->thread = std::thread([job, context, raw] {
        job->Process(context);
        raw->done = true;
    });
    workers_.push_back(std::move(worker));
    ++queued_;
    return SUCCESS;
}

void ThreadQueue::Drain() {
    std::list<std::unique_ptr<Worker>> finished;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = workers_.begin(); it != workers_.end();) {
            if ((*it)->done.load()) {
                finished.push_back(std::move(*it));
                it = workers_.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& worker : finished)
        worker->thread.join();
}

int ThreadQueue::Running() {
    std::lock_guard<std::mutex> lock(mutex_);
    int running = 0;
    for (const auto& worker : workers_)
        running += worker->done.load() ? 0 : 1;
    return running;
}
