// What tests of the library share: a logger that records, temporary
// folders, command runs and waits, and what kernel mounts need.
#ifndef LIBFS_TESTS_SUPPORT_TEST_ENV_H_
#define LIBFS_TESTS_SUPPORT_TEST_ENV_H_

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "libfilesystem/log.h"

// Keeps every line it is given, with its level.
class RecordingLog : public ILog {
  public:
    bool IsEnabled(LOGLEVEL) override { return true; }
    void LogV(LOGLEVEL level, const char* format, va_list args) override;

    // Lines that contain `text`, at `level` (any level when 0).
    int Count(const std::string& text, int level = 0);
    bool Has(const std::string& text, int level = 0) { return Count(text, level) > 0; }
    struct Line {
        LOGLEVEL level = LL_DEBUG;
        std::string text;
    };
    // The last line; an empty one when there is none.
    Line Last();
    void Clear();

  private:
    std::mutex mutex_;
    std::vector<std::pair<LOGLEVEL, std::string>> lines_;
};

// A folder under /tmp, removed with everything in it when destroyed.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// Why kernel mounts cannot be tested here, or "" when they can: they need
// root and a /dev/fuse that opens.
std::string KernelMountUnavailable();

// Runs `argv` in a child process (no shell); its exit status, or -1. Its
// standard output is stored in `output` when given.
int RunProgram(const std::vector<std::string>& argv, std::string* output = nullptr);

// Polls `condition` until it holds or `limit` passes (a guard against hangs,
// not a timing assertion).
bool WaitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds limit = std::chrono::seconds(20));

// Whether /proc/mounts lists `point` with file system type `type`.
bool IsMounted(const std::string& point, const std::string& type = "fuse.skfs");
int CountThreads();
int CountOpenFds();

std::string ReadFile(const std::string& path);
bool WriteFile(const std::string& path, const std::string& contents);
// `size` bytes drawn from a generator seeded with `seed`.
std::string RandomBytes(size_t size, unsigned seed = 0);

#endif  // LIBFS_TESTS_SUPPORT_TEST_ENV_H_
