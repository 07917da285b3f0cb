// A counting semaphore: Post() adds one unit, Wait() blocks until a unit is
// available and takes it.
#ifndef LIBFILESYSTEM_FOUNDATION_SEMAPHORE_H_
#define LIBFILESYSTEM_FOUNDATION_SEMAPHORE_H_

#include <chrono>
#include <condition_variable>
#include <mutex>

class Semaphore {
  public:
    explicit Semaphore(unsigned count = 0);

    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    // Adds one unit and wakes one waiter.
    void Post();
    // Takes one unit, waiting for a Post() while there is none.
    void Wait();
    // As Wait(), but gives up after `timeout`; true when a unit was taken.
    bool WaitFor(std::chrono::milliseconds timeout);

  private:
    std::mutex mutex_;
    std::condition_variable available_;
    unsigned count_;
};

#endif  // LIBFILESYSTEM_FOUNDATION_SEMAPHORE_H_
