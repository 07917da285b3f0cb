// The host's logger: filters lines by level, stamps them with the time and a
// level word, and writes each as one line to standard error or a log file.
#ifndef SKARVO_SERVICES_LOGGER_H_
#define SKARVO_SERVICES_LOGGER_H_

#include <atomic>
#include <cstdarg>
#include <memory>
#include <mutex>
#include <string>

#include "common/status.h"
#include "libfilesystem/log.h"

// Reads "debug", "info", "warning", "error" or "critical" (any case) into
// *level. False, leaving *level as it was, for any other text.
bool ParseLogLevel(const std::string& text, LOGLEVEL* level);

// The word written for `level`: "debug" ... "critical", "unknown" otherwise.
const char* LogLevelName(LOGLEVEL level);

// Lines at or above the minimum level are written; the others are dropped
// before anything is formatted. Thread safe: each line reaches the output in
// one write, so lines from different threads never interleave.
class Logger : public ILog {
  public:
    // Writes to standard error.
    explicit Logger(LOGLEVEL minimum = LL_INFO);
    // A logger in *logger that appends to the file at `path`, creating it
    // when missing. Fails, saying why, when the file cannot be opened.
    static Status OpenFile(const std::string& path, LOGLEVEL minimum,
                           std::unique_ptr<Logger>* logger);
    ~Logger() override;

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    void SetLevel(LOGLEVEL minimum);
    LOGLEVEL Level() const;

    bool IsEnabled(LOGLEVEL level) override;
    void LogV(LOGLEVEL level, const char* format, va_list args) override;

  private:
    Logger(int fd, bool ownsFd, LOGLEVEL minimum);
    void WriteLine(const char* data, size_t size);

    std::atomic<int> minimum_;
    const int fd_;
    const bool ownsFd_;
    std::mutex writeMutex_;  // one line at a time
};

#endif  // SKARVO_SERVICES_LOGGER_H_
