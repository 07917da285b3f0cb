#include "export/forget_gate.h"

#include <utility>

ForgetGate::ForgetGate(Run run, size_t backlog) : run_(std::move(run)), limit_(backlog) {}

void ForgetGate::Enter() {
    std::unique_lock<std::mutex> lock(mutex_);
    idle_.wait(lock, [&] { return !forgetting_ && backlog_.size() < limit_; });
    ++active_;
}

void ForgetGate::Leave() {
    std::unique_lock<std::mutex> lock(mutex_);
    if (--active_ == 0 && !forgetting_) RunBacklog(lock);
}

void ForgetGate::Forget(const char* data, size_t size) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (active_ > 0 || forgetting_) {
        backlog_.emplace_back(data, data + size);
        return;
    }
    // Nothing else runs: handle it from the reader's buffer, then whatever
    // arrived meanwhile.
    forgetting_ = true;
    lock.unlock();
    run_(data, size);
    lock.lock();
    RunBacklog(lock);
}

void ForgetGate::RunBacklog(std::unique_lock<std::mutex>& lock) {
    forgetting_ = true;
    while (!backlog_.empty()) {
        std::deque<Message> batch;
        batch.swap(backlog_);
        lock.unlock();
        for (const Message& message : batch)
            run_(message.data(), message.size());
        lock.lock();
    }
    forgetting_ = false;
    idle_.notify_all();
}
