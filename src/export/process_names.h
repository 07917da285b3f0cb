// The names of the processes that send requests, read from the system once
// per process and second rather than on every request: a file created by
// `cp` costs half a dozen requests, and each read of a name opens, reads
// and closes a file under /proc (strace of 1,000 creates of 4 KiB: 6 such
// opens per file before, none after the first).
//
// A name is kept for one second, so a process that runs another program
// (exec) is named anew soon after, and a process number that the system
// hands out again is never named after the old process for long.
#ifndef LIBFS_EXPORT_PROCESS_NAMES_H_
#define LIBFS_EXPORT_PROCESS_NAMES_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>

class ProcessNames {
  public:
    using Reader = std::function<std::string(pid_t)>;
    explicit ProcessNames(Reader reader) : reader_(std::move(reader)) {}

    // The name of `pid`, from the reader when none younger than a second is
    // kept. Thread safe; the reader runs with no lock held.
    std::string Get(pid_t pid);

  private:
    using Clock = std::chrono::steady_clock;
    struct Entry {
        std::string name;
        Clock::time_point read;
    };
    static constexpr size_t kMaxEntries = 512;

    const Reader reader_;
    std::mutex lock_;
    std::unordered_map<pid_t, Entry> names_;  // guarded by lock_
};

#endif  // LIBFS_EXPORT_PROCESS_NAMES_H_
