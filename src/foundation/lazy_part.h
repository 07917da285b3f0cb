// A part of an object that is made at its first use and kept until the
// object goes: for state that most instances never need, such as the locks
// and queues of a file that is listed but never opened.
#ifndef LIBFS_FOUNDATION_LAZY_PART_H_
#define LIBFS_FOUNDATION_LAZY_PART_H_

#include <atomic>
#include <memory>

template <typename T>
class LazyPart {
  public:
    LazyPart() = default;
    LazyPart(const LazyPart&) = delete;
    LazyPart& operator=(const LazyPart&) = delete;
    ~LazyPart() { delete part_.load(); }

    // The part, made now when it was not yet. Threads that race here all
    // get the one that was published first.
    T& Get() {
        T* part = part_.load(std::memory_order_acquire);
        if (part != nullptr) return *part;
        auto made = std::make_unique<T>();
        if (part_.compare_exchange_strong(part, made.get(), std::memory_order_acq_rel,
                                          std::memory_order_acquire)) {
            return *made.release();
        }
        return *part;
    }

    // The part, or null when it was never made.
    T* Peek() const { return part_.load(std::memory_order_acquire); }

  private:
    std::atomic<T*> part_{nullptr};
};

#endif  // LIBFS_FOUNDATION_LAZY_PART_H_
