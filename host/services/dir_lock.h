// An exclusive claim on a folder, held through a lock file inside it.
#ifndef SKARVO_SERVICES_DIR_LOCK_H_
#define SKARVO_SERVICES_DIR_LOCK_H_

#include <memory>
#include <string>

#include "common/status.h"

// Holds an exclusive flock on "<dir>/lock" for its lifetime. The kernel drops
// the lock when the process ends, so a crash never leaves a folder claimed.
// A second claim fails, from another process or from this one.
class DirLock {
  public:
    // Claims `dir` for *lock. Fails, naming the folder and the lock file,
    // when the folder is claimed already or the lock file cannot be opened.
    static Status Acquire(const std::string& dir, std::unique_ptr<DirLock>* lock);
    ~DirLock();

    DirLock(const DirLock&) = delete;
    DirLock& operator=(const DirLock&) = delete;

  private:
    explicit DirLock(int fd) : fd_(fd) {}
    const int fd_;
};

#endif  // SKARVO_SERVICES_DIR_LOCK_H_
