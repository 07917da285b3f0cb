// Holds a shared mutex either exclusively or shared, chosen at run time.
#ifndef LIBFS_FOUNDATION_SHARED_HOLD_H_
#define LIBFS_FOUNDATION_SHARED_HOLD_H_

#include <shared_mutex>

class SharedHold {
  public:
    SharedHold(std::shared_mutex& mutex, bool exclusive) : mutex_(mutex), exclusive_(exclusive) {
        if (exclusive_) {
            mutex_.lock();
        } else {
            mutex_.lock_shared();
        }
    }
    ~SharedHold() {
        if (exclusive_) {
            mutex_.unlock();
        } else {
            mutex_.unlock_shared();
        }
    }
    SharedHold(const SharedHold&) = delete;
    SharedHold& operator=(const SharedHold&) = delete;

  private:
    std::shared_mutex& mutex_;
    const bool exclusive_;
};

#endif  // LIBFS_FOUNDATION_SHARED_HOLD_H_
