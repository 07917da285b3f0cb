#include "foundation/semaphore.h"

Semaphore::Semaphore(unsigned count) : count_(count) {}

void Semaphore::Post() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++count_;
    available_.notify_one();
}

void Semaphore::Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    // The predicate guards against spurious wake-ups and against a unit taken
    // by another thread between the notification and this thread's wake-up.
    available_.wait(lock, [this] { return count_ != 0; });
    --count_;
}

bool Semaphore::WaitFor(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!available_.wait_for(lock, timeout, [this] { return count_ != 0; })) return false;
    --count_;
    return true;
}
